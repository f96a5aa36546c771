// Diagnostic picture of the whole tree in the debug log.
#include "base/api.h"
#include "base/log.h"
#include "tree/tree_internal.h"
#include "tree/tree_search.h"

namespace kep {

namespace {

// Section-level lines sit one level deeper than the table's own.
void dumpVerNotify(LstList *verList, LstList *notList, bool sectionLevel) {
    LST_FOR_EACH(VerNotifyNode, node, verList) {
        if (sectionLevel) {
            KEP_LOG_AS("printDataModuleTree", "| | | |-verlist_cb pid%d %s\r\n", node->pid, node->cb);
        } else {
            KEP_LOG_AS("printDataModuleTree", "| | |-verlist_cb pid%d %s\r\n", node->pid, node->cb);
        }
    }
    LST_FOR_EACH(VerNotifyNode, node, notList) {
        if (sectionLevel) {
            KEP_LOG_AS("printDataModuleTree", "| | | |-notlist_cb pid%d %s\r\n", node->pid, node->cb);
        } else {
            KEP_LOG_AS("printDataModuleTree", "| | |-notlist_cb pid%d %s\r\n", node->pid, node->cb);
        }
    }
}

void dumpMethodSlots(MethodCbNode *const slots[KEP_METHOD_SLOTS]) {
    for (int i = 0; i < 4; i++) {
        if (slots[i])
            KEP_LOG_AS("printDataModuleTree", "| |-cb[%d] pid%d %-15s\r\n", i, slots[i]->pid, slots[i]->cb);
    }
}

void dumpTable(DataTable *table) {
    KEP_LOG_AS("printDataModuleTree", "| |-table %-20s %-8s %-8s %3d\r\n", table->name,
               kep::isListTable(*table) ? "public" : "private", table->noCheck == 0 ? "check" : "nocheck",
               table->count);
    LST_FOR_EACH(DataSection, section, &table->sections) {
        KEP_LOG_AS("printDataModuleTree", "| | |-section %-10s\r\n", section->name);
        dumpVerNotify(&section->verList, &section->notList, true);
        dumpMethodSlots(section->methodCb);
    }
    if (kep::isListTable(*table) && table->options) {
        for (int i = 0; i < table->optionCount; i++) {
            KEP_LOG_AS("printDataModuleTree", "| | |-option %-10s\r\n", table->options[i].name);
        }
    }
    dumpVerNotify(&table->verList, &table->notList, false);
    if (table->opr.pid > 0)
        KEP_LOG_AS("printDataModuleTree", "| | |-dymic_cb pid%d %s\r\n", table->opr.pid, table->opr.cb);
    // Nothing names the owner of configPid, so the line shows the interface's callback.
    if (table->opr.configPid > 0) {
        KEP_LOG_AS("printDataModuleTree", "| | |-config_cb pid%d %s\r\n", table->opr.configPid,
                   table->opr.cb);
    }
    dumpMethodSlots(table->methodCb);
}

}  // namespace

}  // namespace kep

using namespace kep;

KEP_API void printDataModuleTree(void) {
    if (debugFlagGet(kMidHandle) != 1) return;
    KEP_LOG("Data module tree.\r\n");
    LST_FOR_EACH(DataModule, module, &moduleRoot()) {
        KEP_LOG("|-%s(module) :%p\r\n", module->name, static_cast<void *>(module));
        LST_FOR_EACH(DataTable, table, &module->tables) dumpTable(table);
        LST_FOR_EACH(ActionNode, action, &module->actions) {
            KEP_LOG("| |-action %-15s pid:%d cb%s\r\n", action->name, action->pid, action->cb);
        }
    }
}
