// Builds the data module tree from the model description and merges further ones.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "base/api.h"
#include "base/guard.h"
#include "base/log.h"
#include "model/model_internal.h"
#include "tree/tree_internal.h"
#include "tree/tree_search.h"
#include "xml/xml_internal.h"

#ifndef KEP_MODEL_PATH
#error "KEP_MODEL_PATH names the model description; the build defines it"
#endif

namespace kep {

namespace {

// Element names are matched on their beginning, as strNodeSearch does.
constexpr const char kModuleElement[] = "module";
constexpr const char kTableElement[] = "table";
constexpr const char kSectionElement[] = "section";
constexpr const char kServiceElement[] = "service";
constexpr const char kConfigElement[] = "config";

// The first "attribute" attribute whose value is a known kind decides; none: config.
int tableKind(const XmlNode *element) {
    for (const XmlAttr *a = element->attrs; a; a = a->next) {
        if (strcmp(a->name, "attribute") != 0) continue;
        if (strcmp(a->value, "config") == 0) return 0;
        if (strcmp(a->value, "dynamic") == 0) return 1;
    }
    return 0;
}

int buildModule(XmlNode *element) {
    DataModule *module = newDataModule();
    if (!module) return -1;
    if (readNameAttr(module->name, sizeof module->name, element) != 0) {
        free(module);
        return -1;
    }
    lstAdd(&moduleRoot(), &module->link);
    for (XmlNode *t = strNodeSearch(element, element, kTableElement); t;
         t = strNodeSearch(t, element, kTableElement)) {
        DataTable *table = newDataTable();
        if (!table) return -1;
        lstAdd(&module->tables, &table->link);
        if (parseTableElement(table, t) != 0) return -1;
    }
    for (XmlNode *s = strNodeSearch(element, element, kServiceElement); s;
         s = strNodeSearch(s, element, kServiceElement)) {
        ActionNode *action = newActionNode();
        if (!action) return -1;
        if (readNameAttr(action->name, sizeof action->name, s) != 0) {
            free(action);
            return -1;
        }
        lstAdd(&module->actions, &action->link);
    }
    return 0;
}

int buildTree(const char *path) {
    Fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return -1;
    XmlDoc doc(fdXmlParse(fd.get(), 1));
    XmlNode *root = doc.root();
    if (!root) return -1;
    for (XmlNode *m = strNodeSearch(root, root, kModuleElement); m;
         m = strNodeSearch(m, root, kModuleElement)) {
        if (buildModule(m) != 0) return -1;
    }
    return 0;
}

// Adds the table element to module unless a table of that name is already there.
int mergeTable(DataModule *module, XmlNode *element) {
    char name[KEP_NAME_SIZE] = {};
    if (readNameAttr(name, sizeof name, element) != 0) return 0;
    char path[2 * sizeof name + 4];
    snprintf(path, sizeof path, "/%s/%s", module->name, name);
    if (getTableByFullName(path)) return 0;
    DataTable *table = newDataTable();
    if (!table) return -1;
    lstAdd(&module->tables, &table->link);
    return parseTableElement(table, element);
}

}  // namespace

int readNameAttr(char *dst, unsigned size, const XmlNode *element) {
    if (!element) return -1;
    for (const XmlAttr *a = element->attrs; a; a = a->next) {
        if (strcmp(a->name, "name") == 0) {
            copyName(dst, a->value, size);
            return 0;
        }
    }
    return -1;
}

int parseTableElement(DataTable *table, XmlNode *element) {
    if (readNameAttr(table->name, sizeof table->name, element) != 0) return -1;
    table->isDynamic = tableKind(element);
    table->optionPublic = 1;
    for (XmlNode *s = strNodeSearch(element, element, kSectionElement); s;
         s = strNodeSearch(s, element, kSectionElement)) {
        DataSection *section = newDataSection();
        if (!section) return -1;
        lstAdd(&table->sections, &section->link);
        section->opr = table->opr;  // a list table's entries share its interface
        if (readNameAttr(section->name, sizeof section->name, s) != 0) return -1;
    }
    return 0;
}

const char *modelPath() {
    return KEP_MODEL_PATH;
}

int loadModelFile(const char *path) {
    KEP_LOG_AS("dataModuleInit", "=======================data module init\r\n");
    if (buildTree(path) == 0) return 0;
    KEP_LOG_AS("dataModuleInit", "data module init failed.\r\n");
    return -1;
}

}  // namespace kep

using namespace kep;

KEP_API int dataModuleInit(void) {
    return loadModelFile(modelPath());
}

KEP_API int registerDataModel(XmlNode *root) {
    if (!root) return 0;
    for (XmlNode *m = strNodeSearch(root, root, kModuleElement); m;
         m = strNodeSearch(m, root, kModuleElement)) {
        char name[KEP_NAME_SIZE] = {};
        if (readNameAttr(name, sizeof name, m) != 0) continue;
        DataModule *module = getDataModuler(name);
        if (!module) {
            module = newDataModule();
            if (!module) return -1;
            copyName(module->name, name, sizeof module->name);
            lstAdd(&moduleRoot(), &module->link);
            // Only a module created here learns its configuration file.
            if (XmlNode *config = strNodeSearch(m, m, kConfigElement)) {
                readNameAttr(module->configFile, sizeof module->configFile, config);
            }
        }
        for (XmlNode *t = strNodeSearch(m, m, kTableElement); t; t = strNodeSearch(t, m, kTableElement)) {
            if (mergeTable(module, t) != 0) {
                delDataModule(name, 1);
                return -1;
            }
        }
    }
    return 0;
}
