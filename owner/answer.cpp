// Answers to the host: "errorCode" and the "result" text.
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

#include "owner_internal.h"

namespace kep_owner {
namespace {

// An answer this large has taken many small blocks of the heap: they go back to the
// system afterwards.
constexpr size_t kTrimBytes = 256 * 1024;

}  // namespace

int answer(QxRpcPara *set, int code, const char *result) {
    qxrpcAddInt(set, "errorCode", code);
    if (result && code == 0) qxrpcAddStringPtr(set, "result", result);
    return 0;
}

int answerJson(QxRpcPara *set, int code, json_object *result) {
    size_t len = 0;
    const char *text = result && code == 0
                           ? json_object_to_json_string_length(result, JSON_C_TO_STRING_PLAIN, &len)
                           : nullptr;
    if (code == 0 && !text) code = KEP_OWNER_ERR_MEMORY;
    answer(set, code, text);
    json_object_put(result);
    if (len >= kTrimBytes) trimLater();
    return 0;
}

AnswerText::~AnswerText() {
    free(data_);
}

void AnswerText::append(const char *text, size_t n) {
    if (failed_) return;
    if (len_ + n + 2 > cap_) {
        size_t cap = cap_ ? cap_ * 2 : 4096;
        while (cap < len_ + n + 2) cap *= 2;
        char *grown = static_cast<char *>(realloc(data_, cap));
        if (!grown) {
            failed_ = true;
            return;
        }
        data_ = grown;
        cap_ = cap;
    }
    memcpy(data_ + len_, text, n);
    len_ += n;
    data_[len_] = '\0';
}

void AnswerText::member(const char *name, json_object *value) {
    json_object *key = json_object_new_string(name);
    size_t klen = 0, vlen = 0;
    const char *k = key ? json_object_to_json_string_length(key, JSON_C_TO_STRING_PLAIN, &klen) : nullptr;
    const char *v = value ? json_object_to_json_string_length(value, JSON_C_TO_STRING_PLAIN, &vlen) : nullptr;
    if (!k || !v) failed_ = true;
    append(len_ ? "," : "{", 1);
    append(k, klen);
    append(":", 1);
    append(v, vlen);
    json_object_put(key);
    json_object_put(value);
}

int AnswerText::answer(QxRpcPara *set, int code) {
    append(len_ ? "}" : "{}", len_ ? 1 : 2);
    if (failed_ && code == 0) code = KEP_OWNER_ERR_MEMORY;
    kep_owner::answer(set, code, failed_ ? nullptr : data_);
    if (len_ >= kTrimBytes) trimLater();
    return 0;
}

}  // namespace kep_owner
