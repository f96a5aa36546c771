// The fleet across real processes: a TLS broker with passwords and ACLs made by
// tools/fleet.sh, a real and a simulated device, kepfleet, and raw MQTT clients that
// try what the broker or the agent must refuse.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <json-c/json.h>

#include "fleet_mqtt.h"
#include "mqtt_protocol.h"

namespace {

using kepfleet::monotonicMs;

// Runs a shell command; its standard output, and *status its exit status.
std::string run(const std::string &command, int *status = nullptr) {
    std::string out;
    FILE *p = popen(command.c_str(), "r");
    if (!p) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    const int rc = pclose(p);
    if (status) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

std::string fileText(const std::string &path) {
    std::string text;
    kepfleet::readSmallFile(path, &text, 1 << 20);
    return text;
}

size_t count(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) n++;
    return n;
}

// Polls until done() or the deadline.
bool eventually(const std::function<bool()> &done, int ms) {
    const int64_t end = monotonicMs() + ms;
    while (!done()) {
        if (monotonicMs() > end) return false;
        usleep(50 * 1000);
    }
    return true;
}

// The TCP ports a process listens on, from its descriptors and the kernel's socket tables.
std::vector<int> listeningPorts(int pid) {
    std::vector<std::string> inodes;
    const std::string fds = run("ls -l /proc/" + std::to_string(pid) + "/fd 2>/dev/null");
    for (size_t at = fds.find("socket:["); at != std::string::npos; at = fds.find("socket:[", at + 1))
        inodes.push_back(fds.substr(at + 8, fds.find(']', at) - at - 8));
    std::vector<int> ports;
    for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        const std::string text = fileText(table);
        size_t pos = text.find('\n');  // past the heading
        while (pos != std::string::npos && pos + 1 < text.size()) {
            const size_t end = text.find('\n', pos + 1);
            char local[64] = "", state[8] = "";
            unsigned long inode = 0;
            const std::string line = text.substr(pos + 1, end - pos - 1);
            if (sscanf(line.c_str(), "%*s %63s %*s %7s %*s %*s %*s %*s %*s %lu", local, state, &inode) == 3 &&
                std::string(state) == "0A") {
                for (const std::string &i : inodes)
                    if (i == std::to_string(inode))
                        ports.push_back(static_cast<int>(strtol(strchr(local, ':') + 1, nullptr, 16)));
            }
            pos = end;
        }
    }
    return ports;
}

class Fleet : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/fleetXXXXXX";
        ASSERT_TRUE(mkdtemp(tmpl));
        rmdir(tmpl);  // fleet.sh makes the folder itself
        dir_ = tmpl;
        int status = 0;
        // d0001 as a real device (its owner a process of its own, reads over the direct
        // route) with a password; d0002 simulated (the agent owns the module, everything
        // through its host), logging in with a client certificate.
        const std::string out = run(
            "FLEET_REAL=1 FLEET_CERTS=1 " + std::string(FLEET_SH) + " up " + dir_ + " 2 " BUILD_DIR " 2>&1",
            &status);
        ASSERT_EQ(status, 0) << out;
    }
    void TearDown() override {
        run(std::string(FLEET_SH) + " down " + dir_ + " >/dev/null 2>&1");
        if (!HasFailure())
            run("rm -rf " + dir_);
        else
            fprintf(stderr, "fleet files kept in %s\n", dir_.c_str());
    }

    std::string args(const std::string &controller) const {
        std::string a = fileText(dir_ + "/" + controller + ".args");
        return a.substr(0, a.find('\n')) + " --host localhost --no-progress";
    }
    std::string kepfleet(const std::string &controller, const std::string &rest,
                         int *status = nullptr) const {
        return run(std::string(KEPFLEET_PATH) + " " + args(controller) + " " + rest, status);
    }
    std::string statusOf(const std::string &device) const {
        const std::string out = kepfleet("ctl-admin", "status " + device);
        if (out.find("\"status\":\"online\"") != std::string::npos) return "online";
        if (out.find("\"status\":\"offline\"") != std::string::npos) return "offline";
        return "";
    }
    int pidOf(const std::string &file) const { return atoi(fileText(dir_ + "/" + file).c_str()); }
    int port() const { return atoi(fileText(dir_ + "/port").c_str()); }
    int certPort() const { return atoi(fileText(dir_ + "/cert-port").c_str()); }
    std::string password(const std::string &user) const {
        return user.compare(0, 4, "ctl-") == 0 ? dir_ + "/" + user + ".password"
                                               : dir_ + "/" + user + "/password";
    }

    std::string dir_;
};

// An MQTT client driven by the test: publishes with the properties it chooses, and
// keeps what it receives.
class Raw {
public:
    struct Message {
        std::string topic, payload, correlation;
    };

    // A password file, or a certificate and its key (then the certificate names the user).
    Raw(const Fleet &, const std::string &user, const std::string &passwordFile, const std::string &ca,
        int port, const std::string &certFile = "", const std::string &keyFile = "") {
        kepfleet::BrokerSettings s;
        s.host = "localhost";
        s.port = port;
        s.caFile = ca;
        s.user = user;
        s.passwordFile = passwordFile;
        s.certFile = certFile;
        s.keyFile = keyFile;
        mosq_ = kepfleet::newClient(s, user, true, this);
        if (!mosq_) return;
        mosquitto_connect_v5_callback_set(
            mosq_.get(), [](mosquitto *, void *self, int rc, int, const mosquitto_property *) {
                static_cast<Raw *>(self)->connack_ = rc;
            });
        mosquitto_publish_v5_callback_set(
            mosq_.get(), [](mosquitto *, void *self, int mid, int rc, const mosquitto_property *) {
                static_cast<Raw *>(self)->acks_[mid] = rc;
            });
        mosquitto_subscribe_v5_callback_set(mosq_.get(), [](mosquitto *, void *self, int mid, int n,
                                                            const int *granted, const mosquitto_property *) {
            static_cast<Raw *>(self)->subacks_[mid] = n > 0 ? granted[0] : -1;
        });
        mosquitto_message_v5_callback_set(mosq_.get(), [](mosquitto *, void *self, const mosquitto_message *m,
                                                          const mosquitto_property *props) {
            Message msg{m->topic, std::string(static_cast<const char *>(m->payload), m->payloadlen), ""};
            void *corr = nullptr;
            uint16_t len = 0;
            mosquitto_property_read_binary(props, MQTT_PROP_CORRELATION_DATA, &corr, &len, false);
            if (corr) msg.correlation.assign(static_cast<const char *>(corr), len);
            free(corr);
            static_cast<Raw *>(self)->received_.push_back(msg);
        });
        s_ = s;
        connect();
    }
    bool connect() {
        connack_ = -1;
        if (mosquitto_connect_bind_v5(mosq_.get(), s_.host.c_str(), s_.port, 30, nullptr, nullptr) != 0)
            return false;
        return pumpUntil([this] { return connack_ >= 0; }, 5000) && connack_ == 0;
    }
    bool pumpUntil(const std::function<bool()> &done, int ms) {
        const int64_t end = monotonicMs() + ms;
        while (!done() && monotonicMs() < end) {
            if (mosquitto_loop(mosq_.get(), 20, 1) != MOSQ_ERR_SUCCESS) usleep(20 * 1000);
        }
        return done();
    }
    void pump(int ms) {
        pumpUntil([] { return false; }, ms);
    }
    // The SUBACK's granted QoS or reason code.
    int subscribe(const std::string &topic) {
        int mid = 0;
        mosquitto_subscribe_v5(mosq_.get(), &mid, topic.c_str(), 1, 0, nullptr);
        pumpUntil([&] { return subacks_.count(mid) > 0; }, 5000);
        return subacks_.count(mid) ? subacks_[mid] : -2;
    }
    // Publishes at QoS 1; the PUBACK's reason code (-2: none came).
    int publish(const std::string &topic, const std::string &payload, const std::string &replyTo = "",
                const std::string &correlation = "", bool retain = false, bool wait = true) {
        kepfleet::Properties props;
        if (!replyTo.empty())
            mosquitto_property_add_string(props.out(), MQTT_PROP_RESPONSE_TOPIC, replyTo.c_str());
        if (!correlation.empty())
            mosquitto_property_add_binary(props.out(), MQTT_PROP_CORRELATION_DATA, correlation.data(),
                                          static_cast<uint16_t>(correlation.size()));
        int mid = 0;
        if (mosquitto_publish_v5(mosq_.get(), &mid, topic.c_str(), static_cast<int>(payload.size()),
                                 payload.data(), 1, retain, props.get()) != MOSQ_ERR_SUCCESS)
            return -3;
        if (!wait) return 0;
        pumpUntil([&] { return acks_.count(mid) > 0; }, 5000);
        return acks_.count(mid) ? acks_[mid] : -2;
    }
    std::vector<Message> received_;
    bool ok() const { return connack_ == 0; }

private:
    kepfleet::BrokerSettings s_;
    kepfleet::Mosq mosq_;
    int connack_ = -1;
    std::map<int, int> acks_, subacks_;
};

const std::string kGetServers = R"('{"method":"get","ntp":{"table":"server"}}')";

TEST_F(Fleet, RoundTripToEveryDeviceAndStatusListsThem) {
    int status = 1;
    const std::string out = kepfleet("ctl-admin", "call d0001,d0002 " + std::string(kGetServers), &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_EQ(count(out, R"("error_code":0,"response":{"ntp":{"count":{"server":2})"), 2u) << out;
    EXPECT_NE(out.find(R"({"summary":{"devices":2,"answered":2,"errors":{},"no_answer":0)"),
              std::string::npos)
        << out;
    // A pattern over the status topics reaches the same devices.
    EXPECT_EQ(count(kepfleet("ctl-admin", "call 'd*' " + std::string(kGetServers)), R"("error_code":0,)"),
              2u);
    const std::string list = kepfleet("ctl-view", "status");
    EXPECT_NE(list.find(R"({"summary":{"online":2,"offline":0}})"), std::string::npos) << list;
    // The broker listens on its two TLS ports and nowhere else (no default plain listener).
    std::vector<int> ports = listeningPorts(pidOf("broker.pid"));
    std::sort(ports.begin(), ports.end());
    EXPECT_EQ(ports, (std::vector<int>{port(), certPort()}));
    // A broker whose certificate the CA file does not vouch for is not spoken to.
    EXPECT_FALSE(Raw(*this, "ctl-admin", password("ctl-admin"), dir_ + "/d0002/client.pem", port()).ok());
    EXPECT_TRUE(Raw(*this, "ctl-admin", password("ctl-admin"), dir_ + "/ca.pem", port()).ok());
    // d0002 came in with its certificate, which named it to the broker.
    EXPECT_EQ(fileText(dir_ + "/d0002/agent.conf").find("password"), std::string::npos);
    EXPECT_NE(fileText(dir_ + "/broker.log").find("as d0002 (p5, c0, k30, u'd0002')"), std::string::npos);
}

TEST_F(Fleet, RolesDecideAndControllersWithoutOneAreRefused) {
    const std::string set = R"('{"method":"set","ntp":{"main":{"zone":"CET"}}}')";
    int status = 0;
    std::string out = kepfleet("ctl-view", "call d0001 " + set, &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find(R"("error_code":-30001)"), std::string::npos) << out;
    EXPECT_NE(kepfleet("ctl-view", "call d0001 " + std::string(kGetServers)).find(R"("error_code":0,)"),
              std::string::npos);
    out = kepfleet("ctl-none", "call d0001 " + std::string(kGetServers));
    EXPECT_NE(
        out.find(
            R"("error_code":-30001,"response":{"error_code":-30001,"error":"this controller has no role)"),
        std::string::npos)
        << out;
    const std::string audit = fileText(dir_ + "/d0001/audit.log");
    EXPECT_NE(audit.find("refused: controller=ctl-view role=viewer method=set modules=ntp"),
              std::string::npos)
        << audit;
    EXPECT_NE(audit.find("refused: controller=ctl-none: no role"), std::string::npos) << audit;
    // The admin may; the zone was not changed by the refused request.
    EXPECT_NE(kepfleet("ctl-admin", R"(call d0001 '{"method":"get","ntp":{"name":"main"}}')")
                  .find(R"("zone":"UTC")"),
              std::string::npos);
}

TEST_F(Fleet, BrokerRefusesAControllerWritingUnderAnotherName) {
    Raw view(*this, "ctl-view", password("ctl-view"), dir_ + "/ca.pem", port());
    ASSERT_TRUE(view.ok());
    const std::string add = R"({"method":"add","ntp":{"table":"server","para":{"address":"forged"}}})";
    // ctl-view may write its own request topic only: naming ctl-admin is refused.
    EXPECT_EQ(view.publish("kep/d0001/request/ctl-admin", add, "kep/d0001/response/ctl-admin", "c1"),
              MQTT_RC_NOT_AUTHORIZED);
    // Under its own name the agent answers, on its own response topic only.
    EXPECT_EQ(view.subscribe("kep/d0001/response/ctl-view"), 1);
    EXPECT_EQ(view.publish("kep/d0001/request/ctl-view", add, "kep/d0001/response/ctl-admin", "c2"), 0);
    EXPECT_EQ(view.publish("kep/d0001/request/ctl-view", add, "kep/d0001/response/ctl-view", "c3"), 0);
    EXPECT_TRUE(view.pumpUntil([&] { return !view.received_.empty(); }, 5000));
    view.pump(200);
    ASSERT_EQ(view.received_.size(), 1u);
    EXPECT_EQ(view.received_[0].correlation, "c3");
    EXPECT_NE(view.received_[0].payload.find("-30001"), std::string::npos);
    const std::string audit = fileText(dir_ + "/d0001/audit.log");
    EXPECT_NE(audit.find("refused: controller=ctl-view: no response topic of its own"), std::string::npos)
        << audit;
    EXPECT_EQ(audit.find("forged"), std::string::npos);
    EXPECT_NE(kepfleet("ctl-admin", "call d0001 " + std::string(kGetServers)).find(R"("count":{"server":2})"),
              std::string::npos);

    // The broker's certificate names "localhost" and 127.0.0.1. "127.1" is the same
    // address under a name the certificate does not hold: whoever answers there is not
    // taken for the broker, though a name it holds reaches it.
    for (const std::string host : {"127.1", "127.0.0.1"}) {
        SCOPED_TRACE(host);
        const bool named = host != "127.1";
        int status = -1;
        // The later --host is the one taken.
        const std::string out =
            kepfleet("ctl-admin", "--host " + host + " -t 3 call d0001 " + kGetServers + " 2>&1", &status);
        EXPECT_EQ(status, named ? 0 : 1) << out;
        EXPECT_EQ(out.find(R"("count":{"server":2})") != std::string::npos, named) << out;
    }
}

TEST_F(Fleet, ADeviceCannotReadOrWriteAnothersTopics) {
    // d0002's agent stops; its credentials are used by a client that tries what a
    // device taken over might.
    kill(pidOf("d0002/agent.pid"), SIGTERM);
    ASSERT_TRUE(eventually([&] { return statusOf("d0002") == "offline"; }, 10000));
    const std::string ca = dir_ + "/ca.pem", d2 = dir_ + "/d0002/";
    // With its password, and with its certificate on the listener that takes certificates.
    for (bool certificate : {false, true}) {
        SCOPED_TRACE(certificate ? "certificate" : "password");
        Raw rogue = certificate
                        ? Raw(*this, "d0002", "", ca, certPort(), d2 + "client.pem", d2 + "client.key")
                        : Raw(*this, "d0002", password("d0002"), ca, port());
        ASSERT_TRUE(rogue.ok());
        rogue.subscribe("kep/d0001/#");
        rogue.subscribe("kep/+/response/+");
        EXPECT_EQ(rogue.publish("kep/d0001/status", "offline", "", "", true), MQTT_RC_NOT_AUTHORIZED);
        EXPECT_EQ(rogue.publish("kep/d0001/response/ctl-admin", R"({"error_code":0})", "", "x"),
                  MQTT_RC_NOT_AUTHORIZED);
        EXPECT_EQ(rogue.publish("kep/d0001/request/d0002", R"({"method":"get","ntp":{"table":"server"}})",
                                "kep/d0001/response/d0002", "x"),
                  MQTT_RC_NOT_AUTHORIZED);
        int status = 1;
        const std::string out = kepfleet("ctl-admin", "call d0001 " + std::string(kGetServers), &status);
        EXPECT_EQ(status, 0) << out;
        rogue.pump(300);
        for (const Raw::Message &m : rogue.received_) ADD_FAILURE() << "d0002 saw " << m.topic;
        EXPECT_EQ(statusOf("d0001"), "online");
    }
    // A password does not open the certificates' listener.
    EXPECT_FALSE(Raw(*this, "d0001", password("d0001"), ca, certPort()).ok());
}

TEST_F(Fleet, ARepeatedDeliveryIsAnsweredAgainNotAppliedTwice) {
    Raw admin(*this, "ctl-admin", password("ctl-admin"), dir_ + "/ca.pem", port());
    ASSERT_TRUE(admin.ok());
    ASSERT_EQ(admin.subscribe("kep/d0001/response/ctl-admin"), 1);
    const std::string add = R"({"method":"add","ntp":{"table":"server","para":{"address":"once"}}})";
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(admin.publish("kep/d0001/request/ctl-admin", add, "kep/d0001/response/ctl-admin", "same"),
                  0);
    // The same correlation data with another text is refused, not applied.
    EXPECT_EQ(admin.publish("kep/d0001/request/ctl-admin", R"({"method":"do","ntp":{"sync":{}}})",
                            "kep/d0001/response/ctl-admin", "same"),
              0);
    ASSERT_TRUE(admin.pumpUntil([&] { return admin.received_.size() >= 3; }, 5000));
    EXPECT_EQ(admin.received_[0].payload, admin.received_[1].payload);
    EXPECT_NE(admin.received_[0].payload.find(R"("server_3")"), std::string::npos)
        << admin.received_[0].payload;
    EXPECT_NE(admin.received_[2].payload.find("-32003"), std::string::npos) << admin.received_[2].payload;
    // An agent that died and came back still knows the answer from its answers file.
    kill(pidOf("d0001/agent.pid"), SIGKILL);
    EXPECT_TRUE(eventually([&] { return statusOf("d0001") == "offline"; }, 10000));
    int status = 1;
    run(std::string(FLEET_SH) + " device " + dir_ + " d0001", &status);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(eventually([&] { return statusOf("d0001") == "online"; }, 10000));
    // kepfleet, asking for the status under the same controller name, took the session over.
    ASSERT_TRUE(admin.connect());
    ASSERT_EQ(admin.subscribe("kep/d0001/response/ctl-admin"), 1);
    EXPECT_EQ(admin.publish("kep/d0001/request/ctl-admin", add, "kep/d0001/response/ctl-admin", "same"), 0);
    ASSERT_TRUE(admin.pumpUntil([&] { return admin.received_.size() >= 4; }, 5000));
    EXPECT_EQ(admin.received_[3].payload, admin.received_[0].payload);
    const std::string out = kepfleet("ctl-admin", "call d0001 " + std::string(kGetServers));
    EXPECT_EQ(count(out, R"("address":"once")"), 1u) << out;
    EXPECT_NE(fileText(dir_ + "/d0001/audit.log").find("repeated: controller=ctl-admin answered again"),
              std::string::npos);
}

TEST_F(Fleet, OversizeRequestsAndFloodsAreAnsweredWithTheirCodes) {
    Raw admin(*this, "ctl-admin", password("ctl-admin"), dir_ + "/ca.pem", port());
    ASSERT_TRUE(admin.ok());
    ASSERT_EQ(admin.subscribe("kep/d0001/response/ctl-admin"), 1);
    // Over the agent's 64 KiB: refused by its size, not parsed.
    const std::string big =
        R"({"method":"get","ntp":{"table":"server","x":")" + std::string(66000, 'a') + "\"}}";
    EXPECT_EQ(admin.publish("kep/d0001/request/ctl-admin", big, "kep/d0001/response/ctl-admin", "big"), 0);
    ASSERT_TRUE(admin.pumpUntil([&] { return admin.received_.size() == 1; }, 5000));
    EXPECT_NE(admin.received_[0].payload.find("-32002"), std::string::npos) << admin.received_[0].payload;
    // A burst of 20 is taken at once (one was spent above), then 10 a second: of 30 sent
    // together some are refused for the rate, none is left unanswered.
    const std::string get = R"({"method":"get","ntp":{"name":"main"}})";
    for (int i = 0; i < 30; i++)
        admin.publish("kep/d0001/request/ctl-admin", get, "kep/d0001/response/ctl-admin",
                      "g" + std::to_string(i), false, false);
    ASSERT_TRUE(admin.pumpUntil([&] { return admin.received_.size() == 31; }, 5000))
        << admin.received_.size();
    size_t served = 0, limited = 0;
    for (size_t i = 1; i < admin.received_.size(); i++) {
        served += admin.received_[i].payload.find(R"("zone":"UTC")") != std::string::npos;
        limited += admin.received_[i].payload.find("-32001") != std::string::npos;
    }
    EXPECT_EQ(served + limited, 30u);
    EXPECT_GE(served, 19u);
    EXPECT_GE(limited, 5u);
    EXPECT_NE(
        fileText(dir_ + "/d0001/audit.log").find("refused: controller=ctl-admin: over the request rate"),
        std::string::npos);
}

TEST_F(Fleet, KepfleetWaitsForABrokerThatComesBackAndReportsEveryDevice) {
    kill(pidOf("broker.pid"), SIGKILL);
    int status = -1;
    const int64_t start = monotonicMs();
    const std::string out =
        run("( sleep 1; " + std::string(FLEET_SH) + " broker " + dir_ + " >/dev/null 2>&1 ) & " +
                KEPFLEET_PATH + " " + args("ctl-admin") + " call -t 5 d0001,d0002 " + kGetServers,
            &status);
    EXPECT_LT(monotonicMs() - start, 15000);
    // Connected once the broker was back; each device answered or reported unanswered.
    EXPECT_EQ(count(out, R"({"device":"d000)"), 2u) << out;
    const size_t at = out.find(R"({"summary":)");
    ASSERT_NE(at, std::string::npos) << out;
    json_object *line = json_tokener_parse(out.c_str() + at), *sum = nullptr, *v = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(line, "summary", &sum)) << out;
    auto member = [&](const char *key) {
        return json_object_object_get_ex(sum, key, &v) ? json_object_get_int(v) : -1;
    };
    const int answered = member("answered");
    EXPECT_EQ(member("devices"), 2);
    EXPECT_EQ(answered + member("no_answer"), 2) << out;
    json_object_put(line);
    EXPECT_EQ(status, answered == 2 ? 0 : 1);
}

TEST_F(Fleet, BrokerKilledAndRestartedMidRun) {
    Raw admin(*this, "ctl-admin", password("ctl-admin"), dir_ + "/ca.pem", port());
    ASSERT_TRUE(admin.ok());
    ASSERT_EQ(admin.subscribe("kep/+/response/ctl-admin"), 1);
    constexpr int kPerDevice = 12;
    std::map<std::string, std::string> sent;  // correlation -> device
    for (int i = 0; i < kPerDevice; i++) {
        if (i == kPerDevice / 2) {
            kill(pidOf("broker.pid"), SIGKILL);
            int status = 1;
            const std::string out = run(std::string(FLEET_SH) + " broker " + dir_ + " 2>&1", &status);
            ASSERT_EQ(status, 0) << out;
            ASSERT_TRUE(eventually([&] { return admin.connect(); }, 10000));
            ASSERT_EQ(admin.subscribe("kep/+/response/ctl-admin"), 1);
            // Some requests are sent while the agents are still away: they end unanswered or late.
        }
        for (const char *device : {"d0001", "d0002"}) {
            const std::string corr = std::string(device) + "-" + std::to_string(i);
            const std::string add = R"({"method":"add","ntp":{"table":"server","para":{"address":"r)" +
                                    std::to_string(i) + R"("}}})";
            admin.publish(std::string("kep/") + device + "/request/ctl-admin", add,
                          std::string("kep/") + device + "/response/ctl-admin", corr, false, false);
            sent[corr] = device;
        }
        admin.pump(60);
    }
    // The agents come back on their own.
    ASSERT_TRUE(
        eventually([&] { return statusOf("d0001") == "online" && statusOf("d0002") == "online"; }, 15000));
    admin.pump(1500);
    std::map<std::string, int> answers;
    for (const Raw::Message &m : admin.received_) answers[m.correlation]++;
    size_t answered = 0;
    for (const auto &a : answers) {
        EXPECT_TRUE(sent.count(a.first)) << "an answer to nothing sent";
        answered++;
    }
    // Most sent before the kill were answered; one in flight when it came may be lost.
    EXPECT_GE(answered, static_cast<size_t>(kPerDevice) - 2);
    // And the agents serve again after the restart.
    for (const char *device : {"d0001", "d0002"}) {
        int status = 1;
        const std::string out =
            kepfleet("ctl-admin", std::string("call ") + device + " " + kGetServers, &status);
        EXPECT_EQ(status, 0) << out;
    }
    // Nothing applied twice: each address at most once on each device, and every one answered is there.
    for (const char *device : {"d0001", "d0002"}) {
        const std::string out = kepfleet("ctl-admin", std::string("call ") + device + " " + kGetServers);
        for (int i = 0; i < kPerDevice; i++) {
            const std::string address = "\"address\":\"r" + std::to_string(i) + "\"";
            EXPECT_LE(count(out, address), 1u) << out;
            if (answers.count(std::string(device) + "-" + std::to_string(i))) {
                EXPECT_EQ(count(out, address), 1u) << device << " r" << i;
            }
        }
    }
}

TEST_F(Fleet, ADeviceThatDiesShowsOfflineAndComesBack) {
    EXPECT_EQ(statusOf("d0002"), "online");
    kill(pidOf("d0002/agent.pid"), SIGKILL);
    EXPECT_TRUE(eventually([&] { return statusOf("d0002") == "offline"; }, 10000));
    EXPECT_EQ(statusOf("d0001"), "online");
    // Unanswered, not waited for: kepfleet skips devices known offline under a pattern.
    const int64_t start = monotonicMs();
    const std::string out = kepfleet("ctl-admin", "call -t 5 'd*' " + std::string(kGetServers));
    EXPECT_LT(monotonicMs() - start, 4000);
    EXPECT_NE(out.find(R"({"device":"d0002","error_code":null,"response":"no answer"})"), std::string::npos)
        << out;
    int status = 1;
    run(std::string(FLEET_SH) + " device " + dir_ + " d0002", &status);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(eventually([&] { return statusOf("d0002") == "online"; }, 10000));
}

}  // namespace
