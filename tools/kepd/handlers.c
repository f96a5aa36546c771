/* The host's RPC handlers: requests, registrations, notifications, dump, reset. */
#define _GNU_SOURCE
#include "handlers.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <json-c/json.h>

#include "access.h"
#include "changeset.h"
#include "kepHandle.h"
#include "kep_host.h"
#include "kep_platform.h"
#include "kepd.h"
#include "monitor.h"
#include "registry.h"
#include "runtime.h"
#include "tree.h"

static const char *member(QxRpcPara *set, const char *name) {
    char *text = NULL;
    return qxrpcGetStringPtr(set, name, &text) == 0 ? text : NULL;
}

static int answer(QxRpcPara *set, int code, const char *result) {
    qxrpcAddInt(set, "errorCode", code);
    if (result) qxrpcAddStringPtr(set, "result", result);
    return 0;
}

/* The caller of the running handler; kepd only runs handlers for callers. */
static QxImiCaller caller(void) {
    QxImiCaller c = {0, -1, -1};
    qxImiCaller(&c);
    return c;
}

static int denied(QxRpcPara *set, const QxImiCaller *c, const char *what) {
    kepdLog("refused %s from pid %d (uid %d): no access rule lets it", what, c->pid, c->uid);
    return answer(set, KEP_HOST_ERR_DENIED, NULL);
}

/* What an owner call came to, when it failed. */
static void callOutcome(int code, char *out, size_t size) {
    const char *rpc = qxImiStrError(code);
    if (rpc)
        snprintf(out, size, "%s (%d)", rpc, code);
    else if (code == KEP_ERR_NO_ERRORCODE)
        snprintf(out, size, "answered without \"errorCode\" (%d)", code);
    else
        snprintf(out, size, "answered errorCode %d", code);
}

/* "module/name: why", for the log and the client. */
static void describeFailure(const KepCallFailure *f, char *out, size_t size) {
    char why[160];
    if (f->pid == 0 && f->code == KEP_ERR_NO_TABLE)
        snprintf(why, sizeof why, "%s",
                 treeModuleIndex(f->module) < 0 ? "no such module" : "no such table or section");
    else if (f->pid == 0)
        snprintf(why, sizeof why, "no process serves it (its owner is not running or has not registered it)");
    else
        callOutcome(f->code, why, sizeof why);
    if (f->pid == 0)
        snprintf(out, size, "%s/%s: %s", f->module, f->name, why);
    else
        snprintf(out, size, "%s/%s: owner pid %d (callback %s): %s", f->module, f->name, f->pid, f->cb, why);
}

/* The response's "error_code" (-1 when it has none) and the request's method. */
static int outcome(const char *request, const char *response, char *method, size_t size) {
    json_object *rsp = json_tokener_parse(response), *req = request ? json_tokener_parse(request) : NULL;
    json_object *v = NULL;
    int code = json_object_object_get_ex(rsp, "error_code", &v) ? json_object_get_int(v) : -1;
    const char *m = json_object_object_get_ex(req, "method", &v) ? json_object_get_string(v) : NULL;
    snprintf(method, size, "%s", m ? m : "request");
    json_object_put(rsp);
    json_object_put(req);
    return code;
}

static int onRequest(QxRpcPara *set, void *user) {
    QxImiCaller c = caller();
    const char *request = member(set, "para");
    char *response = NULL;
    KepCallFailure failure;
    (void)user;
    if (!accessMaySend(&c)) return denied(set, &c, "a request");
    kepLastCallFailure(NULL);
    const int watched = monitorActive();
    struct timespec start = {0, 0}, end;
    if (watched) clock_gettime(CLOCK_MONOTONIC, &start);
    /* A write to the modules of a change set that is not finished is refused whole. */
    response = changesetEnter(request);
    int rc = 0;
    if (!response) {
        rc = treeRequest(request, &response);
        changesetLeave();
    }
    if (rc != 0 && !response) makeErrorRspObj(rc, &response);
    const char *text = response ? response : "{\"error_code\":-1}";
    answer(set, 0, text);
    if (watched) {
        clock_gettime(CLOCK_MONOTONIC, &end);
        monitorRequest(&c, member(set, "user"), request, text,
                       (end.tv_sec - start.tv_sec) * 1000000L + (end.tv_nsec - start.tv_nsec) / 1000);
    }
    /* Only a failed request has a cause worth telling: the record is looked at, and the
     * texts parsed, on that path alone. */
    if (kepLastCallFailure(&failure)) {
        char method[16], cause[512];
        int code = outcome(request, text, method, sizeof method);
        if (code != 0) {
            describeFailure(&failure, cause, sizeof cause);
            kepdLog("%s from pid %d: error_code %d: %s", method, c.pid, code, cause);
            qxrpcAddStringPtr(set, "cause", cause);
        }
    }
    free(response);
    return 0;
}

static int onRegister(QxRpcPara *set, void *user) {
    QxImiCaller c = caller();
    const char *op = member(set, "op"), *path = member(set, "path"), *cb = member(set, "cb");
    int index = 0;
    (void)user;
    qxrpcGetInt(set, "index", &index);
    int rc = registryApply(&c, op, path, index, cb);
    if (rc >= -1)
        kepdLog("register %s %s index %d cb %s pid %d: %d", op ? op : "?", path ? path : "-", index,
                cb ? cb : "-", c.pid, rc);
    return answer(set, rc, NULL);
}

/* ---- notifications: run after the call that asked for them has been answered,
 * since the owner that asks waits for this answer and may itself be a listener ---- */

static pthread_mutex_t gNotifyLock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t gNotifyCond = PTHREAD_COND_INITIALIZER;
static char gPending[KEPD_MAX_NOTIFICATIONS][128];
static int gPendingCount;
static int gNotifierStop;
static pthread_t gNotifier;

static int onNotify(QxRpcPara *set, void *user) {
    QxImiCaller c = caller();
    const char *path = member(set, "para");
    DataTable *t;
    DataSection *s;
    int rc = 0;
    (void)user;
    int mi = path && strlen(path) < sizeof gPending[0] ? treeFind(path, &t, &s) : -1;
    if (mi < 0) return answer(set, -1, NULL);
    if (!accessMayOwn(&c, treeModule(mi)->name)) return denied(set, &c, "a notification");
    pthread_mutex_lock(&gNotifyLock);
    if (gPendingCount < KEPD_MAX_NOTIFICATIONS) {
        strcpy(gPending[gPendingCount++], path);
        pthread_cond_signal(&gNotifyCond);
    } else {
        rc = KEP_HOST_ERR_LIMIT;
    }
    pthread_mutex_unlock(&gNotifyLock);
    return answer(set, rc, NULL);
}

static void *notifierMain(void *arg) {
    (void)arg;
    pthread_mutex_lock(&gNotifyLock);
    while (!gNotifierStop) {
        if (gPendingCount == 0) {
            pthread_cond_wait(&gNotifyCond, &gNotifyLock);
            continue;
        }
        char path[128];
        memcpy(path, gPending[0], sizeof path);
        memmove(gPending, gPending + 1, (size_t)(--gPendingCount) * sizeof gPending[0]);
        pthread_mutex_unlock(&gNotifyLock);
        DataTable *t;
        DataSection *s;
        int mi = treeFind(path, &t, &s);
        if (mi >= 0) {
            treeReadLock(mi);
            notifySecdataChanged(path);
            treeUnlock(mi);
        }
        pthread_mutex_lock(&gNotifyLock);
    }
    pthread_mutex_unlock(&gNotifyLock);
    return NULL;
}

int notifierStart(void) {
    return pthread_create(&gNotifier, NULL, notifierMain, NULL) == 0 ? 0 : -1;
}

void notifierStop(void) {
    pthread_mutex_lock(&gNotifyLock);
    gNotifierStop = 1;
    pthread_cond_signal(&gNotifyCond);
    pthread_mutex_unlock(&gNotifyLock);
    pthread_join(gNotifier, NULL);
}

/* ---- the tree dump ---- */

typedef struct Text {
    char *data;
    size_t len, cap;
} Text;

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

static pthread_mutex_t gDumpLock = PTHREAD_MUTEX_INITIALIZER;

static int onDump(QxRpcPara *set, void *user) {
    QxImiCaller c = caller();
    Text text = {NULL, 0, 0};
    (void)user;
    if (!accessMaySend(&c)) return denied(set, &c, "a dump");
    /* The dump goes to the debug log, whose sink is one for the process. */
    pthread_mutex_lock(&gDumpLock);
    int wasOn = debugFlagGet(111);
    treeReadLockAll();
    debugSetSink(collectLine, &text);
    debugFlagSet(111, 1);
    printDataModuleTree();
    debugFlagSet(111, wasOn);
    debugSetSink(NULL, NULL);
    treeUnlockAll();
    pthread_mutex_unlock(&gDumpLock);
    answer(set, text.data ? 0 : -1, text.data ? text.data : "");
    free(text.data);
    return 0;
}

static int onTree(QxRpcPara *set, void *user) {
    QxImiCaller c = caller();
    (void)user;
    if (!accessMaySend(&c)) return denied(set, &c, "the tree");
    char *text = treeSnapshot(runtimeGeneration);
    answer(set, text ? 0 : -1, text);
    free(text);
    return 0;
}

/* The defaults come from the owners' reset functions, which live in the owners'
 * processes: a factory reset asks every owner that registered a reset callback to
 * reset its own modules (systemResetConfigFile in its process). */
static int onReset(QxRpcPara *set, void *user) {
    QxImiCaller c = caller();
    int pids[KEPD_MAX_OWNERS], first = 0;
    static char cbs[KEPD_MAX_OWNERS][68];
    static char cause[512];
    static pthread_mutex_t resetLock = PTHREAD_MUTEX_INITIALIZER;
    (void)user;
    if (!accessMayReset(&c)) return denied(set, &c, "a factory reset");
    char *refused = changesetEnter(NULL);
    if (refused) {
        kepdLog("refused a factory reset from pid %d: a change set is not finished", c.pid);
        answer(set, KEP_HOST_ERR_PENDING, NULL);
        qxrpcAddStringPtr(set, "cause", refused);
        free(refused);
        return 0;
    }
    pthread_mutex_lock(&resetLock);
    int n = registryResetters(pids, cbs, KEPD_MAX_OWNERS);
    for (int i = 0; i < n; i++) {
        QxRpcPara call;
        int code = 0;
        qxrpcParaInit(&call);
        int rc = qxImiExecute(pids[i], cbs[i], 0, 0, &call);
        if (rc == 0 && qxrpcGetInt(&call, "errorCode", &code) != 0) rc = -1500;
        if (rc == 0) rc = code;
        qxrpcParaFree(&call);
        if (rc == 0) {
            kepdLog("factory reset of owner %d: 0", pids[i]);
            continue;
        }
        char modules[160], why[160], text[sizeof cause];
        registryModulesOf(pids[i], modules, sizeof modules);
        callOutcome(rc, why, sizeof why);
        snprintf(text, sizeof text, "the owner%s%s (pid %d, callback %.67s): %s", modules[0] ? " of " : "",
                 modules, pids[i], cbs[i], why);
        kepdLog("factory reset failed: %s", text);
        if (first == 0) {
            first = rc;
            memcpy(cause, text, sizeof cause);
        }
    }
    answer(set, first, NULL);
    if (first != 0) qxrpcAddStringPtr(set, "cause", cause);
    pthread_mutex_unlock(&resetLock);
    changesetLeave();
    return 0;
}

/* kepctl monitor: the caller listens on a socket of its own for a line per request. */
static int onWatch(QxRpcPara *set, void *user) {
    QxImiCaller c = caller();
    int verbose = 0;
    (void)user;
    if (!accessMaySend(&c)) return denied(set, &c, "watching the requests");
    qxrpcGetInt(set, "verbose", &verbose);
    return answer(set, monitorWatch(&c, member(set, "path"), member(set, "modules"), verbose), NULL);
}

/* ---- change sets (changeset.h) ---- */

static int onApply(QxRpcPara *set, void *user) {
    QxImiCaller c = caller();
    int confirm = 0;
    char *result = NULL;
    (void)user;
    if (!accessMaySend(&c)) return denied(set, &c, "a change set");
    qxrpcGetInt(set, "confirm", &confirm);
    changesetApply(&c, member(set, "user"), member(set, "para"), confirm, &result);
    answer(set, result ? 0 : -1, result);
    free(result);
    return 0;
}

/* confirm, cancel and pending: by the caller (and the user it relays for); what the
 * host answers goes in "result". */
typedef struct ChangesetCall {
    void (*run)(const QxImiCaller *caller, const char *user, char **answer);
} ChangesetCall;

static void pendingFor(const QxImiCaller *caller, const char *user, char **answer) {
    (void)caller, (void)user;
    changesetPending(answer);
}

static const ChangesetCall kConfirm = {changesetConfirm}, kCancel = {changesetCancel},
                           kPending = {pendingFor};

static int onChangesetCall(QxRpcPara *set, void *user) {
    QxImiCaller c = caller();
    char *result = NULL;
    if (!accessMaySend(&c)) return denied(set, &c, "a change set's confirm, cancel or state");
    ((const ChangesetCall *)user)->run(&c, member(set, "user"), &result);
    answer(set, result ? 0 : -1, result);
    free(result);
    return 0;
}

static int onPing(QxRpcPara *set, void *user) {
    (void)user;
    return answer(set, 0, NULL);
}

int handlersRegister(void) {
    return qxImiRegister("kepd.request", onRequest, NULL) ||
                   qxImiRegister("kepd.register", onRegister, NULL) ||
                   qxImiRegister("kepd.notify", onNotify, NULL) || qxImiRegister("kepd.dump", onDump, NULL) ||
                   qxImiRegister("kepd.tree", onTree, NULL) || qxImiRegister("kepd.reset", onReset, NULL) ||
                   qxImiRegister("kepd.ping", onPing, NULL) || qxImiRegister("kepd.watch", onWatch, NULL) ||
                   qxImiRegister("kepd.apply", onApply, NULL) ||
                   qxImiRegister("kepd.confirm", onChangesetCall, (void *)&kConfirm) ||
                   qxImiRegister("kepd.cancel", onChangesetCall, (void *)&kCancel) ||
                   qxImiRegister("kepd.pending", onChangesetCall, (void *)&kPending)
               ? -1
               : 0;
}
