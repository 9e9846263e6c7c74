#include <TavlenCommon/config_store.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <strings.h>

namespace {

constexpr cfg_entry table_end{};

char *copy_text(const char *text)
{
    return text != nullptr ? strdup(text) : nullptr;
}

/// Makes room for one entry behind `count` others and the closing one; false leaves all as it was.
bool resize(cfg_builder *b, int32_t count)
{
    const size_t slots = static_cast<size_t>(count) + 1;
    void *grown = realloc(b->entries, slots * sizeof(cfg_entry));
    if (grown == nullptr) {
        return false;
    }
    b->entries = static_cast<cfg_entry *>(grown);
    b->count = count;
    b->entries[count] = table_end;
    return true;
}

/// Appends an entry; false when the builder takes none and the default must not be written.
bool add_entry(cfg_builder *b, const cfg_entry &entry)
{
    if (b == nullptr || entry.key == nullptr || b->error != 0) {
        return false;
    }
    if (!resize(b, b->count + 1)) {
        b->error = 1;
        return false;
    }
    b->entries[b->count - 1] = entry;
    return true;
}

template <class Match>
int32_t set_first(cfg_entry *table, const char *text, int32_t priority, Match matches)
{
    if (table == nullptr) {
        return -1;
    }
    for (cfg_entry *e = table; e->key != nullptr; ++e) {
        if (matches(*e)) {
            return cfg_entry_set(e, text, priority);
        }
    }
    return -1;
}

/// Cuts to 32 bits after `strtol` has saturated at its own width.
int32_t to_number(const char *text)
{
    return static_cast<int32_t>(static_cast<uint32_t>(strtol(text, nullptr, 10)));
}

} // namespace

int32_t cfg_builder_init(cfg_builder *b)
{
    if (b == nullptr) {
        return -1;
    }
    *b = cfg_builder{};
    return resize(b, 0) ? 0 : -1;
}

void cfg_add_string(cfg_builder *b, const char *key, const char *def, int32_t priority,
                    char **target, uint32_t id, const char *option)
{
    if (add_entry(b, {CFG_STRING, key, target, priority, id, option}) && target != nullptr) {
        *target = copy_text(def);
    }
}

void cfg_add_int(cfg_builder *b, const char *key, int32_t def, int32_t priority, int32_t *target,
                 uint32_t id, const char *option)
{
    if (add_entry(b, {CFG_INT, key, target, priority, id, option}) && target != nullptr) {
        *target = def;
    }
}

int32_t cfg_entry_set(cfg_entry *e, const char *text, int32_t priority)
{
    if (e == nullptr || text == nullptr) {
        return -1;
    }
    if (e->priority <= priority) {
        return 0;
    }
    if (e->type == CFG_INT && e->target != nullptr) {
        *static_cast<int32_t *>(e->target) = to_number(text);
    } else if (e->type == CFG_STRING && e->target != nullptr) {
        char **target = static_cast<char **>(e->target);
        char *copy = copy_text(text); // before the old text goes: it may be the given one
        free(*target);
        *target = copy;
    }
    e->priority = priority;
    return 0;
}

int32_t cfg_set_by_name(cfg_entry *table, const char *key, const char *text, int32_t priority)
{
    if (key == nullptr) {
        return -1;
    }
    return set_first(table, text, priority,
                     [key](const cfg_entry &e) { return strcasecmp(e.key, key) == 0; });
}

int32_t cfg_set_by_option(cfg_entry *table, const char *option, const char *text, int32_t priority)
{
    if (option == nullptr) {
        return -1;
    }
    return set_first(table, text, priority, [option](const cfg_entry &e) {
        return e.option != nullptr && strcmp(e.option, option) == 0;
    });
}

int32_t cfg_set_by_id(cfg_entry *table, uint32_t id, const char *text, int32_t priority)
{
    return set_first(table, text, priority, [id](const cfg_entry &e) { return e.id == id; });
}

namespace {

constexpr size_t line_buffer_size = 2048;
constexpr char blanks[] = " \t";

struct CloseFile {
    void operator()(FILE *file) const { (void)fclose(file); }
};

/// The first byte stays, so that a piece of line ends alone keeps one (and has no '=').
void strip_line_end(char *piece)
{
    size_t length = strlen(piece);
    while (length > 1 && (piece[length - 1] == '\r' || piece[length - 1] == '\n')) {
        piece[--length] = '\0';
    }
}

/// Skips blanks in front and cuts blanks behind.
char *trim(char *text)
{
    text += strspn(text, blanks);
    size_t length = strlen(text);
    while (length > 0 && strchr(blanks, text[length - 1]) != nullptr) {
        text[--length] = '\0';
    }
    return text;
}

void apply_line(char *piece, cfg_entry *table)
{
    strip_line_end(piece);
    piece[strcspn(piece, "#")] = '\0';
    char *equals = strchr(piece, '=');
    if (equals == nullptr) {
        return;
    }
    *equals = '\0';
    (void)cfg_set_by_name(table, trim(piece), trim(equals + 1), CFG_PRIORITY_FILE);
}

} // namespace

int32_t cfg_parse_file(const char *path, cfg_entry *table)
{
    if (path == nullptr) {
        return -1;
    }
    const std::unique_ptr<FILE, CloseFile> file(fopen(path, "rbe"));
    if (file == nullptr) {
        return -1;
    }
    char piece[line_buffer_size];
    while (fgets(piece, sizeof piece, file.get()) != nullptr) {
        apply_line(piece, table);
    }
    return 0;
}
