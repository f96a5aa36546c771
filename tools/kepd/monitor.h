/*
 * Watchers of the host's traffic (kepctl monitor): one line per request served.
 * Nothing is built while nobody watches; a watcher that reads too slowly loses lines
 * (counted, and the count shown on the next line it gets), never the host's time.
 */
#ifndef KEPD_MONITOR_H
#define KEPD_MONITOR_H

#include "kep_pf_rpc.h"

enum {
    MONITOR_MAX_WATCHERS = 8,
    KEP_MONITOR_USER_MAX = 64 /* a relayed user's name is shown up to here */
};

/* Connects to the caller's own listening socket at path (it must be the caller's by
 * its kernel credentials) and sends it a line per request from now on, of the listed
 * modules only (comma-separated; NULL or "" for all), with the texts when verbose.
 * 0, or the code to answer. */
int monitorWatch(const QxImiCaller *caller, const char *path, const char *modules, int verbose);

/* Whether anybody watches: the one cost of a request while nobody does. */
int monitorActive(void);

/* Tells the watchers of one request served for caller in micros microseconds; user:
 * whom a relaying caller says it is for, or NULL. */
void monitorRequest(const QxImiCaller *caller, const char *user, const char *request, const char *response,
                    long micros);

#endif
