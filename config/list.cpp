// List tables: sections created and removed at run time, stored as an array of
// one-member objects in the order they were added, mirrored by section nodes.
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

// Appends a section node for a new list entry; sections of a list table share the
// table's operation interface. Null when memory is exhausted.
DataSection *appendListSection(DataTable &table, const char *name) {
    DataSection *section = newDataSection();
    if (!section) return nullptr;
    copyName(section->name, name, sizeof section->name);
    if (isListTable(table)) section->opr = table.opr;
    lstAdd(&table.sections, &section->link);
    return section;
}

// True when every in-process verify function of the table accepts the value.
// Entries registered by remote processes carry no function and are skipped.
bool verifyListSection(DataTable &table, const char *name, json_object *value, int existed) {
    LST_FOR_EACH(VerNotifyNode, entry, &table.verList) {
        if (entry->verifyFn && entry->verifyFn(name, value, nullptr, existed) != 0) return false;
    }
    return true;
}

int deleteListSection(ModuleDocument &doc, DataModule &module, DataTable &table, DataSection *section) {
    json_object *stored = jsonObjectObjectGet(doc.get(), table.name);
    if (!stored) {
        KEP_LOG("get table %s from module %s failed.\r\n", table.name, module.name);
        return -1;
    }
    // A node without an element is still removed: the file already lacks it. A walk,
    // as the removal moves every later element anyway and drops the index.
    json_object *element = findListElement(stored, section->name);
    doc.changing(ModuleDocument::Change::Moves);
    if (element) jsonObjectArrayDel(stored, element);
    if (jsonObjectIsArray(stored) && jsonObjectArrayLength(stored) == 0)
        jsonObjectObjectDel(doc.get(), table.name);
    const int result = doc.store();
    lstDelete(&table.sections, &section->link);
    freeDataSection(section);
    return result;
}

int updateListSection(ModuleDocument &doc, DataModule &module, DataTable &table, const char *name,
                      const void *record, int size) {
    json_object *stored = jsonObjectObjectGet(doc.get(), table.name);
    if (!stored) {
        KEP_LOG("get table %s from module %s failed.\r\n", table.name, module.name);
        return -1;
    }
    json_object *element = doc.findListElement(stored, name);
    if (!element) {
        KEP_LOG("find section %s from table %s failed.\r\n", name, table.name);
        return -1;
    }
    BinToJsonFn toJson = table.opr.binToJson.config;
    JsonPtr value;
    if (!toJson || toJson(name, value.out(), record, size) != 0) {
        KEP_LOG("transfer section %s bin to json failed, binToJson = 0x%08x.\r\n", name,
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(toJson)));
        return -1;
    }
    if (!verifyListSection(table, name, value.get(), 1)) {
        KEP_LOG("verify section %s failed.\r\n", name);
        return -1;
    }
    // The element keeps its place in the array; only its one member is replaced.
    doc.changing(ModuleDocument::Change::InPlace);
    jsonObjectObjectDel(element, name);
    if (jsonObjectObjectAdd(element, name, value.release()) != 0) return -1;
    doc.replacedMember(element, name);
    return doc.store();
}

int addListSection(ModuleDocument &doc, DataTable &table, const char *name, const void *record, int size) {
    if (!record || size < 0) {
        KEP_LOG("bufBin can't be null.\r\n");
        return -1;
    }
    // Elements are only appended: the ones before keep their places.
    doc.changing(ModuleDocument::Change::InPlace);
    json_object *stored = jsonObjectObjectGet(doc.get(), table.name);
    if (!stored) {
        stored = jsonObjectNewArray();
        if (!stored || jsonObjectObjectAdd(doc.get(), table.name, stored) != 0) {
            KEP_LOG("make new array failed.\r\n");
            return -1;
        }
    }
    json_object *element = jsonObjectNewObject();
    if (!element || jsonObjectArrayAdd(stored, element) != 0) {
        KEP_LOG("make new element failed.\r\n");
        return -1;
    }
    BinToJsonFn toJson = table.opr.binToJson.config;
    JsonPtr value;
    if (!toJson || toJson(name, value.out(), record, size) != 0) {
        KEP_LOG("bin to json failed.\r\n");
        return -1;
    }
    if (!verifyListSection(table, name, value.get(), 0)) {
        KEP_LOG("verify failed.\r\n");
        return -1;
    }
    if (jsonObjectObjectAdd(element, name, value.release()) != 0) return -1;
    doc.appended(stored, name);
    if (!appendListSection(table, name)) {
        KEP_LOG("make section in the module tree failed.\r\n");
        return -1;
    }
    // The node mirrors the entry from now on, even if the store below fails.
    return doc.store();
}

}  // namespace

int modelConfListSecWrite(const char *name, DataModule *module, DataTable *table, const void *record,
                          int size) {
    if (!name || name[0] == '\0' || !module || !table) return -1;
    // Every change is made on the module's document and stored once, or dropped.
    ModuleDocument doc(*module);
    if (!doc) return -1;
    DataSection *section = findSectionInTable(table, name);
    if (section && !record) return deleteListSection(doc, *module, *table, section);
    if (section) return updateListSection(doc, *module, *table, name, record, size);
    return addListSection(doc, *table, name, record, size);
}

}  // namespace kep

using namespace kep;

KEP_API int loadTableListConfig(DataTable *table, json_object *array) {
    if (!table) return -1;
    const int length = jsonObjectArrayLength(array);
    for (int i = 0; i < length; i++) {
        json_object *element = jsonObjectArrayGetIdx(array, static_cast<unsigned>(i));
        const char *key = nullptr;
        // An element without a member ends the list: what follows it is not loaded.
        if (!element || !jsonObjectNextSubObject(element, nullptr, &key) || !key) break;
        if (!appendListSection(*table, key)) break;
    }
    return 0;
}
