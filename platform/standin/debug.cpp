// The stand-in's debug log: flags per module id from KEP_DEBUG, output to standard
// error, syslog (KEP_DEBUG_SYSLOG=1) or a sink installed by a test.
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include "kep_pf_debug.h"
#include "pf_api.h"

namespace {

constexpr int kMaxMid = 1024;

// Flags are read on every log call, so they live in a plain table read without a lock;
// the environment is parsed once.
unsigned char gFlags[kMaxMid];
int gAll = -1;  // -1: not read yet, 0/1 otherwise
bool gSyslog = false;
pthread_once_t gOnce = PTHREAD_ONCE_INIT;
pthread_mutex_t gSinkLock = PTHREAD_MUTEX_INITIALIZER;
DebugSink gSink = nullptr;
void *gSinkUser = nullptr;

void readEnvironment() {
    const char *env = getenv("KEP_DEBUG");
    int all = 0;
    if (env) {
        if (strcmp(env, "all") == 0 || strcmp(env, "1") == 0) {
            all = 1;
        } else {
            const char *p = env;
            while (*p) {
                char *end = nullptr;
                long mid = strtol(p, &end, 10);
                if (end == p) break;
                if (mid >= 0 && mid < kMaxMid) gFlags[mid] = 1;
                p = end;
                while (*p == ',' || *p == ' ') p++;
            }
        }
    }
    const char *sl = getenv("KEP_DEBUG_SYSLOG");
    gSyslog = sl && strcmp(sl, "1") == 0;
    __atomic_store_n(&gAll, all, __ATOMIC_RELEASE);
}

void ensureRead() {
    if (__atomic_load_n(&gAll, __ATOMIC_ACQUIRE) < 0) pthread_once(&gOnce, readEnvironment);
}

}  // namespace

PF_API int debugFlagGet(int mid) {
    ensureRead();
    if (__atomic_load_n(&gAll, __ATOMIC_RELAXED) == 1) return 1;
    return mid >= 0 && mid < kMaxMid && __atomic_load_n(&gFlags[mid], __ATOMIC_RELAXED) ? 1 : 0;
}

PF_API void debugFlagSet(int mid, int on) {
    ensureRead();
    if (mid < 0) {
        __atomic_store_n(&gAll, on ? 1 : 0, __ATOMIC_RELEASE);
        for (int i = 0; i < kMaxMid; i++) __atomic_store_n(&gFlags[i], 0, __ATOMIC_RELAXED);
        return;
    }
    if (mid >= kMaxMid) return;
    // Switching one module off while all are on leaves all the others on.
    if (!on && __atomic_load_n(&gAll, __ATOMIC_ACQUIRE) == 1) {
        for (int i = 0; i < kMaxMid; i++) __atomic_store_n(&gFlags[i], 1, __ATOMIC_RELAXED);
        __atomic_store_n(&gAll, 0, __ATOMIC_RELEASE);
    }
    __atomic_store_n(&gFlags[mid], on ? 1 : 0, __ATOMIC_RELAXED);
}

PF_API void debugSetSink(DebugSink sink, void *user) {
    pthread_mutex_lock(&gSinkLock);
    gSink = sink;
    gSinkUser = user;
    pthread_mutex_unlock(&gSinkLock);
}

PF_API void debugPrintf(int mid, const char *format, ...) {
    if (!format) return;
    char line[2048];
    va_list ap;
    va_start(ap, format);
    vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    pthread_mutex_lock(&gSinkLock);
    if (gSink) {
        gSink(mid, line, gSinkUser);
    } else if (gSyslog) {
        syslog(LOG_DEBUG, "%s", line);
    } else {
        fputs(line, stderr);
    }
    pthread_mutex_unlock(&gSinkLock);
}

PF_API const char *midNameGet(int mid) {
    switch (mid) {
        case 110:
            return "kepJson";
        case 111:
            return "kepHandle";
        case 112:
            return "imi";
        case 113:
            return "jsonStore";
        default:
            return "unknown";
    }
}

PF_API const char *pidNameGet(int pid) {
    // Per-thread storage: callers on several threads keep their own copy.
    static __thread char name[32];
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/comm", pid);
    FILE *f = fopen(path, "re");
    name[0] = '\0';
    if (f) {
        if (fgets(name, sizeof name, f)) name[strcspn(name, "\n")] = '\0';
        fclose(f);
    }
    if (!name[0]) snprintf(name, sizeof name, "pid%d", pid);
    return name;
}

PF_API int pidGetCurrent(void) {
    return static_cast<int>(getpid());
}
