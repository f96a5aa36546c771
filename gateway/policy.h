// What the gateway decides without a socket: the users and rules files, which route
// an HTTP request takes, whether a user's rules let a request text through, and which
// file of the web root a path names. Everything here is pure, so it is tested and
// fuzzed directly.
#ifndef KEPWEBD_POLICY_H
#define KEPWEBD_POLICY_H

#include <map>
#include <string>
#include <vector>

namespace kepweb {

// What a rule may grant, per module.
enum Permission : unsigned { kRead = 1, kWrite = 2, kExec = 4 };

struct User {
    std::string name, hash, role;
    int line = 0;  // in the users file
};

// Role name -> module name (or "*") -> the permissions granted.
using Rules = std::map<std::string, std::map<std::string, unsigned>>;

// Parsers of the two files; false with *error = "line N: why".
bool parseRules(const std::string &text, Rules *rules, std::string *error);
bool parseUsers(const std::string &text, const Rules &rules, std::vector<User> *users, std::string *error);

// What a role may do with a module: the module's own entry when the role has one,
// else the role's "*" entry; nothing for a role without rules.
unsigned permissionsOf(const Rules &rules, const std::string &role, const std::string &module);

enum class Route {
    kLogin,
    kLogout,
    kSession,
    kRequest,
    kModel,
    kErrors,
    kApply,    // POST /api/apply: a change set
    kConfirm,  // POST /api/confirm
    kCancel,   // POST /api/cancel
    kPending,  // GET /api/pending
    kStatic,
    kApiNotFound,       // under /api/ but no such endpoint
    kMethodNotAllowed,  // an endpoint asked with the wrong HTTP method
    kPreflight,         // OPTIONS of an endpoint: a cross-origin preflight
};
// The route of an HTTP method and the request's path; *allow gets the methods the
// endpoint takes when the method is wrong.
Route routeOf(const std::string &method, const std::string &path, std::string *allow);

// The decision on a request text for a role.
struct Check {
    int status = 0;                    // 200: forward it; 400 not JSON; 403 refused by the rules
    std::string method;                // the request's "method" when it has one
    std::vector<std::string> modules;  // the modules it names, in order
    std::string reason;                // why it was refused
};
Check checkRequest(const Rules &rules, const std::string &role, const std::string &body);

// The body of /api/apply, {"changes": a request object or an array of them,
// "confirm": seconds}: every module a request names must be writable for the role.
// On 200, *changes gets the change set's text for the host and *confirm its window
// (0: none); c.modules every module named, once.
Check checkChangeSet(const Rules &rules, const std::string &role, const std::string &body,
                     std::string *changes, int *confirm);

// The part of the host's tree (kepd.tree's answer) a role may read, for a web page:
// {"modules":[{"name","access":[...],"tables":[{"name","kind":"list"|"named",
// "stored":bool,"sections":[...]}],"actions":[{"name","exec":bool}]}]}, without who
// serves what. "" when the tree is not what the host sends.
std::string modelView(const Rules &rules, const std::string &role, const std::string &tree);

// The host's answer to "kepd.pending" as a role may see it: of the modules the change set
// names, those the role may read, and "hidden": how many others. The answer itself when
// it is not what the host sends.
std::string pendingView(const Rules &rules, const std::string &role, const std::string &answer);

// The method's permission; 0 for a method the gateway does not know.
unsigned permissionOfMethod(const std::string &method);

// The components of a static file's path below the web root ("/" names index.html,
// a folder's path its index.html); false for a path that must not be served: "..",
// ".", hidden names, empty components, backslashes, control characters, or too long.
bool staticPath(const std::string &urlPath, std::vector<std::string> *components);
// The content type for a file name, by its extension.
const char *contentTypeOf(const std::string &name);

// A text fit for a log line: printable ASCII only, at most max bytes.
std::string loggable(const std::string &text, size_t max = 64);

}  // namespace kepweb

#endif
