#include <TavlenCommon/config_store.h>

#include <cstdlib>
#include <gtest/gtest.h>

#include "faults.h"
#include "support.h"

namespace {

/// A table of three settings at priority 3, as the collector makes it.
class ConfigStore : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(cfg_builder_init(&builder_), 0);
        cfg_add_string(&builder_, "ListenPort", "27759", 3, &port_, 1, "p");
        cfg_add_string(&builder_, "LogFileName", "logger.log", 3, &file_, 2, nullptr);
        cfg_add_int(&builder_, "Mask", 1, 3, &mask_, 3, "m");
        ASSERT_EQ(builder_.error, 0);
        ASSERT_EQ(builder_.count, 3);
        table_ = builder_.entries;
        ASSERT_EQ(table_[3].key, nullptr);
    }
    void TearDown() override
    {
        free(port_);
        free(file_);
        free(builder_.entries);
    }

    cfg_builder builder_{};
    cfg_entry *table_ = nullptr;
    char *port_ = nullptr;
    char *file_ = nullptr;
    int32_t mask_ = 0;
};

TEST_F(ConfigStore, StrongerSourceWinsAndOfEqualsTheFirst)
{
    EXPECT_EQ(cfg_set_by_name(table_, "lIsTeNpOrT", "1", 1), 0);
    EXPECT_EQ(cfg_set_by_name(table_, "ListenPort", "2", 1), 0);
    EXPECT_STREQ(port_, "1");
    EXPECT_EQ(cfg_set_by_option(table_, "p", "3", 0), 0);
    EXPECT_EQ(cfg_set_by_id(table_, 1, "4", 1), 0);
    EXPECT_STREQ(port_, "3");
    EXPECT_EQ(table_[0].priority, 0);
    EXPECT_EQ(cfg_entry_set(&table_[1], file_, 2), 0) << "from its own text";
    EXPECT_STREQ(file_, "logger.log");
}

TEST_F(ConfigStore, WhatMatchesNothingIsRefused)
{
    EXPECT_EQ(cfg_set_by_option(table_, "P", "x", 0), -1);
    EXPECT_EQ(cfg_set_by_option(table_, "pp", "x", 0), -1);
    EXPECT_EQ(cfg_set_by_option(table_, nullptr, "x", 0), -1);
    EXPECT_EQ(cfg_set_by_name(table_, "Listen", "x", 0), -1);
    EXPECT_EQ(cfg_set_by_name(table_, nullptr, "x", 0), -1);
    EXPECT_EQ(cfg_set_by_name(table_, "ListenPort", nullptr, 0), -1);
    EXPECT_EQ(cfg_set_by_name(nullptr, "ListenPort", "x", 0), -1);
    EXPECT_EQ(cfg_set_by_id(table_, 4, "x", 0), -1);
    EXPECT_EQ(cfg_entry_set(nullptr, "x", 0), -1);
    EXPECT_EQ(cfg_entry_set(&table_[0], nullptr, 9), -1) << "null before priority";
    EXPECT_EQ(cfg_builder_init(nullptr), -1);
    EXPECT_STREQ(port_, "27759");
    table_[0].type = 7;
    EXPECT_EQ(cfg_entry_set(&table_[0], "x", 0), 0);
    EXPECT_STREQ(port_, "27759") << "an unknown type stores nothing";
    EXPECT_EQ(table_[0].priority, 0);
    cfg_add_int(&builder_, nullptr, 1, 3, &mask_, 0, nullptr);
    cfg_add_int(nullptr, "k", 1, 3, &mask_, 0, nullptr);
    EXPECT_EQ(builder_.count, 3);
}

TEST_F(ConfigStore, NumbersAreReadAsFarAsTheyGoAndCutTo32Bits)
{
    const struct {
        const char *text;
        int32_t value;
    } cases[] = {
        {"abc", 0},
        {"  42xyz", 42},
        {"-7", -7},
        {"", 0},
        {"4294967297", 1},
        {"2147483648", INT32_MIN},
        {"99999999999999999999", -1},
        {"-99999999999999999999", 0},
    };
    int32_t priority = 3;
    for (const auto &c : cases) {
        EXPECT_EQ(cfg_set_by_name(table_, "mask", c.text, --priority), 0);
        EXPECT_EQ(mask_, c.value) << c.text;
    }
}

TEST_F(ConfigStore, FileLines)
{
    const std::string long_key(2047 - 5, 'k');
    const struct {
        std::string text;
        const char *port;
        const char *file;
        int32_t mask;
    } cases[] = {
        {"", "27759", "logger.log", 1},
        {"ListenPort = 1234 # comment", "1234", "logger.log", 1},
        {"\tlogfilename\t=\t /var/log/x.log  \r\n", "27759", "/var/log/x.log", 1},
        {"ListenPort=a=b\nListenPort=second\n", "a=b", "logger.log", 1},
        {"ListenPort=\"1\"\n", "\"1\"", "logger.log", 1},
        {"# ListenPort=1\nListenPort\n\n=1\n\r\n\nMask\n", "27759", "logger.log", 1},
        {"ListenPort=\nMask=\n", "", "logger.log", 0},
        {"ListenPort=1\r\r\n\nMask=6\r\n", "1", "logger.log", 6},
        {"ListenPort=1\r#x\n", "1\r", "logger.log", 1},
        {"ListenPort=1\v\n", "1\v", "logger.log", 1},
        {std::string("ListenPort=1\0Mask=2\n\0Mask=3\nMask=4", 34), "1", "logger.log", 4},
        {long_key + "=1234Mask=5\nMask=6", "27759", "logger.log", 5},
        {"ListenPort=" + std::string(3000, '7'), nullptr, "logger.log", 1},
    };
    for (const auto &c : cases) {
        TearDown();
        SetUp();
        const TemporaryFile config(c.text);
        EXPECT_EQ(cfg_parse_file(config.path(), table_), 0);
        if (c.port != nullptr) {
            EXPECT_STREQ(port_, c.port) << c.text;
        } else {
            EXPECT_EQ(strlen(port_), 2047 - strlen("ListenPort="));
        }
        EXPECT_STREQ(file_, c.file) << c.text;
        EXPECT_EQ(mask_, c.mask) << c.text;
    }
    EXPECT_EQ(cfg_parse_file("/nonexistent/file", table_), -1);
    EXPECT_EQ(cfg_parse_file(nullptr, table_), -1);
    EXPECT_EQ(cfg_parse_file("/", table_), 0) << "a folder opens and holds no line";
}

TEST_F(ConfigStore, LackOfMemoryLeavesNoValueOrStopsTheBuilder)
{
    fail_each_allocation([](Fault &fault) {
        cfg_builder builder;
        char *text = nullptr;
        int32_t number = 0;
        const bool started = cfg_builder_init(&builder) == 0;
        cfg_add_int(&builder, "A", 5, 3, &number, 0, nullptr);
        const int32_t after_first = builder.count;
        cfg_add_string(&builder, "B", "x", 3, &text, 0, nullptr);
        if (fault.struck()) {
            EXPECT_TRUE(!started || builder.error == 1 || (builder.count == 2 && text == nullptr));
            EXPECT_EQ(number, after_first == 1 ? 5 : 0);
        } else {
            EXPECT_EQ(builder.count, 2);
        }
        free(text);
        free(builder.entries);
    });
    const Fault fault(allocation, 1, Failing::once);
    EXPECT_EQ(cfg_set_by_name(table_, "ListenPort", "1", 1), 0);
    EXPECT_EQ(port_, nullptr);
    EXPECT_EQ(table_[0].priority, 1);
}

} // namespace
