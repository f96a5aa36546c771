/*
 * Platform debug log. Lines are written only for module ids whose debug flag is on.
 *
 * The stand-in switches flags on from the environment variable KEP_DEBUG: "all", or
 * a comma-separated list of module ids (e.g. "110,111"). KEP_DEBUG_SYSLOG=1 sends
 * the lines to syslog instead of standard error. Module ids: 110 the library's JSON
 * helpers, 111 the rest of the library, 112 the stand-in's RPC, 113 the stand-in's
 * JSON files (a file that cannot be read kept aside, settings refused).
 */
#ifndef KEP_PF_DEBUG_H
#define KEP_PF_DEBUG_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KEP_PF_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define KEP_PF_PRINTF(f, a)
#endif

/* 1 when debug output is on for module id mid, else 0. */
int debugFlagGet(int mid);
void debugPrintf(int mid, const char *format, ...) KEP_PF_PRINTF(2, 3);
const char *midNameGet(int mid);
const char *pidNameGet(int pid);
int pidGetCurrent(void);

/* Stand-in controls, for tools and tests. mid -1 switches every module. */
void debugFlagSet(int mid, int on);
/* Receives every formatted line instead of standard error/syslog; NULL restores them. */
typedef void (*DebugSink)(int mid, const char *line, void *user);
void debugSetSink(DebugSink sink, void *user);

#ifdef __cplusplus
}
#endif

#endif
