#define _GNU_SOURCE
#include "owner.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <json-c/json.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "kepHandle.h"
#include "kep_host.h"
#include "kep_platform.h"

int ownerToJson(const OwnerField *fields, int n, const void *record, json_object **out) {
    const char *base = (const char *)record;
    json_object *obj = json_object_new_object();
    if (!obj) return -1;
    for (int i = 0; i < n; i++) {
        const OwnerField *f = &fields[i];
        json_object *v;
        if (f->type == FIELD_TEXT) {
            v = json_object_new_string_len(base + f->offset, (int)strnlen(base + f->offset, f->size));
        } else {
            int x;
            memcpy(&x, base + f->offset, sizeof x);
            v = f->type == FIELD_INT ? json_object_new_int(x) : json_object_new_boolean(x);
        }
        if (!v || json_object_object_add(obj, f->key, v) != 0) {
            json_object_put(v);
            json_object_put(obj);
            return -1;
        }
    }
    *out = obj;
    return 0;
}

static const OwnerField *findField(const OwnerField *fields, int n, const char *key) {
    for (int i = 0; i < n; i++) {
        if (strcmp(fields[i].key, key) == 0) return &fields[i];
    }
    return NULL;
}

int ownerFromJson(const OwnerField *fields, int n, json_object *value, void *record) {
    char *base = (char *)record;
    if (!json_object_is_type(value, json_type_object)) return -1;
    json_object_object_foreach(value, key, v) {
        const OwnerField *f = findField(fields, n, key);
        if (!f) return -1;
        if (f->type == FIELD_TEXT) {
            const char *s = json_object_get_string(v);
            if (!json_object_is_type(v, json_type_string) || strlen(s) >= f->size) return -1;
            if (f->valid && !f->valid(s)) return -1;
        } else if (!json_object_is_type(v, json_type_int) && !json_object_is_type(v, json_type_boolean)) {
            return -1;
        }
    }
    /* Checked as a whole first, so that a refused value changes nothing. */
    json_object_object_foreach(value, key2, v2) {
        const OwnerField *f = findField(fields, n, key2);
        if (f->type == FIELD_TEXT) {
            memset(base + f->offset, 0, f->size);
            strcpy(base + f->offset, json_object_get_string(v2));
        } else {
            int x = json_object_get_int(v2);
            memcpy(base + f->offset, &x, sizeof x);
        }
    }
    return 0;
}

int ownerMatches(const OwnerField *fields, int n, const void *record, json_object *filter) {
    json_object *mine = NULL;
    int match = 1;
    if (!filter) return 1;
    if (!json_object_is_type(filter, json_type_object) || ownerToJson(fields, n, record, &mine) != 0) return 0;
    json_object_object_foreach(filter, key, want) {
        json_object *have = NULL;
        if (!json_object_object_get_ex(mine, key, &have) ||
            strcmp(json_object_get_string(have), json_object_get_string(want)) != 0) {
            match = 0;
            break;
        }
    }
    json_object_put(mine);
    return match;
}

int ownerValidIpv4(const char *text) {
    struct in_addr a;
    return inet_pton(AF_INET, text, &a) == 1;
}

int ownerValidMac(const char *text) {
    if (strlen(text) != 17) return 0;
    for (int i = 0; i < 17; i++) {
        if (i % 3 == 2 ? text[i] != ':' : !isxdigit((unsigned char)text[i])) return 0;
    }
    return 1;
}

const char *ownerMember(QxRpcPara *set, const char *name) {
    char *text = NULL;
    return qxrpcGetStringPtr(set, name, &text) == 0 ? text : NULL;
}

json_object *ownerJsonMember(QxRpcPara *set, const char *name) {
    const char *text = ownerMember(set, name);
    return text ? json_tokener_parse(text) : NULL;
}

int ownerAnswer(QxRpcPara *set, int code, const char *result) {
    qxrpcAddInt(set, "errorCode", code);
    if (result) qxrpcAddStringPtr(set, "result", result);
    return 0;
}

static void append(OwnerText *t, const char *s, size_t n) {
    if (t->failed) return;
    if (t->len + n + 2 > t->cap) {
        size_t cap = t->cap ? t->cap * 2 : 4096;
        while (cap < t->len + n + 2) cap *= 2;
        char *grown = realloc(t->data, cap);
        if (!grown) {
            t->failed = 1;
            return;
        }
        t->data = grown;
        t->cap = cap;
    }
    memcpy(t->data + t->len, s, n);
    t->len += n;
    t->data[t->len] = '\0';
}

void ownerTextMember(OwnerText *text, const char *name, json_object *value) {
    json_object *key = json_object_new_string(name);
    size_t klen = 0, vlen = 0;
    const char *k = key ? json_object_to_json_string_length(key, JSON_C_TO_STRING_PLAIN, &klen) : NULL;
    const char *v = value ? json_object_to_json_string_length(value, JSON_C_TO_STRING_PLAIN, &vlen) : NULL;
    if (!k || !v) text->failed = 1;
    append(text, text->len ? "," : "{", 1);
    if (k && v) {
        append(text, k, klen);
        append(text, ":", 1);
        append(text, v, vlen);
    }
    json_object_put(key);
    json_object_put(value);
}

enum { OWNER_TRIM_BYTES = 256 * 1024 };  /* an answer this large gives its memory back */

/* Set when a large answer was built from many small blocks, now free: the main
 * thread hands them back to the system, off the path of the requests. */
static int gTrimWanted;

int ownerAnswerJson(QxRpcPara *set, int code, json_object *result) {
    size_t len = 0;
    const char *text = result ? json_object_to_json_string_length(result, JSON_C_TO_STRING_PLAIN, &len) : NULL;
    ownerAnswer(set, code, text);
    json_object_put(result);
    if (len >= OWNER_TRIM_BYTES) __atomic_store_n(&gTrimWanted, 1, __ATOMIC_RELAXED);
    return 0;
}

int ownerAnswerObjectText(QxRpcPara *set, int code, OwnerText *text) {
    append(text, text->len ? "}" : "{}", text->len ? 1 : 2);
    if (text->failed) code = -1;
    ownerAnswer(set, code, text->failed ? NULL : text->data);
    if (text->len >= OWNER_TRIM_BYTES) __atomic_store_n(&gTrimWanted, 1, __ATOMIC_RELAXED);
    free(text->data);
    memset(text, 0, sizeof *text);
    return 0;
}

/* What this owner registered, so that it can register again with a new host. */
static const OwnerRegistration *gRegs;
static int gRegCount;
static int gHostRegistered;  /* the host's pid the registrations went to */

static int sendRegistrations(void) {
    for (int i = 0; i < gRegCount; i++) {
        int rc = kepHostRegister(gRegs[i].op, gRegs[i].path, gRegs[i].index, gRegs[i].cb);
        if (rc != 0) {
            fprintf(stderr, "registering %s %s failed: %d\n", gRegs[i].op, gRegs[i].path ? gRegs[i].path : "-", rc);
            return rc;
        }
    }
    return 0;
}

static int gWake[2] = {-1, -1};

int ownerRegisterAll(const OwnerRegistration *regs, int n, int waitMs) {
    /* The main thread's wake-up exists before any handler can ask for it. */
    if (gWake[0] < 0 && pipe2(gWake, O_CLOEXEC | O_NONBLOCK) != 0) return -1;
    /* Serving first, on a thread of its own: the host may call as soon as the first
     * registration lands, while the others are still being sent. */
    if (qxImiStartServer() != 0) {
        fprintf(stderr, "cannot serve the RPC\n");
        return -1;
    }
    if (kepHostWait(waitMs) != 0) {
        fprintf(stderr, "the host (kepd) does not answer\n");
        return -1;
    }
    gRegs = regs;
    gRegCount = n;
    gHostRegistered = kepHostPid();
    return sendRegistrations();
}

/* A host that started since (a new pid in its pid file) knows nothing of this owner:
 * it is told again. */
static void registerWithNewHost(void) {
    int host = kepHostPid();
    if (host <= 0 || host == gHostRegistered || !gRegs) return;
    fprintf(stderr, "the host restarted (pid %d): registering again\n", host);
    if (sendRegistrations() == 0) gHostRegistered = host;
}

int ownerResetHandler(QxRpcPara *set, void *user) {
    int rc = systemResetConfigFile();
    (void)user;
    /* The files hold the defaults now; the list tables' sections follow them. */
    for (DataModule *m = getModulerRoot(); rc == 0 && m; m = (DataModule *)lstNext(&m->link)) {
        json_object *doc = m->configFile[0] ? jsonObjectFromFile(m->configFile) : NULL;
        for (DataTable *t = (DataTable *)lstFirst(&m->tables); doc && t; t = (DataTable *)lstNext(&t->link)) {
            if (t->isDynamic || t->optionPublic != 1) continue;
            delDataTable(t);
            json_object *member = jsonObjectObjectGet(doc, t->name);
            if (member) loadTableListConfig(t, member);
        }
        jsonObjectObjectDelete(doc);
    }
    return ownerAnswer(set, rc, NULL);
}

/* The main thread waits on gWake: a signal or a notification to send wakes it. */
static volatile sig_atomic_t gStop;

static void wake(void) {
    if (gWake[1] >= 0 && write(gWake[1], "x", 1) < 0) {
        /* Full: the main thread has a wake-up waiting already. */
    }
}

static void onSignal(int sig) {
    int saved = errno;
    (void)sig;
    gStop = 1;
    wake();
    errno = saved;
}

/* Notifications wait until the current call has been answered: the host is still
 * inside the request that reached us. Handlers queue them; the main thread sends. */
static pthread_mutex_t gPendingLock = PTHREAD_MUTEX_INITIALIZER;
static char gPending[8][80];
static int gPendingCount;

void ownerNotifyLater(const char *path) {
    pthread_mutex_lock(&gPendingLock);
    int queued = 0;
    for (int i = 0; i < gPendingCount; i++) queued |= strcmp(gPending[i], path) == 0;
    if (!queued && gPendingCount < 8) snprintf(gPending[gPendingCount++], sizeof gPending[0], "%s", path);
    pthread_mutex_unlock(&gPendingLock);
    wake();
}

static void flushNotifications(void) {
    char paths[8][80];
    pthread_mutex_lock(&gPendingLock);
    int n = gPendingCount;
    memcpy(paths, gPending, sizeof paths);
    gPendingCount = 0;
    pthread_mutex_unlock(&gPendingLock);
    for (int i = 0; i < n; i++) {
        int rc = kepHostNotify(paths[i]);
        if (rc != 0) fprintf(stderr, "notifying %s failed: %d\n", paths[i], rc);
    }
}

int ownerServe(const char *name) {
    struct sigaction sa;
    char drain[64];
    if (gWake[0] < 0) return -1;  /* ownerRegisterAll first */
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = onSignal;
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGINT, &sa, NULL);
    signal(SIGPIPE, SIG_IGN);
    fprintf(stderr, "%s: serving as pid %d\n", name, (int)getpid());
    /* Requests are served on the RPC's thread; this one sends what handlers asked
     * for and watches for a new host. */
    while (!gStop) {
        struct pollfd p = {gWake[0], POLLIN, 0};
        if (poll(&p, 1, 250) > 0) {
            while (read(gWake[0], drain, sizeof drain) > 0) {
            }
        }
        flushNotifications();
        registerWithNewHost();
#ifdef __GLIBC__
        if (__atomic_exchange_n(&gTrimWanted, 0, __ATOMIC_RELAXED)) malloc_trim(0);
#endif
    }
    qxImiStopServer();
    kepHostRegister("unregister", NULL, 0, NULL);
    fprintf(stderr, "%s: stopped\n", name);
    return 0;
}
