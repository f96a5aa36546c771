// Cutting UTF-8 text at a byte limit without splitting a character.
#include <string.h>

#include "base/api.h"
#include "base/log.h"
#include "kep_text.h"

namespace {

constexpr int kMaxContinuation = 6;

inline bool isContinuation(unsigned char b) {
    return (b & 0xC0) == 0x80;
}

}  // namespace

// The cut does not check what a lead byte announces: a lead byte followed by more
// continuation bytes than it needs goes together with them. A run of continuation
// bytes that reaches the start of the text has no lead byte at all; it is treated
// like any other invalid sequence and the text is cut at max.
KEP_API unsigned int utf8Truncate(char *text, unsigned int max) {
    if (!text) return 0;
    size_t len = strlen(text);
    if (len <= max) return static_cast<unsigned>(len);

    KEP_LOG("Max bytes %d\r\n", static_cast<int>(max));
    unsigned p = max;
    int passed = 0;
    bool valid = false;
    for (;;) {
        unsigned char b = static_cast<unsigned char>(text[p]);
        KEP_LOG("char %X\r\n", static_cast<unsigned>(b));
        if (!isContinuation(b)) {
            if (b == 0xFE || b == 0xFF) {
                KEP_LOG("Invalid code %X\r\n", static_cast<unsigned>(b));
            } else {
                KEP_LOG("freeBytes %d, truncate %X, len %d\r\n", passed, static_cast<unsigned>(b),
                        static_cast<int>(p));
                valid = true;
            }
            break;
        }
        if (++passed == kMaxContinuation || p == 0) break;
        p--;
    }
    if (!valid) {
        KEP_LOG("Len %d\r\n", static_cast<int>(max));
        p = max;
    }
    text[p] = '\0';
    return p;
}
