// The one walk that resolves a split path to its table, with hooks that let each
// registration trace the names it compares under its own function name.
#pragma once

#include <string.h>

#include "tree/tree_internal.h"

namespace kep {

// Callback names keep at most 64 characters of the caller's text, so the 68-byte
// fields always stay terminated.
constexpr unsigned kCallbackNameSize = 65;

inline bool sameName(const char *a, const char *b) {
    return strcmp(a, b) == 0;
}

// First table named path.table in a module named path.module, going on through the
// remaining modules of the root list when the first module of that name lacks it.
// onModule(DataModule *) runs for every module compared, onTable(DataTable *) for
// every table compared.
template <typename OnModule, typename OnTable>
DataTable *searchPathTable(const TreePath &path, DataModule **module, OnModule onModule, OnTable onTable) {
    for (LstNode *m = lstFirst(&moduleRoot()); m; m = lstNext(m)) {
        DataModule *mod = nodeAs<DataModule>(m);
        onModule(mod);
        if (!sameName(mod->name, path.module)) continue;
        for (LstNode *t = lstFirst(&mod->tables); t; t = lstNext(t)) {
            DataTable *table = nodeAs<DataTable>(t);
            onTable(table);
            if (sameName(table->name, path.table)) {
                if (module) *module = mod;
                return table;
            }
        }
    }
    return nullptr;
}

// Releases every node of a verify or notify list.
void freeVerNotifyList(LstList *list);
// Releases the four method-callback nodes and empties the slots.
void freeMethodSlots(MethodCbNode *slots[KEP_METHOD_SLOTS]);

}  // namespace kep
