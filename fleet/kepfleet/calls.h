// kepfleet's conversation with the broker: who is there (the retained status topics)
// and requests sent to many devices at once, at most K in flight, each with its own
// time-out.
#ifndef KEPFLEET_CALLS_H
#define KEPFLEET_CALLS_H

#include <stdint.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "fleet_mqtt.h"

namespace kepfleet {

struct Outcome {
    std::string device;
    bool answered = false;
    std::string response;  // the device's answer text when answered
    int64_t ms = 0;        // from sending to the answer
};

class Controller {
public:
    explicit Controller(const BrokerSettings &s) : s_(s) {}
    ~Controller();
    Controller(const Controller &) = delete;
    Controller &operator=(const Controller &) = delete;

    // Connects and subscribes to this controller's responses; false after saying why.
    bool open(int timeoutMs);
    // Device -> "online"/"offline" from the retained status topics: those that arrive
    // until none has come for settleMs, or until maxMs.
    std::map<std::string, std::string> statuses(int settleMs, int maxMs);
    // Sends request to every device, at most inFlight at once, each answered within
    // timeoutMs or reported unanswered; done is called once per device, as each ends.
    void call(const std::vector<std::string> &devices, const std::string &request, int inFlight,
              int timeoutMs, const std::function<void(const Outcome &)> &done);

private:
    struct Pending {
        std::string device;
        int64_t sent, deadline;
    };
    static void onConnect(mosquitto *, void *self, int rc, int, const mosquitto_property *);
    static void onMessage(mosquitto *, void *self, const mosquitto_message *msg,
                          const mosquitto_property *props);
    static void onSubscribe(mosquitto *, void *self, int mid, int count, const int *granted,
                            const mosquitto_property *);
    // One round of the network loop; reconnects after a loss, at most every backoff.
    void pump(int timeoutMs);
    bool waitFor(const std::function<bool()> &done, int timeoutMs);

    BrokerSettings s_;
    Mosq mosq_;
    bool connected_ = false, subscribed_ = false, linked_ = false, refused_ = false;
    int subscribeMid_ = -1;
    // A command waiting for its broker tries again within a second, however long it waits.
    static constexpr int64_t kFirstRetryMs = 200, kMaxRetryMs = 1000;
    Retry retry_{kFirstRetryMs, kMaxRetryMs};
    std::map<std::string, Pending> pending_;  // by correlation data
    std::vector<Outcome> finished_;
    std::map<std::string, std::string> statuses_;
    int64_t lastStatus_ = 0;
    bool collectStatus_ = false;
};

// Figures over the outcomes for the summary line.
struct Summary {
    size_t devices = 0, answered = 0, noAnswer = 0;
    std::map<int, size_t> errors;  // nonzero "error_code" -> devices; answers without one count as -1
    int64_t p50 = -1, p99 = -1;    // ms of the answered; -1 when none
};
Summary summarize(const std::vector<Outcome> &outcomes);
// The answer's "error_code"; fallback when it has none.
int errorCodeOf(const std::string &response, int fallback);

}  // namespace kepfleet

#endif
