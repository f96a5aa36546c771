// Exported readers over the platform JSON layer. Texts handed out belong to the
// object they were read from.
#include <json-c/json_object.h>

#include "base/api.h"
#include "base/log.h"
#include "kep_json.h"
#include "kep_pf_json.h"
#include "kep_request.h"

KEP_API json_object *jsonParseStr(const char *text) {
    if (!text) {
        KEP_LOGJ("Buf is NULL!\n");
        return nullptr;
    }
    json_object *obj = jsonObjectFromString(text);
    if (!obj) KEP_LOGJ("Create tokener failed.\n");
    return obj;
}

KEP_API const char *getValueFromJsonObj(json_object *obj, const char *key) {
    if (!obj || !key) {
        KEP_LOGJ("jsonObj or name is NULL!\n");
        return nullptr;
    }
    json_object *member = jsonObjectObjectGet(obj, key);
    return member ? json_object_to_json_string(member) : nullptr;
}

KEP_API const char *getValueFromArrayJsonObj(json_object *array, unsigned int index, const char *key) {
    if (!array || !key) {
        KEP_LOGJ("jsonObj or name is NULL!\n");
        return nullptr;
    }
    json_object *item = jsonObjectArrayGetIdx(array, index);
    if (!item) {
        KEP_LOGJ("arrayItem is NULL!\n");
        return nullptr;
    }
    json_object *member = jsonObjectObjectGet(item, key);
    return member ? json_object_to_json_string(member) : nullptr;
}

KEP_API int getBoolFromJsonObj(json_object *obj, const char *key, int *value) {
    if (!obj || !key || !value) {
        KEP_LOGJ("jsonObj or name or value is NULL!\n");
        return KEP_ERR_GENERIC;
    }
    json_object *member = jsonObjectObjectGet(obj, key);
    int flag = 0;
    // Only a real boolean counts: "true" as a string or 1 as a number does not.
    if (jsonObectIsBool(member) != 1 || jsonObjectGetIntSelf(member, &flag) != 0) {
        KEP_LOGJ("jsonObjectObjectGet failed!\n");
        return KEP_ERR_GENERIC;
    }
    *value = flag ? 1 : 0;
    return 0;
}

KEP_API const char *getStringFromJsonObj(json_object *obj, const char *key) {
    return jsonObjectGetString(obj, key);
}

KEP_API int getIntFromJsonObj(json_object *obj, const char *key, int *value) {
    return jsonObjectGetInt(obj, key, value);
}

KEP_API void jsonObjectPut(json_object *obj) {
    if (!obj) {
        KEP_LOGJ("Free null obj\n");
        return;
    }
    json_object_put(obj);
}
