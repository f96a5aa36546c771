#include "policy.h"

#include <string.h>

#include <algorithm>

#include <json-c/json.h>

namespace kepweb {
namespace {

constexpr size_t kMaxName = 32;        // user and role names
constexpr size_t kMaxModule = 31;      // as the model description allows
constexpr size_t kMaxHash = 512;       // a crypt(3) hash is about 100 characters
constexpr int kMaxDepth = 32;          // JSON nesting a request may have
constexpr size_t kMaxComponents = 16;  // of a static file's path
constexpr size_t kMaxStaticPath = 1024;
constexpr size_t kMaxChangeSet = 256;  // requests in a change set, as the host takes them
constexpr int kMaxConfirm = 3600;      // the longest confirm window the host takes

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

bool plainName(const std::string &s, size_t max) {
    if (s.empty() || s.size() > max) return false;
    for (unsigned char c : s) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
              c == '-' || c == '.'))
            return false;
    }
    return s[0] != '.' && s[0] != '-';
}

bool moduleName(const std::string &s) {
    if (s == "*") return true;
    if (s.empty() || s.size() > kMaxModule) return false;
    for (unsigned char c : s) {
        if (c < 0x20 || c == 0x7f || c == '/') return false;
    }
    return s != "." && s != "..";
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

}  // namespace

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

bool parseUsers(const std::string &text, const Rules &rules, std::vector<User> *users, std::string *error) {
    users->clear();
    int line = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        std::string l = text.substr(pos, end - pos);
        pos = end + 1;
        line++;
        if (!l.empty() && l.back() == '\r') l.pop_back();
        if (l.empty() || l[0] == '#') continue;
        const size_t first = l.find(':'), last = l.rfind(':');
        if (first == std::string::npos || first == last)
            return *error = at(line, "not name:hash:role"), users->clear(), false;
        User u{l.substr(0, first), l.substr(first + 1, last - first - 1), l.substr(last + 1), line};
        if (!plainName(u.name, kMaxName))
            return *error = at(line, "user name: 1 to 32 letters, digits, '.', '_', '-'"), users->clear(),
                   false;
        bool hashOk = u.hash.size() > 1 && u.hash.size() <= kMaxHash && u.hash[0] == '$';
        for (unsigned char c : u.hash) hashOk = hashOk && c > 0x20 && c < 0x7f;
        if (!hashOk)
            return *error = at(line, "user " + u.name +
                                         ": the hash is not a crypt(3) hash (kepwebd --hash makes one)"),
                   users->clear(), false;
        if (!rules.count(u.role))
            return *error = at(line, "user " + u.name + ": role \"" + loggable(u.role) + "\" has no rules"),
                   users->clear(), false;
        for (const User &other : *users) {
            if (other.name == u.name)
                return *error = at(line, "user " + u.name + " is named twice"), users->clear(), false;
        }
        users->push_back(u);
    }
    return true;
}

unsigned permissionsOf(const Rules &rules, const std::string &role, const std::string &module) {
    auto r = rules.find(role);
    if (r == rules.end()) return 0;
    auto m = r->second.find(module);
    if (m != r->second.end()) return m->second;
    m = r->second.find("*");
    return m != r->second.end() ? m->second : 0;
}

Route routeOf(const std::string &method, const std::string &path, std::string *allow) {
    struct Endpoint {
        const char *path, *method;
        Route route;
    };
    static const Endpoint kEndpoints[] = {
        {"/api/login", "POST", Route::kLogin},    {"/api/logout", "POST", Route::kLogout},
        {"/api/session", "GET", Route::kSession}, {"/api/request", "POST", Route::kRequest},
        {"/api/model", "GET", Route::kModel},     {"/api/errors", "GET", Route::kErrors},
        {"/api/apply", "POST", Route::kApply},    {"/api/confirm", "POST", Route::kConfirm},
        {"/api/cancel", "POST", Route::kCancel},  {"/api/pending", "GET", Route::kPending},
    };
    if (path == "/api" || path.compare(0, 5, "/api/") == 0) {
        for (const Endpoint &e : kEndpoints) {
            if (path != e.path) continue;
            if (method == e.method) return e.route;
            if (method == "OPTIONS") return Route::kPreflight;
            *allow = e.method;
            return Route::kMethodNotAllowed;
        }
        return Route::kApiNotFound;
    }
    if (method == "GET" || method == "HEAD") return Route::kStatic;
    *allow = "GET, HEAD";
    return Route::kMethodNotAllowed;
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

Check checkChangeSet(const Rules &rules, const std::string &role, const std::string &body,
                     std::string *changes, int *confirm) {
    Check c;
    c.method = "apply";
    json_object *doc = body.find('\0') == std::string::npos ? parseWhole(body, nullptr) : nullptr;
    json_object *set = nullptr, *window = nullptr;
    const bool shaped =
        json_object_is_type(doc, json_type_object) && json_object_object_get_ex(doc, "changes", &set) &&
        (json_object_is_type(set, json_type_object) || json_object_is_type(set, json_type_array));
    json_object_object_get_ex(doc, "confirm", &window);
    const int seconds = window ? json_object_get_int(window) : 0;
    const size_t count = json_object_is_type(set, json_type_array) ? json_object_array_length(set) : 1;
    if (!shaped || count == 0 || count > kMaxChangeSet ||
        (window && !json_object_is_type(window, json_type_int)) || seconds < 0 || seconds > kMaxConfirm) {
        json_object_put(doc);
        c.status = 400;
        c.reason =
            "the body is {\"changes\": a request or a list of 1 to 256, \"confirm\": 0 to 3600 seconds}";
        return c;
    }
    for (size_t i = 0; i < count && c.status == 0; i++) {
        json_object *req =
            json_object_is_type(set, json_type_array) ? json_object_array_get_idx(set, i) : set;
        if (!json_object_is_type(req, json_type_object)) {
            c.status = 400;
            c.reason = "change " + std::to_string(i) + " is not a JSON object";
            break;
        }
        json_object_object_foreach(req, key, value) {
            (void)value;
            if (strcmp(key, "method") == 0) continue;
            if (std::find(c.modules.begin(), c.modules.end(), key) == c.modules.end())
                c.modules.push_back(key);
            // Everything a change set names may be changed and undone: all of it must be writable.
            if (!(permissionsOf(rules, role, key) & kWrite)) {
                c.status = 403;
                c.reason = "module \"" + loggable(key) + "\": write is not granted";
                break;
            }
        }
    }
    if (c.status == 0) {
        *changes = json_object_to_json_string_ext(set, JSON_C_TO_STRING_PLAIN);
        *confirm = seconds;
        c.status = 200;
    }
    json_object_put(doc);
    return c;
}

std::string pendingView(const Rules &rules, const std::string &role, const std::string &answer) {
    json_object *doc = json_tokener_parse(answer.c_str()), *pending = nullptr, *modules = nullptr;
    if (!json_object_object_get_ex(doc, "pending", &pending) ||
        !json_object_object_get_ex(pending, "modules", &modules) ||
        !json_object_is_type(modules, json_type_array)) {
        json_object_put(doc);
        return answer;
    }
    json_object *shown = json_object_new_array();
    int hidden = 0;
    for (size_t i = 0; i < json_object_array_length(modules); i++) {
        json_object *m = json_object_array_get_idx(modules, i);
        if (json_object_is_type(m, json_type_string) &&
            (permissionsOf(rules, role, json_object_get_string(m)) & kRead))
            json_object_array_add(shown, json_object_get(m));
        else
            hidden++;
    }
    json_object_object_add(pending, "modules", shown);
    if (hidden) json_object_object_add(pending, "hidden", json_object_new_int(hidden));
    std::string out = json_object_to_json_string_ext(doc, JSON_C_TO_STRING_PLAIN);
    json_object_put(doc);
    return out;
}

namespace {

json_object *accessList(unsigned bits) {
    json_object *a = json_object_new_array();
    if (bits & kRead) json_object_array_add(a, json_object_new_string("read"));
    if (bits & kWrite) json_object_array_add(a, json_object_new_string("write"));
    if (bits & kExec) json_object_array_add(a, json_object_new_string("exec"));
    return a;
}

const char *nameOf(json_object *obj) {
    json_object *name = nullptr;
    return json_object_object_get_ex(obj, "name", &name) && json_object_is_type(name, json_type_string)
               ? json_object_get_string(name)
               : nullptr;
}

json_object *arrayMember(json_object *obj, const char *key) {
    json_object *a = nullptr;
    return json_object_object_get_ex(obj, key, &a) && json_object_is_type(a, json_type_array) ? a : nullptr;
}

}  // namespace

std::string modelView(const Rules &rules, const std::string &role, const std::string &tree) {
    json_object *root = parseWhole(tree, nullptr);
    json_object *modules = root ? arrayMember(root, "modules") : nullptr;
    if (!modules) {
        json_object_put(root);
        return "";
    }
    json_object *out = json_object_new_object(), *list = json_object_new_array();
    json_object_object_add(out, "modules", list);
    for (size_t i = 0; i < json_object_array_length(modules); i++) {
        json_object *m = json_object_array_get_idx(modules, i);
        const char *name = nameOf(m);
        if (!name) continue;
        const unsigned bits = permissionsOf(rules, role, name);
        if (!(bits & kRead)) continue;
        json_object *mod = json_object_new_object(), *tables = json_object_new_array(),
                    *actions = json_object_new_array();
        json_object_object_add(mod, "name", json_object_new_string(name));
        json_object_object_add(mod, "access", accessList(bits));
        json_object *ts = arrayMember(m, "tables");
        for (size_t t = 0; ts && t < json_object_array_length(ts); t++) {
            json_object *tab = json_object_array_get_idx(ts, t), *flag = nullptr;
            const char *tname = nameOf(tab);
            if (!tname) continue;
            json_object *v = json_object_new_object(), *secs = json_object_new_array();
            json_object_object_add(v, "name", json_object_new_string(tname));
            // The host knows which tables hold lists (their sections are the entries)
            // and which hold named sections: registering a named section decides it.
            const bool named = json_object_object_get_ex(tab, "list", &flag) && !json_object_get_int(flag);
            const bool dynamic =
                json_object_object_get_ex(tab, "dynamic", &flag) && json_object_get_int(flag);
            json_object *ss = arrayMember(tab, "sections");
            json_object_object_add(v, "kind", json_object_new_string(named ? "named" : "list"));
            json_object_object_add(v, "stored", json_object_new_boolean(!dynamic));
            for (size_t s = 0; ss && s < json_object_array_length(ss); s++) {
                const char *sname = nameOf(json_object_array_get_idx(ss, s));
                if (sname) json_object_array_add(secs, json_object_new_string(sname));
            }
            json_object_object_add(v, "sections", secs);
            json_object_array_add(tables, v);
        }
        json_object *as = arrayMember(m, "actions");
        for (size_t a = 0; as && a < json_object_array_length(as); a++) {
            // Each action is [name, pid, callback]: the name alone is shown.
            json_object *entry = json_object_array_get_idx(as, a);
            json_object *n =
                json_object_is_type(entry, json_type_array) ? json_object_array_get_idx(entry, 0) : nullptr;
            if (!n || !json_object_is_type(n, json_type_string)) continue;
            json_object *v = json_object_new_object();
            json_object_object_add(v, "name", json_object_new_string(json_object_get_string(n)));
            json_object_object_add(v, "exec", json_object_new_boolean((bits & kExec) != 0));
            json_object_array_add(actions, v);
        }
        json_object_object_add(mod, "tables", tables);
        json_object_object_add(mod, "actions", actions);
        json_object_array_add(list, mod);
    }
    std::string text = json_object_to_json_string_ext(out, JSON_C_TO_STRING_PLAIN);
    json_object_put(out);
    json_object_put(root);
    return text;
}

bool staticPath(const std::string &urlPath, std::vector<std::string> *components) {
    components->clear();
    if (urlPath.empty() || urlPath[0] != '/' || urlPath.size() > kMaxStaticPath) return false;
    size_t pos = 1;
    while (pos <= urlPath.size()) {
        size_t end = urlPath.find('/', pos);
        if (end == std::string::npos) end = urlPath.size();
        std::string c = urlPath.substr(pos, end - pos);
        const bool last = end == urlPath.size();
        if (c.empty()) {
            if (!last) return false;  // "//": no empty components
            components->push_back("index.html");
            break;
        }
        if (c[0] == '.' || c.size() > 255) return false;  // "..", ".", hidden files
        for (unsigned char ch : c) {
            if (ch < 0x20 || ch == 0x7f || ch == '\\') return false;
        }
        components->push_back(c);
        if (components->size() > kMaxComponents) return false;
        pos = end + 1;
    }
    return !components->empty();
}

const char *contentTypeOf(const std::string &name) {
    static const struct {
        const char *ext, *type;
    } kTypes[] = {{".html", "text/html; charset=utf-8"},
                  {".htm", "text/html; charset=utf-8"},
                  {".css", "text/css; charset=utf-8"},
                  {".js", "text/javascript; charset=utf-8"},
                  {".mjs", "text/javascript; charset=utf-8"},
                  {".json", "application/json"},
                  {".map", "application/json"},
                  {".txt", "text/plain; charset=utf-8"},
                  {".svg", "image/svg+xml"},
                  {".png", "image/png"},
                  {".jpg", "image/jpeg"},
                  {".jpeg", "image/jpeg"},
                  {".gif", "image/gif"},
                  {".webp", "image/webp"},
                  {".ico", "image/vnd.microsoft.icon"},
                  {".woff", "font/woff"},
                  {".woff2", "font/woff2"},
                  {".wasm", "application/wasm"}};
    const size_t dot = name.rfind('.');
    if (dot != std::string::npos) {
        std::string ext = name.substr(dot);
        for (char &ch : ext) ch = static_cast<char>(ch >= 'A' && ch <= 'Z' ? ch - 'A' + 'a' : ch);
        for (const auto &t : kTypes) {
            if (ext == t.ext) return t.type;
        }
    }
    return "application/octet-stream";
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

}  // namespace kepweb
