/* The direct route: the host's tree copied into this process (see kep_direct.h). */
#define _GNU_SOURCE
#include "kep_direct.h"

#include <fcntl.h>
#include <libgen.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <json-c/json.h>

#include "kepHandle.h"
#include "kep_host.h"
#include "kep_pf_rpc.h"

static pthread_rwlock_t gTreeLock; /* requests read the copy, a refresh rewrites it */
static pthread_once_t gLockOnce = PTHREAD_ONCE_INIT;
static pthread_mutex_t gRefreshLock = PTHREAD_MUTEX_INITIALIZER;
static pthread_mutex_t gOpenLock = PTHREAD_MUTEX_INITIALIZER;
static const KepHostState *gState; /* the host's state file, mapped read-only */
static int gOpen;
static int gUsable;                 /* the copy mirrors the host's tree */
static unsigned gGeneration, gHost; /* what the copy was taken from */
static unsigned gRefreshes;

/* ---- the state file ---- */

static dev_t gStateDev;
static ino_t gStateIno;

/* The host's state file, mapped; the one mapped already when it is still that file.
 * A mapping is never undone: a request on another thread may be reading it. */
static const KepHostState *mapState(void) {
    char copy[PATH_MAX], path[PATH_MAX];
    struct stat st;
    snprintf(copy, sizeof copy, "%s", kepHostPidFile());
    if (snprintf(path, sizeof path, "%s/%s", dirname(copy), KEP_HOST_STATE_FILE) >= (int)sizeof path)
        return NULL;
    int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return NULL;
    if (gState && fstat(fd, &st) == 0 && st.st_dev == gStateDev && st.st_ino == gStateIno) {
        close(fd);
        return gState;
    }
    void *map = MAP_FAILED;
    /* Only the host's file: a plain file of root or of this user, of the right size. */
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size == (off_t)sizeof(KepHostState) &&
        (st.st_uid == 0 || st.st_uid == geteuid()))
        map = mmap(NULL, sizeof(KepHostState), PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (map == MAP_FAILED) return NULL;
    if (memcmp(((const KepHostState *)map)->magic, KEP_HOST_STATE_MAGIC, 8) != 0) {
        munmap(map, sizeof(KepHostState));
        return NULL;
    }
    gStateDev = st.st_dev;
    gStateIno = st.st_ino;
    return map;
}

static unsigned stateGeneration(void) {
    return __atomic_load_n(&gState->generation, __ATOMIC_ACQUIRE);
}
static unsigned stateHost(void) {
    return __atomic_load_n(&gState->pid, __ATOMIC_ACQUIRE);
}

/* ---- rebuilding the copy ---- */

static json_object *member(json_object *obj, const char *key) {
    json_object *v = NULL;
    return json_object_object_get_ex(obj, key, &v) ? v : NULL;
}

static const char *text(json_object *obj, const char *key) {
    json_object *v = member(obj, key);
    return json_object_is_type(v, json_type_string) ? json_object_get_string(v) : NULL;
}

static int number(json_object *obj, const char *key) {
    return json_object_get_int(member(obj, key));
}

/* json-c asserts on the length of anything but an array: absent lists are empty. */
static size_t lengthOf(json_object *array) {
    return json_object_is_type(array, json_type_array) ? json_object_array_length(array) : 0;
}

/* Appends s to buf as an XML attribute value. */
static void putEscaped(char *buf, size_t size, const char *s) {
    size_t n = strlen(buf);
    for (; *s && n + 7 < size; s++) {
        const char *e = *s == '&'   ? "&amp;"
                        : *s == '<' ? "&lt;"
                        : *s == '>' ? "&gt;"
                        : *s == '"' ? "&quot;"
                                    : NULL;
        if (e) {
            memcpy(buf + n, e, strlen(e));
            n += strlen(e);
        } else {
            buf[n++] = *s;
        }
    }
    buf[n] = '\0';
}

/* Adds the snapshot's modules and tables that this tree lacks: a description of the
 * one module, merged as the host merged its own. */
static int addMissing(json_object *mod) {
    const char *name = text(mod, "name");
    json_object *tables = member(mod, "tables");
    size_t count = lengthOf(tables), size = 256 + count * 256;
    char *xml = malloc(size);
    if (!xml || !name) {
        free(xml);
        return -1;
    }
    snprintf(xml, size, "<model><module name=\"");
    putEscaped(xml, size, name);
    strcat(xml, "\">");
    for (size_t i = 0; i < count; i++) {
        json_object *t = json_object_array_get_idx(tables, i);
        strcat(xml, "<table name=\"");
        putEscaped(xml, size, text(t, "name") ? text(t, "name") : "");
        strcat(xml, number(t, "dynamic") ? "\" attribute=\"dynamic\"/>" : "\"/>");
    }
    strcat(xml, "</module></model>");
    XmlNode **doc = strXmlParse(xml, 1);
    int rc = doc ? registerDataModel(*doc) : -1;
    if (doc) mxmlTreeDelete(doc);
    free(xml);
    return rc;
}

static void setOpr(OprInterface *opr, json_object *callee) {
    memset(opr, 0, sizeof *opr);
    if (!callee) return;
    opr->pid = json_object_get_int(json_object_array_get_idx(callee, 0));
    snprintf(opr->cb, sizeof opr->cb, "%s", json_object_get_string(json_object_array_get_idx(callee, 1)));
}

/* The method, verify and notify registrations of a table or section, as the host has them. */
static int registerAll(const char *path, json_object *obj) {
    int rc = 0;
    json_object *methods = member(obj, "methods");
    for (size_t i = 0; i < lengthOf(methods); i++) {
        json_object *m = json_object_array_get_idx(methods, i);
        rc |= registerMethodCb(path, json_object_get_int(json_object_array_get_idx(m, 0)),
                               json_object_get_string(json_object_array_get_idx(m, 2)),
                               json_object_get_int(json_object_array_get_idx(m, 1)));
    }
    for (int k = 0; k < 2; k++) {
        json_object *list = member(obj, k ? "notify" : "verify");
        for (size_t i = 0; i < lengthOf(list); i++) {
            json_object *e = json_object_array_get_idx(list, i);
            rc |= registerVerNotify(path, k ? KEP_SELECT_NOTIFY : KEP_SELECT_VERIFY,
                                    json_object_get_string(json_object_array_get_idx(e, 1)),
                                    json_object_get_int(json_object_array_get_idx(e, 0)));
        }
    }
    return rc;
}

static int rebuildTable(DataModule *m, DataTable *t, json_object *st) {
    char path[160];
    json_object *sections = member(st, "sections");
    size_t count = lengthOf(sections);
    if (t->isDynamic != number(st, "dynamic")) return -1;
    snprintf(path, sizeof path, "/%s/%s", m->name, t->name);
    /* Everything goes, the sections' registrations too, then the sections. */
    t->optionPublic = 0;
    unregisterTable(path);
    delDataTable(t);
    t->optionPublic = 1;
    json_object *names = json_object_new_array_ext((int)count);
    if (!names) return -1;
    for (size_t i = 0; i < count; i++) {
        const char *name = text(json_object_array_get_idx(sections, i), "name");
        json_object *one = json_object_new_object();
        if (!name || !one) {
            json_object_put(one);
            json_object_put(names);
            return -1;
        }
        json_object_object_add(one, name, json_object_new_object());
        json_object_array_add(names, one);
    }
    loadTableListConfig(t, names);
    json_object_put(names);
    if ((size_t)lstCount(&t->sections) != count) return -1;
    setOpr(&t->opr, member(st, "opr"));
    int rc = registerAll(path, st);
    size_t i = 0;
    for (DataSection *s = (DataSection *)lstFirst(&t->sections); s;
         s = (DataSection *)lstNext(&s->link), i++) {
        json_object *ss = json_object_array_get_idx(sections, i);
        char spath[200];
        setOpr(&s->opr, member(ss, "opr"));
        snprintf(spath, sizeof spath, "%s/%s", path, s->name);
        rc |= registerAll(spath, ss);
    }
    t->optionPublic = number(st, "list");
    return rc;
}

/* Makes this process's tree the snapshot's. 0, or -1 when it cannot mirror it. */
static int rebuild(json_object *snap) {
    json_object *modules = member(snap, "modules");
    size_t count = lengthOf(modules);
    DataModule *m = getModulerRoot();
    for (size_t i = 0; i < count; i++, m = m ? (DataModule *)lstNext(&m->link) : NULL) {
        json_object *mod = json_object_array_get_idx(modules, i);
        if (addMissing(mod) != 0) return -1;
        if (!m) m = getDataModuler(text(mod, "name"));
        /* Modules and tables are never removed: a host with other ones cannot be
         * mirrored, and the host serves instead. */
        if (!m || strcmp(m->name, text(mod, "name")) != 0) return -1;
        json_object *tables = member(mod, "tables");
        if ((size_t)lstCount(&m->tables) != lengthOf(tables)) return -1;
        delDataModule(m->name, 0);
        size_t k = 0;
        for (DataTable *t = (DataTable *)lstFirst(&m->tables); t; t = (DataTable *)lstNext(&t->link), k++) {
            json_object *st = json_object_array_get_idx(tables, k);
            if (strcmp(t->name, text(st, "name")) != 0 || rebuildTable(m, t, st) != 0) return -1;
        }
        json_object *actions = member(mod, "actions");
        for (size_t a = 0; a < lengthOf(actions); a++) {
            json_object *e = json_object_array_get_idx(actions, a);
            if (registerAction(m->name, json_object_get_string(json_object_array_get_idx(e, 0)),
                               json_object_get_string(json_object_array_get_idx(e, 2)),
                               json_object_get_int(json_object_array_get_idx(e, 1))) != 0)
                return -1;
        }
    }
    return m == NULL ? 0 : -1;
}

/* Takes the copy again unless another thread just did; force: even when the state
 * file shows no change. 0 when the copy is usable. */
static int refresh(int force) {
    pthread_mutex_lock(&gRefreshLock);
    const unsigned generation = stateGeneration(), host = stateHost();
    int rc = 0;
    if (force || !gUsable || generation != gGeneration || host != gHost) {
        char *snapshot = NULL;
        rc = host ? kepHostFetch("kepd.tree", &snapshot) : QXRPC_ERR_NO_PEER;
        json_object *snap = rc == 0 ? json_tokener_parse(snapshot) : NULL;
        free(snapshot);
        pthread_rwlock_wrlock(&gTreeLock);
        gUsable = snap && rebuild(snap) == 0;
        pthread_rwlock_unlock(&gTreeLock);
        if (rc == 0 && !gUsable) rc = -1;
        __atomic_store_n(&gGeneration, snap ? (unsigned)json_object_get_int64(member(snap, "generation")) : 0,
                         __ATOMIC_RELAXED);
        __atomic_store_n(&gHost, host, __ATOMIC_RELAXED);
        gRefreshes++;
        json_object_put(snap);
    }
    pthread_mutex_unlock(&gRefreshLock);
    return rc;
}

/* ---- serving requests ---- */

/* The response's "error_code", found from its end, where the library puts it. */
static int responseCode(const char *rsp) {
    const char *key = "\"error_code\":";
    const char *at = NULL;
    for (const char *p = rsp; (p = strstr(p, key)); p++) at = p;
    return at ? atoi(at + strlen(key)) : 0;
}

/* Whether the request makes one owner call at most (besides reads, which change
 * nothing): then a call that found nobody means nothing ran, and it may be sent again. */
static int repeatable(const char *request) {
    json_object *req = json_tokener_parse(request), *target = NULL;
    const char *method = text(req, "method");
    int modules = 0, ok = 0;
    if (!json_object_is_type(req, json_type_object)) {
        json_object_put(req);
        return 0;
    }
    json_object_object_foreach(req, key, value) {
        if (strcmp(key, "method") != 0) {
            modules++;
            target = value;
        }
    }
    if (method && strcmp(method, "get") == 0) {
        ok = 1;
    } else if (method && modules == 1 && json_object_is_type(target, json_type_object)) {
        json_object *name = member(target, "name");
        int keys = json_object_object_length(target);
        if (strcmp(method, "add") == 0 || member(target, "table"))
            ok = 1;
        else if (strcmp(method, "delete") == 0)
            ok = json_object_is_type(name, json_type_string) ||
                 (json_object_is_type(name, json_type_array) && lengthOf(name) == 1);
        else
            ok = keys == 1;
    }
    json_object_put(req);
    return ok;
}

/* Serves the request on the copy: 0 with a response, as the host answers it (an
 * error response for a request the library refuses outright); 1 when the copy is
 * not usable. */
static int serveHere(const char *request, char **response) {
    pthread_rwlock_rdlock(&gTreeLock);
    int rc = gUsable ? standardKepReqHandle(request, response) : 1;
    pthread_rwlock_unlock(&gTreeLock);
    if (rc != 0 && rc != 1 && !*response && makeErrorRspObj(rc, response) == 0) rc = 0;
    return rc;
}

static void makeTreeLock(void) {
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    /* A refresh must not wait for ever behind a stream of requests. */
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&gTreeLock, &attr);
    pthread_rwlockattr_destroy(&attr);
}

int kepDirectOpen(void) {
    pthread_once(&gLockOnce, makeTreeLock);
    pthread_mutex_lock(&gOpenLock);
    int rc = 0;
    if (!gOpen) {
        const KepHostState *state = mapState();
        if (state) gState = state;
        rc = state ? refresh(1) : QXRPC_ERR_NO_PEER;
        __atomic_store_n(&gOpen, state != NULL, __ATOMIC_RELEASE);
    }
    pthread_mutex_unlock(&gOpenLock);
    return rc;
}

int kepDirectRequestFor(const char *user, const char *request, char **response) {
    if (!response) return QXRPC_ERR_ARG;
    *response = NULL;
    if (!__atomic_load_n(&gOpen, __ATOMIC_ACQUIRE) || !request ||
        __atomic_load_n(&gState->watchers, __ATOMIC_ACQUIRE) != 0 ||
        __atomic_load_n(&gState->changeset, __ATOMIC_ACQUIRE) != 0)
        return kepHostRequestFor(user, request, response);
    if (stateGeneration() != __atomic_load_n(&gGeneration, __ATOMIC_RELAXED) ||
        stateHost() != __atomic_load_n(&gHost, __ATOMIC_RELAXED))
        refresh(0);
    int rc = serveHere(request, response);
    if (rc == 1) return kepHostRequestFor(user, request, response);
    if (rc == 0 && *response) {
        const int code = responseCode(*response);
        if ((code == QXRPC_ERR_NO_PEER || code == QXRPC_ERR_NO_HANDLER) && repeatable(request)) {
            free(*response);
            *response = NULL;
            refresh(1);
            rc = serveHere(request, response);
            if (rc == 1) return kepHostRequestFor(user, request, response);
        }
    }
    return rc;
}

int kepDirectRequest(const char *request, char **response) {
    return kepDirectRequestFor(NULL, request, response);
}

unsigned kepDirectRefreshes(void) {
    pthread_mutex_lock(&gRefreshLock);
    unsigned n = gRefreshes;
    pthread_mutex_unlock(&gRefreshLock);
    return n;
}

void kepDirectClose(void) {
    pthread_mutex_lock(&gOpenLock);
    if (gOpen) {
        __atomic_store_n(&gOpen, 0, __ATOMIC_RELEASE);
        pthread_rwlock_wrlock(&gTreeLock);
        gUsable = 0;
        pthread_rwlock_unlock(&gTreeLock);
        gRefreshes = 0;
    }
    pthread_mutex_unlock(&gOpenLock);
}
