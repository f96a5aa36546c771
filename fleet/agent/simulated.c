/* The records, defaults and check are those of examples/ntpd, so that a simulated
 * device answers as a device running that owner does. */
#include "simulated.h"

#include <json-c/json.h>
#include <stdlib.h>

#include "kep_host.h"
#include "kep_owner.h"
#include "kep_request.h"

typedef struct Settings {
    int enabled;
    char zone[32];
    int intervalMinutes;
} Settings;

typedef struct Server {
    char address[64];
    int prefer;
} Server;

static const KepField kSettingsFields[] = {KEP_BOOL(Settings, enabled), KEP_TEXT(Settings, zone, NULL),
                                           KEP_INT(Settings, intervalMinutes)};
static const KepField kServerFields[] = {KEP_TEXT(Server, address, NULL), KEP_BOOL(Server, prefer)};
static const Settings kSettingsDefaults = {1, "UTC", 60};
static const Server kServerDefaults[] = {{"0.pool.ntp.org", 1}, {"1.pool.ntp.org", 0}};

enum { ERR_NO_ADDRESS = 2001 };

static int checkServer(const char *path, const void *record, const void *old, void *user) {
    const Server *s = record;
    (void)path, (void)old, (void)user;
    return s && !s->address[0] ? ERR_NO_ADDRESS : 0;
}

static int sync(json_object *para, json_object **result, void *user) {
    (void)para, (void)user;
    *result = json_object_new_object();
    json_object_object_add(*result, "synced", json_object_new_boolean(1));
    return 0;
}

int simulatedStart(const char *modelFile) {
    KepOwnerData settings =
        KEP_OWNER_SECTION("/ntp/settings/main", Settings, kSettingsFields, &kSettingsDefaults);
    KepOwnerData servers = KEP_OWNER_LIST("/ntp/server", Server, kServerFields, kServerDefaults, 2);
    servers.check = checkServer;
    if (kepOwnerInit(modelFile) || kepOwnerAdd(&settings) || kepOwnerAdd(&servers) ||
        kepOwnerAddAction("/ntp/sync", sync, NULL))
        return -1;
    /* Reads are answered in this process, one hop as over a real device's direct route. */
    return kepOwnerStart() || kepOwnerServeHere() ? -1 : 0;
}

int simulatedRead(const char *request, char **response) {
    return standardKepReqHandle(request, response);
}

void simulatedPoll(void) {
    kepOwnerPoll(0);
}

void simulatedStop(void) {
    kepOwnerStop();
}

int simulatedAnswers(void) {
    char *response = NULL;
    int answers = 0;
    if (kepHostRequest("{\"method\":\"get\",\"ntp\":{\"table\":\"settings\"}}", &response) == 0) {
        json_object *doc = json_tokener_parse(response);
        json_object *code = NULL;
        answers = json_object_object_get_ex(doc, "error_code", &code) && json_object_get_int(code) == 0;
        json_object_put(doc);
    }
    free(response);
    return answers;
}
