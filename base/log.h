// The library's one logging helper.
//
// A line is written only when debugFlagGet(mid) is 1; with the flag off a log call
// costs that check and nothing else. The platform sees a format built from the
// prefix "[<%s/%s>:<%s/%s()/%d>]", the message and "\r\n" (at most 256 bytes) with
// the process, thread and module names, the function and the line in front of the
// message's own arguments.
#pragma once

#include "kep_pf_debug.h"

namespace kep {

enum : int {
    kMidJson = 110,    // JSON helpers and message builders
    kMidHandle = 111,  // everything else
};

struct LogPrefix {
    char format[256];
    char thread[32];
    const char *process;
    const char *module;
};

// Fills p for message msg of module mid; defined once in the library.
void logPrepare(LogPrefix &p, int mid, const char *msg);

template <typename... Args>
inline void logAt(int mid, const char *func, int line, const char *msg, Args... args) {
    if (debugFlagGet(mid) != 1) return;
    LogPrefix p;
    logPrepare(p, mid, msg);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    debugPrintf(mid, p.format, p.process, p.thread, p.module, func, line, args...);
#pragma GCC diagnostic pop
}

// Never called: lets the compiler check each message against its arguments.
inline void logFormatCheck(const char *, ...) __attribute__((format(printf, 1, 2)));
inline void logFormatCheck(const char *, ...) {}

}  // namespace kep

#define KEP_LOG_MID(mid, ...)                                 \
    do {                                                      \
        if (false) ::kep::logFormatCheck(__VA_ARGS__);        \
        ::kep::logAt((mid), __func__, __LINE__, __VA_ARGS__); \
    } while (0)

// JSON helpers log as module 110, the rest of the library as 111.
#define KEP_LOGJ(...) KEP_LOG_MID(::kep::kMidJson, __VA_ARGS__)
#define KEP_LOG(...) KEP_LOG_MID(::kep::kMidHandle, __VA_ARGS__)

// Logs as KEP_LOG does, but under the name of the operation a shared step serves.
#define KEP_LOG_AS(func, ...)                                           \
    do {                                                                \
        if (false) ::kep::logFormatCheck(__VA_ARGS__);                  \
        ::kep::logAt(::kep::kMidHandle, (func), __LINE__, __VA_ARGS__); \
    } while (0)
