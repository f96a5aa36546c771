#include "fleet_mqtt.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "kep_rules.h"

namespace kepfleet {

bool validId(const std::string &id) {
    return keprules::plainName(id, kMaxId);
}

std::string requestTopic(const std::string &device, const std::string &controller) {
    return "kep/" + device + "/request/" + controller;
}

std::string responseTopic(const std::string &device, const std::string &controller) {
    return "kep/" + device + "/response/" + controller;
}

std::string statusTopic(const std::string &device) {
    return "kep/" + device + "/status";
}

bool splitTopic(const std::string &topic, std::string *device, std::string *kind, std::string *name) {
    if (topic.compare(0, 4, "kep/") != 0) return false;
    const size_t a = topic.find('/', 4);
    if (a == std::string::npos) return false;
    *device = topic.substr(4, a - 4);
    const size_t b = topic.find('/', a + 1);
    *kind = topic.substr(a + 1, b == std::string::npos ? std::string::npos : b - a - 1);
    name->clear();
    if (!validId(*device)) return false;
    if (*kind == "status") return b == std::string::npos;
    if (*kind != "request" && *kind != "response") return false;
    if (b == std::string::npos) return false;
    *name = topic.substr(b + 1);
    return validId(*name);
}

bool readSmallFile(const std::string &path, std::string *text, size_t limit) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buf[4096];
    ssize_t n;
    text->clear();
    while ((n = read(fd, buf, sizeof buf)) > 0 && text->size() <= limit)
        text->append(buf, static_cast<size_t>(n));
    close(fd);
    return n == 0 && text->size() <= limit;
}

bool readPassword(const std::string &path, std::string *password) {
    std::string text;
    if (!readSmallFile(path, &text, 1024)) return false;
    *password = text.substr(0, text.find_first_of("\r\n"));
    return !password->empty();
}

Mosq newClient(const BrokerSettings &s, const std::string &clientId, bool cleanStart, void *userdata) {
    Mosq m(mosquitto_new(clientId.c_str(), cleanStart, userdata));
    if (!m) {
        fprintf(stderr, "no memory for an MQTT client\n");
        return nullptr;
    }
    mosquitto_int_option(m.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    // Requests and answers are single small packets: without this each waits for the
    // peer's delayed acknowledgement of the one before, some 40 ms.
    mosquitto_int_option(m.get(), MOSQ_OPT_TCP_NODELAY, 1);
    std::string password;
    if (!s.passwordFile.empty() && !readPassword(s.passwordFile, &password)) {
        fprintf(stderr, "cannot read a password from %s\n", s.passwordFile.c_str());
        return nullptr;
    }
    if (!s.user.empty() &&
        mosquitto_username_pw_set(m.get(), s.user.c_str(), password.empty() ? nullptr : password.c_str()) !=
            MOSQ_ERR_SUCCESS) {
        fprintf(stderr, "the user name or password is not accepted\n");
        return nullptr;
    }
    // The password stays in libmosquitto's copy only.
    for (char &c : password) c = '\0';
    if (s.caFile.empty()) {
        fprintf(stderr, "a CA file is required: the broker is always reached over TLS\n");
        return nullptr;
    }
    const int rc = mosquitto_tls_set(m.get(), s.caFile.c_str(), nullptr,
                                     s.certFile.empty() ? nullptr : s.certFile.c_str(),
                                     s.keyFile.empty() ? nullptr : s.keyFile.c_str(), nullptr);
    if (rc != MOSQ_ERR_SUCCESS) {
        fprintf(stderr, "TLS files not usable (%s): CA %s, certificate %s, key %s\n", mosquitto_strerror(rc),
                s.caFile.c_str(), s.certFile.empty() ? "-" : s.certFile.c_str(),
                s.keyFile.empty() ? "-" : s.keyFile.c_str());
        return nullptr;
    }
    // Peer verification and host-name checking are libmosquitto's defaults; at least TLS 1.2.
    mosquitto_tls_opts_set(m.get(), 1, "tlsv1.2", nullptr);
    return m;
}

int64_t monotonicMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void Retry::failed(int64_t now) {
    nextMs_ = now + waitMs_ / 2 + randomBelow(static_cast<uint32_t>(waitMs_ / 2 + 1));
    waitMs_ = std::min(waitMs_ * 2, maxMs_);
}

bool Retry::due(int64_t now, int timeoutMs) const {
    if (now >= nextMs_) return true;
    const int64_t wait = std::min<int64_t>(timeoutMs, nextMs_ - now);
    timespec ts{static_cast<time_t>(wait / 1000), static_cast<long>(wait % 1000) * 1000000L};
    nanosleep(&ts, nullptr);
    return false;
}

uint32_t randomBelow(uint32_t bound) {
    uint32_t r = 0;
    // getrandom on a 4-byte buffer does not come back short; a failure leaves 0, still a valid value.
    if (getrandom(&r, sizeof r, 0) != static_cast<ssize_t>(sizeof r)) r = 0;
    return bound ? r % bound : 0;
}

}  // namespace kepfleet
