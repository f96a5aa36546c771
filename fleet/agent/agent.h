// The device's end of the fleet: takes request texts from the broker, lets through
// what the asking controller's role allows, hands it to the library and publishes the
// answer to the controller's response topic with the request's correlation data.
#ifndef KEPAGENT_AGENT_H
#define KEPAGENT_AGENT_H

#include <stdint.h>
#include <stdio.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "answer_journal.h"
#include "fleet_mqtt.h"
#include "kep_rules.h"
#include "request_limits.h"
#include "settings.h"

namespace kepagent {

// The agent's own error codes in answers (the library's and the host's pass through).
enum {
    kErrDenied = -30001,          // no rule lets this controller's role do it (the host's code)
    kErrRate = -32001,            // over the controller's request rate
    kErrTooLarge = -32002,        // the request text is over the size limit
    kErrReused = -32003,          // correlation data seen before with another request text
    kErrUnknownOutcome = -32004,  // begun before the agent restarted: may have been applied, not again
    kErrNotRecorded = -32005,     // could not be recorded before it was applied: not applied
    kErrBadRequest = -10100,      // not a JSON object (the library's code)
};

// Serves one allowed request text: 0 with a malloc'd *response, else a nonzero code.
using Forward = std::function<int(const std::string &controller, const std::string &request, bool changes,
                                  char **response)>;

class Agent {
public:
    Agent(const Settings &s, keprules::Rules rules, std::map<std::string, std::string> roles, Forward forward,
          FILE *audit);
    ~Agent() = default;
    Agent(const Agent &) = delete;
    Agent &operator=(const Agent &) = delete;

    // Creates the client; false after saying why.
    bool init();
    // Opens the answers file (the answers-file setting), when there is one; false after
    // saying why. As the user the agent runs as: the file is rewritten beside itself.
    bool openJournal();
    // Connects when due, serves what arrives, reconnects with a growing, jittered wait
    // after a loss; returns within about timeoutMs.
    void step(int timeoutMs);
    // Says "offline" and disconnects, waiting at most timeoutMs for it to leave.
    void stop(int timeoutMs);
    bool connected() const { return connected_; }

private:
    static void onConnect(mosquitto *, void *self, int rc, int flags, const mosquitto_property *);
    static void onDisconnect(mosquitto *, void *self, int rc, const mosquitto_property *);
    static void onMessage(mosquitto *, void *self, const mosquitto_message *msg,
                          const mosquitto_property *props);

    void handle(const mosquitto_message *msg, const mosquitto_property *props);
    void answer(const std::string &topic, const std::string &correlation, const std::string &text);
    std::string refusal(int code, const std::string &why);
    void audit(const char *format, ...) __attribute__((format(printf, 2, 3)));
    void lost(int64_t now);
    void cannotConnect(int rc) const;

    Settings s_;
    keprules::Rules rules_;
    std::map<std::string, std::string> roles_;
    Forward forward_;
    FILE *audit_;
    kepfleet::Mosq mosq_;
    AnswerCache cache_;
    std::unique_ptr<AnswerJournal> journal_;
    RateLimit rate_;
    bool connected_ = false, linked_ = false;
    kepfleet::Retry retry_;
};

}  // namespace kepagent

#endif
