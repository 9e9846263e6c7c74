/* Makes the library's calls to the platform fail: the linker leads each such call to faults.cpp first. */
#ifndef TAVLEN_TESTS_FAULTS_H
#define TAVLEN_TESTS_FAULTS_H

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

/// Which calls fail: the n-th alone, or it and all that follow.
enum class Failing { once, from_then_on };

/// The name for every allocating function together.
constexpr char allocation[] = "allocation";

/// While it exists, the n-th call (1 is the next) of a platform function fails.
class Fault {
public:
    Fault(const char *function, int n, Failing failing, int64_t result = 0, int error = 0);
    /// Every call fails.
    Fault(const char *function, int64_t result, int error) : Fault(function, 1, Failing::from_then_on, result, error) {}
    ~Fault() { (void)struck(); }

    /// Ends the fault; true when a call failed by it.
    bool struck();

    /// Counts a call; true when it is to fail, with errno and its result set.
    static bool strikes(const char *function, int64_t *result);

private:
    const char *function_;
    std::atomic<int> calls_until_; // and no copies of this object
    Failing failing_;
    int64_t result_;
    int error_;
    bool struck_ = false;
};

/// What an operation gives whose first call of a platform function fails; the report's own calls do not.
auto with(const char *function, int64_t result, int error, auto operation, auto... arguments)
{
    const Fault fault(function, 1, Failing::once, result, error);
    return operation(arguments...);
}

/// Calls the operation in a thread of its own, which has kept no records that would spare it an allocation.
template <class Operation>
void in_new_thread(Operation operation)
{
    std::thread(operation).join();
}

/// Calls operation(fault) with the 1st, 2nd, ... allocation failing, until it asks for no more.
template <class Operation>
void fail_each_allocation(Operation operation)
{
    for (const Failing failing : {Failing::once, Failing::from_then_on}) {
        bool struck = false;
        int n = 1;
        do {
            in_new_thread([&] {
                Fault fault(allocation, n++, failing);
                operation(fault);
                struck = fault.struck();
            });
        } while (struck);
    }
}

/// What stands in for the platform's clock, sleep and syslog.
struct FakePlatform {
    std::atomic<int> blocks = 0;  ///< that are allocated
    int64_t now = 0;              ///< what time() gives; 0: the real time
    std::atomic<int> sleeps = 0;  ///< calls of sleep(), which returns at once
    std::string opened;           ///< the calls of openlog(), a line each
    std::string syslog;           ///< those of syslog()
    std::vector<int> families;    ///< unless empty: of the addresses that getaddrinfo() gives
    size_t most_bytes = SIZE_MAX; ///< that one send(), recv() or write() moves
    int selected = 0;             ///< the count that select() was last called with
    int options = 0;              ///< how many setsockopt() has set
    int receive_buffer = 0;       ///< last asked for with setsockopt(), in bytes
};
extern FakePlatform fake_platform;
extern thread_local std::vector<int> sent_flags; ///< of this thread's calls of send()

#endif
