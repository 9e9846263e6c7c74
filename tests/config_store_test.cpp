#include <TavlenCommon/config_store.h>

#include <cstdlib>
#include <functional>

#include "faults.h"
#include "support.h"

namespace {

using Change = std::function<void(cfg_entry *table)>;

/// Three settings, made at priority 3 as the collector makes its own, hold these after a file and a change.
void expect_values(
    const std::string &values, const std::string &file_content, const Change &change = [](auto *) {})
{
    cfg_builder builder;
    char *port = nullptr;
    char *file = nullptr;
    int32_t mask = 0;
    cfg_builder_init(&builder);
    cfg_add_string(&builder, "ListenPort", "27759", 3, &port, 1, "p");
    cfg_add_string(&builder, "LogFileName", "logger.log", 3, &file, 2, nullptr);
    cfg_add_int(&builder, "Mask", 1, 3, &mask, 3, "m");
    cfg_add_int(&builder, nullptr, 7, 3, &mask, 4, "m"); // without a key: ignored
    EXPECT_EQ(builder.entries[builder.count].key, nullptr) << "the table is closed";
    EXPECT_EQ(cfg_parse_file(TemporaryFile(file_content).path(), builder.entries), 0);
    change(builder.entries);
    EXPECT_EQ(std::string(port != nullptr ? port : "-") + "|" + (file != nullptr ? file : "-") + "|" +
                  std::to_string(mask) + (builder.error != 0 ? " error" : ""),
              values)
        << file_content;
    free(port);
    free(file);
    free(builder.entries);
}

TEST(ConfigStore, StrongerSourceWinsAndOfEqualsTheFirst)
{
    expect_values("1|x.log|4", "lIsTeNpOrT=1\nListenPort=2\nMask=2\n", [](cfg_entry *table) {
        EXPECT_EQ(cfg_set_by_name(table, "ListenPort", "3", CFG_PRIORITY_FILE), 0);
        EXPECT_EQ(cfg_set_by_option(table, "m", "4", 0), 0);
        EXPECT_EQ(cfg_set_by_id(table, 2, "x.log", 2), 0);
        EXPECT_EQ(cfg_entry_set(&table[1], *static_cast<char **>(table[1].target), 1), 0) << "from its own text";
    });
}

TEST(ConfigStore, WhatMatchesNothingIsRefused)
{
    const auto list = [](auto... results) { return std::vector<int32_t>{results...}; };
    expect_values("27759|logger.log|1", "", [&](cfg_entry *table) {
        EXPECT_EQ(list(cfg_set_by_option(table, "P", "x", 0), cfg_set_by_option(table, "pp", "x", 0),
                       cfg_set_by_option(table, nullptr, "x", 0), cfg_set_by_name(table, "Listen", "x", 0),
                       cfg_set_by_name(table, nullptr, "x", 0), cfg_set_by_name(nullptr, "Mask", "9", 0),
                       cfg_set_by_id(table, 4, "x", 0), cfg_entry_set(nullptr, "x", 0),
                       cfg_entry_set(table, nullptr, 9), cfg_builder_init(nullptr), cfg_parse_file(nullptr, table),
                       cfg_parse_file("/none", table)),
                  std::vector<int32_t>(12, -1));
        EXPECT_EQ(cfg_parse_file("/", table), 0) << "a folder opens and holds no line";
        table[0].type = 7;
        EXPECT_EQ(cfg_entry_set(table, "an unknown type stores nothing", 0), 0);
    });
}

TEST(ConfigStore, FileLines)
{
    expect_values("1234|/var/log/x.log|1", "ListenPort = 1234 # comment\n\tlogfilename\t=\t /var/log/x.log  \r\n");
    expect_values("a=b|logger.log|2", "ListenPort=a=b\nMask=4294967298"); // cut to 32 bits
    expect_values("27759|logger.log|-1", "Mask=99999999999999999999");    // the highest number of 64 bits, cut
    expect_values("27759|logger.log|1", "# ListenPort=1\nListenPort\n\n=1\n\r\n\nMask\n");
    expect_values("|logger.log|0", "ListenPort=\nMask=\n");
    expect_values("\"1\"|logger.log|10", "ListenPort=\"1\"\r\r\n\nMask=  010xyz\r\n");
    expect_values("1\r|1\v|-7", "ListenPort=1\r#x\nLogFileName=1\v\nMask=-7");
    expect_values("1|logger.log|4", {"ListenPort=1\0Mask=2\n\0Mask=3\nMask=4", 34});
    expect_values("27759|logger.log|5", std::string(2042, 'k') + "=1234Mask=5\nMask=6"); // in pieces of 2047
    expect_values("27759|" + std::string(2035, '7') + "|1", "LogFileName=" + std::string(3000, '7'));
}

TEST(ConfigStore, LackOfMemoryLeavesNoValueOrStopsTheBuilder)
{
    // It fails the table's end, a place and its text, the same again, a place, and the text of the file's first line.
    int n = 0;
    for (const char *values :
         {"27759|x|1", "-|-|0 error", "-|x|1", "27759|-|0 error", "27759|x|1", "27759|x|0 error", "27759|-|1"}) {
        const Fault fault(allocation, ++n, Failing::once);
        expect_values(values, "LogFileName=x\nLogFileName=y\n");
    }
}

} // namespace
