/*
 * Talking to the host daemon (kepd): the process that holds the data module tree,
 * takes owners' registrations and serves clients' requests.
 *
 * kepd serves these RPC handlers (platform IMI, see kep_pf_rpc.h):
 *   "kepd.request"   in "para": request text     out "errorCode", "result": response text,
 *                    and "cause" when an owner call ended the request with a nonzero
 *                    "error_code": which module and table or section, the owner's pid and
 *                    callback, and its own code or the RPC's failure (a short text)
 *   "kepd.register"  in "op", "path", "cb", "index" (int)                 out "errorCode"
 *                    op: "method" (index 0..4), "verify", "notify", "action" (path "/module/action"),
 *                        "opr" (the table or section interface's owner), "reset" (cb resets
 *                        the owner's modules on a factory reset), "unregister" (all of the caller's)
 *                    The registering process is the caller, as the kernel reports it.
 *   "kepd.notify"    in "para": "/module/table/section"                    out "errorCode"
 *   "kepd.dump"      out "errorCode", "result": the tree dump, one line per entry
 *   "kepd.tree"      out "errorCode", "result": the tree with every registration (JSON)
 *   "kepd.reset"     out "errorCode": first failure of the owners' reset callbacks (its
 *                    owner's code or the RPC's), with "cause" naming that owner
 *   "kepd.ping"      out "errorCode" 0: the host is up
 *   "kepd.apply"     in "para": a change set (a request object, or an array of them), "confirm"
 *                    (int seconds, 0 or absent: none), "user" (as for "kepd.request")
 *                    out "errorCode", "result": the answer, always with "error_code":
 *                    applied: "responses" (each request's), and "pending" {"id", "expires",
 *                    "seconds"} with a confirm window; a request failed: "failed" (its
 *                    index), "response" (its response), "restored" {MODULE: "restored" or
 *                    why not}; refused before anything ran: "error" (why)
 *   "kepd.confirm"   in "user"   out "errorCode", "result": {"error_code", "confirmed": id}
 *   "kepd.cancel"    in "user"   out "errorCode", "result": {"error_code", "restored"}
 *   "kepd.pending"   out "errorCode", "result": {"error_code": 0, "pending": {"id", "state",
 *                    "uid", "pid", "user", "modules", "expires", "seconds_left"}} while
 *                    a change set lives
 *   "kepd.watch"     in "path" (a SOCK_SEQPACKET socket the caller itself listens on),
 *                    "modules" (comma-separated; absent for all), "verbose" (int)  out "errorCode"
 *                    The host connects to path and sends one packet per request served:
 *                    "HH:MM:SS.mmm pid P uid U METHOD MODULES error_code C D us", with the
 *                    request and response texts on two more lines when verbose
 * Its process id is in the pid file (KEPD_PIDFILE, default kepd.pid in the runtime
 * folder), which the host keeps locked while it runs.
 */
#ifndef KEP_HOST_H
#define KEP_HOST_H

#ifdef __cplusplus
extern "C" {
#endif

/* "errorCode" of a registration, notification or request the host refused. */
enum {
    KEP_HOST_ERR_DENIED = -30001,      /* no access rule lets the caller do it */
    KEP_HOST_ERR_TAKEN = -30002,       /* another running process serves that slot or action */
    KEP_HOST_ERR_LIMIT = -30003,       /* the caller holds as many registrations as it may */
    KEP_HOST_ERR_PENDING = -30004,     /* a change set on those modules waits for a confirm, or is being
                                          applied or undone */
    KEP_HOST_ERR_UNDOABLE = -30005,    /* the change set cannot be applied as one: it names what cannot be
                                          undone (an action, a dynamic table) or read first; or a module
                                          could not be put back */
    KEP_HOST_ERR_NO_CHANGESET = -30006 /* no change set waits for a confirm */
};

/* The state file, "kepd.state" beside the pid file: written by the host only, read by
 * clients (mapped) to see, without asking, which host runs, whether any registration
 * changed since they last looked, and whether anybody watches the host's traffic. */
#define KEP_HOST_STATE_FILE "kepd.state"
#define KEP_HOST_STATE_MAGIC "KEPSTAT2"
typedef struct KepHostState {
    char magic[8];
    unsigned int pid;        /* the running host; 0 when none */
    unsigned int generation; /* changes with every registration and every host start */
    unsigned int watchers;   /* monitors of the host's traffic (kepd.watch); one that has
                                gone counts until the next request the host serves */
    unsigned int changeset;  /* nonzero while a change set is applied, pending or undone:
                                its writes are the host's to refuse, so ask the host */
} KepHostState;

/* Path of the pid file, from KEPD_PIDFILE or the runtime folder. The text is static. */
const char *kepHostPidFile(void);
/* The running host's pid, or -1 when no host holds the pid file. */
int kepHostPid(void);
/* Hands a request to the host; *response: malloc'd response text. 0 or the RPC's code. */
int kepHostRequest(const char *request, char **response);
/* The same; *cause (when cause is not NULL) gets the host's "cause", malloc'd, or NULL
 * when it gave none: why an owner call made the request fail. */
int kepHostRequestEx(const char *request, char **response, char **cause);
/* The same, for a process that relays other people's requests (a gateway): user names
 * whom this one is for, as the relay has checked it. The host shows it beside the
 * caller's pid to whoever watches its traffic, and trusts it for nothing else. NULL or
 * "": nobody but the caller. */
int kepHostRequestFor(const char *user, const char *request, char **response);
/* Applies a change set ("kepd.apply"): changes is one request text or a JSON array of
 * them, confirmSeconds 0 for no confirm window, user as for kepHostRequestFor.
 * *answer: the host's answer text, malloc'd. 0, or the RPC's code. */
int kepHostApply(const char *user, const char *changes, int confirmSeconds, char **answer);
/* "kepd.confirm", "kepd.cancel" or "kepd.pending" for user (NULL: the caller alone);
 * *answer as for kepHostApply. */
int kepHostChangeset(const char *handler, const char *user, char **answer);
/* One registration for this process; 0 or the host's/RPC's nonzero code. */
int kepHostRegister(const char *op, const char *path, int index, const char *cb);
/* Asks the host to tell the section's notify callbacks that its data changed. */
int kepHostNotify(const char *path);
/* Calls a host handler without inputs and returns its "result" text, malloc'd, in *text. */
int kepHostFetch(const char *handler, char **text);
/* The same, telling a host that failed from one that could not be asked: *answered
 * (when not NULL) is 1 when the code is the host's own "errorCode" (0 included), and 0
 * when the RPC to the host failed. *cause as for kepHostRequestEx. */
int kepHostFetchEx(const char *handler, char **text, char **cause, int *answered);
/* Parses a model description file and merges it into this process's tree; 0 or -1
 * (with the reason on standard error). */
int kepMergeModelFile(const char *file);
/* Waits up to ms milliseconds for the host to answer; 0 when it does, -1 otherwise. */
int kepHostWait(int ms);

#ifdef __cplusplus
}
#endif

#endif
