#include <TavlenCommon/logger.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/owned.h>

#include "faults.h"
#include "network.h"

namespace {

/// The clock standing still, both streams collected, a collector on an address of this process.
struct Logger : ReportingTest {
    void SetUp() override
    {
        ReportingTest::SetUp();
        set_log_dest(LOG_DEST_STDOUT, nullptr, nullptr, nullptr);
    }
    void TearDown() override
    {
        ReportingTest::TearDown();
        logger_set_config(0, 0);
        now_ = 0;
    }
    /// Chooses destinations, logs a line, and gives the mask in use.
    int32_t log_to(int32_t mask, const char *file, const char *address = nullptr, const char *port = "27759")
    {
        output_.take(); // the words of a failure must not make the next one
        errno = 77;
        set_log_dest(mask, file, address, port);
        EXPECT_EQ(_lprintf("n", nullptr, 0, nullptr, "line", nullptr), 8);
        EXPECT_EQ(errno, 77);
        EXPECT_EQ(output_.take(), (get_log_dest() & LOG_DEST_STDOUT) != 0 ? "n: line\n" : "");
        return get_log_dest();
    }
    bool collector_gets(const char *name, const std::string &line)
    {
        static uint8_t datagram[65536];
        const ssize_t size = recv(collector_->fd, datagram, sizeof datagram, MSG_DONTWAIT);
        const std::vector<uint8_t> expected =
            wire_of(Packet(clpacket_log_event(name, line.data(), static_cast<int32_t>(line.size()))));
        return size > 4 && expected == std::vector<uint8_t>(datagram + 4, datagram + size);
    }

    int64_t &now_ = fake_platform.now = 1700000000;
    Capture output_{1};
    const std::string address_ = "127.1." + std::to_string(getpid() / 256 % 256) + "." + std::to_string(getpid() % 256);
    const Socket collector_ = sock_listen_general(address_.c_str(), "27759", SOCK_DGRAM);
};

TEST_F(Logger, ClosedItWritesToStandardErrorAfterAWarning)
{
    EXPECT_EQ(log_to(LOG_DEST_STDERR, nullptr), LOG_DEST_STDERR);
    EXPECT_STREQ(tavlen::owned<char>(with("vsnprintf", -1, EOVERFLOW, _lprintf_fmt, "lost")).get(), "");
    EXPECT_REPORTED(with("vsnprintf", -1, EOVERFLOW, logger_set_name, nullptr), -1, "n: line", "logger_set_name: ");
    EXPECT_REPORTED(logger_open(), -1, "logger_open: WARNING: logger is already initialized");
    logger_close();
    EXPECT_EQ(get_log_dest(), -1);
    EXPECT_REPORTED(logger_set_config(1, 1), 0, "logger_set_config: WARNING: logger is not initialized");
    EXPECT_REPORTED(logger_set_name(nullptr), -1, "logger_set_name: ERROR: wrong arg");
    EXPECT_EQ(logger_set_name("early"), 0);
    const std::string warning = "WARNING: logger not initialized, logging to stderr:";
    LPRINTF("hello %d", 7);
    EXPECT_REPORTS("_lprintf: " + warning, "TestBody: hello 7");
    EXPECT_REPORTED(_lprintf_raw("raw", 3), -1, "_lprintf_raw: " + warning, "_lprintf_raw: raw");
    EXPECT_EQ(_lprintf_stderr("d/f.c", 3, "g", "m", strdup("freed")), 23);
    EXPECT_EQ(errors_.take(), "1700000000:f.c:3: g: m\n");
    const Fault fault(allocation, 1, Failing::once);
    EXPECT_REPORTED(logger_open(), -1, "_lprintf: " + warning, "com_semaphore_init: ERROR: low mem",
                    "logger_open: ERROR: low mem");
    EXPECT_TRUE(logger_open() == 0 && get_log_dest() == LOG_DEST_STDERR) << "the mask outlives the close";
}

TEST_F(Logger, LineFormats)
{
    const auto line = [this](auto... record) { return _lprintf(record..., strdup("freed")) > 0 ? output_.take() : ""; };
    EXPECT_EQ(line(nullptr, "a/b/f.c", 1, "g", "m"), "1700000000:f.c:1: g: m\n");
    EXPECT_EQ(line("n", "f.c", -1, "g", "m"), "n:1700000000:f.c:-1: g: m\n");
    EXPECT_EQ(line(nullptr, nullptr, 0, nullptr, nullptr), "(null): (null)\n");
    EXPECT_EQ(line("n", nullptr, 1, nullptr, "m"), "n:1700000000:(null):1: (null): m\n");
    EXPECT_EQ(line(nullptr, nullptr, 0, "g", "m"), "1700000000:(null):0: g: m\n");
    EXPECT_EQ(line(nullptr, "a/b/", 0, nullptr, "%s"), "1700000000:a/b/:0: (null): %s\n");
    char *cut = _lprintf_fmt("%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(_lprintf("n", nullptr, 0, nullptr, cut, cut), 3 + 4095 + 1);
    EXPECT_EQ(output_.take(), "n: " + std::string(4092, 'x'));
    EXPECT_EQ(_lprintf_raw("no line feed, and\0more", 22) + _lprintf_raw("nothing", -1), 0);
    EXPECT_EQ(output_.take(), std::string("no line feed, and\0more", 22));
}

TEST_F(Logger, EveryDestinationGetsTheLine)
{
    fake_platform.syslog = "";
    const TemporaryFile file("before\n");
    std::string in_file = "before\n";
    std::string in_syslog;
    const int next = dup(STDERR_FILENO); // descriptor
    close(next);
    for (int32_t mask = 0; mask < 32; ++mask) {
        const auto wanted = [mask](int32_t bit, const std::string &text) { return (mask & bit) != 0 ? text : ""; };
        EXPECT_EQ(log_to(mask, file.path(), address_.c_str()), mask);
        EXPECT_EQ(errors_.take(), wanted(LOG_DEST_STDERR, "n: line\n"));
        EXPECT_EQ(file.content(), in_file += wanted(LOG_DEST_FILE, "n: line\n"));
        in_syslog += wanted(LOG_DEST_SYSLOG, "7 %s n: line\n");
        EXPECT_EQ(collector_gets(program_invocation_short_name, "n: line"), (mask & LOG_DEST_REMOTE) != 0);
    }
    EXPECT_EQ(fake_platform.syslog, in_syslog);
    EXPECT_EQ(fake_platform.opened, "Tavlen 2 8\n") << "once in the process's life, before the first record";
    (void)remove(file.path());
    struct stat made {};
    EXPECT_EQ(log_to(0, nullptr), 0);
    EXPECT_TRUE(log_to(LOG_DEST_FILE, file.path()) == LOG_DEST_FILE && stat(file.path(), &made) == 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(made.st_mode & 0777, 0666 & ~mask);
    EXPECT_EQ(fcntl(next, F_GETFD), FD_CLOEXEC);
    logger_close();
    EXPECT_TRUE(fcntl(next, F_GETFD) == -1 && logger_open() == 0) << "none was left open, nor is this one";
}

TEST_F(Logger, RefusedDestinationsKeepTheOthers)
{
    const std::string remote = "setup_remote_log_dest: remote logging disabled: ";
    EXPECT_REPORTED(log_to(-1, nullptr), 1, "set_log_dest: wrong log destination (-1) ignored (using: 1)");
    EXPECT_REPORTED(log_to(25, nullptr), 25, "setup_file_log_dest: file logging disabled: NULL file name ignored",
                    remote + "wrong address ([(null)]:27759) ignored");
    EXPECT_REPORTED(
        log_to(32, "/none/x", "::1", nullptr), 25,
        "set_log_dest: wrong log destination (32) ignored (using: 25): log destination number is too high",
        "setup_file_log_dest: file logging disabled: log file (/none/x) not opened: No such file or directory",
        remote + "wrong address ([::1]:(null)) ignored");
    EXPECT_REPORTED(log_to(17, nullptr, "256.0.0.1"), 17, "socket_close: WARNING: socket is closed",
                    remote + "log socket ([256.0.0.1]:27759) not created");
}

TEST_F(Logger, FailedAndShortWritesToItsFile)
{
    const TemporaryFile file;
    std::string written;
    for (const int error : {EINTR, ENOSPC, EIO, 0}) { // only an interrupted write is taken up again
        const Fault fault("write", 1, Failing::once, error != 0 ? -1 : 0, error);
        fake_platform.most_bytes = 3;
        EXPECT_EQ(log_to(LOG_DEST_FILE, file.path()), LOG_DEST_FILE);
        EXPECT_EQ(file.content(), written += error == EINTR ? "n: line\n" : "");
        EXPECT_EQ(log_to(LOG_DEST_FILE, file.path()), LOG_DEST_FILE);
        EXPECT_EQ(file.content(), written += "n: line\n") << "nothing comes up later";
        fake_platform.most_bytes = SIZE_MAX;
    }
}

// The reports of its lock must neither ask for the lock again nor be limited.
TEST_F(Logger, FailuresOfItsOwnGoToStandardError)
{
    const std::string failure = "com_semaphore_lock_ex: ERROR: unable to lock semaphore 22 77 1";
    const Fault no_memory(allocation, 0, 0);
    EXPECT_REPORTED(logger_set_name("b"), -1, "logger_set_name: ERROR: low mem");
    errno = 77;
    LPRINTF("gone");
    logger_set_config(1, 100);
    Fault no_lock("pthread_mutex_lock", EINVAL, 77); // the platform's leaves errno as it is; gtest locks, too
    LPRINTF("m");
    const int32_t result = _lprintf_raw("raw\n", 4);
    const int error = errno;
    no_lock.struck();
    EXPECT_REPORTS(failure, failure, failure);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(error, 77);
    EXPECT_EQ(parse_records(output_.take()), (Reports{"TestBody: (null)", "TestBody: m\nraw"}));
    Fault no_lock_again("pthread_mutex_lock", EINVAL, 77);
    logger_close(); // unlocking what was never locked makes the platform refuse the destruction
    no_lock_again.struck();
    EXPECT_REPORTS(failure, "com_semaphore_destroy: ERROR: unable to destroy mutex 16, 0");
}

TEST_F(Logger, LimiterPerSite)
{
    ratelimit_slot slot{};
    const auto ask = [&](int64_t second, int32_t max = 2, int32_t interval = 10) {
        logger_set_config(max, interval);
        now_ = 1700000000 + second;
        const int32_t result = _lprintf_ratelimit(&slot, "d/f.c", 5, "g");
        return std::vector{result, slot.count, slot.suppressed};
    };
    EXPECT_EQ(ask(0, 0, 10), (std::vector{0, 0, 0})) << "off";
    EXPECT_EQ(ask(0, 2, 0), (std::vector{0, 0, 0})) << "off";
    EXPECT_EQ(ask(0, 1, 1), (std::vector{0, 1, 0}));
    EXPECT_EQ(ask(0), (std::vector{0, 2, 0}));
    EXPECT_EQ(ask(1), (std::vector{-1, 2, 1}));
    EXPECT_EQ(ask(10), (std::vector{-1, 2, 2})) << "the period's last second";
    EXPECT_EQ(ask(11), (std::vector{0, 1, 0}));
    EXPECT_EQ(ask(5), (std::vector{0, 2, 0})) << "the clock stepped back: the period goes on";
    EXPECT_EQ(output_.take(), "1700000011:f.c:5: g: WARNING: 2 messages suppressed\n");
    slot = {1700000020, 2, INT32_MAX};
    EXPECT_EQ(ask(20), (std::vector{-1, 2, INT32_MAX}));
    for (int i = 0; i < 3; ++i) {
        LPRINTF("%d", slot.count++);
    }
    EXPECT_EQ(slot.count, 4) << "a refused record's arguments are not evaluated";
    const Fault fault(allocation, 0, 0);
    EXPECT_REPORTED(ask(40), (std::vector{0, 1, 0}), "_lprintf_ratelimit: ERROR: low memory");
}

TEST_F(Logger, ThreadsNeverMixLinesWhileAnotherOpensAndChangesEverything)
{
    const TemporaryFile file;
    const auto write = [](char letter) {
        for (int i = 0; i < 120; ++i) {
            LPRINTF("%s", std::string(100, letter).c_str());
        }
    };
    const int room = 1 << 20; // or less: for all records, if need be
    EXPECT_EQ(sock_setsockopt(collector_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room), 0);
    logger_close();
    {
        const std::jthread a(write, 'a'), b(write, 'b'), c(write, 'c');
        EXPECT_EQ(logger_open(), 0);
        for (int i = 0; i < 100; ++i) { // each record goes to one destination
            logger_set_config(i % 2 == 0 ? 0 : INT32_MAX, 1);
            EXPECT_EQ(logger_set_name("n"), 0);
            set_log_dest(1 << i % 5, file.path(), address_.c_str(), "27759");
        }
    }
    std::string all = errors_.take() + output_.take() + file.content() + fake_platform.syslog;
    char datagram[1024];
    for (ssize_t size = 0; size >= 0; size = recv(collector_->fd, datagram, sizeof datagram, MSG_DONTWAIT)) {
        all += std::string(datagram, static_cast<size_t>(size)) + "\n";
    }
    for (const char letter : {'a', 'b', 'c'}) {
        const std::string line = ": operator(): " + std::string(100, letter) + "\n";
        int count = 0;
        for (size_t at = all.find(line); at != std::string::npos; at = all.find(line, at + 1)) {
            ++count;
        }
        EXPECT_EQ(count, 120) << letter;
    }
}

TEST_F(Logger, ThreadsAreRefusedWithoutLosingCount)
{
    logger_set_config(3, 10);
    ratelimit_slot slot{};
    std::atomic<int> passed = 0;
    const auto ask = [&] {
        for (int i = 0; i < 200000; ++i) {
            passed += _lprintf_ratelimit(&slot, "f.c", 5, "g") == 0 ? 1 : 0;
        }
    };
    {
        const std::jthread a(ask), b(ask), c(ask);
    }
    EXPECT_EQ(std::vector({passed.load(), slot.count, slot.suppressed}), std::vector({3, 3, 599997}));
}

TEST_F(Logger, EachLineIsOneEventWithoutItsLineFeed)
{
    EXPECT_EQ(logger_set_name("me"), 0);
    set_log_dest(LOG_DEST_REMOTE, nullptr, address_.c_str(), "27759");
    for (const std::string &line : {std::string(), std::string("abc\n"), std::string(65000, 'x')}) {
        EXPECT_EQ(_lprintf_raw((line + "\n").c_str(), static_cast<int32_t>(line.size()) + 1), 0);
        EXPECT_TRUE(collector_gets("me", line)) << line;
    }
    EXPECT_EQ(_lprintf_raw("no line feed", 12) + _lprintf_raw("", 0) + _lprintf_raw(nullptr, 5), 0);
    EXPECT_TRUE(collector_gets("me", "no line feed") && collector_gets("me", ""));
}

TEST_F(Logger, RemoteFailureLosesTheEventAndNothingElse)
{
    std::set<std::string> last;
    fail_each_allocation([&](Fault &fault) {
        log_to(LOG_DEST_STDOUT | LOG_DEST_REMOTE, nullptr, address_.c_str());
        const bool struck = fault.struck();
        const Reports reports = take_reports();
        EXPECT_EQ(reports.empty(), !struck);
        EXPECT_EQ(collector_gets(program_invocation_short_name, "n: line"), !struck);
        last.insert(reports.empty() ? "" : reports.back());
    });
    EXPECT_EQ(last.size(), 4U);
    EXPECT_TRUE(last.contains("log_msg_dest_remote: ERROR: unable to build packet"));
    EXPECT_TRUE(last.contains("log_msg_dest_remote: ERROR: unable to send packet (remote logger not started?)"));
}

} // namespace
