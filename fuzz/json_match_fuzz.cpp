// The store's check of a written text against its object, against json-c's reader.
// Input: two bytes that pick where a piece is dropped and how long it is, one that
// picks the writer's format, then JSON text. The text is read into an object and
// written again; the check must take that text, and take the text with the piece
// dropped only when the reader still reads it as an equal object.
// Dictionary: json.dict
#include <stdint.h>
#include <string.h>

#include <string>

#include <json-c/json.h>

#include "kep_pf_json.h"
#include "platform/standin/json_match.h"

namespace {

void check(bool ok) {
    if (!ok) __builtin_trap();
}

// The stand-in's reader, which loads stored files: the whole text as one value.
json_object *read(const std::string &text) {
    return jsonObjectFromString(text.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3 || size > 4096) return 0;
    const int formats[] = {JSON_C_TO_STRING_PLAIN, JSON_C_TO_STRING_SPACED, JSON_C_TO_STRING_PRETTY,
                           JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE};
    const std::string input(reinterpret_cast<const char *>(data + 3), size - 3);
    if (input.find('\0') != std::string::npos) return 0;
    json_object *obj = read(input);
    if (!obj) return 0;
    size_t len = 0;
    const char *written = json_object_to_json_string_length(obj, formats[data[2] % 4], &len);
    // json_object_equal finds a NaN unequal to itself, where the check takes "NaN" as it.
    if (written && !strstr(written, "NaN")) {
        const std::string text(written, len);
        // The reader's depth is the one limit a written text can exceed.
        json_object *back = read(text);
        check(kep_pf::jsonTextMatches(text.c_str(), text.size(), obj) ==
              (back && json_object_equal(obj, back)));
        json_object_put(back);

        const size_t at = data[0] % (text.size() + 1);
        const size_t n = 1 + data[1] % 8;
        const std::string damaged = text.substr(0, at) + (at + n < text.size() ? text.substr(at + n) : "");
        if (kep_pf::jsonTextMatches(damaged.c_str(), damaged.size(), obj)) {
            back = read(damaged);
            check(back && json_object_equal(obj, back));
            json_object_put(back);
        }
    }
    json_object_put(obj);
    return 0;
}
