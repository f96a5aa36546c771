// What the owner described: checked against the model description, attached to this
// process's tree, and kept for serving and registering.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <utility>

#include <json-c/json.h>

#include "kep_host.h"
#include "owner_internal.h"

namespace kep_owner {
namespace {

Entry gEntries[kMaxEntries];
int gCount;

// ---- conversions bound to a field table ----

// The C conversion slots take no user pointer: each entry that converts with a field
// table gets functions of its own, one set per slot of this table.
const Entry *gConverted[kMaxConverted];
int gConvertedCount;

json_object *defaultsOf(const Entry &e) {
    json_object *value = nullptr;
    const KepOwnerData &d = e.data;
    if (e.kind == Kind::kSection) {
        if (d.defaults) {
            kepFieldsToJson(d.fields, d.fieldCount, d.defaults, &value);
            return value;
        }
        RecordBuffer blank(d.recordSize);
        if (blank.p) kepFieldsToJson(d.fields, d.fieldCount, blank.p, &value);
        return value;
    }
    json_object *rows = json_object_new_array();
    for (int i = 0; rows && i < d.defaultCount; i++) {
        char name[48];  // a prefix of at most 20 characters and a number
        json_object *row = json_object_new_object();
        const void *record = static_cast<const char *>(d.defaults) + static_cast<size_t>(i) * d.recordSize;
        snprintf(name, sizeof name, "%s%d", e.prefix, i + 1);
        if (!row || kepFieldsToJson(d.fields, d.fieldCount, record, &value) != 0 ||
            json_object_object_add(row, name, value) != 0 || json_object_array_add(rows, row) != 0) {
            json_object_put(row);
            json_object_put(rows);
            return nullptr;
        }
        value = nullptr;
    }
    return rows;
}

template <int I>
int toJsonSlot(const char *, json_object **value, const void *record, int size) {
    const Entry *e = gConverted[I];
    if (!e || size < static_cast<int>(e->data.recordSize)) return -1;
    return kepFieldsToJson(e->data.fields, e->data.fieldCount, record, value);
}

template <int I>
int fromJsonSlot(const char *, json_object *value, void *buf, int size) {
    const Entry *e = gConverted[I];
    if (!e || size < static_cast<int>(e->data.recordSize)) return -1;
    memset(buf, 0, e->data.recordSize);
    return kepFieldsFromJson(e->data.fields, e->data.fieldCount, value, buf) == 0
               ? static_cast<int>(e->data.recordSize)
               : -1;
}

template <int I>
int resetSlot(const char *, json_object **value) {
    const Entry *e = gConverted[I];
    *value = e ? defaultsOf(*e) : nullptr;
    return *value ? 0 : -1;
}

struct Slot {
    BinToJsonFn toJson;
    JsonToBinFn fromJson;
    ResetConfigFn reset;
};

template <size_t... I>
struct SlotTable {
    static constexpr Slot slots[] = {{&toJsonSlot<I>, &fromJsonSlot<I>, &resetSlot<I>}...};
};

template <size_t... I>
constexpr const Slot *slotsOf(std::index_sequence<I...>) {
    return SlotTable<I...>::slots;
}
const Slot *const kSlots = slotsOf(std::make_index_sequence<kMaxConverted>());

// ---- paths and the tree ----

bool copyPart(char *dst, const char *begin, const char *end) {
    const size_t n = static_cast<size_t>(end - begin);
    if (n == 0 || n > 31) return false;
    memcpy(dst, begin, n);
    dst[n] = '\0';
    return true;
}

// "/module/table[/section]" into its parts; parts counts what must be there (2 or 3),
// 0 for either.
bool splitPath(const char *path, Entry *e, int parts) {
    e->module[0] = e->table[0] = e->section[0] = '\0';
    if (!path || path[0] != '/' || strlen(path) >= kPathSize) return false;
    const char *a = path + 1;
    const char *b = strchr(a, '/');
    if (!b || !copyPart(e->module, a, b)) return false;
    const char *c = strchr(b + 1, '/');
    if (!copyPart(e->table, b + 1, c ? c : b + 1 + strlen(b + 1))) return false;
    if (c && (strchr(c + 1, '/') || !copyPart(e->section, c + 1, c + 1 + strlen(c + 1)))) return false;
    const int have = c ? 3 : 2;
    snprintf(e->path, sizeof e->path, "%s", path);
    return parts == 0 || parts == have;
}

int refuse(const char *path, const char *why) {
    fprintf(stderr, "kep owner: %s: %s\n", path ? path : "(null)", why);
    return -1;
}

// A new entry of kind for path, its tree nodes looked up; null after saying why.
Entry *newEntry(Kind kind, const char *path, int parts) {
    if (gCount >= kMaxEntries) {
        refuse(path, "too many tables, sections, actions and listeners in one process");
        return nullptr;
    }
    Entry *e = &gEntries[gCount];
    memset(e, 0, sizeof *e);
    e->kind = kind;
    if (!splitPath(path, e, parts)) {
        refuse(path, parts == 2   ? "not a path /module/table (names of 1 to 31 characters)"
                     : parts == 3 ? "not a path /module/table/section (names of 1 to 31 characters)"
                                  : "not a usable path");
        return nullptr;
    }
    if (findEntry(kind, e->path)) {
        refuse(path, "described twice");
        return nullptr;
    }
    if (kind == Kind::kListen) return e;
    e->moduleNode = getDataModuler(e->module);
    if (!e->moduleNode) {
        refuse(path, "the model description has no such module (kepOwnerInit first)");
        return nullptr;
    }
    if (kind == Kind::kAction) return e;
    e->tableNode = getDataTable(e->moduleNode, e->table);
    if (!e->tableNode) {
        refuse(path, "the model description has no such table");
        return nullptr;
    }
    return e;
}

// Names the entry's callbacks and makes it count.
void commit(Entry *e) {
    const int index = static_cast<int>(e - gEntries);
    static const char *const kMethods[] = {"add", "set", "delete", "get", "do"};
    // Named after the path, so that the host's tree dump reads well; a path too long
    // for a callback name gives a numbered one.
    for (int m = 0; m < 5; m++) {
        const char *method = m == 4 && e->kind == Kind::kListen ? "note" : kMethods[m];
        const int n = snprintf(e->cb[m], sizeof e->cb[m], "%s:%s", e->path, method);
        if (n < 0 || n >= static_cast<int>(sizeof e->cb[m]))
            snprintf(e->cb[m], sizeof e->cb[m], "kep.%d:%s", index, method);
    }
    gCount++;
}

bool usablePrefix(const char *prefix) {
    const size_t n = strlen(prefix);
    return n > 0 && n <= 20 && !strchr(prefix, ' ') && plainName(prefix);
}

}  // namespace

Entry *entries() {
    return gEntries;
}
int entryCount() {
    return gCount;
}

Entry *findEntry(Kind kind, const char *path) {
    for (int i = 0; i < gCount; i++) {
        if (gEntries[i].kind == kind && strcmp(gEntries[i].path, path) == 0) return &gEntries[i];
    }
    return nullptr;
}

bool ownsModule(const DataModule *module) {
    for (int i = 0; i < gCount; i++) {
        if (gEntries[i].kind != Kind::kListen && gEntries[i].moduleNode == module) return true;
    }
    return false;
}

void unbindFields(const Entry *e) {
    if (gConvertedCount > 0 && gConverted[gConvertedCount - 1] == e) gConverted[--gConvertedCount] = nullptr;
}

bool bindFields(Entry *e) {
    if (gConvertedCount >= kMaxConverted) return false;
    gConverted[gConvertedCount] = e;
    const Slot &slot = kSlots[gConvertedCount++];
    e->data.opr.resetConfig.config = slot.reset;
    e->data.opr.binToJson.config = slot.toJson;
    e->data.opr.jsonToBin.config = slot.fromJson;
    return true;
}

}  // namespace kep_owner

using namespace kep_owner;

extern "C" {

int kepOwnerInit(const char *modelFile) {
    if (!modelFile) return refuse(modelFile, "no model description named");
    return kepMergeModelFile(modelFile) == 0 ? 0 : -1;
}

int kepOwnerAdd(const KepOwnerData *data) {
    if (!data || !data->path) return refuse(nullptr, "no description");
    const char *table = strchr(data->path + 1, '/');
    const char *section = table ? strchr(table + 1, '/') : nullptr;
    const bool named = section != nullptr;
    // A named section brings its table's whole read along the first time: room for
    // both, or neither.
    char tablePath[kPathSize] = "";
    if (named)
        snprintf(tablePath, sizeof tablePath, "%.*s", static_cast<int>(section - data->path), data->path);
    const bool tableRead = named && !findEntry(Kind::kSections, tablePath);
    if (tableRead && gCount + 2 > kMaxEntries)
        return refuse(data->path, "too many tables, sections, actions and listeners in one process");
    Entry *e = newEntry(named ? Kind::kSection : Kind::kList, data->path, named ? 3 : 2);
    if (!e) return -1;
    e->data = *data;
    e->data.path = e->path;
    if (e->tableNode->isDynamic)
        return refuse(data->path, "a dynamic table stores nothing (kepOwnerAddDynamic)");
    if (!e->moduleNode->configFile[0])
        return refuse(data->path, "the module has no configuration file (<config>)");
    if (data->recordSize == 0 || data->recordSize > kMaxRecord)
        return refuse(data->path, "record size 0 or above 64 KiB");
    if (data->fields ? data->fieldCount <= 0 : !data->opr.binToJson.config || !data->opr.jsonToBin.config)
        return refuse(data->path, "neither fields nor binToJson and jsonToBin");
    if (data->fields && data->defaultCount > 0 && !data->defaults)
        return refuse(data->path, "defaultCount without defaults");
    if (named) {
        if (!findRow(e->tableNode, e->section))
            return refuse(data->path, "the model description declares no such section");
    } else if (lstFirst(&e->tableNode->sections)) {
        return refuse(data->path, "the table declares sections: describe each as /module/table/section");
    }
    if (!named) {
        int n = snprintf(e->prefix, sizeof e->prefix, "%s", data->prefix ? data->prefix : e->table);
        if (!data->prefix && n > 0 && n < 20) strcat(e->prefix, "_");
        if (!usablePrefix(e->prefix))
            return refuse(data->path, "prefix of 1 to 20 characters without \"/\" or blanks needed");
    }
    e->data.prefix = e->prefix;
    if (data->fields && !bindFields(e)) return refuse(data->path, "too many field tables in one process");
    commit(e);
    // Attached in this process's tree, where the store finds the conversions. A method
    // callback on a named section makes its table one of named sections (stored as an
    // object), as in the host's tree once the kit registers there.
    OprInterface opr = e->data.opr;
    opr.pid = opr.configPid = static_cast<int>(getpid());
    snprintf(opr.cb, sizeof opr.cb, "%s", e->cb[KEP_METHOD_GET]);
    if (regOprInterface(e->path, &opr) != 0 ||
        (named &&
         registerMethodCb(e->path, KEP_METHOD_SET, e->cb[KEP_METHOD_SET], static_cast<int>(getpid())) != 0)) {
        // Nothing of it may stay: the tree would convert with functions bound to the
        // next entry described in its place.
        const OprInterface none = {};
        regOprInterface(e->path, &none);
        unbindFields(e);
        gCount--;
        return refuse(data->path, "cannot be attached to the tree");
    }
    // A table of named sections is also read whole.
    if (tableRead) {
        Entry *t = newEntry(Kind::kSections, tablePath, 2);
        if (!t) return -1;
        commit(t);
    }
    return 0;
}

int kepOwnerAddDynamic(const char *path, KepProduceFn produce, void *user) {
    Entry *e = newEntry(Kind::kDynamic, path, 2);
    if (!e) return -1;
    if (!produce) return refuse(path, "no producer");
    if (!e->tableNode->isDynamic)
        return refuse(path, "the model description does not make the table dynamic");
    e->produce = produce;
    e->user = user;
    commit(e);
    return 0;
}

int kepOwnerAddAction(const char *path, KepActionFn run, void *user) {
    // The second part of the path is the action's name; the host holds the services a
    // description declares, this process's tree only the module.
    Entry *e = newEntry(Kind::kAction, path, 2);
    if (!e) return -1;
    if (!run) return refuse(path, "no action function");
    e->action = run;
    e->user = user;
    commit(e);
    return 0;
}

int kepOwnerListen(const char *path, KepListenFn listen, void *user) {
    Entry *e = newEntry(Kind::kListen, path, 3);
    if (!e) return -1;
    if (!listen) return refuse(path, "no listener");
    e->listen = listen;
    e->user = user;
    commit(e);
    return 0;
}

}  // extern "C"
