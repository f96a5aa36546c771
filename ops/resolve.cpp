#include "ops/resolve.h"

#include <string.h>

#include "base/log.h"
#include "kep_diag.h"
#include "kep_request.h"
#include "tree/tree_internal.h"

namespace kep {
namespace {

// The table of a table-level add or delete: a stored list table.
Miss writableListTable(const char *module, const char *name, Target *target) {
    if (!module || !name) return Miss::Argument;
    target->module = getDataModuler(module);
    if (!target->module) return Miss::NoModule;
    target->table = getDataTable(target->module, name);
    if (!target->table) return Miss::NoTable;
    if (isDynamicTable(*target->table)) return Miss::Dynamic;
    return isListTable(*target->table) ? Miss::Ready : Miss::NotList;
}

// The first action of that name that a process has claimed: a declared action
// nobody serves yet has no callback and is passed over.
const ActionNode *usableAction(DataModule *module, const char *name) {
    LST_FOR_EACH(const ActionNode, action, &module->actions) {
        if (strcmp(action->name, name) == 0 && action->pid >= 0 && action->cb[0] != '\0') return action;
    }
    return nullptr;
}

Miss take(const MethodCbNode *slot, ModelReqParams &params) {
    return takeSlot(slot, params) ? Miss::Ready : Miss::Unserved;
}

}  // namespace

Miss resolveTarget(Op op, const char *module, const char *name, const char *func, Target *target) {
    *target = Target{};
    switch (op) {
        case Op::GetTable: {
            if (!module || !name) return Miss::Argument;
            target->module = getDataModuler(module);
            KEP_LOG_AS(func, "begin to model:%s get method handle tableName:%s.\n", module, name);
            target->table = target->module ? getDataTable(target->module, name) : nullptr;
            KEP_LOG_AS(func, "begin to model:%s get method handle tableName:%s.\n", module, name);
            if (!target->table) return target->module ? Miss::NoTable : Miss::NoModule;
            return Miss::Ready;
        }
        case Op::GetSection: {
            if (!module || !name) return Miss::Argument;
            target->module = getDataModuler(module);
            if (!target->module) return Miss::NoModule;
            KEP_LOG_AS(func, "secName:%s modelName:%s\n", name, module);
            DataSection *node = nullptr;
            if (findSectionInModule(module, name, &node) == 1 && node) {
                target->section = node;
                return Miss::Ready;
            }
            KEP_LOG_AS(func, "secName:%s .\n", name);
            target->table = listTableOf(target->module, name, true);
            if (!target->table) return Miss::NoTable;
            KEP_LOG_AS(func, "secName:%s .\n", name);
            return Miss::Ready;
        }
        case Op::SetTable: {
            if (!module || !name) return Miss::Argument;
            target->module = getDataModuler(module);
            if (!target->module) return Miss::NoModule;
            KEP_LOG_AS(func, "table:%s module:%s pModule:%p.\n", name, module,
                       static_cast<void *>(target->module));
            target->table = getDataTable(target->module, name);
            if (!target->table) {
                KEP_LOG_AS(func, "table:%s module:%s.\n", name, module);
                return Miss::NoTable;
            }
            return Miss::Ready;
        }
        case Op::SetSection:
        case Op::DeleteSection: {
            if (!module || !name) return Miss::Argument;
            target->module = getDataModuler(module);
            if (!target->module) return Miss::NoModule;
            const bool set = op == Op::SetSection;
            if (set) KEP_LOG_AS(func, "section:%s model:%s.\n", name, module);
            SectionHit hit{};
            if (findSectionNode(target->module, name, set ? WalkTrace::Edit : WalkTrace::Delete, &hit)) {
                target->table = hit.table;
                target->section = hit.section;
                if (isDynamicTable(*hit.table)) return set ? Miss::Dynamic : Miss::NotDeletable;
                if (!set) KEP_LOG_AS(func, "section:%s .\n", name);
                return Miss::Ready;
            }
            KEP_LOG_AS(func, "section:%s .\n", name);
            // Only a set takes the whole name as a table name; deleting a table goes by "table".
            target->table = listTableOf(target->module, name, set);
            if (!target->table) return Miss::NoTable;
            DataTable &table = *target->table;
            if (!set && isDynamicTable(table) && !isListTable(table)) return Miss::NotDeletable;
            KEP_LOG_AS(func, "secName:%s .\n", name);
            if (set && (isDynamicTable(table) || !table.methodCb[KEP_METHOD_SET])) {
                KEP_LOG_AS(func, "invalid set request!\n");
                return isDynamicTable(table) ? Miss::Dynamic : Miss::Unserved;
            }
            return Miss::Ready;
        }
        case Op::AddRow:
        case Op::DeleteTable:
            return writableListTable(module, name, target);
        case Op::Notify: {
            TreePath split;
            if (!name || !splitTreePath(name, &split)) return Miss::Argument;
            target->table = findPathTable(split, &target->module);
            if (!target->table) return Miss::NoTable;
            if (isDynamicTable(*target->table)) return Miss::Dynamic;
            target->section = findSectionInTable(target->table, split.section);
            return target->section ? Miss::Ready : Miss::NoTable;
        }
        case Op::Do: {
            target->module = module && name ? getDataModuler(module) : nullptr;
            if (!target->module) {
                KEP_LOG_AS(func, "Get data moduler %s failed.\r\n", orNull(module));
                return module && name ? Miss::NoModule : Miss::Argument;
            }
            KEP_LOG_AS(func, "Do action %s to module %s.\r\n", name, module);
            target->action = usableAction(target->module, name);
            return target->action ? Miss::Ready : Miss::Unserved;
        }
    }
    return Miss::Argument;
}

Miss resolveSlot(Op op, const Target &target, ModelReqParams &params) {
    DataTable *table = target.table;
    DataSection *section = target.section;
    switch (op) {
        case Op::GetTable:
            return take(table->methodCb[KEP_METHOD_GET], params);
        case Op::GetSection:
            // A section node answers for itself, even inside a list table.
            if (section) return take(section->methodCb[KEP_METHOD_GET], params);
            if (!isDynamicTable(*table)) return take(table->methodCb[KEP_METHOD_GET], params);
            // The entries of a dynamic table exist only in its owner, which registered the
            // table's operation interface: that callback serves them.
            params.pid = table->opr.pid;
            params.cb = table->opr.cb;
            return table->opr.pid >= 0 && table->opr.cb[0] != '\0' ? Miss::Ready : Miss::Unserved;
        case Op::SetTable:
            return take(table->methodCb[KEP_METHOD_SET], params);
        case Op::SetSection:
        case Op::DeleteSection: {
            const int method = op == Op::SetSection ? KEP_METHOD_SET : KEP_METHOD_DELETE;
            // A list table's sections share the table's callbacks; the sections of a table
            // of named sections have their own.
            if (section && !isListTable(*table)) return take(section->methodCb[method], params);
            return take(table->methodCb[method], params);
        }
        case Op::AddRow:
            return take(table->methodCb[KEP_METHOD_ADD], params);
        case Op::DeleteTable:
            return take(table->methodCb[KEP_METHOD_DELETE], params);
        case Op::Do:
            params.pid = target.action->pid;
            params.cb = target.action->cb;
            return Miss::Ready;
        case Op::Notify:
            break;  // every listener of the section is called: there is no one slot
    }
    return Miss::Unserved;
}

int missCode(Op op, Miss miss, const char *module, const char *name) {
    if (miss == Miss::Ready) return KEP_OK;
    if (op == Op::GetTable || op == Op::GetSection) {
        // A read answers -1 whatever is missing; the failure record tells which.
        if (miss == Miss::NoModule || miss == Miss::NoTable) recordNoOwner(KEP_ERR_NO_TABLE, module, name);
        if (miss == Miss::Unserved) recordNoOwner(KEP_ERR_NOT_REGISTERED, module, name);
        return KEP_ERR_GENERIC;
    }
    switch (miss) {
        case Miss::NoTable:
            // Set and section delete name the missing table; add and table delete refuse
            // it like any other table they cannot write.
            if (op == Op::SetTable || op == Op::SetSection || op == Op::DeleteSection)
                return KEP_ERR_NO_TABLE;
            return KEP_ERR_NOT_REGISTERED;
        case Miss::NotDeletable:
            return KEP_ERR_NOT_DELETABLE;
        case Miss::Unserved:
            // An empty delete slot of a section answers -1, unlike every other write.
            return op == Op::DeleteSection ? KEP_ERR_GENERIC : KEP_ERR_NOT_REGISTERED;
        default:
            // Every other refusal of a write or an action is -7004, whatever is missing.
            return KEP_ERR_NOT_REGISTERED;
    }
}

}  // namespace kep
