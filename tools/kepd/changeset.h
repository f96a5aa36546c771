/*
 * Change sets: a list of write requests applied as a unit. Before the first write the
 * host reads what the requests name (each section they name, each table they change as
 * a whole) and keeps it in a record on persistent storage; when a request answers a
 * nonzero "error_code" it puts every module it touched back from that record, through
 * the owners, and answers which request failed and how each module's restore went.
 *
 * A change set with a confirm window stays pending after it applied: it is undone
 * when the window ends without a confirm from the user that applied it, or on a cancel.
 * A host stopped while a change set is applied or pending (killed, or the power cut)
 * finds the record at its next start and undoes the change set as soon as its owners
 * serve again.
 *
 * From the moment a change set starts until it is confirmed or undone, every other
 * write to the modules it names, another change set and a factory reset are refused
 * with KEP_HOST_ERR_PENDING; reads go on. One change set at a time.
 *
 * Threads: the entry points run on the RPC's serving threads, changesetTick on the
 * main thread; the state is guarded by one lock, never held across an owner call.
 */
#ifndef KEPD_CHANGESET_H
#define KEPD_CHANGESET_H

#include "kep_pf_rpc.h"

enum {
    CHANGESET_MAX_REQUESTS = 256, /* requests in one change set */
    CHANGESET_MAX_CONFIRM = 3600  /* the longest confirm window, in seconds */
};

/* The folder of the record (persistent storage, beside the configuration files); NULL:
 * the folder of the first module's configuration file. A record left by a host that
 * stopped is read here and its undo started. 0, or -1 after saying why. */
int changesetInit(const char *dir);

/* kepd.apply: text is one request object or an array of them; confirmSeconds 0 for
 * none. user: whom a relaying caller says it is for (NULL for none). *answer: the
 * answer's JSON text, malloc'd, always with "error_code". */
void changesetApply(const QxImiCaller *caller, const char *user, const char *text, int confirmSeconds,
                    char **answer);
/* kepd.confirm and kepd.cancel, by the user that applied the change set (root may cancel
 * any); the same answers. */
void changesetConfirm(const QxImiCaller *caller, const char *user, char **answer);
void changesetCancel(const QxImiCaller *caller, const char *user, char **answer);
/* kepd.pending: {"error_code": 0} and, while there is one, "pending": what and whose. */
void changesetPending(char **answer);

/* Around every request and factory reset (request NULL) the host serves: NULL, and the
 * request runs and changesetLeave follows it; or the malloc'd refusal
 * (KEP_HOST_ERR_PENDING) of a write to a module of a change set that is not finished (of
 * any reset while one is not), and nothing runs. A request checked here ends before a
 * change set that starts later reads anything. One uncontended read lock and one atomic
 * load while no change set lives. */
char *changesetEnter(const char *request);
void changesetLeave(void);

/* Whether a change set lives (applied, pending, undone, or a stopped host's). */
int changesetLives(void);

/* Main thread: undoes a change set whose window ended, and a stopped host's once its
 * owners serve. The milliseconds until it wants to run again, or -1. */
int changesetTick(void);

#endif
