// What kepagent and kepfleet share: the fleet's topics, the broker connection's
// settings, small files read with a bound, and owning handles for libmosquitto's
// objects.
//
// Topics, DEVICE and CONTROLLER being the broker's user names:
//   kep/DEVICE/request/CONTROLLER    written by CONTROLLER only, read by DEVICE only
//   kep/DEVICE/response/CONTROLLER   written by DEVICE only, read by CONTROLLER only
//   kep/DEVICE/status                retained "online"/"offline", written by DEVICE only
// The broker's ACL enforces who writes and reads what (docs/FLEET.md).
#ifndef KEP_FLEET_MQTT_H
#define KEP_FLEET_MQTT_H

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>

#include <mosquitto.h>

namespace kepfleet {

constexpr size_t kMaxId = 32;  // device and controller names

// A device or controller name: what the rules take as a user name (letters, digits,
// '.', '_', '-'), so never an MQTT wildcard or level separator.
bool validId(const std::string &id);

std::string requestTopic(const std::string &device, const std::string &controller);
std::string responseTopic(const std::string &device, const std::string &controller);
std::string statusTopic(const std::string &device);

// The parts of kep/DEVICE/KIND/NAME (NAME absent for kind "status"); false for any
// other topic or a part that is no valid name.
bool splitTopic(const std::string &topic, std::string *device, std::string *kind, std::string *name);

// How to reach the broker.
struct BrokerSettings {
    std::string host = "localhost";
    int port = 8883;
    std::string caFile;             // required: the broker's certificate is always checked
    std::string certFile, keyFile;  // a client certificate instead of, or besides, a password
    std::string user;
    std::string passwordFile;  // the password: the file's first line
    int keepalive = 30;
};

// Reads at most limit bytes of a file; false when it cannot be read or is longer.
bool readSmallFile(const std::string &path, std::string *text, size_t limit);

// The first line of the password file, without its line end; false when unreadable or empty.
bool readPassword(const std::string &path, std::string *password);

struct MosqDeleter {
    void operator()(mosquitto *m) const { mosquitto_destroy(m); }
};
using Mosq = std::unique_ptr<mosquitto, MosqDeleter>;

// A property list being built, freed with its owner.
class Properties {
public:
    Properties() = default;
    ~Properties() { mosquitto_property_free_all(&list_); }
    Properties(const Properties &) = delete;
    Properties &operator=(const Properties &) = delete;
    mosquitto_property **out() { return &list_; }
    const mosquitto_property *get() const { return list_; }

private:
    mosquitto_property *list_ = nullptr;
};

// A new MQTT 5 client with TLS (and the user name and password or certificate) set;
// nullptr after saying why on standard error. userdata is handed to the callbacks.
Mosq newClient(const BrokerSettings &s, const std::string &clientId, bool cleanStart, void *userdata);

// Hands m the process's TLS context for s's broker and files (made at the first call,
// kept until the process ends): at least TLS 1.2, the broker's certificate checked
// against the CA file and s.host, the client certificate when s has one. libmosquitto's
// own context would read and decode the CA file again at every connection attempt, most
// of what a reconnection costs. false after saying why on standard error.
bool useTls(mosquitto *m, const BrokerSettings &s);

// Milliseconds of the monotonic clock.
int64_t monotonicMs();

// A uniformly random number below bound (bound > 0), from the kernel's random source.
uint32_t randomBelow(uint32_t bound);

// When a client tries its broker again: the wait doubles after each failure up to a
// limit, and is jittered, so that many clients that lost one broker do not come back
// at once.
class Retry {
public:
    Retry(int64_t firstMs, int64_t maxMs) : firstMs_(firstMs), maxMs_(maxMs), waitMs_(firstMs) {}
    // A failure at now: the next attempt is due between half the wait and the wait later.
    void failed(int64_t now);
    // Connected: the next failure waits the first wait again.
    void succeeded() { waitMs_ = firstMs_; }
    // Whether an attempt is due at now; when not, sleeps towards it for timeoutMs at most.
    bool due(int64_t now, int timeoutMs) const;

private:
    int64_t firstMs_, maxMs_, waitMs_;
    int64_t nextMs_ = 0;
};

}  // namespace kepfleet

#endif
