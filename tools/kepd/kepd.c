/*
 * kepd: the reference host daemon.
 *
 * Holds the data module tree built from the model description, lets owner processes
 * register their callbacks, loads the configuration files, and serves client requests
 * by handing their text to the library. One thread: requests are served one at a
 * time, and each blocks while the owner it calls answers (or its time-out passes).
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "kepHandle.h"
#include "kep_host.h"
#include "kep_platform.h"

static volatile sig_atomic_t gStop;

static void onSignal(int sig) {
    (void)sig;
    gStop = 1;
}

static void usage(FILE *out) {
    fprintf(out,
            "usage: kepd [-m MODEL.xml]... [-p PIDFILE]\n"
            "  Loads the model description compiled into the library, merges every -m file,\n"
            "  loads the modules' configuration files and serves requests until SIGTERM.\n"
            "  -m FILE   merge this model description (repeatable)\n"
            "  -p FILE   pid file (default $KEPD_PIDFILE or /tmp/kepd-<uid>.pid)\n"
            "  Debug log: KEP_DEBUG=all (or a list of module ids, e.g. 111).\n");
}

static int writePidFile(const char *path) {
    char tmp[512];
    FILE *f;
    snprintf(tmp, sizeof tmp, "%s.tmp", path);
    f = fopen(tmp, "w");
    if (!f) return -1;
    fprintf(f, "%d\n", (int)getpid());
    if (fclose(f) != 0 || rename(tmp, path) != 0) {
        unlink(tmp);
        return -1;
    }
    return 0;
}

/* ---- registrations of dead owners ---- */

typedef void (*PidVisitor)(const char *path, MethodCbNode **slots, LstList *ver, LstList *not_, void *user);

/* Visits every table and section with its path, slots and verify/notify lists. */
static void walkTree(PidVisitor visit, void *user) {
    char path[128];
    for (DataModule *m = getModulerRoot(); m; m = (DataModule *)lstNext(&m->link)) {
        for (DataTable *t = (DataTable *)lstFirst(&m->tables); t; t = (DataTable *)lstNext(&t->link)) {
            snprintf(path, sizeof path, "/%s/%s", m->name, t->name);
            visit(path, t->methodCb, &t->verList, &t->notList, user);
            for (DataSection *s = (DataSection *)lstFirst(&t->sections); s; s = (DataSection *)lstNext(&s->link)) {
                snprintf(path, sizeof path, "/%s/%s/%s", m->name, t->name, s->name);
                visit(path, s->methodCb, &s->verList, &s->notList, user);
            }
        }
    }
}

static void dropFromList(const char *path, LstList *list, int selector, int pid) {
    VerNotifyNode *n = (VerNotifyNode *)lstFirst(list);
    while (n) {
        if (n->pid == pid) {
            char cb[68];
            memcpy(cb, n->cb, sizeof cb);
            unRegisterVerNotify(path, selector, cb, pid);
            n = (VerNotifyNode *)lstFirst(list);  /* the list changed: start again */
        } else {
            n = (VerNotifyNode *)lstNext(&n->link);
        }
    }
}

static void dropVisitor(const char *path, MethodCbNode **slots, LstList *ver, LstList *not_, void *user) {
    int pid = *(int *)user;
    for (int i = 0; i < 4; i++) {
        if (slots[i] && slots[i]->pid == pid) unRegisterMethodCb(path, i, "", pid);
    }
    dropFromList(path, ver, KEP_SELECT_VERIFY, pid);
    dropFromList(path, not_, KEP_SELECT_NOTIFY, pid);
}

/* Drops every method, verify and notify registration of pid. Actions stay: a restarted
 * owner replaces them by registering again. */
static void dropPid(int pid) { walkTree(dropVisitor, &pid); }

typedef struct PidSet { int pid[64]; int count; } PidSet;

static void addPid(PidSet *set, int pid) {
    if (pid <= 0) return;
    for (int i = 0; i < set->count; i++) {
        if (set->pid[i] == pid) return;
    }
    if (set->count < 64) set->pid[set->count++] = pid;
}

static void collectVisitor(const char *path, MethodCbNode **slots, LstList *ver, LstList *not_, void *user) {
    PidSet *set = (PidSet *)user;
    (void)path;
    for (int i = 0; i < 4; i++) {
        if (slots[i]) addPid(set, slots[i]->pid);
    }
    for (LstNode *n = lstFirst(ver); n; n = lstNext(n)) addPid(set, ((VerNotifyNode *)n)->pid);
    for (LstNode *n = lstFirst(not_); n; n = lstNext(n)) addPid(set, ((VerNotifyNode *)n)->pid);
}

/* Owners' factory-reset callbacks (see onReset). */
typedef struct Resetter { int pid; char cb[68]; } Resetter;
static Resetter gResetters[32];
static int gResetterCount;

static int addResetter(int pid, const char *cb) {
    if (pid <= 0 || !cb || strlen(cb) >= sizeof gResetters[0].cb) return -1;
    for (int i = 0; i < gResetterCount; i++) {
        if (gResetters[i].pid == pid) {
            strcpy(gResetters[i].cb, cb);
            return 0;
        }
    }
    if (gResetterCount >= 32) return -1;
    gResetters[gResetterCount].pid = pid;
    strcpy(gResetters[gResetterCount++].cb, cb);
    return 0;
}

static void dropResetter(int pid) {
    for (int i = 0; i < gResetterCount; i++) {
        if (gResetters[i].pid == pid) gResetters[i--] = gResetters[--gResetterCount];
    }
}

static void pruneDeadOwners(void) {
    PidSet set = {{0}, 0};
    walkTree(collectVisitor, &set);
    for (int i = 0; i < set.count; i++) {
        if (kill(set.pid[i], 0) != 0 && errno == ESRCH) {
            fprintf(stderr, "kepd: owner %d is gone, dropping its registrations\n", set.pid[i]);
            dropPid(set.pid[i]);
        }
    }
    for (int i = 0; i < gResetterCount; i++) {
        if (kill(gResetters[i].pid, 0) != 0 && errno == ESRCH) dropResetter(gResetters[i--].pid);
    }
}

/* ---- RPC handlers ---- */

static const char *member(QxRpcPara *set, const char *name) {
    char *text = NULL;
    return qxrpcGetStringPtr(set, name, &text) == 0 ? text : NULL;
}

static int answer(QxRpcPara *set, int code, const char *result) {
    qxrpcAddInt(set, "errorCode", code);
    if (result) qxrpcAddStringPtr(set, "result", result);
    return 0;
}

static int onRequest(QxRpcPara *set, void *user) {
    const char *request = member(set, "para");
    char *response = NULL;
    int rc;
    (void)user;
    rc = standardKepReqHandle(request, &response);
    if (rc != 0 && !response) makeErrorRspObj(rc, &response);
    answer(set, 0, response ? response : "{\"error_code\":-1}");
    free(response);
    return 0;
}

static int registerAnyAction(const char *path, const char *cb, int pid) {
    char module[32] = "";
    const char *action;
    if (!path || path[0] != '/' || !(action = strchr(path + 1, '/'))) return -1;
    snprintf(module, sizeof module, "%.*s", (int)(action - path - 1), path + 1);
    /* A service of the model description exists already: claim it instead. */
    if (registerAction(module, action + 1, cb, pid) == 0) return 0;
    return registerMethodCb(path, KEP_METHOD_ACTION, cb, pid);
}

static int onRegister(QxRpcPara *set, void *user) {
    const char *op = member(set, "op");
    const char *path = member(set, "path");
    const char *cb = member(set, "cb");
    int index = 0, pid = -1, rc = -1;
    (void)user;
    qxrpcGetInt(set, "index", &index);
    qxrpcGetInt(set, "pid", &pid);
    if (!op) {
        rc = -1;
    } else if (strcmp(op, "method") == 0) {
        rc = registerMethodCb(path, index, cb, pid);
    } else if (strcmp(op, "verify") == 0) {
        rc = registerVerNotify(path, KEP_SELECT_VERIFY, cb, pid);
    } else if (strcmp(op, "notify") == 0) {
        rc = registerVerNotify(path, KEP_SELECT_NOTIFY, cb, pid);
    } else if (strcmp(op, "action") == 0) {
        rc = registerAnyAction(path, cb, pid);
    } else if (strcmp(op, "opr") == 0) {
        OprInterface opr;
        memset(&opr, 0, sizeof opr);
        opr.pid = pid;
        snprintf(opr.cb, sizeof opr.cb, "%s", cb ? cb : "");
        rc = regOprInterface(path, &opr);
    } else if (strcmp(op, "reset") == 0) {
        rc = addResetter(pid, cb);
    } else if (strcmp(op, "unregister") == 0) {
        dropPid(pid);
        dropResetter(pid);
        rc = 0;
    }
    fprintf(stderr, "kepd: register %s %s index %d cb %s pid %d: %d\n", op ? op : "?", path ? path : "-", index,
            cb ? cb : "-", pid, rc);
    return answer(set, rc, NULL);
}

/* Notifications run after the current call is answered: the owner that asks for one
 * waits for this answer, and its listeners may be the very owner that asked. */
static char gPending[16][80];
static int gPendingCount;

static int onNotify(QxRpcPara *set, void *user) {
    const char *path = member(set, "para");
    (void)user;
    if (!path || strlen(path) >= sizeof gPending[0] || gPendingCount >= 16) return answer(set, -1, NULL);
    strcpy(gPending[gPendingCount++], path);
    return answer(set, 0, NULL);
}

static void runNotifications(void) {
    for (int i = 0; i < gPendingCount; i++) notifySecdataChanged(gPending[i]);
    gPendingCount = 0;
}

typedef struct Text { char *data; size_t len, cap; } Text;

static void collectLine(int mid, const char *line, void *user) {
    Text *t = (Text *)user;
    const char *msg = strstr(line, "] ");
    size_t n;
    (void)mid;
    msg = msg ? msg + 2 : line;
    n = strcspn(msg, "\r\n");
    if (t->len + n + 2 > t->cap) {
        size_t cap = (t->cap + n + 2) * 2;
        char *grown = (char *)realloc(t->data, cap);
        if (!grown) return;
        t->data = grown;
        t->cap = cap;
    }
    memcpy(t->data + t->len, msg, n);
    t->len += n;
    t->data[t->len++] = '\n';
    t->data[t->len] = '\0';
}

static int onDump(QxRpcPara *set, void *user) {
    Text text = {NULL, 0, 0};
    int wasOn = debugFlagGet(111);
    (void)user;
    /* The dump goes to the debug log; catch those lines for the caller. */
    debugSetSink(collectLine, &text);
    debugFlagSet(111, 1);
    printDataModuleTree();
    debugFlagSet(111, wasOn);
    debugSetSink(NULL, NULL);
    answer(set, text.data ? 0 : -1, text.data ? text.data : "");
    free(text.data);
    return 0;
}

/* The defaults come from the owners' reset functions, which live in the owners'
 * processes: a factory reset asks every owner that registered a reset callback to
 * reset its own modules (systemResetConfigFile in its process). */

static int onReset(QxRpcPara *set, void *user) {
    int first = 0;
    (void)user;
    for (int i = 0; i < gResetterCount; i++) {
        QxRpcPara call;
        int code = 0;
        qxrpcParaInit(&call);
        int rc = qxImiExecute(gResetters[i].pid, gResetters[i].cb, 0, 0, &call);
        if (rc == 0 && qxrpcGetInt(&call, "errorCode", &code) != 0) rc = -1500;
        if (rc == 0) rc = code;
        qxrpcParaFree(&call);
        fprintf(stderr, "kepd: factory reset of owner %d: %d\n", gResetters[i].pid, rc);
        if (rc != 0 && first == 0) first = rc;
    }
    return answer(set, first, NULL);
}

static int onPing(QxRpcPara *set, void *user) {
    (void)user;
    return answer(set, 0, NULL);
}

int main(int argc, char **argv) {
    const char *pidFile = kepHostPidFile();
    struct sigaction sa;
    time_t lastPrune = 0;
    int opt;

    while ((opt = getopt(argc, argv, "m:p:h")) != -1) {
        if (opt == 'p') {
            pidFile = optarg;
        } else if (opt == 'h') {
            usage(stdout);
            return 0;
        } else if (opt != 'm') {
            usage(stderr);
            return 2;
        }
    }
    if (dataModuleInit() != 0) fprintf(stderr, "kepd: no built-in model description, using -m files only\n");
    for (optind = 1; (opt = getopt(argc, argv, "m:p:h")) != -1;) {
        if (opt == 'm' && kepMergeModelFile(optarg) != 0) return 1;
    }
    if (systemLoadConfigFile() != 0) fprintf(stderr, "kepd: loading the configuration files failed\n");

    memset(&sa, 0, sizeof sa);
    sa.sa_handler = onSignal;
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGINT, &sa, NULL);
    signal(SIGPIPE, SIG_IGN);

    if (qxImiRegister("kepd.request", onRequest, NULL) || qxImiRegister("kepd.register", onRegister, NULL) ||
        qxImiRegister("kepd.notify", onNotify, NULL) || qxImiRegister("kepd.dump", onDump, NULL) ||
        qxImiRegister("kepd.reset", onReset, NULL) || qxImiRegister("kepd.ping", onPing, NULL) ||
        qxImiListen() < 0) {
        fprintf(stderr, "kepd: cannot serve the RPC\n");
        return 1;
    }
    if (writePidFile(pidFile) != 0) {
        fprintf(stderr, "kepd: cannot write %s\n", pidFile);
        return 1;
    }
    fprintf(stderr, "kepd: serving as pid %d with %d modules\n", (int)getpid(), getModuleSize());

    while (!gStop) {
        time_t now = time(NULL);
        if (qxImiServeOnce(500) < 0 && errno != EINTR && !gStop) {
            struct timespec pause = {0, 50 * 1000 * 1000};
            nanosleep(&pause, NULL);
        }
        runNotifications();
        if (now - lastPrune >= 2) {
            pruneDeadOwners();
            lastPrune = now;
        }
    }
    unlink(pidFile);
    fprintf(stderr, "kepd: stopped\n");
    return 0;
}
