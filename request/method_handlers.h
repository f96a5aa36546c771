// The method handlers that gPassthroughHandler points at. Each takes the whole
// parsed request (borrowed) and leaves its response object in *response, which the
// caller releases on success and failure alike; null response: -10000.
#pragma once

#include <json-c/json_types.h>

namespace kep {

int kepMethodGet(json_object *request, json_object **response);
int kepMethodSet(json_object *request, json_object **response);
int kepMethodAdd(json_object *request, json_object **response);
int kepMethodDel(json_object *request, json_object **response);
int kepMethodDo(json_object *request, json_object **response);

// Reads the tables ("table") or sections ("name") that value names, one text or an
// array of texts, into out. Read failures give -10000, malformed names -10100.
int getDataJson(const char *module, const char *key, json_object *value, json_object *moduleReq,
                json_object *out);

}  // namespace kep
