--[[
Wireshark dissector for the packets of the group: datagrams over UDP, frames over TCP.

The body is walked with a stack of open structures instead of recursion, so that nesting costs no C
stack. Every step consumes bytes, and a count is compared with the bytes that are left before
anything is done as often as it says: work is proportional to the packet. What is shown is bounded
too, as Wireshark gives up on a packet with too many items or too deep a tree; the rest is still
checked.

Needs Wireshark 4.0 (Lua 5.2) or newer.
]]

local max_length = 2147483647 -- of lengths and counts
local max_depth = 1024 -- structures and arrays of structures inside each other, the root counted
local max_shown_depth = 64 -- what nests deeper is shown as if it did not
local max_shown = 50000 -- elements and items of arrays of one packet; five tree items each at most
local max_notes = 1000 -- remarks about elements of one packet
local max_text = 2000 -- bytes of a text in the Info column
local max_summary = 8 -- fields in the Info column
local head_size = 3 -- of an element: name, type
local count_size = 4
local type_size = 4
local frame_head_size = 8
local port_type_udp = 3

set_plugin_info({ version = "1.0.0", description = "Packets of TavlenLogger and libTavlenCommon" })
local tavlen = Proto("tavlen", "TavlenLogger Packet")

-- ------------------------------------------------------------------------------ types of elements

-- By code: name, kind, width of the number or of one item, key of the value's field.
local types = {
    [1] = { name = "root structure", kind = "structure" },
    [12] = { name = "string", kind = "block", value = "string" },
    [13] = { name = "enum", kind = "number", width = 4, value = "uint" },
    [14] = { name = "structure", kind = "structure" },
    [15] = { name = "structure (15)", kind = "structure" },
    [16] = { name = "blob", kind = "block", value = "bytes" },
    [27] = { name = "array of strings", kind = "strings", value = "string" },
    [28] = { name = "array of structures", kind = "structure" },
}
for _, n in ipairs({
    { 2, 23, "int8", 1, "int" }, { 3, 24, "uint8", 1, "uint" },
    { 4, 17, "int16", 2, "int" }, { 5, 18, "uint16", 2, "uint" },
    { 6, 19, "int32", 4, "int" }, { 7, 20, "uint32", 4, "uint" },
    { 8, 21, "int64", 8, "int" }, { 9, 22, "uint64", 8, "uint" },
    { 10, 25, "float", 4, "float" }, { 11, 26, "double", 8, "double" },
}) do
    types[n[1]] = { name = n[3], kind = "number", width = n[4], value = n[5] }
    types[n[2]] = { name = "array of " .. n[3], kind = "items", width = n[4], value = n[5] }
end
local type_root, type_struct, type_struct_read, type_struct_array = 1, 14, 15, 28
local type_names = {}
for code, info in pairs(types) do
    type_names[code] = info.name
end

-- ------------------------------------------------------------------------------------- catalogue

-- A message's name and its fields' labels, as "NAME:TYPE label, ...": first those of the root, then
-- those of structures inside it.
local secondary = "0:12 address, 1:12 admin port, 2:12 client port, 3:12 monitor address, "
    .. "4:12 node monitor port"
local parallel = "0:12 address, 1:12 port"
local count = "2:6 count"
local insert = "2:7 rows, 4:7 columns, 6:14 data lengths"
local messages = {
    [5] = { "result", "2:6 status, 3:6 error code, 5:6 number of rows" },
    [21] = { "db_changed", count .. ", 7:12 detail", "5:12 identifier" },
    [23] = { "type23", count, "6:6 sub-count" },
    [24] = { "type24", count },
    [25] = { "type25", count },
    [29] = { "log_event", "1:6 version, 2:12 name, 3:12 line" },
    [33] = { "type33", "2:7 count" },
    [34] = { "type34", "2:7 count" },
    [43] = { "secondary_server_join", "", secondary },
    [44] = { "secondary_servers_list", "0:6 count", secondary },
    [45] = { "secondary_server_item", secondary },
    [46] = { "secondary_server_accept" },
    [47] = { "secondary_server_state_number" },
    [48] = { "log_event_send_event" },
    [49] = { "parallel_server_join", "", parallel },
    [51] = { "parallel_server_item", parallel },
    [52] = { "parallel_servers_list", "0:6 count", parallel },
    [56] = { "session_new" },
    [57] = { "session_drop" },
    [58] = { "node_kill" },
    [59] = { "admin_db_insert2", insert },
    [60] = { "admin_db_insert3", insert },
}
for _, code in ipairs({ 1, 2, 3, 6, 7, 8, 9, 11, 15, 16, 17, 18, 20, 26, 27, 28, 31, 32, 35, 36, 37,
    38, 39, 40, 41, 42, 50, 53, 54, 55, 64, 65, 71 }) do
    messages[code] = { "type" .. code }
end
local log_event, log_event_version = 29, 1
local message_names = {}

-- One number for a name together with a type.
local function key_of(name, code)
    return name * 256 + code
end
local key_version, key_sender, key_line = key_of(1, 6), key_of(2, 12), key_of(3, 12)

local function parse_labels(text)
    local labels = {}
    for name, code, label in (text or ""):gmatch("(%d+):(%d+) ([^,]+)") do
        labels[key_of(tonumber(name), tonumber(code))] = label
    end
    return labels
end

for code, message in pairs(messages) do
    message_names[code] = message[1]
    message.of_root, message.of_others = parse_labels(message[2]), parse_labels(message[3])
end
local no_message = { of_root = {}, of_others = {} }

-- ---------------------------------------------------------------------------- fields and findings

local fields = {
    length = ProtoField.uint32("tavlen.length", "Length of the body", base.DEC),
    type = ProtoField.uint32("tavlen.type", "Type", base.DEC, message_names),
    sender = ProtoField.string("tavlen.log.sender", "Sender", base.UNICODE),
    line = ProtoField.string("tavlen.log.line", "Line", base.UNICODE),
    element = ProtoField.none("tavlen.element", "Element"),
    name = ProtoField.uint16("tavlen.element.name", "Name", base.DEC),
    code = ProtoField.uint8("tavlen.element.type", "Type", base.DEC, type_names),
    label = ProtoField.string("tavlen.element.label", "Label"),
    size = ProtoField.uint32("tavlen.element.length", "Length", base.DEC),
    count = ProtoField.uint32("tavlen.element.count", "Count", base.DEC),
    int = ProtoField.int64("tavlen.value.int", "Value", base.DEC),
    uint = ProtoField.uint64("tavlen.value.uint", "Value", base.DEC),
    float = ProtoField.float("tavlen.value.float", "Value"),
    double = ProtoField.double("tavlen.value.double", "Value"),
    string = ProtoField.string("tavlen.value.string", "Value", base.UNICODE),
    bytes = ProtoField.bytes("tavlen.value.bytes", "Value"),
}
tavlen.fields = fields
local element_fields = {} -- all but those of the packet itself
for key, field in pairs(fields) do
    if key ~= "length" and key ~= "type" and key ~= "sender" and key ~= "line" then
        element_fields[#element_fields + 1] = field
    end
end

local findings, finding_texts = {}, {} -- by abbreviation
for _, row in ipairs({
    { "cut_short", "MALFORMED", "ERROR", "Cut short" },
    { "bad_count", "MALFORMED", "ERROR", "Length or count above 2147483647" },
    { "bad_type", "MALFORMED", "ERROR", "Unknown element type" },
    { "too_deep", "MALFORMED", "ERROR", "Nested more than 1024 deep" },
    { "bad_frame", "MALFORMED", "ERROR", "No frame, or one longer than the preferences allow" },
    { "no_root", "PROTOCOL", "WARN", "The body is no root structure of name 1" },
    { "not_taken", "PROTOCOL", "WARN", "No log event that a collector takes" },
    { "ends_early", "PROTOCOL", "NOTE", "The body ends before all announced elements came" },
    { "behind_root", "PROTOCOL", "NOTE", "Bytes behind the root are ignored" },
    { "inner_root", "PROTOCOL", "NOTE", "Its elements belong to the structure around it" },
    { "no_structure", "PROTOCOL", "NOTE", "No structure, though in an array of structures" },
    { "not_shown", "UNDECODED", "NOTE", "The packet holds more than is shown" },
    { "flattened", "UNDECODED", "NOTE", "What nests deeper is shown beside this structure" },
    { "captured_short", "UNDECODED", "NOTE", "The capture or segment ends within the packet" },
}) do
    local abbreviation, group, severity, text = row[1], row[2], row[3], row[4]
    finding_texts[abbreviation] = text
    findings[abbreviation] = ProtoExpert.new("tavlen." .. abbreviation, text, expert.group[group],
        expert.severity[severity])
end
tavlen.experts = findings

-- --------------------------------------------------------------------------------- plain functions

local function u16(bytes, offset)
    local a, b = bytes:byte(offset + 1, offset + 2)
    return a * 256 + b
end

local function u32(bytes, offset)
    local a, b, c, d = bytes:byte(offset + 1, offset + 4)
    return ((a * 256 + b) * 256 + c) * 256 + d
end

local escapes = { [7] = "\\a", [8] = "\\b", [9] = "\\t", [10] = "\\n", [11] = "\\v", [12] = "\\f",
    [13] = "\\r" }

local smallest_of_size = { 0, 0x80, 0x800, 0x10000 } -- code points, by bytes in UTF-8

-- Control characters, those that turn the direction of text, and what is no character.
local function is_shown(code, size)
    return code >= smallest_of_size[size] and code >= 0xa0 and code <= 0x10ffff
        and not (code >= 0x2028 and code <= 0x202e) and not (code >= 0x2066 and code <= 0x2069)
        and not (code >= 0xd800 and code <= 0xdfff)
end

-- How the character of several bytes at `i` is to be shown, and how many bytes it has; nil when
-- none is there.
local function show_wide(text, i, lead)
    local size = lead >= 0xf0 and 4 or lead >= 0xe0 and 3 or 2
    local tail = text:match("^[\128-\191]+", i + 1) or ""
    if lead < 0xc2 or lead > 0xf4 or #tail < size - 1 then
        return nil
    end
    local code = lead % 2 ^ (7 - size)
    for k = 1, size - 1 do
        code = code * 64 + tail:byte(k) % 64
    end
    return is_shown(code, size) and text:sub(i, i + size - 1) or ("\\u%04X"):format(code), size
end

local function show_char(text, i)
    local code = text:byte(i)
    if code >= 0x20 and code < 0x7f then
        return string.char(code), 1
    end
    local shown, size
    if code >= 0x80 then
        shown, size = show_wide(text, i, code)
    end
    return shown or escapes[code] or ("\\%03o"):format(code), size or 1
end

-- Text for a column or a label. Wireshark shows those as they are, so what would steer a terminal
-- is escaped here, as Wireshark does it in fields.
local function printable(text)
    local tail = ""
    if #text > max_text then
        text, tail = text:sub(1, max_text), "..."
    end
    if not text:find("[^ -~]") then
        return text .. tail
    end
    local shown, i, size = {}, 1
    while i <= #text do
        shown[#shown + 1], size = show_char(text, i)
        i = i + size
    end
    return table.concat(shown) .. tail
end

local function plural(number, what)
    return ("%d %s%s"):format(number, what, number == 1 and "" or "s")
end

-- A number as text, all of its digits.
local function number_text(info, range)
    if info.value == "float" or info.value == "double" then
        return (info.width == 8 and "%.15g" or "%.7g"):format(range:float())
    elseif info.value == "int" then
        return tostring(info.width == 8 and range:int64() or range:int())
    end
    return tostring(info.width == 8 and range:uint64() or range:uint())
end

-- -------------------------------------------------------------------------------------- the walk

--[[
A walk over one packet. Its state:
  tvb, bytes      the packet, and the same as a string
  offset, stop    the next byte, and the end of the packet
  top             the item that stands for the packet
  code, message   the packet's type, and what the catalogue knows of it
  stack           open structures, innermost last: the number of elements that are `left` to come,
                  the `tree` that they go to, the structure's own `element`, and whether it
                  `is_outer`: the root, or a root that belongs to it
  may_show_more   how many more elements and items may be shown; nil when nobody asks for elements
  may_note_more   how many more remarks may be made
  is_wanted       whether somebody asks for fields
  is_visible      whether somebody reads labels
  summary         texts for the Info column, of the first few elements of the root
  known           by key, of each first element of the root: a number's offset, a string's place
  failed          the finding that ended the walk
  oddity          one that did not, and is worth the Info column
An element has its `name`, `code`, `start` and, when it is shown, its `item`.
]]
local Walk = {}
Walk.__index = Walk

local dissector -- this one, which is not to be had before a packet comes

-- Whether a filter, a column or a reader asks for any field.
local function wants_fields(top)
    dissector = dissector or Dissector.get("tavlen")
    return top.visible or top:referenced(dissector)
end

-- Whether they ask for more than the packet's own fields.
local function wants_elements(top)
    if top.visible then
        return true
    end
    for _, field in ipairs(element_fields) do
        if top:referenced(field) then
            return true
        end
    end
    return false
end

local function new_walk(tvb, top, body)
    local walk = { tvb = tvb, bytes = tvb:raw(0, tvb:len()), offset = body, stop = tvb:len(),
        top = top, may_note_more = max_notes, is_visible = top.visible, summary = {}, known = {} }
    walk.is_wanted = wants_fields(top)
    walk.may_show_more = walk.is_wanted and wants_elements(top) and max_shown or nil
    walk.stack = { { left = 1, tree = top, element = { item = top }, is_outer = true } }
    return setmetatable(walk, Walk)
end

local function note(item, finding, text)
    if text then
        item:add_proto_expert_info(findings[finding], text)
    else
        item:add_proto_expert_info(findings[finding])
    end
end

-- Ends the walk. What a capture has cut off is not the packet's fault.
function Walk:fail(element, finding, text)
    if finding == "cut_short" and self.tvb:reported_len() > self.tvb:len() then
        finding, text = "captured_short", nil
    end
    note(element.item or self.top, finding, text)
    self.failed = finding
end

-- Remarks on an element that may still be read.
function Walk:remark(element, finding, text)
    if self.may_note_more > 0 then
        note(element.item or self.top, finding, text)
        self.may_note_more = self.may_note_more - 1
    end
end

-- Whether one more element or item is to be shown.
function Walk:may_show()
    local left = self.may_show_more
    if left == 0 then
        note(self.top, "not_shown")
    end
    self.may_show_more = left and left - 1
    return left and left > 0
end

-- Whether as many bytes are left; ends the walk when not.
function Walk:has(element, size)
    local left = self.stop - self.offset
    if size > left then
        self:fail(element, "cut_short", ("Cut short: %d of %.0f bytes are there"):format(left,
            size))
        return false
    end
    return true
end

-- Reads a count or length; nil when that ends the walk.
function Walk:take_count(element, field)
    if not self:has(element, count_size) then
        return nil
    end
    local value = u32(self.bytes, self.offset)
    if field and element.item then
        element.item:add(fields[field], self.tvb(self.offset, count_size))
    end
    self.offset = self.offset + count_size
    if value > max_length then
        return self:fail(element, "bad_count", ("%.0f is above %d"):format(value, max_length))
    end
    return value
end

-- The text at a place, up to a zero byte, as Wireshark shows it and a collector writes it.
function Walk:text_at(place)
    return self.bytes:sub(place.at + 1, place.at + place.size):match("^[^\0]*")
end

-- Takes a text of `size` bytes, which are there.
function Walk:take_text(element, size)
    if element.item then
        element.item:add_packet_field(fields.string, self.tvb(self.offset, size), ENC_UTF_8)
    end
    self.offset = self.offset + size
end

-- Whether an element's value is needed as text.
function Walk:wants_text(element)
    return self.is_visible
        or (element.is_outer and #self.summary < max_summary and self.code ~= log_event)
end

-- Readers of what stands behind an element's type, by kind. Each gives the value as text, nil when
-- the walk has ended.
local readers = {}

function readers.number(self, element, info)
    if not self:has(element, info.width) then
        return nil
    end
    local at = self.offset
    element.value = at
    self.offset = at + info.width
    if element.item then
        element.item:add(fields[info.value], self.tvb(at, info.width))
    end
    return self:wants_text(element) and number_text(info, self.tvb(at, info.width)) or ""
end

-- Strings and blobs.
function readers.block(self, element, info)
    local size = self:take_count(element, "size")
    if not size or not self:has(element, size) then
        return nil
    end
    if info.value == "string" then
        element.value = { at = self.offset, size = size }
        self:take_text(element, size)
        return self:wants_text(element) and printable(self:text_at(element.value)) or ""
    end
    if element.item then
        element.item:add(fields.bytes, self.tvb(self.offset, size))
    end
    self.offset = self.offset + size
    return plural(size, "byte")
end

-- Arrays of numbers.
function readers.items(self, element, info)
    local size = self:take_count(element, "count")
    if not size or not self:has(element, size * info.width) then
        return nil
    end
    local first, at = {}, self.offset
    for i = 1, element.item and size or 0 do
        if not self:may_show() then
            break
        end
        local range = self.tvb(at + (i - 1) * info.width, info.width)
        element.item:add(fields[info.value], range)
        first[i] = self.is_visible and i <= max_summary and number_text(info, range) or nil
    end
    self.offset = at + size * info.width
    first[#first + 1] = #first > 0 and #first < size and "..." or nil
    return plural(size, "item") .. (#first > 0 and ": " or "") .. table.concat(first, ", ")
end

-- Unlike a structure, an array of strings holds as many as it announces.
function readers.strings(self, element)
    local size = self:take_count(element, "count")
    local shown = element.item
    for _ = 1, size or 0 do
        local length = self:take_count(element)
        if not length or not self:has(element, length) then
            return nil
        end
        element.item = shown and self:may_show() and shown or nil
        self:take_text(element, length)
        element.item = shown
    end
    return size and plural(size, "string")
end

-- Structures, roots and arrays of structures: the elements follow.
function readers.structure(self, element)
    local open, depth = self.stack[#self.stack], #self.stack
    if depth > max_depth then
        return self:fail(element, "too_deep")
    end
    local size = self:take_count(element, "count")
    if not size then
        return nil
    end
    local tree = depth <= max_shown_depth and element.item or open.tree
    if depth == max_shown_depth + 1 and element.item and not self.is_flattened then
        note(tree, "flattened")
        self.is_flattened = true
    end
    self.stack[depth + 1] = { left = size, tree = tree, element = element,
        is_outer = open.is_outer and element.code == type_root }
    return plural(size, element.code == type_struct_array and "structure" or "element")
end

-- Shows name and type of an element, whose end is not known yet.
function Walk:show_head(element, tree)
    local at = element.start
    local item = tree:add(fields.element, self.tvb(at))
    item:add(fields.name, self.tvb(at, 2))
    item:add(fields.code, self.tvb(at + 2, 1))
    if element.label then
        item:add(fields.label, self.tvb(at, 2), element.label):set_generated()
    end
    return item
end

-- What looks odd about an element where it stands; no reader refuses it.
function Walk:note_oddities(element, open)
    local code, around = element.code, open.element.code
    if #self.stack == 1 then
        if element.name ~= 1 or code ~= type_root then
            self:remark(element, "no_root")
        end
    elseif code == type_root then
        self:remark(element, "inner_root")
    elseif around == type_struct_array and code ~= type_struct and code ~= type_struct_read then
        self:remark(element, "no_structure")
    end
end

-- Labels a finished element, and keeps what is asked for later.
function Walk:finish(element, info, text)
    if element.item and self.is_visible then
        local label = element.label and " " .. element.label or ""
        element.item:set_text(("%d %s%s: %s"):format(element.name, info.name, label, text))
    end
    if not element.is_outer or element.code == type_root then
        return
    end
    local key = key_of(element.name, element.code)
    self.known[key] = self.known[key] or element.value
    if #self.summary < max_summary and self.code ~= log_event then
        self.summary[#self.summary + 1] = (element.label or element.name) .. "=" .. text
    end
end

function Walk:read_element(open)
    local at = self.offset
    if not self:has(open.element, head_size) then
        return
    end
    local name, code = u16(self.bytes, at), self.bytes:byte(at + head_size)
    local element = { name = name, code = code, start = at, is_outer = open.is_outer }
    local labels = open.is_outer and self.message.of_root or self.message.of_others
    element.label = labels[key_of(name, code)]
    element.item = self:may_show() and self:show_head(element, open.tree) or nil
    self.offset = at + head_size
    local info = types[code]
    if not info then
        return self:fail(element, "bad_type", "Unknown element type " .. code)
    end
    self:note_oddities(element, open)
    local text = readers[info.kind](self, element, info)
    if text then
        self:finish(element, info, text)
    end
    if element.item and info.kind ~= "structure" then
        element.item:set_len(self.offset - at)
    end
end

-- Closes the innermost structure.
function Walk:close()
    local element = table.remove(self.stack).element
    if element.item and element.start then
        element.item:set_len(self.offset - element.start)
    end
end

-- The body ends behind a whole element, which is good unless there was none.
function Walk:end_early(open)
    if #self.stack == 1 then
        return self:fail(open.element, "cut_short", "There is no body")
    end
    self:remark(open.element, "ends_early",
        ("The body ends before %s that it announces"):format(plural(open.left, "element")))
end

function Walk:run()
    local stack = self.stack
    while #stack > 0 and not self.failed do
        local open = stack[#stack]
        if open.left == 0 then
            self:close()
        elseif self.offset == self.stop then
            self:end_early(open)
            break
        else
            open.left = open.left - 1
            self:read_element(open)
        end
    end
    if #stack == 0 and self.offset < self.stop then
        note(self.top, "behind_root", ("%d bytes behind the root are ignored"):format(
            self.stop - self.offset))
    end
    while #stack > 0 do
        self:close()
    end
end

-- --------------------------------------------------------------------------------------- packets

-- A text of a log event, shown as such.
function Walk:log_text(field, place)
    if not place then
        return nil
    end
    if self.is_wanted then
        self.top:add_packet_field(fields[field], self.tvb(place.at, place.size), ENC_UTF_8)
    end
    return printable(self:text_at(place))
end

-- What a collector writes for a log event; nil when it takes no such packet.
function Walk:log_record()
    local sender = self:log_text("sender", self.known[key_sender])
    local line = self:log_text("line", self.known[key_line])
    local version = self.known[key_version]
    if self.failed then
        return nil
    elseif sender and line and version and u32(self.bytes, version) == log_event_version then
        return sender .. ": " .. line
    end
    note(self.top, "not_taken")
    self.oddity = "not_taken"
end

-- The Info column's text for a packet whose body has been walked.
function Walk:describe()
    local text = self.code == log_event and self:log_record()
    if not text then
        text = message_names[self.code] or "type " .. self.code
        if #self.summary > 0 then
            text = text .. ": " .. table.concat(self.summary, ", ")
        end
    end
    local finding = self.failed or self.oddity
    return finding and ("%s [%s]"):format(text, finding_texts[finding]) or text
end

-- Adds to what the Info column tells of the packets before it in the same segment.
local function write_columns(pinfo, text)
    local is_first = pinfo.private.tavlen ~= "seen"
    pinfo.private.tavlen = "seen"
    pinfo.cols.protocol = "TAVLEN"
    pinfo.cols.info:set((is_first and "" or " | ") .. text)
    pinfo.cols.info:fence()
end

-- Dissects a packet whose body begins at `body`, right behind the type code.
local function dissect_packet(tvb, pinfo, top, body)
    local walk = new_walk(tvb, top, body)
    local text
    if tvb:len() < body then
        walk:fail({}, "cut_short")
        text = ("[%s]"):format(finding_texts[walk.failed])
    else
        walk.code = u32(walk.bytes, body - type_size)
        walk.message = messages[walk.code] or no_message
        if walk.is_wanted then
            top:add(fields.type, tvb(body - type_size, type_size))
            top:append_text(", " .. (message_names[walk.code] or "type " .. walk.code))
        end
        walk:run()
        text = walk:describe()
    end
    write_columns(pinfo, text)
    return tvb:len()
end

local function dissect_datagram(tvb, pinfo, tree)
    return dissect_packet(tvb, pinfo, tree:add(tavlen, tvb()), type_size)
end

-- ---------------------------------------------------------------------------------------- streams

tavlen.prefs.udp_ports = Pref.range("UDP ports", "27759", "Ports of datagrams", 65535)
tavlen.prefs.tcp_ports = Pref.range("TCP ports", "", "Ports of streams of frames", 65535)
tavlen.prefs.longest_frame = Pref.uint("Longest frame", 16777216,
    "Most bytes in the body of a frame; what announces more is taken for no frame")

-- How many bytes the frame takes; all there are when it cannot be one.
local function frame_size(tvb, _, offset)
    local left = tvb:len() - offset
    if left < frame_head_size then
        return frame_head_size -- Wireshark was told not to put segments together
    end
    local size = tvb(offset, count_size):uint()
    return size <= tavlen.prefs.longest_frame and frame_head_size + size or left
end

local function dissect_frame(tvb, pinfo, tree)
    local top = tree:add(tavlen, tvb())
    if tvb:len() >= count_size then
        local size = tvb(0, count_size)
        top:add(fields.length, size)
        if size:uint() > tavlen.prefs.longest_frame then
            note(top, "bad_frame")
            write_columns(pinfo, ("[%s]"):format(finding_texts.bad_frame))
            return tvb:len()
        end
    end
    return dissect_packet(tvb, pinfo, top, frame_head_size)
end

function tavlen.dissector(tvb, pinfo, tree)
    if pinfo.port_type == port_type_udp then
        return dissect_datagram(tvb, pinfo, tree)
    end
    dissect_tcp_pdus(tvb, tree, frame_head_size, frame_size, dissect_frame)
    return tvb:len()
end

-- ------------------------------------------------------------------------------------------ ports

local tables = {
    udp_ports = DissectorTable.get("udp.port"),
    tcp_ports = DissectorTable.get("tcp.port"),
}
local registered = { udp_ports = "", tcp_ports = "" }

local function register_ports()
    for preference, ports in pairs(registered) do
        if ports ~= "" then
            tables[preference]:remove(ports, tavlen)
        end
        registered[preference] = tavlen.prefs[preference]
        if registered[preference] ~= "" then
            tables[preference]:add(registered[preference], tavlen)
        end
    end
end

tables.tcp_ports:add_for_decode_as(tavlen)
tables.udp_ports:add_for_decode_as(tavlen)
tavlen.prefs_changed = register_ports
register_ports()
