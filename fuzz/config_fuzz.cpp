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

#include <string>

#include "kep_config.h"
#include "tree/tree_internal.h"

namespace {

struct Rec {
    char text[16];
    int32_t value;
};

int recToJson(const char *, json_object **out, const void *record, int size) {
    if (size != static_cast<int>(sizeof(Rec))) return -1;
    const Rec *r = static_cast<const Rec *>(record);
    *out = json_object_new_object();
    json_object_object_add(*out, "text", json_object_new_string_len(r->text, strnlen(r->text, sizeof r->text)));
    json_object_object_add(*out, "value", json_object_new_int(r->value));
    return 0;
}

int jsonToRec(const char *, json_object *value, void *buf, int size) {
    json_object *text = nullptr, *num = nullptr;
    if (size < static_cast<int>(sizeof(Rec)) || !json_object_object_get_ex(value, "text", &text) ||
        !json_object_object_get_ex(value, "value", &num))
        return -1;
    Rec r{};
    strncpy(r.text, json_object_get_string(text), sizeof r.text - 1);
    r.value = json_object_get_int(num);
    memcpy(buf, &r, sizeof r);
    return sizeof r;
}

int resetList(const char *, json_object **value) {
    *value = json_tokener_parse(R"([{"host_1":{"text":"d","value":1}}])");
    return 0;
}

int resetSection(const char *name, json_object **value) {
    Rec r{};
    strncpy(r.text, name, sizeof r.text - 1);
    return recToJson(name, value, &r, sizeof r);
}

// Every write flushes the file to disk; a memory-backed folder keeps runs fast.
const std::string &folder() {
    static const std::string dir = [] {
        char shm[] = "/dev/shm/kfXXXXXX";
        if (mkdtemp(shm)) return std::string(shm);
        char tmp[] = "/tmp/kfXXXXXX";
        return std::string(mkdtemp(tmp) ? tmp : "/tmp");
    }();
    return dir;
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
    const std::string file = folder() + "/m.json";
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
    Rec r{};
    strcpy(r.text, "fuzz");
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
