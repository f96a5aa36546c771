// Character classes of the text helpers. They answer 1 or -1 (never 0) and look
// only at the low byte, independent of the locale.
#include "base/api.h"
#include "kep_text.h"

namespace {

inline unsigned lowByte(int c) {
    return static_cast<unsigned>(c) & 0xFFu;
}
inline bool inRange(unsigned b, char lo, char hi) {
    return b >= static_cast<unsigned>(lo) && b <= static_cast<unsigned>(hi);
}
inline int answer(bool yes) {
    return yes ? 1 : -1;
}

}  // namespace

KEP_API int isNum(int c) {
    return answer(inRange(lowByte(c), '0', '9'));
}

KEP_API int isLowercase(int c) {
    return answer(inRange(lowByte(c), 'a', 'z'));
}

KEP_API int isCapital(int c) {
    return answer(inRange(lowByte(c), 'A', 'Z'));
}

// Bytes 128 to 255 are never letters or digits, so the low-byte tests cover them.
KEP_API int isNormalChar(int c) {
    return answer(isNum(c) == 1 || isLowercase(c) == 1 || isCapital(c) == 1);
}

KEP_API int isHexChar(int c) {
    unsigned b = lowByte(c);
    return answer(inRange(b, '0', '9') || inRange(b, 'A', 'F') || inRange(b, 'a', 'f'));
}
