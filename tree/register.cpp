// Registration of application modules, operation interfaces, method, verify and
// notify callbacks and actions. Registration only fills nodes that already exist.
#include <stdlib.h>
#include <string.h>

#include "base/api.h"
#include "base/log.h"
#include "tree/tree_internal.h"
#include "tree/tree_search.h"

namespace kep {

namespace {

bool treeEmpty() {
    return lstCount(&moduleRoot()) == 0;
}

void traceComponents(const char *func, const TreePath &p) {
    KEP_LOG_AS(func, "moduleName:%s\r\n", p.module);
    KEP_LOG_AS(func, "tableName:%s\r\n", p.table);
    KEP_LOG_AS(func, "moduleName:%s tableName:%s\r\n", p.module, p.table);
}

// Stores the record into the table or into its named section.
int regTableInterface(DataTable *table, const char *path, const char *section, const OprInterface *opr) {
    if (*section) {
        const char *func = __func__;
        DataSection *target = searchTableSection(table, section, [func, section](DataSection *candidate) {
            KEP_LOG_AS(func, "path:%s pSection->name:%s ", section, candidate->name);
        });
        if (target) {
            target->opr = *opr;
            return 0;
        }
        KEP_LOG("regTableInterface table [%s] don't have section [%s].\r\n", table->name, section);
        return -1;
    }
    table->opr = *opr;
    KEP_LOG("path:%s pTable->name:%s  pTable->optionPublic:%d", path, table->name, table->optionPublic);
    if (kep::isListTable(*table)) {
        // A list table's entries share its interface.
        LST_FOR_EACH(DataSection, section, &table->sections) section->opr = *opr;
    }
    return 0;
}

// Takes the new node into the table's slot or its named section's slot; on failure
// the node is released.
int regTableMethodCb(DataTable *table, const char *section, int method, const char *cb, int pid) {
    auto *node = static_cast<MethodCbNode *>(newCbNode());
    if (!node) return -1;
    node->pid = pid;
    copyName(node->cb, cb, kCallbackNameSize);
    KEP_LOG("pTable->name:%s pTmpPath:%s pCbNode->cb:%s\r\n", table->name, section, node->cb);
    KEP_LOG("callback %s .\r\n", node->cb);
    MethodCbNode **slot;
    if (!*section) {
        slot = &table->methodCb[method];
    } else {
        // Any per-section callback makes this a table of named sections, even when the
        // section turns out not to exist.
        table->optionPublic = 0;
        DataSection *target = findSectionInTable(table, section);
        if (!target) {
            KEP_LOG("regTableVerNotify %s failed.\r\n", section);
            free(node);
            return -1;
        }
        slot = &target->methodCb[method];
    }
    free(*slot);
    *slot = node;
    return 0;
}

int regModuleAction(const char *moduleName, const char *action, const char *cb, int pid) {
    DataModule *module = getDataModuler(moduleName);
    if (!module) return -1;
    int found = 0;
    LST_FOR_EACH(ActionNode, a, &module->actions) {
        if (!sameName(a->name, action)) continue;
        memset(a->cb, 0, sizeof a->cb);
        copyName(a->cb, cb, kCallbackNameSize);
        a->pid = pid;
        found = 1;
    }
    return found ? 0 : -1;
}

LstList *selectList(LstList *verList, LstList *notList, int selector) {
    return selector == KEP_SELECT_VERIFY ? verList : notList;
}

int regTableVerNotify(DataTable *table, const char *section, int selector, const char *cb, int pid) {
    auto *node = static_cast<VerNotifyNode *>(newCbNode());
    if (!node) return -1;
    node->pid = pid;
    copyName(node->cb, cb, kCallbackNameSize);
    KEP_LOG("pTable->name:%s pTmpPath:%s pVerNew->cb:%s\r\n", table->name, section, node->cb);
    KEP_LOG("regTableVerNotify %s .\r\n", node->cb);
    if (!*section) {
        lstAdd(selectList(&table->verList, &table->notList, selector), &node->link);
        return 0;
    }
    DataSection *target = findSectionInTable(table, section);
    if (!target) {
        KEP_LOG("regTableVerNotify %s failed.\r\n", section);
        free(node);
        return -1;
    }
    lstAdd(selectList(&target->verList, &target->notList, selector), &node->link);
    return 0;
}

int unRegTableVerNotify(DataTable *table, const char *section, int selector, const char *cb, int pid) {
    LstList *list = nullptr;
    if (!*section) {
        list = selectList(&table->verList, &table->notList, selector);
    } else if (DataSection *target = findSectionInTable(table, section)) {
        list = selectList(&target->verList, &target->notList, selector);
    }
    if (list) {
        LST_FOR_EACH(VerNotifyNode, node, list) {
            if (node->pid == pid && sameName(node->cb, cb)) {
                lstDelete(list, &node->link);
                free(node);
                return 0;
            }
        }
    }
    KEP_LOG("unregister %s notify%s for %s failed.\r\n", selector == KEP_SELECT_VERIFY ? "verify" : "notify",
            cb, *section ? section : table->name);
    return -1;
}

}  // namespace

}  // namespace kep

using namespace kep;

KEP_API int registerAppModule(const char *name, const AppOps *ops) {
    if (!name || !ops || treeEmpty()) return -1;
    DataModule *module = getDataModuler(name);
    if (!module) return -1;
    module->appOps = *ops;
    if (ops->init) ops->init();
    KEP_LOG("register moduler %s successed.\r\n", name);
    return 0;
}

KEP_API int regOprInterface(const char *path, const OprInterface *opr) {
    if (!path || path[0] != '/' || !opr || treeEmpty()) return -1;
    KEP_LOG("path:%s \n cb%s \n pid:%d  ", path, opr->cb, opr->pid);
    TreePath p;
    if (!splitTreePath(path, &p)) return -1;
    const char *afterModule = strchr(path + 1, '/') + 1;
    KEP_LOG("moduleName:%s \n pStr%s \n pTmpPath:%s  ", p.module, path + 1, afterModule);
    KEP_LOG("tableName:%s \n pStr%s \n pTmpPath:%s  ", p.table, afterModule, p.section);
    DataTable *table = searchPathTable(
        p, nullptr,
        [&](DataModule *m) {
            KEP_LOG_AS("regOprInterface", "pModule->name:%s moduleName:%s  ", m->name, p.module);
        },
        [&](DataTable *t) {
            KEP_LOG_AS("regOprInterface", "pTmpPath:%s pTable->name:%s tableName:%s  ", p.section, t->name,
                       p.table);
        });
    if (!table) {
        KEP_LOG("regOprInterface: path %s can't find.\r\n", path);
        return -1;
    }
    return regTableInterface(table, path, p.section, opr);
}

KEP_API int registerMethodCb(const char *path, int method, const char *cb, int pid) {
    if (!path || path[0] != '/' || !cb || pid < 0 || method < KEP_METHOD_ADD || method > KEP_METHOD_ACTION ||
        treeEmpty())
        return -1;
    TreePath p;
    if (!splitTreePath(path, &p)) {
        KEP_LOG("path:%s\r\n", path);
        return -1;
    }
    traceComponents("registerMethodCb", p);
    if (method == KEP_METHOD_ACTION) return regModuleAction(p.module, p.table, cb, pid);
    DataTable *table = searchPathTable(
        p, nullptr, [](DataModule *) {},
        [](DataTable *t) { KEP_LOG_AS("registerMethodCb", "pTable->name:%s\r\n", t->name); });
    if (!table) return -1;
    return regTableMethodCb(table, p.section, method, cb, pid);
}

KEP_API int unRegisterMethodCb(const char *path, int method, const char * /*cb*/, int pid) {
    if (!path || path[0] != '/' || pid < 0 || method < KEP_METHOD_ADD || method > KEP_METHOD_GET ||
        treeEmpty())
        return -1;
    TreePath p;
    if (!splitTreePath(path, &p)) return -1;
    DataTable *table = findPathTable(p, nullptr);
    if (!table) {
        KEP_LOG("path %s can't find.\r\n", path);
        return -1;
    }
    MethodCbNode **slots = table->methodCb;
    if (*p.section) {
        DataSection *section = findSectionInTable(table, p.section);
        if (!section) return -1;
        slots = section->methodCb;
    }
    if (!slots[method]) return -1;
    free(slots[method]);
    slots[method] = nullptr;
    return 0;
}

KEP_API int registerVerNotify(const char *path, int selector, const char *cb, int pid) {
    if (!path || path[0] != '/' || !cb || pid < 0 || treeEmpty()) return -1;
    TreePath p;
    if (!splitTreePath(path, &p)) {
        KEP_LOG("path:%s\r\n", path);
        return -1;
    }
    traceComponents("registerVerNotify", p);
    DataTable *table = searchPathTable(
        p, nullptr,
        [](DataModule *m) { KEP_LOG_AS("registerVerNotify", "pModule:%p \r\n", static_cast<void *>(m)); },
        [&](DataTable *t) {
            KEP_LOG_AS("registerVerNotify", "pTable->name:%s pTmpPath:%s\r\n", t->name, p.section);
        });
    if (!table) {
        KEP_LOG("registerVerNotify: path %s can't find.\r\n", path);
        return -1;
    }
    return regTableVerNotify(table, p.section, selector, cb, pid);
}

KEP_API int unRegisterVerNotify(const char *path, int selector, const char *cb, int pid) {
    if (!path || path[0] != '/' || !cb || pid < 0 || treeEmpty()) return -1;
    TreePath p;
    if (!splitTreePath(path, &p)) return -1;
    DataTable *table = findPathTable(p, nullptr);
    if (!table) {
        KEP_LOG("path %s can't find.\r\n", path);
        return -1;
    }
    return unRegTableVerNotify(table, p.section, selector, cb, pid);
}

KEP_API int registerAction(const char *moduleName, const char *action, const char *cb, int pid) {
    if (!moduleName || !action || !cb || pid < 0 || strlen(action) >= sizeof(ActionNode{}.name)) return -1;
    DataModule *module = getDataModuler(moduleName);
    if (!module) return -1;
    LST_FOR_EACH(ActionNode, known, &module->actions) {
        if (sameName(known->name, action)) return -1;
    }
    ActionNode *node = newActionNode();
    if (!node) return -1;
    copyName(node->name, action, sizeof node->name);
    copyName(node->cb, cb, kCallbackNameSize);
    node->pid = pid;
    lstAdd(&module->actions, &node->link);
    return 0;
}
