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
 * Unix-domain socket tied to its process id, in a runtime folder only its user may
 * enter (KEP_IMI_DIR, default /tmp/kep-imi-<uid>). A callee in the caller's own
 * process is called directly. A dead callee fails at once; a hung one fails after
 * the time-out (KEP_IMI_TIMEOUT_MS, default 5000 ms, or qxImiSetTimeout), which
 * bounds the whole call from connecting to the last byte of the answer.
 *
 * Limits: a string member holds at most 1 MiB; a callback name at most 127 bytes.
 * Each calling thread keeps its own connection to each of the last few callees it
 * called, so several threads may call at once; a forked child starts without them.
 */
#ifndef KEP_PF_RPC_H
#define KEP_PF_RPC_H

#ifdef __cplusplus
extern "C" {
#endif

enum { QXRPC_NAME_MAX = 32, QXRPC_MAX_MEMBERS = 16 };

/* Nonzero results of the RPC calls. */
enum {
    QXRPC_ERR_ARG = -20001,       /* null or malformed argument */
    QXRPC_ERR_NOMEM = -20002,
    QXRPC_ERR_FULL = -20003,      /* the set holds QXRPC_MAX_MEMBERS already */
    QXRPC_ERR_ABSENT = -20004,    /* no member of that name or type */
    QXRPC_ERR_NO_PEER = -20005,   /* nobody serves that pid */
    QXRPC_ERR_TIMEOUT = -20006,
    QXRPC_ERR_IO = -20007,        /* the connection broke or carried garbage */
    QXRPC_ERR_NO_HANDLER = -20008 /* the callee has no handler of that name */
};

typedef struct QxRpcMember {
    char name[QXRPC_NAME_MAX];
    int isString;
    int value;
    char *text;   /* owned by the set */
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
/*
 * Binds this process's socket (once; a stale file of the same pid is replaced);
 * returns a descriptor to poll for requests, or -1. The socket file is removed by
 * qxImiStopServer and at exit.
 */
int qxImiListen(void);
/*
 * Listens if needed and handles at most one request, on a new connection or one a
 * caller keeps open (up to 64 are kept): 1 handled (a malformed or refused one
 * included), 0 none within timeoutMs (-1: wait), <0 error. A client that does not
 * deliver a request it has begun within the time-out is dropped.
 */
int qxImiServeOnce(int timeoutMs);
/* Serves requests one at a time on a background thread; 0 or -1. */
int qxImiStartServer(void);
/* Stops that thread, closes the socket and removes its file. */
void qxImiStopServer(void);
/* ms > 0 sets the time-out of calls (and of reading a request); ms <= 0 restores the default. */
void qxImiSetTimeout(int ms);
int qxImiGetTimeout(void);

#ifdef __cplusplus
}
#endif

#endif
