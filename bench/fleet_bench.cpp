// The fleet against its broker floor, in one run through one broker: tools/fleet.sh
// starts Mosquitto (TLS, passwords, ACL) with N simulated devices (kepd and kepagent
// --simulate each; d0001 runs as a real device: kepd, ntpd, kepagent over the direct
// route) and M floor accounts. The floor (kep_fleet_floor) is M devices in one process
// answering fixed bytes of the fleet's own request and answer sizes, asked by a bare
// libmosquitto controller; the fleet is asked by kepfleet's controller.
//
//   fleet/floor/connect/devices:M/window:100   the floor's M devices connecting, 100 at a time
//   fleet/floor/get/devices:K          every request in flight at once, floor devices (agents stopped)
//   fleet/floor_kepfleet/get/devices:K the same floor devices asked by kepfleet's controller
//   fleet/agents/get/devices:K         a get of the ntp server table from K devices, all in flight
//   fleet/agents/set/devices:N         a set to every device, every device's file checked after
//   fleet/round_trip                   a floor device and d0001 asked in turn, one at a time
//   fleet/direct_route                 the same get over the direct route, in this process
//   fleet/floor/connect/devices:1000/window:{100,1000}   a windowed connect and a storm
//   fleet/agents/broker_restart/devices:N  the broker restarted: all back online, then answering
//   fleet/memory                       resident memory per device
//   fleet/idle_cpu                     CPU per device while nobody asks anything
//
// KEP_FLEET_DEVICES (1000) and KEP_FLEET_FLOOR (10000) set N and M. Run as root, as the
// report does: the devices run as nobody and this process reads their files.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include "bench_support.h"
#include "calls.h"
#include "kep_direct.h"

namespace {

const char kGet[] = R"({"method":"get","ntp":{"table":"server"}})";

struct Setup {
    std::string dir, build = BUILD_DIR;
    int devices = 1000, floor = 10000, port = 0;
    size_t answerBytes = 0;
    bool ok = false;
} g;

std::string deviceName(char kind, int i) {
    char name[16];
    snprintf(name, sizeof name, "%c%04d", kind, i);
    return name;
}

std::vector<std::string> names(char kind, int count) {
    std::vector<std::string> out;
    for (int i = 1; i <= count; i++) out.push_back(deviceName(kind, i));
    return out;
}

kepfleet::BrokerSettings broker(const std::string &user) {
    kepfleet::BrokerSettings b;
    b.port = g.port;
    b.caFile = g.dir + "/ca.pem";
    b.user = user;
    b.passwordFile = g.dir + "/" + user + ".password";
    return b;
}

// The pid of device i's process what ("agent", "kepd", "ntpd") from its pid file; 0 when none.
int devicePid(int i, const char *what) {
    std::ifstream in(g.dir + "/" + deviceName('d', i) + "/" + what + ".pid");
    int pid = 0;
    return in >> pid && pid > 0 ? pid : 0;
}

// Every process of the devices, stopped or let go on: the floor is measured without
// the agents' idle work competing with it.
void signalDevices(int sig, int except = 0) {
    for (int i = 1; i <= g.devices; i++) {
        if (i == except) continue;
        for (const char *what : {"agent", "kepd", "ntpd"})
            if (const int pid = devicePid(i, what)) kill(pid, sig);
    }
}

// The floor program, serving until stopped; its first line says how connecting went.
class FloorProcess {
public:
    bool start(int count, int window, bool connectOnly, int perProcess = 0) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return false;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(fds[1], 1);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            // A session of its own, as tools/fleet.sh gives the simulated devices: each side
            // gets its share of the CPU as a whole, not per process.
            setsid();
            const std::string n = std::to_string(count), a = std::to_string(g.answerBytes),
                              w = std::to_string(window), exe = g.build + "/bench/kep_fleet_floor";
            std::vector<std::string> args = {"kep_fleet_floor", g.dir, n, a, w};
            if (connectOnly) args.push_back("--connect-only");
            if (perProcess > 0) args.insert(args.end(), {"--per-process", std::to_string(perProcess)});
            std::vector<char *> argv;
            for (std::string &arg : args) argv.push_back(&arg[0]);
            argv.push_back(nullptr);
            execv(exe.c_str(), argv.data());
            _exit(127);
        }
        close(fds[1]);
        FILE *in = fdopen(fds[0], "r");
        char line[128] = "";
        const bool got = in && fgets(line, sizeof line, in);
        if (in) fclose(in);
        long long ms = 0;
        return got && sscanf(line, "connected %d failed %d ms %lld", &connected, &failed, &ms) == 3 &&
               (connectMs = static_cast<double>(ms), true);
    }
    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        int status;
        waitpid(pid_, &status, 0);
        pid_ = -1;
    }
    ~FloorProcess() { stop(); }

    int connected = 0, failed = 0;
    double connectMs = 0;

private:
    pid_t pid_ = -1;
};

FloorProcess gFloor;

// The floor's controller: libmosquitto alone, every request published at once.
class BareController {
public:
    bool open(int timeoutMs = 5000) {
        std::string password;
        if (!kepfleet::readPassword(g.dir + "/ctl-view.password", &password)) return false;
        m_ = mosquitto_new("ctl-view", true, this);
        mosquitto_int_option(m_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_int_option(m_, MOSQ_OPT_TCP_NODELAY, 1);
        kepfleet::BrokerSettings tls;
        tls.caFile = g.dir + "/ca.pem";
        if (!kepfleet::useTls(m_, tls)) return false;
        mosquitto_username_pw_set(m_, "ctl-view", password.c_str());
        mosquitto_subscribe_v5_callback_set(
            m_, [](mosquitto *, void *self, int, int, const int *, const mosquitto_property *) {
                static_cast<BareController *>(self)->subscribed_ = true;
            });
        mosquitto_message_v5_callback_set(m_, onMessage);
        if (mosquitto_connect_bind_v5(m_, "localhost", g.port, 60, nullptr, nullptr) != MOSQ_ERR_SUCCESS)
            return false;
        mosquitto_subscribe_v5(m_, nullptr, "kep/+/response/ctl-view", 1, 0, nullptr);
        for (int i = 0; i < timeoutMs / 10 && !subscribed_; i++) mosquitto_loop(m_, 10, 1);
        return subscribed_;
    }
    ~BareController() {
        if (m_) mosquitto_destroy(m_);
    }
    // Sends request to every device at once; the latency of each answer in ns (-1: none
    // within 60 s); returns the time until the last answer.
    int64_t call(const std::vector<std::string> &devices, const std::string &request,
                 std::vector<int64_t> *latencies) {
        expect(devices.size());
        const int64_t start = kep_bench::nowNs();
        for (uint32_t i = 0; i < devices.size(); i++) ask(i, devices[i], request);
        while (waiting_ > 0 && kep_bench::nowNs() - start < 60000000000LL) mosquitto_loop(m_, 10, 1);
        *latencies = got_;
        return kep_bench::nowNs() - start;
    }

    // The parts of a call for one who sends as devices come: answers for count devices are
    // awaited, ask sends device i its request, pump runs the network.
    void expect(size_t count) {
        sent_.assign(count, 0);
        got_.assign(count, -1);
        waiting_ = count;
    }
    void ask(uint32_t i, const std::string &device, const std::string &request) {
        const std::string topic = "kep/" + device + "/request/ctl-view",
                          reply = "kep/" + device + "/response/ctl-view";
        mosquitto_property *props = nullptr;
        mosquitto_property_add_string(&props, MQTT_PROP_RESPONSE_TOPIC, reply.c_str());
        mosquitto_property_add_binary(&props, MQTT_PROP_CORRELATION_DATA, &i, sizeof i);
        sent_[i] = kep_bench::nowNs();
        mosquitto_publish_v5(m_, nullptr, topic.c_str(), static_cast<int>(request.size()), request.data(), 1,
                             false, props);
        mosquitto_property_free_all(&props);
    }
    bool pump(int ms) { return mosquitto_loop(m_, ms, 1) == MOSQ_ERR_SUCCESS; }
    bool answered(uint32_t i) const { return got_[i] >= 0; }
    size_t waiting() const { return waiting_; }
    // Every device's status as it changes, from one subscription (QoS 0, as kepfleet's).
    void watchStatus(std::function<void(const std::string &device, const std::string &status)> onStatus) {
        onStatus_ = std::move(onStatus);
        mosquitto_subscribe_v5(m_, nullptr, "kep/+/status", 0, 0, nullptr);
    }

private:
    static void onMessage(mosquitto *, void *self, const mosquitto_message *msg,
                          const mosquitto_property *props) {
        BareController *c = static_cast<BareController *>(self);
        std::string device, kind, name;
        if (msg->topic && kepfleet::splitTopic(msg->topic, &device, &kind, &name) && kind == "status") {
            if (c->onStatus_)
                c->onStatus_(device, std::string(static_cast<const char *>(msg->payload),
                                                 static_cast<size_t>(msg->payloadlen)));
            return;
        }
        void *corr = nullptr;
        uint16_t len = 0;
        mosquitto_property_read_binary(props, MQTT_PROP_CORRELATION_DATA, &corr, &len, false);
        uint32_t i = UINT32_MAX;
        if (corr && len == sizeof i) memcpy(&i, corr, sizeof i);
        free(corr);
        if (i < c->got_.size() && c->got_[i] < 0) {
            c->got_[i] = kep_bench::nowNs() - c->sent_[i];
            c->waiting_--;
        }
    }

    mosquitto *m_ = nullptr;
    bool subscribed_ = false;
    std::vector<int64_t> sent_, got_;
    size_t waiting_ = 0;
    std::function<void(const std::string &, const std::string &)> onStatus_;
};

// Latencies (ns; -1 unanswered) as counters: p50/p99 in ms, unanswered, messages/s.
void report(benchmark::State &state, std::vector<int64_t> all, int64_t lastNs, size_t errors) {
    std::vector<int64_t> answered;
    for (int64_t ns : all)
        if (ns >= 0) answered.push_back(ns);
    std::sort(answered.begin(), answered.end());
    auto rank = [&](size_t p) {
        return answered.empty() ? 0.0
                                : static_cast<double>(answered[(answered.size() * p + 99) / 100 - 1]) / 1e6;
    };
    state.counters["p50_ms"] = rank(50);
    state.counters["p99_ms"] = rank(99);
    state.counters["last_ms"] = static_cast<double>(lastNs) / 1e6;
    state.counters["no_answer"] = static_cast<double>(all.size() - answered.size());
    state.counters["errors"] = static_cast<double>(errors);
    // A request and its answer each cross the broker twice (in and out).
    state.counters["messages_per_s"] =
        static_cast<double>(2 * answered.size()) / (static_cast<double>(lastNs) / 1e9);
}

void floorGet(benchmark::State &state) {
    const int count = static_cast<int>(state.range(0));
    BareController c;
    if (!c.open()) return state.SkipWithError("the floor's controller cannot connect");
    const std::string request(sizeof kGet - 1, 'r');
    const std::vector<std::string> devices = names('f', count);
    signalDevices(SIGSTOP);
    std::vector<int64_t> all, one;
    int64_t last = 0;
    c.call(devices, request, &one);  // warm-up, untimed: see kepfleetGet
    for (auto _ : state) {
        const int64_t ns = c.call(devices, request, &one);
        state.SetIterationTime(static_cast<double>(ns) / 1e9);
        last = std::max(last, ns);
        all.insert(all.end(), one.begin(), one.end());
    }
    signalDevices(SIGCONT);
    report(state, all, last, 0);
}

// The floor again with a process per device, as the simulated devices are: what this
// machine charges for waking a thousand processes instead of one, beside the broker's cost.
void processFloorGet(benchmark::State &state) {
    const int count = static_cast<int>(state.range(0));
    gFloor.stop();  // its accounts are those this floor logs in with
    FloorProcess floor;
    signalDevices(SIGSTOP);
    const bool up = floor.start(count, 100, false, 1) && floor.connected == count;
    signalDevices(SIGCONT);
    if (!up) return state.SkipWithError("the floor of a process per device did not connect");
    floorGet(state);
}

// Every agent online: the floor's benchmarks stop the devices (SIGSTOP), which can
// outlast an agent's keepalive; the broker then drops it, and it comes back after its
// back-off. The agents are measured once they all are back.
bool allOnline(kepfleet::Controller &c) {
    for (int round = 0; round < 60; round++) {
        size_t online = 0;
        for (const auto &s : c.statuses(100, 3000)) online += s.first[0] == 'd' && s.second == "online";
        if (online >= static_cast<size_t>(g.devices)) return true;
        sleep(1);
    }
    return false;
}

// kepfleet's controller to the devices given, every request in flight at once.
void kepfleetGet(benchmark::State &state, char kind, const std::string &user, bool stopAgents) {
    const int count = static_cast<int>(state.range(0));
    kepfleet::Controller c(broker(user));
    if (!c.open(10000)) return state.SkipWithError("kepfleet's controller cannot connect");
    const std::vector<std::string> devices = names(kind, count);
    if (kind == 'd' && !allOnline(c)) return state.SkipWithError("not every agent came back online");
    if (stopAgents) signalDevices(SIGSTOP);
    // One untimed call first, as for the floor: the devices resumed after the floor's
    // benchmarks catch up on their timers and keepalives at once, and the first timed
    // call would measure that burst instead of the get.
    c.call(devices, kGet, count, 30000, [](const kepfleet::Outcome &) {});
    std::vector<int64_t> all;
    int64_t last = 0;
    size_t errors = 0;
    for (auto _ : state) {
        const int64_t start = kep_bench::nowNs();
        c.call(devices, kGet, count, 30000, [&](const kepfleet::Outcome &o) {
            all.push_back(o.answered ? kep_bench::nowNs() - start : -1);
            if (o.answered && kind == 'd' && kepfleet::errorCodeOf(o.response, -1) != 0) errors++;
        });
        const int64_t ns = kep_bench::nowNs() - start;
        state.SetIterationTime(static_cast<double>(ns) / 1e9);
        last = std::max(last, ns);
    }
    if (stopAgents) signalDevices(SIGCONT);
    report(state, all, last, errors);
}

void floorKepfleetGet(benchmark::State &state) {
    kepfleetGet(state, 'f', "ctl-admin", true);
}

void agentsGet(benchmark::State &state) {
    kepfleetGet(state, 'd', "ctl-admin", false);
}

// A set of the ntp settings to every device, then every device's file read back.
void agentsSet(benchmark::State &state) {
    const int count = static_cast<int>(state.range(0));
    kepfleet::Controller c(broker("ctl-admin"));
    if (!c.open(10000)) return state.SkipWithError("kepfleet's controller cannot connect");
    const std::vector<std::string> devices = names('d', count);
    if (!allOnline(c)) return state.SkipWithError("not every agent came back online");
    int value = 100, filesRight = 0;
    size_t errors = 0, noAnswer = 0;
    for (auto _ : state) {
        value++;
        const std::string set =
            R"({"method":"set","ntp":{"main":{"intervalMinutes":)" + std::to_string(value) + "}}}";
        const int64_t start = kep_bench::nowNs();
        c.call(devices, set, count, 30000, [&](const kepfleet::Outcome &o) {
            if (!o.answered)
                noAnswer++;
            else if (kepfleet::errorCodeOf(o.response, -1) != 0)
                errors++;
        });
        state.SetIterationTime(static_cast<double>(kep_bench::nowNs() - start) / 1e9);
    }
    const std::string expect = "\"intervalMinutes\":" + std::to_string(value);
    for (const std::string &d : devices) {
        std::string text = kep_bench::readText(g.dir + "/" + d + "/ntp.json");
        text.erase(std::remove_if(text.begin(), text.end(), [](char ch) { return ch == ' ' || ch == '\n'; }),
                   text.end());
        if (text.find(expect) != std::string::npos) filesRight++;
    }
    state.counters["files_right"] = filesRight;
    state.counters["errors"] = static_cast<double>(errors);
    state.counters["no_answer"] = static_cast<double>(noAnswer);
}

// One device asked at a time by kepfleet's controller, in pairs: a floor device, then
// d0001, the real device whose agent serves reads over the direct route. The agent's
// share is the difference within each pair, so that a drift of the machine's load
// weighs on both alike. Every other device is stopped meanwhile.
void roundTrip(benchmark::State &state) {
    kepfleet::Controller c(broker("ctl-admin"));
    if (!c.open(10000)) return state.SkipWithError("kepfleet's controller cannot connect");
    if (!allOnline(c)) return state.SkipWithError("not every agent came back online");
    kep_bench::Latencies floor, agent, share;
    bool answered = true;
    auto ask = [&](const char *device) {
        const int64_t start = kep_bench::nowNs();
        c.call({device}, kGet, 1, 5000,
               [&](const kepfleet::Outcome &o) { answered = answered && o.answered; });
        return kep_bench::nowNs() - start;
    };
    signalDevices(SIGSTOP, 1);
    for (auto _ : state) {
        const int64_t f = ask("f0001"), a = ask("d0001");
        floor.add(f);
        agent.add(a);
        share.add(a - f);
    }
    signalDevices(SIGCONT, 1);
    if (!answered) state.SkipWithError("a request went unanswered");
    state.counters["floor_p50_us"] = floor.percentileUs(50);
    state.counters["floor_p99_us"] = floor.percentileUs(99);
    state.counters["agent_p50_us"] = agent.percentileUs(50);
    state.counters["agent_p99_us"] = agent.percentileUs(99);
    state.counters["share_p50_us"] = share.percentileUs(50);
}

// The same get over the direct route to d0001's owner, as its agent makes it: in a
// child running as the device's user (a root process refuses a runtime folder that
// another user owns), which sends back each request's time.
void directRoute(benchmark::State &state) {
    const int count = static_cast<int>(state.max_iterations);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return state.SkipWithError("no pipe");
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        struct stat st;
        const std::string run = g.dir + "/d0001/run";
        if (stat(run.c_str(), &st) != 0 ||
            (geteuid() == 0 && (setgid(st.st_gid) != 0 || setuid(st.st_uid) != 0)))
            _exit(1);
        setenv("KEP_RUNTIME_DIR", run.c_str(), 1);
        if (kepDirectOpen() != 0) _exit(1);
        for (int i = 0; i < count; i++) {
            char *response = nullptr;
            const int64_t start = kep_bench::nowNs();
            kepDirectRequestFor("ctl-admin", kGet, &response);
            const int64_t ns = kep_bench::nowNs() - start;
            free(response);
            if (write(fds[1], &ns, sizeof ns) != static_cast<ssize_t>(sizeof ns)) _exit(1);
        }
        _exit(0);
    }
    close(fds[1]);
    signalDevices(SIGSTOP, 1);
    kep_bench::Latencies lat;
    bool complete = true;
    for (auto _ : state) {
        int64_t ns = 0;
        complete = complete && read(fds[0], &ns, sizeof ns) == static_cast<ssize_t>(sizeof ns);
        state.SetIterationTime(static_cast<double>(ns) / 1e9);
        lat.add(ns);
    }
    close(fds[0]);
    signalDevices(SIGCONT, 1);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!complete) return state.SkipWithError("no direct route to d0001");
    lat.report(state);
}

// count floor devices connecting window at a time, then gone again.
void floorConnect(benchmark::State &state) {
    const int count = static_cast<int>(state.range(0)), window = static_cast<int>(state.range(1));
    const int perProcess = static_cast<int>(state.range(2));  // 0: as many as descriptors allow
    signalDevices(SIGSTOP);
    int failed = 0, connected = 0;
    for (auto _ : state) {
        FloorProcess p;
        if (!p.start(count, window, true, perProcess)) {
            signalDevices(SIGCONT);
            return state.SkipWithError("the floor did not report");
        }
        state.SetIterationTime(p.connectMs / 1e3);
        failed += p.failed;
        connected += p.connected;
        p.stop();
    }
    signalDevices(SIGCONT);
    state.counters["failed"] = failed;
    state.counters["connected"] = connected;
}

// Lines of the agents' logs and the broker's log that tell of a failed connection.
size_t failuresSince(std::map<std::string, size_t> *offsets, bool count) {
    size_t failures = 0;
    std::vector<std::string> logs{g.dir + "/broker.log"};
    for (int i = 1; i <= g.devices; i++) logs.push_back(g.dir + "/" + deviceName('d', i) + "/agent.log");
    for (const std::string &log : logs) {
        std::ifstream in(log);
        in.seekg(0, std::ios::end);
        const size_t end = static_cast<size_t>(in.tellg());
        if (count) {
            in.seekg(static_cast<std::streamoff>((*offsets)[log]));
            std::string line;
            while (std::getline(in, line))
                // Refused means nobody listened: an attempt from before the broker did,
                // logged after (on loopback a full accept queue drops, it never refuses).
                if ((line.find("cannot connect") != std::string::npos &&
                     line.find("Connection refused") == std::string::npos) ||
                    line.find("refused the connection") != std::string::npos ||
                    line.find("OpenSSL Error") != std::string::npos ||
                    line.find("protocol error") != std::string::npos) {
                    failures++;
                    fprintf(stderr, "fleet: failed connection: %s: %s\n", log.c_str(), line.c_str());
                }
        }
        (*offsets)[log] = end;
    }
    return failures;
}

// Whether the broker accepts TCP connections on its port.
bool listening() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(g.port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool up = fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    if (fd >= 0) close(fd);
    return up;
}

// The broker stopped and started again under every agent: from the moment it listens
// again, the time until all say "online" again, and until all have answered a get, each
// asked as soon as it says so (again, if it drops out before answering); failed
// connections meanwhile.
void brokerRestart(benchmark::State &state) {
    const int count = g.devices;
    const std::vector<std::string> devices = names('d', count);
    size_t failures = 0, unanswered = 0;
    double onlineMs = 0, answeredMs = 0, listenMs = 0;
    {
        kepfleet::Controller c(broker("ctl-admin"));
        if (!c.open(10000) || !allOnline(c)) return state.SkipWithError("not every agent is online before");
    }
    for (auto _ : state) {
        if (system(("kill $(cat " + g.dir + "/broker.pid); while kill -0 $(cat " + g.dir +
                    "/broker.pid) 2>/dev/null; do sleep 0.01; done")
                       .c_str()) != 0)
            return state.SkipWithError("cannot stop the broker");
        const pid_t pid = fork();
        if (pid == 0) {
            kep_bench::redirect(g.dir + "/broker.out");
            setsid();  // as tools/fleet.sh starts it
            execlp("mosquitto", "mosquitto", "-c", (g.dir + "/mosquitto.conf").c_str(),
                   static_cast<char *>(nullptr));
            _exit(127);
        }
        const int64_t forked = kep_bench::nowNs();
        std::ofstream(g.dir + "/broker.pid") << pid << "\n";
        // Times and failures count from the moment the broker listens: a device that
        // tried before then found nobody there, which is what a restart is.
        std::map<std::string, size_t> offsets;
        for (int i = 0; i < 5000 && !listening(); i++) usleep(1000);
        const int64_t start = kep_bench::nowNs();
        listenMs = static_cast<double>(start - forked) / 1e6;
        failuresSince(&offsets, false);
        BareController c;
        if (!c.open(30000)) return state.SkipWithError("the controller cannot connect after the restart");
        c.expect(devices.size());
        std::vector<bool> online(devices.size(), false);
        int64_t lastOnline = start;
        c.watchStatus([&](const std::string &device, const std::string &status) {
            if (device.size() != 5 || device[0] != 'd') return;
            const uint32_t i = static_cast<uint32_t>(atoi(device.c_str() + 1) - 1);
            if (i >= devices.size()) return;
            const bool now = status == "online";
            if (now && !online[i]) {
                lastOnline = kep_bench::nowNs();
                if (!c.answered(i)) c.ask(i, device, kGet);
            }
            online[i] = now;
        });
        const int64_t giveUp = start + 120000000000LL;
        while (c.waiting() > 0 && kep_bench::nowNs() < giveUp) c.pump(10);
        onlineMs = static_cast<double>(lastOnline - start) / 1e6;
        unanswered += c.waiting();
        const int64_t ns = kep_bench::nowNs() - start;
        answeredMs = static_cast<double>(ns) / 1e6;
        state.SetIterationTime(static_cast<double>(ns) / 1e9);
        // When the broker let the agents in, a second at a time (its log's timestamps).
        std::ifstream log(g.dir + "/broker.log");
        log.seekg(static_cast<std::streamoff>(offsets[g.dir + "/broker.log"]));
        std::map<long, int> perSecond;
        for (std::string line; std::getline(log, line);)
            if (line.find("New client connected") != std::string::npos) perSecond[atol(line.c_str())]++;
        std::string seconds;
        for (const auto &p : perSecond)
            seconds +=
                " " + std::to_string(p.first - perSecond.begin()->first) + "s:" + std::to_string(p.second);
        fprintf(stderr, "fleet: broker restart: agents let in, by second:%s\n", seconds.c_str());
        failures += failuresSince(&offsets, true);
    }
    state.counters["listen_ms"] = listenMs;
    state.counters["online_ms"] = onlineMs;
    state.counters["answered_ms"] = answeredMs;
    state.counters["failed_connections"] = static_cast<double>(failures);
    state.counters["no_answer"] = static_cast<double>(unanswered);
}

// Mean resident and private memory of a device's processes (kB from smaps_rollup).
void memory(benchmark::State &state) {
    std::map<std::string, std::vector<double>> kb;
    for (auto _ : state) {
        // From d0002: d0001 is the real device, with ntpd.
        for (int i = 2; i <= g.devices; i++) {
            for (const char *what : {"agent", "kepd"}) {
                const int pid = devicePid(i, what);
                if (!pid) continue;
                std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
                std::string line;
                while (std::getline(in, line)) {
                    std::istringstream words(line);
                    std::string key;
                    double value = 0;
                    words >> key >> value;
                    if (key == "Rss:" || key == "Pss:" || key == "Private_Dirty:")
                        kb[std::string(what) + "_" + key.substr(0, key.size() - 1)].push_back(value);
                }
            }
        }
    }
    for (auto &entry : kb) {
        double sum = 0;
        for (double v : entry.second) sum += v;
        state.counters[entry.first + "_kB"] =
            entry.second.empty() ? 0 : sum / static_cast<double>(entry.second.size());
    }
}

// CPU time (utime + stime, clock ticks) of a process; 0 when it is gone.
double cpuTicks(int pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(in, text);
    const size_t end = text.rfind(')');
    if (end == std::string::npos) return 0;
    std::istringstream fields(text.substr(end + 2));
    std::string field;
    double utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; i++) {
        if (i == 14) utime = atof(field.c_str());
        if (i == 15) stime = atof(field.c_str());
    }
    return utime + stime;
}

// What the devices cost while nobody asks them anything: CPU ms per second per device,
// over 10 s.
void idleCpu(benchmark::State &state) {
    std::map<std::string, std::vector<int>> pids;
    for (int i = 2; i <= g.devices; i++) {
        for (const char *what : {"agent", "kepd"})
            if (const int pid = devicePid(i, what)) pids[what].push_back(pid);
    }
    auto total = [](const std::vector<int> &list) {
        double ticks = 0;
        for (int pid : list) ticks += cpuTicks(pid);
        return ticks;
    };
    const double hz = static_cast<double>(sysconf(_SC_CLK_TCK));
    for (auto _ : state) {
        std::map<std::string, double> before;
        for (auto &entry : pids) before[entry.first] = total(entry.second);
        const int64_t start = kep_bench::nowNs();
        sleep(10);
        const double seconds = static_cast<double>(kep_bench::nowNs() - start) / 1e9;
        for (auto &entry : pids) {
            const double ms = (total(entry.second) - before[entry.first]) / hz * 1000;
            state.counters[entry.first + "_ms_per_s"] =
                ms / seconds / static_cast<double>(std::max<size_t>(1, entry.second.size()));
        }
    }
}

int run(const std::string &command) {
    const int rc = system(command.c_str());
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : 1;
}

bool setUp() {
    if (const char *n = getenv("KEP_FLEET_DEVICES")) g.devices = atoi(n);
    if (const char *m = getenv("KEP_FLEET_FLOOR")) g.floor = atoi(m);
    if (g.devices < 1 || g.devices > 9999 || g.floor < 1) return false;
    g.dir = "/tmp/kfb" + std::to_string(getpid());
    // The controllers await up to every floor device's answer at once.
    const std::string env =
        "FLEET_REAL=1 FLEET_FLOOR=" + std::to_string(g.floor) + " FLEET_QUEUE=" + std::to_string(2 * g.floor);
    if (run(env + " " + std::string(FLEET_SH) + " up " + g.dir + " " + std::to_string(g.devices) + " " +
            g.build + " >&2") != 0)
        return false;
    std::ifstream(g.dir + "/port") >> g.port;
    // The floor answers with as many bytes as a device does.
    kepfleet::Controller c(broker("ctl-admin"));
    if (!c.open(10000)) return false;
    c.call({"d0002"}, kGet, 1, 10000, [](const kepfleet::Outcome &o) { g.answerBytes = o.response.size(); });
    if (g.answerBytes == 0) return false;
    fprintf(stderr, "fleet: request %zu bytes, answer %zu bytes\n", sizeof kGet - 1, g.answerBytes);
    signalDevices(SIGSTOP);
    const bool floorUp = gFloor.start(g.floor, 100, false);
    signalDevices(SIGCONT);
    fprintf(stderr, "fleet: the floor's %d devices: %d connected, %d failed in %.0f ms\n", g.floor,
            gFloor.connected, gFloor.failed, gFloor.connectMs);
    return floorUp && gFloor.connected == g.floor;
}

void tearDown() {
    gFloor.stop();
    if (!g.dir.empty()) {
        run(std::string(FLEET_SH) + " down " + g.dir + " >&2");
        kep_bench::removeTree(g.dir);
    }
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    signal(SIGPIPE, SIG_IGN);
    mosquitto_lib_init();
    const bool up = setUp();
    if (!up) {
        fprintf(stderr, "fleet: the fleet did not come up (files in %s)\n", g.dir.c_str());
        tearDown();
        return 1;
    }
    using benchmark::kMicrosecond;
    using benchmark::kMillisecond;
    // The floor's connect was timed when it started, 100 at a time.
    benchmark::RegisterBenchmark(
        ("fleet/floor/connect_all/devices:" + std::to_string(g.floor) + "/window:100").c_str(),
        [](benchmark::State &state) {
            for (auto _ : state) state.SetIterationTime(gFloor.connectMs / 1e3);
            state.counters["failed"] = gFloor.failed;
        })
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(kMillisecond);
    std::vector<int> sizes;
    for (int n : {100, 1000, 10000})
        if (n <= g.floor) sizes.push_back(n);
    for (int n : sizes)
        benchmark::RegisterBenchmark("fleet/floor/get", floorGet)
            ->Arg(n)
            ->ArgName("devices")
            ->Iterations(5)
            ->UseManualTime()
            ->Unit(kMillisecond);
    for (int n : sizes)
        benchmark::RegisterBenchmark("fleet/floor_kepfleet/get", floorKepfleetGet)
            ->Arg(n)
            ->ArgName("devices")
            ->Iterations(5)
            ->UseManualTime()
            ->Unit(kMillisecond);
    for (int n : {100, 1000, 10000})
        if (n <= g.devices)
            benchmark::RegisterBenchmark("fleet/agents/get", agentsGet)
                ->Arg(n)
                ->ArgName("devices")
                ->Iterations(5)
                ->UseManualTime()
                ->Unit(kMillisecond);
    benchmark::RegisterBenchmark("fleet/agents/set", agentsSet)
        ->Arg(g.devices)
        ->ArgName("devices")
        ->Iterations(3)
        ->UseManualTime()
        ->Unit(kMillisecond);
    benchmark::RegisterBenchmark("fleet/round_trip", roundTrip)->Iterations(1000)->Unit(kMicrosecond);
    benchmark::RegisterBenchmark("fleet/direct_route", directRoute)
        ->Iterations(1000)
        ->UseManualTime()
        ->Unit(kMicrosecond);
    benchmark::RegisterBenchmark("fleet/memory", memory)->Iterations(1);
    benchmark::RegisterBenchmark("fleet/idle_cpu", idleCpu)->Iterations(1)->Unit(kMillisecond);
    // The floor's connects and its process per device last: they take the floor's own
    // devices down.
    for (int n : {100, 1000})
        if (n <= g.floor && n <= g.devices)
            benchmark::RegisterBenchmark("fleet/floor_per_process/get", processFloorGet)
                ->Arg(n)
                ->ArgName("devices")
                ->Iterations(5)
                ->UseManualTime()
                ->Unit(kMillisecond);
    const int connecting = std::min(1000, g.floor);
    benchmark::RegisterBenchmark("fleet/floor/connect",
                                 [](benchmark::State &s) { gFloor.stop(), floorConnect(s); })
        ->Args({connecting, 100, 0})
        ->ArgNames({"devices", "window", "per_process"})
        ->Iterations(3)
        ->UseManualTime()
        ->Unit(kMillisecond);
    // All at once, what clients without back-off do after a broker restart: SYNs beyond
    // the listen backlog wait for their retransmission, seconds each.
    benchmark::RegisterBenchmark("fleet/floor/connect", floorConnect)
        ->Args({connecting, connecting, 0})
        ->ArgNames({"devices", "window", "per_process"})
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(kMillisecond);
    // All at once, each device a process of its own, as agents come back after a restart.
    benchmark::RegisterBenchmark("fleet/floor_per_process/connect", floorConnect)
        ->Args({connecting, connecting, 1})
        ->ArgNames({"devices", "window", "per_process"})
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(kMillisecond);
    benchmark::RegisterBenchmark("fleet/agents/broker_restart", brokerRestart)
        ->Arg(g.devices)
        ->ArgName("devices")
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(kMillisecond);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    tearDown();
    mosquitto_lib_cleanup();
    return 0;
}
