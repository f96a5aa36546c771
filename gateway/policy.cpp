#include "policy.h"

#include <string.h>

#include <algorithm>

#include <json-c/json.h>

namespace kepweb {
namespace {

constexpr size_t kMaxName = 32;        // user and role names
constexpr size_t kMaxHash = 512;       // a crypt(3) hash is about 100 characters
constexpr size_t kMaxComponents = 16;  // of a static file's path
constexpr size_t kMaxStaticPath = 1024;
constexpr size_t kMaxChangeSet = 256;  // requests in a change set, as the host takes them
constexpr int kMaxConfirm = 3600;      // the longest confirm window the host takes

std::string at(int line, const std::string &why) {
    return "line " + std::to_string(line) + ": " + why;
}

using keprules::parseWhole;
using keprules::plainName;

}  // namespace

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

}  // namespace kepweb
