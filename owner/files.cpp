// The owned modules' configuration files: loaded and completed at start, rewritten
// with defaults on a factory reset. Only the owner writes its modules' files, so a
// document found here was written by this owner, by an earlier run of it, or by
// nobody: whatever it lacks gets its defaults.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

#include "kep_pf_json.h"
#include "owner_internal.h"

namespace kep_owner {
namespace {

// The stored form of a list table is an array, that of a table of named sections an
// object of sections; anything else is replaced.
bool completeEntry(const Entry &e, json_object *doc, const char *file) {
    json_object *member = nullptr;
    const bool present = json_object_object_get_ex(doc, e.table, &member);
    if (e.kind == Kind::kList) {
        if (present && json_object_is_type(member, json_type_array)) return false;
        if (present)
            fprintf(stderr, "kep owner: %s: table %s is not a list: its defaults replace it\n", file,
                    e.table);
        json_object *rows = nullptr;
        if (tableResetConfig(e.tableNode, &rows) != 0 || !rows) rows = json_object_new_array();
        if (!rows || json_object_object_add(doc, e.table, rows) != 0) {
            json_object_put(rows);
            return false;
        }
        return true;
    }
    bool changed = false;
    if (!present || !json_object_is_type(member, json_type_object)) {
        member = json_object_new_object();
        if (!member || json_object_object_add(doc, e.table, member) != 0) {
            json_object_put(member);
            return false;
        }
        changed = true;
    }
    json_object *stored = nullptr;
    RecordBuffer record(e.data.recordSize);
    if (json_object_object_get_ex(member, e.section, &stored) && record.p &&
        jsonToRecord(e, e.section, stored, record.p))
        return changed;
    json_object *value = nullptr;
    if (e.data.opr.resetConfig.config && e.data.opr.resetConfig.config(e.section, &value) == 0 && value &&
        json_object_object_add(member, e.section, value) == 0) {
        if (stored)
            fprintf(stderr, "kep owner: %s: section %s unusable: its defaults replace it\n", file, e.section);
        return true;
    }
    json_object_put(value);
    return changed;
}

// The list tables' section nodes follow the document.
void loadLists(const DataModule *module, json_object *doc) {
    for (int i = 0; i < entryCount(); i++) {
        const Entry &e = entries()[i];
        if (e.kind != Kind::kList || e.moduleNode != module) continue;
        delDataTable(e.tableNode);
        json_object *rows = nullptr;
        if (json_object_object_get_ex(doc, e.table, &rows) && json_object_is_type(rows, json_type_array))
            loadTableListConfig(e.tableNode, rows);
    }
}

int loadModule(DataModule *module) {
    const char *file = module->configFile;
    JsonRef d(jsonObjectFromFile(file));
    if (!d.p) {
        fprintf(stderr, "kep owner: %s: missing or unreadable: writing the defaults of module %s\n", file,
                module->name);
        if (modelResetConfigFile(module) != 0 || !(d.p = jsonObjectFromFile(file))) {
            fprintf(stderr, "kep owner: %s: the defaults cannot be written\n", file);
            return -1;
        }
    }
    bool changed = false;
    for (int i = 0; i < entryCount(); i++) {
        const Entry &e = entries()[i];
        if ((e.kind == Kind::kList || e.kind == Kind::kSection) && e.moduleNode == module)
            changed |= completeEntry(e, d.p, file);
    }
    if (changed && jsonObjectToFile(file, d.p) != 0) {
        fprintf(stderr, "kep owner: %s: cannot be written\n", file);
        return -1;
    }
    loadLists(module, d.p);
    return 0;
}

// The device's factory reset keeps the cloud binding and marks it as kept.
constexpr char kBindPath[] = "/cloud_config/router_post/bind";
constexpr int kBindSize = 100;

// The sections of a list table, by name, before a reset; malloc'd, count in *n.
char (*rowNames(const Entry &e, int *n))[32] {
    *n = lstCount(&e.tableNode->sections);
    char(*names)[32] = static_cast<char(*)[32]>(calloc(static_cast<size_t>(*n) + 1, 32));
    int i = 0;
    for (LstNode *s = lstFirst(&e.tableNode->sections); names && s && i < *n; s = lstNext(s), i++)
        snprintf(names[i], 32, "%s", reinterpret_cast<DataSection *>(s)->name);
    return names;
}

// Tells the owner and the listeners of one section what it holds now.
void announce(const Entry &e, const char *section, void *record) {
    char path[kPathSize];
    if (!sectionPath(e, section, path)) return;
    const bool have = readRecord(e, section, record);
    if (e.data.changed) e.data.changed(path, have ? record : nullptr, e.data.user);
    if (e.data.notify) notifyLater(path);
}

void announceModule(const DataModule *module, char (*const *before)[32], const int *beforeCount) {
    for (int i = 0; i < entryCount(); i++) {
        const Entry &e = entries()[i];
        if (e.moduleNode != module || (e.kind != Kind::kList && e.kind != Kind::kSection)) continue;
        RecordBuffer record(e.data.recordSize);
        if (!record.p) continue;
        if (e.kind == Kind::kSection) {
            announce(e, e.section, record.p);
        } else {
            for (int k = 0; before[i] && k < beforeCount[i]; k++) {
                char path[kPathSize];
                if (findRow(e.tableNode, before[i][k]) || !sectionPath(e, before[i][k], path)) continue;
                if (e.data.changed) e.data.changed(path, nullptr, e.data.user);
                if (e.data.notify) notifyLater(path);
            }
            for (LstNode *s = lstFirst(&e.tableNode->sections); s; s = lstNext(s))
                announce(e, reinterpret_cast<DataSection *>(s)->name, record.p);
        }
    }
}

}  // namespace

int loadOwnedFiles() {
    for (LstNode *n = reinterpret_cast<LstNode *>(getModulerRoot()); n; n = lstNext(n)) {
        DataModule *module = reinterpret_cast<DataModule *>(n);
        if (ownsModule(module) && module->configFile[0] && loadModule(module) != 0) return -1;
    }
    return 0;
}

int resetOwnedModules() {
    int rc = 0;
    char(*before[kMaxEntries])[32] = {};
    int beforeCount[kMaxEntries] = {};
    for (int i = 0; i < entryCount(); i++) {
        if (entries()[i].kind == Kind::kList) before[i] = rowNames(entries()[i], &beforeCount[i]);
    }
    for (LstNode *n = reinterpret_cast<LstNode *>(getModulerRoot()); n; n = lstNext(n)) {
        DataModule *module = reinterpret_cast<DataModule *>(n);
        if (!ownsModule(module) || !module->configFile[0]) continue;
        const bool keepsBind = strcmp(module->name, "cloud_config") == 0;
        unsigned char bind[kBindSize] = {0};
        if (keepsBind) modelRead(kBindPath, bind, kBindSize);
        int one = 1;
        memcpy(bind + kBindSize - sizeof one, &one, sizeof one);
        int moduleRc = modelResetConfigFile(module);
        if (moduleRc != 0)
            fprintf(stderr, "kep owner: module %s: the reset failed (%d)\n", module->name, moduleRc);
        // Whatever the reset left in the file, this process follows the file now.
        if (moduleRc == 0) moduleRc = loadModule(module);
        if (keepsBind) modelWrite(kBindPath, bind, kBindSize);
        if (rc == 0) rc = moduleRc;
        announceModule(module, before, beforeCount);
    }
    for (int i = 0; i < entryCount(); i++) free(before[i]);
    return rc;
}

void keepEmptyList(const Entry &e) {
    const char *file = e.moduleNode->configFile;
    JsonRef d(jsonObjectFromFile(file));
    if (!d.p || json_object_object_get_ex(d.p, e.table, nullptr)) return;
    json_object *rows = json_object_new_array();
    if (rows && json_object_object_add(d.p, e.table, rows) == 0) jsonObjectToFile(file, d.p);
}

}  // namespace kep_owner
