// Allocation-failure injection for one test executable.
//
// alloc_fault.cpp defines malloc, calloc, realloc and free in the executable itself,
// forwarding to the C library's allocator. Every caller in the process resolves to
// them: the library's objects, the platform stand-in and json-c (shared libraries
// calling libc's malloc through the dynamic linker). Inside a window opened by
// begin(), allocations are counted, the k-th one fails, and every block handed out
// is remembered until it is freed, so that what is still live when the window ends
// is a leak, without a sanitizer.
//
// Only an executable that links alloc_fault.cpp gets this; it cannot be combined with
// AddressSanitizer (which owns malloc itself), so such tests are left out of
// sanitizer builds. Not thread-safe: the window belongs to the test's own thread.
#pragma once

#include <stddef.h>

namespace kep_test {
namespace alloc {

struct Window {
    long allocations = 0;   // counted allocation calls, the failed one included
    bool injected = false;  // the failAt-th call happened and returned null
    long live = 0;          // blocks allocated in the window and not freed: leaks
    size_t liveBytes = 0;
    bool overflow = false;  // more live blocks than the tracker holds: result unusable
    long spared = 0;        // calls not failed because the caller cannot survive it (json-c)
};

// Opens a window; failAt 0 never fails, k >= 1 fails the k-th counted call only.
void begin(long failAt);
// Suspends counting and tracking of new blocks (test bookkeeping such as gtest
// or std::string); frees are still recorded. Nests.
void pause();
void resume();
// Closes the window.
Window end();

// True while a window is open and not paused.
bool active();

}  // namespace alloc
}  // namespace kep_test
