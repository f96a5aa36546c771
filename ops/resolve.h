// The core every model operation goes through: what a module and a name resolve to
// for an operation, which callback serves it, and the code the operation's entry
// point answers when something is missing.
#pragma once

#include "ops/ops_internal.h"

namespace kep {

// The operations, one per entry point.
enum class Op {
    GetTable,       // getTableObjJson
    GetSection,     // getSectionObjJson
    SetTable,       // editTableByObjJson, and editTable for a list section
    SetSection,     // editSectionByObjJson
    AddRow,         // addSectionByObjJson
    DeleteTable,    // deleteDataTable
    DeleteSection,  // deleteDataSection
    Do,             // doActionToModel
    Notify,         // notifySecdataChanged: the name is a path "/module/table/section"
};

// What stands in the way of calling an owner; Ready when nothing does.
enum class Miss {
    Ready,
    Argument,      // a null or contradictory argument
    NoModule,      // no module of that name
    NoTable,       // no such table, or no table for a list-section name
    NotList,       // a table-level operation on a table of named sections
    Dynamic,       // the table's data exists only in its owner
    NotDeletable,  // a section of a dynamic table
    Unserved,      // no process serves the operation (empty slot, unclaimed action)
};

// What a request names, as far as it was resolved. section is set when the name is a
// section node; for a list-section name only table is.
struct Target {
    DataModule *module;
    DataTable *table;
    DataSection *section;
    const ActionNode *action;
};

// Resolves module and name (a table, a section, an action or a path, as op takes it) into
// target, writing each step's trace under func, the entry point's name.
Miss resolveTarget(Op op, const char *module, const char *name, const char *func, Target *target);

// The callback that serves op on a resolved target, put into params; Unserved when
// none does.
Miss resolveSlot(Op op, const Target &target, ModelReqParams &params);

// The code op's entry point answers for miss: the one place where the entry points'
// codes are decided. Reads also leave the failure record (kep_diag.h) for module and
// name.
int missCode(Op op, Miss miss, const char *module, const char *name);

}  // namespace kep
