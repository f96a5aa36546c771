// Dictionary: json.dict
// The gateway's decisions on what a client sends: the route of a method and path,
// the static file a path names, and whether a role's rules let a request text through;
// also the users and rules files. Input: a selector byte, then role, HTTP method and
// path on lines of their own, then the body. Checks that nothing passes that the
// rules deny and that no static path leaves the web root.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <json-c/json.h>

#include "policy.h"

using namespace kepweb;

namespace {

const Rules &rules() {
    static const Rules r = [] {
        Rules out;
        std::string error;
        if (!parseRules(
                R"({"admin":{"*":["read","write","exec"]},"viewer":{"*":["read"]},)"
                R"("op":{"dhcp":["read","write","exec"],"system":["read"]},"locked":{"*":["read"],"x":[]}})",
                &out, &error))
            abort();
        return out;
    }();
    return r;
}

std::string line(const std::string &in, size_t *pos) {
    size_t end = in.find('\n', *pos);
    if (end == std::string::npos) end = in.size();
    std::string out = in.substr(*pos, end - *pos);
    *pos = end < in.size() ? end + 1 : end;
    return out;
}

void checkRequestText(const std::string &role, const std::string &body) {
    const Check c = checkRequest(rules(), role, body);
    if (c.status != 200) return;
    const unsigned need = permissionOfMethod(c.method);
    if (!need) abort();
    // What passed is a JSON object the library reads the same way: its method and
    // every module in it are granted.
    json_object *obj = json_tokener_parse(body.c_str()), *method = nullptr;
    if (!obj || !json_object_is_type(obj, json_type_object)) abort();
    if (!json_object_object_get_ex(obj, "method", &method) || c.method != json_object_get_string(method))
        abort();
    json_object_object_foreach(obj, key, value) {
        (void)value;
        if (strcmp(key, "method") != 0 && (permissionsOf(rules(), role, key) & need) != need) abort();
    }
    json_object_put(obj);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const std::string in(reinterpret_cast<const char *>(data) + 1, size - 1);
    switch (data[0] % 3) {
        case 0: {
            size_t pos = 0;
            const std::string role = line(in, &pos), method = line(in, &pos), path = line(in, &pos);
            const std::string body = in.substr(pos);
            std::string allow;
            const Route route = routeOf(method, path, &allow);
            if (route == Route::kStatic && (path == "/api" || path.compare(0, 5, "/api/") == 0)) abort();
            std::vector<std::string> parts;
            if (staticPath(path, &parts)) {
                if (parts.empty() || parts.size() > 17) abort();
                for (const std::string &p : parts) {
                    if (p.empty() || p[0] == '.' || p.find('/') != std::string::npos ||
                        p.find('\0') != std::string::npos)
                        abort();
                }
            }
            checkRequestText(role, body);
            std::string changes;
            int confirm = -1;
            const Check set = checkChangeSet(rules(), role, body, &changes, &confirm);
            // What passes is a request or a list of them, every module of which is writable.
            if (set.status == 200) {
                json_object *parsed = json_tokener_parse(changes.c_str());
                if (!parsed || confirm < 0 || confirm > 3600) abort();
                for (const std::string &m : set.modules)
                    if (!(permissionsOf(rules(), role, m) & kWrite)) abort();
                json_object_put(parsed);
            }
            break;
        }
        case 1: {
            Rules r;
            std::string error;
            if (!parseRules(in, &r, &error) && (error.compare(0, 5, "line ") != 0 || !r.empty())) abort();
            break;
        }
        default: {
            std::vector<User> users;
            std::string error;
            if (parseUsers(in, rules(), &users, &error)) {
                for (const User &u : users) {
                    if (!rules().count(u.role) || u.hash.empty() || u.hash[0] != '$') abort();
                }
            } else if (error.compare(0, 5, "line ") != 0 || !users.empty()) {
                abort();
            }
            break;
        }
    }
    return 0;
}
