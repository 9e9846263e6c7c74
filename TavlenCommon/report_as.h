/*
 * Internal: a report from a body that several functions share. It carries the name of the function
 * that was called, and each of them brings rate-limit slots of its own.
 */
#ifndef TAVLEN_COMMON_REPORT_AS_H
#define TAVLEN_COMMON_REPORT_AS_H

#include <TavlenCommon/logger.h>

#define LPRINTF_AS(function, slot, ...)                                                            \
    do {                                                                                           \
        if (_lprintf_ratelimit(&(slot), __FILE__, __LINE__, (function)) == 0) {                    \
            char *lprintf_msg_ = _lprintf_fmt(__VA_ARGS__);                                        \
            (void)_lprintf(nullptr, __FILE__, __LINE__, function, lprintf_msg_, lprintf_msg_);     \
        }                                                                                          \
    } while (0)

#endif
