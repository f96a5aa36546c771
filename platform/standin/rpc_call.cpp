// The IMI's calling side: qxImiExecute, its time-out, and the connections each
// calling thread keeps open to the callees it called last.
//
// A call is bounded by one deadline, from connecting (or reusing a connection) to
// the last byte of the reply. The deadline travels in the request, so that the callee
// does not start what its caller has given up on; and a call made from inside a
// handler ends early enough for that handler to answer its own caller in time.
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "kep_pf_debug.h"
#include "rpc_internal.h"

namespace kep_pf {
namespace {

constexpr int kDefaultTimeoutMs = 5000;

// ---- time-out ----

int gTimeoutMs;  // set by qxImiSetTimeout; 0: the environment's or the default
int gEnvTimeoutMs = kDefaultTimeoutMs;
pthread_once_t gEnvOnce = PTHREAD_ONCE_INIT;

void readTimeoutEnv() {
    const char *env = getenv("KEP_IMI_TIMEOUT_MS");
    if (!env || !*env) return;
    char *end = nullptr;
    long ms = strtol(env, &end, 10);
    if (*end == '\0' && ms > 0 && ms <= 3600 * 1000) gEnvTimeoutMs = static_cast<int>(ms);
}

// The deadline of a call starting now. Inside a handler it ends a little before that
// handler's caller gives up: an eighth of the caller's time, between 5 and 250 ms, is
// left for the handler to answer. 0 when no time is left at all.
int64_t callDeadline(int64_t now) {
    int64_t deadline = now + qxImiGetTimeout();
    const ServingContext *serving = currentServing();
    if (serving && serving->deadline > 0) {
        int64_t reserve = (serving->deadline - serving->received) / 8;
        reserve = reserve < 5 ? 5 : reserve > 250 ? 250 : reserve;
        if (serving->deadline - reserve < deadline) deadline = serving->deadline - reserve;
    }
    return deadline > now ? deadline : 0;
}

void freeSet(QxRpcPara *set) {
    qxrpcParaFree(set);
}

// Runs a handler of this process on a copy of the inputs; the caller's set receives
// the outputs only on success. The caller is this process itself.
int callInProcess(const char *cb, QxRpcPara *set) {
    Handler h;
    if (!findHandler(cb, &h)) return QXRPC_ERR_NO_HANDLER;
    QxRpcPara work;
    qxrpcParaInit(&work);
    for (int i = 0; i < set->count; i++) {
        work.member[i] = set->member[i];
        if (set->member[i].isString && !(work.member[i].text = strdup(set->member[i].text))) {
            freeSet(&work);
            return QXRPC_ERR_NOMEM;
        }
        work.count = i + 1;
    }
    int inputs = work.count;
    const ServingContext *outer = currentServing();
    ServingContext ctx = {{selfPid(), static_cast<int>(geteuid()), static_cast<int>(getegid())},
                          outer ? outer->deadline : 0,
                          outer ? outer->received : nowMs()};
    int rc = runHandler(h, &work, ctx);
    if (rc == 0) {
        freeSet(set);
        moveMembers(&work, inputs, set);
    }
    freeSet(&work);
    return rc;
}

// Connects to pid's socket before the deadline; the listener must be pid itself.
int connectTo(int pid, int64_t deadline, int *out) {
    sockaddr_un addr;
    int rc = socketAddress(pid, false, &addr);
    if (rc) return rc == QXRPC_ERR_ARG ? QXRPC_ERR_ARG : QXRPC_ERR_NO_PEER;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return QXRPC_ERR_IO;
    for (;;) {
        if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) break;
        if (errno == EINTR) continue;
        // A full backlog: the callee is alive but busy; try again until the deadline.
        if (errno == EAGAIN && nowMs() < deadline) {
            poll(nullptr, 0, 5);
            continue;
        }
        rc = errno == EAGAIN ? QXRPC_ERR_TIMEOUT : QXRPC_ERR_NO_PEER;
        if (errno == ECONNREFUSED) removeIfStale(pid, addr);
        close(fd);
        return rc;
    }
    // Whoever created a socket under pid's name, only pid itself is talked to.
    QxImiCaller peer{};
    if (!peerCredentials(fd, &peer) || peer.pid != pid) {
        if (debugFlagGet(kImiLogMid))
            debugPrintf(kImiLogMid, "the socket of process %d is held by process %d: not used\n", pid,
                        peer.pid);
        close(fd);
        return QXRPC_ERR_NO_PEER;
    }
    *out = fd;
    return 0;
}

// ---- kept connections of the calling thread ----

// A few callees per thread; a thread that calls more of them in turn reconnects.
constexpr int kKeptPerThread = 4;

struct Kept {
    int pid;
    int fd;  // -1: none
};

struct KeptSet {
    Kept slot[kKeptPerThread];
    unsigned next;  // the slot a new connection replaces
};

pthread_key_t gKeptKey;
bool gKeptKeyMade;
pthread_once_t gKeptOnce = PTHREAD_ONCE_INIT;

void closeKeptFds(KeptSet *set) {
    for (Kept &k : set->slot) {
        if (k.fd >= 0) close(k.fd);
        k.fd = -1;
    }
}

void closeKept(void *p) {
    closeKeptFds(static_cast<KeptSet *>(p));
    free(p);
}

void makeKeptKey() {
    gKeptKeyMade = pthread_key_create(&gKeptKey, closeKept) == 0;
}

// The calling thread's connections; null when they cannot be kept (no memory), and
// then every call connects afresh.
KeptSet *keptSet() {
    pthread_once(&gKeptOnce, makeKeptKey);
    if (!gKeptKeyMade) return nullptr;
    auto *set = static_cast<KeptSet *>(pthread_getspecific(gKeptKey));
    if (set) return set;
    set = static_cast<KeptSet *>(calloc(1, sizeof *set));
    if (!set) return nullptr;
    for (Kept &k : set->slot) k.fd = -1;
    if (pthread_setspecific(gKeptKey, set) != 0) {
        free(set);
        return nullptr;
    }
    return set;
}

// Takes the thread's open connection to pid out of its set (so that it is never
// used twice at once), or -1. One the callee has closed meanwhile (it stopped
// serving, died or dropped an idle connection) refuses the next send.
int takeKept(KeptSet *set, int pid) {
    if (!set) return -1;
    for (Kept &k : set->slot) {
        if (k.fd < 0 || k.pid != pid) continue;
        int fd = k.fd;
        k.fd = -1;
        return fd;
    }
    return -1;
}

// Keeps fd as the thread's connection to pid, or closes it.
void keep(KeptSet *set, int pid, int fd) {
    if (!set) {
        close(fd);
        return;
    }
    Kept *slot = nullptr;
    for (Kept &k : set->slot) {
        if (k.fd < 0) {
            slot = &k;
            break;
        }
    }
    if (!slot) {
        slot = &set->slot[set->next++ % kKeptPerThread];
        close(slot->fd);
    }
    slot->pid = pid;
    slot->fd = fd;
}

// Whether the callee answered fd's connection with a refusal, already waiting in it.
bool refusedBy(int fd) {
    char c;
    if (recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT) != 1) return false;
    char *body = nullptr;
    size_t len = 0;
    QxRpcPara none;
    qxrpcParaInit(&none);
    int status = 0;
    const bool refused = readFrame(fd, nowMs() + 100, &body, &len) == 0 &&
                         decodeReply(body, len, &status, &none) == 0 && status == QXRPC_ERR_DENIED;
    free(body);
    qxrpcParaFree(&none);
    return refused;
}

int callRemote(int pid, const char *cb, QxRpcPara *set) {
    const int64_t deadline = callDeadline(nowMs());
    if (deadline == 0) return QXRPC_ERR_TIMEOUT;
    char *frame = nullptr;
    size_t len = 0;
    int rc = encodeRequest(cb, deadline, set, &frame, &len);
    if (rc) return rc;
    KeptSet *kept = keptSet();
    int fd = takeKept(kept, pid);
    for (int attempt = 0;; attempt++) {
        if (fd < 0 && (rc = connectTo(pid, deadline, &fd)) != 0) break;
        rc = sendAll(fd, frame, len, deadline);
        // A send refused outright means the callee shut the connection before it
        // read anything of this request: nothing ran, so a new one may carry it. A
        // callee with more callers than it keeps connections for may drop a new one
        // too before the request reaches it; like a full backlog, that is tried
        // again after a pause until the deadline.
        if (rc != QXRPC_ERR_IO) break;
        // A callee that refuses this caller says so before it hangs up.
        if (refusedBy(fd)) {
            rc = QXRPC_ERR_DENIED;
            break;
        }
        close(fd);
        fd = -1;
        if (nowMs() >= deadline) break;
        if (attempt > 0) poll(nullptr, 0, 5);
    }
    free(frame);
    // The callee needs a while to answer: wait before reading rather than after a
    // read that would find nothing.
    if (rc == 0) {
        int w = waitFd(fd, POLLIN, deadline);
        rc = w > 0 ? 0 : w == 0 ? QXRPC_ERR_TIMEOUT : QXRPC_ERR_IO;
    }
    char *body = nullptr;
    if (rc == 0) rc = readFrame(fd, deadline, &body, &len);
    // Only a connection that delivered a whole reply is in step for the next call; a
    // closed one also tells the callee that nobody waits for the request any more.
    if (fd >= 0) {
        if (rc == 0) {
            keep(kept, pid, fd);
        } else {
            close(fd);
        }
    }
    if (rc) return rc;
    QxRpcPara reply;
    qxrpcParaInit(&reply);
    int status = 0;
    rc = decodeReply(body, len, &status, &reply);
    free(body);
    if (rc == 0 && status != 0) rc = status;
    if (rc == 0) {
        freeSet(set);
        moveMembers(&reply, 0, set);
    }
    freeSet(&reply);
    return rc;
}

}  // namespace

// A forked child must not share the calling thread's connections with its parent.
void resetCallsInChild() {
    if (!gKeptKeyMade) return;
    if (auto *set = static_cast<KeptSet *>(pthread_getspecific(gKeptKey))) closeKeptFds(set);
}

}  // namespace kep_pf

using namespace kep_pf;

PF_API void qxImiSetTimeout(int ms) {
    __atomic_store_n(&gTimeoutMs, ms > 0 ? ms : 0, __ATOMIC_RELAXED);
}

PF_API int qxImiGetTimeout(void) {
    int ms = __atomic_load_n(&gTimeoutMs, __ATOMIC_RELAXED);
    if (ms > 0) return ms;
    pthread_once(&gEnvOnce, readTimeoutEnv);
    return gEnvTimeoutMs;
}

PF_API int qxImiExecute(int pid, const char *cb, int, int, QxRpcPara *set) {
    if (pid < 0 || !validCb(cb) || !set || checkMembers(set, 0) != 0) return QXRPC_ERR_ARG;
    if (pid == selfPid()) return callInProcess(cb, set);
    int rc = callRemote(pid, cb, set);
    // A callee that is gone or silent is a field problem worth a trace of its own.
    if ((rc == QXRPC_ERR_TIMEOUT || rc == QXRPC_ERR_NO_PEER || rc == QXRPC_ERR_IO) &&
        debugFlagGet(kImiLogMid))
        debugPrintf(kImiLogMid, "qxImiExecute: pid %d callback %s: %s (%d)\n", pid, cb,
                    rc == QXRPC_ERR_TIMEOUT   ? "time-out"
                    : rc == QXRPC_ERR_NO_PEER ? "no peer"
                                              : "connection broken",
                    rc);
    return rc;
}
