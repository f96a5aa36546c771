// The IMI's handler registry: the callbacks this process serves, by name.
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include "rpc_internal.h"

namespace kep_pf {
namespace {

constexpr int kMaxHandlers = 64;

pthread_mutex_t gRegLock = PTHREAD_MUTEX_INITIALIZER;
Handler gHandlers[kMaxHandlers];

}  // namespace

bool validCb(const char *cb) {
    return cb && *cb && strnlen(cb, kMaxCbName + 1) <= kMaxCbName;
}

bool findHandler(const char *cb, Handler *out) {
    bool found = false;
    pthread_mutex_lock(&gRegLock);
    for (const Handler &h : gHandlers) {
        if (h.fn && strcmp(h.name, cb) == 0) {
            *out = h;
            found = true;
            break;
        }
    }
    pthread_mutex_unlock(&gRegLock);
    return found;
}

// A forked child's copy of the lock may be held by a thread the child does not have.
void resetRegistryInChild() {
    gRegLock = PTHREAD_MUTEX_INITIALIZER;
}

}  // namespace kep_pf

using namespace kep_pf;

PF_API int qxImiRegister(const char *cb, QxImiHandler handler, void *user) {
    if (!validCb(cb) || !handler) return QXRPC_ERR_ARG;
    int rc = QXRPC_ERR_FULL;
    pthread_mutex_lock(&gRegLock);
    Handler *slot = nullptr;
    for (Handler &h : gHandlers) {
        if (h.fn && strcmp(h.name, cb) == 0) {
            slot = &h;
            break;
        }
        if (!h.fn && !slot) slot = &h;
    }
    if (slot) {
        snprintf(slot->name, sizeof slot->name, "%s", cb);
        slot->fn = handler;
        slot->user = user;
        rc = 0;
    }
    pthread_mutex_unlock(&gRegLock);
    return rc;
}

PF_API int qxImiUnregister(const char *cb) {
    if (!validCb(cb)) return QXRPC_ERR_ARG;
    int rc = QXRPC_ERR_NO_HANDLER;
    pthread_mutex_lock(&gRegLock);
    for (Handler &h : gHandlers) {
        if (h.fn && strcmp(h.name, cb) == 0) {
            memset(&h, 0, sizeof h);
            rc = 0;
        }
    }
    pthread_mutex_unlock(&gRegLock);
    return rc;
}

PF_API const char *qxImiStrError(int code) {
    switch (code) {
        case QXRPC_ERR_ARG:
            return "bad argument";
        case QXRPC_ERR_NOMEM:
            return "out of memory";
        case QXRPC_ERR_FULL:
            return "too many members";
        case QXRPC_ERR_ABSENT:
            return "no such member";
        case QXRPC_ERR_NO_PEER:
            return "the process is not running";
        case QXRPC_ERR_TIMEOUT:
            return "no answer in time";
        case QXRPC_ERR_IO:
            return "the connection broke";
        case QXRPC_ERR_NO_HANDLER:
            return "no such callback";
        case QXRPC_ERR_DIR:
            return "the runtime folder cannot be made or is not safe to use";
        case QXRPC_ERR_DENIED:
            return "refused by the callee";
        default:
            return nullptr;
    }
}
