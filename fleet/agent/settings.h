// kepagent's settings: command-line flags and the configuration file take the same
// names (a file line "broker-port = 8883" is the flag --broker-port 8883), and the
// controllers file (one CONTROLLER:ROLE a line) that names each controller's role in
// the rules file.
#ifndef KEPAGENT_SETTINGS_H
#define KEPAGENT_SETTINGS_H

#include <map>
#include <string>

#include "fleet_mqtt.h"
#include "kep_rules.h"

namespace kepagent {

struct Settings {
    kepfleet::BrokerSettings broker;
    std::string device;           // the device id: the broker user name and the topics' second level
    std::string rulesFile;        // roles, in the gateway's rules format
    std::string controllersFile;  // CONTROLLER:ROLE lines
    std::string auditFile;        // "": the audit goes to syslog (authpriv)
    std::string runAs;            // the user to become when started as root
    std::string simulate;         // a model description: own its module here (a simulated device)
    size_t maxRequest = 65536;    // bytes of a request text
    double rate = 10;             // requests a second per controller, sustained
    double burst = 20;            // ... and at once
    std::string answersFile;      // "": the answers kept live in memory only
    size_t cacheEntries = 256;    // answers to changing requests kept for repeated deliveries
    int cacheSeconds = 600;
    int sessionSeconds = 300;    // how long the broker keeps the agent's session while it is away
    int backoffMaxSeconds = 30;  // the longest wait between reconnection attempts
};

// One setting by its name; false with *error.
bool applySetting(const std::string &name, const std::string &value, Settings *s, std::string *error);
// "name = value" lines, '#' comments; false with *error = "line N: why".
bool parseSettingsFile(const std::string &text, Settings *s, std::string *error);
// What must be set, and whether files and names are usable; false with *error.
bool checkSettings(const Settings &s, std::string *error);

// Controller name -> role; every role must have rules. false with *error = "line N: why".
bool parseControllers(const std::string &text, const keprules::Rules &rules,
                      std::map<std::string, std::string> *roles, std::string *error);

}  // namespace kepagent

#endif
