// Atomic replacement of a file, for the stand-in's JSON stores.
#pragma once

#include <stddef.h>

namespace kep_pf {

// Replaces path with the len bytes of text, or leaves it as it was: a temporary
// file beside it ("<path>.tmp" and six characters) is written, flushed, renamed over
// it, and the folder flushed. A replaced file keeps its permissions. Temporary files
// of earlier stores of path that were cut short (a killed writer, a power cut) are
// removed first; one a live store still holds is left to it. 0, or -1 with the old
// file intact. Internal to the stand-in.
__attribute__((visibility("hidden"))) int storeAtomically(const char *path, const char *text, size_t len);

}  // namespace kep_pf
