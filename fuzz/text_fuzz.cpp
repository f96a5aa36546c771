// Runs every text helper on arbitrary bytes. Sources and outputs live in heap
// buffers of exactly the given size, so AddressSanitizer reports any byte read or
// written past it. Input: two bytes that pick the output size and the cut, then the
// source bytes.
#include <ctype.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "kep_text.h"

namespace {

void check(bool ok) {
    if (!ok) __builtin_trap();
}

// An exact-size heap copy; with terminator, one byte more.
char *copyOf(const uint8_t *src, size_t n, bool terminate) {
    char *p = static_cast<char *>(malloc(n + (terminate ? 1 : 0)));
    if (!p) abort();
    if (n) memcpy(p, src, n);
    if (terminate) p[n] = '\0';
    return p;
}

// Decodes a copy of an encoder's output and compares it with the source up to its
// first zero byte (an encoded zero byte ends the decoded text).
void checkRoundTrip(const char *encoded, const char *src, size_t n) {
    size_t len = strlen(encoded);
    char *text = copyOf(reinterpret_cast<const uint8_t *>(encoded), len, true);
    check(modelDecodeSC(text) == 0);
    size_t srcLen = strnlen(src, n);
    check(strlen(text) == srcLen && memcmp(text, src, srcLen) == 0);
    free(text);
}

void checkClasses(int c) {
    unsigned char b = static_cast<unsigned char>(c);
    // In the C locale the ctype tests are the reference.
    check(isNum(c) == (isdigit(b) ? 1 : -1));
    check(isLowercase(c) == (islower(b) ? 1 : -1));
    check(isCapital(c) == (isupper(b) ? 1 : -1));
    check(isNormalChar(c) == (isalnum(b) ? 1 : -1));
    check(isHexChar(c) == (isxdigit(b) ? 1 : -1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    unsigned pick = data[0] | data[1] << 8;
    const uint8_t *raw = data + 2;
    size_t n = size - 2;
    unsigned outSize = pick % static_cast<unsigned>(3 * n + 8);
    unsigned max = pick % static_cast<unsigned>(n + 2);

    char *src = copyOf(raw, n, false);
    char *out = static_cast<char *>(malloc(outSize));
    if (!out && outSize) abort();
    if (out) {
        // Succeeds exactly when the whole encoding and its terminator fit.
        size_t need = 0;
        for (size_t i = 0; i < n; i++) need += isalnum(raw[i]) ? 1 : 3;
        int rc = modelEncodeSC(src, static_cast<unsigned>(n), out, outSize);
        check(rc == (need < outSize ? 0 : -1));
        if (rc == 0) checkRoundTrip(out, src, n);

        rc = modelEncodeSCWlan(src, static_cast<unsigned>(n), out, outSize);
        check(rc == 0 || rc == -1);
        if (rc == 0) check(memchr(out, '\0', outSize) != nullptr && n < outSize);
        if (outSize > 3 * n) {
            check(rc == 0);
            checkRoundTrip(out, src, n);
        }

        check(modelEncodeOtherLine(src, static_cast<unsigned>(n), out, outSize) == 0);
        free(out);
    }

    char *text = copyOf(raw, n, true);
    size_t before = strlen(text);
    check(modelDecodeSC(text) == 0);
    check(strlen(text) <= before);
    free(text);

    text = copyOf(raw, n, true);
    before = strlen(text);
    unsigned cut = utf8Truncate(text, max);
    check(cut == strlen(text));
    check(before <= max ? cut == before && memcmp(text, raw, before) == 0 : cut <= max);
    free(text);

    for (size_t i = 0; i < n && i < 64; i++) {
        checkClasses(raw[i]);
        checkClasses(static_cast<signed char>(raw[i]));
        checkClasses(raw[i] + 256 * (static_cast<int>(i) - 32));
    }
    free(src);
    return 0;
}
