#include "fleet_mqtt.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

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
    if (!useTls(m.get(), s)) return nullptr;
    return m;
}

namespace {

SSL_CTX *makeContext(const BrokerSettings &s) {
    SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
    if (!ctx) return nullptr;
    X509_VERIFY_PARAM *param = SSL_CTX_get0_param(ctx);
    in6_addr ip;
    const bool literal =
        inet_pton(AF_INET, s.host.c_str(), &ip) == 1 || inet_pton(AF_INET6, s.host.c_str(), &ip) == 1;
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    const bool ok =
        SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) == 1 &&
        SSL_CTX_load_verify_locations(ctx, s.caFile.c_str(), nullptr) == 1 &&
        (literal ? X509_VERIFY_PARAM_set1_ip_asc(param, s.host.c_str())
                 : X509_VERIFY_PARAM_set1_host(param, s.host.c_str(), 0)) == 1 &&
        (s.certFile.empty() || (SSL_CTX_use_certificate_chain_file(ctx, s.certFile.c_str()) == 1 &&
                                SSL_CTX_use_PrivateKey_file(ctx, s.keyFile.c_str(), SSL_FILETYPE_PEM) == 1 &&
                                SSL_CTX_check_private_key(ctx) == 1));
    if (!ok) {
        SSL_CTX_free(ctx);
        return nullptr;
    }
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
    return ctx;
}

}  // namespace

bool useTls(mosquitto *m, const BrokerSettings &s) {
    // One per broker and set of files; a process has one or a few. Never freed (nor the
    // map, which would otherwise go before the clients at exit): each client holds its
    // own reference, and the process's ends with it.
    static auto &contexts = *new std::map<std::string, SSL_CTX *>;
    if (s.caFile.empty()) {
        fprintf(stderr, "a CA file is required: the broker is always reached over TLS\n");
        return false;
    }
    if (s.certFile.empty() != s.keyFile.empty()) {
        fprintf(stderr, "a client certificate needs its key, and a key its certificate\n");
        return false;
    }
    const std::string key = s.host + '\0' + s.caFile + '\0' + s.certFile + '\0' + s.keyFile;
    SSL_CTX *&ctx = contexts[key];
    if (!ctx) ctx = makeContext(s);
    if (!ctx) {
        fprintf(stderr, "TLS files not usable (%s): CA %s, certificate %s, key %s\n",
                ERR_reason_error_string(ERR_get_error()), s.caFile.c_str(),
                s.certFile.empty() ? "-" : s.certFile.c_str(), s.keyFile.empty() ? "-" : s.keyFile.c_str());
        ERR_clear_error();
        contexts.erase(key);
        return false;
    }
    // Without defaults: libmosquitto would otherwise configure the context again itself.
    return mosquitto_int_option(m, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0) == MOSQ_ERR_SUCCESS &&
           mosquitto_opts_set(m, MOSQ_OPT_SSL_CTX, ctx) == MOSQ_ERR_SUCCESS;
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
