// Short response messages exchanged with clients and application processes. Each
// builder serialises a temporary object into a malloc'd text that the caller frees,
// so the text outlives the object and no per-thread storage is needed.
#include <stdio.h>

#include "base/api.h"
#include "base/guard.h"
#include "base/log.h"
#include "kep_json.h"
#include "kep_pf_json.h"

namespace {

// Malloc'd text of obj, or null when obj is null or memory runs out.
char *toText(json_object *obj) {
    char *text = nullptr;
    if (obj) jsonObjectToMallocString(obj, &text);
    return text;
}

}  // namespace

KEP_API char *generateErrorJsonMsgForSDK(int code, const char *msg) {
    kep::JsonPtr obj(jsonObjectNewObject());
    // A failed add leaves the message incomplete: treat it as a failed serialisation.
    bool built = obj && jsonObjectAddInt(obj.get(), "error_code", code) == 0 &&
                 (!msg || jsonObjectAddString(obj.get(), "msg", msg) == 0);
    char *text = built ? toText(obj.get()) : nullptr;
    if (!text) KEP_LOGJ("format json string error!\n");
    return text;
}

KEP_API char *generateErrorJsonMsg(int code, const char *msg, int id) {
    // The id travels as text of at most 7 characters: longer ids are cut.
    char idText[8];
    snprintf(idText, sizeof idText, "%d", id);
    kep::JsonPtr obj(jsonObjectNewObject());
    bool built = obj && jsonObjectAddString(obj.get(), "id", idText) == 0 &&
                 jsonObjectAddInt(obj.get(), "error_code", code) == 0 &&
                 (!msg || jsonObjectAddString(obj.get(), "msg", msg) == 0);
    char *text = built ? toText(obj.get()) : nullptr;
    if (!text) KEP_LOGJ("format json string error!\n");
    return text;
}

KEP_API char *responseSuccessJsonMsg(void) {
    return generateErrorJsonMsgForSDK(0, nullptr);
}

KEP_API char *responseErrorJsonMsg(int code, const char *msg) {
    return generateErrorJsonMsgForSDK(code, msg);
}

KEP_API char *buildFormatedResponseForSDK(const char *text) {
    if (!text) {
        KEP_LOGJ("jsonElem is NULL!\n");
        return nullptr;
    }
    kep::JsonPtr wrapper(jsonObjectNewObject());
    if (!wrapper) return nullptr;
    json_object *result = jsonObjectFromString(text);
    if (!result) {
        KEP_LOGJ("line:%d: json parser error!\n", __LINE__);
        return nullptr;
    }
    // The wrapper owns result from here on, also when the add fails.
    char *out = nullptr;
    if (jsonObjectObjectAdd(wrapper.get(), "result", result) == 0 &&
        jsonObjectAddInt(wrapper.get(), "error_code", 0) == 0)
        out = toText(wrapper.get());
    if (!out) KEP_LOGJ("format output data error!\n");
    return out;
}
