// The "set", "add", "delete" and "do" methods. Each walks the request's module
// members in order and stops at the first failure; there is no rollback, so the
// modules (and sections) handled before it keep their changes.
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

// The common frame of the write handlers: calls perModule(name, module object,
// response) for every member whose value is an object, then records the outcome as
// "error_code" in whatever object the response then holds.
template <typename PerModule>
int walkModules(json_object *request, json_object **response, PerModule perModule) {
    if (!response) return KEP_ERR_NULL_ARG;
    const char *key = nullptr;
    if (!jsonObjectNextSubObject(request, nullptr, &key)) return 0;
    *response = jsonObjectNewObject();
    if (!*response) return KEP_ERR_NO_MEMORY;

    int rc = 0;
    for (JsonObjCursor *c = jsonObjectNextSubObject(request, nullptr, &key); c && rc == 0;
         c = jsonObjectNextSubObject(request, c, &key)) {
        json_object *moduleReq = jsonObjectCursorValue(c);
        if (jsonObjectIsObject(moduleReq) == 1) rc = perModule(key, moduleReq, response);
    }
    if (jsonObjectAddInt(*response, "error_code", rc) != 0 && rc == 0) rc = KEP_ERR_NO_MEMORY;
    return rc;
}

// The value of the module object's first member: where a well-formed request puts
// "name" (or the action), whatever it is called.
json_object *firstMember(json_object *moduleReq, const char **key) {
    JsonObjCursor *head = jsonObjectNextSubObject(moduleReq, nullptr, key);
    return head ? jsonObjectCursorValue(head) : nullptr;
}

int setModule(const char *module, json_object *moduleReq, json_object **) {
    const char *table = jsonObjectGetString(moduleReq, "table");
    if (table) {
        int rc = editTableByObjJson(module, table, moduleReq);
        if (rc != 0) KEP_LOG("tableName:%s qxError:%d.\n", table, rc);
        return rc;
    }
    const char *section = nullptr;
    for (JsonObjCursor *c = jsonObjectNextSubObject(moduleReq, nullptr, &section); c;
         c = jsonObjectNextSubObject(moduleReq, c, &section)) {
        int rc = editSectionByObjJson(module, section, jsonObjectCursorValue(c), moduleReq);
        if (rc != 0) {
            KEP_LOG("secName:%s qxError:%d.\n", section, rc);
            return rc;
        }
    }
    return 0;
}

int addModule(const char *module, json_object *moduleReq, json_object **response) {
    const char *table = jsonGetObjectString(jsonObjectObjectGet(moduleReq, "table"));
    json_object *para = jsonObjectObjectGet(moduleReq, "para");
    if (!table || !para) return KEP_ERR_BAD_JSON;
    const char *section = jsonObjectGetString(moduleReq, "name");
    KEP_LOG("begin  pModelObj:%s.\n", logJson(moduleReq));
    KEP_LOG("tableName:%s pSectionVal:%s.\n", table, orNull(section));
    // Added before the call so that the response shows every module tried.
    json_object *result = jsonObjectNewObject();
    if (!result || jsonObjectObjectAdd(*response, module, result) != 0) return KEP_ERR_NO_MEMORY;
    return addSectionByObjJson(module, table, section, para, result);
}

int kepDelTableOrSection(const char *module, const char *key, json_object *value, json_object *moduleReq) {
    if (!module || !key) return KEP_ERR_NULL_ARG;
    if (strncmp(key, "table", 5) == 0) {
        const char *table = jsonGetObjectString(jsonObjectObjectGet(moduleReq, "table"));
        if (!table) return KEP_ERR_BAD_JSON;
        return deleteDataTable(module, table, jsonObjectObjectGet(moduleReq, "filter"));
    }
    if (strcmp(key, "name") != 0) return KEP_ERR_BAD_JSON;
    if (jsonObjectIsArray(value) != 1) {
        const char *section = jsonGetObjectString(value);
        return section ? deleteDataSection(module, section) : KEP_ERR_BAD_JSON;
    }
    int n = jsonObjectArrayLength(value);
    for (int i = 0; i < n; i++) {
        const char *section = jsonGetObjectString(jsonObjectArrayGetIdx(value, static_cast<unsigned>(i)));
        if (!section) return KEP_ERR_BAD_JSON;
        int rc = deleteDataSection(module, section);
        if (rc != 0) return rc;
    }
    return 0;
}

int deleteModule(const char *module, json_object *moduleReq, json_object **) {
    int rc;
    const char *first = nullptr;
    if (jsonObjectGetString(moduleReq, "table")) {
        rc = kepDelTableOrSection(module, "table", jsonObjectObjectGet(moduleReq, "table"), moduleReq);
    } else if (!jsonObjectGetString(moduleReq, "name")) {
        KEP_LOG("no table and no name, bad json str!\n");
        rc = KEP_ERR_BAD_JSON;
    } else {
        json_object *names = firstMember(moduleReq, &first);
        rc = kepDelTableOrSection(module, "name", names, moduleReq);
    }
    if (rc != 0) KEP_LOG("qxError:%d.\n", rc);
    return rc;
}

int doModule(const char *module, json_object *moduleReq, json_object **response) {
    const char *action = nullptr;
    JsonObjCursor *head = jsonObjectNextSubObject(moduleReq, nullptr, &action);
    if (!head) return 0;
    json_object *params = jsonObjectCursorValue(head);
    json_object *result = nullptr;
    int rc = doActionToModel(module, action, params, &result);
    // A failed action leaves the response as it was, to carry the code.
    if (!result) return rc;
    // The response must be an object to carry "error_code": an action answering
    // any other JSON value is refused like a result that is not JSON.
    if (jsonObjectIsObject(result) != 1) {
        jsonObjectObjectDelete(result);
        return rc != 0 ? rc : KEP_ERR_BAD_JSON;
    }
    jsonObjectObjectDelete(*response);
    *response = result;
    return rc;
}

}  // namespace

int kepMethodSet(json_object *request, json_object **response) {
    KEP_LOG("begin to set method handle.\n");
    KEP_LOG("reqObj:%s\n", logJson(request));
    return walkModules(request, response, setModule);
}

int kepMethodAdd(json_object *request, json_object **response) {
    return walkModules(request, response, addModule);
}

int kepMethodDel(json_object *request, json_object **response) {
    return walkModules(request, response, deleteModule);
}

int kepMethodDo(json_object *request, json_object **response) {
    return walkModules(request, response, doModule);
}

}  // namespace kep
