// Building an owner's binary record from JSON option values, inside the calling process.
#include <string.h>

#include "base/api.h"
#include "base/guard.h"
#include "base/log.h"
#include "config/config_internal.h"
#include "kep_model.h"
#include "tree/tree_internal.h"

using kep::JsonPtr;

namespace {

// The stored (non-dynamic) table of a "/module/table/section" path.
DataTable *configTableOf(const char *path, kep::TreePath *split, DataModule **module) {
    if (!kep::splitTreePath(path, split) || split->section[0] == '\0') return nullptr;
    DataTable *table = kep::findPathTable(*split, module);
    if (!table || kep::isDynamicTable(*table)) return nullptr;
    return table;
}

// The first member keyed by the module whose object holds the section.
json_object *requestSection(json_object *request, const char *module, const char *section) {
    const char *key = nullptr;
    for (JsonObjCursor *c = jsonObjectNextSubObject(request, nullptr, &key); c;
         c = jsonObjectNextSubObject(request, c, &key)) {
        if (strcmp(key, module) != 0) continue;
        json_object *value = jsonObjectCursorValue(c);
        if (jsonObjectIsObject(value) != 1) continue;
        json_object *sec = jsonObjectObjectGet(value, section);
        if (sec) return sec;
    }
    return nullptr;
}

// Stored values as text, request values by their type, in the stored member order.
// False for a request value that is neither text, integer nor boolean.
bool mergeOptions(json_object *stored, json_object *wanted, json_object *merged) {
    const char *key = nullptr;
    for (JsonObjCursor *c = jsonObjectNextSubObject(stored, nullptr, &key); c;
         c = jsonObjectNextSubObject(stored, c, &key)) {
        json_object *given = jsonObjectObjectGet(wanted, key);
        int number = 0;
        int rc;
        if (!given) {
            rc = jsonObjectAddString(merged, key, jsonObjectGetString(stored, key));
        } else if (jsonObectIsString(given) == 1) {
            rc = jsonObjectAddString(merged, key, jsonGetObjectString(given));
        } else if (jsonObjectGetIntSelf(given, &number) == 0) {
            rc = jsonObjectAddInt(merged, key, number);
        } else {
            return false;
        }
        if (rc != 0) return false;
    }
    return true;
}

}  // namespace

KEP_API int modelReadEx(const char *path, json_object *values, void *buf, int size) {
    if (!path || !values || !buf || size < 1) return -1;
    kep::TreePath split;
    DataTable *table = configTableOf(path, &split, nullptr);
    if (!table) return -1;
    DataSection *section = kep::findSectionInTable(table, split.section);
    if (!section || !section->opr.jsonToBin.config) return -1;
    return section->opr.jsonToBin.config(split.section, values, buf, size);
}

KEP_API int modelReadFromReqObj(const char *path, json_object *request, void *buf, int size) {
    if (!path || !request) return -1;
    kep::TreePath split;
    DataModule *module = nullptr;
    DataTable *table = configTableOf(path, &split, &module);
    if (!table || !module) return -1;
    json_object *wanted = requestSection(request, split.module, split.section);
    if (!wanted) return -1;

    kep::ModuleDocument config(*module);
    json_object *stored = jsonObjectObjectGet(jsonObjectObjectGet(config.get(), table->name), split.section);
    if (!stored) return -1;
    JsonPtr merged(jsonObjectNewObject());
    if (!merged || !mergeOptions(stored, wanted, merged.get())) return -1;
    return modelReadEx(path, merged.get(), buf, size);
}
