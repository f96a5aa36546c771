// Request entry: parse, dispatch by method, serialise the response.
#include <stdio.h>
#include <string.h>

#include <json-c/json_object.h>

#include "base/api.h"
#include "base/guard.h"
#include "base/log.h"
#include "kep_json.h"
#include "kep_pf_json.h"
#include "kep_pf_sys.h"
#include "request/request_internal.h"

namespace {

// {"error_code": code}, or null when memory runs out.
json_object *newErrorObject(int code) {
    kep::JsonPtr obj(jsonObjectNewObject());
    if (!obj || jsonObjectAddInt(obj.get(), "error_code", code) != 0) return nullptr;
    return obj.release();
}

// The table is writable by the process that links the library, so each entry's
// handler is read when it is needed, not cached.
MethodHandler loadHandler(const MethodMsgHandler &entry) {
    return __atomic_load_n(&entry.handler, __ATOMIC_RELAXED);
}

}  // namespace

namespace kep {

int dispatchByMethod(const char *method, json_object *request, json_object **response) {
    // Per call, so that concurrent requests never share it. Room for a method field
    // between quotes: the comparison is with the request's quoted text.
    char methodBuffer[KEP_METHOD_NAME_SIZE + 3] = {};
    JsonPtr rsp;
    int rc = KEP_ERR_NO_METHOD;
    if (!method) {
        rc = KEP_ERR_NULL_METHOD;
    } else {
        KEP_LOG("methodMsgHandlerNum:%d\n", methodMsgHandlerNum);
        for (const MethodMsgHandler &entry : gPassthroughHandler) {
            if (!loadHandler(entry)) {
                KEP_LOG("methodMsgHandlerNum:%d\n", methodMsgHandlerNum);
                continue;
            }
            // Bounded by the field, in case a process filled it without a terminator.
            memset(methodBuffer, 0, sizeof methodBuffer);
            snprintf(methodBuffer, sizeof methodBuffer, "\"%.*s\"", static_cast<int>(sizeof entry.method),
                     entry.method);
            KEP_LOG("method_buffer is %s", methodBuffer);
            KEP_LOG("method is %s", method);
            if (strcmp(methodBuffer, method) != 0) {
                KEP_LOG("methodMsgHandlerNum:%d method:%s remoteMethod:%s\n", methodMsgHandlerNum,
                        methodBuffer, method);
                continue;
            }
            // Requested before the handler runs, so a handler that fails half-way
            // still gets its earlier changes saved.
            if (strncmp(entry.method, "get", sizeof entry.method) != 0) ipc_swSysSaveConfigDelay();
            KEP_LOG("find method %s callback.\n", method);
            MethodHandler handler = loadHandler(entry);
            rc = handler ? handler(request, rsp.out()) : KEP_ERR_NO_RSP_MEMORY;
            break;
        }
    }
    if (rc == 0) *response = rsp.release();
    KEP_LOG("errorCode:%d\n", rc);
    return rc;
}

}  // namespace kep

KEP_API int makeErrorRspObj(int code, char **response) {
    if (!response) return KEP_ERR_GENERIC;
    kep::JsonPtr obj(newErrorObject(code));
    if (!obj) return KEP_ERR_GENERIC;
    char *text = nullptr;
    jsonObjectToMallocString(obj.get(), &text);
    if (!text) return KEP_ERR_GENERIC;
    *response = text;
    return 0;
}

KEP_API int standardKepReqHandle(const char *request, char **response) {
    if (!request || !response) {
        KEP_LOG("para is NULL.");
        return KEP_ERR_NULL_ARG;
    }
    *response = nullptr;
    kep::JsonPtr req(jsonParseStr(request));
    if (!req) {
        KEP_LOG("jsonParseStr error\n");
        return KEP_ERR_BAD_JSON;
    }

    kep::JsonPtr rsp;
    int code = 0;
    const char *method = getValueFromJsonObj(req.get(), "method");
    if (!method) {
        KEP_LOG("requestDataObj method NULL.\n");
        code = KEP_ERR_NO_METHOD;
    } else if ((code = kep::dispatchByMethod(method, req.get(), rsp.out())) != 0) {
        KEP_LOG("unsupport method failed\n");
    } else if (!rsp) {
        rsp.reset(newErrorObject(0));
        if (!rsp) code = KEP_ERR_NO_RSP_MEMORY;
    } else if (debugFlagGet(kep::kMidHandle) == 1) {
        // The handler put "error_code" in its object itself. Serialised for the log
        // only when the log is on: a table read can be large.
        KEP_LOG("testStr:%s\n", json_object_to_json_string(rsp.get()));
    }

    if (code == 0) {
        jsonObjectToMallocString(rsp.get(), response);
        if (*response) {
            KEP_LOG("response:%s\n", *response);
            return 0;
        }
        code = KEP_ERR_NO_RSP_MEMORY;
    }
    rsp.reset();
    // Without even an error text the caller must not look for one.
    return makeErrorRspObj(code, response) == 0 ? 0 : KEP_ERR_NO_RSP_MEMORY;
}

KEP_API int passthroughHandleMethod(const char *method, json_object *request, json_object **response) {
    if (!method) {
        KEP_LOG("runRes\n");
        return KEP_ERR_NULL_METHOD;
    }
    if (!response) return KEP_ERR_NULL_ARG;
    kep::JsonPtr rsp;
    int rc = kep::dispatchByMethod(method, request, rsp.out());
    if (!rsp) {
        rsp.reset(newErrorObject(rc));
        if (!rsp) return KEP_ERR_NO_RSP_MEMORY;
    }
    *response = rsp.release();
    return 0;
}
