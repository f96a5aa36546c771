/*
 * What each "error_code" means, in words for people: kepctl prints it after a failed
 * request, kepwebd serves it to its web page (GET /api/errors). One table, so the two
 * never tell a different story. Codes not listed are the owner's own.
 */
#ifndef KEP_ERROR_MEANINGS_H
#define KEP_ERROR_MEANINGS_H

#include "kep_host.h"
#include "kep_owner.h"
#include "kep_pf_rpc.h"

/* X(code, meaning) for every code the library, the RPC, the host and the owner's kit answer. */
/* clang-format off */
#define KEP_ERROR_MEANINGS(X)                                                                          \
    X(0, "success")                                                                                    \
    X(-1, "generic failure (bad argument, missing member, no memory, empty callback slot)")            \
    X(-1500, "the owner's callback answered without \"errorCode\"")                                    \
    X(-4000, "no such table in the module")                                                            \
    X(-7000, "no \"method\" or an unknown method")                                                     \
    X(-7004, "module, table, section, action or callback not registered, or not allowed")              \
    X(-8000, "the section may not be deleted")                                                         \
    X(-10000, "null argument, no memory, or a read failed")                                            \
    X(-10100, "not JSON, or a needed member is missing or of the wrong type")                          \
    X(-51204, "no memory for the response")                                                            \
    X(-51207, "null method")                                                                           \
    X(QXRPC_ERR_NO_PEER, "the owner process is not running")                                           \
    X(QXRPC_ERR_TIMEOUT,                                                                               \
      "the owner process did not answer in time: a change may or may not have been made")              \
    X(QXRPC_ERR_IO, "the connection to the owner broke: a change may or may not have been made")       \
    X(QXRPC_ERR_NO_HANDLER, "the owner has no such callback")                                          \
    X(KEP_HOST_ERR_DENIED, "no access rule of the host lets this user do it")                          \
    X(KEP_HOST_ERR_TAKEN, "another running process serves it")                                         \
    X(KEP_HOST_ERR_LIMIT, "the host's limit was reached")                                              \
    X(KEP_HOST_ERR_PENDING, "a change set on those modules is not finished: confirm or cancel it")     \
    X(KEP_HOST_ERR_UNDOABLE, "the change set cannot be applied as one (nothing changed), or not undone")\
    X(KEP_HOST_ERR_NO_CHANGESET, "no change set waits for a confirm")                                  \
    X(KEP_OWNER_ERR_INVALID, "the owner cannot take that value (unknown member, wrong type, too long)") \
    X(KEP_OWNER_ERR_NOT_FOUND, "the owner has no such section")                                        \
    X(KEP_OWNER_ERR_STORE, "the owner could not write its configuration file")                         \
    X(KEP_OWNER_ERR_FULL, "no section number is left")                                                 \
    X(KEP_OWNER_ERR_EXISTS, "a section of that name exists, or the name lacks the table's prefix")     \
    X(KEP_OWNER_ERR_MEMORY, "the owner ran out of memory")
/* clang-format on */

/* Any other code. */
#define KEP_ERROR_MEANING_OTHER "code passed on from the owner's callback"

#endif
