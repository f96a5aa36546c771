/*
 * sysd: example owner of the "system" module: time settings in the named sections
 * "ntp" and "zone", and the action "sync". It also listens to changes of the DHCP
 * pool, the way a module reacts to another module's configuration.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <json-c/json.h>

#include "kepHandle.h"
#include "kep_host.h"
#include "owner.h"

typedef struct TimeNtp {
    int enabled;
    char server[48];
    int intervalMinutes;
} TimeNtp;

typedef struct TimeZone {
    char name[48];
    int dst;
} TimeZone;

static const OwnerField kNtpFields[] = {
    OWNER_BOOL(TimeNtp, enabled),
    OWNER_TEXT(TimeNtp, server, NULL),
    OWNER_INT(TimeNtp, intervalMinutes),
};
static const OwnerField kZoneFields[] = {
    OWNER_TEXT(TimeZone, name, NULL),
    OWNER_BOOL(TimeZone, dst),
};
#define COUNT(a) ((int)(sizeof(a) / sizeof((a)[0])))

/* One record kind per section: the section's name selects its field table. */
typedef struct Kind { const char *section; const OwnerField *fields; int n; int size; } Kind;
static const Kind kKinds[] = {
    {"ntp", kNtpFields, COUNT(kNtpFields), (int)sizeof(TimeNtp)},
    {"zone", kZoneFields, COUNT(kZoneFields), (int)sizeof(TimeZone)},
};

static const Kind *kindOf(const char *section) {
    for (int i = 0; i < COUNT(kKinds); i++) {
        if (section && strcmp(kKinds[i].section, section) == 0) return &kKinds[i];
    }
    return NULL;
}

static int toJson(const char *name, json_object **value, const void *record, int size) {
    const Kind *k = kindOf(name);
    return k && size == k->size ? ownerToJson(k->fields, k->n, record, value) : -1;
}

static int fromJson(const char *name, json_object *value, void *buf, int size) {
    const Kind *k = kindOf(name);
    if (!k || size < k->size) return -1;
    memset(buf, 0, (size_t)k->size);
    return ownerFromJson(k->fields, k->n, value, buf) == 0 ? k->size : -1;
}

static int defaults(const char *name, json_object **value) {
    static const TimeNtp ntp = {1, "pool.ntp.org", 60};
    static const TimeZone zone = {"UTC", 0};
    const Kind *k = kindOf(name);
    if (!k) return -1;
    return ownerToJson(k->fields, k->n, strcmp(name, "ntp") == 0 ? (const void *)&ntp : (const void *)&zone, value);
}

static int sectionPath(char *path, size_t size, const char *section) {
    return snprintf(path, size, "/system/time/%s", section) < (int)size ? 0 : -1;
}

static int onGet(QxRpcPara *set, void *user) {
    const char *name = ownerMember(set, "name");
    const Kind *k = kindOf(name);
    unsigned char record[128];
    char path[64];
    json_object *out = NULL;
    (void)user;
    if (!k || sectionPath(path, sizeof path, name) != 0 || modelRead(path, record, sizeof record) <= 0 ||
        ownerToJson(k->fields, k->n, record, &out) != 0)
        return ownerAnswer(set, 1003, NULL);
    return ownerAnswerJson(set, 0, out);
}

static int onSet(QxRpcPara *set, void *user) {
    const char *name = ownerMember(set, "name");
    const Kind *k = kindOf(name);
    json_object *para = ownerJsonMember(set, "para");
    unsigned char record[128];
    char path[64];
    int code = 1001;
    (void)user;
    if (k && sectionPath(path, sizeof path, name) == 0 && modelRead(path, record, sizeof record) > 0 &&
        ownerFromJson(k->fields, k->n, para, record) == 0)
        code = modelWrite(path, record, k->size) == 0 ? 0 : 1004;
    json_object_put(para);
    return ownerAnswer(set, code, NULL);
}

static int onSync(QxRpcPara *set, void *user) {
    json_object *out = json_object_new_object();
    (void)user;
    json_object_object_add(out, "synced", json_object_new_boolean(1));
    json_object_object_add(out, "time", json_object_new_int64((int64_t)time(NULL)));
    return ownerAnswerJson(set, 0, out);
}

static int onDhcpChanged(QxRpcPara *set, void *user) {
    (void)user;
    printf("sysd: notified: %s %s changed, re-reading the DHCP pool\n", ownerMember(set, "name"),
           ownerMember(set, "para"));
    fflush(stdout);
    return ownerAnswer(set, 0, NULL);
}

int main(int argc, char **argv) {
    OprInterface opr;
    const char *model = argc > 1 ? argv[1] : "system.xml";
    if (argc > 1 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
        puts("usage: sysd MODEL.xml   (the system module's model description)");
        return 0;
    }
    /* This process's tree holds only this owner's module, so that loading and resetting
     * configuration here touches this module's file alone. */
    if (kepMergeModelFile(model) != 0) return 1;
    memset(&opr, 0, sizeof opr);
    opr.resetConfig.config = defaults;
    opr.binToJson.config = toJson;
    opr.jsonToBin.config = fromJson;
    for (int i = 0; i < COUNT(kKinds); i++) {
        char path[64];
        sectionPath(path, sizeof path, kKinds[i].section);
        /* Section callbacks make "time" a table of named sections, stored as an object. */
        if (regOprInterface(path, &opr) != 0 || registerMethodCb(path, KEP_METHOD_SET, "sys.set", getpid()) != 0) {
            fputs("sysd: the model description lacks the system module's sections\n", stderr);
            return 1;
        }
    }
    if (systemLoadConfigFile() != 0) {
        fputs("sysd: cannot load or repair the configuration file\n", stderr);
        return 1;
    }
    qxImiRegister("sys.get", onGet, NULL);
    qxImiRegister("sys.reset", ownerResetHandler, NULL);
    qxImiRegister("sys.set", onSet, NULL);
    qxImiRegister("sys.sync", onSync, NULL);
    qxImiRegister("sys.dhcpChanged", onDhcpChanged, NULL);
    static const OwnerRegistration regs[] = {
        {"reset", NULL, 0, "sys.reset"},
        {"method", "/system/time/ntp", KEP_METHOD_GET, "sys.get"},
        {"method", "/system/time/ntp", KEP_METHOD_SET, "sys.set"},
        {"method", "/system/time/zone", KEP_METHOD_GET, "sys.get"},
        {"method", "/system/time/zone", KEP_METHOD_SET, "sys.set"},
        {"action", "/system/sync", 0, "sys.sync"},
        {"notify", "/dhcp/pool/lan", 0, "sys.dhcpChanged"},
    };
    if (ownerRegisterAll(regs, COUNT(regs), OWNER_HOST_WAIT_MS) != 0) return 1;
    return ownerServe("sysd");
}
