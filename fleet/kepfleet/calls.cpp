#include "calls.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/random.h>
#include <time.h>

#include <algorithm>

#include <json-c/json.h>

#include "kep_rules.h"
#include "mqtt_protocol.h"

namespace kepfleet {

// The retained statuses at QoS 0: at QoS 1 the broker sends a client 20 unacknowledged
// and holds max_queued_messages more, and drops the rest of a fleet's statuses.
constexpr int kStatusQos = 0;

Controller::~Controller() {
    if (mosq_ && linked_) {
        mosquitto_disconnect_v5(mosq_.get(), 0, nullptr);
        mosquitto_loop(mosq_.get(), 50, 1);
    }
}

void Controller::onConnect(mosquitto *m, void *self, int rc, int, const mosquitto_property *) {
    Controller *c = static_cast<Controller *>(self);
    if (rc != 0) {
        fprintf(stderr, "kepfleet: the broker refused the connection: %s\n", mosquitto_reason_string(rc));
        // A wrong password or a name the broker does not know: trying again changes nothing.
        c->refused_ = true;
        return;
    }
    c->connected_ = true;
    c->retry_.succeeded();
    const std::string responses = "kep/+/response/" + c->s_.user;
    mosquitto_subscribe_v5(m, &c->subscribeMid_, responses.c_str(), 1, 0, nullptr);
    if (c->collectStatus_) mosquitto_subscribe_v5(m, nullptr, "kep/+/status", kStatusQos, 0, nullptr);
}

void Controller::onSubscribe(mosquitto *, void *self, int mid, int, const int *, const mosquitto_property *) {
    Controller *c = static_cast<Controller *>(self);
    if (mid == c->subscribeMid_) c->subscribed_ = true;
}

void Controller::onMessage(mosquitto *, void *self, const mosquitto_message *msg,
                           const mosquitto_property *props) {
    Controller *c = static_cast<Controller *>(self);
    std::string device, kind, name;
    if (!msg->topic || !splitTopic(msg->topic, &device, &kind, &name)) return;
    const std::string payload(static_cast<const char *>(msg->payload), static_cast<size_t>(msg->payloadlen));
    if (kind == "status") {
        if (c->collectStatus_ && (payload == "online" || payload == "offline")) {
            c->statuses_[device] = payload;
            c->lastStatus_ = monotonicMs();
        }
        return;
    }
    if (kind != "response" || name != c->s_.user) return;
    void *corr = nullptr;
    uint16_t len = 0;
    mosquitto_property_read_binary(props, MQTT_PROP_CORRELATION_DATA, &corr, &len, false);
    const std::string key = corr ? std::string(static_cast<const char *>(corr), len) : "";
    free(corr);
    auto p = c->pending_.find(key);
    // Late (already reported unanswered), repeated, or from a device not asked: dropped.
    if (p == c->pending_.end() || p->second.device != device) return;
    Outcome o;
    o.device = device;
    o.answered = true;
    o.response = payload;
    o.ms = monotonicMs() - p->second.sent;
    c->finished_.push_back(o);
    c->pending_.erase(p);
}

void Controller::pump(int timeoutMs) {
    const int64_t now = monotonicMs();
    if (!linked_) {
        if (!retry_.due(now, timeoutMs)) return;
        if (mosquitto_connect_bind_v5(mosq_.get(), s_.host.c_str(), s_.port, s_.keepalive, nullptr,
                                      nullptr) != MOSQ_ERR_SUCCESS) {
            retry_.failed(now);
            return;
        }
        linked_ = true;
    }
    if (mosquitto_loop(mosq_.get(), timeoutMs, 1) != MOSQ_ERR_SUCCESS) {
        connected_ = subscribed_ = linked_ = false;
        mosquitto_disconnect(mosq_.get());
        retry_.failed(monotonicMs());
    }
}

bool Controller::waitFor(const std::function<bool()> &done, int timeoutMs) {
    const int64_t end = monotonicMs() + timeoutMs;
    while (!done()) {
        const int64_t left = end - monotonicMs();
        if (left <= 0) return false;
        pump(static_cast<int>(std::min<int64_t>(left, 50)));
    }
    return true;
}

bool Controller::open(int timeoutMs) {
    if (!validId(s_.user)) {
        fprintf(stderr,
                "kepfleet: --user: the controller's broker user name (letters, digits, '.', '_', '-')\n");
        return false;
    }
    // Clean: whatever a previous run left unanswered is of no use to this one.
    mosq_ = newClient(s_, s_.user, true, this);
    if (!mosq_) return false;
    mosquitto_connect_v5_callback_set(mosq_.get(), onConnect);
    mosquitto_message_v5_callback_set(mosq_.get(), onMessage);
    mosquitto_subscribe_v5_callback_set(mosq_.get(), onSubscribe);
    if (!waitFor([this] { return subscribed_ || refused_; }, timeoutMs) || refused_) {
        if (refused_) return false;
        fprintf(stderr, "kepfleet: no connection to %s:%d within %d ms\n", s_.host.c_str(), s_.port,
                timeoutMs);
        return false;
    }
    return true;
}

std::map<std::string, std::string> Controller::statuses(int settleMs, int maxMs) {
    collectStatus_ = true;
    statuses_.clear();
    lastStatus_ = monotonicMs();
    mosquitto_subscribe_v5(mosq_.get(), nullptr, "kep/+/status", kStatusQos, 0, nullptr);
    // Retained messages carry no end marker: they are all there once none came for a while.
    waitFor([this, settleMs] { return monotonicMs() - lastStatus_ >= settleMs; }, maxMs);
    mosquitto_unsubscribe(mosq_.get(), nullptr, "kep/+/status");
    collectStatus_ = false;
    return statuses_;
}

void Controller::call(const std::vector<std::string> &devices, const std::string &request, int inFlight,
                      int timeoutMs, const std::function<void(const Outcome &)> &done) {
    size_t next = 0;
    const uint32_t expiry = static_cast<uint32_t>((timeoutMs + 999) / 1000);
    while (next < devices.size() || !pending_.empty()) {
        while (next < devices.size() && static_cast<int>(pending_.size()) < inFlight) {
            const std::string &device = devices[next++];
            char corr[16];
            if (getrandom(corr, sizeof corr, 0) != static_cast<ssize_t>(sizeof corr)) {
                for (size_t i = 0; i < sizeof corr; i++) corr[i] = static_cast<char>(randomBelow(256));
            }
            const std::string key(corr, sizeof corr);
            const std::string topic = requestTopic(device, s_.user), reply = responseTopic(device, s_.user);
            Properties props;
            mosquitto_property_add_string(props.out(), MQTT_PROP_RESPONSE_TOPIC, reply.c_str());
            mosquitto_property_add_binary(props.out(), MQTT_PROP_CORRELATION_DATA, corr, sizeof corr);
            // A request the device cannot get in time is dropped by the broker, not applied late.
            mosquitto_property_add_int32(props.out(), MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, expiry);
            const int64_t now = monotonicMs();
            pending_[key] = Pending{device, now, now + timeoutMs};
            // Not sent (no connection): it stays pending and ends as unanswered.
            mosquitto_publish_v5(mosq_.get(), nullptr, topic.c_str(), static_cast<int>(request.size()),
                                 request.data(), 1, false, props.get());
        }
        pump(20);
        for (const Outcome &o : finished_) done(o);
        finished_.clear();
        const int64_t now = monotonicMs();
        for (auto p = pending_.begin(); p != pending_.end();) {
            if (now < p->second.deadline) {
                ++p;
                continue;
            }
            Outcome o;
            o.device = p->second.device;
            o.ms = now - p->second.sent;
            done(o);
            p = pending_.erase(p);
        }
    }
}

int errorCodeOf(const std::string &response, int fallback) {
    json_object *doc = keprules::parseWhole(response, nullptr), *code = nullptr;
    int out = fallback;
    if (json_object_object_get_ex(doc, "error_code", &code) && json_object_is_type(code, json_type_int))
        out = json_object_get_int(code);
    json_object_put(doc);
    return out;
}

Summary summarize(const std::vector<Outcome> &outcomes) {
    Summary s;
    std::vector<int64_t> times;
    for (const Outcome &o : outcomes) {
        s.devices++;
        if (!o.answered) {
            s.noAnswer++;
            continue;
        }
        s.answered++;
        times.push_back(o.ms);
        const int code = errorCodeOf(o.response, -1);
        if (code != 0) s.errors[code]++;
    }
    if (!times.empty()) {
        std::sort(times.begin(), times.end());
        // Nearest rank: the smallest time at least p % of the answers took no longer than.
        auto rank = [&](size_t p) { return times[(times.size() * p + 99) / 100 - 1]; };
        s.p50 = rank(50);
        s.p99 = rank(99);
    }
    return s;
}

}  // namespace kepfleet
