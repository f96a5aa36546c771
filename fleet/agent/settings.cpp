#include "settings.h"

#include <errno.h>
#include <stdlib.h>

namespace kepagent {
namespace {

bool number(const std::string &text, long min, long max, long *out) {
    char *end = nullptr;
    errno = 0;
    const long n = strtol(text.c_str(), &end, 10);
    if (text.empty() || errno || *end || n < min || n > max) return false;
    *out = n;
    return true;
}

std::string trimmed(const std::string &s) {
    const size_t a = s.find_first_not_of(" \t\r");
    if (a == std::string::npos) return "";
    return s.substr(a, s.find_last_not_of(" \t\r") - a + 1);
}

}  // namespace

bool applySetting(const std::string &name, const std::string &value, Settings *s, std::string *error) {
    struct Text {
        const char *name;
        std::string *field;
    };
    const Text texts[] = {
        {"broker-host", &s->broker.host},
        {"ca-file", &s->broker.caFile},
        {"cert-file", &s->broker.certFile},
        {"key-file", &s->broker.keyFile},
        {"password-file", &s->broker.passwordFile},
        {"device", &s->device},
        {"rules", &s->rulesFile},
        {"controllers", &s->controllersFile},
        {"audit-log", &s->auditFile},
        {"user", &s->runAs},
        {"simulate", &s->simulate},
        {"answers-file", &s->answersFile},
    };
    for (const Text &t : texts) {
        if (name == t.name) return *t.field = value, true;
    }
    struct Number {
        const char *name;
        long min, max;
    };
    const Number numbers[] = {
        {"broker-port", 1, 65535},   {"keepalive", 5, 3600},        {"max-request", 64, 1 << 20},
        {"rate", 1, 10000},          {"burst", 1, 10000},           {"cache-entries", 0, 100000},
        {"cache-seconds", 1, 86400}, {"session-seconds", 0, 86400}, {"backoff-max", 1, 3600},
    };
    for (const Number &n : numbers) {
        if (name != n.name) continue;
        long v = 0;
        if (!number(value, n.min, n.max, &v)) {
            *error = name + ": a whole number from " + std::to_string(n.min) + " to " + std::to_string(n.max);
            return false;
        }
        if (name == "broker-port") s->broker.port = static_cast<int>(v);
        if (name == "keepalive") s->broker.keepalive = static_cast<int>(v);
        if (name == "max-request") s->maxRequest = static_cast<size_t>(v);
        if (name == "rate") s->rate = static_cast<double>(v);
        if (name == "burst") s->burst = static_cast<double>(v);
        if (name == "cache-entries") s->cacheEntries = static_cast<size_t>(v);
        if (name == "cache-seconds") s->cacheSeconds = static_cast<int>(v);
        if (name == "session-seconds") s->sessionSeconds = static_cast<int>(v);
        if (name == "backoff-max") s->backoffMaxSeconds = static_cast<int>(v);
        return true;
    }
    *error = "no setting \"" + keprules::loggable(name) + "\"";
    return false;
}

bool parseSettingsFile(const std::string &text, Settings *s, std::string *error) {
    size_t pos = 0;
    int line = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        const std::string l = trimmed(text.substr(pos, end - pos));
        pos = end + 1;
        line++;
        if (l.empty() || l[0] == '#') continue;
        const size_t eq = l.find('=');
        std::string why;
        if (eq == std::string::npos)
            why = "not name = value";
        else if (trimmed(l.substr(0, eq)) == "config")
            why = "a configuration file names no other";
        else
            applySetting(trimmed(l.substr(0, eq)), trimmed(l.substr(eq + 1)), s, &why);
        if (!why.empty()) return *error = "line " + std::to_string(line) + ": " + why, false;
    }
    return true;
}

bool checkSettings(const Settings &s, std::string *error) {
    if (!kepfleet::validId(s.device))
        return *error = "device: 1 to 32 letters, digits, '.', '_', '-' (the broker user name)", false;
    if (s.broker.caFile.empty())
        return *error = "ca-file is required: the broker is reached over TLS only", false;
    if (s.broker.passwordFile.empty() && s.broker.certFile.empty())
        return *error = "password-file or cert-file (with key-file) is required", false;
    if (s.broker.certFile.empty() != s.broker.keyFile.empty())
        return *error = "cert-file and key-file go together", false;
    if (s.rulesFile.empty() || s.controllersFile.empty())
        return *error = "rules and controllers are required: nobody is allowed anything by default", false;
    if (!s.broker.user.empty() && s.broker.user != s.device)
        return *error = "the broker user name is the device id", false;
    return true;
}

bool parseControllers(const std::string &text, const keprules::Rules &rules,
                      std::map<std::string, std::string> *roles, std::string *error) {
    roles->clear();
    size_t pos = 0;
    int line = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        const std::string l = trimmed(text.substr(pos, end - pos));
        pos = end + 1;
        line++;
        if (l.empty() || l[0] == '#') continue;
        const size_t colon = l.find(':');
        const std::string at = "line " + std::to_string(line) + ": ";
        if (colon == std::string::npos || l.find(':', colon + 1) != std::string::npos)
            return *error = at + "not CONTROLLER:ROLE", roles->clear(), false;
        const std::string name = l.substr(0, colon), role = l.substr(colon + 1);
        if (!kepfleet::validId(name))
            return *error = at + "controller: 1 to 32 letters, digits, '.', '_', '-'", roles->clear(), false;
        if (!rules.count(role))
            return *error = at + "role \"" + keprules::loggable(role) + "\" has no rules", roles->clear(),
                   false;
        if (!roles->emplace(name, role).second)
            return *error = at + "controller " + name + " is named twice", roles->clear(), false;
    }
    return true;
}

}  // namespace kepagent
