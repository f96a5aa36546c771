/* Client side of the host daemon's RPC handlers. */
#define _POSIX_C_SOURCE 200809L
#include "kep_host.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "kep_pf_rpc.h"

const char *kepHostPidFile(void) {
    static char path[512];
    char dir[256];
    const char *env = getenv("KEPD_PIDFILE");
    if (env && *env) return env;
    qxImiRuntimeDir(dir, sizeof dir);
    snprintf(path, sizeof path, "%s/kepd.pid", dir);
    return path;
}

int kepHostPid(void) {
    int fd = open(kepHostPidFile(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    struct flock lk;
    char text[32] = "";
    int pid = -1;
    if (fd < 0) return -1;
    /* The host holds a write lock on the file while it runs; testing it takes none, so
     * a client never stands in a starting host's way, and a file left by a host that
     * died names nobody. */
    memset(&lk, 0, sizeof lk);
    lk.l_type = F_RDLCK;
    lk.l_whence = SEEK_SET;
    if (fcntl(fd, F_GETLK, &lk) == 0 && lk.l_type != F_UNLCK) {
        pid = (int)lk.l_pid;
        /* In another pid namespace the lock names no pid: the file's text does. */
        if (pid <= 0 && pread(fd, text, sizeof text - 1, 0) > 0) pid = atoi(text);
    }
    close(fd);
    return pid > 0 ? pid : -1;
}

/* The host's pid as last read, so that a request costs no file read; 0: not read. */
static int gHostPid;

/* Runs handler with the members already in set; 0 with the host's answer in set.
 * *answered: 1 when the host answered, whatever its "errorCode". */
static int call(const char *handler, QxRpcPara *set, int *answered) {
    int pid = __atomic_load_n(&gHostPid, __ATOMIC_RELAXED);
    int code = 0;
    int rc;
    *answered = 0;
    if (pid <= 0) pid = kepHostPid();
    if (pid < 0) return QXRPC_ERR_NO_PEER;
    __atomic_store_n(&gHostPid, pid, __ATOMIC_RELAXED);
    rc = qxImiExecute(pid, handler, 0, 0, set);
    /* Nobody (or no host) served that pid, so nothing ran: a host started since has
     * written another pid, and the request may go there. */
    if (rc == QXRPC_ERR_NO_PEER || rc == QXRPC_ERR_NO_HANDLER) {
        int now = kepHostPid();
        __atomic_store_n(&gHostPid, now > 0 ? now : 0, __ATOMIC_RELAXED);
        if (now > 0 && now != pid) rc = qxImiExecute(now, handler, 0, 0, set);
    }
    if (rc != 0) return rc;
    *answered = 1;
    if (qxrpcGetInt(set, "errorCode", &code) != 0) return -1500;
    return code;
}

/* The host's "cause", malloc'd, into *cause; NULL when it gave none. */
static void fetchCause(QxRpcPara *set, char **cause) {
    char *text = NULL;
    if (!cause) return;
    if (qxrpcGetStringPtr(set, "cause", &text) == 0 && text) *cause = strdup(text);
}

static int fetchResult(QxRpcPara *set, char **text) {
    char *result = NULL;
    qxrpcGetStringPtr(set, "result", &result);
    *text = strdup(result ? result : "");
    return *text ? 0 : QXRPC_ERR_NOMEM;
}

static int hostRequest(const char *user, const char *request, char **response, char **cause) {
    QxRpcPara set;
    int rc, answered;
    *response = NULL;
    if (cause) *cause = NULL;
    qxrpcParaInit(&set);
    rc = qxrpcAddStringPtr(&set, "para", request);
    if (rc == 0 && user && *user) rc = qxrpcAddStringPtr(&set, "user", user);
    if (rc == 0) rc = call("kepd.request", &set, &answered);
    if (rc == 0) rc = fetchResult(&set, response);
    if (rc == 0) fetchCause(&set, cause);
    qxrpcParaFree(&set);
    return rc;
}

int kepHostRequestEx(const char *request, char **response, char **cause) {
    return hostRequest(NULL, request, response, cause);
}

int kepHostRequest(const char *request, char **response) {
    return hostRequest(NULL, request, response, NULL);
}

int kepHostRequestFor(const char *user, const char *request, char **response) {
    return hostRequest(user, request, response, NULL);
}

int kepHostApply(const char *user, const char *changes, int confirmSeconds, char **answer) {
    QxRpcPara set;
    int rc, answered;
    *answer = NULL;
    qxrpcParaInit(&set);
    rc = qxrpcAddStringPtr(&set, "para", changes);
    if (rc == 0 && confirmSeconds) rc = qxrpcAddInt(&set, "confirm", confirmSeconds);
    if (rc == 0 && user && *user) rc = qxrpcAddStringPtr(&set, "user", user);
    if (rc == 0) rc = call("kepd.apply", &set, &answered);
    if (rc == 0) rc = fetchResult(&set, answer);
    qxrpcParaFree(&set);
    return rc;
}

int kepHostChangeset(const char *handler, const char *user, char **answer) {
    QxRpcPara set;
    int rc = 0, answered;
    *answer = NULL;
    qxrpcParaInit(&set);
    if (user && *user) rc = qxrpcAddStringPtr(&set, "user", user);
    if (rc == 0) rc = call(handler, &set, &answered);
    if (rc == 0) rc = fetchResult(&set, answer);
    qxrpcParaFree(&set);
    return rc;
}

int kepHostRegister(const char *op, const char *path, int index, const char *cb) {
    QxRpcPara set;
    int rc, answered;
    qxrpcParaInit(&set);
    rc = qxrpcAddStringPtr(&set, "op", op);
    if (rc == 0 && path) rc = qxrpcAddStringPtr(&set, "path", path);
    if (rc == 0 && cb) rc = qxrpcAddStringPtr(&set, "cb", cb);
    if (rc == 0) rc = qxrpcAddInt(&set, "index", index);
    if (rc == 0) rc = call("kepd.register", &set, &answered);
    qxrpcParaFree(&set);
    return rc;
}

int kepHostNotify(const char *path) {
    QxRpcPara set;
    int rc, answered;
    qxrpcParaInit(&set);
    rc = qxrpcAddStringPtr(&set, "para", path);
    if (rc == 0) rc = call("kepd.notify", &set, &answered);
    qxrpcParaFree(&set);
    return rc;
}

int kepHostFetchEx(const char *handler, char **text, char **cause, int *answered) {
    QxRpcPara set;
    int rc, was;
    *text = NULL;
    if (cause) *cause = NULL;
    qxrpcParaInit(&set);
    rc = call(handler, &set, &was);
    if (rc == 0) rc = fetchResult(&set, text);
    if (was) fetchCause(&set, cause);
    if (answered) *answered = was;
    qxrpcParaFree(&set);
    return rc;
}

int kepHostFetch(const char *handler, char **text) {
    return kepHostFetchEx(handler, text, NULL, NULL);
}

int kepHostWait(int ms) {
    struct timespec step = {0, 20 * 1000 * 1000};
    for (int waited = 0; waited <= ms; waited += 20) {
        char *dump = NULL;
        if (kepHostFetch("kepd.ping", &dump) == 0) {
            free(dump);
            return 0;
        }
        nanosleep(&step, NULL);
    }
    return -1;
}
