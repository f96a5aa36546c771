// The process-wide data module tree: root list, node allocators, path splitting,
// lookups and removal of registrations.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "base/api.h"
#include "base/guard.h"
#include "base/log.h"
#include "tree/tree_internal.h"
#include "tree/tree_search.h"

namespace kep {

namespace {

LstList gModuleRoot;  // zero-filled: an empty list at load

void copyComponent(char (&dst)[KEP_NAME_SIZE], const char *src, size_t len) {
    if (len > sizeof dst - 1) len = sizeof dst - 1;
    memcpy(dst, src, len);
    dst[len] = '\0';
}

template <typename T>
T *zeroNode() {
    return static_cast<T *>(treeCalloc(1, sizeof(T)));
}

void freeTable(DataTable *table) {
    delDataTable(table);
    freeVerNotifyList(&table->verList);
    freeVerNotifyList(&table->notList);
    freeMethodSlots(table->methodCb);
    // options is never allocated by the library, so it is not released here.
    free(table);
}

}  // namespace

void *(*treeCalloc)(size_t count, size_t size) = calloc;

LstList &moduleRoot() {
    return gModuleRoot;
}

void copyName(char *dst, const char *src, unsigned size) {
    if (size == 0) return;
    size_t len = src ? strnlen(src, size - 1) : 0;
    if (len) memcpy(dst, src, len);
    dst[len] = '\0';
}

bool splitTreePath(const char *path, TreePath *out) {
    if (!path || path[0] != '/') return false;
    const char *module = path + 1;
    const char *slash = strchr(module, '/');
    if (!slash) return false;
    copyComponent(out->module, module, static_cast<size_t>(slash - module));
    const char *table = slash + 1;
    const char *end = strchr(table, '/');
    size_t tableLen = end ? static_cast<size_t>(end - table) : strlen(table);
    copyComponent(out->table, table, tableLen);
    out->section = end ? end + 1 : table + tableLen;
    return true;
}

DataTable *findPathTable(const TreePath &path, DataModule **module) {
    return searchPathTable(
        path, module, [](DataModule *) {}, [](DataTable *) {});
}

DataSection *findSectionInTable(DataTable *table, const char *name) {
    if (!table || !name) return nullptr;
    return searchTableSection(table, name, [](DataSection *) {});
}

int lastIndexOfChar(const char *text, char c) {
    if (!text || !*text) return 0;
    const char *last = strrchr(text, c);
    return last ? static_cast<int>(last - text) : -1;
}

DataModule *newDataModule() {
    return zeroNode<DataModule>();
}
DataTable *newDataTable() {
    return zeroNode<DataTable>();
}
DataSection *newDataSection() {
    return zeroNode<DataSection>();
}
ActionNode *newActionNode() {
    return zeroNode<ActionNode>();
}

void *newCbNode() {
    static_assert(sizeof(VerNotifyNode) >= sizeof(MethodCbNode), "one allocation fits both node kinds");
    return treeCalloc(1, sizeof(VerNotifyNode));
}

void freeVerNotifyList(LstList *list) {
    while (LstNode *node = lstGet(list)) free(node);
}

void freeMethodSlots(MethodCbNode *slots[KEP_METHOD_SLOTS]) {
    for (int i = 0; i < 4; i++) {
        free(slots[i]);
        slots[i] = nullptr;
    }
}

void freeDataSection(DataSection *section) {
    if (!section) return;
    freeVerNotifyList(&section->verList);
    freeVerNotifyList(&section->notList);
    freeMethodSlots(section->methodCb);
    free(section);
}

void releaseTreeNodes() {
    while (LstNode *m = lstGet(&gModuleRoot)) {
        DataModule *module = nodeAs<DataModule>(m);
        while (LstNode *t = lstGet(&module->tables)) freeTable(nodeAs<DataTable>(t));
        while (LstNode *a = lstGet(&module->actions)) free(a);
        free(module);
    }
    lstInit(&gModuleRoot);
}

}  // namespace kep

using namespace kep;

KEP_API DataModule *getModulerRoot(void) {
    return nodeAs<DataModule>(lstFirst(&gModuleRoot));
}

KEP_API int getModuleSize(void) {
    return lstCount(&gModuleRoot);
}

KEP_API DataModule *getDataModuler(const char *name) {
    if (!name) return nullptr;
    LST_FOR_EACH(DataModule, module, &gModuleRoot) {
        if (sameName(module->name, name)) return module;
    }
    return nullptr;
}

KEP_API DataTable *getDataTable(DataModule *module, const char *name) {
    if (!name) return nullptr;
    if (!module) {
        LST_FOR_EACH(DataModule, m, &gModuleRoot) {
            LST_FOR_EACH(DataTable, table, &m->tables) {
                if (sameName(table->name, name)) return table;
            }
        }
        return nullptr;
    }
    LST_FOR_EACH(DataTable, table, &module->tables) {
        KEP_LOG("tableName:%s pDataTable->name:%s.\n", name, table->name);
        if (sameName(table->name, name)) return table;
    }
    return nullptr;
}

KEP_API DataTable *getTableByFullName(const char *path) {
    TreePath split;
    if (!splitTreePath(path, &split)) return nullptr;
    return findPathTable(split, nullptr);
}

KEP_API int findSectionInModule(const char *moduleName, const char *section, DataSection **out) {
    if (!moduleName || !section) return -1;
    DataModule *module = getDataModuler(moduleName);
    if (!module) return -1;
    const char *func = __func__;
    SectionHit hit;
    const bool found = searchSection(
        module, section, &hit, [func](DataTable *table) { KEP_LOG_AS(func, "table:%s\n", table->name); },
        [func, section](DataSection *candidate) {
            KEP_LOG_AS(func, "section:%s secName:%s, slen:%d \n", candidate->name, section,
                       static_cast<int>(strlen(section)));
        });
    if (!found) return 0;
    if (out) *out = hit.section;
    return 1;
}

KEP_API void delDataTable(DataTable *table) {
    if (!table) return;
    while (LstNode *s = lstGet(&table->sections)) freeDataSection(nodeAs<DataSection>(s));
}

KEP_API void delDataModule(const char *name, int dropListSections) {
    DataModule *module = getDataModuler(name);
    if (!module) return;
    while (LstNode *a = lstGet(&module->actions)) free(a);
    memset(&module->appOps, 0, sizeof module->appOps);
    if (!dropListSections) return;
    LST_FOR_EACH(DataTable, table, &module->tables) {
        if (kep::isListTable(*table)) delDataTable(table);
    }
}

KEP_API int unregisterTable(const char *path) {
    DataTable *table = getTableByFullName(path);
    if (!table) return -1;
    if (!kep::isListTable(*table)) {
        LST_FOR_EACH(DataSection, section, &table->sections) {
            freeVerNotifyList(&section->verList);
            freeVerNotifyList(&section->notList);
            freeMethodSlots(section->methodCb);
            memset(&section->opr, 0, sizeof section->opr);
        }
    }
    freeVerNotifyList(&table->verList);
    freeVerNotifyList(&table->notList);
    freeMethodSlots(table->methodCb);
    memset(&table->opr, 0, sizeof table->opr);
    return 0;
}
