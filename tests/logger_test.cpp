#include <TavlenCommon/logger.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include <TavlenCommon/buffer_packet.h>
#include <TavlenCommon/com_semaphore.h>

#include "faults.h"
#include "support.h"

namespace {

constexpr int64_t epoch = 1700000000;

/// The library closed at start, the clock standing still, both streams collected.
class Logger : public testing::Test {
protected:
    void SetUp() override { fake_platform.now = epoch; }
    void TearDown() override
    {
        logger_set_config(0, 0);
        if (get_log_dest() != -1) {
            set_log_dest(LOG_DEST_STDOUT, nullptr, nullptr, nullptr);
        }
        logger_close();
        fake_platform.now = 0;
    }
    Reports take_reports() { return parse_records(errors_.take()); }

    Capture output_{1};
    Capture errors_{2};
};

TEST_F(Logger, ClosedItWritesToStandardErrorAfterAWarning)
{
    LPRINTF("hello %d", 7);
    EXPECT_REPORTS({"_lprintf", "WARNING: logger not initialized, logging to stderr:"},
                   {"TestBody", "hello 7"});
    EXPECT_EQ(_lprintf("name", "d/f.c", 3, "g", "m", malloc(1)), -1);
    EXPECT_NE(errors_.take().find(std::to_string(epoch) + ":f.c:3: g: m\n"), std::string::npos);
    EXPECT_EQ(_lprintf_raw("raw", 3), -1);
    EXPECT_REPORTS({"_lprintf_raw", "WARNING: logger not initialized, logging to stderr:"},
                   {"_lprintf_raw", "raw"});
    set_log_dest(LOG_DEST_STDERR, nullptr, nullptr, nullptr);
    EXPECT_EQ(get_log_dest(), -1);
    EXPECT_EQ(logger_set_config(0, 0), 0);
    EXPECT_EQ(logger_set_name(nullptr), -1);
    EXPECT_EQ(logger_set_name("early"), 0);
    logger_close();
    EXPECT_REPORTS({"logger_set_config", "WARNING: logger is not initialized"},
                   {"logger_set_name", "ERROR: wrong arg"});
    EXPECT_EQ(output_.take(), "");
}

TEST_F(Logger, LineFormats)
{
    ASSERT_EQ(logger_open(), 0);
    EXPECT_EQ(get_log_dest(), LOG_DEST_STDOUT);
    const std::string big(5000, 'x');
    const std::string whole = std::to_string(epoch) + ":f.c:1: g: " + big + "\n";
    const struct {
        const char *name, *file;
        int32_t line;
        const char *func;
        std::string message;
        std::string text;
    } cases[] = {
        {nullptr, "a/b/f.c", 1, "g", "m", "1700000000:f.c:1: g: m\n"},
        {"n", "f.c", -1, "g", "m", "n:1700000000:f.c:-1: g: m\n"},
        {"n", nullptr, 0, nullptr, "m\n", "n: m\n\n"},
        {nullptr, nullptr, 0, nullptr, "m", "(null): m\n"},
        {"", nullptr, 0, nullptr, "", ": \n"},
        {"n", nullptr, 1, nullptr, "m", "n:1700000000:(null):1: (null): m\n"},
        {nullptr, nullptr, 0, "g", "m", "1700000000:(null):0: g: m\n"},
        {nullptr, "", 0, "g", "%s", "1700000000::0: g: %s\n"},
        {nullptr, "a/b/", 2, "g", "m", "1700000000:a/b/:2: g: m\n"},
        {nullptr, "f.c", 1, "g", big, whole.substr(0, 4095)},
    };
    for (const auto &c : cases) {
        errno = 77;
        const int32_t length =
            _lprintf(c.name, c.file, c.line, c.func, c.message.c_str(), strdup("freed"));
        EXPECT_EQ(errno, 77);
        EXPECT_EQ(output_.take(), c.text);
        EXPECT_EQ(length, c.message == big ? static_cast<int32_t>(whole.size())
                                           : static_cast<int32_t>(c.text.size()));
    }
    EXPECT_EQ(_lprintf_raw("no line feed, and\0more", 22), 0);
    EXPECT_EQ(_lprintf_raw("nothing", -1), 0);
    EXPECT_EQ(output_.take(), std::string("no line feed, and\0more", 22));
    char *cut = _lprintf_fmt("%s", big.c_str());
    EXPECT_EQ(strlen(cut), 4095U);
    free(cut);
}

TEST_F(Logger, EveryDestinationGetsTheLine)
{
    const TemporaryFile file("before\n");
    ASSERT_EQ(logger_open(), 0);
    fake_platform.syslog.clear();
    for (int32_t mask = 0; mask < LOG_DEST_REMOTE; ++mask) {
        set_log_dest(mask, file.path(), nullptr, nullptr);
        EXPECT_EQ(get_log_dest(), mask);
        (void)_lprintf("m", nullptr, 0, nullptr, std::to_string(mask).c_str(), nullptr);
        const std::string line = "m: " + std::to_string(mask) + "\n";
        const auto expected = [&](int32_t bit) { return (mask & bit) != 0 ? line : ""; };
        EXPECT_EQ(output_.take(), expected(LOG_DEST_STDOUT));
        EXPECT_EQ(errors_.take(), expected(LOG_DEST_STDERR));
    }
    std::string in_file = "before\n";
    std::string in_syslog =
        "openlog Tavlen " + std::to_string(LOG_CONS) + " " + std::to_string(LOG_USER) + "\n";
    for (int32_t mask = 0; mask < LOG_DEST_REMOTE; ++mask) {
        const std::string number = std::to_string(mask);
        in_file += (mask & LOG_DEST_FILE) != 0 ? "m: " + number + "\n" : "";
        in_syslog += (mask & LOG_DEST_SYSLOG) != 0
                         ? std::to_string(LOG_DEBUG) + " %s m: " + number + "\n"
                         : "";
    }
    EXPECT_EQ(file.content(), in_file);
    EXPECT_EQ(fake_platform.syslog, in_syslog) << "openlog once, before the first record";
}

TEST_F(Logger, RefusedDestinationsKeepTheOthers)
{
    ASSERT_EQ(logger_open(), 0);
    const std::string file_refused = "file logging disabled: ";
    const std::string mask_refused = "wrong log destination (";
    const struct {
        int32_t mask;
        const char *file;
        int32_t in_use;
        std::vector<std::string> messages;
    } cases[] = {
        {40,
         nullptr,
         1,
         {mask_refused + "40) ignored (using: 1): log destination number is too high"}},
        {-1, nullptr, 1, {mask_refused + "-1) ignored (using: 1)"}},
        {9, nullptr, 9, {file_refused + "NULL file name ignored"}},
        {9,
         "/nonexistent/x",
         9,
         {file_refused + "log file (/nonexistent/x) not opened: No such file or directory"}},
        {32,
         "/nonexistent/x",
         9,
         {mask_refused + "32) ignored (using: 9): log destination number is too high",
          file_refused + "log file (/nonexistent/x) not opened: No such file or directory"}},
    };
    for (const auto &c : cases) {
        set_log_dest(c.mask, c.file, nullptr, nullptr);
        EXPECT_EQ(get_log_dest(), c.in_use);
        std::vector<std::string> messages;
        for (const Report &report : take_reports()) {
            messages.push_back(report.message);
        }
        EXPECT_EQ(messages, c.messages);
        (void)_lprintf("n", nullptr, 0, nullptr, "still here", nullptr);
        EXPECT_EQ(output_.take(), "n: still here\n");
    }
}

TEST_F(Logger, OpenCloseAndName)
{
    ASSERT_EQ(logger_open(), 0);
    EXPECT_EQ(logger_open(), -1);
    EXPECT_NE(output_.take().find(": logger_open: WARNING: logger is already initialized\n"),
              std::string::npos);
    EXPECT_EQ(logger_set_name("a"), 0);
    set_log_dest(LOG_DEST_STDERR, nullptr, nullptr, nullptr);
    logger_close();
    logger_close();
    ASSERT_EQ(logger_open(), 0);
    EXPECT_EQ(get_log_dest(), LOG_DEST_STDERR) << "the mask outlives the close";
    logger_close();
    fail_each_allocation([this](Fault &fault) {
        const int32_t result = logger_open();
        if (fault.struck()) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(take_reports().back(), (Report{"logger_open", "ERROR: low mem"}));
        } else {
            logger_close();
        }
    });
    ASSERT_EQ(logger_open(), 0);
    Fault fault(allocation, 1, Failing::once);
    EXPECT_EQ(logger_set_name("b"), -1);
    EXPECT_REPORTS({"logger_set_name", "ERROR: low mem"});
}

TEST_F(Logger, RecordWithoutMemoryIsStillWritten)
{
    ASSERT_EQ(logger_open(), 0);
    const Fault fault(allocation, 0, 0);
    LPRINTF("gone");
    EXPECT_NE(output_.take().find(": TestBody: (null)\n"), std::string::npos);
}

// The lock's own reports must neither ask for the lock again nor be limited.
TEST_F(Logger, FailureOfTheLibrarysLockGoesToStandardError)
{
    ASSERT_EQ(logger_open(), 0);
    logger_set_config(1, 100);
    {
        const Fault fault("pthread_mutex_lock", EINVAL, 0);
        (void)_lprintf("n", nullptr, 0, nullptr, "m", nullptr);
    }
    EXPECT_EQ(output_.take(), "n: m\n");
    EXPECT_EQ(take_reports().front().message.substr(0, 40),
              "ERROR: unable to lock semaphore 22 0 1");
    {
        const Fault fault("pthread_mutex_destroy", EBUSY, 0);
        logger_close();
    }
    EXPECT_EQ(take_reports().back(),
              (Report{"com_semaphore_destroy", "ERROR: unable to destroy mutex 16, 0"}));
}

// Each step is one record of one site at a second of the clock; what it writes, and the slot after.
TEST_F(Logger, LimiterPerSite)
{
    ASSERT_EQ(logger_open(), 0);
    ratelimit_slot slot{};
    EXPECT_EQ(_lprintf_ratelimit(&slot, "f.c", 5, "g"), 0) << "off";
    EXPECT_EQ(slot.period_start, 0);
    logger_set_config(2, 10);
    const struct {
        int64_t second;
        int32_t result;
        const char *output;
        int32_t count;
        int32_t suppressed;
    } steps[] = {
        {0, 0, "", 1, 0},
        {0, 0, "", 2, 0},
        {1, -1, "", 2, 1},
        {1, -1, "", 2, 2},
        {10, -1, "", 2, 3}, // the period's last second
        {11, 0, "1700000011:f.c:5: g: WARNING: 3 messages suppressed\n", 1, 0},
        {5, 0, "", 2, 0}, // the clock stepped back: the period goes on
        {22, 0, "", 1, 0},
    };
    for (const auto &step : steps) {
        fake_platform.now = epoch + step.second;
        errno = 77;
        EXPECT_EQ(_lprintf_ratelimit(&slot, "d/f.c", 5, "g"), step.result) << step.second;
        EXPECT_EQ(errno, 77);
        EXPECT_EQ(output_.take(), step.output);
        EXPECT_EQ(slot.count, step.count);
        EXPECT_EQ(slot.suppressed, step.suppressed);
    }
    slot = {epoch + 20, 2, INT32_MAX};
    EXPECT_EQ(_lprintf_ratelimit(&slot, "f.c", 5, "g"), -1);
    EXPECT_EQ(slot.suppressed, INT32_MAX) << "saturates";
    fake_platform.now = epoch + 40;
    const Fault fault(allocation, 0, 0);
    EXPECT_EQ(_lprintf_ratelimit(&slot, "f.c", 5, "g"), 0);
    EXPECT_REPORTS({"_lprintf_ratelimit", "ERROR: low memory"});
}

TEST_F(Logger, MacroAsksTheLimiterBeforeItEvaluates)
{
    logger_set_config(1, 10);
    int evaluated = 0;
    const auto log = [&evaluated] { LPRINTF("%d", ++evaluated); };
    log();
    log();
    EXPECT_EQ(evaluated, 2) << "closed: everything passes";
    errors_.take();
    ASSERT_EQ(logger_open(), 0);
    log();
    log();
    EXPECT_EQ(evaluated, 3);
}

TEST_F(Logger, ThreadsNeverMixLines)
{
    const TemporaryFile file;
    ASSERT_EQ(logger_open(), 0);
    set_log_dest(LOG_DEST_FILE, file.path(), nullptr, nullptr);
    constexpr int threads = 4;
    constexpr int lines = 300;
    std::vector<std::thread> writers;
    for (int t = 0; t < threads; ++t) {
        writers.emplace_back([t] {
            for (int i = 0; i < lines; ++i) {
                LPRINTF("%d %s", t, std::string(100, static_cast<char>('a' + t)).c_str());
            }
        });
    }
    for (int i = 0; i < 50; ++i) { // meanwhile everything that writers read changes
        logger_set_config(i % 2 == 0 ? 0 : INT32_MAX, 1);
        EXPECT_EQ(logger_set_name("n"), 0);
        set_log_dest(LOG_DEST_FILE, file.path(), nullptr, nullptr);
        EXPECT_EQ(get_log_dest(), LOG_DEST_FILE);
    }
    for (std::thread &writer : writers) {
        writer.join();
    }
    const Reports records = parse_records(file.content());
    EXPECT_EQ(records.size(), static_cast<size_t>(threads * lines));
    for (const Report &record : records) {
        const char thread = record.message.at(0);
        EXPECT_EQ(record.message.substr(2),
                  std::string(100, static_cast<char>('a' + (thread - '0'))));
    }
}

TEST_F(Logger, ThreadsLogWhileAnotherOpensAndNames)
{
    std::atomic<bool> done = false;
    std::thread writer([&done] {
        while (!done) {
            LPRINTF("before and after");
        }
    });
    EXPECT_EQ(logger_set_name("early"), 0);
    EXPECT_EQ(logger_open(), 0);
    EXPECT_EQ(logger_set_name("late"), 0);
    usleep(1000);
    done = true;
    writer.join();
}

// ------------------------------------------------------------------------------ remote collector

/// What a collector would receive, as packets.
class RemoteLogger : public Logger {
protected:
    void SetUp() override
    {
        Logger::SetUp();
        ASSERT_EQ(logger_open(), 0);
        collector_ = sock_listen_general("127.0.0.1", "0", SOCK_DGRAM);
        sockaddr_in address{};
        socklen_t length = sizeof address;
        sock_getsockname(collector_, reinterpret_cast<sockaddr *>(&address), &length);
        port_ = std::to_string(ntohs(address.sin_port));
    }
    void TearDown() override
    {
        sock_close(collector_);
        Logger::TearDown();
    }
    /// "name|line" of the next log event; "" when none has come. Logs nothing itself.
    std::string next_event()
    {
        static char datagram[65536];
        const ssize_t size = recv(collector_->fd, datagram, sizeof datagram, MSG_DONTWAIT);
        if (size <= 4) {
            return "";
        }
        clpacket *p = clpacket_create();
        EXPECT_EQ(clpacket_alloc_buffer(p, static_cast<uint64_t>(size - 4)), 0);
        memcpy(p->buffer, datagram + 4, p->buffer_size);
        char *name = nullptr;
        char *line = nullptr;
        uint32_t len = 0;
        EXPECT_EQ(clpacket_get_string(p, 2, &name, &len), 0);
        EXPECT_EQ(clpacket_get_string(p, 3, &line, &len), 0);
        const std::string event = std::string(name) + "|" + std::string(line, len);
        clpacket_destroy(p);
        return event;
    }

    sock *collector_ = nullptr;
    std::string port_;
};

TEST_F(RemoteLogger, EachLineIsOneEventWithoutItsLineFeed)
{
    set_log_dest(LOG_DEST_REMOTE, nullptr, "127.0.0.1", port_.c_str());
    (void)_lprintf("relayed", nullptr, 0, nullptr, "no name set", nullptr);
    EXPECT_EQ(next_event(), std::string(program_invocation_short_name) + "|relayed: no name set");
    EXPECT_EQ(logger_set_name("me"), 0);
    const struct {
        std::string raw;
        std::string event;
    } cases[] = {
        {"abc\n", "me|abc"},
        {"abc", "me|abc"},
        {"abc\n\n", "me|abc\n"},
        {"\n", "me|"},
        {"", "me|"},
        {std::string(65000, 'x'), "me|" + std::string(65000, 'x')},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(_lprintf_raw(c.raw.c_str(), static_cast<int32_t>(c.raw.size())), 0);
        EXPECT_EQ(next_event(), c.event);
    }
    logger_set_config(1, 100);
    LPRINTF("through the limiter");
    EXPECT_EQ(next_event().substr(0, 24), "me|1700000000:logger_tes");
    set_log_dest(LOG_DEST_STDOUT, nullptr, "127.0.0.1", port_.c_str());
    LPRINTF("not any more");
    EXPECT_EQ(next_event(), "");
}

// Each failure is told on standard error once, nothing waits for a lock, and local lines go on.
TEST_F(RemoteLogger, FailuresLeaveLocalDestinationsUnharmed)
{
    constexpr int32_t mask = LOG_DEST_STDOUT | LOG_DEST_REMOTE;
    const std::string setup = "setup_remote_log_dest";
    const std::string disabled = "remote logging disabled: ";
    const Report closed{"socket_close", "WARNING: socket is closed"};
    const struct {
        const char *address;
        const char *port;
        Reports reports;
    } setups[] = {
        {nullptr, nullptr, {{setup, disabled + "wrong address ([(null)]:(null)) ignored"}}},
        {"127.0.0.1", nullptr, {{setup, disabled + "wrong address ([127.0.0.1]:(null)) ignored"}}},
        {"256.0.0.1", "1", {closed, {setup, disabled + "log socket ([256.0.0.1]:1) not created"}}},
    };
    logger_set_config(1, 1000); // what serves the library is never limited
    for (const auto &c : setups) {
        set_log_dest(mask, nullptr, c.address, c.port);
        EXPECT_EQ(take_reports(), c.reports);
        EXPECT_EQ(get_log_dest(), mask);
        (void)_lprintf("n", nullptr, 0, nullptr, "local", nullptr);
        EXPECT_EQ(output_.take(), "n: local\n");
        EXPECT_REPORTS();
    }
    set_log_dest(mask, nullptr, "127.0.0.1", port_.c_str());
    const std::string huge(65600, 'x');
    EXPECT_EQ(_lprintf_raw(huge.c_str(), 65600), 0);
    EXPECT_EQ(output_.take(), huge);
    EXPECT_EQ(take_reports().at(1),
              (Report{"log_msg_dest_remote",
                      "ERROR: unable to send packet (remote logger not started?)"}));

    sock *gone = sock_listen_general("127.0.0.1", "0", SOCK_DGRAM);
    std::swap(gone, collector_);
    sock_close(gone); // the collector ends: its host refuses, and every other send tells
    size_t told = 0;
    for (int i = 0; i < 6; ++i) {
        (void)_lprintf("n", nullptr, 0, nullptr, "local", nullptr);
        EXPECT_EQ(output_.take(), "n: local\n");
        told += take_reports().size();
    }
    EXPECT_GE(told, 2U);
    EXPECT_LE(told, 5U);
}

TEST_F(RemoteLogger, LackOfMemoryLosesTheEventAndNothingElse)
{
    set_log_dest(LOG_DEST_STDOUT | LOG_DEST_REMOTE, nullptr, "127.0.0.1", port_.c_str());
    fail_each_allocation([this](Fault &fault) {
        (void)_lprintf("n", nullptr, 0, nullptr, "local", nullptr);
        const bool struck = fault.struck();
        EXPECT_EQ(output_.take(), "n: local\n");
        const Reports reports = take_reports();
        EXPECT_EQ(reports.empty(), !struck);
        EXPECT_EQ(next_event().empty(), struck);
        EXPECT_TRUE(!struck || reports.back().function == "log_msg_dest_remote");
    });
    fail_each_allocation([this](Fault &fault) {
        set_log_dest(LOG_DEST_REMOTE, nullptr, "127.0.0.1", port_.c_str());
        const bool struck = fault.struck();
        const Reports reports = take_reports();
        EXPECT_EQ(reports.empty(), !struck);
        EXPECT_TRUE(!struck || reports.back().function == "setup_remote_log_dest");
    });
}

} // namespace
