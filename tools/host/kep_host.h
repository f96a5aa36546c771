/*
 * Talking to the host daemon (kepd): the process that holds the data module tree,
 * takes owners' registrations and serves clients' requests.
 *
 * kepd serves these RPC handlers (platform IMI, see kep_pf_rpc.h):
 *   "kepd.request"   in "para": request text     out "errorCode", "result": response text
 *   "kepd.register"  in "op", "path", "cb", "index" (int), "pid" (int)    out "errorCode"
 *                    op: "method" (index 0..4), "verify", "notify", "action" (path "/module/action"),
 *                        "opr" (the table or section interface's owner), "reset" (cb resets
 *                        the owner's modules on a factory reset), "unregister" (all of pid)
 *   "kepd.notify"    in "para": "/module/table/section"                    out "errorCode"
 *   "kepd.dump"      out "errorCode", "result": the tree dump, one line per entry
 *   "kepd.reset"     out "errorCode": first failure of the owners' reset callbacks
 *   "kepd.ping"      out "errorCode" 0: the host is up
 * Its process id is kept in the pid file (KEPD_PIDFILE, default /tmp/kepd-<uid>.pid).
 */
#ifndef KEP_HOST_H
#define KEP_HOST_H

#ifdef __cplusplus
extern "C" {
#endif

/* Path of the pid file, from KEPD_PIDFILE or the default. The text is static. */
const char *kepHostPidFile(void);
/* The running host's pid, or -1 when there is no pid file or its process is gone. */
int kepHostPid(void);
/* Hands a request to the host; *response: malloc'd response text. 0 or the RPC's code. */
int kepHostRequest(const char *request, char **response);
/* One registration for this process (getpid()); 0 or the host's/RPC's nonzero code. */
int kepHostRegister(const char *op, const char *path, int index, const char *cb);
/* Asks the host to tell the section's notify callbacks that its data changed. */
int kepHostNotify(const char *path);
/* Calls a host handler without inputs and returns its "result" text, malloc'd, in *text. */
int kepHostFetch(const char *handler, char **text);
/* Parses a model description file and merges it into this process's tree; 0 or -1
 * (with the reason on standard error). */
int kepMergeModelFile(const char *file);
/* Waits up to ms milliseconds for the host to answer; 0 when it does, -1 otherwise. */
int kepHostWait(int ms);

#ifdef __cplusplus
}
#endif

#endif
