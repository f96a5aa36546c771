// The process-wide data module tree: root list, node allocators, path splitting,
// lookups and removal of registrations.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "base/api.h"
#include "base/guard.h"
#include "base/log.h"
#include "config/config_internal.h"
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
    for (LstNode *n = lstFirst(&table->sections); n; n = lstNext(n)) {
        DataSection *section = nodeAs<DataSection>(n);
        if (sameName(section->name, name)) return section;
    }
    return nullptr;
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

void resetTreeForTest() {
    dropModuleDocuments();
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
    for (LstNode *m = lstFirst(&gModuleRoot); m; m = lstNext(m)) {
        DataModule *module = nodeAs<DataModule>(m);
        if (sameName(module->name, name)) return module;
    }
    return nullptr;
}

KEP_API DataTable *getDataTable(DataModule *module, const char *name) {
    if (!name) return nullptr;
    if (!module) {
        for (LstNode *m = lstFirst(&gModuleRoot); m; m = lstNext(m)) {
            for (LstNode *t = lstFirst(&nodeAs<DataModule>(m)->tables); t; t = lstNext(t)) {
                DataTable *table = nodeAs<DataTable>(t);
                if (sameName(table->name, name)) return table;
            }
        }
        return nullptr;
    }
    for (LstNode *t = lstFirst(&module->tables); t; t = lstNext(t)) {
        DataTable *table = nodeAs<DataTable>(t);
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
    for (LstNode *t = lstFirst(&module->tables); t; t = lstNext(t)) {
        DataTable *table = nodeAs<DataTable>(t);
        KEP_LOG("table:%s\n", table->name);
        for (LstNode *s = lstFirst(&table->sections); s; s = lstNext(s)) {
            DataSection *candidate = nodeAs<DataSection>(s);
            KEP_LOG("section:%s secName:%s, slen:%d \n", candidate->name, section,
                    static_cast<int>(strlen(section)));
            if (sameName(candidate->name, section)) {
                if (out) *out = candidate;
                return 1;
            }
        }
    }
    return 0;
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
    for (LstNode *t = lstFirst(&module->tables); t; t = lstNext(t)) {
        DataTable *table = nodeAs<DataTable>(t);
        if (table->optionPublic == 1) delDataTable(table);
    }
}

KEP_API int unregisterTable(const char *path) {
    DataTable *table = getTableByFullName(path);
    if (!table) return -1;
    if (table->optionPublic == 0) {
        for (LstNode *s = lstFirst(&table->sections); s; s = lstNext(s)) {
            DataSection *section = nodeAs<DataSection>(s);
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

KEP_API int deletePluginTable(const char *moduleName, const char *tableName) {
    if (!moduleName || !tableName) return -1;
    DataModule *module = getDataModuler(moduleName);
    if (!module) return -1;
    DataTable *table = getDataTable(module, tableName);
    if (!table || table->isDynamic == 1) return -1;
    {
        kep::ModuleDocument config(*module, kep::ModuleDocument::Use::IfKept);
        if (!config) return -1;
        if (jsonObjectObjectGet(config.get(), table->name)) {
            config.changing(kep::ModuleDocument::Change::Moves);
            jsonObjectObjectDel(config.get(), table->name);
            config.store();
        }
    }
    if (table->optionPublic == 1) delDataTable(table);
    return 0;
}
