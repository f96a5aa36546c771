/*
 * dhcpd: example owner of the "dhcp" module, on the owner's kit.
 *
 *   host    list table of static leases (host_1, host_2, ...): get, set, add, delete
 *   pool    named section "lan"; its listeners hear of each change
 *   client  dynamic table of current leases, produced when read
 *   restart action
 *
 * The kit keeps the values in the module's configuration file and serves them; this
 * owner says what a record looks like, what its defaults are, and which changes it
 * refuses.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <time.h>

#include <json-c/json.h>

#include "kep_owner.h"

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

static const KepField kHostFields[] = {
    KEP_TEXT(DhcpHost, mac, kepValidMac),
    KEP_TEXT(DhcpHost, ip, kepValidIpv4),
    KEP_TEXT(DhcpHost, hostname, NULL),
};
static const KepField kPoolFields[] = {
    KEP_TEXT(DhcpPool, start, kepValidIpv4),
    KEP_TEXT(DhcpPool, end, kepValidIpv4),
    KEP_INT(DhcpPool, leaseMinutes),
    KEP_BOOL(DhcpPool, enabled),
};

/* Factory defaults: one reserved address for the router's own NAS, and the pool. */
static const DhcpHost kHostDefaults[] = {{"02:00:00:00:00:01", "192.168.1.2", "nas"}};
static const DhcpPool kPoolDefaults = {"192.168.1.100", "192.168.1.199", 1440, 1};

enum { ERR_INCOMPLETE = 1001, ERR_CONFLICT = 1002 };

/* An IP address or MAC belongs to one host only. */
typedef struct Candidate {
    const DhcpHost *host;
    const char *self;
} Candidate;

static int clashes(const char *section, const void *record, void *user) {
    const Candidate *c = user;
    const DhcpHost *other = record;
    if (c->self && strcmp(section, c->self) == 0) return 0;
    return strcmp(other->ip, c->host->ip) == 0 || strcasecmp(other->mac, c->host->mac) == 0;
}

static int checkHost(const char *path, const void *record, const void *old, void *user) {
    const DhcpHost *h = record;
    Candidate c = {h, old ? strrchr(path, '/') + 1 : NULL};
    (void)user;
    if (!h) return 0; /* deleting is always fine */
    if (!h->mac[0] || !h->ip[0]) return ERR_INCOMPLETE;
    return kepOwnerEach("/dhcp/host", clashes, &c) ? ERR_CONFLICT : 0;
}

/* Current leases: made up from the clock, as a real server would read its lease file.
 * The last element tells the total when only a page was asked for. */
static int produceClients(json_object *para, json_object *filter, json_object **rows, void *user) {
    json_object *limit = NULL, *count = json_object_new_object();
    int total = 5 + (int)(time(NULL) % 4), n = total;
    (void)filter, (void)user;
    if (para && json_object_object_get_ex(para, "limit", &limit)) n = json_object_get_int(limit);
    *rows = json_object_new_array();
    for (int i = 0; *rows && i < total && i < n; i++) {
        char key[32], ip[24], mac[24];
        json_object *row = json_object_new_object(), *v = json_object_new_object();
        snprintf(key, sizeof key, "client_%d", i + 1);
        snprintf(ip, sizeof ip, "192.168.1.%d", 100 + i);
        snprintf(mac, sizeof mac, "02:00:00:00:01:%02x", i + 1);
        json_object_object_add(v, "ip", json_object_new_string(ip));
        json_object_object_add(v, "mac", json_object_new_string(mac));
        json_object_object_add(v, "expiresIn", json_object_new_int(60 * (i + 1)));
        json_object_object_add(row, key, v);
        json_object_array_add(*rows, row);
    }
    json_object_object_add(count, "countAll", json_object_new_int(total));
    json_object_array_add(*rows, count);
    return 0;
}

static int restart(json_object *para, json_object **result, void *user) {
    json_object *delay = NULL;
    (void)user;
    *result = json_object_new_object();
    json_object_object_add(*result, "service", json_object_new_string("dhcp"));
    json_object_object_add(*result, "restarted", json_object_new_boolean(1));
    if (para && json_object_object_get_ex(para, "delay", &delay))
        json_object_object_add(*result, "delay", json_object_get(delay));
    return 0;
}

int main(int argc, char **argv) {
    KepOwnerData hosts = KEP_OWNER_LIST("/dhcp/host", DhcpHost, kHostFields, kHostDefaults, 1);
    KepOwnerData pool = KEP_OWNER_SECTION("/dhcp/pool/lan", DhcpPool, kPoolFields, &kPoolDefaults);
    if (argc != 2 || argv[1][0] == '-') {
        puts("usage: dhcpd MODEL.xml   (the dhcp module's model description)");
        return argc == 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0) ? 0 : 2;
    }
    hosts.check = checkHost;
    pool.notify = 1;
    if (kepOwnerInit(argv[1]) != 0 || kepOwnerAdd(&hosts) != 0 || kepOwnerAdd(&pool) != 0 ||
        kepOwnerAddDynamic("/dhcp/client", produceClients, NULL) != 0 ||
        kepOwnerAddAction("/dhcp/restart", restart, NULL) != 0)
        return 1;
    return kepOwnerRun("dhcpd");
}
