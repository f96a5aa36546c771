// Start-up load of every module's configuration file and reset to the defaults
// that the owners' resetConfig functions produce.
#include <stdint.h>
#include <string.h>

#include "base/api.h"
#include "base/guard.h"
#include "base/log.h"
#include "config/config_internal.h"
#include "kep_pf_json.h"
#include "tree/tree_internal.h"

namespace kep {
namespace {

// The cloud binding record survives a factory reset; its last word marks it as
// carried over.
constexpr const char kBindPath[] = "/cloud_config/router_post/bind";
constexpr int kBindSize = 100;
constexpr int kBindMarkOffset = kBindSize - static_cast<int>(sizeof(int32_t));

// Defaults of a table of named sections in the configuration file: one member per
// section that has a resetConfig.
int resetNamedSections(DataTable &table, json_object **value) {
    JsonPtr object(jsonObjectNewObject());
    if (!object) return -1;
    LST_FOR_EACH(DataSection, section, &table.sections) {
        ResetConfigFn reset = section->opr.resetConfig.config;
        if (!reset) continue;
        JsonPtr produced;
        if (reset(section->name, produced.out()) != 0 ||
            jsonObjectObjectAdd(object.get(), section->name, produced.release()) != 0) {
            KEP_LOG("Section %s reset config data failed.\r\n", section->name);
            return -1;
        }
    }
    *value = object.release();
    return 0;
}

// Creates the list section nodes of every list table the module's file holds; false
// when the file cannot be read. A host loads every module: it keeps none of them.
bool loadListSections(DataModule &module) {
    ModuleDocument doc(module, ModuleDocument::Use::IfKept);
    if (!doc) return false;
    LST_FOR_EACH(DataTable, table, &module.tables) {
        json_object *stored = jsonObjectObjectGet(doc.get(), table->name);
        if (stored && isListTable(*table)) loadTableListConfig(table, stored);
    }
    return true;
}

}  // namespace
}  // namespace kep

using namespace kep;

KEP_API int tableResetConfig(DataTable *table, json_object **value) {
    if (!value) return -1;
    *value = nullptr;
    if (!table) return -1;
    if (isListTable(*table)) {
        if (isDynamicTable(*table)) return 0;
        ResetConfigFn reset = table->opr.resetConfig.config;
        if (!reset) return 0;
        const int result = reset(table->name, value);
        // A failed default never escapes half made.
        if (result != 0) {
            jsonObjectObjectDelete(*value);
            *value = nullptr;
        }
        return result;
    }
    if (isDynamicTable(*table)) {
        // The owner resets its own state; there is nothing to store.
        LST_FOR_EACH(DataSection, section, &table->sections) {
            if (section->opr.resetConfig.dynamic) section->opr.resetConfig.dynamic(section->name);
        }
        return 0;
    }
    return resetNamedSections(*table, value);
}

KEP_API int modelResetConfigFile(DataModule *module) {
    if (!module) return -1;
    KEP_LOG("Module [%s] reset config data to file [%s].\r\n", module->name, module->configFile);
    JsonPtr doc(jsonObjectNewObject());
    if (!doc) return -1;
    LST_FOR_EACH(DataTable, table, &module->tables) {
        JsonPtr value;
        if (tableResetConfig(table, value.out()) != 0) return -1;
        if (value && jsonObjectObjectAdd(doc.get(), table->name, value.release()) != 0) return -1;
    }
    // The tree keeps its list sections: a reset changes only the file.
    if (module->configFile[0] == '\0') return 0;
    return storeModuleDocument(module->configFile, doc.get(), StoreKind::Reset);
}

KEP_API int systemLoadConfigFile(void) {
    if (!getModulerRoot()) return -1;
    LST_FOR_EACH(DataModule, module, &moduleRoot()) {
        if (module->configFile[0] == '\0') continue;
        if (loadListSections(*module)) continue;
        KEP_LOG("module %s config data has been destroyed.\r\n", module->name);
        modelResetConfigFile(module);
        if (!loadListSections(*module)) {
            KEP_LOG("module %s config data reset error.\r\n", module->name);
            return -1;
        }
    }
    return 0;
}

KEP_API int systemResetConfigFile(void) {
    unsigned char bind[kBindSize];
    memset(bind, 0, sizeof bind);
    // An unreadable binding leaves zeros; either way the record is written back.
    modelRead(kBindPath, bind, kBindSize);
    const int32_t mark = 1;
    memcpy(bind + kBindMarkOffset, &mark, sizeof mark);
    if (!getModulerRoot()) return -1;
    LST_FOR_EACH(DataModule, module, &moduleRoot()) modelResetConfigFile(module);
    modelWrite(kBindPath, bind, kBindSize);
    return 0;
}
