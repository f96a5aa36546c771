// Dictionary: json.dict
//
// Feeds arbitrary text to the request entry and the JSON helpers. Every answer must
// be a documented code, and every response text an object with an integer
// "error_code"; the sanitizers catch overruns and leaks.
#include <json-c/json.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "kep_json.h"
#include "kep_pf_debug.h"
#include "kep_pf_json.h"
#include "kep_request.h"

namespace {

void discard(int, const char *, void *) {}

// A JSON text the library produced: parses (deeper than json-c's default limit, as a
// wrapped request may be one level deeper than the request) and is an object.
json_object *parseOutput(const char *text) {
    if (!text) __builtin_trap();
    json_tokener *tok = json_tokener_new_ex(JSON_TOKENER_DEFAULT_DEPTH * 4);
    json_object *obj = json_tokener_parse_ex(tok, text, static_cast<int>(strlen(text)));
    if (json_tokener_get_error(tok) != json_tokener_success || !json_object_is_type(obj, json_type_object))
        __builtin_trap();
    json_tokener_free(tok);
    return obj;
}

void checkHasErrorCode(json_object *obj) {
    json_object *code = nullptr;
    if (!json_object_object_get_ex(obj, "error_code", &code) || !json_object_is_type(code, json_type_int))
        __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Logging on, so the format of every log line on the way is exercised too.
    debugSetSink(discard, nullptr);
    debugFlagSet(-1, 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // Callers pass NUL-terminated text: an embedded NUL ends the request there.
    std::string text(reinterpret_cast<const char *>(data), size);

    char *response = nullptr;
    int rc = standardKepReqHandle(text.c_str(), &response);
    if (rc == 0) {
        json_object *obj = parseOutput(response);
        checkHasErrorCode(obj);
        json_object_put(obj);
    } else if ((rc != KEP_ERR_BAD_JSON && rc != KEP_ERR_NO_RSP_MEMORY) || response) {
        __builtin_trap();
    }
    free(response);

    json_object *request = jsonParseStr(text.c_str());
    if ((request == nullptr) != (rc == KEP_ERR_BAD_JSON)) __builtin_trap();
    if (request) {
        int flag = 0;
        getBoolFromJsonObj(request, "method", &flag);
        getValueFromArrayJsonObj(request, 0, "method");
        getStringFromJsonObj(request, "method");
        getIntFromJsonObj(request, "method", &flag);
        json_object *rsp = nullptr;
        const char *method = getValueFromJsonObj(request, "method");
        int prc = passthroughHandleMethod(method, request, &rsp);
        if (method ? prc != 0 || !rsp : prc != KEP_ERR_NULL_METHOD || rsp) __builtin_trap();
        jsonObjectObjectDelete(rsp);
        jsonObjectPut(request);
    }

    char *wrapped = buildFormatedResponseForSDK(text.c_str());
    if (wrapped) {
        json_object *obj = parseOutput(wrapped);
        checkHasErrorCode(obj);
        json_object_put(obj);
        free(wrapped);
    }
    free(generateErrorJsonMsg(static_cast<int>(size), text.c_str(), static_cast<int>(size)));
    return 0;
}
