// The stand-in's IMI: handlers registered by name, served on a Unix-domain socket per
// process in a folder only the user may enter. Each calling thread keeps its
// connection to a callee open between calls, and the callee serves all open
// connections from one poll loop; a call is bounded by the time-out from connect (or
// reuse) to the last byte of the reply.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "kep_pf_debug.h"
#include "kep_pf_rpc.h"
#include "rpc_wire.h"

#define PF_API extern "C" __attribute__((visibility("default")))

using namespace kep_pf;

namespace {

constexpr int kDefaultTimeoutMs = 5000;
constexpr int kImiLogMid = 112;  // the stand-in RPC's own debug module ("imi")
constexpr int kMaxHandlers = 64;

// ---- handler registry ----

struct Handler {
    char name[kMaxCbName + 1];
    QxImiHandler fn;
    void *user;
};

pthread_mutex_t gRegLock = PTHREAD_MUTEX_INITIALIZER;
Handler gHandlers[kMaxHandlers];

bool validCb(const char *cb) { return cb && *cb && strnlen(cb, kMaxCbName + 1) <= kMaxCbName; }

// Copies the handler out so that it runs without the lock held.
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

// ---- runtime folder and socket paths ----

// The folder must be ours, a real folder, and closed to other users' writes: anyone
// who could place a socket there could impersonate a callee.
int checkDir(const char *dir) {
    struct stat st;
    if (lstat(dir, &st) != 0) return QXRPC_ERR_NO_PEER;
    if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid() || (st.st_mode & 022)) return QXRPC_ERR_ARG;
    return 0;
}

// Creates missing folders along the path, each open to its user only.
void makeDirs(const char *dir) {
    char path[sizeof(sockaddr_un::sun_path)];
    snprintf(path, sizeof path, "%s", dir);
    for (char *p = path + 1; *p; p++) {
        if (*p != '/') continue;
        *p = '\0';
        mkdir(path, 0700);
        *p = '/';
    }
    mkdir(path, 0700);
}

// Fills addr with the socket of pid; create makes the folder when missing.
int socketAddress(int pid, bool create, sockaddr_un *addr) {
    char dir[sizeof addr->sun_path];
    const char *env = getenv("KEP_IMI_DIR");
    int n = env && *env ? snprintf(dir, sizeof dir, "%s", env)
                        : snprintf(dir, sizeof dir, "/tmp/kep-imi-%u", static_cast<unsigned>(geteuid()));
    if (n <= 0 || static_cast<size_t>(n) >= sizeof dir) return QXRPC_ERR_ARG;
    if (create) makeDirs(dir);
    int rc = checkDir(dir);
    if (rc) return rc;
    memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    n = snprintf(addr->sun_path, sizeof addr->sun_path, "%s/imi-%d.sock", dir, pid);
    return n > 0 && static_cast<size_t>(n) < sizeof addr->sun_path ? 0 : QXRPC_ERR_ARG;
}

// Only our own user and root may talk to us, in either direction.
bool trustedPeer(int fd) {
    struct ucred cred;
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof cred) return false;
    return cred.uid == geteuid() || cred.uid == 0;
}

// ---- calling ----

void freeSet(QxRpcPara *set) { qxrpcParaFree(set); }

// Runs a handler on a copy of the inputs; the caller's set receives the outputs only
// on success.
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
    int rc = h.fn(&work, h.user);
    if (rc == 0) {
        freeSet(set);
        moveMembers(&work, inputs, set);
    }
    freeSet(&work);
    return rc;
}

// Connects to pid's socket before the deadline.
int connectTo(int pid, int64_t deadline, int *out) {
    sockaddr_un addr;
    int rc = socketAddress(pid, false, &addr);
    if (rc) return rc == QXRPC_ERR_ARG ? QXRPC_ERR_NO_PEER : rc;
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
        close(fd);
        return rc;
    }
    if (!trustedPeer(fd)) {
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

void makeKeptKey() { gKeptKeyMade = pthread_key_create(&gKeptKey, closeKept) == 0; }

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

int callRemote(int pid, const char *cb, QxRpcPara *set) {
    int64_t deadline = nowMs() + qxImiGetTimeout();
    char *frame = nullptr;
    size_t len = 0;
    int rc = encodeRequest(cb, set, &frame, &len);
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
    // Only a connection that delivered a whole reply is in step for the next call.
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

// ---- serving ----

// Serving state; the background thread reads only gStop and the descriptors it was
// started with.
pthread_mutex_t gServerLock = PTHREAD_MUTEX_INITIALIZER;
int gListenFd = -1;
int gListenPid;
char gSocketPath[sizeof(sockaddr_un::sun_path)];
bool gAtExitSet;
bool gThreadRunning;
pthread_t gThread;
int gWake[2] = {-1, -1};
int gStop;

void closeListener() {
    if (gListenFd >= 0) {
        close(gListenFd);
        unlink(gSocketPath);
    }
    gListenFd = -1;
    gListenPid = 0;
}

void removeSocketAtExit() {
    if (gListenFd >= 0 && gListenPid == getpid()) unlink(gSocketPath);
}

// Callers' open connections, served from one poll loop. Only a serving step touches
// them, and one step runs at a time (gServeLock): the server thread's or
// qxImiServeOnce's.
constexpr int kMaxConns = 64;
pthread_mutex_t gServeLock = PTHREAD_MUTEX_INITIALIZER;
int gConns[kMaxConns];
int gConnCount;
unsigned gConnTurn;  // where the next scan starts, so that no caller is starved
int gDropConns;      // set when serving stopped: the next step closes the connections

void closeConns() {
    for (int i = 0; i < gConnCount; i++) close(gConns[i]);
    gConnCount = 0;
}

// Callers' connections outlive no stop of serving: closed, they refuse the callers'
// next send at once instead of leaving them waiting for a time-out.
void dropConnsIfStopped() {
    if (__atomic_exchange_n(&gDropConns, 0, __ATOMIC_ACQ_REL)) closeConns();
}

// Whether fd holds a byte not yet read (a request, or the start of one).
bool hasPending(int fd) {
    char c;
    return recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
}

void dropConn(int i) {
    close(gConns[i]);
    gConns[i] = gConns[--gConnCount];
}

// This process's pid, kept so that telling a call to ourselves apart costs no
// system call; a forked child sets its own.
int gSelfPid;

void notePid() { __atomic_store_n(&gSelfPid, static_cast<int>(getpid()), __ATOMIC_RELAXED); }

// A forked child has its own pid and no server thread: it must not answer on the
// parent's socket or connections, nor think that a thread serves it, nor share the
// calling thread's connections with the parent.
void resetInChild() {
    notePid();
    gRegLock = PTHREAD_MUTEX_INITIALIZER;
    gServerLock = PTHREAD_MUTEX_INITIALIZER;
    gServeLock = PTHREAD_MUTEX_INITIALIZER;
    if (gListenFd >= 0) close(gListenFd);
    gListenFd = -1;
    gListenPid = 0;
    for (int &fd : gWake) {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    gThreadRunning = false;
    closeConns();
    gDropConns = 0;
    if (gKeptKeyMade) {
        if (auto *set = static_cast<KeptSet *>(pthread_getspecific(gKeptKey))) closeKeptFds(set);
    }
}

__attribute__((constructor)) void installForkHandler() {
    notePid();
    pthread_atfork(nullptr, nullptr, resetInChild);
}

// Answers one request waiting on fd, within the time-out so that a slow or silent
// caller cannot hold the server: 0 answered (the connection stays), -1 the caller
// hung up or sent garbage (the connection is to be closed).
int serveRequest(int fd) {
    int64_t deadline = nowMs() + qxImiGetTimeout();
    char *body = nullptr;
    size_t len = 0;
    if (readFrame(fd, deadline, &body, &len) != 0) return -1;
    char cb[kMaxCbName + 1];
    QxRpcPara set;
    qxrpcParaInit(&set);
    int status = decodeRequest(body, len, cb, sizeof cb, &set);
    free(body);
    if (status != 0) {
        freeSet(&set);
        return -1;
    }
    int inputs = set.count;
    Handler h;
    status = findHandler(cb, &h) ? h.fn(&set, h.user) : QXRPC_ERR_NO_HANDLER;
    char *frame = nullptr;
    int rc = -1;
    if (encodeReply(status, &set, inputs, &frame, &len) == 0) {
        // However long the handler took, the answer gets a full time-out of its own:
        // the caller's deadline decides whether it still waits for it.
        rc = sendAll(fd, frame, len, nowMs() + qxImiGetTimeout()) == 0 ? 0 : -1;
        free(frame);
    }
    freeSet(&set);
    return rc;
}

// Takes a new connection: 1 handled (a stranger refused, or a request answered on
// the connection that made room), 0 kept or none waiting, -1 error. When all places
// are taken an open connection goes. It is shut for reading first: a caller's request
// that is already in it is still answered, and one sent later is refused at once, so
// that the caller resends it on a new connection instead of losing it.
int acceptConn(int listenFd) {
    int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED ? 0 : -1;
    if (!trustedPeer(fd)) {
        close(fd);
        return 1;
    }
    int handled = 0;
    if (gConnCount == kMaxConns) {
        shutdown(gConns[0], SHUT_RD);
        if (hasPending(gConns[0]) && serveRequest(gConns[0]) == 0) handled = 1;
        dropConn(0);
    }
    gConns[gConnCount++] = fd;
    return handled;
}

// One serving step under gServeLock: waits until the deadline (-1: none) for a
// request on a kept or a new connection and answers at most one. 1 handled, 0 none,
// 2 woken through wakeFd, <0 error.
int serveStep(int listenFd, int wakeFd, int64_t deadline) {
    dropConnsIfStopped();
    for (;;) {
        struct pollfd p[kMaxConns + 2];
        int n = 0;
        p[n++] = {listenFd, POLLIN, 0};
        if (wakeFd >= 0) p[n++] = {wakeFd, POLLIN, 0};
        const int first = n;
        for (int i = 0; i < gConnCount; i++) p[n++] = {gConns[i], POLLIN, 0};
        int w;
        if (deadline < 0) {
            w = poll(p, static_cast<nfds_t>(n), -1);
        } else {
            int64_t left = deadline - nowMs();
            w = poll(p, static_cast<nfds_t>(n), left > 0 ? static_cast<int>(left) : 0);
        }
        if (w < 0) return errno == EINTR ? 0 : -1;
        if (w == 0) return 0;
        if (wakeFd >= 0 && p[1].revents) return 2;
        if (p[0].revents & (POLLNVAL | POLLERR)) return -1;
        const int conns = gConnCount;
        for (int k = 0; k < conns; k++) {
            const int i = static_cast<int>((gConnTurn + static_cast<unsigned>(k)) % static_cast<unsigned>(conns));
            if (!p[first + i].revents) continue;
            gConnTurn = static_cast<unsigned>(i) + 1;
            // A caller that hung up with nothing sent is closed quietly; garbage
            // counts as handled.
            const short ev = p[first + i].revents;
            const bool hungUp = !(ev & POLLIN) || ((ev & POLLHUP) && !hasPending(gConns[i]));
            if (!hungUp && serveRequest(gConns[i]) == 0) return 1;
            dropConn(i);
            if (!hungUp) return 1;
            break;  // the places moved: poll again
        }
        if (p[0].revents & POLLIN) {
            int rc = acceptConn(listenFd);
            if (rc != 0) return rc;
        }
    }
}

struct ServerFds {
    int listen;
    int wake;
};
ServerFds gServerFds;

void *serverMain(void *) {
    ServerFds fds = gServerFds;
    for (;;) {
        pthread_mutex_lock(&gServeLock);
        int rc = 0;
        if (!__atomic_load_n(&gStop, __ATOMIC_ACQUIRE)) rc = serveStep(fds.listen, fds.wake, -1);
        const bool stop = __atomic_load_n(&gStop, __ATOMIC_ACQUIRE) || rc == 2;
        if (stop) closeConns();
        pthread_mutex_unlock(&gServeLock);
        if (stop) break;
        if (rc < 0) poll(nullptr, 0, 10);
    }
    return nullptr;
}

}  // namespace

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

PF_API void qxImiSetTimeout(int ms) { __atomic_store_n(&gTimeoutMs, ms > 0 ? ms : 0, __ATOMIC_RELAXED); }

PF_API int qxImiGetTimeout(void) {
    int ms = __atomic_load_n(&gTimeoutMs, __ATOMIC_RELAXED);
    if (ms > 0) return ms;
    pthread_once(&gEnvOnce, readTimeoutEnv);
    return gEnvTimeoutMs;
}

PF_API int qxImiExecute(int pid, const char *cb, int, int, QxRpcPara *set) {
    if (pid < 0 || !validCb(cb) || !set || checkMembers(set, 0) != 0) return QXRPC_ERR_ARG;
    if (pid == __atomic_load_n(&gSelfPid, __ATOMIC_RELAXED)) return callInProcess(cb, set);
    int rc = callRemote(pid, cb, set);
    // A callee that is gone or silent is a field problem worth a trace of its own.
    if ((rc == QXRPC_ERR_TIMEOUT || rc == QXRPC_ERR_NO_PEER || rc == QXRPC_ERR_IO) && debugFlagGet(kImiLogMid))
        debugPrintf(kImiLogMid, "qxImiExecute: pid %d callback %s: %s (%d)\n", pid, cb,
                    rc == QXRPC_ERR_TIMEOUT ? "time-out" : rc == QXRPC_ERR_NO_PEER ? "no peer" : "connection broken",
                    rc);
    return rc;
}

PF_API int qxImiListen(void) {
    pthread_mutex_lock(&gServerLock);
    int fd = gListenFd;
    if (fd < 0) {
        sockaddr_un addr;
        int pid = getpid();
        if (socketAddress(pid, true, &addr) == 0 &&
            (fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) >= 0) {
            // A file of our pid can only be left by a dead process that had it before.
            unlink(addr.sun_path);
            if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 64) != 0) {
                close(fd);
                fd = -1;
            }
        }
        if (fd >= 0) {
            memcpy(gSocketPath, addr.sun_path, sizeof gSocketPath);
            gListenFd = fd;
            gListenPid = pid;
            if (!gAtExitSet) gAtExitSet = atexit(removeSocketAtExit) == 0;
        }
    }
    pthread_mutex_unlock(&gServerLock);
    return fd;
}

PF_API int qxImiServeOnce(int timeoutMs) {
    int fd = qxImiListen();
    if (fd < 0) return QXRPC_ERR_IO;
    int64_t deadline = timeoutMs < 0 ? -1 : nowMs() + timeoutMs;
    pthread_mutex_lock(&gServeLock);
    int rc = serveStep(fd, -1, deadline);
    dropConnsIfStopped();  // a handler that stopped serving
    pthread_mutex_unlock(&gServeLock);
    return rc < 0 ? QXRPC_ERR_IO : rc;
}

PF_API int qxImiStartServer(void) {
    int fd = qxImiListen();
    if (fd < 0) return -1;
    pthread_mutex_lock(&gServerLock);
    int rc = 0;
    if (!gThreadRunning) {
        rc = -1;
        if (pipe2(gWake, O_CLOEXEC | O_NONBLOCK) == 0) {
            __atomic_store_n(&gStop, 0, __ATOMIC_RELEASE);
            gServerFds = {fd, gWake[0]};
            if (pthread_create(&gThread, nullptr, serverMain, nullptr) == 0) {
                gThreadRunning = true;
                rc = 0;
            } else {
                close(gWake[0]);
                close(gWake[1]);
                gWake[0] = gWake[1] = -1;
            }
        }
    }
    pthread_mutex_unlock(&gServerLock);
    return rc;
}

PF_API void qxImiStopServer(void) {
    pthread_mutex_lock(&gServerLock);
    bool running = gThreadRunning;
    pthread_t thread = gThread;
    gThreadRunning = false;
    if (running) {
        __atomic_store_n(&gStop, 1, __ATOMIC_RELEASE);
        ssize_t ignored = write(gWake[1], "x", 1);
        (void)ignored;
    }
    pthread_mutex_unlock(&gServerLock);
    if (running) {
        // A handler that stops its own server lets the thread end on its own.
        if (pthread_equal(thread, pthread_self())) {
            pthread_detach(thread);
        } else {
            pthread_join(thread, nullptr);
        }
    }
    pthread_mutex_lock(&gServerLock);
    for (int &w : gWake) {
        if (w >= 0) close(w);
        w = -1;
    }
    closeListener();
    pthread_mutex_unlock(&gServerLock);
    // Unless a serving step is running (this may be one of its handlers), the
    // connections go now; otherwise that step closes them when it ends.
    __atomic_store_n(&gDropConns, 1, __ATOMIC_RELEASE);
    if (pthread_mutex_trylock(&gServeLock) == 0) {
        dropConnsIfStopped();
        pthread_mutex_unlock(&gServeLock);
    }
}
