/* Checks for the plain C tests: a failed check prints where and what, and the
 * program's exit status counts the failures. */
#ifndef KEP_API_CHECK_H
#define KEP_API_CHECK_H

#include <stdio.h>
#include <string.h>

static int checkFailures;

#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: CHECK(%s) failed\n", __FILE__, __LINE__, #cond); \
            checkFailures++;                                                         \
        }                                                                            \
    } while (0)

#define CHECK_INT(got, want)                                                                    \
    do {                                                                                        \
        long long g_ = (long long)(got), w_ = (long long)(want);                                \
        if (g_ != w_) {                                                                         \
            fprintf(stderr, "%s:%d: %s is %lld, not %lld\n", __FILE__, __LINE__, #got, g_, w_); \
            checkFailures++;                                                                    \
        }                                                                                       \
    } while (0)

/* got null passes only for want null. */
#define CHECK_STR(got, want)                                                               \
    do {                                                                                   \
        const char *g_ = (got), *w_ = (want);                                              \
        if (g_ != w_ && (!g_ || !w_ || strcmp(g_, w_) != 0)) {                             \
            fprintf(stderr, "%s:%d: %s is \"%s\", not \"%s\"\n", __FILE__, __LINE__, #got, \
                    g_ ? g_ : "(null)", w_ ? w_ : "(null)");                               \
            checkFailures++;                                                               \
        }                                                                                  \
    } while (0)

/* The summary line ctest shows, and the exit status. */
static int checkSummary(const char *name) {
    printf("%s: %s\n", name, checkFailures ? "FAILED" : "ok");
    return checkFailures ? 1 : 0;
}

#endif
