/* Change sets: applied as a unit, undone on failure or unless confirmed (changeset.h). */
#define _GNU_SOURCE
#include "changeset.h"

#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <limits.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <json-c/json.h>

#include "kepHandle.h"
#include "kep_backup.h"
#include "kep_host.h"
#include "kep_owner.h"
#include "kep_platform.h"
#include "kepd.h"
#include "runtime.h"
#include "tree.h"

#define RECORD_FILE "kepd.changeset.json"
#define RECORD_FORMAT 1
#define USER_MAX 64

enum {
    RECOVER_RETRY_MS = 250, /* how soon a stopped host's undo is tried again */
    RECOVER_REPORT_S = 30   /* how often the wait for owners is said again */
};

/* What the one change set is doing. */
typedef enum Phase {
    PHASE_NONE,
    PHASE_APPLYING,  /* its requests run */
    PHASE_PENDING,   /* applied, waiting for a confirm */
    PHASE_UNDOING,   /* being undone */
    PHASE_RECOVERING /* a stopped host's, waiting for its owners */
} Phase;

static pthread_mutex_t gLock = PTHREAD_MUTEX_INITIALIZER;
static int gPhase;              /* Phase; read without the lock by the guard's first look */
static unsigned char *gGuarded; /* per module index: named by the change set */
static json_object *gRecord;    /* the change set's record while it lives */
static char gPath[PATH_MAX];    /* the record's file; "" when there is no folder for it */
static long long gExpiresMs;    /* wall-clock millisecond its window ends; 0: none */
static unsigned gNextId = 1;
static long long gReportedAt; /* when a stopped host's wait for owners was last said */
static json_object *gLeft;    /* a stopped host's modules not yet put back (main thread) */

/* A write is checked and runs under the gate's read side; a change set starts under its
 * write side, so that no write checked before the change set began is still running
 * when it reads what it will put back. */
static pthread_rwlock_t gGate;
static pthread_once_t gGateOnce = PTHREAD_ONCE_INIT;

static void makeGate(void) {
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    /* A change set must not wait for ever behind a stream of requests. */
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&gGate, &attr);
    pthread_rwlockattr_destroy(&attr);
}

/* ---- small helpers ---- */

static json_object *member(json_object *obj, const char *key) {
    json_object *v = NULL;
    return json_object_object_get_ex(obj, key, &v) ? v : NULL;
}

static const char *text(json_object *obj, const char *key) {
    json_object *v = member(obj, key);
    return json_object_is_type(v, json_type_string) ? json_object_get_string(v) : NULL;
}

static long long wallMs(void) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* The second a window ends, as clients are told it: rounded up, never before its end. */
static long long expiresSeconds(void) {
    return (gExpiresMs + 999) / 1000;
}

static long long wallSeconds(void) {
    return (long long)time(NULL);
}

/* {"error_code": code, "error": message} as malloc'd text. */
static char *refusal(int code, const char *format, ...) __attribute__((format(printf, 2, 3)));
static char *refusal(int code, const char *format, ...) {
    char message[512];
    va_list ap;
    va_start(ap, format);
    vsnprintf(message, sizeof message, format, ap);
    va_end(ap);
    json_object *o = json_object_new_object();
    json_object_object_add(o, "error_code", json_object_new_int(code));
    json_object_object_add(o, "error", json_object_new_string(message));
    char *out = strdup(json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN));
    json_object_put(o);
    return out;
}

static char *textOf(json_object *o) {
    const char *s = json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN);
    return s ? strdup(s) : NULL;
}

/* The modules a record names, "a, b". */
static void moduleList(json_object *record, char *out, size_t size) {
    json_object *modules = member(record, "modules");
    size_t used = 0;
    out[0] = '\0';
    for (size_t i = 0; modules && i < json_object_array_length(modules) && used + 1 < size; i++) {
        int n = snprintf(out + used, size - used, "%s%s", i ? ", " : "",
                         json_object_get_string(json_object_array_get_idx(modules, i)));
        if (n < 0) break;
        used += (size_t)n;
    }
}

/* Who a record belongs to: "uid U (pid P)", or "user NAME (through pid P)" for a
 * change set a gateway relayed for that user. */
static void ownerText(json_object *record, char *out, size_t size) {
    const char *user = text(record, "user");
    if (user)
        snprintf(out, size, "user %s (through pid %d)", user, json_object_get_int(member(record, "pid")));
    else
        snprintf(out, size, "uid %d (pid %d)", json_object_get_int(member(record, "uid")),
                 json_object_get_int(member(record, "pid")));
}

/* The refusal for a write while a change set lives. The lock is held. */
static char *pendingRefusal(void) {
    char modules[256], owner[160], until[48] = "";
    moduleList(gRecord, modules, sizeof modules);
    ownerText(gRecord, owner, sizeof owner);
    if (gPhase == PHASE_PENDING && gExpiresMs) {
        time_t at = (time_t)expiresSeconds();
        struct tm tm;
        gmtime_r(&at, &tm);
        strftime(until, sizeof until, " until %H:%M:%S UTC", &tm);
    }
    const char *what = gPhase == PHASE_PENDING      ? "is pending, unconfirmed,"
                       : gPhase == PHASE_APPLYING   ? "is being applied"
                       : gPhase == PHASE_RECOVERING ? "of a stopped host waits to be undone"
                                                    : "is being undone";
    return refusal(KEP_HOST_ERR_PENDING, "change set %d of %s %s on %s%s: confirm or cancel it first",
                   json_object_get_int(member(gRecord, "id")), owner, what, modules, until);
}

/* ---- the record on persistent storage ---- */

/* The folder's own entry, flushed: a rename or a removal in it survives a power cut. */
static void flushFolder(const char *path) {
    char copy[PATH_MAX];
    snprintf(copy, sizeof copy, "%s", path);
    int fd = open(dirname(copy), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

/* Written atomically, before the writes it may have to undo; 0 or -1. */
static int storeRecord(json_object *record) {
    if (!gPath[0]) return 0;
    if (jsonObjectToFile(gPath, record) != 0) {
        kepdLog("change set: cannot write its record %s", gPath);
        return -1;
    }
    return 0;
}

static void dropRecord(void) {
    if (gPath[0] && unlink(gPath) == 0) flushFolder(gPath);
}

/* ---- requests in the host ---- */

/* What in-process requests met: an owner that is not there (yet). */
typedef struct Io {
    int absent;
} Io;

static int sendHere(const char *request, char **response, void *ctx) {
    KepCallFailure f;
    kepLastCallFailure(NULL);
    int rc = treeRequest(request, response);
    if (rc != 0 && !*response) makeErrorRspObj(rc, response);
    if (kepLastCallFailure(&f) && ctx &&
        (f.pid == 0 || f.code == QXRPC_ERR_NO_PEER || f.code == QXRPC_ERR_NO_HANDLER))
        ((Io *)ctx)->absent = 1;
    return *response ? 0 : rc;
}

static void sayFailed(const char *module, const char *what, const char *name, int code, void *ctx) {
    (void)ctx;
    kepdLog("change set: %s: %s %s: error_code %d", module, what, name, code);
}

/* ---- what a change set names ---- */

/* The tree's form of a table for the backup engine. */
static json_object *tableJson(DataTable *t) {
    json_object *o = json_object_new_object(), *sections = json_object_new_array();
    json_object_object_add(o, "name", json_object_new_string(t->name));
    json_object_object_add(o, "dynamic", json_object_new_int(t->isDynamic));
    json_object_object_add(o, "list", json_object_new_int(t->optionPublic));
    LST_FOR_EACH(DataSection, s, &t->sections) {
        json_object *sec = json_object_new_object();
        json_object_object_add(sec, "name", json_object_new_string(s->name));
        json_object_array_add(sections, sec);
    }
    json_object_object_add(o, "sections", sections);
    return o;
}

/* The table a section name belongs to: a declared section of a table of named
 * sections, else a list table's row (the name up to its last underscore). */
static DataTable *tableOfSection(DataModule *m, const char *name) {
    LST_FOR_EACH(DataTable, t, &m->tables) {
        if (t->optionPublic == 1) continue;
        LST_FOR_EACH(DataSection, s, &t->sections) {
            if (strcmp(s->name, name) == 0) return t;
        }
    }
    const char *cut = strrchr(name, '_');
    char table[KEP_NAME_SIZE];
    if (!cut || cut == name || (size_t)(cut - name) >= sizeof table) return NULL;
    snprintf(table, sizeof table, "%.*s", (int)(cut - name), name);
    DataTable *t = getDataTable(m, table);
    return t && t->optionPublic == 1 ? t : NULL;
}

/* The places a change set changes, before anything runs: per module, the tables it
 * changes as a whole ({"module", "table", "tree"}) and the sections it names
 * ({"module", "table", "section"}), each once. */
typedef struct Plan {
    json_object *places;  /* array */
    json_object *seen;    /* "module/table" and "module/table/section" keys */
    json_object *modules; /* array of names, in first use */
    char why[256];
} Plan;

static int planRefuse(Plan *p, const char *format, ...) __attribute__((format(printf, 2, 3)));
static int planRefuse(Plan *p, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    vsnprintf(p->why, sizeof p->why, format, ap);
    va_end(ap);
    return -1;
}

static void planModule(Plan *p, const char *module) {
    for (size_t i = 0; i < json_object_array_length(p->modules); i++)
        if (strcmp(json_object_get_string(json_object_array_get_idx(p->modules, i)), module) == 0) return;
    json_object_array_add(p->modules, json_object_new_string(module));
}

static int planTable(Plan *p, size_t index, DataModule *m, const char *name) {
    DataTable *t = name ? getDataTable(m, name) : NULL;
    char key[80];
    if (!t) return planRefuse(p, "request %zu: %s.%s: no such table", index, m->name, name ? name : "?");
    if (t->isDynamic)
        return planRefuse(p, "request %zu: %s.%s: a dynamic table cannot be undone", index, m->name, name);
    snprintf(key, sizeof key, "%s/%s", m->name, t->name);
    if (json_object_object_get_ex(p->seen, key, NULL)) return 0;
    json_object_object_add(p->seen, key, NULL);
    json_object *place = json_object_new_object();
    json_object_object_add(place, "module", json_object_new_string(m->name));
    json_object_object_add(place, "table", json_object_new_string(t->name));
    json_object_object_add(place, "tree", tableJson(t));
    json_object_object_add(place, "from", json_object_new_int((int)index));
    json_object_array_add(p->places, place);
    planModule(p, m->name);
    return 0;
}

/* A name a section can have: it goes to owners and into the log. */
static int sectionName(const char *name) {
    const size_t n = name ? strlen(name) : 0;
    for (size_t i = 0; i < n; i++) {
        const unsigned char c = (unsigned char)name[i];
        if (c < 0x20 || c == 0x7f || c == '/') return 0;
    }
    return n > 0 && n < KEP_NAME_SIZE;
}

static int planSection(Plan *p, size_t index, DataModule *m, const char *name) {
    if (!sectionName(name))
        return planRefuse(p,
                          "request %zu: %s: a section name is 1 to %d characters, no control character "
                          "nor '/'",
                          index, m->name, KEP_NAME_SIZE - 1);
    DataTable *t = tableOfSection(m, name);
    char key[120];
    if (!t) return planRefuse(p, "request %zu: %s.%s: no such section", index, m->name, name ? name : "?");
    if (t->isDynamic)
        return planRefuse(p, "request %zu: %s.%s: a section of a dynamic table cannot be undone", index,
                          m->name, name);
    snprintf(key, sizeof key, "%s/%s", m->name, t->name);
    if (json_object_object_get_ex(p->seen, key, NULL)) return 0; /* the whole table is kept */
    snprintf(key, sizeof key, "%s/%s/%s", m->name, t->name, name);
    if (json_object_object_get_ex(p->seen, key, NULL)) return 0;
    json_object_object_add(p->seen, key, NULL);
    json_object *place = json_object_new_object();
    json_object_object_add(place, "module", json_object_new_string(m->name));
    json_object_object_add(place, "table", json_object_new_string(t->name));
    json_object_object_add(place, "section", json_object_new_string(name));
    json_object_object_add(place, "from", json_object_new_int((int)index));
    if (t->optionPublic == 1) json_object_object_add(place, "list", json_object_new_int(1));
    json_object_array_add(p->places, place);
    planModule(p, m->name);
    return 0;
}

/* Rows the owner names on an add: undone by deleting them, so nothing is read first. */
static int planAdded(Plan *p, size_t index, DataModule *m, const char *name) {
    DataTable *t = name ? getDataTable(m, name) : NULL;
    char key[80];
    if (!t) return planRefuse(p, "request %zu: %s.%s: no such table", index, m->name, name ? name : "?");
    if (t->isDynamic)
        return planRefuse(p, "request %zu: %s.%s: a dynamic table cannot be undone", index, m->name, name);
    snprintf(key, sizeof key, "%s/%s+", m->name, t->name);
    if (json_object_object_get_ex(p->seen, key, NULL)) return 0;
    json_object_object_add(p->seen, key, NULL);
    json_object *place = json_object_new_object();
    json_object_object_add(place, "module", json_object_new_string(m->name));
    json_object_object_add(place, "table", json_object_new_string(t->name));
    json_object_object_add(place, "added", json_object_new_array());
    json_object_object_add(place, "from", json_object_new_int((int)index));
    json_object_array_add(p->places, place);
    planModule(p, m->name);
    return 0;
}

/* One section a request names; a list row that a delete names is kept with its whole
 * table, since only the table tells the row's place, which an add cannot give back. */
static int planName(Plan *p, size_t index, DataModule *m, const char *name, int deleting) {
    if (!sectionName(name)) return planSection(p, index, m, name); /* refused there, with why */
    DataTable *t = deleting ? tableOfSection(m, name) : NULL;
    if (t && t->optionPublic == 1) return planTable(p, index, m, t->name);
    return planSection(p, index, m, name);
}

/* A "name" member: one section name or an array of them. */
static int planNames(Plan *p, size_t index, DataModule *m, json_object *names, int deleting) {
    if (json_object_is_type(names, json_type_string))
        return planName(p, index, m, json_object_get_string(names), deleting);
    if (!json_object_is_type(names, json_type_array) || json_object_array_length(names) == 0)
        return planRefuse(p, "request %zu: %s: \"name\" is a section name or a list of them", index, m->name);
    for (size_t i = 0; i < json_object_array_length(names); i++) {
        json_object *n = json_object_array_get_idx(names, i);
        if (!json_object_is_type(n, json_type_string) ||
            planName(p, index, m, json_object_get_string(n), deleting) != 0)
            return p->why[0] ? -1 : planRefuse(p, "request %zu: %s: a section name is text", index, m->name);
    }
    return 0;
}

static int planRequest(Plan *p, size_t index, json_object *req) {
    const char *method = text(req, "method");
    if (!json_object_is_type(req, json_type_object))
        return planRefuse(p, "request %zu: not a JSON object", index);
    if (!method) return planRefuse(p, "request %zu: no \"method\"", index);
    const int get = strcmp(method, "get") == 0, set = strcmp(method, "set") == 0,
              add = strcmp(method, "add") == 0, del = strcmp(method, "delete") == 0;
    if (strcmp(method, "do") == 0) return planRefuse(p, "request %zu: an action cannot be undone", index);
    if (!get && !set && !add && !del)
        return planRefuse(p, "request %zu: unknown method %.16s", index, method);
    json_object_object_foreach(req, key, body) {
        if (strcmp(key, "method") == 0) continue;
        DataModule *m = treeModule(treeModuleIndex(key));
        if (!m) return planRefuse(p, "request %zu: no such module %.31s", index, key);
        if (get) continue;
        if (!json_object_is_type(body, json_type_object))
            return planRefuse(p, "request %zu: %s: not an object", index, m->name);
        json_object *table = member(body, "table"), *name = member(body, "name");
        int rc = 0;
        if (add) {
            /* A row added under a given name is a section, which may exist already; a
             * row the owner names is known once it is added. */
            rc = name ? planNames(p, index, m, name, 0)
                      : planAdded(p, index, m, json_object_get_string(table));
        } else if (table) {
            rc = planTable(p, index, m, json_object_get_string(table));
        } else if (del) {
            rc = planNames(p, index, m, name, 1);
        } else {
            json_object_object_foreach(body, section, value) {
                (void)value;
                if ((rc = planSection(p, index, m, section)) != 0) break;
            }
        }
        if (rc != 0) return -1;
    }
    return 0;
}

/* ---- reading and putting back ---- */

/* One section as its owner has it: 0 with *value (new reference), 1 when the owner
 * says it has no such section, or the code that kept it from being read. */
static int readSection(const char *module, const char *section, json_object **value, Io *io) {
    json_object *body, *req = kepBackupRequest("get", module, &body);
    KepCallFailure f;
    char *response = NULL;
    json_object_object_add(body, "name", json_object_new_string(section));
    *value = NULL;
    kepLastCallFailure(NULL);
    int rc = treeRequest(json_object_to_json_string_ext(req, JSON_C_TO_STRING_PLAIN), &response);
    json_object_put(req);
    const int failed = kepLastCallFailure(&f);
    json_object *rsp = response ? json_tokener_parse(response) : NULL, *code = member(rsp, "error_code");
    free(response);
    if (rc == 0 && code && json_object_get_int(code) == 0) {
        json_object *v = member(member(rsp, module), section);
        if (json_object_is_type(v, json_type_object)) *value = json_object_get(v);
        rc = *value ? 0 : KEP_ERR_READ_FAILED;
    } else if (failed && f.pid != 0 && f.code == KEP_OWNER_ERR_NOT_FOUND) {
        rc = 1;
    } else {
        if (failed && (f.pid == 0 || f.code == QXRPC_ERR_NO_PEER || f.code == QXRPC_ERR_NO_HANDLER) && io)
            io->absent = 1;
        rc = code && json_object_get_int(code) != 0 ? json_object_get_int(code)
             : rc                                   ? rc
                                                    : KEP_ERR_READ_FAILED;
    }
    json_object_put(rsp);
    return rc;
}

/* Sends one request built here (taken); 0 or its failing code. */
static int sendBuilt(json_object *req, Io *io) {
    KepBackupIo bio = {sendHere, NULL, io};
    int rc;
    json_object_put(kepBackupAsk(req, &bio, &rc));
    json_object_put(req);
    return rc;
}

/* One list row, asked of the owner that serves its table, with the callback contract's
 * "table" and "name": 0 with *value (new), 1 when the owner has no such row, or the
 * code that kept it from being read. The library's get by name cannot be used: the
 * host's own row nodes, from the files at its start, answer no reads. An owner that
 * answers the whole table for a name is read from that. */
static int readRow(const char *module, const char *table, const char *row, json_object **value, Io *io) {
    const int index = treeModuleIndex(module);
    DataModule *m = treeModule(index);
    char cb[KEP_CALLBACK_SIZE] = "";
    int pid = 0, code = 0;
    *value = NULL;
    if (!m) return KEP_ERR_NO_TABLE;
    treeReadLock(index);
    DataTable *t = getDataTable(m, table);
    if (t && t->methodCb[KEP_METHOD_GET] && t->methodCb[KEP_METHOD_GET]->pid > 0) {
        pid = t->methodCb[KEP_METHOD_GET]->pid;
        snprintf(cb, sizeof cb, "%s", t->methodCb[KEP_METHOD_GET]->cb);
    }
    treeUnlock(index);
    if (pid <= 0) {
        if (io) io->absent = 1;
        return KEP_ERR_NOT_REGISTERED;
    }
    QxRpcPara set;
    char *result = NULL;
    qxrpcParaInit(&set);
    int rc = qxrpcAddStringPtr(&set, "table", table);
    if (rc == 0) rc = qxrpcAddStringPtr(&set, "name", row);
    if (rc == 0) rc = qxImiExecute(pid, cb, 0, 0, &set);
    if ((rc == QXRPC_ERR_NO_PEER || rc == QXRPC_ERR_NO_HANDLER) && io) io->absent = 1;
    if (rc == 0 && qxrpcGetInt(&set, "errorCode", &code) != 0) rc = KEP_ERR_NO_ERRORCODE;
    if (rc == 0 && code == KEP_OWNER_ERR_NOT_FOUND)
        rc = 1;
    else if (rc == 0 && code != 0)
        rc = code;
    if (rc == 0 && qxrpcGetStringPtr(&set, "result", &result) == 0 && result) {
        json_object *got = json_tokener_parse(result);
        const int whole = json_object_is_type(got, json_type_array);
        if (json_object_is_type(got, json_type_object)) {
            *value = json_object_get(got);
        } else {
            for (size_t i = 0; json_object_is_type(got, json_type_array) && i < json_object_array_length(got);
                 i++) {
                json_object *v = member(json_object_array_get_idx(got, i), row);
                if (json_object_is_type(v, json_type_object)) *value = json_object_get(v);
            }
        }
        json_object_put(got);
        if (!*value) rc = whole ? 1 : KEP_ERR_READ_FAILED;
    } else if (rc == 0) {
        rc = KEP_ERR_READ_FAILED;
    }
    qxrpcParaFree(&set);
    return rc;
}

/* Reads what a place held before the change set; 0 or the failing code. */
static int keepPlace(json_object *place, Io *io) {
    const char *module = text(place, "module"), *section = text(place, "section");
    json_object *tree = member(place, "tree"), *value = NULL;
    int rc = 0;
    if (tree) {
        KepBackupIo bio = {sendHere, sayFailed, io};
        value = kepBackupReadTable(module, tree, 0, &bio, &rc);
    } else if (section && member(place, "list")) {
        rc = readRow(module, text(place, "table"), section, &value, io);
        if (rc == 1) {
            json_object_object_add(place, "absent", json_object_new_boolean(1));
            return 0;
        }
    } else if (section) {
        rc = readSection(module, section, &value, io);
        if (rc == 1) rc = KEP_ERR_READ_FAILED; /* a declared section is always there */
    }
    if (value) json_object_object_add(place, "value", value);
    return rc;
}

/* Deletes a list row; one that is gone already is fine. */
static int deleteRow(const char *module, const char *row, Io *io) {
    json_object *body, *req = kepBackupRequest("delete", module, &body);
    json_object_object_add(body, "name", json_object_new_string(row));
    const int rc = sendBuilt(req, io);
    return rc == KEP_OWNER_ERR_NOT_FOUND ? 0 : rc;
}

/* Puts one place back as it was; 0, or the failing code with what failed in what. A
 * list row is written without a read first: set back, added back when it is gone. */
static int undoPlace(json_object *place, Io *io, char *what, size_t size) {
    const char *module = text(place, "module"), *table = text(place, "table"),
               *section = text(place, "section");
    json_object *value = member(place, "value"), *added = member(place, "added"), *body, *now = NULL;
    KepBackupIo bio = {sendHere, sayFailed, io};
    int rc = 0;
    if (member(place, "tree")) {
        if (!value) return 0; /* never read: the change set stopped before any write */
        json_object *current = kepBackupReadTable(module, member(place, "tree"), 0, &bio, &rc);
        if (!current) {
            snprintf(what, size, "reading %s.%s", module, table);
            return rc;
        }
        json_object *want = json_object_new_object(), *have = json_object_new_object();
        json_object_object_add(want, table, json_object_get(value));
        json_object_object_add(have, table, current);
        rc = kepBackupConverge(module, want, have, 0, &bio);
        json_object_put(want);
        json_object_put(have);
        if (rc != 0) snprintf(what, size, "restoring %s.%s", module, table);
        return rc;
    }
    for (size_t i = 0; added && rc == 0 && i < json_object_array_length(added); i++) {
        const char *row = json_object_get_string(json_object_array_get_idx(added, i));
        if ((rc = deleteRow(module, row, io)) != 0)
            snprintf(what, size, "deleting the added %s.%s", module, row);
    }
    if (added || !section || (!value && !member(place, "absent"))) return rc; /* never read */
    if (member(place, "list")) {
        if (!value) {
            rc = deleteRow(module, section, io);
            if (rc != 0) snprintf(what, size, "deleting the added %s.%s", module, section);
            return rc;
        }
        json_object *req = kepBackupRequest("set", module, &body);
        json_object_object_add(body, section, json_object_get(value));
        rc = sendBuilt(req, io);
        if (rc == KEP_OWNER_ERR_NOT_FOUND) {
            req = kepBackupRequest("add", module, &body);
            json_object_object_add(body, "table", json_object_new_string(table));
            json_object_object_add(body, "name", json_object_new_string(section));
            json_object_object_add(body, "para", json_object_get(value));
            rc = sendBuilt(req, io);
        }
        if (rc != 0) snprintf(what, size, "putting %s.%s back", module, section);
        return rc;
    }
    /* A declared section: written only when it differs, so an untouched one hears nothing. */
    rc = readSection(module, section, &now, io);
    if (rc == 0 && !json_object_equal(value, now)) {
        json_object *req = kepBackupRequest("set", module, &body);
        json_object_object_add(body, section, json_object_get(value));
        rc = sendBuilt(req, io);
    }
    json_object_put(now);
    if (rc != 0) snprintf(what, size, "setting %s.%s back", module, section);
    return rc;
}

/* Puts one module back: its whole tables first, then its sections and added rows, the
 * last named first (a row added in the change set goes before an older one takes its
 * address back). Places first named by a request after ran (which changed nothing)
 * are left alone. */
static int undoModule(json_object *record, const char *module, int ran, Io *io, char *what, size_t size) {
    json_object *places = member(record, "places");
    int rc = 0;
    for (int pass = 0; pass < 2 && rc == 0; pass++) {
        for (size_t i = json_object_array_length(places); rc == 0 && i-- > 0;) {
            json_object *place = json_object_array_get_idx(places, i);
            if (strcmp(text(place, "module"), module) != 0 ||
                (member(place, "tree") != NULL) != (pass == 0) ||
                json_object_get_int(member(place, "from")) > ran)
                continue;
            rc = undoPlace(place, io, what, size);
        }
    }
    return rc;
}

/* Every module of the record put back, as far as request ran got; how each went, as
 * {"module": "restored" | why}. A module whose restore fails is left as the restore
 * left it, and logged. */
static json_object *undoAll(json_object *record, int ran, const char *why) {
    json_object *modules = member(record, "modules"), *out = json_object_new_object();
    const int id = json_object_get_int(member(record, "id"));
    for (size_t i = 0; i < json_object_array_length(modules); i++) {
        const char *module = json_object_get_string(json_object_array_get_idx(modules, i));
        char what[160] = "", line[256];
        Io io = {0};
        int rc = undoModule(record, module, ran, &io, what, sizeof what);
        if (rc == 0) {
            json_object_object_add(out, module, json_object_new_string("restored"));
        } else {
            snprintf(line, sizeof line,
                     "not restored: %s failed (error_code %d); left as the restore left it", what, rc);
            json_object_object_add(out, module, json_object_new_string(line));
        }
        kepdLog("change set %d (%s): %s: %s", id, why, module, rc == 0 ? "restored" : line);
    }
    return out;
}

/* ---- the one change set's life ---- */

/* Ends the change set's life (the lock is held). */
static void endLocked(void) {
    json_object_put(gRecord);
    gRecord = NULL;
    gExpiresMs = 0;
    memset(gGuarded, 0, (size_t)treeModuleCount());
    __atomic_store_n(&gPhase, PHASE_NONE, __ATOMIC_RELEASE);
    runtimeChangeset(0);
}

static void end(void) {
    pthread_mutex_lock(&gLock);
    endLocked();
    pthread_mutex_unlock(&gLock);
}

static void setPhase(int phase) {
    pthread_mutex_lock(&gLock);
    __atomic_store_n(&gPhase, phase, __ATOMIC_RELEASE);
    pthread_mutex_unlock(&gLock);
}

/* Starts a change set's life with this record (the lock is held). */
static void beginLocked(json_object *record, int phase) {
    json_object *modules = member(record, "modules");
    gRecord = record;
    for (size_t i = 0; i < json_object_array_length(modules); i++) {
        int m = treeModuleIndex(json_object_get_string(json_object_array_get_idx(modules, i)));
        if (m >= 0) gGuarded[m] = 1;
    }
    __atomic_store_n(&gPhase, phase, __ATOMIC_RELEASE);
    runtimeChangeset(1);
}

/* The row names an add answered, {"MODULE": {"name": [...]}}, into the record. */
static void noteAdded(json_object *record, json_object *request, json_object *response) {
    json_object *places = member(record, "places");
    json_object_object_foreach(request, module, body) {
        const char *table = text(body, "table");
        json_object *names = member(member(response, module), "name");
        if (strcmp(module, "method") == 0 || !table || member(body, "name")) continue;
        for (size_t i = 0; i < json_object_array_length(places); i++) {
            json_object *place = json_object_array_get_idx(places, i), *added = member(place, "added");
            if (!added || strcmp(text(place, "module"), module) != 0 ||
                strcmp(text(place, "table"), table) != 0)
                continue;
            if (json_object_is_type(names, json_type_string))
                json_object_array_add(added, json_object_get(names));
            for (size_t k = 0;
                 json_object_is_type(names, json_type_array) && k < json_object_array_length(names); k++)
                json_object_array_add(added, json_object_get(json_object_array_get_idx(names, k)));
        }
    }
}

static int sameOwner(json_object *record, const QxImiCaller *caller, const char *user) {
    const char *owner = text(record, "user");
    return json_object_get_int(member(record, "uid")) == caller->uid &&
           strcmp(owner ? owner : "", user ? user : "") == 0;
}

static char *answerText(json_object *answer) {
    char *out = textOf(answer);
    json_object_put(answer);
    return out;
}

static void applyHere(const QxImiCaller *caller, const char *user, const char *changes, int confirmSeconds,
                      char **answer) {
    json_object *parsed = changes ? json_tokener_parse(changes) : NULL, *requests;
    Plan plan = {json_object_new_array(), json_object_new_object(), json_object_new_array(), ""};
    *answer = NULL;
    if (json_object_is_type(parsed, json_type_array)) {
        requests = parsed;
    } else {
        requests = json_object_new_array();
        if (parsed) json_object_array_add(requests, parsed);
    }
    const size_t count = json_object_array_length(requests);
    int rc = 0;
    if (confirmSeconds < 0 || confirmSeconds > CHANGESET_MAX_CONFIRM)
        rc = planRefuse(&plan, "a confirm window is 1 to %d seconds", CHANGESET_MAX_CONFIRM);
    else if (!parsed || count == 0 || count > CHANGESET_MAX_REQUESTS)
        rc = planRefuse(&plan, "a change set is a request object or an array of 1 to %d of them",
                        CHANGESET_MAX_REQUESTS);
    else if (confirmSeconds && !gPath[0])
        rc = planRefuse(&plan, "no folder keeps a pending change set's record (kepd -s DIR)");
    for (size_t i = 0; rc == 0 && i < count; i++)
        rc = planRequest(&plan, i, json_object_array_get_idx(requests, i));
    if (rc != 0) {
        *answer = refusal(KEP_HOST_ERR_UNDOABLE, "%s; nothing changed", plan.why);
        goto out;
    }

    json_object *record = json_object_new_object();
    pthread_once(&gGateOnce, makeGate);
    pthread_rwlock_wrlock(&gGate);
    pthread_mutex_lock(&gLock);
    if (gPhase != PHASE_NONE) {
        *answer = pendingRefusal();
        pthread_mutex_unlock(&gLock);
        pthread_rwlock_unlock(&gGate);
        json_object_put(record);
        goto out;
    }
    const int id = (int)gNextId++;
    json_object_object_add(record, "format", json_object_new_int(RECORD_FORMAT));
    json_object_object_add(record, "id", json_object_new_int(id));
    json_object_object_add(record, "uid", json_object_new_int(caller->uid));
    json_object_object_add(record, "pid", json_object_new_int(caller->pid));
    if (user && *user)
        json_object_object_add(record, "user",
                               json_object_new_string_len(user, (int)strnlen(user, USER_MAX)));
    json_object_object_add(record, "modules", json_object_get(plan.modules));
    json_object_object_add(record, "places", json_object_get(plan.places));
    json_object_object_add(record, "expires", json_object_new_int64(0));
    beginLocked(record, PHASE_APPLYING);
    pthread_mutex_unlock(&gLock);
    pthread_rwlock_unlock(&gGate);

    /* What the requests will change, read before any of them runs, and kept. */
    Io io = {0};
    for (size_t i = 0; rc == 0 && i < json_object_array_length(plan.places); i++) {
        json_object *place = json_object_array_get_idx(plan.places, i);
        if ((rc = keepPlace(place, &io)) != 0)
            *answer = refusal(KEP_HOST_ERR_UNDOABLE,
                              "%s.%s could not be read first (error_code %d); nothing changed",
                              text(place, "module"),
                              text(place, "section") ? text(place, "section") : text(place, "table"), rc);
    }
    if (rc == 0 && storeRecord(record) != 0) {
        rc = -1;
        *answer =
            refusal(KEP_HOST_ERR_UNDOABLE, "its record could not be kept in %s; nothing changed", gPath);
    }
    if (rc != 0) {
        end();
        goto out;
    }

    json_object *responses = json_object_new_array(), *failed = NULL;
    size_t at = 0;
    int code = 0;
    for (; at < count; at++) {
        json_object *req = json_object_array_get_idx(requests, at);
        char *response = NULL;
        sendHere(json_object_to_json_string_ext(req, JSON_C_TO_STRING_PLAIN), &response, NULL);
        json_object *rsp = response ? json_tokener_parse(response) : NULL, *c = member(rsp, "error_code");
        free(response);
        code = !rsp ? KEP_ERR_NO_MEMORY : c ? json_object_get_int(c) : KEP_ERR_BAD_JSON;
        if (code != 0) {
            failed = rsp ? rsp : json_object_new_object();
            break;
        }
        if (strcmp(text(req, "method"), "add") == 0) {
            noteAdded(record, req, rsp);
            storeRecord(record); /* a host stopped from here on deletes the row too */
        }
        json_object_array_add(responses, rsp);
    }
    char modules[256], owner[160];
    moduleList(record, modules, sizeof modules);
    ownerText(record, owner, sizeof owner);

    json_object *out = json_object_new_object();
    json_object_object_add(out, "error_code", json_object_new_int(code));
    if (failed) {
        setPhase(PHASE_UNDOING);
        kepdLog("change set %d of %s on %s: request %zu answered error_code %d: undoing it", id, owner,
                modules, at, code);
        json_object_object_add(out, "failed", json_object_new_int((int)at));
        json_object_object_add(out, "response", failed);
        json_object_object_add(out, "restored", undoAll(record, (int)at, "request failed"));
        json_object_put(responses);
        dropRecord();
        end();
    } else if (confirmSeconds) {
        pthread_mutex_lock(&gLock);
        gExpiresMs = wallMs() + (long long)confirmSeconds * 1000;
        json_object_object_add(record, "expires", json_object_new_int64(expiresSeconds()));
        __atomic_store_n(&gPhase, PHASE_PENDING, __ATOMIC_RELEASE);
        pthread_mutex_unlock(&gLock);
        storeRecord(record);
        kepdLog("change set %d of %s on %s: applied, undone in %d s unless confirmed", id, owner, modules,
                confirmSeconds);
        json_object *pending = json_object_new_object();
        json_object_object_add(pending, "id", json_object_new_int(id));
        json_object_object_add(pending, "expires", json_object_new_int64(expiresSeconds()));
        json_object_object_add(pending, "seconds", json_object_new_int(confirmSeconds));
        json_object_object_add(out, "responses", responses);
        json_object_object_add(out, "pending", pending);
    } else {
        kepdLog("change set %d of %s on %s: applied", id, owner, modules);
        json_object_object_add(out, "responses", responses);
        dropRecord();
        end();
    }
    *answer = answerText(out);
out:
    if (!*answer) *answer = refusal(KEP_ERR_NO_MEMORY, "no memory");
    json_object_put(requests);
    json_object_put(plan.places);
    json_object_put(plan.seen);
    json_object_put(plan.modules);
}

/* Undoes the pending change set now, for why; its answer. */
static char *undoNow(const char *why) {
    json_object *record = gRecord; /* this thread drives it now: the phase says so */
    json_object *out = json_object_new_object(), *restored = undoAll(record, INT32_MAX, why);
    int code = 0;
    json_object_object_foreach(restored, module, how) {
        (void)module;
        if (strcmp(json_object_get_string(how), "restored") != 0) code = KEP_HOST_ERR_UNDOABLE;
    }
    json_object_object_add(out, "error_code", json_object_new_int(code));
    json_object_object_add(out, "id", json_object_get(member(record, "id")));
    json_object_object_add(out, "restored", restored);
    dropRecord();
    end();
    return answerText(out);
}

void changesetConfirm(const QxImiCaller *caller, const char *user, char **answer) {
    pthread_mutex_lock(&gLock);
    const int phase = gPhase;
    if (phase != PHASE_PENDING && phase != PHASE_RECOVERING) {
        *answer = phase == PHASE_NONE
                      ? refusal(KEP_HOST_ERR_NO_CHANGESET, "no change set waits for a confirm")
                      : pendingRefusal();
        pthread_mutex_unlock(&gLock);
        return;
    }
    /* A stopped host's change set has lost its window: its user (or root) may keep it. */
    if (!sameOwner(gRecord, caller, user) && !(phase == PHASE_RECOVERING && caller->uid == 0)) {
        char owner[160];
        ownerText(gRecord, owner, sizeof owner);
        *answer = refusal(KEP_HOST_ERR_DENIED, "change set %d is %s's to confirm",
                          json_object_get_int(member(gRecord, "id")), owner);
        pthread_mutex_unlock(&gLock);
        return;
    }
    const int id = json_object_get_int(member(gRecord, "id"));
    kepdLog("change set %d: confirmed by uid %d (pid %d)%s%s", id, caller->uid, caller->pid,
            user ? ", user " : "", user ? user : "");
    endLocked();
    pthread_mutex_unlock(&gLock);
    dropRecord();
    char text[64];
    snprintf(text, sizeof text, "{\"error_code\":0,\"confirmed\":%d}", id);
    *answer = strdup(text);
}

static void cancelHere(const QxImiCaller *caller, const char *user, char **answer) {
    pthread_mutex_lock(&gLock);
    if (gPhase != PHASE_PENDING) {
        *answer = gPhase == PHASE_NONE
                      ? refusal(KEP_HOST_ERR_NO_CHANGESET, "no change set waits for a confirm")
                      : pendingRefusal();
        pthread_mutex_unlock(&gLock);
        return;
    }
    if (!sameOwner(gRecord, caller, user) && caller->uid != 0) {
        char owner[160];
        ownerText(gRecord, owner, sizeof owner);
        *answer = refusal(KEP_HOST_ERR_DENIED, "change set %d is %s's to cancel",
                          json_object_get_int(member(gRecord, "id")), owner);
        pthread_mutex_unlock(&gLock);
        return;
    }
    __atomic_store_n(&gPhase, PHASE_UNDOING, __ATOMIC_RELEASE);
    pthread_mutex_unlock(&gLock);
    kepdLog("change set %d: cancelled by uid %d (pid %d)%s%s", json_object_get_int(member(gRecord, "id")),
            caller->uid, caller->pid, user ? ", user " : "", user ? user : "");
    *answer = undoNow("cancelled");
}

/* The owner calls of a change set run on a thread of their own, which no caller's
 * deadline bounds: a client that stops waiting leaves the change set applied or undone,
 * never half-way. */
typedef struct Job {
    QxImiCaller caller;
    const char *user, *changes;
    int confirm, cancel;
    char *answer;
} Job;

static void *runJob(void *arg) {
    Job *job = (Job *)arg;
    if (job->cancel)
        cancelHere(&job->caller, job->user, &job->answer);
    else
        applyHere(&job->caller, job->user, job->changes, job->confirm, &job->answer);
    return NULL;
}

static void runApart(Job *job) {
    pthread_t thread;
    if (pthread_create(&thread, NULL, runJob, job) == 0)
        pthread_join(thread, NULL);
    else
        job->answer = refusal(KEP_ERR_NO_MEMORY, "no thread for the change set");
}

void changesetApply(const QxImiCaller *caller, const char *user, const char *changes, int confirmSeconds,
                    char **answer) {
    Job job = {*caller, user, changes, confirmSeconds, 0, NULL};
    runApart(&job);
    *answer = job.answer;
}

void changesetCancel(const QxImiCaller *caller, const char *user, char **answer) {
    Job job = {*caller, user, NULL, 0, 1, NULL};
    runApart(&job);
    *answer = job.answer;
}

void changesetPending(char **answer) {
    json_object *out = json_object_new_object();
    json_object_object_add(out, "error_code", json_object_new_int(0));
    pthread_mutex_lock(&gLock);
    if (gPhase != PHASE_NONE) {
        static const char *const kPhases[] = {"none", "applying", "pending", "undoing", "recovering"};
        json_object *p = json_object_new_object();
        json_object_object_add(p, "id", json_object_get(member(gRecord, "id")));
        json_object_object_add(p, "state", json_object_new_string(kPhases[gPhase]));
        json_object_object_add(p, "uid", json_object_get(member(gRecord, "uid")));
        json_object_object_add(p, "pid", json_object_get(member(gRecord, "pid")));
        if (member(gRecord, "user"))
            json_object_object_add(p, "user", json_object_get(member(gRecord, "user")));
        json_object_object_add(p, "modules", json_object_get(member(gRecord, "modules")));
        if (gExpiresMs) {
            json_object_object_add(p, "expires", json_object_new_int64(expiresSeconds()));
            long long left = (gExpiresMs - wallMs() + 999) / 1000;
            json_object_object_add(p, "seconds_left", json_object_new_int64(left > 0 ? left : 0));
        }
        json_object_object_add(out, "pending", p);
    }
    pthread_mutex_unlock(&gLock);
    *answer = answerText(out);
}

/* Whether request (NULL: a factory reset) is refused for the change set that lives.
 * The lock is held. */
static int refusedLocked(json_object *req) {
    if (gPhase == PHASE_NONE) return 0;
    if (!req) return 1;
    const char *method = text(req, "method");
    if (!method || strcmp(method, "get") == 0 || !json_object_is_type(req, json_type_object)) return 0;
    json_object_object_foreach(req, key, value) {
        (void)value;
        int m = treeModuleIndex(key);
        if (m >= 0 && gGuarded[m]) return 1;
    }
    return 0;
}

char *changesetEnter(const char *request) {
    pthread_once(&gGateOnce, makeGate);
    pthread_rwlock_rdlock(&gGate);
    if (__atomic_load_n(&gPhase, __ATOMIC_ACQUIRE) == PHASE_NONE) return NULL;
    json_object *req = request ? json_tokener_parse(request) : NULL;
    char *refused = NULL;
    pthread_mutex_lock(&gLock);
    if ((request == NULL || req) && refusedLocked(req)) refused = pendingRefusal();
    pthread_mutex_unlock(&gLock);
    json_object_put(req);
    if (refused) pthread_rwlock_unlock(&gGate);
    return refused;
}

int changesetLives(void) {
    return __atomic_load_n(&gPhase, __ATOMIC_ACQUIRE) != PHASE_NONE;
}

void changesetLeave(void) {
    pthread_rwlock_unlock(&gGate);
}

static int slotServed(MethodCbNode *const *slots, int index) {
    return slots[index] && slots[index]->pid > 0;
}

/* Whether the owners have registered what putting a module back calls: a list table's
 * get, set, add and delete, a named section's get and set. */
static int moduleServed(json_object *record, const char *name) {
    json_object *places = member(record, "places");
    const int index = treeModuleIndex(name);
    DataModule *m = treeModule(index);
    int served = m != NULL;
    if (!served) return 0;
    treeReadLock(index);
    for (size_t i = 0; served && i < json_object_array_length(places); i++) {
        json_object *place = json_object_array_get_idx(places, i);
        if (strcmp(text(place, "module"), name) != 0) continue;
        DataTable *t = getDataTable(m, text(place, "table"));
        if (!t) continue; /* not in this model: nothing can be done for it */
        if (t->optionPublic == 1) {
            for (int k = 0; k < 4; k++) served &= slotServed(t->methodCb, k);
            continue;
        }
        const char *section = text(place, "section");
        LST_FOR_EACH(DataSection, s, &t->sections) {
            if (section && strcmp(s->name, section) != 0) continue;
            served &= slotServed(s->methodCb, KEP_METHOD_GET) && slotServed(s->methodCb, KEP_METHOD_SET);
        }
    }
    treeUnlock(index);
    return served;
}

/* A stopped host's change set: each module put back once its owners serve it. */
static void recover(void) {
    json_object *still = json_object_new_array();
    const int id = json_object_get_int(member(gRecord, "id"));
    char waiting[256] = "";
    for (size_t i = 0; i < json_object_array_length(gLeft); i++) {
        const char *module = json_object_get_string(json_object_array_get_idx(gLeft, i));
        char what[160] = "";
        Io io = {0};
        int rc = moduleServed(gRecord, module)
                     ? undoModule(gRecord, module, INT32_MAX, &io, what, sizeof what)
                     : -1;
        if (rc != 0 && (io.absent || !what[0])) {
            json_object_array_add(still, json_object_new_string(module));
            size_t n = strlen(waiting);
            snprintf(waiting + n, sizeof waiting - n, "%s%s", n ? ", " : "", module);
        } else if (rc != 0) {
            kepdLog(
                "change set %d (a stopped host's): %s: not restored: %s failed (error_code %d); left as the "
                "restore left it",
                id, module, what, rc);
        } else {
            kepdLog("change set %d (a stopped host's): %s: restored", id, module);
        }
    }
    json_object_put(gLeft);
    gLeft = still;
    if (json_object_array_length(still) == 0) {
        kepdLog("change set %d of a stopped host: undone", id);
        dropRecord();
        end();
    } else if (wallSeconds() - gReportedAt >= RECOVER_REPORT_S) {
        gReportedAt = wallSeconds();
        kepdLog("change set %d of a stopped host: waiting for the owners of %s to undo it", id, waiting);
    }
}

int changesetTick(void) {
    pthread_mutex_lock(&gLock);
    const int phase = gPhase;
    long long left = gExpiresMs - wallMs();
    if (phase == PHASE_PENDING && left <= 0) __atomic_store_n(&gPhase, PHASE_UNDOING, __ATOMIC_RELEASE);
    pthread_mutex_unlock(&gLock);
    if (phase == PHASE_RECOVERING) {
        recover();
        return RECOVER_RETRY_MS;
    }
    if (phase != PHASE_PENDING) return -1;
    if (left > 0) return left > 1000 ? 1000 : (int)left;
    kepdLog("change set %d: its confirm window ended: undoing it",
            json_object_get_int(member(gRecord, "id")));
    free(undoNow("window ended"));
    return -1;
}

int changesetInit(const char *dir) {
    char folder[PATH_MAX] = "";
    gGuarded = calloc((size_t)(treeModuleCount() ? treeModuleCount() : 1), 1);
    if (!gGuarded) return -1;
    if (dir) {
        snprintf(folder, sizeof folder, "%s", dir);
    } else {
        for (int i = 0; i < treeModuleCount() && !folder[0]; i++) {
            if (!treeModule(i)->configFile[0]) continue;
            char copy[PATH_MAX];
            snprintf(copy, sizeof copy, "%s", treeModule(i)->configFile);
            snprintf(folder, sizeof folder, "%s", dirname(copy));
        }
    }
    if (!folder[0]) {
        kepdLog(
            "change sets: no folder for their record (no module has a configuration file; -s DIR): "
            "only those without a confirm window, and a stopped host cannot undo them");
        return 0;
    }
    if (snprintf(gPath, sizeof gPath, "%s/%s", folder, RECORD_FILE) >= (int)sizeof gPath) {
        gPath[0] = '\0';
        kepdLog("change sets: folder name too long: %s", folder);
        return -1;
    }
    if (access(gPath, F_OK) != 0) return 0;
    json_object *record = jsonObjectFromFile(gPath);
    if (!json_object_is_type(member(record, "places"), json_type_array) ||
        !json_object_is_type(member(record, "modules"), json_type_array) ||
        json_object_get_int(member(record, "format")) != RECORD_FORMAT) {
        kepdLog("change sets: %s cannot be read: left as it is, not undone", gPath);
        json_object_put(record);
        return 0;
    }
    gNextId = (unsigned)json_object_get_int(member(record, "id")) + 1;
    gLeft = json_object_get(member(record, "modules"));
    char modules[256];
    moduleList(record, modules, sizeof modules);
    kepdLog(
        "change set %d on %s was not confirmed or finished when the host stopped: undoing it as soon as "
        "its owners serve; writes to those modules wait for it",
        json_object_get_int(member(record, "id")), modules);
    pthread_mutex_lock(&gLock);
    beginLocked(record, PHASE_RECOVERING);
    pthread_mutex_unlock(&gLock);
    return 0;
}
