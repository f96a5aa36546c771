// Percent-encoding, line-break encoding and in-place decoding of configuration
// strings. All write into caller buffers and never past the given size; w counts the
// bytes written so far and never exceeds size, so "size - w" cannot wrap.
#include "base/api.h"
#include "base/log.h"
#include "kep_text.h"

namespace {

const char kHexDigits[] = "0123456789ABCDEF";

// "%XX" needs three bytes and still leaves room for the terminator.
inline bool escapeFits(unsigned w, unsigned size) {
    return size - w > 3;
}

inline void putEscape(char *out, unsigned &w, unsigned char b) {
    out[w++] = '%';
    out[w++] = kHexDigits[b >> 4];
    out[w++] = kHexDigits[b & 0x0F];
}

inline int hexValue(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return c - 'A' + 10;
}

}  // namespace

// A source that fills the output exactly leaves no room for the terminator; that
// fails like any other overflow rather than handing back an unterminated text.
KEP_API int modelEncodeSC(const char *src, unsigned int length, char *out, unsigned int size) {
    if (!src || !out) return -1;
    unsigned w = 0;
    for (unsigned r = 0; r < length; r++) {
        unsigned char b = static_cast<unsigned char>(src[r]);
        if (isNormalChar(b) == 1 && w < size) {
            out[w++] = static_cast<char>(b);
        } else if (escapeFits(w, size)) {
            putEscape(out, w, b);
        } else {
            KEP_LOG("output string don't have enough space!\n");
            return -1;
        }
    }
    if (w >= size) {
        KEP_LOG("output string don't have enough space!\n");
        return -1;
    }
    out[w] = '\0';
    return 0;
}

KEP_API int modelEncodeSCWlan(const char *src, unsigned int length, char *out, unsigned int size) {
    if (!src || !out) return -1;
    unsigned w = 0;
    for (unsigned r = 0; r < length; r++) {
        unsigned char b = static_cast<unsigned char>(src[r]);
        bool quoting = b == '"' || b == '\'' || b == '%';
        if (quoting && escapeFits(w, size)) {
            putEscape(out, w, b);
        } else if (w < size) {
            out[w++] = static_cast<char>(b);
        } else {
            KEP_LOG("output string don't have enough space!\r\n");
            return -1;
        }
    }
    if (w >= size) {
        KEP_LOG("output string don't have enough space!\r\n");
        return -1;
    }
    out[w] = '\0';
    return 0;
}

KEP_API int modelDecodeSC(char *text) {
    if (!text) return -1;
    unsigned r = 0;
    unsigned w = 0;
    // Each step reads text[r + 2] only after text[r + 1] proved to be a digit, so
    // the terminator is never passed.
    while (text[r] != '\0') {
        unsigned char c = static_cast<unsigned char>(text[r]);
        if (c == '%' && isHexChar(text[r + 1]) == 1) {
            unsigned char hi = static_cast<unsigned char>(text[r + 1]);
            unsigned char lo = static_cast<unsigned char>(text[r + 2]);
            if (isHexChar(lo) == 1) {
                text[w++] = static_cast<char>(hexValue(hi) << 4 | hexValue(lo));
                r += 3;
            } else {
                text[w++] = '%';
                text[w++] = static_cast<char>(hi);
                r += 2;
            }
        } else {
            text[w++] = static_cast<char>(c);
            r++;
        }
    }
    text[w] = '\0';
    return 0;
}

// Output that does not fit is cut short and left unterminated, whether it runs out
// part-way or exactly at the end: callers size the buffer for the worst case.
KEP_API int modelEncodeOtherLine(const char *src, unsigned int length, char *out, unsigned int size) {
    static const char kBreak[] = "<br />";
    constexpr unsigned kBreakLen = sizeof kBreak - 1;
    if (!src || !out) return -1;
    unsigned w = 0;
    for (unsigned r = 0; r < length; r++) {
        char b = src[r];
        if (b == '\n' && size - w >= kBreakLen) {
            for (unsigned i = 0; i < kBreakLen; i++) out[w++] = kBreak[i];
        } else if (w < size) {
            out[w++] = b;
        } else {
            return 0;
        }
    }
    if (w < size) out[w] = '\0';
    return 0;
}
