// The IMI's serving side.
//
// A process that serves has one epoll set holding its listening socket, a wake-up
// descriptor and its callers' connections. The threads that serve (background ones
// and callers of qxImiServeOnce) wait on that set together; the kernel hands each
// readiness to one of them, and that thread reads, runs and answers it itself, with
// no hand-over to another thread on the way.
//
// Threading model: a connection belongs to at most one thread at a time. Its state
// word (generation and state) is claimed with a compare-and-swap: by the thread that
// received its event, by the sweep that drops it when its time is up, or by the
// accept that evicts it when every place is taken. Connections are armed one-shot,
// so their requests are served one at a time and in order. gLock guards setting up
// and tearing down the socket and the counts of serving threads.
//
// A request is assembled from whatever has arrived, so a caller that sends slowly or
// stops half-way holds no thread, only its connection, until its frame's time runs
// out. A request is not started when its caller has hung up or its deadline has
// passed: that caller was already told the call failed.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <initializer_list>

#include "kep_pf_debug.h"
#include "rpc_internal.h"

namespace kep_pf {
namespace {

constexpr int kMaxConns = 256;               // callers' open connections
constexpr size_t kMaxBuffered = 64u << 20;   // requests being received, all connections together
constexpr size_t kKeepBuffer = 64 * 1024;    // an idle connection keeps a buffer up to this size
constexpr int kSweepMs = 100;                // how often half-received requests are checked
constexpr int kRetireMs = 5000;              // an extra serving thread idle this long ends
constexpr size_t kThreadStack = 512 * 1024;  // handlers run the library: no deep recursion
constexpr uint64_t kTagListen = ~uint64_t{0};
constexpr uint64_t kTagWake = ~uint64_t{0} - 1;

// A connection's state word: generation << 2 | state. The generation changes when a
// place is given up, so an event that arrives for an earlier connection is ignored.
// 32 bits, like every atomic here: a 32-bit device has no lock-free 64-bit ones.
enum : uint32_t { kFree = 0, kIdle = 1, kBusy = 2, kBusyAgain = 3 };
constexpr uint32_t kGenMask = 0x3fffffff;

uint32_t word(uint32_t gen, uint32_t state) {
    return (gen & kGenMask) << 2 | state;
}
uint32_t genOf(uint32_t w) {
    return w >> 2;
}
uint32_t stateOf(uint32_t w) {
    return w & 3;
}

// A moment as the low 32 bits of the monotonic milliseconds (0 stands for none):
// compared by their difference, which holds for spans under 24 days.
uint32_t stamp(int64_t ms) {
    const uint32_t s = static_cast<uint32_t>(ms);
    return s ? s : 1;
}
bool reached(int64_t now, uint32_t when) {
    return static_cast<int32_t>(static_cast<uint32_t>(now) - when) >= 0;
}

struct Conn {
    std::atomic<uint32_t> word{0};
    std::atomic<uint32_t> expires{0};   // when a half-received request or unsent reply is given up; 0: never
    std::atomic<uint32_t> lastUsed{0};  // for choosing which idle connection makes room
    int fd = -1;
    QxImiCaller peer{};
    char *in = nullptr;  // what has arrived of the next request
    size_t inLen = 0, inCap = 0;
    char *out = nullptr;  // the rest of a reply the socket could not take at once
    size_t outLen = 0, outOff = 0;
};

pthread_mutex_t gLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gCond = PTHREAD_COND_INITIALIZER;
int gListenFd = -1;
int gEpfd = -1;
int gWakeFd = -1;
int gListenPid;
char gSocketPath[sizeof(sockaddr_un::sun_path)];
bool gAtExitSet;
Conn gConns[kMaxConns];
std::atomic<size_t> gBuffered{0};
std::atomic<int> gTimed{0};  // connections with an expiry: the sweep has work
std::atomic<uint32_t> gNextSweep{0};
std::atomic<int> gIdle{0};  // background threads waiting for work
int gMaxThreads;            // under gLock, as are the counts below
int gThreads;               // background threads running
int gInServe;               // qxImiServeOnce callers inside
bool gStopping;
bool gTeardownPending;

pthread_mutex_t gCheckLock = PTHREAD_MUTEX_INITIALIZER;
QxImiPeerCheck gCheck;
void *gCheckUser;

__thread const ServingContext *tServing;
__thread bool tServes;  // this thread is inside a serving loop

int gSelfPid;

void notePid() {
    __atomic_store_n(&gSelfPid, static_cast<int>(getpid()), __ATOMIC_RELAXED);
}

// ---- connections ----

void setExpiry(Conn &c, int64_t when) {
    const uint32_t was = c.expires.exchange(when ? stamp(when) : 0, std::memory_order_relaxed);
    if ((was == 0) != (when == 0)) gTimed.fetch_add(when ? 1 : -1, std::memory_order_relaxed);
}

void releaseIn(Conn &c) {
    free(c.in);
    gBuffered.fetch_sub(c.inCap, std::memory_order_relaxed);
    c.in = nullptr;
    c.inLen = c.inCap = 0;
}

// Gives the place up; the caller holds the connection.
void closeConn(Conn &c) {
    close(c.fd);  // also takes it out of the epoll set
    c.fd = -1;
    releaseIn(c);
    free(c.out);
    c.out = nullptr;
    c.outLen = c.outOff = 0;
    setExpiry(c, 0);
    const uint32_t gen = genOf(c.word.load(std::memory_order_relaxed));
    c.word.store(word(gen + 1, kFree), std::memory_order_release);
}

// Claims a connection in the state given; false when it is in another or was
// closed meanwhile.
bool claim(Conn &c, uint32_t gen, uint32_t from) {
    uint32_t w = word(gen, from);
    return c.word.compare_exchange_strong(w, word(gen, kBusy), std::memory_order_acquire);
}

// Arms the connection for events (add: newly accepted) and lets go of it. False when
// an event arrived while it was held: the caller must serve it again itself. A
// connection the kernel will not watch (no memory for it) is closed: unwatched, it
// would hold its place for good.
bool arm(Conn &c, int slot, uint32_t events, bool add) {
    const uint32_t gen = genOf(c.word.load(std::memory_order_relaxed));
    epoll_event ev{};
    ev.events = events | EPOLLRDHUP | EPOLLONESHOT;
    ev.data.u64 = uint64_t{gen & kGenMask} << 32 | static_cast<uint32_t>(slot + 1);
    if (epoll_ctl(gEpfd, add ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, c.fd, &ev) != 0) {
        closeConn(c);
        return true;
    }
    uint32_t w = word(gen, kBusy);
    if (c.word.compare_exchange_strong(w, word(gen, kIdle), std::memory_order_release)) return true;
    c.word.store(word(gen, kBusy), std::memory_order_relaxed);  // was kBusyAgain
    return false;
}

// Sends what is left of the reply without waiting: 1 all sent, 0 the socket is full,
// -1 the caller is gone.
int flushOut(Conn &c) {
    while (c.outOff < c.outLen) {
        ssize_t n = send(c.fd, c.out + c.outOff, c.outLen - c.outOff, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            c.outOff += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return 0;
        } else {
            return -1;
        }
    }
    free(c.out);
    c.out = nullptr;
    c.outLen = c.outOff = 0;
    return 1;
}

// Reads what has arrived, up to the end of the request being received: 0, or -1 to
// drop the connection (broken, or over the memory all requests may hold). *eof: the
// caller has closed its side.
int readIn(Conn &c, bool *eof) {
    for (;;) {
        size_t need = 0;
        if (c.inLen >= kFrameHeader) {
            const uint32_t body = frameBodyLength(c.in);
            if (body == 0) return -1;  // not a frame of ours
            need = kFrameHeader + body;
            if (c.inLen >= need) return 0;
        }
        if (c.inLen == c.inCap) {
            // Grown to what the frame says it holds only as its bytes arrive, so a
            // header alone cannot make a connection take much.
            size_t cap = c.inCap ? c.inCap * 2 : 4096;
            if (need && cap > need) cap = need;
            const size_t more = cap - c.inCap;
            if (gBuffered.fetch_add(more, std::memory_order_relaxed) + more > kMaxBuffered) {
                gBuffered.fetch_sub(more, std::memory_order_relaxed);
                return -1;
            }
            char *grown = static_cast<char *>(realloc(c.in, cap));
            if (!grown) {
                gBuffered.fetch_sub(more, std::memory_order_relaxed);
                return -1;
            }
            c.in = grown;
            c.inCap = cap;
        }
        const size_t room = c.inCap - c.inLen;
        ssize_t n =
            recv(c.fd, c.in + c.inLen, need ? (need - c.inLen < room ? need - c.inLen : room) : room, 0);
        if (n > 0) {
            c.inLen += static_cast<size_t>(n);
        } else if (n == 0) {
            *eof = true;
            return 0;
        } else if (errno == EINTR) {
            continue;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return 0;
        } else {
            return -1;
        }
    }
}

// What the event that woke a thread said of the caller's end of its connection.
enum Hangup { kHungUp, kConnected, kUnknown };

// Whether the caller has hung up: then nobody waits for the answer.
bool callerGone(int fd) {
    char b;
    ssize_t n = recv(fd, &b, 1, MSG_PEEK | MSG_DONTWAIT);
    return n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
}

void maybeAddThread();

// Runs the request whose frame is complete in c.in and starts sending the reply:
// 1 answered (or the reply is under way), 0 dropped without running (the caller has
// gone or given up), -1 garbage or a broken connection.
int runRequest(Conn &c, size_t frameLen, Hangup hangup) {
    const int64_t now = nowMs();
    char cb[kMaxCbName + 1];
    int64_t deadline = 0;
    QxRpcPara set;
    qxrpcParaInit(&set);
    int status = decodeRequest(c.in + kFrameHeader, frameLen - kFrameHeader, cb, sizeof cb, &deadline, &set);
    const size_t rest = c.inLen - frameLen;
    memmove(c.in, c.in + frameLen, rest);
    c.inLen = rest;
    if (status != 0) {
        qxrpcParaFree(&set);
        return -1;
    }
    const bool gone = hangup == kHungUp || (hangup == kUnknown && callerGone(c.fd));
    if ((deadline > 0 && now >= deadline) || gone) {
        if (debugFlagGet(kImiLogMid))
            debugPrintf(kImiLogMid, "request %s of process %d not started: its caller %s\n", cb, c.peer.pid,
                        deadline > 0 && now >= deadline ? "gave up" : "hung up");
        qxrpcParaFree(&set);
        return 0;
    }
    const int inputs = set.count;
    Handler h;
    if (findHandler(cb, &h)) {
        if (tServes) maybeAddThread();
        status = runHandler(h, &set, ServingContext{c.peer, deadline, now});
    } else {
        status = QXRPC_ERR_NO_HANDLER;
    }
    char *frame = nullptr;
    size_t len = 0;
    int rc = encodeReply(status, &set, inputs, &frame, &len);
    qxrpcParaFree(&set);
    if (rc) return -1;
    c.out = frame;
    c.outLen = len;
    c.outOff = 0;
    return 1;
}

enum Step { kClosed, kArmIn, kArmOut };

// One round of work on a held connection. *handled: a request was answered (or
// refused as garbage). closing: answer what is already there, then close. hangup:
// what the waking event said of the caller (a peek finds out when it said nothing).
Step stepConn(Conn &c, bool *handled, bool closing, Hangup hangup) {
    if (c.outLen) {
        const int sent = flushOut(c);
        if (sent < 0) {
            closeConn(c);
            return kClosed;
        }
        if (sent == 0) return kArmOut;
    }
    for (;;) {
        bool eof = false;
        if (readIn(c, &eof) != 0) {
            *handled = true;
            closeConn(c);
            return kClosed;
        }
        const size_t frameLen = c.inLen >= kFrameHeader ? kFrameHeader + frameBodyLength(c.in) : 0;
        if (frameLen == 0 || c.inLen < frameLen) {
            // Nothing more to answer: a caller that hung up half-way is dropped; one
            // that has started a request gets the time-out to finish it.
            if (eof || closing) {
                closeConn(c);
                return kClosed;
            }
            if (!c.inLen) {
                setExpiry(c, 0);
                if (c.inCap > kKeepBuffer) releaseIn(c);
            } else if (!c.expires.load(std::memory_order_relaxed)) {
                setExpiry(c, nowMs() + qxImiGetTimeout());
            }
            return kArmIn;
        }
        setExpiry(c, 0);
        // A connection being closed to make room was shut for reading by us: its
        // end-of-file is ours, not the caller's.
        const int ran = eof && !closing ? 0 : runRequest(c, frameLen, closing ? kConnected : hangup);
        c.lastUsed.store(stamp(nowMs()), std::memory_order_relaxed);
        if (ran <= 0) {
            *handled = *handled || ran < 0;
            closeConn(c);
            return kClosed;
        }
        *handled = true;
        const int sent = flushOut(c);
        if (sent < 0 || (closing && sent > 0)) {
            closeConn(c);
            return kClosed;
        }
        if (sent == 0) {
            setExpiry(c, nowMs() + qxImiGetTimeout());
            return kArmOut;
        }
        // Requests come one at a time; bytes of a next one already read are served
        // now, since the socket will not signal them again.
        if (!c.inLen) {
            if (c.inCap > kKeepBuffer) releaseIn(c);
            return kArmIn;
        }
    }
}

// Works on a held connection until it is armed or closed; true when a request was
// answered.
bool serveConn(int slot, bool closing, Hangup hangup) {
    Conn &c = gConns[slot];
    bool handled = false;
    for (;;) {
        const Step step = stepConn(c, &handled, closing, hangup);
        if (step == kClosed) return handled;
        if (arm(c, slot, step == kArmOut ? EPOLLOUT : EPOLLIN, false)) return handled;
        hangup = kUnknown;  // another event came while it was held
    }
}

// ---- admission ----

int defaultCheck(const QxImiCaller *peer, void *) {
    return peer->uid == static_cast<int>(geteuid()) || peer->uid == 0 || peerInGroup(*peer, rpcGroup());
}

// A socket's mode: open to all when a peer check of the process decides, to the
// configured group when there is one, else to this user alone.
mode_t socketMode(bool checked) {
    return checked ? 0666 : rpcGroup() >= 0 ? 0660 : 0600;
}

int setSocketMode(const char *path, bool checked) {
    const int group = rpcGroup();
    if (group >= 0 && chown(path, static_cast<uid_t>(-1), static_cast<gid_t>(group)) != 0) return -1;
    return chmod(path, socketMode(checked));
}

bool admitted(const QxImiCaller &peer) {
    pthread_mutex_lock(&gCheckLock);
    QxImiPeerCheck check = gCheck ? gCheck : defaultCheck;
    void *user = gCheckUser;
    pthread_mutex_unlock(&gCheckLock);
    return check(&peer, user) != 0;
}

// Tells a caller it is refused, so that it need not wait for its time-out, and hangs up.
void refuse(int fd) {
    QxRpcPara none;
    qxrpcParaInit(&none);
    char *frame = nullptr;
    size_t len = 0;
    if (encodeReply(QXRPC_ERR_DENIED, &none, 0, &frame, &len) == 0) {
        ssize_t sent = send(fd, frame, len, MSG_NOSIGNAL | MSG_DONTWAIT);
        (void)sent;  // a caller that is gone already needs no answer
        free(frame);
    }
    close(fd);
}

// A place for a new connection: a free one, else the idle connection used least
// recently, which is shut for reading first: a request already in it is still
// answered, and one sent later is refused at once, so that its caller sends it again
// on a new connection instead of losing it. -1 when every place is busy.
int takePlace(bool *handled) {
    for (int i = 0; i < kMaxConns; i++) {
        if (claim(gConns[i], genOf(gConns[i].word.load(std::memory_order_relaxed)), kFree)) return i;
    }
    for (int attempt = 0; attempt < 4; attempt++) {
        int oldest = -1;
        uint32_t when = 0;
        for (int i = 0; i < kMaxConns; i++) {
            const uint32_t w = gConns[i].word.load(std::memory_order_relaxed);
            if (stateOf(w) != kIdle || gConns[i].expires.load(std::memory_order_relaxed)) continue;
            const uint32_t used = gConns[i].lastUsed.load(std::memory_order_relaxed);
            if (oldest < 0 || static_cast<int32_t>(used - when) < 0) {
                oldest = i;
                when = used;
            }
        }
        if (oldest < 0) return -1;
        Conn &c = gConns[oldest];
        if (!claim(c, genOf(c.word.load(std::memory_order_relaxed)), kIdle)) continue;
        shutdown(c.fd, SHUT_RD);
        if (serveConn(oldest, true, kConnected)) *handled = true;
        if (claim(c, genOf(c.word.load(std::memory_order_relaxed)), kFree)) return oldest;
    }
    return -1;
}

// Accepts every waiting connection; true when a request was answered on the way.
bool acceptAll() {
    bool handled = false;
    for (;;) {
        int fd = accept4(gListenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK && debugFlagGet(kImiLogMid))
                debugPrintf(kImiLogMid, "accept: %s\n", strerror(errno));
            return handled;
        }
        QxImiCaller peer{};
        if (!peerCredentials(fd, &peer) || !admitted(peer)) {
            if (debugFlagGet(kImiLogMid))
                debugPrintf(kImiLogMid, "refused a connection of process %d (uid %d, gid %d)\n", peer.pid,
                            peer.uid, peer.gid);
            refuse(fd);
            handled = true;
            continue;
        }
        const int slot = takePlace(&handled);
        if (slot < 0) {
            close(fd);
            continue;
        }
        Conn &c = gConns[slot];
        c.fd = fd;
        c.peer = peer;
        c.lastUsed.store(stamp(nowMs()), std::memory_order_relaxed);
        if (!arm(c, slot, EPOLLIN, true) && serveConn(slot, false, kUnknown)) handled = true;
    }
}

// Drops connections whose request or reply ran out of time; one thread at a time.
void sweepIfDue() {
    if (gTimed.load(std::memory_order_relaxed) == 0) return;
    const int64_t now = nowMs();
    uint32_t next = gNextSweep.load(std::memory_order_relaxed);
    if ((next && !reached(now, next)) || !gNextSweep.compare_exchange_strong(next, stamp(now + kSweepMs)))
        return;
    for (Conn &c : gConns) {
        const uint32_t expires = c.expires.load(std::memory_order_relaxed);
        if (!expires || !reached(now, expires)) continue;
        if (!claim(c, genOf(c.word.load(std::memory_order_relaxed)), kIdle)) continue;
        if (debugFlagGet(kImiLogMid))
            debugPrintf(kImiLogMid, "dropped process %d: its request or reply took too long\n", c.peer.pid);
        closeConn(c);
    }
}

// ---- serving loop ----

enum { kServed = 1, kNothing = 0, kStop = 2, kIdleOut = 3, kFailed = -1 };

// Waits up to timeoutMs (-1: no limit) for one readiness and handles it. A
// background thread counts as waiting for work only until it has one; *spare: another
// background thread was waiting too, so this one was not needed for it.
int serveWait(int timeoutMs, bool background, bool *spare) {
    if (gTimed.load(std::memory_order_relaxed) && (timeoutMs < 0 || timeoutMs > kSweepMs))
        timeoutMs = kSweepMs;
    epoll_event ev{};
    if (background) gIdle.fetch_add(1, std::memory_order_relaxed);
    int n = epoll_wait(gEpfd, &ev, 1, timeoutMs);
    if (background) *spare = gIdle.fetch_sub(1, std::memory_order_relaxed) > 1;
    sweepIfDue();
    if (n < 0) return errno == EINTR ? kNothing : kFailed;
    if (n == 0) return kIdleOut;
    if (ev.data.u64 == kTagWake) return kStop;
    if (ev.data.u64 == kTagListen) return acceptAll() ? kServed : kNothing;
    const int slot = static_cast<int>(static_cast<uint32_t>(ev.data.u64)) - 1;
    const uint32_t gen = static_cast<uint32_t>(ev.data.u64 >> 32) & kGenMask;
    if (slot < 0 || slot >= kMaxConns) return kNothing;
    Conn &c = gConns[slot];
    for (;;) {
        uint32_t w = c.word.load(std::memory_order_acquire);
        if (genOf(w) != gen) return kNothing;
        if (stateOf(w) == kIdle) {
            if (c.word.compare_exchange_weak(w, word(gen, kBusy), std::memory_order_acquire)) break;
        } else if (stateOf(w) == kBusy) {
            // Its holder is arming it: tell it to look again.
            if (c.word.compare_exchange_weak(w, word(gen, kBusyAgain), std::memory_order_relaxed))
                return kNothing;
        } else {
            return kNothing;
        }
    }
    const Hangup hangup = ev.events & (EPOLLRDHUP | EPOLLHUP) ? kHungUp : kConnected;
    return serveConn(slot, false, hangup) ? kServed : kNothing;
}

void teardown();

// Leaves the serving loop; the last one out after a stop from a handler tears down.
void leave(bool background) {
    pthread_mutex_lock(&gLock);
    if (background) {
        gThreads--;
    } else {
        gInServe--;
    }
    if (gTeardownPending && gThreads == 0 && gInServe == 0) teardown();
    pthread_cond_broadcast(&gCond);
    pthread_mutex_unlock(&gLock);
}

void *serverThread(void *) {
    tServes = true;
    int64_t neededAt = nowMs();
    for (;;) {
        // The first thread waits as long as it takes. The others end once none of them
        // was needed for a while: a thread that takes work while another waits idle
        // could have been spared, and the kernel hands work to the waiting threads in
        // turn, which would keep every one of them busy enough to stay for good.
        pthread_mutex_lock(&gLock);
        const bool extra = gThreads > 1;
        pthread_mutex_unlock(&gLock);
        bool spare = false;
        const int rc = serveWait(extra ? kRetireMs : -1, true, &spare);
        if (rc == kStop) break;
        if (rc == kFailed) poll(nullptr, 0, 10);
        if (rc != kIdleOut && !spare) neededAt = nowMs();
        if (!extra || nowMs() - neededAt < kRetireMs) continue;
        pthread_mutex_lock(&gLock);
        const bool retire = gThreads > 1 && !gStopping;
        if (retire) {
            gThreads--;
            pthread_cond_broadcast(&gCond);
        }
        pthread_mutex_unlock(&gLock);
        if (retire) return nullptr;
    }
    leave(true);
    return nullptr;
}

// Starts one more background thread; gLock held.
bool startThread() {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, kThreadStack);
    pthread_t t;
    const bool ok = pthread_create(&t, &attr, serverThread, nullptr) == 0;
    pthread_attr_destroy(&attr);
    if (ok) gThreads++;
    return ok;
}

// A background thread about to run a handler: when no other is waiting for work,
// one more is started, so that a handler that waits long never holds up the others.
void maybeAddThread() {
    if (gIdle.load(std::memory_order_relaxed) > 0) return;
    pthread_mutex_lock(&gLock);
    if (!gStopping && gThreads < gMaxThreads && gIdle.load(std::memory_order_relaxed) == 0) startThread();
    pthread_mutex_unlock(&gLock);
}

// ---- socket and epoll set ----

void closeListener() {
    if (gListenFd >= 0 && gListenPid == getpid()) unlink(gSocketPath);
    for (int *fd : {&gListenFd, &gEpfd, &gWakeFd}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
    gListenPid = 0;
}

// Closes everything serving opened; gLock held, nobody inside the loop.
void teardown() {
    for (Conn &c : gConns) {
        if (c.fd >= 0) closeConn(c);
    }
    closeListener();
    // Background serving ends with the stop: serving again takes a new start, and a
    // process that serves on its own afterwards gets no threads it did not ask for.
    gMaxThreads = 0;
    gStopping = false;
    gTeardownPending = false;
    gIdle.store(0, std::memory_order_relaxed);
}

void removeSocketAtExit() {
    if (gListenFd >= 0 && gListenPid == getpid()) unlink(gSocketPath);
}

bool addToSet(int fd, uint64_t tag) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = tag;
    return epoll_ctl(gEpfd, EPOLL_CTL_ADD, fd, &ev) == 0;
}

// Opens the socket and the epoll set once; gLock held. The epoll set's descriptor,
// or -1.
int listenLocked() {
    if (gEpfd >= 0) return gEpfd;
    sockaddr_un addr;
    const int pid = getpid();
    if (socketAddress(pid, true, &addr) != 0) return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    // A file of our pid can only be left by a dead process that had it before.
    unlink(addr.sun_path);
    pthread_mutex_lock(&gCheckLock);
    const bool open = gCheck != nullptr;
    pthread_mutex_unlock(&gCheckLock);
    // Nobody can connect before listen(), so the mode is right before the first caller.
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        setSocketMode(addr.sun_path, open) != 0 || listen(fd, 128) != 0) {
        close(fd);
        return -1;
    }
    memcpy(gSocketPath, addr.sun_path, sizeof gSocketPath);
    gListenFd = fd;
    gListenPid = pid;
    gEpfd = epoll_create1(EPOLL_CLOEXEC);
    gWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (gEpfd < 0 || gWakeFd < 0 || !addToSet(gListenFd, kTagListen) || !addToSet(gWakeFd, kTagWake)) {
        closeListener();
        return -1;
    }
    if (!gAtExitSet) gAtExitSet = atexit(removeSocketAtExit) == 0;
    return gEpfd;
}

// A forked child has its own pid and no serving thread: it must not answer on the
// parent's socket or connections, nor think that a thread serves it, nor share the
// calling thread's connections with the parent.
void resetInChild() {
    notePid();
    gLock = PTHREAD_MUTEX_INITIALIZER;
    gCond = PTHREAD_COND_INITIALIZER;
    gCheckLock = PTHREAD_MUTEX_INITIALIZER;
    resetRegistryInChild();
    resetCallsInChild();
    for (Conn &c : gConns) {
        if (c.fd < 0) continue;
        close(c.fd);
        c.fd = -1;
        free(c.in);
        free(c.out);
        c.in = c.out = nullptr;
        c.inLen = c.inCap = c.outLen = c.outOff = 0;
        c.expires.store(0);
        c.word.store(word(genOf(c.word.load()) + 1, kFree));
    }
    for (int *fd : {&gListenFd, &gEpfd, &gWakeFd}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
    gListenPid = 0;
    gBuffered.store(0);
    gTimed.store(0);
    gIdle.store(0);
    gThreads = gInServe = 0;
    gStopping = gTeardownPending = false;
    tServes = false;
    tServing = nullptr;
}

__attribute__((constructor)) void installForkHandler() {
    notePid();
    pthread_atfork(nullptr, nullptr, resetInChild);
}

}  // namespace

const ServingContext *currentServing() {
    return tServing;
}

int runHandler(const Handler &h, QxRpcPara *set, const ServingContext &ctx) {
    const ServingContext *outer = tServing;
    tServing = &ctx;
    const int rc = h.fn(set, h.user);
    tServing = outer;
    return rc;
}

int selfPid() {
    return __atomic_load_n(&gSelfPid, __ATOMIC_RELAXED);
}

}  // namespace kep_pf

using namespace kep_pf;

PF_API int qxImiCaller(QxImiCaller *caller) {
    if (!caller || !tServing) return -1;
    *caller = tServing->caller;
    return 0;
}

PF_API void qxImiSetPeerCheck(QxImiPeerCheck check, void *user) {
    pthread_mutex_lock(&gCheckLock);
    gCheck = check;
    gCheckUser = user;
    pthread_mutex_unlock(&gCheckLock);
    pthread_mutex_lock(&gLock);
    if (gListenFd >= 0) setSocketMode(gSocketPath, check != nullptr);
    pthread_mutex_unlock(&gLock);
}

PF_API int qxImiListen(void) {
    pthread_mutex_lock(&gLock);
    const int fd = gStopping ? -1 : listenLocked();
    pthread_mutex_unlock(&gLock);
    return fd;
}

PF_API int qxImiServeOnce(int timeoutMs) {
    pthread_mutex_lock(&gLock);
    const bool ok = !gStopping && listenLocked() >= 0;
    if (ok) gInServe++;
    pthread_mutex_unlock(&gLock);
    if (!ok) return QXRPC_ERR_IO;
    const bool outer = tServes;
    tServes = true;
    const int64_t until = timeoutMs < 0 ? -1 : nowMs() + timeoutMs;
    int result = 0;
    for (;;) {
        int wait = -1;
        if (until >= 0) {
            const int64_t left = until - nowMs();
            wait = left > 0 ? static_cast<int>(left) : 0;
        }
        bool spare = false;
        const int rc = serveWait(wait, false, &spare);
        if (rc == kServed || rc == kStop || rc == kFailed) {
            result = rc == kServed ? 1 : rc == kFailed ? QXRPC_ERR_IO : 0;
            break;
        }
        if (until >= 0 && nowMs() >= until) break;
    }
    tServes = outer;
    leave(false);
    return result;
}

PF_API int qxImiStartServerThreads(int maxThreads) {
    if (maxThreads < 1) return -1;
    pthread_mutex_lock(&gLock);
    int rc = -1;
    if (!gStopping && listenLocked() >= 0) {
        gMaxThreads = maxThreads;
        rc = gThreads > 0 || startThread() ? 0 : -1;
    }
    pthread_mutex_unlock(&gLock);
    return rc;
}

PF_API int qxImiStartServer(void) {
    return qxImiStartServerThreads(1);
}

PF_API void qxImiStopServer(void) {
    pthread_mutex_lock(&gLock);
    if (gEpfd < 0 || gTeardownPending) {
        pthread_mutex_unlock(&gLock);
        return;
    }
    gStopping = true;
    // Never read: it stays readable, so every waiting thread sees it.
    const uint64_t one = 1;
    if (write(gWakeFd, &one, sizeof one) < 0) {
        // The counter cannot overflow from one write; nothing else can fail here.
    }
    if (tServes) {
        // A handler stopping its own server: the last thread out tears down.
        gTeardownPending = true;
    } else {
        while (gThreads > 0 || gInServe > 0) pthread_cond_wait(&gCond, &gLock);
        teardown();
    }
    pthread_mutex_unlock(&gLock);
}
