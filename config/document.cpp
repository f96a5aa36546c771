// The module configuration file: loading its document and storing it back.
#include <string.h>

#include "config/config_internal.h"
#include "guard.h"
#include "kep_pf_json.h"

namespace kep {

json_object *loadModuleDocument(const DataModule &module) {
    if (module.configFile[0] == '\0') return nullptr;
    JsonPtr doc(jsonObjectFromFile(module.configFile));
    // Every reader and writer expects one member per table; a file holding any other
    // value counts as unreadable, so that a load repairs it.
    if (!jsonObjectIsObject(doc.get())) return nullptr;
    return doc.release();
}

int storeModuleDocument(const char *path, json_object *doc, StoreKind kind) {
    if (!path || path[0] == '\0' || !doc) return -1;
    return kind == StoreKind::Reset ? jsonObjectToFileMem(path, doc) : jsonObjectToFile(path, doc);
}

json_object *findListElement(json_object *array, const char *name) {
    int length = jsonObjectArrayLength(array);
    for (int i = 0; i < length; i++) {
        json_object *element = jsonObjectArrayGetIdx(array, static_cast<unsigned>(i));
        const char *key = nullptr;
        if (jsonObjectNextSubObject(element, nullptr, &key) && key && strcmp(key, name) == 0) return element;
    }
    return nullptr;
}

}  // namespace kep
