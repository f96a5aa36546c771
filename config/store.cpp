// Reading and writing binary records through a module's configuration file, or
// through the owner's own reader and writer for dynamic tables.
#include <string.h>

#include "base/api.h"
#include "base/guard.h"
#include "config/config_internal.h"
#include "kep_pf_json.h"
#include "tree/tree_internal.h"

namespace kep {
namespace {

// Runs read(section, at, room) for every section of the table, or only for the one
// named when name is not empty, packing the records one after another into buf.
// With a name the first record's result is returned as it is; otherwise the total,
// or -1 when nothing was written. A result below 1 fails the whole read.
template <typename ReadFn>
int readSections(DataTable &table, const char *name, void *buf, int size, ReadFn read) {
    const bool one = name[0] != '\0';
    int total = 0;
    LST_FOR_EACH(DataSection, section, &table.sections) {
        if (one && strcmp(section->name, name) != 0) continue;
        const int room = size - total;
        const int got = read(*section, static_cast<char *>(buf) + total, room);
        if (got < 1) return -1;
        if (one) return got;
        // A converter that claims more than its room would send the next one past
        // the end of the caller's buffer.
        if (got > room) return -1;
        total += got;
    }
    return total > 0 ? total : -1;
}

// Every call into a dynamic owner's reader or writer runs between the lock hooks.
template <typename Call>
int underModelLock(Call call) {
    const int token = modelLock();
    const int result = call();
    modelUnlock(token);
    return result;
}

int readDynamic(DataTable &table, const char *name, void *buf, int size) {
    if (name[0] == '\0' && isListTable(table)) {
        DynReadFn reader = table.opr.binToJson.dynamic;
        if (!reader) return -1;
        return underModelLock([&] { return reader(table.name, buf, size); });
    }
    return readSections(table, name, buf, size, [](DataSection &section, void *at, int room) {
        DynReadFn reader = section.opr.binToJson.dynamic;
        if (!reader) return -1;
        return underModelLock([&] { return reader(section.name, at, room); });
    });
}

// Earlier in the table's list than section, a section node of the same name.
bool readBefore(DataTable &table, const DataSection &section) {
    LST_FOR_EACH(DataSection, s, &table.sections) {
        if (s == &section) break;
        if (strcmp(s->name, section.name) == 0) return true;
    }
    return false;
}

int readStored(DataModule &module, DataTable &table, const char *name, void *buf, int size) {
    ModuleDocument doc(module);
    if (!doc) return -1;
    json_object *stored = jsonObjectObjectGet(doc.get(), table.name);
    if (!stored) return -1;
    const bool list = isListTable(table);
    auto read = [&](DataSection &section, void *at, int room) {
        json_object *container = list ? doc.findListElement(stored, section.name) : stored;
        if (!container) return -1;
        // Each stored value is handed out once per read, lent from the document, which
        // the conversion does not change: a second node of the same name in a table
        // read whole finds its value taken and fails the read.
        if (name[0] == '\0' && readBefore(table, section)) return -1;
        json_object *value = jsonObjectObjectGet(container, section.name);
        JsonToBinFn toBin = section.opr.jsonToBin.config;
        if (!value || !toBin) return -1;
        return toBin(section.name, value, at, room);
    };
    if (list) {
        // A list table is read one section at a time, its node found without a walk.
        DataSection *section = name[0] != '\0' ? doc.findSection(table, name) : nullptr;
        const int got = section ? read(*section, buf, size) : -1;
        return got < 1 ? -1 : got;
    }
    return readSections(table, name, buf, size, read);
}

int writeDynamic(DataTable &table, const char *name, const void *record, int size) {
    if (!record || size < 0) return -1;
    const char *target = table.name;
    DynWriteFn writer = nullptr;
    if (name[0] != '\0') {
        DataSection *section = findSectionInTable(&table, name);
        if (!section) return -1;
        target = section->name;
        writer = section->opr.jsonToBin.dynamic;
    } else if (isListTable(table)) {
        writer = table.opr.jsonToBin.dynamic;
    }
    if (!writer) return -1;
    return underModelLock([&] { return writer(target, record, size); });
}

int writeStored(DataModule &module, DataTable &table, const char *name, const void *record, int size) {
    if (!record || size < 1 || name[0] == '\0') return -1;
    ModuleDocument doc(module);
    if (!doc) return -1;
    json_object *stored = jsonObjectObjectGet(doc.get(), table.name);
    if (!stored) return -1;
    DataSection *section = findSectionInTable(&table, name);
    // A section without a node changes nothing: the document goes back as it was read.
    if (!section) return doc.store();
    BinToJsonFn toJson = section->opr.binToJson.config;
    JsonPtr value;
    if (!toJson || toJson(section->name, value.out(), record, size) != 0) return -1;
    // Only a member of a table of named sections changes; no list element moves.
    doc.changing(ModuleDocument::Change::InPlace);
    jsonObjectObjectDel(stored, section->name);
    if (jsonObjectObjectAdd(stored, section->name, value.release()) != 0) return -1;
    return doc.store();
}

// The table a path addresses, with its module; null for a malformed path or an
// unknown table.
DataTable *resolvePath(const char *path, TreePath *split, DataModule **module) {
    if (!splitTreePath(path, split) || !getModulerRoot()) return nullptr;
    return findPathTable(*split, module);
}

}  // namespace
}  // namespace kep

using namespace kep;

KEP_API int modelRead(const char *path, void *buf, int size) {
    TreePath split;
    DataModule *module = nullptr;
    if (!buf || size < 0) return -1;
    DataTable *table = resolvePath(path, &split, &module);
    if (!table || !module) return -1;
    if (isDynamicTable(*table)) return readDynamic(*table, split.section, buf, size);
    return readStored(*module, *table, split.section, buf, size);
}

KEP_API int modelWrite(const char *path, const void *record, int size) {
    TreePath split;
    DataModule *module = nullptr;
    DataTable *table = resolvePath(path, &split, &module);
    if (!table || !module) return -1;
    if (isDynamicTable(*table)) return writeDynamic(*table, split.section, record, size);
    if (isListTable(*table)) return modelConfListSecWrite(split.section, module, table, record, size);
    return writeStored(*module, *table, split.section, record, size);
}

// A plugin table goes with its stored data: the member leaves the module's file.
KEP_API int deletePluginTable(const char *moduleName, const char *tableName) {
    if (!moduleName || !tableName) return -1;
    DataModule *module = getDataModuler(moduleName);
    if (!module) return -1;
    DataTable *table = getDataTable(module, tableName);
    if (!table || kep::isDynamicTable(*table)) return -1;
    {
        kep::ModuleDocument config(*module, kep::ModuleDocument::Use::IfKept);
        if (!config) return -1;
        if (jsonObjectObjectGet(config.get(), table->name)) {
            config.changing(kep::ModuleDocument::Change::Moves);
            jsonObjectObjectDel(config.get(), table->name);
            config.store();
        }
    }
    if (kep::isListTable(*table)) delDataTable(table);
    return 0;
}
