// The JSON form of a C struct, described by a field table.
#include <arpa/inet.h>
#include <ctype.h>
#include <string.h>

#include <json-c/json.h>

#include "owner_internal.h"

namespace {

const KepField *findField(const KepField *fields, int n, const char *key) {
    for (int i = 0; i < n; i++) {
        if (strcmp(fields[i].key, key) == 0) return &fields[i];
    }
    return nullptr;
}

bool acceptable(const KepField &f, json_object *v) {
    if (f.type == KEP_FIELD_TEXT) {
        if (!json_object_is_type(v, json_type_string)) return false;
        // A text with a zero byte inside would be cut where the struct ends it.
        const char *s = json_object_get_string(v);
        const size_t len = static_cast<size_t>(json_object_get_string_len(v));
        return strlen(s) == len && len < f.size && (!f.valid || f.valid(s));
    }
    if (json_object_is_type(v, json_type_boolean)) return true;
    if (f.type == KEP_FIELD_BOOL)
        return json_object_is_type(v, json_type_int) && json_object_get_int64(v) >= 0 &&
               json_object_get_int64(v) <= 1;
    const int64_t x = json_object_get_int64(v);
    return json_object_is_type(v, json_type_int) && x >= INT32_MIN && x <= INT32_MAX;
}

}  // namespace

extern "C" {

int kepFieldsToJson(const KepField *fields, int n, const void *record, json_object **out) {
    if (!fields || !record || !out) return -1;
    const char *base = static_cast<const char *>(record);
    json_object *obj = json_object_new_object();
    if (!obj) return -1;
    for (int i = 0; i < n; i++) {
        const KepField &f = fields[i];
        json_object *v;
        if (f.type == KEP_FIELD_TEXT) {
            v = json_object_new_string_len(base + f.offset,
                                           static_cast<int>(strnlen(base + f.offset, f.size)));
        } else {
            int x;
            memcpy(&x, base + f.offset, sizeof x);
            v = f.type == KEP_FIELD_INT ? json_object_new_int(x) : json_object_new_boolean(x);
        }
        if (!v || json_object_object_add(obj, f.key, v) != 0) {
            json_object_put(v);
            json_object_put(obj);
            return -1;
        }
    }
    *out = obj;
    return 0;
}

int kepFieldsFromJson(const KepField *fields, int n, json_object *value, void *record) {
    if (!fields || !record || !json_object_is_type(value, json_type_object)) return -1;
    // Checked as a whole first, so that a refused value changes nothing.
    json_object_object_foreach(value, key, v) {
        const KepField *f = findField(fields, n, key);
        if (!f || !acceptable(*f, v)) return -1;
    }
    char *base = static_cast<char *>(record);
    json_object_object_foreach(value, key2, v2) {
        const KepField *f = findField(fields, n, key2);
        if (f->type == KEP_FIELD_TEXT) {
            memset(base + f->offset, 0, f->size);
            memcpy(base + f->offset, json_object_get_string(v2),
                   static_cast<size_t>(json_object_get_string_len(v2)));
        } else {
            int x = json_object_get_boolean(v2) && f->type == KEP_FIELD_BOOL ? 1 : json_object_get_int(v2);
            memcpy(base + f->offset, &x, sizeof x);
        }
    }
    return 0;
}

int kepValidIpv4(const char *text) {
    struct in_addr a;
    return text && inet_pton(AF_INET, text, &a) == 1;
}

int kepValidMac(const char *text) {
    if (!text || strlen(text) != 17) return 0;
    for (int i = 0; i < 17; i++) {
        if (i % 3 == 2 ? text[i] != ':' : !isxdigit(static_cast<unsigned char>(text[i]))) return 0;
    }
    return 1;
}

}  // extern "C"
