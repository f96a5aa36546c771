#include "agent.h"

#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <time.h>

#include <json-c/json.h>

#include "mqtt_protocol.h"

namespace kepagent {
namespace {

constexpr int64_t kFirstBackoffMs = 500;
constexpr size_t kMaxCorrelation = 64;  // bytes of correlation data taken
constexpr size_t kMaxTopic = 256;
// Room for the topic and properties beside the largest request taken, so that a request a
// little over the limit still arrives and is answered with kErrTooLarge.
constexpr size_t kPacketOverhead = 4096;
constexpr uint16_t kReceiveMaximum = 16;

// The response's "error_code" for the audit line; "?" when it has none.
std::string errorCodeOf(const std::string &response) {
    json_object *doc = keprules::parseWhole(response, nullptr), *code = nullptr;
    std::string out = "?";
    if (json_object_object_get_ex(doc, "error_code", &code) && json_object_is_type(code, json_type_int))
        out = std::to_string(json_object_get_int(code));
    json_object_put(doc);
    return out;
}

std::string joined(const std::vector<std::string> &modules) {
    std::string out;
    for (const std::string &m : modules) out += (out.empty() ? "" : ",") + keprules::loggable(m, 31);
    return out.empty() ? "-" : out;
}

}  // namespace

Agent::Agent(const Settings &s, keprules::Rules rules, std::map<std::string, std::string> roles,
             Forward forward, FILE *audit)
    : s_(s),
      rules_(std::move(rules)),
      roles_(std::move(roles)),
      forward_(std::move(forward)),
      audit_(audit),
      cache_(s.cacheEntries, static_cast<int64_t>(s.cacheSeconds) * 1000),
      rate_(s.rate, s.burst),
      retry_(kFirstBackoffMs, static_cast<int64_t>(s.backoffMaxSeconds) * 1000) {}

void Agent::audit(const char *format, ...) {
    char line[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    if (!audit_) {
        syslog(LOG_AUTHPRIV | LOG_NOTICE, "%s", line);
        return;
    }
    char when[32];
    const time_t now = time(nullptr);
    tm utc;
    strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&now, &utc));
    fprintf(audit_, "%s device=%s %s\n", when, s_.device.c_str(), line);
    fflush(audit_);
}

bool Agent::init() {
    kepfleet::BrokerSettings b = s_.broker;
    b.user = s_.device;
    // The session outlives a short absence, so that requests queued meanwhile still come.
    mosq_ = kepfleet::newClient(b, s_.device, false, this);
    if (!mosq_) return false;
    const std::string status = kepfleet::statusTopic(s_.device);
    // The broker says "offline" for the agent when its connection ends without a goodbye.
    if (mosquitto_will_set_v5(mosq_.get(), status.c_str(), 7, "offline", 1, true, nullptr) !=
        MOSQ_ERR_SUCCESS)
        return false;
    mosquitto_connect_v5_callback_set(mosq_.get(), onConnect);
    mosquitto_disconnect_v5_callback_set(mosq_.get(), onDisconnect);
    mosquitto_message_v5_callback_set(mosq_.get(), onMessage);
    return true;
}

void Agent::onConnect(mosquitto *m, void *self, int rc, int, const mosquitto_property *) {
    Agent *a = static_cast<Agent *>(self);
    if (rc != 0) {
        // Refused by the broker (a wrong password, a name it does not know): try later.
        fprintf(stderr, "kepagent: the broker refused the connection: %s\n", mosquitto_reason_string(rc));
        a->linked_ = false;
        a->lost(kepfleet::monotonicMs());
        return;
    }
    a->connected_ = true;
    a->retry_.succeeded();
    const std::string requests = "kep/" + a->s_.device + "/request/+";
    const std::string status = kepfleet::statusTopic(a->s_.device);
    mosquitto_subscribe_v5(m, nullptr, requests.c_str(), 1, 0, nullptr);
    mosquitto_publish_v5(m, nullptr, status.c_str(), 6, "online", 1, true, nullptr);
    fprintf(stderr, "kepagent: %s connected\n", a->s_.device.c_str());
}

void Agent::onDisconnect(mosquitto *, void *self, int rc, const mosquitto_property *) {
    Agent *a = static_cast<Agent *>(self);
    if (a->connected_) fprintf(stderr, "kepagent: disconnected (%d)\n", rc);
    a->connected_ = false;
}

void Agent::lost(int64_t now) {
    connected_ = false;
    if (linked_) mosquitto_disconnect(mosq_.get());
    linked_ = false;
    // Growing and jittered, so that a fleet does not come back to a restarted broker at once.
    retry_.failed(now);
}

void Agent::step(int timeoutMs) {
    const int64_t now = kepfleet::monotonicMs();
    if (!linked_) {
        if (!retry_.due(now, timeoutMs)) return;
        kepfleet::Properties props;
        mosquitto_property_add_int32(props.out(), MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                                     static_cast<uint32_t>(s_.sessionSeconds));
        // Whatever the broker's own limits: no packet much over a request's limit (the
        // broker drops those), and few requests delivered before the earlier are acknowledged.
        mosquitto_property_add_int32(props.out(), MQTT_PROP_MAXIMUM_PACKET_SIZE,
                                     static_cast<uint32_t>(s_.maxRequest + kPacketOverhead));
        mosquitto_property_add_int16(props.out(), MQTT_PROP_RECEIVE_MAXIMUM, kReceiveMaximum);
        const int rc = mosquitto_connect_bind_v5(mosq_.get(), s_.broker.host.c_str(), s_.broker.port,
                                                 s_.broker.keepalive, nullptr, props.get());
        if (rc != MOSQ_ERR_SUCCESS) {
            cannotConnect(rc);
            lost(kepfleet::monotonicMs());
            return;
        }
        linked_ = true;
    }
    int rc = mosquitto_loop(mosq_.get(), timeoutMs, 1);
    // An answer published while a request was handled waits for the loop's next round;
    // send it now instead of after another select.
    if (rc == MOSQ_ERR_SUCCESS && mosquitto_want_write(mosq_.get()))
        rc = mosquitto_loop_write(mosq_.get(), 1);
    if (rc != MOSQ_ERR_SUCCESS && linked_) {
        if (!connected_) cannotConnect(rc);
        lost(kepfleet::monotonicMs());
    }
}

// One line per failed attempt; the back-off bounds how many a broker that is down costs.
void Agent::cannotConnect(int rc) const {
    fprintf(stderr, "kepagent: cannot connect to %s:%d: %s\n", s_.broker.host.c_str(), s_.broker.port,
            rc == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(rc));
}

void Agent::stop(int timeoutMs) {
    if (!linked_ || !connected_) return;
    const std::string status = kepfleet::statusTopic(s_.device);
    int mid = 0;
    mosquitto_publish_v5(mosq_.get(), &mid, status.c_str(), 7, "offline", 1, true, nullptr);
    const int64_t end = kepfleet::monotonicMs() + timeoutMs;
    // The goodbye is on its way once the loop has written it; a few rounds suffice.
    while (mosquitto_want_write(mosq_.get()) && kepfleet::monotonicMs() < end)
        if (mosquitto_loop(mosq_.get(), 50, 1) != MOSQ_ERR_SUCCESS) break;
    mosquitto_disconnect_v5(mosq_.get(), 0, nullptr);
    mosquitto_loop(mosq_.get(), 50, 1);
    linked_ = connected_ = false;
}

void Agent::onMessage(mosquitto *, void *self, const mosquitto_message *msg,
                      const mosquitto_property *props) {
    static_cast<Agent *>(self)->handle(msg, props);
}

std::string Agent::refusal(int code, const std::string &why) {
    json_object *o = json_object_new_object();
    json_object_object_add(o, "error_code", json_object_new_int(code));
    json_object_object_add(o, "error", json_object_new_string(why.c_str()));
    std::string text = json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN);
    json_object_put(o);
    return text;
}

void Agent::answer(const std::string &topic, const std::string &correlation, const std::string &text) {
    kepfleet::Properties props;
    mosquitto_property_add_binary(props.out(), MQTT_PROP_CORRELATION_DATA, correlation.data(),
                                  static_cast<uint16_t>(correlation.size()));
    const int rc = mosquitto_publish_v5(mosq_.get(), nullptr, topic.c_str(), static_cast<int>(text.size()),
                                        text.data(), 1, false, props.get());
    // Not sent: the controller hears nothing and may ask again; the cache answers it then.
    if (rc != MOSQ_ERR_SUCCESS) fprintf(stderr, "kepagent: answer not sent: %s\n", mosquitto_strerror(rc));
}

void Agent::handle(const mosquitto_message *msg, const mosquitto_property *props) {
    const int64_t now = kepfleet::monotonicMs();
    const std::string topic = msg->topic ? msg->topic : "";
    std::string device, kind, controller;
    // The broker lets only CONTROLLER write kep/DEVICE/request/CONTROLLER: that level is who asks.
    if (topic.size() > kMaxTopic || !kepfleet::splitTopic(topic, &device, &kind, &controller) ||
        device != s_.device || kind != "request") {
        audit("refused: message on topic %s", keprules::loggable(topic, 96).c_str());
        return;
    }
    char *replyTo = nullptr;
    void *corr = nullptr;
    uint16_t corrLen = 0;
    mosquitto_property_read_string(props, MQTT_PROP_RESPONSE_TOPIC, &replyTo, false);
    mosquitto_property_read_binary(props, MQTT_PROP_CORRELATION_DATA, &corr, &corrLen, false);
    const std::string reply = replyTo ? replyTo : "";
    const std::string correlation = corr ? std::string(static_cast<const char *>(corr), corrLen) : "";
    free(replyTo);
    free(corr);
    // Answers go to the asking controller's own response topic only: a request that names
    // another (another controller's, a status topic) is not answered at all.
    if (reply != kepfleet::responseTopic(s_.device, controller) || correlation.empty() ||
        correlation.size() > kMaxCorrelation) {
        audit("refused: controller=%s: no response topic of its own or no correlation data (1 to %zu bytes)",
              controller.c_str(), kMaxCorrelation);
        return;
    }
    const std::string request(static_cast<const char *>(msg->payload), static_cast<size_t>(msg->payloadlen));
    std::string text;
    // Computed once: the cache and the answers file name the request by it.
    const std::string digest = requestDigest(request);
    switch (cache_.find(controller, correlation, digest, now, &text)) {
        case AnswerCache::Seen::kSame:
            audit("repeated: controller=%s answered again, not applied again", controller.c_str());
            return answer(reply, correlation, text);
        case AnswerCache::Seen::kDifferent:
            audit("refused: controller=%s: correlation data reused for another request", controller.c_str());
            return answer(reply, correlation,
                          refusal(kErrReused, "correlation data reused for another request"));
        case AnswerCache::Seen::kNew:
            break;
    }
    if (!rate_.allow(controller, now)) {
        audit("refused: controller=%s: over the request rate", controller.c_str());
        // Not remembered: the same request may be sent again once the rate allows.
        return answer(reply, correlation, refusal(kErrRate, "over the request rate; send it again later"));
    }
    auto role = roles_.find(controller);
    if (request.size() > s_.maxRequest) {
        audit("refused: controller=%s: request of %zu bytes over the limit", controller.c_str(),
              request.size());
        text = refusal(kErrTooLarge, "the request is over " + std::to_string(s_.maxRequest) + " bytes");
    } else if (role == roles_.end()) {
        audit("refused: controller=%s: no role", controller.c_str());
        text = refusal(kErrDenied, "this controller has no role here");
    } else {
        const keprules::Check c = keprules::checkRequest(rules_, role->second, request);
        if (c.status == 400) {
            audit("refused: controller=%s: %s", controller.c_str(), c.reason.c_str());
            text = refusal(kErrBadRequest, c.reason);
        } else if (c.status != 200) {
            audit("refused: controller=%s role=%s method=%s modules=%s: %s", controller.c_str(),
                  role->second.c_str(), c.method.empty() ? "-" : keprules::loggable(c.method).c_str(),
                  joined(c.modules).c_str(), c.reason.c_str());
            text = refusal(kErrDenied, c.reason);
        } else {
            const bool changes = keprules::permissionOfMethod(c.method) != keprules::kRead;
            if (changes && journal_ && !journal_->begin(controller, correlation, digest)) {
                audit("refused: controller=%s method=%s: cannot record the request before applying it (%s)",
                      controller.c_str(), c.method.c_str(), strerror(errno));
                // Not remembered: nothing was applied, so the same request may come again.
                return answer(
                    reply, correlation,
                    refusal(kErrNotRecorded, "the request could not be recorded here; not applied"));
            }
            char *response = nullptr;
            const int rc = forward_(controller, request, changes, &response);
            if (rc != 0 || !response) {
                audit("host unreachable (%d): controller=%s method=%s modules=%s", rc, controller.c_str(),
                      c.method.c_str(), joined(c.modules).c_str());
                text = refusal(rc ? rc : kErrBadRequest, "the request could not be served here");
            } else {
                text = response;
                if (changes)
                    audit("request: controller=%s role=%s method=%s modules=%s error_code=%s",
                          controller.c_str(), role->second.c_str(), c.method.c_str(),
                          joined(c.modules).c_str(), errorCodeOf(text).c_str());
            }
            free(response);
            // Only what changes the device is kept: a read served again does no harm, and its
            // answer, which may be large, would push out those that must not be applied twice.
            if (changes) {
                cache_.store(controller, correlation, digest, text, now);
                if (journal_) journal_->answered(controller, correlation, digest, text);
            }
        }
    }
    answer(reply, correlation, text);
}

bool Agent::openJournal() {
    if (s_.answersFile.empty() || s_.cacheEntries == 0) return true;
    journal_.reset(new AnswerJournal(s_.cacheEntries, static_cast<int64_t>(s_.cacheSeconds) * 1000));
    std::string error;
    const std::string unknown = refusal(
        kErrUnknownOutcome, "begun before the agent restarted: it may have been applied; not applied again");
    if (!journal_->open(s_.answersFile, &cache_, unknown, kepfleet::monotonicMs(), &error)) {
        fprintf(stderr, "kepagent: answers file %s\n", error.c_str());
        return false;
    }
    return true;
}

}  // namespace kepagent
