// Walks a serialised text and the object beside each other. A store used to parse its
// text back and compare the copy; this does the same check without a second document,
// which for a large configuration file was as much work and memory as the store itself.
#include "json_match.h"

#include <inttypes.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

#include "kep_pf_json.h"

namespace kep_pf {
namespace {

class Matcher {
public:
    Matcher(const char *text, size_t len, int levels) : p_(text), end_(text + len), levels_(levels) {}

    bool whole(json_object *obj) {
        if (!value(obj, 1)) return false;
        blanks();
        return p_ == end_;
    }

private:
    void blanks() {
        while (p_ < end_ && (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r')) p_++;
    }

    bool take(char c) {
        blanks();
        if (p_ == end_ || *p_ != c) return false;
        p_++;
        return true;
    }

    bool word(const char *w, size_t n) {
        if (static_cast<size_t>(end_ - p_) < n || memcmp(p_, w, n) != 0) return false;
        p_ += n;
        return true;
    }

    bool value(json_object *obj, int level) {
        if (level > levels_) return false;
        blanks();
        switch (json_object_get_type(obj)) {
            case json_type_null:
                return word("null", 4);
            case json_type_boolean:
                return json_object_get_boolean(obj) ? word("true", 4) : word("false", 5);
            case json_type_int:
                return integer(obj);
            case json_type_double:
                return real(json_object_get_double(obj));
            case json_type_string:
                return string(json_object_get_string(obj),
                              static_cast<size_t>(json_object_get_string_len(obj)));
            case json_type_object:
                return members(obj, level);
            case json_type_array:
                return elements(obj, level);
        }
        return false;
    }

    // Takes the bare value at the cursor (a number or a literal): everything up to the
    // next separator, blank or the end. Its length.
    size_t token() {
        size_t n = 0;
        while (p_ + n < end_ && p_[n] && !strchr(",]}: \t\r\n", p_[n])) n++;
        p_ += n;
        return n;
    }

    // Written as json-c writes it: the reader takes exactly that text as this integer.
    bool integer(json_object *obj) {
        char want[24];
        const int64_t v = json_object_get_int64(obj);
        const int n = v == INT64_MAX ? snprintf(want, sizeof want, "%" PRIu64, json_object_get_uint64(obj))
                                     : snprintf(want, sizeof want, "%" PRId64, v);
        const char *at = p_;
        return token() == static_cast<size_t>(n) && memcmp(at, want, static_cast<size_t>(n)) == 0;
    }

    // A number in JSON's own grammar.
    static bool strictNumber(const char *s, size_t n) {
        size_t i = 0;
        auto digits = [&] {
            const size_t from = i;
            while (i < n && s[i] >= '0' && s[i] <= '9') i++;
            return i > from;
        };
        if (i < n && s[i] == '-') i++;
        if (i < n && s[i] == '0') {
            i++;
        } else if (!digits()) {
            return false;
        }
        if (i < n && s[i] == '.') {
            i++;
            if (!digits()) return false;
        }
        if (i < n && (s[i] == 'e' || s[i] == 'E')) {
            i++;
            if (i < n && (s[i] == '+' || s[i] == '-')) i++;
            if (!digits()) return false;
        }
        return i == n;
    }

    // How json-c's reader takes a value it accepts outside JSON's grammar: an infinity,
    // or a number such as "1." that a hand-edited file held (a double keeps the text
    // it was read from). Asks the stand-in's own reader, which allocates; rare.
    static bool readerTakesAs(const char *token, size_t n, double d) {
        char *copy = strndup(token, n);
        json_object *got = copy ? jsonObjectFromString(copy) : nullptr;
        const bool same =
            json_object_get_type(got) == json_type_double && sameDouble(json_object_get_double(got), d);
        json_object_put(got);
        free(copy);
        return same;
    }

    // Equal values; a NaN, which json-c writes and reads as "NaN", stands for itself.
    static bool sameDouble(double a, double b) { return a == b || (isnan(a) && isnan(b)); }

    // A number the reader takes as a double (it has a point or an exponent) of the same
    // value.
    bool real(double d) {
        const char *at = p_;
        const size_t n = token();
        if (n == 0) return false;
        if (!strictNumber(at, n)) return readerTakesAs(at, n, d);
        if (!memchr(at, '.', n) && !memchr(at, 'e', n) && !memchr(at, 'E', n)) return false;
        return strtod(at, nullptr) == d;  // the token ends before the text does
    }

    static int hexDigit(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    }

    // The next character of a string body, escapes decoded; -1 for one the writer does
    // not produce or the reader would not take.
    int character() {
        const unsigned char c = static_cast<unsigned char>(*p_++);
        if (c < 0x20) return -1;
        if (c != '\\') return c;
        if (p_ == end_) return -1;
        switch (*p_++) {
            case '"':
                return '"';
            case '\\':
                return '\\';
            case '/':
                return '/';
            case 'b':
                return '\b';
            case 'f':
                return '\f';
            case 'n':
                return '\n';
            case 'r':
                return '\r';
            case 't':
                return '\t';
            case 'u':
                break;
            default:
                return -1;
        }
        if (end_ - p_ < 4) return -1;
        int code = 0;
        for (int i = 0; i < 4; i++) {
            const int digit = hexDigit(*p_++);
            if (digit < 0) return -1;
            code = code * 16 + digit;
        }
        return code < 0x80 ? code : -1;
    }

    bool string(const char *want, size_t n) {
        if (!take('"')) return false;
        size_t i = 0;
        while (p_ < end_) {
            if (*p_ == '"') {
                p_++;
                return i == n;
            }
            const int c = character();
            if (c < 0 || i == n || static_cast<unsigned char>(want[i]) != c) return false;
            i++;
        }
        return false;
    }

    // Members in the object's own order, which is the order its writer uses.
    bool members(json_object *obj, int level) {
        if (!take('{')) return false;
        json_object_iterator it = json_object_iter_begin(obj);
        const json_object_iterator last = json_object_iter_end(obj);
        for (bool first = true; !json_object_iter_equal(&it, &last);
             json_object_iter_next(&it), first = false) {
            const char *key = json_object_iter_peek_name(&it);
            if (!first && !take(',')) return false;
            if (!string(key, strlen(key)) || !take(':')) return false;
            if (!value(json_object_iter_peek_value(&it), level + 1)) return false;
        }
        return take('}');
    }

    bool elements(json_object *obj, int level) {
        if (!take('[')) return false;
        const size_t n = json_object_array_length(obj);
        for (size_t i = 0; i < n; i++) {
            if (i > 0 && !take(',')) return false;
            if (!value(json_object_array_get_idx(obj, i), level + 1)) return false;
        }
        return take(']');
    }

    const char *p_;
    const char *const end_;
    const int levels_;
};

}  // namespace

bool jsonTextMatches(const char *text, size_t len, json_object *obj, int levels) {
    return text && text[len] == '\0' && Matcher(text, len, levels).whole(obj);
}

}  // namespace kep_pf
