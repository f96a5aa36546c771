// Compares JSON texts by value and member order, independent of spacing.
#pragma once

#include <json-c/json.h>

#include <string.h>

#include <string>

namespace kep_test {

// The compact form of a JSON text ("<invalid>" for text that does not parse, "<null>"
// for a null pointer), so that tests can write expectations as plain strings.
inline std::string canonicalJson(const char *text) {
    if (!text) return "<null>";
    json_tokener *tok = json_tokener_new();
    json_object *obj = json_tokener_parse_ex(tok, text, static_cast<int>(strlen(text)));
    bool ok = json_tokener_get_error(tok) == json_tokener_success;
    json_tokener_free(tok);
    std::string out =
        ok ? json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE)
           : "<invalid>";
    json_object_put(obj);
    return out;
}

inline std::string canonicalJson(json_object *obj) {
    return obj ? json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE)
               : "<null>";
}

}  // namespace kep_test
