/*
 * What the host daemon's files share: its limits and its log.
 *
 * Threading model: requests are served by the RPC's background threads, several at
 * once (-t). A request read-locks the modules it names; a registration write-locks
 * the one module it changes, so requests for other modules never wait for it. The
 * main thread handles signals, notices owners that are gone and ends change sets whose
 * confirm window passed; one more thread runs the notifications owners ask for, so
 * that a slow listener holds up neither; a change set runs on a thread of its own.
 */
#ifndef KEPD_H
#define KEPD_H

#include "kep_pf_rpc.h"

/* Defaults of the limits that flags change. */
enum {
    KEPD_DEFAULT_THREADS = 16,       /* requests served at once: a hung owner holds one per caller */
    KEPD_DEFAULT_REGISTRATIONS = 256 /* per owner process: slots, list entries, actions */
};

/* Fixed limits. */
enum {
    KEPD_MAX_OWNERS = 256,      /* processes holding registrations at once */
    KEPD_MAX_NOTIFICATIONS = 64 /* notifications waiting to be run */
};

/* One line, prefixed "kepd: ", on standard error or to syslog (service.h). Thread-safe. */
void kepdLog(const char *format, ...) __attribute__((format(printf, 1, 2)));

#endif
