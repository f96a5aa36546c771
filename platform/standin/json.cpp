// The stand-in's JSON object layer over json-c.
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <json-c/json.h>

#include "file_store.h"
#include "json_match.h"
#include "kep_pf_debug.h"
#include "kep_pf_json.h"
#include "pf_api.h"

namespace {

bool isType(json_object *v, json_type t) {
    return v && json_object_get_type(v) == t;
}

json_object *parseText(const char *text) {
    if (!text) return nullptr;
    size_t len = strlen(text);
    if (len >= INT_MAX) return nullptr;
    json_tokener *tok = json_tokener_new();
    if (!tok) return nullptr;
    json_object *obj = json_tokener_parse_ex(tok, text, static_cast<int>(len));
    size_t end = json_tokener_get_parse_end(tok);
    // A bare top-level number or literal waits for a character that ends it; a line end
    // gives it one and ends a trailing line comment. The terminating NUL would not do:
    // json-c 0.16 takes a NUL inside a comment after an open container as the end of
    // the text and hands out the innermost value it was reading ("{\"a\":1 //" reads
    // as 1). A container ends at its bracket, never at a line end, so one that needed
    // it was followed by an unended comment: refused, as json-c's file reader does.
    if (!obj && json_tokener_get_error(tok) == json_tokener_continue) {
        obj = json_tokener_parse_ex(tok, "\n", 1);
        end = len;
        if (isType(obj, json_type_object) || isType(obj, json_type_array)) {
            json_object_put(obj);
            obj = nullptr;
        }
    }
    // Anything but blanks after the value makes the text invalid as a whole.
    if (json_tokener_get_error(tok) != json_tokener_success ||
        (end < len && text[end + strspn(text + end, " \t\r\n")] != '\0')) {
        json_object_put(obj);
        obj = nullptr;
    }
    json_tokener_free(tok);
    return obj;
}

// The largest file the reader takes: a bound on what one read may allocate. 0 until
// the environment has been read.
constexpr long kDefaultFileLimit = 64L * 1024 * 1024;
long gFileLimit;
pthread_once_t gLimitOnce = PTHREAD_ONCE_INIT;

void readLimitFromEnvironment() {
    const char *env = getenv("KEP_JSON_FILE_LIMIT");
    long limit = kDefaultFileLimit;
    if (env && *env) {
        char *end = nullptr;
        errno = 0;
        const long n = strtol(env, &end, 10);
        if (errno == 0 && *end == '\0' && n > 0) {
            limit = n;
        } else if (debugFlagGet(kep_pf::kStoreLogMid)) {
            debugPrintf(kep_pf::kStoreLogMid, "KEP_JSON_FILE_LIMIT \"%s\" is no byte count: %ld taken\n", env,
                        limit);
        }
    }
    __atomic_store_n(&gFileLimit, limit, __ATOMIC_RELEASE);
}

long fileLimit() {
    pthread_once(&gLimitOnce, readLimitFromEnvironment);
    return __atomic_load_n(&gFileLimit, __ATOMIC_ACQUIRE);
}

// The UTC time t as 20261124T101530Z, computed here: gmtime_r loads the time zone data
// on its first call, an allocation a repair short of memory need not make.
void utcStamp(time_t t, char *out, size_t size) {
    const long long secs = static_cast<long long>(t);
    long long days = secs / 86400, rest = secs % 86400;
    if (rest < 0) {
        rest += 86400;
        days--;
    }
    // Days since 1970-01-01 to a civil date (proleptic Gregorian calendar).
    days += 719468;
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const long long doe = days - era * 146097;
    const long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const long long mp = (5 * doy + 2) / 153;
    const long long day = doy - (153 * mp + 2) / 5 + 1;
    const long long month = mp < 10 ? mp + 3 : mp - 9;
    const long long year = yoe + era * 400 + (month <= 2 ? 1 : 0);
    snprintf(out, size, "%04d%02d%02dT%02d%02d%02dZ", static_cast<int>(year), static_cast<int>(month),
             static_cast<int>(day), static_cast<int>(rest / 3600), static_cast<int>(rest / 60 % 60),
             static_cast<int>(rest % 60));
}

// Resets store through jsonObjectToFileMem, and the start-up repair is a reset of a
// file that cannot be read (it does not parse, or is over the size limit). Before it
// is replaced, that file is kept beside it as "<path>.unreadable-<UTC time>" (a hard
// link to the old data, "-2", "-3", ... added when the name is taken), one for every
// repair, so that no configuration is ever lost without a trace and a field failure
// can be analysed. A read that failed for want of memory may keep a sound file too;
// the copy is harmless.
void keepUnreadable(const char *path) {
    struct stat st;
    if (!path || lstat(path, &st) != 0 || !S_ISREG(st.st_mode)) return;
    json_object *old = jsonObjectFromFile(path);
    if (old) {
        json_object_put(old);
        return;
    }
    char stamp[32];
    utcStamp(time(nullptr), stamp, sizeof stamp);
    char kept[PATH_MAX];
    for (int n = 1; n < 1000; n++) {
        const int len = n == 1 ? snprintf(kept, sizeof kept, "%s.unreadable-%s", path, stamp)
                               : snprintf(kept, sizeof kept, "%s.unreadable-%s-%d", path, stamp, n);
        if (len < 0 || len >= static_cast<int>(sizeof kept)) return;
        if (link(path, kept) == 0) {
            if (debugFlagGet(kep_pf::kStoreLogMid))
                debugPrintf(kep_pf::kStoreLogMid, "%s cannot be read: kept as %s before it is replaced\n",
                            path, kept);
            return;
        }
        if (errno != EEXIST) break;
    }
    const int err = errno;
    if (debugFlagGet(kep_pf::kStoreLogMid))
        debugPrintf(kep_pf::kStoreLogMid, "%s cannot be read and could not be kept (%s)\n", path,
                    strerror(err));
}

// The text of obj, or null. json-c 0.16 ignores a failed append while it serialises
// and may hand out a text with pieces missing when memory runs short; such a text
// must never replace a configuration file, so it is checked against the object first.
const char *verifiedText(json_object *obj, int flags, size_t *len) {
    const char *text = json_object_to_json_string_length(obj, flags, len);
    return text && kep_pf::jsonTextMatches(text, *len, obj) ? text : nullptr;
}

}  // namespace

PF_API json_object *jsonObjectNewObject(void) {
    return json_object_new_object();
}
PF_API json_object *jsonObjectNewArray(void) {
    return json_object_new_array();
}

PF_API json_object *jsonObjectFromString(const char *text) {
    return parseText(text);
}

PF_API json_object *jsonObjectFromFile(const char *path) {
    if (!path) return nullptr;
    // Non-blocking so that a FIFO without writer cannot hold the caller; reads of a
    // regular file are unaffected.
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return nullptr;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > fileLimit()) {
        close(fd);
        return nullptr;
    }
    size_t size = static_cast<size_t>(st.st_size);
    char *buf = static_cast<char *>(malloc(size + 1));
    if (!buf) {
        close(fd);
        return nullptr;
    }
    size_t got = 0;
    while (got < size) {
        ssize_t n = read(fd, buf + got, size - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    close(fd);
    buf[got] = '\0';
    json_object *obj = strlen(buf) == got ? jsonObjectFromString(buf) : nullptr;
    free(buf);
    return obj;
}

PF_API int jsonObjectSetFileLimit(long bytes) {
    if (bytes < 1) return -1;
    pthread_once(&gLimitOnce, readLimitFromEnvironment);
    __atomic_store_n(&gFileLimit, bytes, __ATOMIC_RELEASE);
    return 0;
}

// A text over the reader's limit is refused rather than stored as a file that the
// next read would take for unreadable.
PF_API int jsonObjectToFile(const char *path, json_object *obj) {
    if (!obj) return -1;
    size_t len = 0;
    const char *text = verifiedText(obj, JSON_C_TO_STRING_PLAIN, &len);
    return text && len <= static_cast<unsigned long>(fileLimit()) ? kep_pf::storeAtomically(path, text, len)
                                                                  : -1;
}

PF_API int jsonObjectToFileMem(const char *path, json_object *obj) {
    if (!obj) return -1;
    keepUnreadable(path);
    size_t len = 0;
    const char *text = verifiedText(obj, JSON_C_TO_STRING_PRETTY, &len);
    return text && len <= static_cast<unsigned long>(fileLimit()) ? kep_pf::storeAtomically(path, text, len)
                                                                  : -1;
}

PF_API int jsonObjectToMallocString(json_object *obj, char **text) {
    if (!text) return -1;
    *text = nullptr;
    size_t len = 0;
    const char *s = json_object_to_json_string_length(obj, JSON_C_TO_STRING_PLAIN, &len);
    // Checked as a stored file is, so that a damaged text never reaches a client; the
    // client's reader is not json-c's, so its depth does not apply.
    if (!s || !kep_pf::jsonTextMatches(s, len, obj, INT_MAX)) return -1;
    *text = strndup(s, len);
    return *text ? 0 : -1;
}

PF_API json_object *jsonObjectObjectGet(json_object *obj, const char *key) {
    json_object *v = nullptr;
    if (!isType(obj, json_type_object) || !key) return nullptr;
    return json_object_object_get_ex(obj, key, &v) ? v : nullptr;
}

PF_API int jsonObjectObjectAdd(json_object *obj, const char *key, json_object *value) {
    if (!isType(obj, json_type_object) || !key || obj == value) {
        json_object_put(value);
        return -1;
    }
    if (json_object_object_add(obj, key, value) != 0) {
        json_object_put(value);
        return -1;
    }
    return 0;
}

PF_API int jsonObjectObjectDel(json_object *obj, const char *key) {
    if (!isType(obj, json_type_object) || !key || !json_object_object_get_ex(obj, key, nullptr)) return -1;
    json_object_object_del(obj, key);
    return 0;
}

PF_API void jsonObjectObjectDelete(json_object *obj) {
    json_object_put(obj);
}

PF_API json_object *jsonGetObjFromObj(json_object *obj, const char *key) {
    json_object *v = jsonObjectObjectGet(obj, key);
    if (!v) return nullptr;
    json_object_get(v);
    json_object_object_del(obj, key);
    return v;
}

PF_API JsonObjCursor *jsonObjectNextSubObject(json_object *obj, JsonObjCursor *cursor, const char **key) {
    if (!isType(obj, json_type_object)) return nullptr;
    struct lh_entry *e = cursor ? lh_entry_next(cursor) : json_object_get_object(obj)->head;
    if (e && key) *key = static_cast<const char *>(lh_entry_k(e));
    return e;
}

PF_API json_object *jsonObjectCursorValue(JsonObjCursor *cursor) {
    return cursor ? static_cast<json_object *>(const_cast<void *>(lh_entry_v(cursor))) : nullptr;
}

PF_API int jsonObjectAddInt(json_object *obj, const char *key, int value) {
    json_object *v = json_object_new_int(value);
    return v ? jsonObjectObjectAdd(obj, key, v) : -1;
}

PF_API int jsonObjectAddIntByStr(json_object *obj, const char *key, const char *text) {
    if (!text || !*text || isspace(static_cast<unsigned char>(*text))) return -1;
    char *end = nullptr;
    errno = 0;
    long n = strtol(text, &end, 10);
    if (errno || *end || n < INT_MIN || n > INT_MAX) return -1;
    return jsonObjectAddInt(obj, key, static_cast<int>(n));
}

PF_API int jsonObjectAddString(json_object *obj, const char *key, const char *text) {
    if (!text) return -1;
    json_object *v = json_object_new_string(text);
    return v ? jsonObjectObjectAdd(obj, key, v) : -1;
}

PF_API const char *jsonObjectGetString(json_object *obj, const char *key) {
    json_object *v = jsonObjectObjectGet(obj, key);
    return v ? json_object_get_string(v) : nullptr;
}

PF_API int jsonObjectGetIntSelf(json_object *value, int *out) {
    if (!out || !(isType(value, json_type_int) || isType(value, json_type_boolean))) return -1;
    // json-c clamps a 64-bit value to the int range; such a value is not readable as int.
    int64_t v = json_object_get_int64(value);
    if (v < INT_MIN || v > INT_MAX) return -1;
    *out = static_cast<int>(v);
    return 0;
}

PF_API int jsonObjectGetInt(json_object *obj, const char *key, int *value) {
    return jsonObjectGetIntSelf(jsonObjectObjectGet(obj, key), value);
}

PF_API const char *jsonGetObjectString(json_object *value) {
    return isType(value, json_type_string) ? json_object_get_string(value) : nullptr;
}

PF_API const char *jsonGetObjectStringOrigin(json_object *value) {
    return json_object_to_json_string_ext(value, JSON_C_TO_STRING_PLAIN);
}

PF_API int jsonObjectIsObject(json_object *value) {
    return isType(value, json_type_object) ? 1 : 0;
}
PF_API int jsonObjectIsArray(json_object *value) {
    return isType(value, json_type_array) ? 1 : 0;
}
PF_API int jsonObectIsBool(json_object *value) {
    return isType(value, json_type_boolean) ? 1 : 0;
}
PF_API int jsonObectIsInt(json_object *value) {
    return isType(value, json_type_int) ? 1 : 0;
}
PF_API int jsonObectIsString(json_object *value) {
    return isType(value, json_type_string) ? 1 : 0;
}

PF_API int jsonObjectArrayAdd(json_object *array, json_object *value) {
    if (!isType(array, json_type_array) || array == value || json_object_array_add(array, value) != 0) {
        json_object_put(value);
        return -1;
    }
    return 0;
}

PF_API int jsonObjectArrayDel(json_object *array, json_object *element) {
    if (!isType(array, json_type_array) || !element) return -1;
    size_t n = json_object_array_length(array);
    for (size_t i = 0; i < n; i++) {
        if (json_object_array_get_idx(array, i) == element) return json_object_array_del_idx(array, i, 1);
    }
    return -1;
}

PF_API json_object *jsonObjectArrayGetIdx(json_object *array, unsigned int index) {
    if (!isType(array, json_type_array) || index >= json_object_array_length(array)) return nullptr;
    return json_object_array_get_idx(array, index);
}

PF_API int jsonObjectArrayLength(json_object *array) {
    return isType(array, json_type_array) ? static_cast<int>(json_object_array_length(array)) : 0;
}
