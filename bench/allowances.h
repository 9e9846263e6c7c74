/* How many records the senders of a soak test may send, and have sent: memory that they share with
 * the test. */
#ifndef TAVLEN_BENCH_ALLOWANCES_H
#define TAVLEN_BENCH_ALLOWANCES_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

/// Of one sender, in cache lines of its own. Only the test writes `records`, only the sender the
/// others.
struct alignas(128) Allowance {
    std::atomic<uint64_t> records; // it may send numbers below
    std::atomic<uint64_t> sent;    // datagrams that the system took
    std::atomic<uint64_t> refused; // sends that failed, and were tried again
};
static_assert(std::atomic<uint64_t>::is_always_lock_free);

/// A file that both sides map: the test first, which makes it.
class Allowances {
public:
    explicit Allowances(const std::string &path);
    ~Allowances();
    Allowances(const Allowances &) = delete;
    Allowances &operator=(const Allowances &) = delete;

    bool usable() const { return first_ != nullptr; }
    Allowance &of(size_t sender) const { return first_[sender]; }

private:
    Allowance *first_;
};

#endif
