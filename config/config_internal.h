// Internal interface of the configuration store, shared by its files and by the
// model operations that read a module's stored document.
#pragma once

#include "kep_config.h"
#include "tree/tree_internal.h"

namespace kep {

// The module's configuration document, or null when the module has no file, the
// file is missing or unparsable, or its top level is not an object. Caller releases.
json_object *loadModuleDocument(const DataModule &module);

// How a document reaches its file: every write of a section goes through the
// platform's plain store, a reset through its in-memory store.
enum class StoreKind { Write, Reset };

// The one file-store helper of every write. Both platform stores replace the file
// atomically: on failure (missing folder, full disk, size limit) the previous file
// is left byte for byte intact and the platform's nonzero result is returned.
int storeModuleDocument(const char *path, json_object *doc, StoreKind kind);

// The element of a list table's array whose first member is keyed name, or null.
json_object *findListElement(json_object *array, const char *name);

// Writes (record given) or deletes (record null) the list section name of a list
// table and keeps its tree node in step. Returns the store's result or -1; a
// refused write stores nothing.
int modelConfListSecWrite(const char *name, DataModule *module, DataTable *table, const void *record,
                          int size);

namespace cfg {
inline bool isListTable(const DataTable &table) {
    return table.optionPublic == 1;
}
inline bool isDynamicTable(const DataTable &table) {
    return table.isDynamic != 0;
}
}  // namespace cfg

}  // namespace kep
