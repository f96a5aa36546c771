// What the gateway decides without a socket: the users file, which route an HTTP
// request takes, whether a user's rules let a request text or change set through,
// and which file of the web root a path names (the rules themselves: kep_rules.h).
// Everything here is pure, so it is tested and fuzzed directly.
#ifndef KEPWEBD_POLICY_H
#define KEPWEBD_POLICY_H

#include <map>
#include <string>
#include <vector>

#include "kep_rules.h"

namespace kepweb {

// The rules file and the decision on a request text are shared with kepagent.
using keprules::Check;
using keprules::checkRequest;
using keprules::kExec;
using keprules::kRead;
using keprules::kWrite;
using keprules::loggable;
using keprules::parseRules;
using keprules::Permission;
using keprules::permissionOfMethod;
using keprules::permissionsOf;
using keprules::Rules;

struct User {
    std::string name, hash, role;
    int line = 0;  // in the users file
};

// The users file; false with *error = "line N: why".
bool parseUsers(const std::string &text, const Rules &rules, std::vector<User> *users, std::string *error);

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

// The components of a static file's path below the web root ("/" names index.html,
// a folder's path its index.html); false for a path that must not be served: "..",
// ".", hidden names, empty components, backslashes, control characters, or too long.
bool staticPath(const std::string &urlPath, std::vector<std::string> *components);
// The content type for a file name, by its extension.
const char *contentTypeOf(const std::string &name);

}  // namespace kepweb

#endif
