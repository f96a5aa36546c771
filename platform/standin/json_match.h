// Checks that a serialised text reads back as the object it was made from, without
// building a second object.
#pragma once

#include <stddef.h>

struct json_object;

namespace kep_pf {

// Levels of nesting json-c's reader accepts (its default depth), a scalar inside the
// innermost container counting as one: a deeper text does not read back.
constexpr int kJsonReadLevels = 32;

// True when text (len bytes, zero-terminated there) is one JSON value, with blanks
// around it and nested at most levels deep, that json-c's reader (given that depth)
// turns into an object equal to obj (a NaN matching a NaN): members in obj's
// order, numbers written as json-c writes them, strings with the escapes its writer
// uses (\u only below 0x80). A text that is true here is read back by the reader; one
// the writer damaged (a piece dropped when an append failed) is false. Allocates
// nothing, except to ask the reader about a double written outside JSON's grammar (an
// infinity, or a number such as "1." kept from a hand-edited file); that question,
// like every other, answers false when memory runs out. Internal to the stand-in.
bool jsonTextMatches(const char *text, size_t len, json_object *obj, int levels = kJsonReadLevels);

}  // namespace kep_pf
