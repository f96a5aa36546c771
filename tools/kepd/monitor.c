/* Watchers of the host's traffic: see monitor.h. */
#define _GNU_SOURCE
#include "monitor.h"

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <json-c/json.h>

#include "kep_host.h"
#include "kepd.h"
#include "runtime.h"

enum {
    LINE_MAX_BYTES = 65536, /* a verbose line is cut here: one packet each */
    SEND_BUFFER = 262144,   /* what a watcher may fall behind by before lines are dropped */
    MODULES_MAX = 256
};

typedef struct Watcher {
    int fd; /* -1: free */
    int verbose;
    unsigned long dropped;
    char modules[MODULES_MAX]; /* ",a,b,": empty for all */
} Watcher;

static Watcher gWatchers[MONITOR_MAX_WATCHERS] = {
    {-1, 0, 0, ""}, {-1, 0, 0, ""}, {-1, 0, 0, ""}, {-1, 0, 0, ""},
    {-1, 0, 0, ""}, {-1, 0, 0, ""}, {-1, 0, 0, ""}, {-1, 0, 0, ""},
};
static int gActive; /* watchers in use; read without the lock */
static pthread_mutex_t gLock = PTHREAD_MUTEX_INITIALIZER;

int monitorActive(void) {
    return __atomic_load_n(&gActive, __ATOMIC_RELAXED) != 0;
}

int monitorWatch(const QxImiCaller *caller, const char *path, const char *modules, int verbose) {
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    if (!path || strlen(path) >= sizeof addr.sun_path || (modules && strlen(modules) + 3 > MODULES_MAX))
        return QXRPC_ERR_ARG;
    strcpy(addr.sun_path, path);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return QXRPC_ERR_IO;
    /* Only the caller's own socket: whoever listens at path must be the very process
     * that asked, so no client can point the host at another user's socket. */
    struct ucred peer;
    socklen_t len = sizeof peer;
    if (connect(fd, (struct sockaddr *)&addr, sizeof addr) != 0 ||
        getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) != 0 || (int)peer.pid != caller->pid ||
        (int)peer.uid != caller->uid) {
        kepdLog("refused a monitor for pid %d: %s is not its own socket", caller->pid, path);
        close(fd);
        return KEP_HOST_ERR_DENIED;
    }
    int size = SEND_BUFFER;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);

    pthread_mutex_lock(&gLock);
    Watcher *w = NULL;
    for (int i = 0; i < MONITOR_MAX_WATCHERS && !w; i++)
        if (gWatchers[i].fd < 0) w = &gWatchers[i];
    if (w) {
        w->fd = fd;
        w->verbose = verbose;
        w->dropped = 0;
        w->modules[0] = '\0';
        if (modules && *modules) snprintf(w->modules, sizeof w->modules, ",%s,", modules);
        runtimeWatchers(__atomic_add_fetch(&gActive, 1, __ATOMIC_RELAXED));
    }
    pthread_mutex_unlock(&gLock);
    if (!w) {
        close(fd);
        return KEP_HOST_ERR_LIMIT;
    }
    kepdLog("pid %d watches the requests%s%s", caller->pid, w->modules[0] ? " of " : "",
            modules && *modules ? modules : "");
    return 0;
}

/* The method and the module names of a request, comma-separated with commas around. */
static void describe(const char *request, char *method, size_t methodSize, char *names, size_t namesSize) {
    json_object *req = request ? json_tokener_parse(request) : NULL;
    size_t used = 0;
    snprintf(method, methodSize, "?");
    names[0] = '\0';
    if (!json_object_is_type(req, json_type_object)) {
        json_object_put(req);
        return;
    }
    json_object_object_foreach(req, key, value) {
        if (strcmp(key, "method") == 0) {
            snprintf(method, methodSize, "%s", json_object_get_string(value));
        } else if (json_object_is_type(value, json_type_object) && used + strlen(key) + 2 < namesSize) {
            used += (size_t)snprintf(names + used, namesSize - used, "%s%s,", used ? "" : ",", key);
        }
    }
    json_object_put(req);
}

/* A text a client chose, fit for one line of one field: printable, no spaces, cut at size. */
static void fieldOf(const char *text, char *out, size_t size) {
    size_t n = 0;
    for (const unsigned char *p = (const unsigned char *)text; p && *p && n + 1 < size; p++)
        out[n++] = *p > ' ' && *p < 0x7f ? (char)*p : '?';
    out[n] = '\0';
}

static int codeOf(const char *response) {
    const char *at = response ? strstr(response, "\"error_code\":") : NULL;
    return at ? atoi(at + 13) : -1;
}

/* Whether a watcher's filter takes a request that names these modules. */
static int wanted(const Watcher *w, const char *names) {
    if (!w->modules[0]) return 1;
    for (const char *p = names; *p;) {
        const char *end = strchr(p + 1, ',');
        if (!end) break;
        char one[MODULES_MAX];
        snprintf(one, sizeof one, "%.*s", (int)(end - p + 1), p);
        if (strstr(w->modules, one)) return 1;
        p = end;
    }
    return 0;
}

void monitorRequest(const QxImiCaller *caller, const char *user, const char *request, const char *response,
                    long micros) {
    char method[16], names[512], line[LINE_MAX_BYTES], stamp[16], who[80] = "";
    struct timespec now;
    struct tm tm;
    describe(request, method, sizeof method, names, sizeof names);
    fieldOf(method, method, sizeof method);
    fieldOf(names, names, sizeof names);
    if (user && *user) {
        char name[KEP_MONITOR_USER_MAX + 1];
        fieldOf(user, name, sizeof name);
        snprintf(who, sizeof who, " user %s", name);
    }
    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &tm);
    strftime(stamp, sizeof stamp, "%H:%M:%S", &tm);
    size_t n = strlen(names);
    if (n) names[n - 1] = '\0'; /* the trailing comma: the line shows "a,b" */
    int base = snprintf(line, sizeof line, "%s.%03ld pid %d uid %d%s %s %s error_code %d %ld us", stamp,
                        now.tv_nsec / 1000000, caller->pid, caller->uid, who, method, n ? names + 1 : "-",
                        codeOf(response), micros);
    if (n) names[n - 1] = ',';

    pthread_mutex_lock(&gLock);
    for (int i = 0; i < MONITOR_MAX_WATCHERS; i++) {
        Watcher *w = &gWatchers[i];
        if (w->fd < 0 || !wanted(w, names)) continue;
        int len = base;
        if (w->dropped)
            len += snprintf(line + len, sizeof line - len, " (%lu lines dropped before)", w->dropped);
        if (w->verbose)
            len += snprintf(line + len, sizeof line - len, "\n  request:  %s\n  response: %s",
                            request ? request : "", response ? response : "");
        if (len >= (int)sizeof line) len = sizeof line - 1;
        /* Never waits: a full watcher loses the line, a gone one its place. */
        if (send(w->fd, line, (size_t)len, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            w->dropped = 0;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS) {
            w->dropped++;
        } else {
            close(w->fd);
            w->fd = -1;
            runtimeWatchers(__atomic_sub_fetch(&gActive, 1, __ATOMIC_RELAXED));
        }
        line[base] = '\0';
    }
    pthread_mutex_unlock(&gLock);
}
