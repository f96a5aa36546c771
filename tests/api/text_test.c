/* Text helpers: encodings, decoding and UTF-8 truncation, checked at the exact buffer
 * boundaries with guard bytes after the given size. */
#include <kep_text.h>

#include "check.h"

#define GUARD '\x5A'
#define GUARD_LEN 16

typedef int (*Encoder)(const char *, unsigned, char *, unsigned);

/* What an encoder left in a buffer of exactly size bytes: the result, the bytes up to
 * the terminator (all size bytes when unterminated) and whether there was one. */
struct Encoded {
    int rc;
    char out[1024];
    int terminated;
};

/* Runs fn over the len bytes of src; fails the check if anything past size was touched. */
static struct Encoded encodeN(Encoder fn, const char *src, unsigned len, unsigned size) {
    static char buf[1024 + GUARD_LEN];
    struct Encoded e;
    const char *nul;
    size_t i, n;
    memset(buf, GUARD, sizeof buf);
    e.rc = fn(src, len, buf, size);
    for (i = size; i < size + GUARD_LEN; i++) {
        if (buf[i] != GUARD) {
            fprintf(stderr, "byte %u written past size %u\n", (unsigned)i, size);
            checkFailures++;
        }
    }
    nul = memchr(buf, '\0', size);
    n = nul ? (size_t)(nul - buf) : size;
    memcpy(e.out, buf, n);
    e.out[n] = '\0';
    e.terminated = nul != NULL;
    return e;
}

static struct Encoded encode(Encoder fn, const char *src, unsigned size) {
    return encodeN(fn, src, (unsigned)strlen(src), size);
}

static const char *decode(const char *text) {
    static char buf[1024];
    strcpy(buf, text);
    CHECK_INT(modelDecodeSC(buf), 0);
    return buf;
}

/* utf8Truncate over a copy of text; the text as it is after, *len the result. */
static const char *cut(const char *text, unsigned max, unsigned *len) {
    static char buf[64];
    strcpy(buf, text);
    *len = utf8Truncate(buf, max);
    return buf;
}

#define CHECK_CUT(text, max, wantLen, wantText)   \
    do {                                          \
        unsigned n_;                              \
        CHECK_STR(cut(text, max, &n_), wantText); \
        CHECK_INT(n_, wantLen);                   \
    } while (0)

static void characterClassesAnswerOneOrMinusOne(void) {
    int c;
    for (c = -300; c < 600; c++) {
        unsigned b = (unsigned)c & 0xFF;
        int digit = b >= '0' && b <= '9', lower = b >= 'a' && b <= 'z', upper = b >= 'A' && b <= 'Z';
        int hex = digit || (b >= 'a' && b <= 'f') || (b >= 'A' && b <= 'F');
        CHECK_INT(isNum(c), digit ? 1 : -1);
        CHECK_INT(isLowercase(c), lower ? 1 : -1);
        CHECK_INT(isCapital(c), upper ? 1 : -1);
        CHECK_INT(isNormalChar(c), digit || lower || upper ? 1 : -1);
        CHECK_INT(isHexChar(c), hex ? 1 : -1);
    }
}

static void percentEncodingOfAllButLettersAndDigits(void) {
    char out[4];
    CHECK_STR(encode(modelEncodeSC, "a b", 6).out, "a%20b");
    CHECK_STR(encode(modelEncodeSC, "\xc3\xa9", 7).out, "%C3%A9");
    CHECK_STR(encodeN(modelEncodeSC, "x\0y", 3, 16).out, "x%00y");
    CHECK_STR(encode(modelEncodeSC, "Az09-_.~%", 64).out, "Az09%2D%5F%2E%7E%25");
    CHECK_STR(encode(modelEncodeSC, "", 1).out, "");
    /* An escape needs a size greater than w + 3; a letter only w below the size, but
     * the terminator must fit as well. */
    CHECK_INT(encode(modelEncodeSC, "a b", 4).rc, -1);
    CHECK_STR(encode(modelEncodeSC, "a ", 5).out, "a%20");
    CHECK_STR(encode(modelEncodeSC, "ab", 3).out, "ab");
    CHECK_INT(encode(modelEncodeSC, "ab", 2).rc, -1);
    CHECK_INT(encode(modelEncodeSC, "ab", 1).rc, -1);
    CHECK_INT(encode(modelEncodeSC, "", 0).rc, -1);
    CHECK_INT(encode(modelEncodeSC, " ", 3).rc, -1);
    CHECK_INT(modelEncodeSC(NULL, 0, out, sizeof out), -1);
    CHECK_INT(modelEncodeSC("a", 1, NULL, 4), -1);
}

static void wirelessEncodingEscapesOnlyQuotingCharacters(void) {
    CHECK_STR(encode(modelEncodeSCWlan, "%", 4).out, "%25");
    CHECK_STR(encode(modelEncodeSCWlan, "a\"b'c%d", 32).out, "a%22b%27c%25d");
    CHECK_STR(encodeN(modelEncodeSCWlan, "ab\"", 2, 16).out, "ab"); /* the length bounds it */
    CHECK_STR(encode(modelEncodeSCWlan, "ok <\xe4> &;", 32).out, "ok <\xe4> &;");
    /* The escape does not fit, the byte does: copied unchanged. */
    CHECK_STR(encode(modelEncodeSCWlan, "\"", 3).out, "\"");
    CHECK_STR(encode(modelEncodeSCWlan, "a'", 4).out, "a'");
    CHECK_INT(encode(modelEncodeSCWlan, "abc", 3).rc, -1);
    CHECK_INT(encode(modelEncodeSCWlan, "\"", 1).rc, -1);
    CHECK_INT(encode(modelEncodeSCWlan, "abcd", 3).rc, -1);
    char out[8];
    CHECK_INT(modelEncodeSCWlan(NULL, 0, out, sizeof out), -1);
    CHECK_INT(modelEncodeSCWlan("a", 1, NULL, 4), -1);
}

static void decodingInPlace(void) {
    char text[] = "%00ab";
    CHECK_STR(decode("%41%4a"), "AJ");
    CHECK_STR(decode("%4"), "%4");
    CHECK_STR(decode("%4g"), "%4g");
    CHECK_STR(decode("%zz"), "%zz");
    CHECK_STR(decode("%%41"), "%A");
    CHECK_STR(decode("100%"), "100%");
    CHECK_STR(decode("%C3%a9!"), "\xc3\xa9!");
    CHECK_STR(decode(""), "");
    CHECK_INT(modelDecodeSC(NULL), -1);
    CHECK_INT(modelDecodeSC(text), 0);
    CHECK(memcmp(text, "\0ab\0", 4) == 0); /* decoding goes on after a zero byte */
}

static void encodeThenDecodeGivesTheSourceBack(void) {
    char all[256];
    int c;
    struct Encoded e;
    for (c = 1; c < 256; c++) all[c - 1] = (char)c;
    all[255] = '\0';
    e = encode(modelEncodeSC, all, 3 * 256);
    CHECK_INT(e.rc, 0);
    CHECK_STR(decode(e.out), all);
    e = encode(modelEncodeSCWlan, all, 3 * 256);
    CHECK_INT(e.rc, 0);
    CHECK_STR(decode(e.out), all);
}

static void lineBreaksBecomeHtmlBreaks(void) {
    struct Encoded e;
    CHECK_STR(encode(modelEncodeOtherLine, "a\nb", 64).out, "a<br />b");
    CHECK_STR(encode(modelEncodeOtherLine, "\n\n", 13).out, "<br /><br />");
    /* The break does not fit: the line feed is copied as it is. */
    CHECK_STR(encode(modelEncodeOtherLine, "a\nb", 4).out, "a\nb");
    CHECK_STR(encode(modelEncodeOtherLine, "a\nb", 6).out, "a\nb"); /* five bytes left of six */
    CHECK_STR(encode(modelEncodeOtherLine, "\n", 6).out, "<br />");
    /* Output that runs out is cut and left unterminated; the result is still 0. */
    e = encode(modelEncodeOtherLine, "a\nbcd", 3);
    CHECK(e.rc == 0 && !e.terminated);
    CHECK_STR(e.out, "a\nb");
    e = encode(modelEncodeOtherLine, "a\n", 7);
    CHECK(e.rc == 0 && !e.terminated);
    CHECK_STR(e.out, "a<br />");
    CHECK_INT(encode(modelEncodeOtherLine, "", 0).rc, 0);
    CHECK_INT(modelEncodeOtherLine("a", 1, NULL, 1), -1);
}

static void utf8TruncateNeverSplitsACharacter(void) {
    unsigned max;
    CHECK_CUT("ab\xc3\xa9", 3, 2, "ab");
    CHECK_CUT("ab\xc3\xa9", 2, 2, "ab");
    CHECK_CUT("ab\xc3\xa9", 4, 4, "ab\xc3\xa9");
    CHECK_CUT("ab\xc3\xa9", 100, 4, "ab\xc3\xa9");
    CHECK_CUT("abc", 0, 0, "");
    for (max = 1; max <= 4; max++) CHECK_CUT("x\xf0\x9f\x98\x80y", max, 1, "x");
    CHECK_CUT("x\xf0\x9f\x98\x80y", 5, 5, "x\xf0\x9f\x98\x80");
    CHECK_INT(utf8Truncate(NULL, 3), 0);
}

static void utf8TruncateOfInvalidSequencesCutsAtMax(void) {
    /* Six continuation bytes in a row: no lead byte is looked for further back. */
    CHECK_CUT("a\xc3\x80\x80\x80\x80\x80\x80z", 7, 7, "a\xc3\x80\x80\x80\x80\x80");
    /* Five are still walked over, the lead byte goes with them. */
    CHECK_CUT("a\xc3\x80\x80\x80\x80\x80z", 6, 1, "a");
    CHECK_CUT("ab\xfe\x80\x80", 4, 4, "ab\xfe\x80");
    CHECK_CUT("ab\xff", 2, 2, "ab");
    CHECK_CUT(
        "\xff"
        "ab",
        0, 0, "");
    /* No lead byte before the start of the text: cut at max as well. */
    CHECK_CUT("\x80\x80\x80z", 2, 2, "\x80\x80");
    CHECK_CUT("\x80z", 0, 0, "");
}

int main(void) {
    characterClassesAnswerOneOrMinusOne();
    percentEncodingOfAllButLettersAndDigits();
    wirelessEncodingEscapesOnlyQuotingCharacters();
    decodingInPlace();
    encodeThenDecodeGivesTheSourceBack();
    lineBreaksBecomeHtmlBreaks();
    utf8TruncateNeverSplitsACharacter();
    utf8TruncateOfInvalidSequencesCutsAtMax();
    return checkSummary("text");
}
