// Text helpers: encodings, decoding and UTF-8 truncation, checked at the exact
// buffer boundaries with guard bytes after the given size.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "kep_text.h"
#include "log_capture.h"

using Messages = std::vector<std::string>;

namespace {

constexpr char kGuard = '\x5A';
constexpr size_t kGuardLen = 16;

using Encoder = int (*)(const char *, unsigned, char *, unsigned);

// Runs an encoder into a buffer of exactly size bytes followed by guard bytes and
// fails the test if anything past size was touched.
struct Encoded {
    int rc;
    std::string out;  // the bytes up to the terminator, or all size bytes when unterminated
    bool terminated;
};

Encoded encode(Encoder fn, const std::string &src, unsigned size) {
    std::vector<char> buf(size + kGuardLen, kGuard);
    int rc = fn(src.data(), static_cast<unsigned>(src.size()), buf.data(), size);
    for (size_t i = size; i < buf.size(); i++) {
        EXPECT_EQ(buf[i], kGuard) << "byte " << i << " written past size " << size;
    }
    const void *nul = memchr(buf.data(), '\0', size);
    size_t len = nul ? static_cast<const char *>(nul) - buf.data() : size;
    return {rc, std::string(buf.data(), len), nul != nullptr};
}

std::string decode(std::string text) {
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    EXPECT_EQ(modelDecodeSC(buf.data()), 0);
    return std::string(buf.data());
}

class Text : public ::testing::Test {
protected:
    kep_test::LogCapture log;
};

TEST_F(Text, CharacterClassesAnswerOneOrMinusOne) {
    for (int c = -300; c < 600; c++) {
        unsigned b = static_cast<unsigned>(c) & 0xFF;
        bool digit = b >= '0' && b <= '9', lower = b >= 'a' && b <= 'z', upper = b >= 'A' && b <= 'Z';
        bool hex = digit || (b >= 'a' && b <= 'f') || (b >= 'A' && b <= 'F');
        ASSERT_EQ(isNum(c), digit ? 1 : -1) << c;
        ASSERT_EQ(isLowercase(c), lower ? 1 : -1) << c;
        ASSERT_EQ(isCapital(c), upper ? 1 : -1) << c;
        ASSERT_EQ(isNormalChar(c), digit || lower || upper ? 1 : -1) << c;
        ASSERT_EQ(isHexChar(c), hex ? 1 : -1) << c;
    }
}

TEST_F(Text, PercentEncodingOfAllButLettersAndDigits) {
    EXPECT_EQ(encode(modelEncodeSC, "a b", 6).out, "a%20b");
    EXPECT_EQ(encode(modelEncodeSC, "\xc3\xa9", 7).out, "%C3%A9");
    EXPECT_EQ(encode(modelEncodeSC, std::string("x\0y", 3), 16).out, "x%00y");
    EXPECT_EQ(encode(modelEncodeSC, "Az09-_.~%", 64).out, "Az09%2D%5F%2E%7E%25");
    EXPECT_EQ(encode(modelEncodeSC, "", 1).out, "");
    EXPECT_TRUE(log.messages().empty());

    // An escape needs a size greater than w + 3; a letter only w below the size, but
    // the terminator must fit as well.
    Encoded e = encode(modelEncodeSC, "a b", 4);
    EXPECT_EQ(e.rc, -1);
    EXPECT_EQ(log.messages(), (Messages{"output string don't have enough space!\n\r\n"}));
    EXPECT_EQ(encode(modelEncodeSC, "a ", 5).out, "a%20");
    EXPECT_EQ(encode(modelEncodeSC, "ab", 3).out, "ab");
    EXPECT_EQ(encode(modelEncodeSC, "ab", 2).rc, -1);
    EXPECT_EQ(encode(modelEncodeSC, "ab", 1).rc, -1);
    EXPECT_EQ(encode(modelEncodeSC, "", 0).rc, -1);
    EXPECT_EQ(encode(modelEncodeSC, " ", 3).rc, -1);

    char out[4];
    EXPECT_EQ(modelEncodeSC(nullptr, 0, out, sizeof out), -1);
    EXPECT_EQ(modelEncodeSC("a", 1, nullptr, 4), -1);
}

TEST_F(Text, WirelessEncodingEscapesOnlyQuotingCharacters) {
    EXPECT_EQ(encode(modelEncodeSCWlan, "%", 4).out, "%25");
    EXPECT_EQ(encode(modelEncodeSCWlan, "a\"b'c%d", 32).out, "a%22b%27c%25d");
    EXPECT_EQ(encode(modelEncodeSCWlan, "ok <\xe4> &;", 32).out, "ok <\xe4> &;");
    // The escape does not fit, the byte does: copied unchanged.
    EXPECT_EQ(encode(modelEncodeSCWlan, "\"", 3).out, "\"");
    EXPECT_EQ(encode(modelEncodeSCWlan, "a'", 4).out, "a'");
    EXPECT_TRUE(log.messages().empty());

    EXPECT_EQ(encode(modelEncodeSCWlan, "abc", 3).rc, -1);
    EXPECT_EQ(encode(modelEncodeSCWlan, "\"", 1).rc, -1);
    EXPECT_EQ(log.messages(), (Messages(2, "output string don't have enough space!\r\n\r\n")));
    EXPECT_EQ(encode(modelEncodeSCWlan, "abcd", 3).rc, -1);
    EXPECT_EQ(modelEncodeSCWlan(nullptr, 0, nullptr, 0), -1);
}

TEST_F(Text, DecodingInPlace) {
    EXPECT_EQ(decode("%41%4a"), "AJ");
    EXPECT_EQ(decode("%4"), "%4");
    EXPECT_EQ(decode("%4g"), "%4g");
    EXPECT_EQ(decode("%zz"), "%zz");
    EXPECT_EQ(decode("%%41"), "%A");
    EXPECT_EQ(decode("100%"), "100%");
    EXPECT_EQ(decode("%C3%a9!"), "\xc3\xa9!");
    EXPECT_EQ(decode(""), "");
    EXPECT_EQ(modelDecodeSC(nullptr), -1);

    char text[] = "%00ab";
    EXPECT_EQ(modelDecodeSC(text), 0);
    EXPECT_EQ(memcmp(text, "\0ab\0", 4), 0) << "decoding goes on after a zero byte";
}

TEST_F(Text, EncodeThenDecodeGivesTheSourceBack) {
    std::string all;
    for (int c = 1; c < 256; c++) all += static_cast<char>(c);
    Encoded e = encode(modelEncodeSC, all, 3 * 256);
    ASSERT_EQ(e.rc, 0);
    EXPECT_EQ(decode(e.out), all);
    e = encode(modelEncodeSCWlan, all, 3 * 256);
    ASSERT_EQ(e.rc, 0);
    EXPECT_EQ(decode(e.out), all);
}

TEST_F(Text, LineBreaksBecomeHtmlBreaks) {
    EXPECT_EQ(encode(modelEncodeOtherLine, "a\nb", 64).out, "a<br />b");
    EXPECT_EQ(encode(modelEncodeOtherLine, "\n\n", 13).out, "<br /><br />");
    // The break does not fit: the line feed is copied as it is.
    EXPECT_EQ(encode(modelEncodeOtherLine, "a\nb", 4).out, "a\nb");
    EXPECT_EQ(encode(modelEncodeOtherLine, "\n", 6).out, "<br />");

    // Output that runs out is cut and left unterminated; the result is still 0.
    Encoded e = encode(modelEncodeOtherLine, "a\nbcd", 3);
    EXPECT_EQ(e.rc, 0);
    EXPECT_FALSE(e.terminated);
    EXPECT_EQ(e.out, "a\nb");
    e = encode(modelEncodeOtherLine, "a\n", 7);
    EXPECT_EQ(e.rc, 0);
    EXPECT_FALSE(e.terminated);
    EXPECT_EQ(e.out, "a<br />");
    EXPECT_EQ(encode(modelEncodeOtherLine, "", 0).rc, 0);
    EXPECT_EQ(modelEncodeOtherLine("a", 1, nullptr, 1), -1);
    EXPECT_TRUE(log.messages().empty());
}

// The text as it is after utf8Truncate, with the result.
std::pair<unsigned, std::string> cut(const std::string &text, unsigned max) {
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    unsigned n = utf8Truncate(buf.data(), max);
    return {n, std::string(buf.data())};
}

TEST_F(Text, Utf8TruncateNeverSplitsACharacter) {
    const std::string ab_e = "ab\xc3\xa9";
    EXPECT_EQ(cut(ab_e, 3), std::make_pair(2u, std::string("ab")));
    EXPECT_EQ(cut(ab_e, 2), std::make_pair(2u, std::string("ab")));
    EXPECT_EQ(cut(ab_e, 4), std::make_pair(4u, ab_e));
    EXPECT_EQ(cut(ab_e, 100), std::make_pair(4u, ab_e));
    EXPECT_EQ(cut("abc", 0), std::make_pair(0u, std::string()));
    const std::string smile = "x\xf0\x9f\x98\x80y";
    for (unsigned max = 1; max <= 4; max++)
        EXPECT_EQ(cut(smile, max), std::make_pair(1u, std::string("x"))) << max;
    EXPECT_EQ(cut(smile, 5), std::make_pair(5u, std::string("x\xf0\x9f\x98\x80")));
    EXPECT_EQ(utf8Truncate(nullptr, 3), 0u);
}

TEST_F(Text, Utf8TruncateLogsItsWalk) {
    cut("ab\xc3\xa9", 3);
    EXPECT_EQ(log.messages(), (Messages{"Max bytes 3\r\n\r\n", "char A9\r\n\r\n", "char C3\r\n\r\n",
                                        "freeBytes 1, truncate C3, len 2\r\n\r\n"}));
    EXPECT_NE(log.lines()[0].find(":<kepHandle/utf8Truncate()/"), std::string::npos) << log.lines()[0];
    log.clear();
    cut("ab", 5);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(Text, Utf8TruncateOfInvalidSequencesCutsAtMax) {
    // Six continuation bytes in a row: no lead byte is looked for further back.
    const std::string six = "a\xc3" + std::string(6, '\x80') + "z";
    EXPECT_EQ(cut(six, 7), std::make_pair(7u, six.substr(0, 7)));
    EXPECT_TRUE(log.contains("Len 7\r\n"));
    // Five are still walked over, the lead byte goes with them.
    const std::string five = "a\xc3" + std::string(5, '\x80') + "z";
    EXPECT_EQ(cut(five, 6), std::make_pair(1u, std::string("a")));

    log.clear();
    EXPECT_EQ(cut("ab\xfe\x80\x80", 4), std::make_pair(4u, std::string("ab\xfe\x80")));
    EXPECT_EQ(log.messages(), (Messages{"Max bytes 4\r\n\r\n", "char 80\r\n\r\n", "char 80\r\n\r\n",
                                        "char FE\r\n\r\n", "Invalid code FE\r\n\r\n", "Len 4\r\n\r\n"}));
    EXPECT_EQ(cut("ab\xff", 2), std::make_pair(2u, std::string("ab")));
    EXPECT_EQ(cut("\xff"
                  "ab",
                  0),
              std::make_pair(0u, std::string()));

    // No lead byte before the start of the text: cut at max as well.
    EXPECT_EQ(cut("\x80\x80\x80z", 2), std::make_pair(2u, std::string("\x80\x80")));
    EXPECT_EQ(cut("\x80z", 0), std::make_pair(0u, std::string()));
}

}  // namespace
