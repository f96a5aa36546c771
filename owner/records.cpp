// A section's record: read from the configuration file and converted through the
// owner's conversion functions.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

#include "owner_internal.h"

namespace kep_owner {

DataSection *findRow(DataTable *table, const char *name) {
    LST_FOR_EACH(DataSection, s, &table->sections) {
        if (strcmp(s->name, name) == 0) return s;
    }
    return nullptr;
}

bool plainName(const char *name) {
    for (const char *p = name; *p; p++) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c == '/' || c == '"' || c == '\\' || c < 0x20 || c == 0x7f) return false;
    }
    return true;
}

bool sectionPath(const Entry &e, const char *section, char *path) {
    const int n = e.kind == Kind::kList ? snprintf(path, kPathSize, "%s/%s", e.path, section)
                                        : snprintf(path, kPathSize, "%s", e.path);
    return n > 0 && n < kPathSize;
}

bool readRecord(const Entry &e, const char *section, void *record) {
    char path[kPathSize];
    return sectionPath(e, section, path) && modelRead(path, record, static_cast<int>(e.data.recordSize)) > 0;
}

json_object *recordToJson(const Entry &e, const char *section, const void *record) {
    json_object *value = nullptr;
    if (e.data.opr.binToJson.config(section, &value, record, static_cast<int>(e.data.recordSize)) != 0) {
        json_object_put(value);
        return nullptr;
    }
    return value;
}

bool jsonToRecord(const Entry &e, const char *section, json_object *value, void *record) {
    return e.data.opr.jsonToBin.config(section, value, record, static_cast<int>(e.data.recordSize)) > 0;
}

}  // namespace kep_owner

using namespace kep_owner;

extern "C" {

int kepOwnerRead(const char *path, void *record, size_t recordSize) {
    if (!path || !record || recordSize == 0 || recordSize > kMaxRecord) return -1;
    return modelRead(path, record, static_cast<int>(recordSize)) > 0 ? 0 : -1;
}

int kepOwnerEach(const char *tablePath, int (*fn)(const char *, const void *, void *), void *user) {
    const Entry *e = tablePath ? findEntry(Kind::kList, tablePath) : nullptr;
    if (!e || !fn) return -1;
    RecordBuffer record(e->data.recordSize);
    if (!record.p) return -1;
    int rc = 0;
    for (LstNode *n = lstFirst(&e->tableNode->sections); n && rc == 0; n = lstNext(n)) {
        const char *section = reinterpret_cast<DataSection *>(n)->name;
        if (readRecord(*e, section, record.p)) rc = fn(section, record.p, user);
    }
    return rc;
}

}  // extern "C"
