/*
 * Text helpers for configuration strings. They work on caller buffers and allocate
 * nothing. Sizes count every byte of the output, the terminating zero included.
 * The character tests return 1 or -1 (never 0).
 */
#ifndef KEP_TEXT_H
#define KEP_TEXT_H

#ifdef __cplusplus
extern "C" {
#endif

int isNum(int c);
int isLowercase(int c);
int isCapital(int c);
int isNormalChar(int c);
int isHexChar(int c);

/* Percent-encodes every byte that is not an ASCII letter or digit; 0 or -1. */
int modelEncodeSC(const char *src, unsigned int length, char *out, unsigned int size);
/* Percent-encodes only the double quote, single quote and percent sign; 0 or -1. */
int modelEncodeSCWlan(const char *src, unsigned int length, char *out, unsigned int size);
/* Decodes %XX sequences in place; -1 for a null text. */
int modelDecodeSC(char *text);
/* Writes each line feed as "<br />"; 0 or -1. */
int modelEncodeOtherLine(const char *src, unsigned int length, char *out, unsigned int size);
/* Cuts text to at most max bytes without splitting a UTF-8 character; returns the new length. */
unsigned int utf8Truncate(char *text, unsigned int max);

#ifdef __cplusplus
}
#endif

#endif
