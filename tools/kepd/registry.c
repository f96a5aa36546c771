/* Owner processes and the rules of registering. */
#define _GNU_SOURCE
#include "registry.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "access.h"
#include "kep_host.h"
#include "kepd.h"
#include "runtime.h"
#include "tree.h"

typedef struct Owner {
    int pid;
    int uid;
    int pidfd; /* readable once the process has exited; -1 where not offered */
    int count; /* registrations held */
    char resetCb[68];
} Owner;

static pthread_mutex_t gLock = PTHREAD_MUTEX_INITIALIZER;
static Owner gOwners[KEPD_MAX_OWNERS];
static int gOwnerCount;
/* Process descriptors of owners forgotten since the main thread last polled: closed
 * only by that thread, so that it never polls a number that was reused meanwhile. */
static int gRetired[KEPD_MAX_OWNERS];
static int gRetiredCount;
static int gLimit = KEPD_DEFAULT_REGISTRATIONS;

void registrySetLimit(int perOwner) {
    gLimit = perOwner;
}

static int alive(int pid) {
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

/* An owner that has exited, also before its parent has reaped it: signals still reach
 * a process that is not reaped, but its descriptor is readable, and the main loop would
 * otherwise wake on it without end. */
static int exited(const Owner *o) {
    struct pollfd p = {o->pidfd, POLLIN, 0};
    if (o->pidfd >= 0 && poll(&p, 1, 0) > 0) return 1;
    return !alive(o->pid);
}

static int openPidfd(int pid) {
#ifdef SYS_pidfd_open
    return (int)syscall(SYS_pidfd_open, pid, 0);
#else
    (void)pid;
    return -1;
#endif
}

/* The caller's entry, made when missing; gLock held. NULL when the table is full. */
static Owner *ownerOf(const QxImiCaller *c, int create) {
    for (int i = 0; i < gOwnerCount; i++) {
        if (gOwners[i].pid == c->pid) return &gOwners[i];
    }
    if (!create || gOwnerCount == KEPD_MAX_OWNERS) return NULL;
    Owner *o = &gOwners[gOwnerCount++];
    memset(o, 0, sizeof *o);
    o->pid = c->pid;
    o->uid = c->uid;
    o->pidfd = openPidfd(c->pid);
    return o;
}

static void forgetOwner(int pid) {
    pthread_mutex_lock(&gLock);
    for (int i = 0; i < gOwnerCount; i++) {
        if (gOwners[i].pid != pid) continue;
        if (gOwners[i].pidfd >= 0) gRetired[gRetiredCount++] = gOwners[i].pidfd;
        gOwners[i] = gOwners[--gOwnerCount];
        break;
    }
    pthread_mutex_unlock(&gLock);
}

static const char *describe(int code) {
    switch (code) {
        case KEP_HOST_ERR_DENIED:
            return "no access rule lets it";
        case KEP_HOST_ERR_TAKEN:
            return "another running process serves it";
        case KEP_HOST_ERR_LIMIT:
            return "it holds as many registrations as it may";
        default:
            return "refused by the tree";
    }
}

static int refused(const QxImiCaller *c, const char *op, const char *path, int code) {
    kepdLog("refused register %s %s from pid %d (uid %d): %s", op, path ? path : "-", c->pid, c->uid,
            describe(code));
    return code;
}

/* The process that holds what the registration would set, or 0 for none. */
static int holderOf(const char *op, int index, const char *path, DataModule *m, DataTable *t,
                    DataSection *s) {
    if (strcmp(op, "opr") == 0) return s ? s->opr.pid : t ? t->opr.pid : 0;
    if (strcmp(op, "action") == 0 || (strcmp(op, "method") == 0 && index == KEP_METHOD_ACTION)) {
        const char *name = strchr(path + 1, '/') + 1;
        LST_FOR_EACH(ActionNode, a, &m->actions) {
            if (strncmp(a->name, name, strcspn(name, "/")) == 0 && a->name[strcspn(name, "/")] == '\0')
                return a->pid;
        }
        return 0;
    }
    if (strcmp(op, "method") == 0 && index >= 0 && index < 4) {
        MethodCbNode *slot = s ? s->methodCb[index] : t ? t->methodCb[index] : NULL;
        return slot ? slot->pid : 0;
    }
    return 0;
}

static int registerAnyAction(const char *path, const char *cb, int pid) {
    char module[32] = "";
    const char *action = strchr(path + 1, '/');
    snprintf(module, sizeof module, "%.*s", (int)(action - path - 1), path + 1);
    /* A service of the model description exists already: claim it instead. */
    if (registerAction(module, action + 1, cb, pid) == 0) return 0;
    return registerMethodCb(path, KEP_METHOD_ACTION, cb, pid);
}

static int applyToTree(const char *op, const char *path, int index, const char *cb, int pid) {
    if (strcmp(op, "method") == 0) return registerMethodCb(path, index, cb, pid);
    if (strcmp(op, "verify") == 0) return registerVerNotify(path, KEP_SELECT_VERIFY, cb, pid);
    if (strcmp(op, "notify") == 0) return registerVerNotify(path, KEP_SELECT_NOTIFY, cb, pid);
    if (strcmp(op, "action") == 0) return registerAnyAction(path, cb, pid);
    if (strcmp(op, "opr") == 0) {
        OprInterface opr;
        memset(&opr, 0, sizeof opr);
        opr.pid = pid;
        snprintf(opr.cb, sizeof opr.cb, "%s", cb);
        return regOprInterface(path, &opr);
    }
    return -1;
}

static int addResetter(const QxImiCaller *c, const char *cb) {
    int rc = 0;
    if (!accessOwnsAny(c)) return refused(c, "reset", NULL, KEP_HOST_ERR_DENIED);
    if (!cb || strlen(cb) >= sizeof gOwners[0].resetCb) return -1;
    pthread_mutex_lock(&gLock);
    Owner *o = ownerOf(c, 1);
    if (!o)
        rc = KEP_HOST_ERR_LIMIT;
    else
        snprintf(o->resetCb, sizeof o->resetCb, "%s", cb);
    pthread_mutex_unlock(&gLock);
    return rc ? refused(c, "reset", NULL, rc) : 0;
}

int registryApply(const QxImiCaller *c, const char *op, const char *path, int index, const char *cb) {
    DataTable *t;
    DataSection *s;
    if (!op) return -1;
    if (strcmp(op, "unregister") == 0) {
        registryDrop(c->pid);
        return 0;
    }
    if (strcmp(op, "reset") == 0) return addResetter(c, cb);
    if (!cb || !path || strlen(path) > 200) return -1;
    const int list = strcmp(op, "verify") == 0 || strcmp(op, "notify") == 0;
    if (!list && strcmp(op, "method") && strcmp(op, "action") && strcmp(op, "opr")) return -1;
    const int mi = treeFind(path, &t, &s);
    if (mi < 0) return -1;
    DataModule *m = treeModule(mi);
    if (!accessMayOwn(c, m->name)) return refused(c, op, path, KEP_HOST_ERR_DENIED);
    if (strcmp(op, "action") == 0 && !strchr(path + 1, '/')) return -1;

    int rc = 0;
    treeWriteLock(mi);
    treeFind(path, &t, &s); /* again, under the lock */
    const int holder = list ? 0 : holderOf(op, index, path, m, t, s);
    if (holder > 0 && holder != c->pid && alive(holder)) rc = KEP_HOST_ERR_TAKEN;
    const int adds = list || holder != c->pid;
    Owner *o = NULL;
    if (rc == 0) {
        pthread_mutex_lock(&gLock);
        o = ownerOf(c, 1);
        if (!o || (adds && o->count >= gLimit)) rc = KEP_HOST_ERR_LIMIT;
        pthread_mutex_unlock(&gLock);
    }
    if (rc == 0) rc = applyToTree(op, path, index, cb, c->pid);
    if (rc == 0) {
        pthread_mutex_lock(&gLock);
        if ((o = ownerOf(c, 0)) && adds) o->count++;
        pthread_mutex_unlock(&gLock);
        runtimeBump();
    }
    treeUnlock(mi);
    return rc < -1 ? refused(c, op, path, rc) : rc;
}

/* ---- dropping ---- */

static int holdsList(LstList *list, int pid) {
    for (LstNode *n = lstFirst(list); n; n = lstNext(n)) {
        if (((VerNotifyNode *)n)->pid == pid) return 1;
    }
    return 0;
}

static int holds(MethodCbNode **slots, LstList *ver, LstList *not_, OprInterface *opr, int pid) {
    for (int i = 0; i < 4; i++) {
        if (slots[i] && slots[i]->pid == pid) return 1;
    }
    return opr->pid == pid || holdsList(ver, pid) || holdsList(not_, pid);
}

static int moduleHolds(DataModule *m, int pid) {
    LST_FOR_EACH(DataTable, t, &m->tables) {
        if (holds(t->methodCb, &t->verList, &t->notList, &t->opr, pid)) return 1;
        LST_FOR_EACH(DataSection, s, &t->sections) {
            if (holds(s->methodCb, &s->verList, &s->notList, &s->opr, pid)) return 1;
        }
    }
    LST_FOR_EACH(ActionNode, a, &m->actions) {
        if (a->pid == pid) return 1;
    }
    return 0;
}

static void dropFromList(const char *path, LstList *list, int selector, int pid) {
    VerNotifyNode *n = (VerNotifyNode *)lstFirst(list);
    while (n) {
        if (n->pid == pid) {
            char cb[68];
            memcpy(cb, n->cb, sizeof cb);
            unRegisterVerNotify(path, selector, cb, pid);
            n = (VerNotifyNode *)lstFirst(list); /* the list changed: start again */
        } else {
            n = (VerNotifyNode *)lstNext(&n->link);
        }
    }
}

static void dropAt(const char *path, MethodCbNode **slots, LstList *ver, LstList *not_, OprInterface *opr,
                   int pid) {
    for (int i = 0; i < 4; i++) {
        if (slots[i] && slots[i]->pid == pid) unRegisterMethodCb(path, i, "", pid);
    }
    dropFromList(path, ver, KEP_SELECT_VERIFY, pid);
    dropFromList(path, not_, KEP_SELECT_NOTIFY, pid);
    if (opr->pid == pid) memset(opr, 0, sizeof *opr);
}

/* Module m's write lock held. Actions cannot be removed one by one: they go back to
 * having no owner, so that the next owner can claim them. */
static void dropInModule(DataModule *m, int pid) {
    char path[128];
    LST_FOR_EACH(DataTable, t, &m->tables) {
        snprintf(path, sizeof path, "/%s/%s", m->name, t->name);
        dropAt(path, t->methodCb, &t->verList, &t->notList, &t->opr, pid);
        LST_FOR_EACH(DataSection, s, &t->sections) {
            snprintf(path, sizeof path, "/%s/%s/%s", m->name, t->name, s->name);
            dropAt(path, s->methodCb, &s->verList, &s->notList, &s->opr, pid);
        }
    }
    LST_FOR_EACH(ActionNode, a, &m->actions) {
        if (a->pid != pid) continue;
        a->pid = 0;
        a->cb[0] = '\0';
    }
}

void registryDrop(int pid) {
    for (int i = 0; i < treeModuleCount(); i++) {
        DataModule *m = treeModule(i);
        /* Only the modules it holds something in wait for their requests to end. */
        treeReadLock(i);
        int present = moduleHolds(m, pid);
        treeUnlock(i);
        if (!present) continue;
        treeWriteLock(i);
        dropInModule(m, pid);
        runtimeBump();
        treeUnlock(i);
    }
    forgetOwner(pid);
}

void registryModulesOf(int pid, char *out, size_t size) {
    size_t len = 0;
    out[0] = '\0';
    for (int i = 0; i < treeModuleCount(); i++) {
        treeReadLock(i);
        int held = moduleHolds(treeModule(i), pid);
        treeUnlock(i);
        if (!held) continue;
        int n = snprintf(out + len, size - len, "%s%s", len ? ", " : "", treeModule(i)->name);
        if (n < 0 || (size_t)n >= size - len) break;
        len += (size_t)n;
    }
}

int registryPrune(void) {
    int gone[KEPD_MAX_OWNERS], n = 0;
    pthread_mutex_lock(&gLock);
    for (int i = 0; i < gOwnerCount; i++) {
        if (exited(&gOwners[i])) gone[n++] = gOwners[i].pid;
    }
    pthread_mutex_unlock(&gLock);
    for (int i = 0; i < n; i++) {
        kepdLog("owner %d is gone, dropping its registrations", gone[i]);
        registryDrop(gone[i]);
    }
    return n;
}

int registryWatchFds(struct pollfd *fds, int max) {
    int n = 0;
    pthread_mutex_lock(&gLock);
    while (gRetiredCount > 0) close(gRetired[--gRetiredCount]);
    for (int i = 0; i < gOwnerCount && n < max; i++) {
        if (gOwners[i].pidfd < 0) continue;
        fds[n].fd = gOwners[i].pidfd;
        fds[n].events = POLLIN;
        fds[n++].revents = 0;
    }
    pthread_mutex_unlock(&gLock);
    return n;
}

int registryResetters(int *pids, char (*cbs)[68], int max) {
    int n = 0;
    pthread_mutex_lock(&gLock);
    for (int i = 0; i < gOwnerCount && n < max; i++) {
        if (!gOwners[i].resetCb[0]) continue;
        pids[n] = gOwners[i].pid;
        memcpy(cbs[n++], gOwners[i].resetCb, sizeof cbs[0]);
    }
    pthread_mutex_unlock(&gLock);
    return n;
}
