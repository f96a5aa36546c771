// The owner and the host: registering whenever a host runs (one that started after
// the owner or restarted knows nothing of it), sending the change notifications the
// served requests asked for, and the owner's main loop.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "kep_host.h"
#include "owner_internal.h"

namespace kep_owner {
namespace {

int gWake[2] = {-1, -1};
volatile sig_atomic_t gStop;
int gTrimWanted;
bool gStarted;

// The host the registrations went to (read by the serving threads too), and the one
// whose refusal was last reported.
int gHostRegistered;
int gHostReported;
time_t gRetryAt;

void wake() {
    if (gWake[1] >= 0 && write(gWake[1], "x", 1) < 0) {
        // Full: a wake-up is waiting already.
    }
}

void onSignal(int) {
    const int saved = errno;
    gStop = 1;
    wake();
    errno = saved;
}

// Notifications wait until the call that asked for them has been answered: the host
// is still inside that request.
constexpr int kPending = 32;
pthread_mutex_t gPendingLock = PTHREAD_MUTEX_INITIALIZER;
char gPending[kPending][kPathSize];
int gPendingCount;
bool gPendingLost;

void flushNotifications() {
    char paths[kPending][kPathSize];
    pthread_mutex_lock(&gPendingLock);
    const int n = gPendingCount;
    memcpy(paths, gPending, sizeof paths[0] * static_cast<size_t>(n));
    gPendingCount = 0;
    const bool lost = gPendingLost;
    gPendingLost = false;
    pthread_mutex_unlock(&gPendingLock);
    if (lost) fprintf(stderr, "kep owner: more changes than notifications queued: some were not sent\n");
    for (int i = 0; i < n; i++) {
        const int rc = kepHostNotify(paths[i]);
        if (rc != 0) fprintf(stderr, "kep owner: notifying %s failed: %d\n", paths[i], rc);
    }
}

struct Registration {
    const char *op;
    const char *path;
    int index;
    const char *cb;
};

// Sends one registration; false (and says so, once per host) when refused.
bool send(const Registration &r, int host) {
    const int rc = kepHostRegister(r.op, r.path, r.index, r.cb);
    if (rc == 0) return true;
    if (gHostReported != host)
        fprintf(stderr, "kep owner: the host (pid %d) refused %s %s: %d\n", host, r.op, r.path ? r.path : "",
                rc);
    return false;
}

// Calls sink with every registration the host is to have; whether all were taken.
template <typename Sink>
bool eachRegistration(Sink sink) {
    static const int kMethods[] = {KEP_METHOD_GET, KEP_METHOD_SET, KEP_METHOD_ADD, KEP_METHOD_DELETE};
    bool ok = true, stored = false;
    for (int i = 0; i < entryCount(); i++) {
        const Entry &e = entries()[i];
        int methods = 0;
        switch (e.kind) {
            case Kind::kList:
                methods = 4;
                break;
            case Kind::kSection:
                methods = 2;
                break;
            case Kind::kSections:
            case Kind::kDynamic:
                methods = 1;
                break;
            case Kind::kAction:
                ok &= sink(Registration{"action", e.path, 0, e.cb[4]});
                break;
            case Kind::kListen:
                ok &= sink(Registration{"notify", e.path, 0, e.cb[4]});
                break;
        }
        for (int m = 0; m < methods; m++)
            ok &= sink(Registration{"method", e.path, kMethods[m], e.cb[kMethods[m]]});
        stored |= e.kind == Kind::kList || e.kind == Kind::kSection;
    }
    if (stored) ok &= sink(Registration{"reset", nullptr, 0, "kep.reset"});
    return ok;
}

bool sendRegistrations(int host) {
    return eachRegistration([host](const Registration &r) { return send(r, host); });
}

// A registration in this process's own tree, as the host applies it to its own: its
// requests then call this process's handlers. Listening and the factory reset stay the
// host's business.
bool applyHere(const Registration &r) {
    const int pid = static_cast<int>(getpid());
    int rc = 0;
    if (strcmp(r.op, "method") == 0) {
        rc = registerMethodCb(r.path, r.index, r.cb, pid);
    } else if (strcmp(r.op, "action") == 0) {
        // "/module/action": a service of the model description, else an action of the module.
        const char *action = strchr(r.path + 1, '/');
        char module[kPathSize];
        snprintf(module, sizeof module, "%.*s", static_cast<int>(action - r.path - 1), r.path + 1);
        rc = registerAction(module, action + 1, r.cb, pid);
        if (rc != 0) rc = registerMethodCb(r.path, KEP_METHOD_ACTION, r.cb, pid);
    }
    if (rc != 0) fprintf(stderr, "kep owner: cannot serve %s in this process: %d\n", r.path, rc);
    return rc == 0;
}

// Registers with the running host unless it has this owner's registrations already.
// A refusal is tried again every few seconds (the process holding a slot may end)
// and reported once per host.
void registerWithHost() {
    const int host = kepHostPid();
    if (host <= 0 || host == gHostRegistered) return;
    const time_t now = time(nullptr);
    if (host == gHostReported && now < gRetryAt) return;
    // A host holds its pid file before it serves: one that does not answer yet is
    // asked again at the next poll, not taken for one that refused.
    char *pong = nullptr;
    const bool answers = kepHostFetch("kepd.ping", &pong) == 0;
    free(pong);
    if (!answers) return;
    if (gHostRegistered > 0)
        fprintf(stderr, "kep owner: a new host runs (pid %d): registering again\n", host);
    if (sendRegistrations(host)) {
        __atomic_store_n(&gHostRegistered, host, __ATOMIC_RELAXED);
        return;
    }
    gHostReported = host;
    gRetryAt = now + 5;
}

}  // namespace

int registeredHost() {
    return __atomic_load_n(&gHostRegistered, __ATOMIC_RELAXED);
}

void notifyLater(const char *path) {
    pthread_mutex_lock(&gPendingLock);
    bool queued = false;
    for (int i = 0; i < gPendingCount; i++) queued |= strcmp(gPending[i], path) == 0;
    if (!queued && gPendingCount < kPending)
        snprintf(gPending[gPendingCount++], kPathSize, "%s", path);
    else if (!queued)
        gPendingLost = true;
    pthread_mutex_unlock(&gPendingLock);
    wake();
}

void trimLater() {
    __atomic_store_n(&gTrimWanted, 1, __ATOMIC_RELAXED);
}

}  // namespace kep_owner

using namespace kep_owner;

extern "C" {

int kepOwnerStart(void) {
    if (gStarted) return 0;
    if (entryCount() == 0) {
        fprintf(stderr, "kep owner: nothing described to own\n");
        return -1;
    }
    // The wake-up exists before any handler can ask for it.
    if (gWake[0] < 0 && pipe2(gWake, O_CLOEXEC | O_NONBLOCK) != 0) return -1;
    if (loadOwnedFiles() != 0) return -1;
    if (registerHandlers() != 0) {
        fprintf(stderr, "kep owner: cannot register the RPC handlers\n");
        return -1;
    }
    // Serving first: the host may call as soon as the first registration lands.
    if (qxImiStartServer() != 0) {
        fprintf(stderr, "kep owner: cannot serve the RPC\n");
        return -1;
    }
    gStarted = true;
    registerWithHost();
    return 0;
}

int kepOwnerServeHere(void) {
    if (!gStarted) return -1;
    return eachRegistration(applyHere) ? 0 : -1;
}

int kepOwnerPoll(int timeoutMs) {
    char drain[64];
    struct pollfd p = {gWake[0], POLLIN, 0};
    if (!gStarted) return 1;
    if (!gStop && poll(&p, 1, timeoutMs) > 0) {
        while (read(gWake[0], drain, sizeof drain) > 0) {
        }
    }
    flushNotifications();
    registerWithHost();
#ifdef __GLIBC__
    if (__atomic_exchange_n(&gTrimWanted, 0, __ATOMIC_RELAXED)) malloc_trim(0);
#endif
    return gStop ? 1 : 0;
}

void kepOwnerStop(void) {
    if (!gStarted) return;
    qxImiStopServer();
    flushNotifications();
    if (gHostRegistered > 0 && kepHostPid() == gHostRegistered)
        kepHostRegister("unregister", nullptr, 0, nullptr);
    __atomic_store_n(&gHostRegistered, 0, __ATOMIC_RELAXED);
    gStarted = false;
}

int kepOwnerRun(const char *name) {
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = onSignal;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    if (!name) name = "owner";
    if (kepOwnerStart() != 0) {
        fprintf(stderr, "%s: cannot start\n", name);
        return 1;
    }
    fprintf(stderr, "%s: serving as pid %d\n", name, static_cast<int>(getpid()));
    while (kepOwnerPoll(250) == 0) {
    }
    kepOwnerStop();
    fprintf(stderr, "%s: stopped\n", name);
    return 0;
}

}  // extern "C"
