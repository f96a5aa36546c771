// The "get" method: per module, tables read with their counts or sections read one by one.
#include <string.h>

#include "base/guard.h"
#include "base/log.h"
#include "kep_json.h"
#include "kep_model.h"
#include "kep_request.h"
#include "ops/ops_internal.h"
#include "request/method_handlers.h"

namespace kep {
namespace {

// Reads one table as an array of single-section rows into data and reports its
// count: the owner's trailing {"countAll": n} when it gives one other than 0, else
// the number of rows.
int readTable(const char *module, const char *table, json_object *moduleReq, JsonPtr &data, int *count) {
    json_object *rows = nullptr;
    if (getTableObjJson(module, table, moduleReq, &rows) != 0 || transferJsonTable(&rows) != 0) {
        jsonObjectObjectDelete(rows);
        return KEP_ERR_READ_FAILED;
    }
    data.reset(rows);

    int countAll = 0;
    int length = jsonObjectArrayLength(data.get());
    if (jsonObjectIsArray(data.get()) == 1 && length > 0) {
        json_object *last = jsonObjectArrayGetIdx(data.get(), static_cast<unsigned>(length - 1));
        if (!last) return KEP_ERR_READ_FAILED;
        if (jsonObjectGetInt(last, "countAll", &countAll) == 0) jsonObjectArrayDel(data.get(), last);
    }
    *count = countAll != 0 ? countAll : jsonObjectArrayLength(data.get());
    return 0;
}

int readSection(const char *module, const char *section, JsonPtr &data) {
    json_object *raw = nullptr;
    int rc = getSectionObjJson(module, section, &raw);
    data.reset(raw);
    return rc != 0 ? KEP_ERR_READ_FAILED : KEP_OK;
}

}  // namespace

int getDataJson(const char *module, const char *key, json_object *value, json_object *moduleReq,
                json_object *out) {
    if (!key || !module) return KEP_ERR_NULL_ARG;
    bool tableMode;
    if (strncmp(key, "table", 5) == 0) {
        tableMode = true;
    } else if (strcmp(key, "name") == 0) {
        tableMode = false;
    } else {
        return KEP_ERR_BAD_JSON;
    }

    if (jsonObjectIsArray(value) == 1) {
        // An empty table list reads no table: "count" is then null, not an object.
        JsonPtr counts;
        int n = jsonObjectArrayLength(value);
        for (int i = 0; i < n; i++) {
            const char *name = jsonGetObjectString(jsonObjectArrayGetIdx(value, static_cast<unsigned>(i)));
            if (!name) return KEP_ERR_BAD_JSON;
            JsonPtr data;
            if (tableMode) {
                int count = 0;
                if (readTable(module, name, moduleReq, data, &count) != 0) return KEP_ERR_READ_FAILED;
                if (!counts) counts.reset(jsonObjectNewObject());
                if (!counts || jsonObjectAddInt(counts.get(), name, count) != 0) return KEP_ERR_NO_MEMORY;
            } else if (readSection(module, name, data) != 0) {
                return KEP_ERR_READ_FAILED;
            }
            KEP_LOG("begin to model:%s get method handle dataName:%s.\n", module, name);
            if (jsonObjectObjectAdd(out, name, data.release()) != 0) return KEP_ERR_NO_MEMORY;
        }
        if (tableMode && jsonObjectObjectAdd(out, "count", counts.release()) != 0) return KEP_ERR_NO_MEMORY;
        return 0;
    }

    const char *name = jsonGetObjectString(value);
    // A single name that is not a text is a failed read, unlike one in a list.
    if (!name) return KEP_ERR_READ_FAILED;
    KEP_LOG("begin to model:%s get method handle dataName:%s.\n", module, name);
    JsonPtr data;
    if (tableMode) {
        int count = 0;
        if (readTable(module, name, moduleReq, data, &count) != 0) return KEP_ERR_READ_FAILED;
        JsonPtr counts(jsonObjectNewObject());
        if (!counts || jsonObjectAddInt(counts.get(), name, count) != 0) return KEP_ERR_NO_MEMORY;
        if (jsonObjectObjectAdd(out, "count", counts.release()) != 0) return KEP_ERR_NO_MEMORY;
    } else if (readSection(module, name, data) != 0) {
        return KEP_ERR_READ_FAILED;
    }
    if (jsonObjectObjectAdd(out, name, data.release()) != 0) return KEP_ERR_NO_MEMORY;
    return 0;
}

int kepMethodGet(json_object *request, json_object **response) {
    KEP_LOG("begin to get method handle. reqObj is %s\n", logJson(request));
    if (!response) return KEP_ERR_NULL_ARG;
    const char *key = nullptr;
    if (!jsonObjectNextSubObject(request, nullptr, &key)) return 0;
    JsonPtr rsp(jsonObjectNewObject());
    if (!rsp) return KEP_ERR_NO_MEMORY;

    int rc = 0;
    for (JsonObjCursor *c = jsonObjectNextSubObject(request, nullptr, &key); c && rc == 0;
         c = jsonObjectNextSubObject(request, c, &key)) {
        json_object *moduleReq = jsonObjectCursorValue(c);
        if (jsonObjectIsObject(moduleReq) != 1) continue;
        json_object *out = jsonObjectNewObject();
        if (!out || jsonObjectObjectAdd(rsp.get(), key, out) != 0) {
            rc = KEP_ERR_NO_MEMORY;
        } else if (jsonObjectGetString(moduleReq, "table")) {
            rc = getDataJson(key, "table", jsonObjectObjectGet(moduleReq, "table"), moduleReq, out);
        } else if (!jsonObjectGetString(moduleReq, "name")) {
            KEP_LOG("no table and no name, bad json str!\n");
            rc = KEP_ERR_BAD_JSON;
        } else {
            // A well-formed request puts "name" first; whatever comes first names the sections.
            const char *first = nullptr;
            JsonObjCursor *head = jsonObjectNextSubObject(moduleReq, nullptr, &first);
            if (head) rc = getDataJson(key, "name", jsonObjectCursorValue(head), moduleReq, out);
        }
    }
    if (rc == 0 && jsonObjectAddInt(rsp.get(), "error_code", 0) != 0) rc = KEP_ERR_NO_MEMORY;
    if (rc != 0) {
        *response = nullptr;
        return rc;
    }
    *response = rsp.release();
    return 0;
}

}  // namespace kep
