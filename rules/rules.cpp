#include "kep_rules.h"

#include <string.h>

#include <json-c/json.h>

namespace keprules {
namespace {

constexpr size_t kMaxName = 32;    // user, role and controller names
constexpr size_t kMaxModule = 31;  // as the model description allows
constexpr int kMaxDepth = 32;      // JSON nesting a request may have

std::string at(int line, const std::string &why) {
    return "line " + std::to_string(line) + ": " + why;
}

int lineAt(const std::string &text, size_t offset) {
    int line = 1;
    for (size_t i = 0; i < offset && i < text.size(); i++) line += text[i] == '\n';
    return line;
}

// The line of the first quoted occurrence of key at or after *from (which moves past
// it): json-c keeps no positions, so a semantic error is placed by finding its key.
int lineOfKey(const std::string &text, const std::string &key, size_t *from) {
    const size_t found = text.find("\"" + key + "\"", *from);
    if (found == std::string::npos) return lineAt(text, *from);
    *from = found + key.size() + 2;
    return lineAt(text, found);
}

bool moduleName(const std::string &s) {
    if (s == "*") return true;
    if (s.empty() || s.size() > kMaxModule) return false;
    for (unsigned char c : s) {
        if (c < 0x20 || c == 0x7f || c == '/') return false;
    }
    return s != "." && s != "..";
}

}  // namespace

bool plainName(const std::string &s, size_t max) {
    if (s.empty() || s.size() > max) return false;
    for (unsigned char c : s) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
              c == '-' || c == '.'))
            return false;
    }
    return s[0] != '.' && s[0] != '-';
}

// Parses text as exactly one JSON value with nothing but white space after it.
json_object *parseWhole(const std::string &text, size_t *errorOffset) {
    json_tokener *tok = json_tokener_new_ex(kMaxDepth);
    if (!tok) return nullptr;
    json_object *obj = json_tokener_parse_ex(tok, text.c_str(), static_cast<int>(text.size()));
    size_t end = json_tokener_get_parse_end(tok);
    if (obj && json_tokener_get_error(tok) == json_tokener_success) {
        while (end < text.size() && strchr(" \t\r\n", text[end])) end++;
        if (end != text.size()) {
            json_object_put(obj);
            obj = nullptr;
        }
    } else if (obj) {
        json_object_put(obj);
        obj = nullptr;
    }
    json_tokener_free(tok);
    if (errorOffset) *errorOffset = end;
    return obj;
}

unsigned permissionOfMethod(const std::string &method) {
    if (method == "get") return kRead;
    if (method == "set" || method == "add" || method == "delete") return kWrite;
    if (method == "do") return kExec;
    return 0;
}

bool parseRules(const std::string &text, Rules *rules, std::string *error) {
    rules->clear();
    if (text.find('\0') != std::string::npos) return *error = "line 1: a NUL character", false;
    size_t offset = 0;
    json_object *root = parseWhole(text, &offset);
    if (!root) return *error = at(lineAt(text, offset), "not JSON"), false;
    bool ok = true;
    size_t from = 0;
    if (!json_object_is_type(root, json_type_object)) {
        *error = at(1, "the rules are a JSON object of roles");
        ok = false;
    }
    if (ok) {
        json_object_object_foreach(root, role, modules) {
            const int roleLine = lineOfKey(text, role, &from);
            if (!plainName(role, kMaxName)) {
                *error =
                    at(roleLine, "role \"" + loggable(role) + "\": a name of letters, digits, '.', '_', '-'");
                ok = false;
                break;
            }
            if (!json_object_is_type(modules, json_type_object)) {
                *error = at(roleLine, "role \"" + std::string(role) + "\": an object of modules");
                ok = false;
                break;
            }
            auto &granted = (*rules)[role];
            json_object_object_foreach(modules, module, perms) {
                const int line = lineOfKey(text, module, &from);
                if (!moduleName(module)) {
                    *error = at(line, "\"" + loggable(module) + "\" is not a module name or \"*\"");
                    ok = false;
                    break;
                }
                if (!json_object_is_type(perms, json_type_array)) {
                    *error = at(line, "module \"" + std::string(module) +
                                          "\": a list of \"read\", \"write\", \"exec\"");
                    ok = false;
                    break;
                }
                unsigned bits = 0;
                for (size_t i = 0; ok && i < json_object_array_length(perms); i++) {
                    json_object *p = json_object_array_get_idx(perms, i);
                    const char *s = json_object_is_type(p, json_type_string) ? json_object_get_string(p) : "";
                    const unsigned bit = !strcmp(s, "read")    ? unsigned{kRead}
                                         : !strcmp(s, "write") ? unsigned{kWrite}
                                         : !strcmp(s, "exec")  ? unsigned{kExec}
                                                               : 0u;
                    if (!bit) {
                        *error = at(line, "module \"" + std::string(module) + "\": \"" + loggable(s) +
                                              "\" is none of \"read\", \"write\", \"exec\"");
                        ok = false;
                    }
                    bits |= bit;
                }
                if (!ok) break;
                granted[module] = bits;
            }
            if (!ok) break;
        }
    }
    json_object_put(root);
    if (!ok) rules->clear();
    return ok;
}

unsigned permissionsOf(const Rules &rules, const std::string &role, const std::string &module) {
    auto r = rules.find(role);
    if (r == rules.end()) return 0;
    auto m = r->second.find(module);
    if (m != r->second.end()) return m->second;
    m = r->second.find("*");
    return m != r->second.end() ? m->second : 0;
}

Check checkRequest(const Rules &rules, const std::string &role, const std::string &body) {
    Check c;
    // The library reads the text as a C string: a NUL would cut what it sees short
    // of what was checked.
    json_object *req = body.find('\0') == std::string::npos ? parseWhole(body, nullptr) : nullptr;
    if (!req || !json_object_is_type(req, json_type_object)) {
        json_object_put(req);
        c.status = 400;
        c.reason = "the body is not a JSON object";
        return c;
    }
    json_object *method = nullptr;
    if (json_object_object_get_ex(req, "method", &method) && json_object_is_type(method, json_type_string))
        c.method = json_object_get_string(method);
    json_object_object_foreach(req, key, value) {
        (void)value;
        if (strcmp(key, "method") != 0) c.modules.push_back(key);
    }
    json_object_put(req);
    const unsigned need = permissionOfMethod(c.method);
    if (!need) {
        c.status = 403;
        c.reason =
            c.method.empty() ? "no \"method\"" : "method \"" + loggable(c.method) + "\" is not granted";
        return c;
    }
    for (const std::string &m : c.modules) {
        if ((permissionsOf(rules, role, m) & need) != need) {
            c.status = 403;
            c.reason = "module \"" + loggable(m) + "\": " + c.method + " is not granted";
            return c;
        }
    }
    c.status = 200;
    return c;
}

std::string loggable(const std::string &text, size_t max) {
    std::string out;
    for (size_t i = 0; i < text.size() && out.size() < max; i++) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        out += c >= 0x20 && c < 0x7f && c != '"' && c != '\\' ? static_cast<char>(c) : '?';
    }
    if (text.size() > max) out += "...";
    return out;
}

}  // namespace keprules
