/*
 * Platform inter-module RPC (IMI).
 *
 * A parameter set holds named string and integer members. The caller provides
 * zero-filled storage, initialises it with qxrpcParaInit and releases it with
 * qxrpcParaFree on every path; texts added are copied into the set.
 *
 * qxImiExecute(pid, cb, 0, 0, set) runs handler cb of process pid with the set's
 * members and returns with the callee's output members in place of the inputs.
 * A process that serves callbacks registers handlers by name and serves them on a
 * Unix-domain socket named after its process id in the runtime folder (see
 * qxImiRuntimeDir). The caller checks that the socket's listener is that very process
 * (its kernel credentials), so a socket planted under another pid's name is never
 * talked to. A callee in the caller's own process is called directly. A dead callee
 * fails at once (its stale socket file is removed); a hung one fails after the
 * time-out (KEP_IMI_TIMEOUT_MS, default 5000 ms, or qxImiSetTimeout), which bounds
 * the whole call from connecting to the last byte of the answer.
 *
 * Deadlines travel with a call: a callee does not start a request whose caller has
 * hung up or whose deadline has passed (the caller was told it failed), and the calls
 * a handler makes end before its own caller's deadline, leaving it time to answer.
 * Both processes read the same monotonic clock: caller and callee share one machine.
 *
 * Limits: a string member holds at most 16 MiB and the members of one call at most
 * 32 MiB together; a callback name at most 127 bytes.
 * Each calling thread keeps its own connection to each of the last few callees it
 * called, so several threads may call at once; a forked child starts without them.
 */
#ifndef KEP_PF_RPC_H
#define KEP_PF_RPC_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { QXRPC_NAME_MAX = 32, QXRPC_MAX_MEMBERS = 16 };

/* Nonzero results of the RPC calls. */
enum {
    QXRPC_ERR_ARG = -20001, /* null or malformed argument */
    QXRPC_ERR_NOMEM = -20002,
    QXRPC_ERR_FULL = -20003,       /* the set holds QXRPC_MAX_MEMBERS already */
    QXRPC_ERR_ABSENT = -20004,     /* no member of that name or type */
    QXRPC_ERR_NO_PEER = -20005,    /* nobody serves that pid: nothing ran */
    QXRPC_ERR_TIMEOUT = -20006,    /* no answer in time: the call may or may not have run */
    QXRPC_ERR_IO = -20007,         /* the connection broke or carried garbage */
    QXRPC_ERR_NO_HANDLER = -20008, /* the callee has no handler of that name: nothing ran */
    QXRPC_ERR_DIR = -20009,        /* the runtime folder cannot be made, or is not safe to use */
    QXRPC_ERR_DENIED = -20010      /* the callee refused this caller */
};

/* A short English text for a QXRPC_ERR_* code, or NULL for any other value. Static. */
const char *qxImiStrError(int code);

typedef struct QxRpcMember {
    char name[QXRPC_NAME_MAX];
    int isString;
    int value;
    char *text; /* owned by the set */
} QxRpcMember;

typedef struct QxRpcPara {
    int count;
    QxRpcMember member[QXRPC_MAX_MEMBERS];
} QxRpcPara;

void qxrpcParaInit(QxRpcPara *set);
int qxrpcAddStringPtr(QxRpcPara *set, const char *name, const char *text);
int qxrpcAddInt(QxRpcPara *set, const char *name, int value);
/*
 * 0: set now holds the callee's output members only (inputs released). Nonzero: a
 * QXRPC_ERR_* code or the handler's own nonzero result; set is left as it was.
 */
int qxImiExecute(int pid, const char *cb, int arg3, int arg4, QxRpcPara *set);
int qxrpcGetInt(QxRpcPara *set, const char *name, int *value);
/* *text points into the set and stays valid until qxrpcParaFree. */
int qxrpcGetStringPtr(QxRpcPara *set, const char *name, char **text);
void qxrpcParaFree(QxRpcPara *set);

/*
 * Callee side. A handler reads its inputs from set and answers by adding members
 * (normally "errorCode" and "result"); only the members it adds travel back. A
 * nonzero handler result is returned by the caller's qxImiExecute instead.
 */
typedef int (*QxImiHandler)(QxRpcPara *set, void *user);
/* Registering a name again replaces its handler; at most 64 names. Thread-safe. */
int qxImiRegister(const char *cb, QxImiHandler handler, void *user);
int qxImiUnregister(const char *cb);

/* Who sent the request a handler is running for, as the kernel reports the peer of
 * its connection (never what the request says). */
typedef struct QxImiCaller {
    int pid;
    int uid;
    int gid;
} QxImiCaller;
/* Inside a handler: 0 with the caller's credentials (this process's own for a call to
 * itself). Outside a handler: -1. */
int qxImiCaller(QxImiCaller *caller);

/*
 * Which processes may connect to this one. The check runs once per connection, on
 * the serving side, with the peer's kernel credentials; nonzero admits. Without one,
 * only this process's own user and root are admitted. Setting a check also makes the
 * socket file connectable by every user (the check is then the only gate), so a
 * check must refuse whom it does not know. NULL restores the default. Thread-safe.
 */
typedef int (*QxImiPeerCheck)(const QxImiCaller *peer, void *user);
void qxImiSetPeerCheck(QxImiPeerCheck check, void *user);

/*
 * The runtime folder that holds the sockets (and the host's pid file): the
 * environment variable KEP_RUNTIME_DIR; else /run/kep for root, $XDG_RUNTIME_DIR/kep
 * for other users, and /tmp/kep-<uid> only when neither exists. A missing folder is created (0700; 0755 for
 * /run/kep, so that users the host admits can reach its socket). The folder must be a real folder (not a
 * link), owned by this user or root, and not writable by others unless it is root's and sticky; anything else
 * is refused, never followed or repaired. Fills path with the folder's name (also on failure, so a message
 * can name it); returns 0, QXRPC_ERR_DIR or QXRPC_ERR_ARG (size too small).
 */
int qxImiRuntimeDir(char *path, size_t size);

/*
 * Binds this process's socket (once; a stale file of the same pid is replaced);
 * returns a descriptor to poll for requests, or -1. The socket file is removed by
 * qxImiStopServer and at exit.
 */
int qxImiListen(void);
/*
 * Listens if needed, then serves on the calling thread until it has answered one
 * request or timeoutMs has passed (-1: no limit): 1 handled (a refused one
 * included), 0 none, <0 error. Requests are assembled from whatever has arrived on
 * every connection, so a caller that sends slowly or stops half-way holds no thread:
 * it is dropped when its request is not complete within the time-out.
 */
int qxImiServeOnce(int timeoutMs);
/* Serves requests one at a time, in order, on a background thread; 0 or -1. */
int qxImiStartServer(void);
/*
 * Serves on background threads, up to maxThreads requests at once: a request waiting
 * on a slow handler never holds up another. One thread waits for requests; more are
 * started while every one is busy, and those with nothing to do end after a while.
 * A connection's requests are still served one at a time, in order. 0 or -1.
 */
int qxImiStartServerThreads(int maxThreads);
/* Stops those threads, closes the socket and every caller's connection, removes the
 * socket file. Called from a handler, it takes effect once that handler returns. */
void qxImiStopServer(void);
/* ms > 0 sets the time-out of calls (and of reading a request); ms <= 0 restores the default. */
void qxImiSetTimeout(int ms);
int qxImiGetTimeout(void);

#ifdef __cplusplus
}
#endif

#endif
