// Atomic replacement of a file, for the stand-in's JSON stores.
#pragma once

#include <stddef.h>

namespace kep_pf {

// The debug module of the stand-in's JSON files ("jsonStore"): repairs, settings.
constexpr int kStoreLogMid = 113;

// Replaces path with the len bytes of text, or leaves it as it was: a temporary
// file beside it ("<path>.tmp", or that and six characters while another store of
// path is writing it) is written, flushed, renamed over it, and the folder flushed.
// The new file is 0600, or 0640 of the configured group (jsonObjectSetFileGroup),
// narrowed to what a replaced file allowed. What earlier stores of path that were cut
// short (a killed writer, a power cut) left behind is removed; what a live store
// holds is left to it. 0, or -1 with the old file intact. Internal to the stand-in.
int storeAtomically(const char *path, const char *text, size_t len);

}  // namespace kep_pf
