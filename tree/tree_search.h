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
    LST_FOR_EACH(DataModule, mod, &moduleRoot()) {
        onModule(mod);
        if (!sameName(mod->name, path.module)) continue;
        LST_FOR_EACH(DataTable, table, &mod->tables) {
            onTable(table);
            if (sameName(table->name, path.table)) {
                if (module) *module = mod;
                return table;
            }
        }
    }
    return nullptr;
}

// A section node and the table that holds it.
struct SectionHit {
    DataTable *table;
    DataSection *section;
};

// The one section search of a table: the first section named name, in list order,
// compared exactly. onSection(DataSection *) runs for every section compared, so that
// each caller can trace under its own name.
template <typename OnSection>
DataSection *searchTableSection(DataTable *table, const char *name, OnSection onSection) {
    LST_FOR_EACH(DataSection, section, &table->sections) {
        onSection(section);
        if (sameName(section->name, name)) return section;
    }
    return nullptr;
}

// The same over a module: tables in list order, onTable(DataTable *) for every table
// entered. False when no table has such a section.
template <typename OnTable, typename OnSection>
bool searchSection(DataModule *module, const char *name, SectionHit *hit, OnTable onTable,
                   OnSection onSection) {
    LST_FOR_EACH(DataTable, table, &module->tables) {
        onTable(table);
        if (DataSection *section = searchTableSection(table, name, onSection)) {
            *hit = {table, section};
            return true;
        }
    }
    return false;
}

// Releases every node of a verify or notify list.
void freeVerNotifyList(LstList *list);
// Releases the four method-callback nodes and empties the slots.
void freeMethodSlots(MethodCbNode *slots[KEP_METHOD_SLOTS]);

}  // namespace kep
