/*
 * dhcpd: example owner of the "dhcp" module.
 *
 *   host    list table of static leases (host_1, host_2, ...): get, set, add, delete
 *   pool    named section "lan": get, set (the host tells its notify listeners)
 *   client  dynamic table of current leases, produced when read
 *   restart action
 *
 * The values live in the module's configuration file, read and written through the
 * library in this process with the conversion functions below; the host daemon only
 * knows which callback of which process serves what.
 */
#define _POSIX_C_SOURCE 200809L
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include <json-c/json.h>

#include "kepHandle.h"
#include "kep_host.h"
#include "owner.h"

/* ---- records and their JSON form ---- */

typedef struct DhcpHost {
    char mac[18];
    char ip[16];
    char hostname[32];
} DhcpHost;

typedef struct DhcpPool {
    char start[16];
    char end[16];
    int leaseMinutes;
    int enabled;
} DhcpPool;

static const OwnerField kHostFields[] = {
    OWNER_TEXT(DhcpHost, mac, ownerValidMac),
    OWNER_TEXT(DhcpHost, ip, ownerValidIpv4),
    OWNER_TEXT(DhcpHost, hostname, NULL),
};
static const OwnerField kPoolFields[] = {
    OWNER_TEXT(DhcpPool, start, ownerValidIpv4),
    OWNER_TEXT(DhcpPool, end, ownerValidIpv4),
    OWNER_INT(DhcpPool, leaseMinutes),
    OWNER_BOOL(DhcpPool, enabled),
};
#define COUNT(a) ((int)(sizeof(a) / sizeof((a)[0])))

static int hostToJson(const char *name, json_object **value, const void *record, int size) {
    (void)name;
    return size == (int)sizeof(DhcpHost) ? ownerToJson(kHostFields, COUNT(kHostFields), record, value) : -1;
}

static int jsonToHost(const char *name, json_object *value, void *buf, int size) {
    (void)name;
    if (size < (int)sizeof(DhcpHost)) return -1;
    memset(buf, 0, sizeof(DhcpHost));
    return ownerFromJson(kHostFields, COUNT(kHostFields), value, buf) == 0 ? (int)sizeof(DhcpHost) : -1;
}

/* Factory default of the whole list: one reserved address for the router's own NAS. */
static int hostDefaults(const char *name, json_object **value) {
    DhcpHost nas = {"02:00:00:00:00:01", "192.168.1.2", "nas"};
    json_object *arr = json_object_new_array(), *elem = json_object_new_object(), *rec = NULL;
    (void)name;
    if (!arr || !elem || ownerToJson(kHostFields, COUNT(kHostFields), &nas, &rec) != 0) {
        json_object_put(arr);
        json_object_put(elem);
        return -1;
    }
    json_object_object_add(elem, "host_1", rec);
    json_object_array_add(arr, elem);
    *value = arr;
    return 0;
}

static int poolToJson(const char *name, json_object **value, const void *record, int size) {
    (void)name;
    return size == (int)sizeof(DhcpPool) ? ownerToJson(kPoolFields, COUNT(kPoolFields), record, value) : -1;
}

static int jsonToPool(const char *name, json_object *value, void *buf, int size) {
    (void)name;
    if (size < (int)sizeof(DhcpPool)) return -1;
    memset(buf, 0, sizeof(DhcpPool));
    return ownerFromJson(kPoolFields, COUNT(kPoolFields), value, buf) == 0 ? (int)sizeof(DhcpPool) : -1;
}

static int poolDefaults(const char *name, json_object **value) {
    DhcpPool lan = {"192.168.1.100", "192.168.1.199", 1440, 1};
    (void)name;
    return ownerToJson(kPoolFields, COUNT(kPoolFields), &lan, value);
}

/* ---- the stored list of static leases ---- */

static DataTable *hostTable(void) { return getTableByFullName("/dhcp/host"); }

static int hostPath(char *path, size_t size, const char *section) {
    return snprintf(path, size, "/dhcp/host/%s", section) < (int)size ? 0 : -1;
}

static int readHost(const char *section, DhcpHost *h) {
    char path[80];
    return hostPath(path, sizeof path, section) == 0 && modelRead(path, h, sizeof *h) > 0 ? 0 : -1;
}

static int writeHost(const char *section, const DhcpHost *h) {
    char path[80];
    return hostPath(path, sizeof path, section) == 0 ? modelWrite(path, h, h ? sizeof *h : 0) : -1;
}

static int isHostSection(const char *name) {
    DataTable *t = hostTable();
    for (LstNode *n = t ? lstFirst(&t->sections) : NULL; n; n = lstNext(n)) {
        if (strcmp(((DataSection *)n)->name, name) == 0) return 1;
    }
    return 0;
}

/* An IP address or MAC given to one host only. */
static int conflicts(const DhcpHost *h, const char *self) {
    DataTable *t = hostTable();
    for (LstNode *n = t ? lstFirst(&t->sections) : NULL; n; n = lstNext(n)) {
        DhcpHost other;
        const char *name = ((DataSection *)n)->name;
        if (self && strcmp(name, self) == 0) continue;
        if (readHost(name, &other) == 0 && (strcmp(other.ip, h->ip) == 0 || strcasecmp(other.mac, h->mac) == 0))
            return 1;
    }
    return 0;
}

enum { ERR_INVALID = 1001, ERR_CONFLICT = 1002, ERR_NOT_FOUND = 1003, ERR_STORE = 1004, ERR_FULL = 1005 };

/* The number of a section named host_<n>, or 0 for any other name. Wider than int,
 * also where long is 32 bits, so that the next number after INT_MAX is seen as such. */
static long long hostNumber(const char *name) {
    char *end = NULL;
    if (strncmp(name, "host_", 5) != 0 || name[5] < '1' || name[5] > '9') return 0;
    long long n = strtoll(name + 5, &end, 10);
    return *end == '\0' && n > 0 && n <= INT_MAX ? n : 0;
}

/* ---- callbacks of the RPC contract ---- */

static int onGet(QxRpcPara *set, void *user) {
    const char *table = ownerMember(set, "table");
    const char *name = ownerMember(set, "name");
    json_object *filter = ownerJsonMember(set, "filter");
    json_object *out = NULL;
    int code = 0;
    (void)user;
    if (table && strcmp(table, "host") == 0) {
        /* The whole table as an object of sections, in the order they were added. */
        DataTable *t = hostTable();
        OwnerText rows = {NULL, 0, 0, 0};
        for (LstNode *n = t ? lstFirst(&t->sections) : NULL; n && !rows.failed; n = lstNext(n)) {
            DhcpHost h;
            json_object *v = NULL;
            const char *sec = ((DataSection *)n)->name;
            if (readHost(sec, &h) == 0 && ownerMatches(kHostFields, COUNT(kHostFields), &h, filter) &&
                ownerToJson(kHostFields, COUNT(kHostFields), &h, &v) == 0)
                ownerTextMember(&rows, sec, v);
        }
        json_object_put(filter);
        return ownerAnswerObjectText(set, 0, &rows);
    } else if (name && strcmp(name, "lan") == 0) {
        DhcpPool p;
        if (modelRead("/dhcp/pool/lan", &p, sizeof p) <= 0 ||
            ownerToJson(kPoolFields, COUNT(kPoolFields), &p, &out) != 0)
            code = ERR_STORE;
    } else if (name && isHostSection(name)) {
        DhcpHost h;
        if (readHost(name, &h) != 0 || ownerToJson(kHostFields, COUNT(kHostFields), &h, &out) != 0) code = ERR_STORE;
    } else {
        code = ERR_NOT_FOUND;
    }
    json_object_put(filter);
    return ownerAnswerJson(set, code, out);
}

/* Current leases: made up from the clock, as a real server would read its lease file. */
static int onGetClients(QxRpcPara *set, void *user) {
    json_object *para = ownerJsonMember(set, "para");
    json_object *limitObj = NULL;
    json_object *rows = json_object_new_array();
    int total = 5 + (int)(time(NULL) % 4), limit = total;
    (void)user;
    if (para && json_object_object_get_ex(para, "limit", &limitObj)) limit = json_object_get_int(limitObj);
    for (int i = 0; rows && i < total && i < limit; i++) {
        char key[32], ip[24], mac[24];
        json_object *row = json_object_new_object(), *v = json_object_new_object();
        snprintf(key, sizeof key, "client_%d", i + 1);
        snprintf(ip, sizeof ip, "192.168.1.%d", 100 + i);
        snprintf(mac, sizeof mac, "02:00:00:00:01:%02x", i + 1);
        json_object_object_add(v, "ip", json_object_new_string(ip));
        json_object_object_add(v, "mac", json_object_new_string(mac));
        json_object_object_add(v, "expiresIn", json_object_new_int(60 * (i + 1)));
        json_object_object_add(row, key, v);
        json_object_array_add(rows, row);
    }
    /* The last element tells the total when only a page was asked for. */
    json_object *count = json_object_new_object();
    json_object_object_add(count, "countAll", json_object_new_int(total));
    json_object_array_add(rows, count);
    json_object_put(para);
    return ownerAnswerJson(set, 0, rows);
}

static int editHost(const char *section, json_object *para) {
    DhcpHost h;
    if (readHost(section, &h) != 0) return ERR_NOT_FOUND;
    if (ownerFromJson(kHostFields, COUNT(kHostFields), para, &h) != 0) return ERR_INVALID;
    if (conflicts(&h, section)) return ERR_CONFLICT;
    return writeHost(section, &h) == 0 ? 0 : ERR_STORE;
}

static int onSet(QxRpcPara *set, void *user) {
    const char *name = ownerMember(set, "name");
    json_object *para = ownerJsonMember(set, "para");
    json_object *filter = ownerJsonMember(set, "filter");
    int code = ERR_INVALID;
    (void)user;
    if (name && strcmp(name, "lan") == 0) {
        DhcpPool p;
        code = ERR_STORE;
        if (modelRead("/dhcp/pool/lan", &p, sizeof p) > 0) {
            code = ownerFromJson(kPoolFields, COUNT(kPoolFields), para, &p) == 0 ? 0 : ERR_INVALID;
            if (code == 0) code = modelWrite("/dhcp/pool/lan", &p, sizeof p) == 0 ? 0 : ERR_STORE;
            if (code == 0) ownerNotifyLater("/dhcp/pool/lan");
        }
    } else if (name) {
        code = editHost(name, para);
    } else if (filter) {
        /* Every host the filter selects gets the same change. */
        DataTable *t = hostTable();
        code = 0;
        for (LstNode *n = t ? lstFirst(&t->sections) : NULL; n && code == 0; n = lstNext(n)) {
            DhcpHost h;
            const char *sec = ((DataSection *)n)->name;
            if (readHost(sec, &h) == 0 && ownerMatches(kHostFields, COUNT(kHostFields), &h, filter))
                code = editHost(sec, para);
        }
    }
    json_object_put(para);
    json_object_put(filter);
    return ownerAnswer(set, code, NULL);
}

static int onAdd(QxRpcPara *set, void *user) {
    const char *name = ownerMember(set, "name");
    json_object *para = ownerJsonMember(set, "para");
    DhcpHost h;
    char section[32], quoted[40];
    int code = 0;
    (void)user;
    memset(&h, 0, sizeof h);
    if (ownerFromJson(kHostFields, COUNT(kHostFields), para, &h) != 0 || !h.mac[0] || !h.ip[0]) {
        code = ERR_INVALID;
    } else if (conflicts(&h, NULL)) {
        code = ERR_CONFLICT;
    } else if (name) {
        if (strncmp(name, "host_", 5) != 0 || strlen(name) >= sizeof section || isHostSection(name)) code = ERR_INVALID;
        else snprintf(section, sizeof section, "%s", name);
    } else {
        /* The next number after the highest in use; none is left after the largest
         * int, and then the add is refused rather than wrapping around. */
        long long next = 1;
        DataTable *t = hostTable();
        for (LstNode *n = t ? lstFirst(&t->sections) : NULL; n; n = lstNext(n)) {
            long long k = hostNumber(((DataSection *)n)->name);
            if (k >= next) next = k + 1;
        }
        if (next > INT_MAX) code = ERR_FULL;
        else snprintf(section, sizeof section, "host_%lld", next);
    }
    if (code == 0 && writeHost(section, &h) != 0) code = ERR_STORE;
    json_object_put(para);
    snprintf(quoted, sizeof quoted, "\"%s\"", code == 0 ? section : "");
    return ownerAnswer(set, code, code == 0 ? quoted : NULL);
}

static int onDelete(QxRpcPara *set, void *user) {
    const char *name = ownerMember(set, "name");
    json_object *filter = ownerJsonMember(set, "filter");
    int code = 0;
    (void)user;
    if (name) {
        code = isHostSection(name) ? (writeHost(name, NULL) == 0 ? 0 : ERR_STORE) : ERR_NOT_FOUND;
    } else {
        DataTable *t = hostTable();
        LstNode *n = t ? lstFirst(&t->sections) : NULL;
        while (n && code == 0) {
            LstNode *next = lstNext(n);  /* the node goes away with its section */
            DhcpHost h;
            const char *sec = ((DataSection *)n)->name;
            if (readHost(sec, &h) == 0 && ownerMatches(kHostFields, COUNT(kHostFields), &h, filter))
                code = writeHost(sec, NULL) == 0 ? 0 : ERR_STORE;
            n = next;
        }
    }
    json_object_put(filter);
    return ownerAnswer(set, code, NULL);
}

static int onRestart(QxRpcPara *set, void *user) {
    json_object *para = ownerJsonMember(set, "para");
    json_object *out = json_object_new_object();
    json_object *delay = NULL;
    (void)user;
    json_object_object_add(out, "service", json_object_new_string("dhcp"));
    json_object_object_add(out, "restarted", json_object_new_boolean(1));
    if (para && json_object_object_get_ex(para, "delay", &delay))
        json_object_object_add(out, "delay", json_object_get(delay));
    json_object_put(para);
    return ownerAnswerJson(set, 0, out);
}

int main(int argc, char **argv) {
    OprInterface host, pool;
    const char *model = argc > 1 ? argv[1] : "dhcp.xml";
    if (argc > 1 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
        puts("usage: dhcpd MODEL.xml   (the dhcp module's model description)");
        return 0;
    }
    /* This process's tree holds only this owner's module, so that loading and resetting
     * configuration here touches this module's file alone. */
    if (kepMergeModelFile(model) != 0) return 1;

    memset(&host, 0, sizeof host);
    host.resetConfig.config = hostDefaults;
    host.binToJson.config = hostToJson;
    host.jsonToBin.config = jsonToHost;
    memset(&pool, 0, sizeof pool);
    pool.resetConfig.config = poolDefaults;
    pool.binToJson.config = poolToJson;
    pool.jsonToBin.config = jsonToPool;
    /* The pool's section has callbacks of its own, which makes it a table of named
     * sections (stored as an object) in this process's tree too. */
    if (regOprInterface("/dhcp/host", &host) != 0 || regOprInterface("/dhcp/pool/lan", &pool) != 0 ||
        registerMethodCb("/dhcp/pool/lan", KEP_METHOD_SET, "dhcp.set", getpid()) != 0) {
        fputs("dhcpd: the model description lacks the dhcp module's tables\n", stderr);
        return 1;
    }
    /* Reads the file, or writes the defaults when it is missing or destroyed. */
    if (systemLoadConfigFile() != 0) {
        fputs("dhcpd: cannot load or repair the configuration file\n", stderr);
        return 1;
    }
    qxImiRegister("dhcp.get", onGet, NULL);
    qxImiRegister("dhcp.reset", ownerResetHandler, NULL);
    qxImiRegister("dhcp.clients", onGetClients, NULL);
    qxImiRegister("dhcp.set", onSet, NULL);
    qxImiRegister("dhcp.add", onAdd, NULL);
    qxImiRegister("dhcp.del", onDelete, NULL);
    qxImiRegister("dhcp.restart", onRestart, NULL);

    static const OwnerRegistration regs[] = {
        {"reset", NULL, 0, "dhcp.reset"},
        {"method", "/dhcp/host", KEP_METHOD_GET, "dhcp.get"},
        {"method", "/dhcp/host", KEP_METHOD_SET, "dhcp.set"},
        {"method", "/dhcp/host", KEP_METHOD_ADD, "dhcp.add"},
        {"method", "/dhcp/host", KEP_METHOD_DELETE, "dhcp.del"},
        {"method", "/dhcp/pool/lan", KEP_METHOD_GET, "dhcp.get"},
        {"method", "/dhcp/pool/lan", KEP_METHOD_SET, "dhcp.set"},
        {"method", "/dhcp/client", KEP_METHOD_GET, "dhcp.clients"},
        {"action", "/dhcp/restart", 0, "dhcp.restart"},
    };
    if (ownerRegisterAll(regs, COUNT(regs), OWNER_HOST_WAIT_MS) != 0) return 1;
    return ownerServe("dhcpd");
}
