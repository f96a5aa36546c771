// Dictionary: json.dict
//
// Feeds arbitrary bytes as a module's configuration file to the store: reads and
// writes of list and named sections, then the start-up load that repairs what it
// cannot read.
#include <json-c/json.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "../tests/internal/support/config_fixture.h"
#include "kep_config.h"
#include "tree/tree_internal.h"

namespace {

using kep_test::jsonToRec;
using kep_test::makeRec;
using kep_test::Rec;
using kep_test::recToJson;

int resetList(const char *, json_object **value) {
    *value = json_tokener_parse(R"([{"host_1":{"text":"d","value":1}}])");
    return 0;
}

int resetSection(const char *name, json_object **value) {
    Rec r = makeRec(name, 0);
    return recToJson(name, value, &r, sizeof r);
}

// Every write flushes the file to disk; a memory-backed folder keeps runs fast. A
// plain array, so that it outlives the exit handler that removes the folder.
char gFolder[32];

const char *folder() {
    if (gFolder[0] == '\0') {
        snprintf(gFolder, sizeof gFolder, "/dev/shm/kfXXXXXX");
        if (!mkdtemp(gFolder)) {
            snprintf(gFolder, sizeof gFolder, "/tmp/kfXXXXXX");
            if (!mkdtemp(gFolder)) abort();
        }
        atexit([] { std::filesystem::remove_all(gFolder); });
    }
    return gFolder;
}

void buildTree(const std::string &file) {
    kep::resetTreeForTest();
    OprInterface opr{};
    opr.binToJson.config = recToJson;
    opr.jsonToBin.config = jsonToRec;

    DataModule *m = kep::newDataModule();
    kep::copyName(m->name, "m", sizeof m->name);
    kep::copyName(m->configFile, file.c_str(), sizeof m->configFile);
    lstAdd(&kep::moduleRoot(), &m->link);

    DataTable *list = kep::newDataTable();
    kep::copyName(list->name, "host", sizeof list->name);
    list->optionPublic = 1;
    list->opr = opr;
    list->opr.resetConfig.config = resetList;
    lstAdd(&m->tables, &list->link);

    DataTable *named = kep::newDataTable();
    kep::copyName(named->name, "time", sizeof named->name);
    lstAdd(&m->tables, &named->link);
    for (const char *name : {"settings", "zone"}) {
        DataSection *s = kep::newDataSection();
        kep::copyName(s->name, name, sizeof s->name);
        s->opr = opr;
        s->opr.resetConfig.config = resetSection;
        lstAdd(&named->sections, &s->link);
    }
}

void writeFile(const std::string &file, const uint8_t *data, size_t size) {
    FILE *f = fopen(file.c_str(), "wb");
    if (!f) return;
    fwrite(data, 1, size, f);
    fclose(f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string file = std::string(folder()) + "/m.json";
    buildTree(file);
    writeFile(file, data, size);

    // The stored document as it is: loading creates list nodes from its array.
    if (systemLoadConfigFile() != 0) abort();
    Rec buf[4];
    modelRead("/m/time", buf, sizeof buf);
    modelRead("/m/time/zone", buf, sizeof buf[0]);
    modelRead("/m/host/host_1", buf, sizeof buf[0]);

    // Writes against the same bytes: update, add and delete.
    writeFile(file, data, size);
    Rec r = makeRec("fuzz", 1);
    modelWrite("/m/time/zone", &r, sizeof r);
    modelWrite("/m/host/host_1", &r, sizeof r);
    modelWrite("/m/host/host_new", &r, sizeof r);
    modelWrite("/m/host/host_1", nullptr, 0);

    // Whatever the writes did, the file must still load.
    if (systemLoadConfigFile() != 0) abort();
    json_object *doc = json_object_from_file(file.c_str());
    if (!doc) abort();
    json_object_put(doc);
    return 0;
}
