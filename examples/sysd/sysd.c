/*
 * sysd: example owner of the "system" module, on the owner's kit: time settings in
 * the named sections "ntp" and "zone", and the action "sync". It also listens to
 * changes of the DHCP pool, the way a module reacts to another module's configuration.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <json-c/json.h>

#include "kep_owner.h"

typedef struct TimeNtp {
    int enabled;
    char server[48];
    int intervalMinutes;
} TimeNtp;

typedef struct TimeZone {
    char name[48];
    int dst;
} TimeZone;

static const KepField kNtpFields[] = {
    KEP_BOOL(TimeNtp, enabled),
    KEP_TEXT(TimeNtp, server, NULL),
    KEP_INT(TimeNtp, intervalMinutes),
};
static const KepField kZoneFields[] = {
    KEP_TEXT(TimeZone, name, NULL),
    KEP_BOOL(TimeZone, dst),
};
static const TimeNtp kNtpDefaults = {1, "pool.ntp.org", 60};
static const TimeZone kZoneDefaults = {"UTC", 0};

static int sync(json_object *para, json_object **result, void *user) {
    (void)para, (void)user;
    *result = json_object_new_object();
    json_object_object_add(*result, "synced", json_object_new_boolean(1));
    json_object_object_add(*result, "time", json_object_new_int64((int64_t)time(NULL)));
    return 0;
}

static void poolChanged(const char *path, void *user) {
    (void)user;
    printf("sysd: notified: %s changed, re-reading the DHCP pool\n", path);
    fflush(stdout);
}

int main(int argc, char **argv) {
    KepOwnerData ntp = KEP_OWNER_SECTION("/system/time/ntp", TimeNtp, kNtpFields, &kNtpDefaults);
    KepOwnerData zone = KEP_OWNER_SECTION("/system/time/zone", TimeZone, kZoneFields, &kZoneDefaults);
    if (argc != 2 || argv[1][0] == '-') {
        puts("usage: sysd MODEL.xml   (the system module's model description)");
        return argc == 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0) ? 0 : 2;
    }
    if (kepOwnerInit(argv[1]) != 0 || kepOwnerAdd(&ntp) != 0 || kepOwnerAdd(&zone) != 0 ||
        kepOwnerAddAction("/system/sync", sync, NULL) != 0 ||
        kepOwnerListen("/dhcp/pool/lan", poolChanged, NULL) != 0)
        return 1;
    return kepOwnerRun("sysd");
}
