#include "packet_text.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "library_reports.h"
#include "message_names.h"
#include "text.h"

namespace ctl {

namespace {

constexpr size_t type_code_size = 4;

// ---------------------------------------------------------------------------------------- values

std::string quoted(const void *bytes, int32_t length)
{
    return "'" + harmless({static_cast<const char *>(bytes), static_cast<size_t>(length)}, "'\\") +
           "'";
}

std::string number_text(uint8_t type, const mtb_value &value)
{
    switch (type) {
    case MTB_TYPE_CHAR_SIGNED:
        return std::to_string(value.i8);
    case MTB_TYPE_CHAR_UNSIGNED:
        return std::to_string(value.u8);
    case MTB_TYPE_INT16_SIGNED:
        return std::to_string(value.i16);
    case MTB_TYPE_INT16_UNSIGNED:
        return std::to_string(value.u16);
    case MTB_TYPE_INT32_SIGNED:
        return std::to_string(value.i32);
    case MTB_TYPE_INT64_SIGNED:
        return std::to_string(value.i64);
    case MTB_TYPE_INT64_UNSIGNED:
        return std::to_string(value.u64);
    case MTB_TYPE_FLOAT:
        return compose("%.9g", static_cast<double>(value.f));
    case MTB_TYPE_DOUBLE:
        return compose("%.17g", value.d);
    default: // an enum, too
        return std::to_string(value.u32);
    }
}

/// What an array of numbers holds; no array of numbers has width 0.
struct ItemType {
    uint8_t type;
    uint8_t width;
};

ItemType item_type(uint8_t array_type)
{
    static constexpr ItemType by_array_type[] = {
        {MTB_TYPE_INT16_SIGNED, 2}, {MTB_TYPE_INT16_UNSIGNED, 2}, // 17, 18
        {MTB_TYPE_INT32_SIGNED, 4}, {MTB_TYPE_INT32_UNSIGNED, 4}, // 19, 20
        {MTB_TYPE_INT64_SIGNED, 8}, {MTB_TYPE_INT64_UNSIGNED, 8}, // 21, 22
        {MTB_TYPE_CHAR_SIGNED, 1},  {MTB_TYPE_CHAR_UNSIGNED, 1},  // 23, 24
        {MTB_TYPE_FLOAT, 4},        {MTB_TYPE_DOUBLE, 8},         // 25, 26
    };
    if (array_type < MTB_TYPE_ARRAY_INT16_SIGNED || array_type > MTB_TYPE_ARRAY_DOUBLE) {
        return {0, 0};
    }
    return by_array_type[array_type - MTB_TYPE_ARRAY_INT16_SIGNED];
}

std::string array_text(const mtb_element *array)
{
    const ItemType item = item_type(array->type);
    const auto *next = static_cast<const uint8_t *>(array->value.data);
    std::string text;
    for (int32_t i = 0; i < array->len; ++i, next += item.width) {
        mtb_value value{};
        memcpy(&value, next, item.width);
        text += (i == 0 ? "" : ",") + number_text(item.type, value);
    }
    return "[" + text + "]";
}

std::string string_array_text(const mtb_element *array)
{
    std::string text;
    for (const mtb_element *e = array->buffer->first; e != nullptr; e = e->next) {
        text += (text.empty() ? "" : ",") + quoted(e->value.text, e->len);
    }
    return "[" + text + "]";
}

bool holds_elements(const mtb_element *e)
{
    return e->type == MTB_TYPE_ROOT || e->type == MTB_TYPE_STRUCT ||
           e->type == MTB_TYPE_STRUCT_ALT || e->type == MTB_TYPE_STRUCT_ARRAY;
}

/// Of an element that holds no others.
std::string value_text(const mtb_element *e)
{
    if (e->type == MTB_TYPE_STRING_ARRAY) {
        return string_array_text(e);
    }
    if (item_type(e->type).width != 0) {
        return array_text(e);
    }
    if (e->type == MTB_TYPE_STRING || e->type == MTB_TYPE_BLOB) {
        return e->value.data != nullptr ? quoted(e->value.data, e->len) : "null";
    }
    return number_text(e->type, e->value);
}

// ----------------------------------------------------------------------------------- both forms

// Structures nest as deep as the library reads them: what recurs keeps its frame small.

void append_brief(std::string &text, const mtb_chain *elements)
{
    for (const mtb_element *e = elements->first; e != nullptr; e = e->next) {
        text += (e == elements->first ? "" : " ") + std::to_string(e->name) + ":" +
                std::to_string(e->type) + "=";
        if (holds_elements(e)) {
            text += '{';
            append_brief(text, e->buffer);
            text += '}';
        } else {
            text += value_text(e);
        }
    }
}

/// "3 line: string = 'x'"; of one that holds others, how many.
std::string element_line(uint32_t message_type, int depth, const mtb_element *e)
{
    const std::string label = field_label(message_type, depth, e->name);
    std::string text = std::to_string(e->name) + (label.empty() ? "" : " ") + label + ": " +
                       element_type_name(e->type);
    if (!holds_elements(e)) {
        const bool has_length = e->type == MTB_TYPE_STRING || e->type == MTB_TYPE_BLOB;
        text += has_length ? compose(" (%d bytes)", e->len) : "";
        return text + " = " + value_text(e);
    }
    text += compose(", %d", e->buffer->count);
    return text + (e->len != e->buffer->count
                       ? compose(" of %u announced", static_cast<uint32_t>(e->len))
                       : "");
}

/// What nests deeper is not moved further to the right: lines stay in proportion to the packet.
constexpr size_t deepest_shown = 64;

void append_tree(std::string &text, uint32_t message_type, const mtb_chain *elements, int level,
                 int depth)
{
    for (const mtb_element *e = elements->first; e != nullptr; e = e->next) {
        text.append(2 * std::min<size_t>(static_cast<size_t>(level), deepest_shown), ' ');
        text += element_line(message_type, depth, e) + '\n';
        if (holds_elements(e)) {
            // The structures of an array bear its name, and are no depth of their own.
            append_tree(text, message_type, e->buffer, level + 1,
                        depth + (e->type == MTB_TYPE_STRUCT_ARRAY ? 0 : 1));
        }
    }
}

std::string hex_lines(const std::vector<uint8_t> &bytes)
{
    constexpr size_t most = 256;
    std::string text;
    for (size_t i = 0; i < bytes.size() && i < most; ++i) {
        text += compose(i % 16 == 0 ? "%s    %02x" : "%s %02x", i % 16 == 0 && i > 0 ? "\n" : "",
                        bytes[i]);
    }
    if (bytes.size() > most) {
        text += compose("\n    and %zu bytes more", bytes.size() - most);
    }
    return text + (bytes.empty() ? "" : "\n");
}

} // namespace

void DestroyStructure::operator()(mtb_struct *structr) const
{
    (void)mtb_free_deserialized_packet(structr);
    mtb_struct_destroy(structr);
}

DecodedPacket::DecodedPacket(std::vector<uint8_t> datagram)
    : bytes_(std::move(datagram)), root_(mtb_struct_new(1))
{
    if (root_ == nullptr || bytes_.size() <= type_code_size) {
        is_malformed_ = true;
        notes_.push_back(root_ == nullptr ? "low memory"
                                          : compose("%zu bytes are no packet", bytes_.size()));
        return;
    }
    for (size_t i = 0; i < type_code_size; ++i) {
        type_ = type_ << 8 | bytes_[i];
    }
    decode();
}

void DecodedPacket::decode()
{
    (void)take_library_reports();
    uint8_t *cursor = bytes_.data() + type_code_size;
    auto left = static_cast<int32_t>(bytes_.size() - type_code_size);
    is_malformed_ = mtb_binary_deserialize(root_.get(), &cursor, &left, 1) != MTB_OK;
    notes_ = take_library_reports();
    if (!is_malformed_) {
        note_oddities(left);
    }
}

/// What every reader takes, but no writer of the group sends.
void DecodedPacket::note_oddities(int32_t bytes_left)
{
    constexpr size_t root_type_place = type_code_size + 2;
    if (bytes_[root_type_place] != MTB_TYPE_ROOT) {
        notes_.push_back("the body is no root structure");
    } else if (root_->len != root_->buffer->count) {
        notes_.push_back(compose("the root holds %d elements of %u announced", root_->buffer->count,
                                 static_cast<uint32_t>(root_->len)));
    }
    if (bytes_left > 0) {
        notes_.push_back(compose("%d bytes behind the root are not looked at", bytes_left));
    }
}

std::string DecodedPacket::brief() const
{
    std::string text = std::to_string(type_) + ": ";
    if (is_malformed_) { // the first report is that of the place, the others are of those around
        return text + "malformed" + (notes_.empty() ? "" : " (" + notes_.front() + ")");
    }
    append_brief(text, root_->buffer);
    for (const std::string &note : notes_) {
        text += " (" + note + ")";
    }
    return text;
}

std::string DecodedPacket::tree() const
{
    std::string text;
    if (bytes_.size() > type_code_size) {
        const std::string name = message_name(type_);
        text = compose("  %u %s%s\n", type_, name.empty() ? "(not in the catalogue)" : name.c_str(),
                       is_malformed_ ? ", malformed" : "");
    }
    if (root_ != nullptr) {
        append_tree(text, type_, root_->buffer, 2, 0);
    }
    for (const std::string &note : notes_) {
        text += "  note: " + note + '\n';
    }
    return text + (is_malformed_ ? hex_lines(bytes_) : "");
}

} // namespace ctl
