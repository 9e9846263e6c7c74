/* The ways of logging that LPRINTF is compared with. */
#ifndef TAVLEN_BENCH_LOG_WAYS_H
#define TAVLEN_BENCH_LOG_WAYS_H

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include <pthread.h>

/// LPRINTF's line by the shortest way that keeps lines of several threads whole and flushed.
class FprintfLog {
public:
    /// Ends the process when the file cannot be opened.
    explicit FprintfLog(const char *path) : file_(fopen(path, "ae"))
    {
        if (file_ == nullptr) {
            perror(path);
            exit(EXIT_FAILURE);
        }
    }
    ~FprintfLog() { (void)fclose(file_); }
    FprintfLog(const FprintfLog &) = delete;
    FprintfLog &operator=(const FprintfLog &) = delete;

    void record(const char *source, int line, const char *function, const char *text)
    {
        pthread_mutex_lock(&lock_);
        fprintf(file_, "%llu:%s:%d: %s: %s\n", static_cast<unsigned long long>(time(nullptr)),
                source, line, function, text);
        fflush(file_);
        pthread_mutex_unlock(&lock_);
    }

private:
    FILE *file_;
    pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
};

/// A line as LPRINTF writes it, ready for a bare write.
inline std::string ready_line(const std::string &text)
{
    return std::to_string(time(nullptr)) + ":log_bench.cpp:100: LogWrite: " + text + "\n";
}

#endif
