/*
 * Why a request failed behind its response.
 *
 * A read answers -10000 whatever went wrong on the way to the owner: the owner's own
 * code, a table that does not exist, an owner that is not running or does not answer.
 * The response stays as it is; the thread that handled the request can still ask
 * what happened, to log it or pass it on to whoever can act on it.
 */
#ifndef KEP_DIAG_H
#define KEP_DIAG_H

#include "kep_tree.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The last failed owner call of the calling thread. pid 0: no owner was called, and
 * code tells why: KEP_ERR_NO_TABLE (the module has no such table or section, or there
 * is no such module) or KEP_ERR_NOT_REGISTERED (no process serves it). */
typedef struct KepCallFailure {
    int code;                   /* the owner's own nonzero "errorCode"; KEP_ERR_NO_ERRORCODE when it
                                   answered without one; or the RPC's QXRPC_ERR_* code (qxImiStrError) */
    int pid;                    /* the owner process called */
    char cb[KEP_CALLBACK_SIZE]; /* the callback called */
    char module[KEP_NAME_SIZE]; /* the module the call was for; "" when not known */
    char name[KEP_NAME_SIZE];   /* the table, section or action it was for; "" when not known (cut to 31) */
} KepCallFailure;

/* 1 with *out filled when an owner call of this thread failed since the previous
 * call of this function, else 0; clears the record either way (out may be NULL to
 * clear only). A call that fails records it; a call that succeeds leaves the record,
 * so it holds the failure that ended a request. */
int kepLastCallFailure(KepCallFailure *out);

#ifdef __cplusplus
}
#endif

#endif
