// The RPC handlers the host calls: get, set, add and delete of stored data served
// from the configuration file, dynamic tables, actions, listeners and the reset.
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <json-c/json.h>

#include "owner_internal.h"

namespace kep_owner {
namespace {

const char *member(QxRpcPara *set, const char *name) {
    char *text = nullptr;
    return qxrpcGetStringPtr(set, name, &text) == 0 ? text : nullptr;
}

// A member holding JSON text; *bad when present but not JSON.
json_object *jsonMember(QxRpcPara *set, const char *name, bool *bad) {
    const char *text = member(set, name);
    if (!text) return nullptr;
    json_object *value = json_tokener_parse(text);
    if (!value) *bad = true;
    return value;
}

DataSection *row(const Entry &e, const char *name) {
    return findRow(e.tableNode, name);
}

// Lays para's members over base and builds the record from the result.
int recordFrom(const Entry &e, const char *section, json_object *base, json_object *para, void *record) {
    if (!base) return KEP_OWNER_ERR_MEMORY;
    json_object_object_foreach(para, key, value) {
        if (json_object_object_add(base, key, json_object_get(value)) != 0) return KEP_OWNER_ERR_MEMORY;
    }
    return jsonToRecord(e, section, base, record) ? 0 : KEP_OWNER_ERR_INVALID;
}

// Who may change data, run actions, tell listeners or reset: this user, root and the
// host the owner registered with. Members of the RPC group (a gateway reading over
// the direct route) are admitted by the socket to the reads alone; their changes go
// through the host, which checks and orders them.
bool mayChange() {
    QxImiCaller c;
    if (qxImiCaller(&c) != 0) return false;
    return c.uid == static_cast<int>(geteuid()) || c.uid == 0 || (c.pid > 0 && c.pid == registeredHost());
}

void changedAfterStore(const Entry &e, const char *path, const void *record) {
    if (e.data.changed) e.data.changed(path, record, e.data.user);
    if (e.data.notify) notifyLater(path);
}

// A stored section as read once for a request: its record and its JSON form (null
// when it cannot be read).
struct Stored {
    RecordBuffer record;
    bool read = false;
    JsonRef json;
    Stored(const Entry &e, const char *section) : record(e.data.recordSize) {
        read = record.p && readRecord(e, section, record.p);
        if (read) json.p = recordToJson(e, section, record.p);
    }
};

// The section's JSON form as stored, or null.
json_object *storedJson(const Entry &e, const char *section) {
    Stored stored(e, section);
    json_object *value = stored.json.p;
    stored.json.p = nullptr;
    return value;
}

// Lays para over the stored section and stores the result.
int editStored(const Entry &e, const char *section, Stored &old, json_object *para) {
    char path[kPathSize];
    RecordBuffer next(e.data.recordSize);
    if (!old.record.p || !next.p) return KEP_OWNER_ERR_MEMORY;
    if (!sectionPath(e, section, path) || !old.read) return KEP_OWNER_ERR_NOT_FOUND;
    int rc = recordFrom(e, section, old.json.p, para, next.p);
    if (rc == 0 && e.data.check) rc = e.data.check(path, next.p, old.record.p, e.data.user);
    if (rc == 0 && modelWrite(path, next.p, static_cast<int>(e.data.recordSize)) != 0)
        rc = KEP_OWNER_ERR_STORE;
    if (rc == 0) changedAfterStore(e, path, next.p);
    return rc;
}

int editSection(const Entry &e, const char *section, json_object *para) {
    Stored old(e, section);
    return editStored(e, section, old, para);
}

int deleteRow(const Entry &e, const char *section, const Stored &old) {
    char path[kPathSize];
    if (!sectionPath(e, section, path)) return KEP_OWNER_ERR_NOT_FOUND;
    // A row the owner's conversion cannot read any more may still be deleted.
    const void *record = old.read ? old.record.p : nullptr;
    int rc = e.data.check ? e.data.check(path, nullptr, record, e.data.user) : 0;
    if (rc == 0 && modelWrite(path, nullptr, 0) != 0) rc = KEP_OWNER_ERR_STORE;
    if (rc == 0) changedAfterStore(e, path, nullptr);
    return rc;
}

// The number of a section called prefix and a number without leading zeros; 0 for
// any other name. Wider than int, so that the next number after INT_MAX shows.
long long rowNumber(const Entry &e, const char *name) {
    const size_t n = strlen(e.prefix);
    if (strncmp(name, e.prefix, n) != 0 || name[n] < '1' || name[n] > '9') return 0;
    char *end = nullptr;
    const long long k = strtoll(name + n, &end, 10);
    return *end == '\0' && k > 0 && k <= INT_MAX ? k : 0;
}

bool usableName(const Entry &e, const char *name) {
    const size_t len = strlen(name);
    if (len >= 32 || len <= strlen(e.prefix) || strncmp(name, e.prefix, strlen(e.prefix)) != 0) return false;
    for (const char *p = name; *p; p++) {
        if (*p == '/' || *p == '"' || *p == '\\' || static_cast<unsigned char>(*p) < 0x20 || *p == 0x7f)
            return false;
    }
    return true;
}

// ---- handlers ----

int onGet(QxRpcPara *set, void *user) {
    const Entry &e = *static_cast<const Entry *>(user);
    const char *name = member(set, "name");
    bool bad = false;
    JsonRef filter(jsonMember(set, "filter", &bad)), para(jsonMember(set, "para", &bad));
    if (bad || (filter.p && !json_object_is_type(filter.p, json_type_object)))
        return answer(set, KEP_OWNER_ERR_INVALID, nullptr);
    switch (e.kind) {
        case Kind::kSection: {
            json_object *value = storedJson(e, e.section);
            return answerJson(set, value ? 0 : KEP_OWNER_ERR_STORE, value);
        }
        case Kind::kDynamic: {
            json_object *rows = nullptr;
            int rc = e.produce(para.p, filter.p, &rows, e.user);
            if (rc != 0) {
                json_object_put(rows);
                return answer(set, rc, nullptr);
            }
            if (!rows) rows = json_object_new_array();
            return answerJson(set, rows ? 0 : KEP_OWNER_ERR_MEMORY, rows);
        }
        case Kind::kSections: {
            // Every described section of the table, as an object of sections.
            AnswerText out;
            for (int i = 0; i < entryCount(); i++) {
                const Entry &s = entries()[i];
                if (s.kind != Kind::kSection || s.tableNode != e.tableNode) continue;
                json_object *value = storedJson(s, s.section);
                if (!value) return answer(set, KEP_OWNER_ERR_STORE, nullptr);
                out.member(s.section, value);
            }
            return out.answer(set, 0);
        }
        case Kind::kList:
            break;
        default:
            return answer(set, KEP_OWNER_ERR_NOT_FOUND, nullptr);
    }
    if (name) {
        if (!row(e, name)) return answer(set, KEP_OWNER_ERR_NOT_FOUND, nullptr);
        json_object *value = storedJson(e, name);
        return answerJson(set, value ? 0 : KEP_OWNER_ERR_STORE, value);
    }
    AnswerText out;
    for (LstNode *n = lstFirst(&e.tableNode->sections); n && !out.failed(); n = lstNext(n)) {
        const char *section = reinterpret_cast<DataSection *>(n)->name;
        json_object *value = storedJson(e, section);
        if (value && matchesFilter(value, filter.p))
            out.member(section, value);
        else
            json_object_put(value);
    }
    return out.answer(set, 0);
}

int onSet(QxRpcPara *set, void *user) {
    if (!mayChange()) return QXRPC_ERR_DENIED;
    const Entry &e = *static_cast<const Entry *>(user);
    const char *name = member(set, "name");
    bool bad = false;
    JsonRef para(jsonMember(set, "para", &bad)), filter(jsonMember(set, "filter", &bad));
    if (bad || !json_object_is_type(para.p, json_type_object) ||
        (filter.p && !json_object_is_type(filter.p, json_type_object)))
        return answer(set, KEP_OWNER_ERR_INVALID, nullptr);
    if (e.kind == Kind::kSection) {
        return answer(set,
                      name && strcmp(name, e.section) != 0 ? KEP_OWNER_ERR_NOT_FOUND
                                                           : editSection(e, e.section, para.p),
                      nullptr);
    }
    if (name)
        return answer(set, row(e, name) ? editSection(e, name, para.p) : KEP_OWNER_ERR_NOT_FOUND, nullptr);
    if (!filter.p) return answer(set, KEP_OWNER_ERR_INVALID, nullptr);
    // Every row the filter selects gets the same change, until one is refused.
    int rc = 0;
    for (LstNode *n = lstFirst(&e.tableNode->sections); n && rc == 0; n = lstNext(n)) {
        const char *section = reinterpret_cast<DataSection *>(n)->name;
        Stored old(e, section);
        if (old.json.p && matchesFilter(old.json.p, filter.p)) rc = editStored(e, section, old, para.p);
    }
    return answer(set, rc, nullptr);
}

int onAdd(QxRpcPara *set, void *user) {
    if (!mayChange()) return QXRPC_ERR_DENIED;
    const Entry &e = *static_cast<const Entry *>(user);
    const char *given = member(set, "name");
    bool bad = false;
    JsonRef para(jsonMember(set, "para", &bad));
    if (bad || !json_object_is_type(para.p, json_type_object))
        return answer(set, KEP_OWNER_ERR_INVALID, nullptr);
    char name[32];
    if (given) {
        if (!usableName(e, given) || row(e, given)) return answer(set, KEP_OWNER_ERR_EXISTS, nullptr);
        snprintf(name, sizeof name, "%s", given);
    } else {
        // The next number after the highest in use; after the largest int none is
        // left, and the add is refused rather than wrapping around.
        long long next = 1;
        for (LstNode *n = lstFirst(&e.tableNode->sections); n; n = lstNext(n)) {
            const long long k = rowNumber(e, reinterpret_cast<DataSection *>(n)->name);
            if (k >= next) next = k + 1;
        }
        if (next > INT_MAX) return answer(set, KEP_OWNER_ERR_FULL, nullptr);
        // A prefix too long for the next number leaves no name that fits: refused, not cut.
        const int length = snprintf(name, sizeof name, "%s%lld", e.prefix, next);
        if (length < 0 || static_cast<size_t>(length) >= sizeof name)
            return answer(set, KEP_OWNER_ERR_FULL, nullptr);
    }
    char path[kPathSize];
    RecordBuffer blank(e.data.recordSize), record(e.data.recordSize);
    if (!blank.p || !record.p) return answer(set, KEP_OWNER_ERR_MEMORY, nullptr);
    if (!sectionPath(e, name, path)) return answer(set, KEP_OWNER_ERR_EXISTS, nullptr);
    JsonRef base(recordToJson(e, name, blank.p));
    int rc = recordFrom(e, name, base.p, para.p, record.p);
    if (rc == 0 && e.data.check) rc = e.data.check(path, record.p, nullptr, e.data.user);
    if (rc == 0 && (modelWrite(path, record.p, static_cast<int>(e.data.recordSize)) != 0 || !row(e, name)))
        rc = KEP_OWNER_ERR_STORE;
    if (rc != 0) return answer(set, rc, nullptr);
    changedAfterStore(e, path, record.p);
    JsonRef quoted(json_object_new_string(name));
    const char *text = quoted.p ? json_object_to_json_string_ext(quoted.p, JSON_C_TO_STRING_PLAIN) : nullptr;
    return answer(set, text ? 0 : KEP_OWNER_ERR_MEMORY, text);
}

int onDelete(QxRpcPara *set, void *user) {
    if (!mayChange()) return QXRPC_ERR_DENIED;
    const Entry &e = *static_cast<const Entry *>(user);
    const char *name = member(set, "name");
    bool bad = false;
    JsonRef filter(jsonMember(set, "filter", &bad));
    if (bad || (filter.p && !json_object_is_type(filter.p, json_type_object)))
        return answer(set, KEP_OWNER_ERR_INVALID, nullptr);
    int rc = 0;
    if (name) {
        rc = row(e, name) ? deleteRow(e, name, Stored(e, name)) : KEP_OWNER_ERR_NOT_FOUND;
    } else {
        LstNode *n = lstFirst(&e.tableNode->sections);
        while (n && rc == 0) {
            LstNode *next = lstNext(n);  // the node goes with its section
            const char *section = reinterpret_cast<DataSection *>(n)->name;
            Stored old(e, section);
            if (!filter.p || (old.json.p && matchesFilter(old.json.p, filter.p)))
                rc = deleteRow(e, section, old);
            n = next;
        }
    }
    if (!lstFirst(&e.tableNode->sections)) keepEmptyList(e);
    return answer(set, rc, nullptr);
}

int onAction(QxRpcPara *set, void *user) {
    if (!mayChange()) return QXRPC_ERR_DENIED;
    const Entry &e = *static_cast<const Entry *>(user);
    bool bad = false;
    JsonRef para(jsonMember(set, "para", &bad));
    if (bad) return answer(set, KEP_OWNER_ERR_INVALID, nullptr);
    json_object *result = nullptr;
    const int rc = e.action(para.p, &result, e.user);
    if (rc != 0) {
        json_object_put(result);
        return answer(set, rc, nullptr);
    }
    if (!result) result = json_object_new_object();
    return answerJson(set, result ? 0 : KEP_OWNER_ERR_MEMORY, result);
}

int onNote(QxRpcPara *set, void *user) {
    if (!mayChange()) return QXRPC_ERR_DENIED;
    const Entry &e = *static_cast<const Entry *>(user);
    e.listen(e.path, e.user);
    return answer(set, 0, nullptr);
}

int onReset(QxRpcPara *set, void *) {
    if (!mayChange()) return QXRPC_ERR_DENIED;
    return answer(set, resetOwnedModules(), nullptr);
}

}  // namespace

bool matchesFilter(json_object *rowValue, json_object *filter) {
    if (!filter) return true;
    json_object_object_foreach(filter, key, want) {
        json_object *have = nullptr;
        if (!json_object_object_get_ex(rowValue, key, &have)) return false;
        const bool numbers =
            (json_object_is_type(have, json_type_int) || json_object_is_type(have, json_type_boolean)) &&
            (json_object_is_type(want, json_type_int) || json_object_is_type(want, json_type_boolean));
        if (numbers ? json_object_get_int64(have) != json_object_get_int64(want)
                    : strcmp(json_object_get_string(have), json_object_get_string(want)) != 0)
            return false;
    }
    return true;
}

int registerHandlers() {
    int rc = 0;
    for (int i = 0; i < entryCount() && rc == 0; i++) {
        Entry &e = entries()[i];
        switch (e.kind) {
            case Kind::kList:
                rc = qxImiRegister(e.cb[KEP_METHOD_ADD], onAdd, &e);
                if (rc == 0) rc = qxImiRegister(e.cb[KEP_METHOD_DELETE], onDelete, &e);
                [[fallthrough]];
            case Kind::kSection:
                if (rc == 0) rc = qxImiRegister(e.cb[KEP_METHOD_SET], onSet, &e);
                [[fallthrough]];
            case Kind::kSections:
            case Kind::kDynamic:
                if (rc == 0) rc = qxImiRegister(e.cb[KEP_METHOD_GET], onGet, &e);
                break;
            case Kind::kAction:
                rc = qxImiRegister(e.cb[4], onAction, &e);
                break;
            case Kind::kListen:
                rc = qxImiRegister(e.cb[4], onNote, &e);
                break;
        }
    }
    return rc == 0 ? qxImiRegister("kep.reset", onReset, nullptr) : rc;
}

}  // namespace kep_owner
