// The allocator interposer behind alloc_fault.h. Linked only into the executables
// that ask for it (see tests/CMakeLists.txt): defining malloc in a shared support
// archive would pull it into every test.
#include "alloc_fault.h"

#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *ptr, size_t size);
void __libc_free(void *ptr);
}

namespace {

// Open-addressed set of live blocks; a fixed array, since the allocator cannot
// allocate for itself.
constexpr size_t kSlots = 1u << 16;
constexpr uintptr_t kTomb = 1;
struct Slot {
    uintptr_t ptr;
    size_t size;
};
Slot gSlots[kSlots];
size_t gUsed;  // live + tombstones

bool gOpen;
int gPaused;
long gFailAt;
long gCount;
bool gInjected;
bool gOverflow;

size_t hashOf(uintptr_t p) {
    return static_cast<size_t>((p >> 4) * 0x9E3779B97F4A7C15ull) & (kSlots - 1);
}

void remember(void *ptr, size_t size) {
    if (gUsed >= kSlots * 3 / 4) {
        gOverflow = true;
        return;
    }
    uintptr_t p = reinterpret_cast<uintptr_t>(ptr);
    for (size_t i = hashOf(p);; i = (i + 1) & (kSlots - 1)) {
        if (gSlots[i].ptr == 0 || gSlots[i].ptr == kTomb) {
            if (gSlots[i].ptr == 0) gUsed++;
            gSlots[i] = {p, size};
            return;
        }
    }
}

void forget(void *ptr) {
    if (!ptr || gUsed == 0) return;
    uintptr_t p = reinterpret_cast<uintptr_t>(ptr);
    for (size_t i = hashOf(p); gSlots[i].ptr != 0; i = (i + 1) & (kSlots - 1)) {
        if (gSlots[i].ptr == p) {
            gSlots[i].ptr = kTomb;
            return;
        }
    }
}

bool counting() {
    return gOpen && gPaused == 0;
}

long gSpared;

// json-c 0.16 does not survive every failed allocation: its parser uses a failed
// copy of a member name unchecked (a crash) and ignores a failed member insert (the
// member is dropped silently and leaks), and its serialiser ignores failed appends
// (the text comes out with pieces missing instead of null). Failing those calls
// tests json-c, not us, so they are spared and the next allocation fails instead:
// every allocation inside json_tokener_parse*, and inside json_object_to_json_string*
// unless the stand-in's file stores or response texts called it (they check what they
// serialise before it replaces a file or reaches a client).
bool sparedJsonC() {
    void *frames[24];
    int n = backtrace(frames, 24);
    const char *outermost = nullptr;  // json-c's entry point on this call path
    int i = 0;
    Dl_info info;
    // Our own frames and libc's (strdup) come first.
    for (; i < n; i++) {
        if (!dladdr(frames[i], &info) || !info.dli_fname) return false;
        if (strstr(info.dli_fname, "libjson-c")) break;
    }
    for (; i < n; i++) {
        if (!dladdr(frames[i], &info) || !info.dli_fname) return false;
        if (!strstr(info.dli_fname, "libjson-c")) break;
        if (info.dli_sname) outermost = info.dli_sname;
    }
    if (!outermost) return false;
    if (strncmp(outermost, "json_tokener_parse", 18) == 0) return true;
    if (strncmp(outermost, "json_object_to_json_string", 26) != 0) return false;
    for (int j = i; j < n && j < i + 3; j++) {
        if (dladdr(frames[j], &info) && info.dli_sname &&
            (strncmp(info.dli_sname, "jsonObjectToFile", 16) == 0 ||
             strcmp(info.dli_sname, "jsonObjectToMallocString") == 0)) {
            return false;
        }
    }
    return true;
}

// True when this counted call is the one to fail.
bool failNow() {
    if (!counting()) return false;
    gCount++;
    if (gFailAt > 0 && gCount == gFailAt) {
        gPaused++;  // backtrace and dladdr must not count themselves
        bool spare = sparedJsonC();
        gPaused--;
        if (spare) {
            gSpared++;
            gFailAt++;
            return false;
        }
        gInjected = true;
        return true;
    }
    return false;
}

}  // namespace

namespace kep_test {
namespace alloc {

void begin(long failAt) {
    // The unwinder loads itself on first use; that must happen outside a window.
    static bool warmed;
    if (!warmed) {
        void *frames[2];
        backtrace(frames, 2);
        warmed = true;
    }
    gSpared = 0;
    memset(gSlots, 0, sizeof gSlots);
    gUsed = 0;
    gFailAt = failAt;
    gCount = 0;
    gInjected = false;
    gOverflow = false;
    gPaused = 0;
    gOpen = true;
}

void pause() {
    gPaused++;
}
void resume() {
    if (gPaused > 0) gPaused--;
}
bool active() {
    return counting();
}

Window end() {
    Window w;
    w.allocations = gCount;
    w.injected = gInjected;
    w.overflow = gOverflow;
    w.spared = gSpared;
    for (const Slot &s : gSlots) {
        if (s.ptr > kTomb) {
            w.live++;
            w.liveBytes += s.size;
        }
    }
    gOpen = false;
    gPaused = 0;
    gFailAt = 0;
    return w;
}

}  // namespace alloc
}  // namespace kep_test

extern "C" {

void *malloc(size_t size) {
    if (failNow()) {
        errno = ENOMEM;
        return nullptr;
    }
    void *p = __libc_malloc(size);
    if (p && counting()) remember(p, size);
    return p;
}

void *calloc(size_t count, size_t size) {
    if (failNow()) {
        errno = ENOMEM;
        return nullptr;
    }
    void *p = __libc_calloc(count, size);
    if (p && counting()) remember(p, count * size);
    return p;
}

void *realloc(void *ptr, size_t size) {
    if (!ptr) return malloc(size);
    if (size == 0) {
        free(ptr);
        return nullptr;
    }
    if (failNow()) {
        errno = ENOMEM;
        return nullptr;  // the old block stays valid and owned by the caller
    }
    void *p = __libc_realloc(ptr, size);
    if (p && gOpen) {
        // A block grown in the window stays tracked; one from before stays untracked
        // unless it was grown while counting.
        bool tracked = false;
        uintptr_t old = reinterpret_cast<uintptr_t>(ptr);
        for (size_t i = hashOf(old); gUsed && gSlots[i].ptr != 0; i = (i + 1) & (kSlots - 1)) {
            if (gSlots[i].ptr == old) {
                tracked = true;
                break;
            }
        }
        forget(ptr);
        if (tracked || counting()) remember(p, size);
    }
    return p;
}

void free(void *ptr) {
    if (gOpen) forget(ptr);
    __libc_free(ptr);
}

// The C library's own copies, so that the stack walk of sparedJsonC() starts in code
// with unwind tables: on MIPS the C library has none for strdup, and the walk from a
// member-name copy would stop there before reaching json-c.
char *strdup(const char *s) {
    size_t n = strlen(s) + 1;
    char *p = static_cast<char *>(malloc(n));
    return p ? static_cast<char *>(memcpy(p, s, n)) : nullptr;
}

char *strndup(const char *s, size_t max) {
    size_t n = strnlen(s, max);
    char *p = static_cast<char *>(malloc(n + 1));
    if (!p) return nullptr;
    memcpy(p, s, n);
    p[n] = '\0';
    return p;
}

}  // extern "C"
