/* The host's tree under its module locks, and its snapshot for direct clients. */
#define _GNU_SOURCE
#include "tree.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "kepd.h"

enum { TREE_TRIM_BYTES = 256 * 1024 };

/* Set when a large answer was built from many small blocks, now free (the owner's
 * result, parsed and rearranged): the main thread hands them back to the system, off
 * the path of the requests, instead of the host keeping its memory at its peak. */
static int gTrimWanted;

void treeTrimIfWanted(void) {
#ifdef __GLIBC__
    if (__atomic_exchange_n(&gTrimWanted, 0, __ATOMIC_RELAXED)) malloc_trim(0);
#endif
}

static DataModule **gModules;
static pthread_rwlock_t *gLocks;
static int gCount;

int treeInit(void) {
    pthread_rwlockattr_t attr;
    int n = 0;
    for (DataModule *m = getModulerRoot(); m; m = (DataModule *)lstNext(&m->link)) n++;
    gModules = calloc((size_t)(n ? n : 1), sizeof *gModules);
    gLocks = calloc((size_t)(n ? n : 1), sizeof *gLocks);
    if (!gModules || !gLocks) return -1;
    /* Writers first: a registration must not wait for ever behind a stream of reads. */
    pthread_rwlockattr_init(&attr);
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    for (DataModule *m = getModulerRoot(); m; m = (DataModule *)lstNext(&m->link)) {
        gModules[gCount] = m;
        pthread_rwlock_init(&gLocks[gCount++], &attr);
    }
    pthread_rwlockattr_destroy(&attr);
    return 0;
}

int treeModuleCount(void) {
    return gCount;
}

int treeModuleIndex(const char *name) {
    for (int i = 0; name && i < gCount; i++) {
        /* The first of two modules of one name is the one every lookup finds. */
        if (strcmp(gModules[i]->name, name) == 0) return i;
    }
    return -1;
}

DataModule *treeModule(int index) {
    return index >= 0 && index < gCount ? gModules[index] : NULL;
}

void treeReadLock(int index) {
    pthread_rwlock_rdlock(&gLocks[index]);
}
void treeWriteLock(int index) {
    pthread_rwlock_wrlock(&gLocks[index]);
}
void treeUnlock(int index) {
    pthread_rwlock_unlock(&gLocks[index]);
}

void treeReadLockAll(void) {
    for (int i = 0; i < gCount; i++) pthread_rwlock_rdlock(&gLocks[i]);
}

void treeUnlockAll(void) {
    for (int i = gCount - 1; i >= 0; i--) pthread_rwlock_unlock(&gLocks[i]);
}

int treeRequest(const char *request, char **response) {
    unsigned char *marks = calloc((size_t)(gCount ? gCount : 1), 1);
    json_object *req = request ? json_tokener_parse(request) : NULL;
    int rc;
    if (!marks) {
        json_object_put(req);
        return makeErrorRspObj(-10000, response) == 0 ? 0 : -51204;
    }
    /* The library reads only the modules a request names. Locked in list order, so
     * that two requests never wait for each other. */
    if (json_object_is_type(req, json_type_object)) {
        json_object_object_foreach(req, key, value) {
            int i = treeModuleIndex(key);
            (void)value;
            if (i >= 0) marks[i] = 1;
        }
    }
    json_object_put(req);
    for (int i = 0; i < gCount; i++) {
        if (marks[i]) pthread_rwlock_rdlock(&gLocks[i]);
    }
    rc = standardKepReqHandle(request, response);
    for (int i = gCount - 1; i >= 0; i--) {
        if (marks[i]) pthread_rwlock_unlock(&gLocks[i]);
    }
    free(marks);
    if (*response && strlen(*response) >= TREE_TRIM_BYTES)
        __atomic_store_n(&gTrimWanted, 1, __ATOMIC_RELAXED);
    return rc;
}

int treeFind(const char *path, DataTable **table, DataSection **section) {
    char module[32], name[32];
    const char *t, *s;
    *table = NULL;
    *section = NULL;
    if (!path || path[0] != '/' || !(t = strchr(path + 1, '/'))) return -1;
    snprintf(module, sizeof module, "%.*s", (int)(t - path - 1), path + 1);
    int index = treeModuleIndex(module);
    if (index < 0) return -1;
    s = strchr(t + 1, '/');
    snprintf(name, sizeof name, "%.*s", s ? (int)(s - t - 1) : (int)strlen(t + 1), t + 1);
    *table = getDataTable(gModules[index], name);
    if (*table && s && s[1]) {
        for (LstNode *n = lstFirst(&(*table)->sections); n; n = lstNext(n)) {
            if (strcmp(((DataSection *)n)->name, s + 1) == 0) {
                *section = (DataSection *)n;
                break;
            }
        }
    }
    return index;
}

/* ---- snapshot ---- */

/* [pid, cb], or [first, pid, cb] when first is given (a method index, an action's name). */
static json_object *callee(json_object *first, int pid, const char *cb) {
    json_object *a = json_object_new_array_ext(3);
    if (first) json_object_array_add(a, first);
    json_object_array_add(a, json_object_new_int(pid));
    json_object_array_add(a, json_object_new_string(cb));
    return a;
}

/* The registrations of a table or section, added to obj; only what is set. */
static void addRegistrations(json_object *obj, const OprInterface *opr, MethodCbNode *const *slots,
                             LstList *ver, LstList *not_) {
    json_object *methods = NULL;
    if (opr->pid || opr->cb[0]) json_object_object_add(obj, "opr", callee(NULL, opr->pid, opr->cb));
    for (int i = 0; i < 4; i++) {
        if (!slots[i]) continue;
        if (!methods) methods = json_object_new_array();
        json_object_array_add(methods, callee(json_object_new_int(i), slots[i]->pid, slots[i]->cb));
    }
    if (methods) json_object_object_add(obj, "methods", methods);
    for (int k = 0; k < 2; k++) {
        LstList *list = k ? not_ : ver;
        if (!lstCount(list)) continue;
        json_object *arr = json_object_new_array();
        for (LstNode *n = lstFirst(list); n; n = lstNext(n))
            json_object_array_add(arr, callee(NULL, ((VerNotifyNode *)n)->pid, ((VerNotifyNode *)n)->cb));
        json_object_object_add(obj, k ? "notify" : "verify", arr);
    }
}

char *treeSnapshot(unsigned generationNow(void)) {
    json_object *root = json_object_new_object(), *modules = json_object_new_array();
    char *text = NULL;
    treeReadLockAll();
    json_object_object_add(root, "generation", json_object_new_int64(generationNow()));
    json_object_object_add(root, "modules", modules);
    for (int i = 0; i < gCount; i++) {
        DataModule *m = gModules[i];
        json_object *mod = json_object_new_object(), *tables = json_object_new_array();
        json_object_object_add(mod, "name", json_object_new_string(m->name));
        if (m->configFile[0]) json_object_object_add(mod, "config", json_object_new_string(m->configFile));
        LST_FOR_EACH(DataTable, t, &m->tables) {
            json_object *tab = json_object_new_object(), *sections = json_object_new_array();
            json_object_object_add(tab, "name", json_object_new_string(t->name));
            json_object_object_add(tab, "dynamic", json_object_new_int(t->isDynamic));
            json_object_object_add(tab, "list", json_object_new_int(t->optionPublic));
            addRegistrations(tab, &t->opr, t->methodCb, &t->verList, &t->notList);
            LST_FOR_EACH(DataSection, s, &t->sections) {
                json_object *sec = json_object_new_object();
                json_object_object_add(sec, "name", json_object_new_string(s->name));
                addRegistrations(sec, &s->opr, s->methodCb, &s->verList, &s->notList);
                json_object_array_add(sections, sec);
            }
            json_object_object_add(tab, "sections", sections);
            json_object_array_add(tables, tab);
        }
        json_object_object_add(mod, "tables", tables);
        json_object *actions = json_object_new_array();
        LST_FOR_EACH(ActionNode, a, &m->actions) {
            json_object_array_add(actions, callee(json_object_new_string(a->name), a->pid, a->cb));
        }
        json_object_object_add(mod, "actions", actions);
        json_object_array_add(modules, mod);
    }
    treeUnlockAll();
    const char *s = json_object_to_json_string_ext(root, JSON_C_TO_STRING_PLAIN);
    if (s) text = strdup(s);
    json_object_put(root);
    return text;
}
