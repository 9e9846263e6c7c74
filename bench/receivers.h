/* The programs that are compared, and one of them at work. */
#ifndef TAVLEN_BENCH_RECEIVERS_H
#define TAVLEN_BENCH_RECEIVERS_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "loopback.h"
#include "receiver_process.h"
#include "surroundings.h"

/// Of a line in the file: "name: text\n", from every receiver, with a text of 120 characters.
extern const size_t line_size;

struct Receiver {
    const char *title;
    /// Its command line; writes its configuration into the folder first.
    std::function<std::vector<std::string>(const TemporaryFolder &, uint16_t port)> command;
    std::string datagram; // one record, as this receiver understands it
    bool greets = true;   // its file begins with a line of its own, once it can receive
    bool lingers = false; // it writes when it likes, so that lines tell nothing about its progress
};

Receiver collector();

/// The collector with standard output as its destination.
Receiver collector_to_stdout();

/// Receives into a buffer of that many bytes, as the kernel counts; 0: the system's default.
Receiver limit_loop(int receive_buffer);

/// A program that receives nothing.
Receiver empty_program();

/// Another collector in three configurations; empty, and said so, where it is not installed.
std::vector<Receiver> peers();

/// A receiver at work, and the one who sends to it.
class Running {
public:
    Running(const Receiver &receiver, const TemporaryFolder &folder);

    /// Whether it can receive; nothing below may be called otherwise.
    bool ready();

    ReceiverProcess &process() { return process_; }
    const DatagramSocket &sender() const { return sender_; }
    const std::string &datagram() const { return receiver_.datagram; }
    const std::string &file() const { return file_; }
    uint16_t port() const { return port_; }
    int receive_buffer() const { return process_.receive_buffer(port_); }

    /// Datagrams, not longer than this receiver's, that the receive buffer holds for certain, at
    /// any time: the kernel may still have a quarter of it booked for some that were read already.
    size_t safe_window() const;

    /// Records in the file; none of a part of one.
    size_t written() const;

    /// The file's size before the first record.
    size_t first_size() const { return first_size_; }

    /// The file's size with that many records in it.
    size_t size_with(size_t records) const { return first_size_ + records * line_size; }

    /// Waits until the receiver has taken that many records in all: they are in the file, or, for
    /// one that lingers, out of the socket.
    bool has_taken(size_t records) const;

    /// Waits until that many records, and nothing else, are in the file.
    bool has_written(size_t records) const;

private:
    const Receiver &receiver_;
    const std::string file_;
    const uint16_t port_;
    ReceiverProcess process_;
    DatagramSocket sender_;
    size_t first_size_ = 0;
};

#endif
