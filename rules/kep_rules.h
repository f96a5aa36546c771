// Who may do what with which module: the rules file (roles, per module or "*", of
// "read", "write", "exec") and the decision on a request text for a role. Shared by
// the programs that take requests from other people (kepwebd, kepagent). Pure: no
// files, no sockets, so it is tested and fuzzed directly.
#ifndef KEP_RULES_H
#define KEP_RULES_H

#include <stddef.h>

#include <map>
#include <string>
#include <vector>

#include <json-c/json_types.h>

namespace keprules {

// What a rule may grant, per module.
enum Permission : unsigned { kRead = 1, kWrite = 2, kExec = 4 };

// Role name -> module name (or "*") -> the permissions granted.
using Rules = std::map<std::string, std::map<std::string, unsigned>>;

// The rules file; false with *error = "line N: why".
bool parseRules(const std::string &text, Rules *rules, std::string *error);

// What a role may do with a module: the module's own entry when the role has one,
// else the role's "*" entry; nothing for a role without rules.
unsigned permissionsOf(const Rules &rules, const std::string &role, const std::string &module);

// The method's permission; 0 for a method no rule can grant.
unsigned permissionOfMethod(const std::string &method);

// The decision on a request text for a role.
struct Check {
    int status = 0;                    // 200: forward it; 400 not JSON; 403 refused by the rules
    std::string method;                // the request's "method" when it has one
    std::vector<std::string> modules;  // the modules it names, in order
    std::string reason;                // why it was refused
};
Check checkRequest(const Rules &rules, const std::string &role, const std::string &body);

// A name of 1 to max letters, digits, '.', '_', '-', not starting with '.' or '-'.
bool plainName(const std::string &s, size_t max);

// text as exactly one JSON value (nesting at most 32) with nothing but white space
// after it; nullptr otherwise. *errorOffset (optional) gets where parsing stopped.
json_object *parseWhole(const std::string &text, size_t *errorOffset);

// A text fit for a log line: printable ASCII only, at most max bytes.
std::string loggable(const std::string &text, size_t max = 64);

}  // namespace keprules

#endif
