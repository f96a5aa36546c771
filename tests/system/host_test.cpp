// The host daemon across real processes: kepd with the example owners dhcpd and
// sysd, driven by kepctl and by this process, which also plays the hostile local
// process of the same user.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kep_direct.h"
#include "kep_host.h"
#include "kep_pf_rpc.h"
#include "kep_tree.h"
#include "processes.h"

namespace {

using namespace kep_test;

struct Ran {
    int status;
    std::string output;  // standard output and error together
    std::string out, err;
};

class Host : public ::testing::Test {
protected:
    void SetUp() override {
        // This process is a client too: it uses the same runtime folder.
        dir_ = systemTestFolder("/tmp/kh");
        ASSERT_FALSE(dir_.empty());
        writeModel("dhcpd/dhcp.xml.in", dir_, dir_ + "/dhcp.xml");
        writeModel("sysd/system.xml.in", dir_, dir_ + "/system.xml");
        startOwners();
        startHost();
        ASSERT_TRUE(waitServed());
    }

    void TearDown() override {
        for (pid_t *p : {&kepd_, &dhcpd_, &sysd_}) {
            if (*p > 0) {
                kill(*p, SIGCONT);
                kill(*p, SIGTERM);
                reap(*p, 3000);
            }
            *p = -1;
        }
        qxImiSetTimeout(0);
        if (HasFailure()) {
            for (const char *log : {"kepd.log", "dhcpd.log", "sysd.log"})
                printf("---- %s\n%s", log, readText(dir_ + "/" + log).c_str());
        }
        std::filesystem::remove_all(dir_);
    }

    void startOwners() {
        dhcpd_ = spawn({DHCPD_PATH, dir_ + "/dhcp.xml"}, dir_ + "/dhcpd.log");
        sysd_ = spawn({SYSD_PATH, dir_ + "/system.xml"}, dir_ + "/sysd.log");
    }

    void startHost(std::vector<std::string> extra = {}) {
        std::vector<std::string> argv = {KEPD_PATH, "-m", dir_ + "/dhcp.xml", "-m", dir_ + "/system.xml"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        kepd_ = spawn(argv, dir_ + "/kepd.log");
    }

    // Both owners have registered everything (their last registrations are in the
    // tree) and answer through the host.
    bool waitServed(int ms = 10000) {
        auto until = Clock::now() + std::chrono::milliseconds(ms * kSlow);
        while (Clock::now() < until) {
            char *dump = nullptr;
            const bool registered = kepHostFetch("kepd.dump", &dump) == 0 &&
                                    strstr(dump, "/dhcp/restart:do") && strstr(dump, "/dhcp/pool/lan:note");
            free(dump);
            if (registered && request(R"({"method":"get","dhcp":{"table":"host"},"system":{"name":"ntp"}})")
                                      .find("\"error_code\":0") != std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    // The response text, or "rpc <code>" when the host could not be asked.
    std::string request(const std::string &text) { return hostRequest(text); }

    // Runs argv to its end, with input (when given) on its standard input.
    Ran run(const std::vector<std::string> &argv, const std::string &input = "") {
        const std::string log = dir_ + "/ran." + std::to_string(counter_++);
        if (!input.empty()) writeText(log + ".in", input);
        int status = reap(spawn(argv, log + ".out", log + ".err", input.empty() ? "" : log + ".in"), 20000);
        const std::string out = readText(log + ".out"), err = readText(log + ".err");
        return {status, out + err, out, err};
    }

    Ran kepctl(const std::vector<std::string> &args, const std::string &input = "") {
        std::vector<std::string> argv = {KEPCTL_PATH, "-c"};
        argv.insert(argv.end(), args.begin(), args.end());
        return run(argv, input);
    }

    std::string socketOf(pid_t pid) const { return dir_ + "/run/imi-" + std::to_string(pid) + ".sock"; }

    std::string dir_;
    pid_t kepd_ = -1, dhcpd_ = -1, sysd_ = -1;
    std::atomic<int> counter_{0};
};

int rawConnect(const std::string &path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A stopped owner and clients that stall half-way cost only their own callers: the
// healthy owner's reads are answered at once meanwhile.
TEST_F(Host, AStoppedOwnerOrAStalledClientDelaysNobodyElse) {
    ASSERT_TRUE(stopProcess(dhcpd_));
    std::vector<std::thread> waiting;
    std::atomic<int> timedOut{0};
    for (int i = 0; i < 4; i++) {
        waiting.emplace_back([&] {
            if (request(R"({"method":"get","dhcp":{"table":"host"}})").find("\"error_code\":0") ==
                std::string::npos)
                timedOut++;
        });
    }
    std::vector<int> stalled;
    for (int i = 0; i < 4; i++) {
        int fd = rawConnect(socketOf(kepd_));
        ASSERT_GE(fd, 0);
        ASSERT_EQ(send(fd, "K", 1, MSG_NOSIGNAL), 1);
        stalled.push_back(fd);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    long slowest = 0;
    for (int i = 0; i < 20; i++) {
        auto t = Clock::now();
        EXPECT_NE(request(R"({"method":"get","system":{"name":"ntp"}})").find("\"error_code\":0"),
                  std::string::npos);
        slowest = std::max(slowest, msSince(t));
    }
    EXPECT_LT(slowest, 300 * kSlow) << "a read of the healthy owner waited";
    for (std::thread &t : waiting) t.join();
    EXPECT_EQ(timedOut, 4);
    for (int fd : stalled) close(fd);
    kill(dhcpd_, SIGCONT);
}

// A process of the same user can neither take a live owner's slot nor make the host
// drop another's registrations; it registers only as itself, within its bound.
TEST_F(Host, NoProcessTakesOverAnotherOwnersRegistrations) {
    EXPECT_EQ(kepHostRegister("unregister", nullptr, 0, nullptr), 0);  // drops only this process's own
    EXPECT_EQ(kepHostRegister("method", "/dhcp/host", KEP_METHOD_GET, "evil"), KEP_HOST_ERR_TAKEN);
    EXPECT_EQ(kepHostRegister("action", "/dhcp/restart", 0, "evil"), KEP_HOST_ERR_TAKEN);
    EXPECT_EQ(kepHostRegister("method", "/dhcp/pool/lan", KEP_METHOD_SET, "evil"), KEP_HOST_ERR_TAKEN);
    // A "pid" member claiming to be the owner changes nothing.
    QxRpcPara set;
    qxrpcParaInit(&set);
    qxrpcAddStringPtr(&set, "op", "unregister");
    qxrpcAddInt(&set, "pid", static_cast<int>(dhcpd_));
    ASSERT_EQ(qxImiExecute(static_cast<int>(kepd_), "kepd.register", 0, 0, &set), 0);
    qxrpcParaFree(&set);
    const std::string rows = request(R"({"method":"get","dhcp":{"table":"host"}})");
    EXPECT_NE(rows.find("\"hostname\":\"nas\""), std::string::npos) << rows;
    const std::string log = readText(dir_ + "/kepd.log");
    EXPECT_NE(log.find("refused register method /dhcp/host from pid " + std::to_string(getpid())),
              std::string::npos)
        << log;

    // Free slots are there for the taking, up to the bound of one owner.
    int registered = 0, rc = 0;
    while ((rc = kepHostRegister("notify", "/system/time/ntp", 0, "listener")) == 0 && registered < 1000)
        registered++;
    EXPECT_EQ(rc, KEP_HOST_ERR_LIMIT);
    EXPECT_EQ(registered, 256);
    EXPECT_EQ(kepHostRegister("unregister", nullptr, 0, nullptr), 0);
    EXPECT_EQ(kepHostRegister("notify", "/system/time/ntp", 0, "listener"), 0);

    // Once the owner is gone its slots are free.
    kill(dhcpd_, SIGKILL);
    reap(dhcpd_);
    dhcpd_ = -1;
    auto until = Clock::now() + std::chrono::seconds(5);
    while ((rc = kepHostRegister("method", "/dhcp/host", KEP_METHOD_GET, "mine")) == KEP_HOST_ERR_TAKEN &&
           Clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(rc, 0);
}

// One host per runtime folder; its runtime files are never reached through a link.
TEST_F(Host, RuntimeFilesCannotBeTurnedAgainstTheHost) {
    const std::string log = dir_ + "/kepd2.log";
    EXPECT_EQ(reap(spawn({KEPD_PATH, "-m", dir_ + "/dhcp.xml"}, log)), 1);
    EXPECT_NE(readText(log).find("another kepd (pid " + std::to_string(kepd_) + ") holds"), std::string::npos)
        << readText(log);
    EXPECT_EQ(kepHostPid(), kepd_);

    // A link planted where a pid file is to be written: refused, its target untouched.
    const std::string target = dir_ + "/precious", planted = dir_ + "/planted.pid";
    writeText(target, "keep me");
    ASSERT_EQ(symlink(target.c_str(), planted.c_str()), 0);
    EXPECT_EQ(reap(spawn({KEPD_PATH, "-r", dir_ + "/other", "-p", planted}, log)), 1);
    EXPECT_EQ(readText(target), "keep me");
    EXPECT_NE(readText(log).find("symbolic link"), std::string::npos);

    // A runtime folder that is a link, or open to others, is refused and named.
    ASSERT_EQ(symlink((dir_ + "/run").c_str(), (dir_ + "/linked").c_str()), 0);
    ASSERT_EQ(mkdir((dir_ + "/open").c_str(), 0777), 0);
    ASSERT_EQ(chmod((dir_ + "/open").c_str(), 0777), 0);
    for (const char *name : {"/linked", "/open"}) {
        writeText(log, "");
        EXPECT_EQ(reap(spawn({KEPD_PATH, "-r", dir_ + name}, log)), 1) << name;
        EXPECT_NE(readText(log).find("runtime folder " + dir_ + name), std::string::npos) << readText(log);
        EXPECT_NE(readText(log).find("KEP_RUNTIME_DIR"), std::string::npos);
    }
}

// CPU time pid has used, user and system, in milliseconds.
long cpuMs(pid_t pid) {
    const std::string stat = readText("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string f;
    long ticks = 0;
    for (int i = 3; i <= 15 && fields >> f; i++) {
        if (i >= 14) ticks += std::stol(f);
    }
    return ticks * 1000 / sysconf(_SC_CLK_TCK);
}

// An owner that has exited but is not reaped yet (its parent has not waited for it)
// is dropped at once, and costs the host nothing meanwhile.
TEST_F(Host, AnOwnerNotReapedYetIsDroppedAtOnce) {
    const std::string gone = "owner " + std::to_string(dhcpd_) + " is gone";
    ASSERT_EQ(kill(dhcpd_, SIGKILL), 0);  // reaped only at the end
    auto until = Clock::now() + std::chrono::milliseconds(2000 * kSlow);
    while (readText(dir_ + "/kepd.log").find(gone) == std::string::npos && Clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_NE(readText(dir_ + "/kepd.log").find(gone), std::string::npos);
    const long before = cpuMs(kepd_);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_LT(cpuMs(kepd_) - before, 100) << "the host spins on the exited owner";
    reap(dhcpd_);
    dhcpd_ = -1;
}

// The owners notice a new host by themselves and register with it.
TEST_F(Host, OwnersComeBackAfterTheHostRestarts) {
    const pid_t old = kepd_;
    kill(kepd_, SIGKILL);
    reap(kepd_);
    auto restarted = Clock::now();
    startHost();
    ASSERT_TRUE(waitServed(5000));
    EXPECT_LT(msSince(restarted), 1500 * kSlow);
    // The dead host's socket file was removed by whoever met it.
    EXPECT_FALSE(std::filesystem::exists(socketOf(old)));
    int sockets = 0;
    for (const auto &e : std::filesystem::directory_iterator(dir_ + "/run"))
        sockets += e.path().extension() == ".sock";
    EXPECT_EQ(sockets, 3) << "kepd, dhcpd and sysd";
}

// Clients that gave up on a stopped owner were told their write failed or that its
// outcome is unknown; none of those writes may land once the owner resumes.
TEST_F(Host, WritesWhoseClientsGaveUpAreNeverApplied) {
    ASSERT_TRUE(stopProcess(dhcpd_));
    std::vector<pid_t> clients;
    for (int i = 0; i < 100; i++) {
        const std::string para = "{\"hostname\":\"late" + std::to_string(i) + "\"}";
        clients.push_back(
            spawn({KEPCTL_PATH, "-w", "0.4", "set", "dhcp", "host_1", para}, dir_ + "/late.log"));
    }
    int unknown = 0, failed = 0;
    std::string others;
    for (pid_t p : clients) {
        int status = reap(p, 20000);
        unknown += status == 4;
        failed += status == 1;
        if (status != 1 && status != 4) others += " " + std::to_string(status);
    }
    EXPECT_EQ(unknown + failed, 100) << "other exit statuses:" << others << "\n"
                                     << readText(dir_ + "/late.log");
    ASSERT_EQ(kill(dhcpd_, SIGCONT), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const std::string rows = request(R"({"method":"get","dhcp":{"table":"host"}})");
    EXPECT_EQ(rows.find("late"), std::string::npos) << rows;
    EXPECT_EQ(readText(dir_ + "/dhcp.json").find("late"), std::string::npos);
}

// Twenty writers at once on one module: every add that was answered 0 is in the file.
TEST_F(Host, ParallelWritersOnOneModuleAllLand) {
    std::vector<std::thread> writers;
    std::vector<int> ok(20);
    for (int i = 0; i < 20; i++) {
        writers.emplace_back([&, i] {
            char req[256];
            snprintf(
                req, sizeof req,
                R"({"method":"add","dhcp":{"table":"host","para":{"mac":"02:00:00:00:10:%02x","ip":"10.0.0.%d","hostname":"w%d"}}})",
                i, i + 10, i);
            ok[i] = request(req).find("\"error_code\":0") != std::string::npos;
        });
    }
    for (std::thread &t : writers) t.join();
    const std::string file = readText(dir_ + "/dhcp.json");
    for (int i = 0; i < 20; i++) {
        EXPECT_TRUE(ok[i]) << "writer " << i;
        char mac[32];
        snprintf(mac, sizeof mac, "02:00:00:00:10:%02x", i);
        if (ok[i]) {
            EXPECT_NE(file.find(mac), std::string::npos) << "writer " << i;
        }
    }
}

// Requests keep flowing, through the host and the direct route, while registrations
// come and go: an owner restarts twice, and this process registers and unregisters
// listeners all along (so the direct route keeps taking new copies).
TEST_F(Host, RegistrationsAndRestartsWhileRequestsRun) {
    ASSERT_EQ(kepDirectOpen(), 0);
    std::atomic<bool> done{false};
    std::atomic<int> answered{0}, malformed{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; i++) {
        clients.emplace_back([&, i] {
            const char *req = R"({"method":"get","system":{"name":["ntp","zone"]},"dhcp":{"table":"host"}})";
            while (!done) {
                char *out = nullptr;
                int rc = i % 2 ? kepDirectRequest(req, &out) : kepHostRequest(req, &out);
                answered++;
                if (rc != 0 || !out || !strstr(out, "\"error_code\"")) malformed++;
                free(out);
            }
        });
    }
    std::thread churn([&] {
        while (!done) {
            kepHostRegister("notify", "/dhcp/pool/lan", 0, "listener");
            kepHostRegister("verify", "/system/time/zone", 0, "checker");
            kepHostRegister("unregister", nullptr, 0, nullptr);
        }
    });
    for (int restart = 0; restart < 2; restart++) {
        kill(sysd_, SIGKILL);
        reap(sysd_);
        sysd_ = spawn({SYSD_PATH, dir_ + "/system.xml"}, dir_ + "/sysd.log");
        EXPECT_TRUE(waitServed(5000)) << "restart " << restart;
    }
    done = true;
    for (std::thread &t : clients) t.join();
    churn.join();
    EXPECT_GT(answered, 0);
    EXPECT_EQ(malformed, 0);
    EXPECT_TRUE(waitServed(2000));
    EXPECT_EQ(kill(kepd_, 0), 0) << "the host survived";
    EXPECT_GT(kepDirectRefreshes(), 2u);
    kepDirectClose();
}

// ---- access rules ----

// Runs fn in a child with the given user and group; its exit status, or -1.
template <typename Fn>
int asUser(uid_t uid, gid_t gid, Fn fn) {
    pid_t pid = fork();
    if (pid == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) _exit(100);
        _exit(fn());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A malformed rule stops the host at start, naming the file, the line and why.
TEST_F(Host, AccessRulesAreCheckedAtStart) {
    const std::string rules = dir_ + "/access", log = dir_ + "/rules.log";
    const struct {
        const char *text, *expect;
    } cases[] = {
        {"[\n  {\"user\": \"root\",\n   \"send\": tru}\n]", "bad.json:3: not valid JSON"},
        {"[{\"user\": \"root\"},\n {\"group\": \"root\",\n  \"sned\": true}]",
         "bad.json:3: unknown member \"sned\""},
        {"{\"user\": \"root\", \"group\": \"root\"}", "bad.json:1: a rule names exactly one"},
        {"[{\"user\": \"no-such-user-here\"}]", "bad.json:1: no such user"},
        {"{\"user\": 0,\n \"own\": [\"dhcp\", \"a-name-much-longer-than-a-module-may-be\"]}",
         "bad.json:2: a module name"},
    };
    for (const auto &c : cases) {
        std::filesystem::remove_all(rules);
        ASSERT_TRUE(std::filesystem::create_directory(rules));
        writeText(rules + "/bad.json", c.text);
        writeText(log, "");
        EXPECT_EQ(reap(spawn({KEPD_PATH, "-r", dir_ + "/run2", "-a", rules}, log)), 1) << c.text;
        EXPECT_NE(readText(log).find(c.expect), std::string::npos) << readText(log);
    }
    // Rules anyone could have written are no rules.
    writeText(rules + "/bad.json", "{\"user\": \"root\"}");
    ASSERT_EQ(chmod((rules + "/bad.json").c_str(), 0666), 0);
    EXPECT_EQ(reap(spawn({KEPD_PATH, "-r", dir_ + "/run2", "-a", rules}, log)), 1);
    EXPECT_NE(readText(log).find("writable by other users"), std::string::npos) << readText(log);
    EXPECT_EQ(reap(spawn({KEPD_PATH, "-r", dir_ + "/run2", "-a", dir_ + "/missing"}, log)), 1);
}

// Other users get what the rules name and nothing more; whom no rule names is refused
// at once. A refused registration is logged with the caller.
TEST_F(Host, AccessRulesLetOtherUsersDoWhatTheyName) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to run clients as other users";
    const std::string rules = dir_ + "/access", run = dir_ + "/run2", log = dir_ + "/kepd2.log";
    ASSERT_TRUE(std::filesystem::create_directory(rules));
    writeText(rules + "/web.json", "{\"group\": 4242, \"send\": true}");
    writeText(rules + "/dhcp.json", "[{\"user\": 4343, \"own\": [\"dhcp\"]}]");
    ASSERT_EQ(mkdir(run.c_str(), 0755), 0);
    ASSERT_EQ(chmod(dir_.c_str(), 0711), 0);
    pid_t host =
        spawn({KEPD_PATH, "-r", run, "-a", rules, "-m", dir_ + "/dhcp.xml", "-m", dir_ + "/system.xml"}, log);
    setenv("KEP_RUNTIME_DIR", run.c_str(), 1);
    for (int i = 0; i < 500 && readText(log).find("serving as pid") == std::string::npos; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    auto requestOk = [] {
        char *out = nullptr;
        int rc = kepHostRequest(R"({"method":"get","dhcp":{"table":"host"}})", &out);
        free(out);
        return rc;
    };
    // The web group may send requests, and nothing else.
    EXPECT_EQ(asUser(5001, 4242, [&] { return requestOk() == 0 ? 0 : 1; }), 0);
    EXPECT_EQ(asUser(5001, 4242,
                     [&] {
                         return kepHostRegister("method", "/dhcp/host", KEP_METHOD_GET, "web") ==
                                        KEP_HOST_ERR_DENIED
                                    ? 0
                                    : 1;
                     }),
              0);
    // The dhcp user may own dhcp, not system, and may not send requests.
    EXPECT_EQ(asUser(4343, 4343,
                     [&] {
                         return kepHostRegister("method", "/dhcp/host", KEP_METHOD_GET, "mine") == 0 &&
                                        kepHostRegister("method", "/system/time/ntp", KEP_METHOD_GET,
                                                        "mine") == KEP_HOST_ERR_DENIED &&
                                        requestOk() == KEP_HOST_ERR_DENIED
                                    ? 0
                                    : 1;
                     }),
              0);
    // Nobody else gets in, and is told so at once.
    auto start = Clock::now();
    EXPECT_EQ(asUser(6001, 6001, [&] { return requestOk() == QXRPC_ERR_DENIED ? 0 : 1; }), 0);
    EXPECT_LT(msSince(start), 1000 * kSlow);
    setenv("KEP_RUNTIME_DIR", (dir_ + "/run").c_str(), 1);
    kill(host, SIGTERM);
    reap(host);
    const std::string text = readText(log);
    EXPECT_NE(text.find("refused register method /dhcp/host from pid"), std::string::npos) << text;
    EXPECT_NE(text.find("refused a connection of pid"), std::string::npos) << text;
}

// ---- the direct route ----

// The direct route answers every request as the host does, errors included, and
// calls the same callbacks (sysd hears of the pool's change either way).
TEST_F(Host, TheDirectRouteAnswersAsTheHostDoes) {
    ASSERT_EQ(kepDirectOpen(), 0);
    auto direct = [](const std::string &text) {
        char *out = nullptr;
        int rc = kepDirectRequest(text.c_str(), &out);
        std::string s = rc == 0 && out ? out : "rpc " + std::to_string(rc);
        free(out);
        return s;
    };
    const std::vector<std::string> requests = {
        R"({"method":"get","dhcp":{"table":"host"}})",
        R"({"method":"get","dhcp":{"name":"lan"},"system":{"name":["ntp","zone"]}})",
        R"({"method":"get","dhcp":{"name":"host_1"}})",
        R"({"method":"get","dhcp":{"table":"nosuch"}})",
        R"({"method":"get","nosuch":{"table":"host"}})",
        R"({"dhcp":{"table":"host"}})",
        R"({"method":"teleport","dhcp":{}})",
        R"(not json)",
        R"({"method":"set","dhcp":{"lan":{"leaseMinutes":720}}})",
        R"({"method":"set","dhcp":{"lan":{"leaseMinutes":"many"}}})",
        R"({"method":"set","system":{"zone":{"name":"Europe/Berlin","dst":true}}})",
        R"({"method":"do","dhcp":{"restart":{"delay":0}}})",
        R"({"method":"do","dhcp":{"reboot":{}}})",
        R"({"method":"delete","dhcp":{"name":"host_99"}})",
        R"({"method":"add","dhcp":{"table":"client","para":{}}})",
    };
    for (const std::string &r : requests) EXPECT_EQ(direct(r), request(r)) << r;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::string sysdOut = readText(dir_ + "/sysd.log");
    size_t notified = 0;
    for (size_t at = 0; (at = sysdOut.find("notified", at)) != std::string::npos; at++) notified++;
    EXPECT_EQ(notified, 2u) << "one notification per route:\n" << sysdOut;
    const unsigned refreshes = kepDirectRefreshes();
    EXPECT_EQ(refreshes, 1u) << "nothing changed: the first copy served all";

    // A new registration reaches the copy before the next request.
    ASSERT_EQ(kepHostRegister("notify", "/dhcp/pool/lan", 0, "listener"), 0);
    EXPECT_EQ(direct(requests[0]), request(requests[0]));
    EXPECT_EQ(kepDirectRefreshes(), refreshes + 1);
    EXPECT_EQ(kepHostRegister("unregister", nullptr, 0, nullptr), 0);

    // An owner that restarts under a new pid: the copy follows it.
    kill(dhcpd_, SIGKILL);
    reap(dhcpd_);
    dhcpd_ = spawn({DHCPD_PATH, dir_ + "/dhcp.xml"}, dir_ + "/dhcpd.log");
    ASSERT_TRUE(waitServed());
    for (const std::string &r : {requests[0], requests[1], requests[11]}) {
        const std::string d = direct(r);
        EXPECT_EQ(d, request(r)) << r;
        EXPECT_NE(d.find("\"error_code\":0"), std::string::npos) << d;
    }

    // An owner that dies: both routes answer alike, before and after the host drops it.
    kill(dhcpd_, SIGKILL);
    reap(dhcpd_);
    dhcpd_ = -1;
    EXPECT_EQ(direct(requests[0]), request(requests[0]));
    auto until = Clock::now() + std::chrono::seconds(5);
    for (;;) {
        char *dump = nullptr;
        bool dropped = kepHostFetch("kepd.dump", &dump) == 0 && !strstr(dump, "/dhcp/host:get");
        free(dump);
        if (dropped || Clock::now() > until) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    for (const std::string &r : {requests[0], requests[8], requests[11]})
        EXPECT_EQ(direct(r), request(r)) << r;
    kepDirectClose();
}

TEST_F(Host, KepctlAddNamesTheSection) {
    Ran add = kepctl(
        {"add", "dhcp", "host", R"({"mac":"02:00:00:00:00:77","ip":"192.168.1.77"})", "--name", "host_77"});
    EXPECT_EQ(add.status, 0) << add.output;
    EXPECT_NE(add.output.find("host_77"), std::string::npos) << add.output;
    Ran get = kepctl({"get", "dhcp", "--name", "host_77"});
    EXPECT_EQ(get.status, 0) << get.output;
    EXPECT_NE(get.output.find("192.168.1.77"), std::string::npos);
}

// Section numbers end at the largest int: past it an add is refused, never wrapped.
TEST_F(Host, SectionNumbersDoNotWrapAround) {
    const std::string last =
        R"({"method":"add","dhcp":{"table":"host","name":"host_2147483647","para":{"mac":"02:00:00:00:00:aa","ip":"192.168.1.170"}}})";
    const std::string next =
        R"({"method":"add","dhcp":{"table":"host","para":{"mac":"02:00:00:00:00:ab","ip":"192.168.1.171"}}})";
    EXPECT_NE(request(last).find("\"error_code\":0"), std::string::npos);
    EXPECT_EQ(request(next), R"({"error_code":-31004})");
    EXPECT_EQ(readText(dir_ + "/dhcp.json").find("192.168.1.171"), std::string::npos);
}

// A description whose names would split a path or climb out of a folder is refused
// whole when merged, not taken apart later.
TEST_F(Host, ModelNamesThatSplitPathsAreRefused) {
    const std::string log = dir_ + "/names.log";
    for (const char *name : {"a/b", "..", "x\001y"}) {
        writeText(dir_ + "/bad.xml",
                  std::string("<model><module name=\"m\"><table name=\"") + name + "\"/></module></model>");
        writeText(log, "");
        EXPECT_EQ(reap(spawn({KEPD_PATH, "-r", dir_ + "/run2", "-m", dir_ + "/bad.xml"}, log)), 1) << name;
        EXPECT_NE(readText(log).find("refused"), std::string::npos) << readText(log);
    }
}

// ---- what the host and its client tell whoever runs them ----

constexpr size_t npos = std::string::npos;

// A read the owner refuses with its own code is answered as it always was; kepd's log
// and kepctl -v (on standard error, leaving standard output to the response) say
// which owner refused and with what. Failed writes are logged the same way.
TEST_F(Host, AFailedRequestNamesItsCauseBesideTheResponse) {
    const std::string owner = "owner pid " + std::to_string(dhcpd_);
    const std::string refusal =
        "dhcp/host_99: " + owner + " (callback /dhcp/host:get): answered errorCode -31002";
    EXPECT_EQ(readText(dir_ + "/kepd.log").find(" from pid "), npos)
        << "requests that succeeded are not logged";
    EXPECT_EQ(request(R"({"method":"get","dhcp":{"name":"host_99"}})"), R"({"error_code":-10000})");
    Ran get = kepctl({"-v", "get", "dhcp", "--name", "host_99"});
    EXPECT_EQ(get.status, 1);
    EXPECT_EQ(get.out, "{\"error_code\":-10000}\n");
    EXPECT_NE(get.err.find("request:  {\"method\":\"get\",\"dhcp\":{\"name\":\"host_99\"}}\n"), npos)
        << get.err;
    EXPECT_NE(get.err.find("kepctl: error_code -10000: "), npos) << get.err;
    EXPECT_NE(get.err.find("cause:    " + refusal + "\n"), npos) << get.err;
    std::string log = readText(dir_ + "/kepd.log");
    EXPECT_NE(log.find("get from pid "), npos) << log;
    EXPECT_NE(log.find(": error_code -10000: " + refusal + "\n"), npos) << log;

    Ran quiet = kepctl({"get", "dhcp", "--name", "host_99"});
    EXPECT_EQ(quiet.out, get.out);
    EXPECT_EQ(quiet.err.find("cause"), npos) << quiet.err;

    // Nobody to call.
    EXPECT_NE(
        kepctl({"-v", "get", "dhcp", "nosuch"}).err.find("cause:    dhcp/nosuch: no such table or section"),
        npos);
    EXPECT_NE(kepctl({"-v", "get", "nosuch", "host"}).err.find("cause:    nosuch/host: no such module"),
              npos);

    Ran set = kepctl({"-v", "set", "dhcp", "host_99", R"({"hostname":"x"})"});
    EXPECT_EQ(set.status, 1);
    EXPECT_EQ(set.out, "{\"error_code\":-31002}\n");
    const std::string setRefusal =
        "dhcp/host_99: " + owner + " (callback /dhcp/host:set): answered errorCode -31002";
    EXPECT_NE(set.err.find("cause:    " + setRefusal), npos) << set.err;
    log = readText(dir_ + "/kepd.log");
    EXPECT_NE(log.find("set from pid "), npos) << log;
    EXPECT_NE(log.find(": error_code -31002: " + setRefusal + "\n"), npos) << log;
}

TEST_F(Host, AReadOfAKilledOwnerSaysItIsNotRunning) {
    kill(dhcpd_, SIGKILL);
    reap(dhcpd_);
    dhcpd_ = -1;
    // Whether the host has dropped the owner by now or not, the cause says so.
    Ran get = kepctl({"-v", "get", "dhcp", "host"});
    EXPECT_EQ(get.status, 1);
    EXPECT_EQ(get.out, "{\"error_code\":-10000}\n");
    const size_t cause = get.err.find("cause:    dhcp/host: ");
    ASSERT_NE(cause, npos) << get.err;
    EXPECT_NE(get.err.find("not running", cause), npos) << get.err;
    const std::string log = readText(dir_ + "/kepd.log");
    const size_t logged = log.find(": error_code -10000: dhcp/host: ");
    ASSERT_NE(logged, npos) << log;
    EXPECT_NE(log.find("not running", logged), npos) << log;
}

// A factory reset the host answered with an owner's failure is exit 1, naming that
// owner, not a host that cannot be reached (3) or did not answer (4).
TEST_F(Host, AFailedResetNamesTheOwnerNotTheHost) {
    // This process registers a reset callback that it never serves: to the host, an
    // owner that is not running, yet not dropped.
    ASSERT_EQ(kepHostRegister("reset", nullptr, 0, "testReset"), 0);
    Ran reset = kepctl({"reset"});
    EXPECT_EQ(reset.status, 1) << reset.err;
    const std::string gone = "the owner (pid " + std::to_string(getpid()) +
                             ", callback testReset): the process is not running (-20005)";
    EXPECT_NE(reset.err.find("kepctl: reset failed: -20005: the owner process is not running\n"), npos)
        << reset.err;
    EXPECT_NE(reset.err.find(gone), npos) << reset.err;
    EXPECT_EQ(reset.err.find("kepd running"), npos) << reset.err;
    EXPECT_NE(readText(dir_ + "/kepd.log").find("factory reset failed: " + gone), npos);
    ASSERT_EQ(kepHostRegister("unregister", nullptr, 0, nullptr), 0);

    // An owner that does not answer: the host waits for it and says so.
    ASSERT_TRUE(stopProcess(dhcpd_));
    reset = kepctl({"reset"});
    kill(dhcpd_, SIGCONT);
    EXPECT_EQ(reset.status, 1) << reset.err;
    EXPECT_NE(reset.err.find("the owner of dhcp (pid " + std::to_string(dhcpd_) +
                             ", callback kep.reset): no answer in time (-20006)"),
              npos)
        << reset.err;
    reset = kepctl({"reset"});
    EXPECT_EQ(reset.status, 0) << reset.err;
    EXPECT_EQ(reset.out, "factory reset done\n");
}

// Usage errors are named in a line (2); help goes to standard output (0); a host that
// is not there is 3.
TEST_F(Host, KepctlAndKepdTellHowTheyWereCalled) {
    Ran frob = kepctl({"frob", "dhcp"});
    EXPECT_EQ(frob.status, 2);
    EXPECT_EQ(frob.out, "");
    EXPECT_EQ(frob.err,
              "kepctl: unknown command 'frob'\nTry 'kepctl --help' for the commands and options.\n");
    Ran option = kepctl({"--frob", "get", "dhcp", "host"});
    EXPECT_EQ(option.status, 2);
    EXPECT_EQ(option.err.find("kepctl: unknown option '--frob'\n"), 0u) << option.err;
    EXPECT_EQ(kepctl({"get"}).status, 2);
    Ran help = kepctl({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Exit status"), npos);
    EXPECT_EQ(help.err, "");
    for (const char *flag : {"--help", "-h"}) {
        Ran kepd = run({KEPD_PATH, flag});
        EXPECT_EQ(kepd.status, 0) << flag << kepd.err;
        EXPECT_EQ(kepd.out.find("usage: kepd"), 0u) << flag;
        EXPECT_EQ(kepd.err, "") << flag;
    }

    kill(kepd_, SIGTERM);
    EXPECT_EQ(reap(kepd_), 0);
    kepd_ = -1;
    for (const char *cmd : {"get", "reset"}) {
        Ran none = kepctl(strcmp(cmd, "get") == 0 ? std::vector<std::string>{"get", "dhcp", "host"}
                                                  : std::vector<std::string>{"reset"});
        EXPECT_EQ(none.status, 3) << cmd;
        EXPECT_EQ(none.out, "") << cmd;
        EXPECT_NE(none.err.find("is kepd running?"), npos) << cmd << none.err;
    }
}

// ---- operations: requests from pipes and files, backup and restore ----

// A request from standard input or a file is sent as it stands; a batch answers one
// compact line per request, in order, blank lines skipped, with the worst status.
TEST_F(Host, RequestsFromPipesFilesAndBatches) {
    const std::string get = R"({"method":"get","system":{"name":"zone"}})";
    Ran piped = kepctl({"call", "-"}, get);
    EXPECT_EQ(piped.status, 0) << piped.err;
    EXPECT_EQ(piped.out, request(get) + "\n");
    writeText(dir_ + "/req.json", get);
    EXPECT_EQ(kepctl({"call", "@" + dir_ + "/req.json"}).out, piped.out);
    EXPECT_EQ(kepctl({"call", "@" + dir_ + "/none.json"}).status, 2);

    Ran batch =
        kepctl({"batch"}, get + "\n\n  \nnot json\n" + R"({"method":"get","dhcp":{"table":"nope"}})" + "\n");
    EXPECT_EQ(batch.status, 1);
    EXPECT_EQ(batch.out, request(get) + "\n{\"error_code\":-10100}\n{\"error_code\":-10000}\n");

    kill(kepd_, SIGTERM);
    EXPECT_EQ(reap(kepd_), 0);
    kepd_ = -1;
    Ran orphan = kepctl({"batch"}, get + "\n" + get + "\n");
    EXPECT_EQ(orphan.status, 3);
    EXPECT_EQ(orphan.out, "{\"error_code\":-20005}\n{\"error_code\":-20005}\n");
}

// Export, factory reset, import, export gives the same document; a document that does
// not fit the model is refused before anything changes, and a module whose owner
// refuses part of it is put back as it was while the others are restored.
TEST_F(Host, ExportAndImportRoundTripAndRefuseWhatDoesNotFit) {
    ASSERT_EQ(kepctl({"add", "dhcp", "host", R"({"mac":"02:00:00:00:00:09","ip":"192.168.1.9"})"}).status, 0);
    ASSERT_EQ(kepctl({"set", "dhcp", "lan", R"({"leaseMinutes":30})"}).status, 0);
    Ran before = kepctl({"export"});
    ASSERT_EQ(before.status, 0) << before.err;
    EXPECT_EQ(before.out.find(R"({"format":1,"modules":["dhcp","system"],"config":{"dhcp":{"host":[)"), 0u)
        << before.out;
    EXPECT_EQ(before.out.find("client"), npos) << "dynamic tables are left out";
    writeText(dir_ + "/backup.json", before.out);

    ASSERT_EQ(kepctl({"reset"}).status, 0);
    ASSERT_NE(kepctl({"export"}).out, before.out);
    Ran import = kepctl({"import", dir_ + "/backup.json"});
    EXPECT_EQ(import.status, 0) << import.err;
    EXPECT_EQ(import.out, "dhcp: restored\nsystem: restored\n");
    EXPECT_EQ(kepctl({"export"}).out, before.out);

    const std::pair<const char *, const char *> misfits[] = {
        {R"({"format":2,"config":{}})", "\"format\""},
        {R"({"format":1,"config":{"nope":{}}})", "config.nope: no such module"},
        {R"({"format":1,"config":{"dhcp":{"client":[]}}})", "config.dhcp.client: a dynamic table"},
        {R"({"format":1,"config":{"dhcp":{"pool":{"wan":{}}}}})", "config.dhcp.pool.wan: no such section"},
        {R"({"format":1,"config":{"dhcp":{"host":[{"host_1":{}},{"host_1":{}}]}}})", "config.dhcp.host[1]"},
        {R"({"format":1,"config":{"system":{"time":{"ntp":{}}},"dhcp":{"host":[{"a":1}]}}})",
         "config.dhcp.host[0]"},
    };
    for (const auto &[doc, place] : misfits) {
        writeText(dir_ + "/misfit.json", doc);
        Ran refused = kepctl({"import", dir_ + "/misfit.json"});
        EXPECT_EQ(refused.status, 1) << doc;
        EXPECT_NE(refused.err.find(std::string("import refused, nothing changed: ") + place), npos)
            << refused.err;
        EXPECT_EQ(refused.out, "") << doc;
    }
    EXPECT_EQ(kepctl({"export"}).out, before.out);

    // The second new row is refused by its owner after the first was added.
    std::string partly = before.out;
    partly.replace(partly.find("\"host\":[") + 8, 0,
                   R"({"host_7":{"mac":"02:00:00:00:00:07","ip":"192.168.1.7"}},{"host_8":{"bogus":1}},)");
    partly.replace(partly.find("\"UTC\""), 5, "\"CET\"");
    writeText(dir_ + "/partly.json", partly);
    Ran half = kepctl({"import", dir_ + "/partly.json"});
    EXPECT_EQ(half.status, 1);
    EXPECT_EQ(half.out, "dhcp: not restored; left as it was\nsystem: restored\n") << half.err;
    EXPECT_NE(half.err.find("dhcp: add host_8: -31001"), npos) << half.err;
    Ran after = kepctl({"export"});
    EXPECT_EQ(after.out.find("host_7"), npos) << after.out;
    EXPECT_NE(after.out.find("\"CET\""), npos) << after.out;
}

// kepctl monitor: a line per request served, filtered by module, with the texts under
// -v. A stopped watcher costs the host nothing and is told how many lines it missed;
// nobody can point the host at a socket that is not their own.
TEST_F(Host, MonitorShowsRequestsAndAStoppedWatcherSlowsNobody) {
    const std::string outAll = dir_ + "/mon.out", outSys = dir_ + "/monsys.out";
    pid_t all = spawn({KEPCTL_PATH, "monitor"}, outAll, dir_ + "/mon.err");
    pid_t sys = spawn({KEPCTL_PATH, "-v", "monitor", "system"}, outSys, dir_ + "/monsys.err");
    auto watching = [&](const std::string &err) {
        auto until = Clock::now() + std::chrono::milliseconds(15000 * kSlow);
        while (readText(err).find("watching") == npos && Clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return readText(err).find("watching") != npos;
    };
    ASSERT_TRUE(watching(dir_ + "/mon.err"));
    ASSERT_TRUE(watching(dir_ + "/monsys.err"));
    const std::string zone = R"({"method":"get","system":{"name":"zone"}})";
    request(R"({"method":"get","dhcp":{"name":"host_99"}})");
    const std::string answer = request(zone);
    // A relay's user and a client's method are shown as one field each, whatever they hold.
    char *relayed = nullptr;
    ASSERT_EQ(kepHostRequestFor("alice\n12:00:00.000 pid 1",
                                R"({"method":"get me","system":{"name":"zone"}})", &relayed),
              0);
    free(relayed);
    auto lines = [&](const std::string &out, size_t n) {
        auto until = Clock::now() + std::chrono::milliseconds(15000 * kSlow);
        for (;;) {
            std::string text = readText(out);
            if (std::count(text.begin(), text.end(), '\n') >= static_cast<long>(n) || Clock::now() >= until)
                return text;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    };
    const std::string me = " pid " + std::to_string(getpid()) + " uid " + std::to_string(getuid());
    std::string seen = lines(outAll, 3);
    EXPECT_NE(seen.find(me + " get dhcp error_code -10000 "), npos) << seen;
    EXPECT_NE(seen.find(me + " get system error_code 0 "), npos) << seen;
    EXPECT_NE(seen.find(me + " user alice?12:00:00.000?pid?1 get?me system error_code "), npos) << seen;
    seen = lines(outSys, 6);
    EXPECT_EQ(seen.find("dhcp"), npos) << "filtered by module: " << seen;
    EXPECT_NE(seen.find(" us\n  request:  " + zone + "\n  response: " + answer + "\n"), npos) << seen;

    ASSERT_EQ(kill(sys, SIGSTOP), 0);
    // Each line is cut at 64 KiB: 50 of them are several times what a watcher may fall behind by.
    const std::string big(60000, 'x');
    auto start = Clock::now();
    for (int i = 0; i < 50; i++) request(R"({"method":"get","system":{"name":"zone"},"pad":")" + big + "\"}");
    EXPECT_LT(msSince(start), 20000 * kSlow) << "the host waited for a stopped watcher";
    ASSERT_EQ(kill(sys, SIGCONT), 0);
    // The count rides on the first line that fits again, once the watcher has caught up.
    auto until = Clock::now() + std::chrono::milliseconds(15000 * kSlow);
    while ((seen = readText(outSys)).find(" lines dropped before)") == npos && Clock::now() < until) {
        request(zone);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_NE(seen.find(" lines dropped before)"), npos)
        << seen.substr(seen.size() > 2000 ? seen.size() - 2000 : 0);

    // A socket another process listens on is not the caller's own.
    const std::string foreign = dir_ + "/run/foreign.sock";
    pid_t other = fork();
    if (other == 0) {
        int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof addr.sun_path, "%s", foreign.c_str());
        if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 4) != 0) _exit(1);
        pause();
        _exit(0);
    }
    for (int i = 0; i < 500 && access(foreign.c_str(), F_OK) != 0; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    QxRpcPara set{};
    qxrpcParaInit(&set);
    qxrpcAddStringPtr(&set, "path", foreign.c_str());
    int code = 0;
    EXPECT_EQ(qxImiExecute(kepHostPid(), "kepd.watch", 0, 0, &set), 0);
    EXPECT_EQ(qxrpcGetInt(&set, "errorCode", &code), 0);
    EXPECT_EQ(code, KEP_HOST_ERR_DENIED);
    qxrpcParaFree(&set);
    kill(other, SIGKILL);
    reap(other);
    for (pid_t p : {all, sys}) {
        kill(p, SIGTERM);
        EXPECT_EQ(reap(p), 0);
    }
}

}  // namespace
