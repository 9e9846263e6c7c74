// The real collector as a process of its own: arguments, files, datagrams, and the lines it writes.
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <netinet/in.h>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/logger.h>

#include "support.h"

namespace {

constexpr int patience_ms = 10000; // a sanitized collector on a busy machine starts slowly
const std::string usage_start = "Usage: ";

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

/// A descriptor bound to a port of its own, without sharing it.
int bind_port(uint16_t port)
{
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        close(descriptor);
        return -1;
    }
    return descriptor;
}

/// A free port; the tests that run at the same time look in places of their own.
std::string free_port()
{
    static auto port = static_cast<uint16_t>(20000 + getpid() % 4000 * 10);
    int descriptor = -1;
    while ((descriptor = bind_port(++port)) == -1) {
    }
    close(descriptor);
    return std::to_string(port);
}

/// A folder of its own, removed with what is in it.
class TemporaryFolder {
public:
    TemporaryFolder() { EXPECT_NE(mkdtemp(path_.data()), nullptr); }
    ~TemporaryFolder()
    {
        for (const std::string &file : files_) {
            unlink(file.c_str());
        }
        rmdir(path_.c_str());
    }
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;
    const std::string &path() const { return path_; }
    /// The path of a file in it, which goes with it.
    std::string file(const std::string &name)
    {
        files_.push_back(path_ + "/" + name);
        return files_.back();
    }

private:
    std::string path_ = "/tmp/tavlen-test-XXXXXX";
    std::vector<std::string> files_;
};

std::string read_file(const std::string &path)
{
    std::string content;
    if (FILE *file = fopen(path.c_str(), "rb")) {
        char buffer[4096];
        for (size_t got = 0; (got = fread(buffer, 1, sizeof buffer, file)) > 0;) {
            content.append(buffer, got);
        }
        fclose(file);
    }
    return content;
}

void write_file(const std::string &path, const std::string &content)
{
    FILE *file = fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    fwrite(content.data(), 1, content.size(), file);
    fclose(file);
}

bool eventually(const std::function<bool()> &condition)
{
    for (int waited = 0; waited < patience_ms; ++waited) {
        if (condition()) {
            return true;
        }
        usleep(1000);
    }
    return false;
}

/// A program run in a folder of its own with its output in files there.
class Process {
public:
    Process(const std::string &program, std::vector<std::string> arguments)
    {
        output_ = folder.file("output");
        errors_ = folder.file("errors");
        arguments.insert(arguments.begin(), program);
        arguments_ = std::move(arguments);
    }
    ~Process() { kill_and_wait(); }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    void start()
    {
        pid_ = fork();
        if (pid_ == 0) {
            run();
        }
    }
    /// Its exit status; -1 when it does not end.
    int wait_for_end()
    {
        int status = 0;
        if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) {
            return -1;
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    bool is_running() const { return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }
    std::string output() const { return read_file(output_); }
    std::string errors() const { return read_file(errors_); }
    void kill_and_wait()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

    TemporaryFolder folder;

private:
    [[noreturn]] void run()
    {
        std::vector<char *> argv;
        for (std::string &argument : arguments_) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        const int flags = O_CREAT | O_WRONLY | O_APPEND;
        const bool ready = chdir(folder.path().c_str()) == 0 &&
                           dup2(open(output_.c_str(), flags, 0600), STDOUT_FILENO) >= 0 &&
                           dup2(open(errors_.c_str(), flags, 0600), STDERR_FILENO) >= 0;
        if (ready) {
            execv(argv[0], argv.data());
        }
        _exit(99);
    }

    std::string output_;
    std::string errors_;
    std::vector<std::string> arguments_;
    pid_t pid_ = -1;
};

/// The collector, listening on a port of its own of 127.0.0.1.
class RunningCollector : public Process {
public:
    /// `config` goes into its configuration file; `started_in` says where its start line goes.
    explicit RunningCollector(const std::string &config = "") : RunningCollector(config, "output")
    {
    }
    RunningCollector(const std::string &config, const std::string &started_in)
        : Process(TAVLEN_LOGGER, {"-a", "127.0.0.1"})
    {
        write_file(folder.file("TavlenLogger.conf"), "ListenPort=" + port + "\n" + config);
        const std::string path = folder.path() + "/" + started_in;
        if (started_in != "output") {
            folder.file(started_in);
        }
        start();
        EXPECT_TRUE(eventually([&] {
            return read_file(path).find(": main: Logger started (revision 164281)...\n") !=
                   std::string::npos;
        })) << errors();
    }
    void send(const std::vector<uint8_t> &datagram) const
    {
        const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
        const sockaddr_in address = loopback(static_cast<uint16_t>(std::stoi(port)));
        EXPECT_EQ(sendto(descriptor, datagram.data(), datagram.size(), 0,
                         reinterpret_cast<const sockaddr *>(&address), sizeof address),
                  static_cast<ssize_t>(datagram.size()));
        close(descriptor);
    }

    const std::string port = free_port();
};

/// The bytes of a packet as a datagram; destroys it.
std::vector<uint8_t> datagram_of(clpacket *p)
{
    EXPECT_EQ(clpacket_serialize(p), 0);
    const auto type = static_cast<uint8_t>(clpacket_get_type(p));
    std::vector<uint8_t> datagram{0, 0, 0, type};
    const auto *body = static_cast<uint8_t *>(clpacket_get_buffer(p));
    datagram.insert(datagram.end(), body, body + clpacket_get_buffer_size(p));
    clpacket_destroy(p);
    return datagram;
}

std::vector<uint8_t> event(const std::string &name, const std::string &line)
{
    return datagram_of(
        clpacket_log_event(name.c_str(), line.data(), static_cast<int32_t>(line.size())));
}

std::vector<uint8_t> event_with(const std::function<void(clpacket *)> &set_fields)
{
    clpacket *p = clpacket_create();
    clpacket_set_type(p, CLPACKET_LOG_EVENT);
    set_fields(p);
    return datagram_of(p);
}

// ----------------------------------------------------------------------------------- command line

TEST(CollectorProcess, WrongCommandLinesShowTheUsage)
{
    const std::vector<std::vector<std::string>> wrong = {
        {"word"},
        {""},
        {"-p", "9000", "word"},
        {"-p", "9000", "word", "-c", "x"},
        {"-h", "1"},
        {"-o", "1"},
        {"-P", "1"},
        {"-", "1"},
        {"--", "1"},
        {"--c", "x.conf"},
        {"--nonsense", "1", "-c", "x"},
    };
    for (const auto &arguments : wrong) {
        Process collector(TAVLEN_LOGGER, arguments);
        collector.start();
        EXPECT_EQ(collector.wait_for_end(), 255);
        EXPECT_EQ(collector.output(), usage_start + TAVLEN_LOGGER +
                                          " [params]\n     (revision: 164281)\n\nparams: \n"
                                          "   -p <port for incoming log messages>\n"
                                          "   -a <interface address for incoming log messages>\n"
                                          "   -c <configuration file>\n"
                                          "   -l <log file name> (if logging to file is wanted)\n"
                                          "   -o log to STDOUT\n   -s log to syslog\n"
                                          "   -h display this help\n");
        EXPECT_EQ(collector.errors(), "");
    }
}

// Each line starts on the port P, told by the arguments or a file in the working folder.
TEST(CollectorProcess, CommandLineWinsOverFileAndFirstOverLater)
{
    const std::string port = free_port();
    const std::string bad = "no such port";
    const struct {
        std::vector<std::string> arguments;
        std::string file; // of TavlenLogger.conf
        bool warns;       // that its file is not there
    } cases[] = {
        {{"-h"}, "ListenPort = " + port + " # comment\n", false},
        {{"-p", port, "-p", bad, "-c"}, "listenport=" + bad + "\n", false},
        {{"--listenport", port, "--nonsense"}, "", false},
        {{"-c", "a.conf", "-p", port, "-c", "missing.conf"}, "", true},
        {{"-c", "/", "-p", port}, "ListenPort=" + bad + "\n", false},
        {{"-p", port, "--RemoteLoggerAddr", "-c"}, "", false},
        {{"-p", port, "--DefaultLogDest", "1"}, "DefaultLogDest=0\n", false},
    };
    for (const auto &c : cases) {
        Process collector(TAVLEN_LOGGER, c.arguments);
        write_file(collector.folder.file("TavlenLogger.conf"), c.file);
        collector.start();
        EXPECT_TRUE(eventually([&] {
            return collector.output().find("Logger started") != std::string::npos;
        })) << collector.output()
            << collector.errors();
        Reports expected{{"main", "Logger started (revision 164281)..."}};
        if (c.warns) {
            expected.insert(expected.begin(),
                            {"config_set", "WARNING: failed to parse config file, maybe the file "
                                           "does not exist"});
        }
        EXPECT_EQ(parse_records(collector.output()), expected);
        EXPECT_EQ(collector.errors(), "");
        EXPECT_EQ(bind_port(static_cast<uint16_t>(std::stoi(port))), -1) << "listens there";
    }
}

TEST(CollectorProcess, EndsWithStatus4WhenItCannotListen)
{
    const std::string port = free_port();
    const int blocker = bind_port(static_cast<uint16_t>(std::stoi(port)));
    const Report closed{"socket_close", "WARNING: socket is closed"};
    const struct {
        std::vector<std::string> arguments;
        Reports reports;
    } cases[] = {
        {{"-a", "127.0.0.1", "-p", port},
         {{"sock_listen_general", "ERROR: unable to bind on port " + port}, closed}},
        {{"-a", "256.0.0.1", "-p", port}, {closed}},
        {{"-p", "no such port"}, {closed}},
    };
    for (const auto &c : cases) {
        Process collector(TAVLEN_LOGGER, c.arguments);
        write_file(collector.folder.file("TavlenLogger.conf"), "");
        collector.start();
        EXPECT_EQ(collector.wait_for_end(), 4);
        EXPECT_EQ(parse_records(collector.output()), c.reports);
    }
    close(blocker);
}

// ---------------------------------------------------------------------------------------- records

TEST(CollectorProcess, WritesEventsAndRefusesEverythingElse)
{
    const auto version = [](clpacket *p, int32_t number) {
        clpacket_set_int32_signed(p, 1, number);
    };
    const auto text = [](clpacket *p, int32_t name, const char *value) {
        clpacket_set_string(p, name, value, static_cast<int32_t>(strlen(value)));
    };
    const std::string ignored = " msg_recv_loop: wrong message ignored\n";
    const std::string undecoded = " msg_extract: packet decode error\n" + ignored;
    const std::string mapped = " get_struct_from_binary_buffer: ERROR: failed to map structure 1 "
                               "from binary buffer\n";
    const std::string failed = " clpacket_deserialize: ERROR: failed to deserialize packet\n";
    const std::string too_small = " clpacket_recvfrom: ERROR: sock_recvfrom failed.\n";
    const struct {
        std::vector<uint8_t> datagram;
        std::string lines; // without time, file and line
    } cases[] = {
        {event("a", "1:f.c:2: g: text"), "a: 1:f.c:2: g: text\n"},
        {event("b", "two\n\n"), "b: two\n\n"},
        {event("b", ""), "b: \n"},
        {event("", "no name"), ": no name\n"},
        {event("c", "%s%n in\nside\r\x1b[m"), "c: %s%n in\nside\r\x1b[m\n"},
        {event("c", std::string("zero\0byte", 9)), "c: zero\n"},
        {event("c", std::string(5000, 'x')), "c: " + std::string(4092, 'x')},
        {event("c", "\n"), "c: \n"},
        {event_with([&](clpacket *p) {
             version(p, 2);
             text(p, 2, "d");
             text(p, 3, "secret");
         }),
         " msg_extract: wrong version (2 instead of 1)\n" + ignored},
        {event_with([&](clpacket *p) {
             version(p, 1);
             text(p, 2, "d");
         }),
         " mtb_get_string: ERROR: element with name 3 not found\n" + undecoded},
        {event_with([&](clpacket *p) {
             clpacket_set_int32_unsigned(p, 1, 1);
             text(p, 2, "d");
             text(p, 3, "t");
         }),
         " mtb_get_int32_signed: ERROR: element with name 1 not found\n" + undecoded},
        {event_with([&](clpacket *p) { // more than is asked for, in another order
             text(p, 9, "more");
             text(p, 3, "t");
             text(p, 2, "d");
             version(p, 1);
         }),
         "d: t\n"},
        {datagram_of(clpacket_log_event_send_event("x", 1, 1)),
         " msg_extract: wrong type\n" + ignored},
        {bytes("00 00 00 1e 00 01 01 00 00 00 00"), " msg_extract: wrong type\n" + ignored},
        {{}, too_small},
        {bytes("00 00 00 1d"), too_small},
        {bytes("00 00 00 1d 00"),
         " get_binary_buffer_element_name: ERROR: wrong buffer size: 1\n" + failed + undecoded},
        {bytes("00 00 00 1d 00 01 01 ff ff ff ff"),
         " mtb_binary_deserialize: ERROR: param 'element_count' is negative\n" + mapped + failed +
             undecoded},
        {bytes("00 00 00 1d 00 01 06 00 00 00 01"),
         " mtb_get_string: ERROR: element with name 2 not found\n" + undecoded},
    };
    RunningCollector collector;
    size_t seen = collector.output().size();
    for (const auto &c : cases) {
        collector.send(c.datagram);
        collector.send(event("end", "of case"));
        EXPECT_TRUE(eventually(
            [&] { return collector.output().find("end: of case\n", seen) != std::string::npos; }));
        std::string lines;
        std::istringstream output(collector.output().substr(seen));
        seen = collector.output().size();
        for (std::string line; std::getline(output, line);) {
            int prefix = 0; // of the collector's own records: time, file and line
            (void)sscanf(line.c_str(), "%*[0-9]:%*[a-z_.]:%*[0-9]:%n", &prefix);
            lines += line.substr(static_cast<size_t>(prefix)) + "\n";
        }
        EXPECT_EQ(lines, c.lines + "end: of case\n");
    }
    EXPECT_TRUE(collector.is_running());
    EXPECT_EQ(collector.errors(), "");
}

// Every prefix, every byte changed, and noise, to the real process: it stays and goes on writing.
TEST(CollectorProcess, NoDatagramKnocksItOver)
{
    RunningCollector collector("DefaultLogDest=8\nLogFileName=lines\n", "lines");
    const std::vector<uint8_t> good = event("name", "line");
    for (size_t i = 0; i < good.size(); ++i) {
        std::vector<uint8_t> bad = good;
        for (const int value : {0, 1, 14, 27, 28, 127, 255}) {
            bad[i] = static_cast<uint8_t>(value);
            collector.send(bad);
        }
        collector.send({good.begin(), good.begin() + static_cast<ptrdiff_t>(i)});
        usleep(200); // the receive buffer is small, and losing these would test nothing
    }
    for (const uint8_t type : std::vector<uint8_t>{1, 14, 28}) {
        std::vector<uint8_t> deep = bytes("00 00 00 1d");
        for (int level = 0; level < 9000; ++level) {
            deep.insert(deep.end(), {0, 1, type, 0, 0, 0, 1});
        }
        collector.send(deep);
        usleep(50000);
    }
    EXPECT_TRUE(eventually([&] {
        collector.send(good);
        return read_file(collector.folder.path() + "/lines").ends_with("name: line\n");
    }));
    EXPECT_TRUE(collector.is_running());
    EXPECT_EQ(collector.errors(), "");
}

TEST(CollectorProcess, AppendsToItsFileAndKeepsOtherDestinations)
{
    TemporaryFolder logs;
    const std::string path = logs.file("app.log");
    write_file(path, "earlier\n");
    for (int run = 0; run < 2; ++run) {
        RunningCollector collector("DefaultLogDest=9\nLogFileName=" + path + "\n");
        collector.send(event("n", std::to_string(run)));
        EXPECT_TRUE(
            eventually([&] { return read_file(path).ends_with(std::to_string(run) + "\n"); }));
        EXPECT_TRUE(collector.output().ends_with("n: " + std::to_string(run) + "\n"));
    }
    const Reports records = parse_records(read_file(path));
    EXPECT_EQ(read_file(path).substr(0, 8), "earlier\n");
    EXPECT_EQ(records.size(), 3U) << "one start line per run, the relayed lines behind them";

    RunningCollector refused("DefaultLogDest=9\nLogFileName=/nonexistent/file\n");
    refused.send(event("n", "still on standard output"));
    EXPECT_TRUE(eventually([&] { return refused.output().ends_with("standard output\n"); }));
    EXPECT_EQ(
        parse_records(refused.errors()),
        (Reports{{"setup_file_log_dest", "file logging disabled: log file (/nonexistent/file) "
                                         "not opened: No such file or directory"}}));
    RunningCollector mask("DefaultLogDest=40\n");
    EXPECT_EQ(parse_records(mask.errors()),
              (Reports{{"set_log_dest", "wrong log destination (40) ignored (using: 1): log "
                                        "destination number is too high"}}));
}

TEST(CollectorProcess, ChainRelaysALineUnderEachName)
{
    RunningCollector last;
    RunningCollector first(
        "DefaultLogDest=17\nRemoteLoggerAddr=127.0.0.1\nRemoteLoggerPort=" + last.port + "\n");
    first.send(event("app", "1:f.c:2: g: text\n"));
    EXPECT_TRUE(eventually([&] { return first.output().ends_with("app: 1:f.c:2: g: text\n"); }));
    EXPECT_TRUE(
        eventually([&] { return last.output().ends_with("logger: app: 1:f.c:2: g: text\n"); }));
    EXPECT_NE(last.output().find("\nlogger: "), std::string::npos) << "the first one's start line";
    last.kill_and_wait();
    for (int i = 0; i < 4; ++i) { // the next collector is gone: local lines go on
        first.send(event("app", "alone " + std::to_string(i)));
    }
    EXPECT_TRUE(eventually([&] { return first.output().ends_with("app: alone 3\n"); }));
    EXPECT_EQ(parse_records(first.errors()).front(),
              (Report{"log_msg_dest_remote",
                      "ERROR: unable to send packet (remote logger not started?)"}));
}

TEST(CollectorProcess, ExamplesReachIt)
{
    RunningCollector collector;
    for (const std::string example : {"first_sender", "first_sender_cpp"}) {
        Process sender(TAVLEN_EXAMPLES "/" + example, {"127.0.0.1", collector.port});
        sender.start();
        EXPECT_EQ(sender.wait_for_end(), 0);
        EXPECT_EQ(sender.errors(), "");
        const std::string end = ", 127.0.0.1:" + collector.port + "\n";
        EXPECT_TRUE(eventually([&] { return collector.output().ends_with(end); }));
        const std::string line = collector.output().substr(
            collector.output().rfind('\n', collector.output().size() - 2) + 1);
        EXPECT_EQ(line.find(example + ": "), 0U);
        EXPECT_EQ(parse_records(line.substr(example.size() + 2)).front().function, "main");
    }
}

// --------------------------------------------------------------------------------------- syslog

/// In a mount namespace of its own: takes the place of the system's syslog and prints what comes.
[[noreturn]] void be_syslog_for_one_record()
{
    constexpr int refused = 77;
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/dev", "tmpfs", 0, nullptr) != 0) {
        _exit(refused);
    }
    const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    if (bind(log, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        _exit(refused);
    }
    RunningCollector collector("DefaultLogDest=5\n");
    collector.send(event("app", "to syslog"));
    bool found = false;
    for (int record = 0; record < 2; ++record) { // the start line, then this one
        char text[1024];
        const ssize_t size = recv(log, text, sizeof text, 0);
        const std::string message(text, static_cast<size_t>(std::max<ssize_t>(size, 0)));
        found = message.starts_with("<15>") && message.ends_with("Tavlen: app: to syslog\n");
    }
    collector.kill_and_wait();
    _exit(found ? 0 : 1);
}

TEST(CollectorProcess, SyslogGetsTheLine)
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        be_syslog_for_one_record();
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
        GTEST_SKIP() << "this machine refuses a mount namespace";
    }
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

} // namespace
