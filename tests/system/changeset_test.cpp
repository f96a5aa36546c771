// Change sets across real processes: kepd with the example owners of three modules
// (dhcpd, sysd, ntpd), applied through the host client and kepctl, undone when a
// request fails, when a confirm window ends, on a cancel and after a host restart.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include <json-c/json.h>

#include "kep_host.h"
#include "kep_owner.h"
#include "kep_pf_rpc.h"
#include "processes.h"

namespace {

using namespace kep_test;

// One JSON answer, parsed, with the members the tests look at.
struct Answer {
    std::string text;
    json_object *json = nullptr;
    explicit Answer(std::string t) : text(std::move(t)), json(json_tokener_parse(text.c_str())) {}
    ~Answer() { json_object_put(json); }
    Answer(const Answer &) = delete;
    Answer &operator=(const Answer &) = delete;
    json_object *at(const char *key) const {
        json_object *v = nullptr;
        return json_object_object_get_ex(json, key, &v) ? v : nullptr;
    }
    int code() const { return at("error_code") ? json_object_get_int(at("error_code")) : -99999; }
    std::string restored(const char *module) const {
        json_object *v = nullptr;
        return json_object_object_get_ex(at("restored"), module, &v) ? json_object_get_string(v) : "";
    }
};

// Every stored value of the three modules, as kepctl export writes it.
const char *const kModules[][2] = {
    {"dhcpd/dhcp", DHCPD_PATH}, {"sysd/system", SYSD_PATH}, {"ntpd/ntp", NTPD_PATH}};

// A change set touching all three modules whose last request the ntp owner refuses.
const char kFailsLast[] = R"([
  {"method": "set", "dhcp": {"lan": {"leaseMinutes": 600}}},
  {"method": "add", "dhcp": {"table": "host", "para": {"mac": "02:00:00:00:00:0a", "ip": "192.168.1.10"}}},
  {"method": "set", "dhcp": {"host_1": {"hostname": "renamed"}}},
  {"method": "add", "ntp": {"table": "server", "name": "server_9", "para": {"address": "time.example"}}},
  {"method": "delete", "ntp": {"name": "server_2"}},
  {"method": "set", "system": {"ntp": {"server": "time.example"}, "zone": {"name": "CET"}}},
  {"method": "set", "ntp": {"main": {"intervalMinutes": "often"}}}
])";

const char kLan[] = R"({"method":"get","dhcp":{"name":"lan"}})";

double wallSeconds() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

class ChangeSet : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = systemTestFolder("/tmp/kc");
        ASSERT_FALSE(dir_.empty());
        for (const auto &m : kModules) writeModel(std::string(m[0]) + ".xml.in", dir_, model(m[0]));
        startAll();
    }

    void TearDown() override {
        stopAll();
        qxImiSetTimeout(0);
        if (HasFailure()) {
            for (const char *log : {"kepd.log", "dhcpd.log", "sysd.log", "ntpd.log"})
                printf("---- %s\n%s", log, readText(dir_ + "/" + log).c_str());
        }
        std::filesystem::remove_all(dir_);
    }

    std::string model(const char *example) const {
        return dir_ + "/" + std::filesystem::path(example).filename().string() + ".xml";
    }

    void startHost() {
        std::vector<std::string> argv = {KEPD_PATH};
        for (const auto &m : kModules) argv.insert(argv.end(), {"-m", model(m[0])});
        kepd_ = spawn(argv, dir_ + "/kepd.log");
    }

    void startAll() {
        for (size_t i = 0; i < 3; i++) {
            owners_[i] =
                spawn({kModules[i][1], model(kModules[i][0])},
                      dir_ + "/" + std::filesystem::path(kModules[i][1]).filename().string() + ".log");
        }
        startHost();
        ASSERT_TRUE(waitServed());
    }

    void stopAll(int sig = SIGTERM) {
        for (pid_t *p : {&kepd_, &owners_[0], &owners_[1], &owners_[2]}) {
            if (*p <= 0) continue;
            kill(*p, SIGCONT);
            kill(*p, sig);
            reap(*p, 3000);
            *p = -1;
        }
    }

    bool waitServed(int ms = 10000) {
        auto until = Clock::now() + std::chrono::milliseconds(ms * kSlow);
        while (Clock::now() < until) {
            if (exported().find("\"ntp\":{") != std::string::npos &&
                hostRequest(R"({"method":"get","system":{"name":"ntp"},"dhcp":{"table":"host"}})")
                        .find("\"error_code\":0") != std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    // kepctl export's document: every stored table of every module.
    std::string exported() {
        const std::string out = dir_ + "/export.json";
        if (reap(spawn({KEPCTL_PATH, "-c", "export"}, out, dir_ + "/export.err"), 20000) != 0) return "";
        std::string text = readText(out);
        std::filesystem::remove(out);
        return text;
    }

    std::string apply(const std::string &changes, int confirm = 0) {
        char *answer = nullptr;
        const int rc = kepHostApply(nullptr, changes.c_str(), confirm, &answer);
        std::string out = rc == 0 && answer ? answer : "rpc " + std::to_string(rc);
        free(answer);
        return out;
    }

    std::string changeset(const char *handler) {
        char *answer = nullptr;
        const int rc = kepHostChangeset(handler, nullptr, &answer);
        std::string out = rc == 0 && answer ? answer : "rpc " + std::to_string(rc);
        free(answer);
        return out;
    }

    std::string dir_;
    pid_t kepd_ = -1, owners_[3] = {-1, -1, -1};
};

// A change set whose last request fails leaves the three modules exactly as they
// were; one naming what cannot be undone is refused before anything runs.
TEST_F(ChangeSet, AFailedRequestUndoesEveryModule) {
    const std::string before = exported();
    ASSERT_FALSE(before.empty());
    const Answer failed(apply(kFailsLast));
    EXPECT_EQ(failed.code(), KEP_OWNER_ERR_INVALID) << failed.text;
    EXPECT_EQ(json_object_get_int(failed.at("failed")), 6) << failed.text;
    for (const char *m : {"dhcp", "system", "ntp"}) EXPECT_EQ(failed.restored(m), "restored") << failed.text;
    EXPECT_EQ(exported(), before);
    EXPECT_NE(readText(dir_ + "/kepd.log").find("request 6 answered error_code -31001: undoing it"),
              std::string::npos);

    // Refused whole, with the place named: nothing ran.
    const struct {
        const char *changes, *why;
    } refused[] = {
        {R"([{"method":"set","dhcp":{"lan":{"leaseMinutes":1}}},{"method":"delete","dhcp":{"table":"client"}}])",
         "request 1: dhcp.client: a dynamic table cannot be undone"},
        {R"([{"method":"set","dhcp":{"lan":{"leaseMinutes":1}}},{"method":"do","dhcp":{"restart":{}}}])",
         "request 1: an action cannot be undone"},
        {R"({"method":"set","dhcp":{"nowhere":{"a":1}}})", "request 0: dhcp.nowhere: no such section"},
        {R"({"method":"set","nomodule":{"lan":{}}})", "request 0: no such module nomodule"},
        {"{\"method\":\"delete\",\"dhcp\":{\"name\":\"host_1\\nkepd: forged\"}}",
         "a section name is 1 to 31"},
        {R"([])", "a change set is a request object or an array"},
        {"not json", "a change set is a request object or an array"},
    };
    for (const auto &r : refused) {
        const Answer a(apply(r.changes));
        EXPECT_EQ(a.code(), KEP_HOST_ERR_UNDOABLE) << a.text;
        EXPECT_NE(a.text.find(r.why), std::string::npos) << a.text;
    }
    EXPECT_EQ(exported(), before);

    // Applied whole, through kepctl from standard input: every request's response.
    const std::string in = dir_ + "/changes.json";
    writeText(in, R"([{"method":"set","dhcp":{"lan":{"leaseMinutes":720}}},
                     {"method":"add","ntp":{"table":"server","para":{"address":"b.example"}}}])");
    const std::string out = dir_ + "/apply.out";
    EXPECT_EQ(reap(spawn({KEPCTL_PATH, "-c", "apply", "-"}, out, dir_ + "/apply.err", in), 20000), 0);
    EXPECT_EQ(readText(out),
              "{\"error_code\":0,\"responses\":[{\"error_code\":0},{\"ntp\":{\"name\":[\"server_3\"]},"
              "\"error_code\":0}]}\n");
    EXPECT_NE(hostRequest(kLan).find("\"leaseMinutes\":720"), std::string::npos);
}

// With a confirm window: applied at once, undone when the window ends unless its user
// confirms; other writes to its modules (a second change set, a reset) are refused
// meanwhile, reads and writes to other modules go on.
TEST_F(ChangeSet, AConfirmWindowUndoesUnlessConfirmed) {
    const std::string before = exported();
    const std::string changes = R"([{"method":"set","dhcp":{"lan":{"leaseMinutes":333}}},
                                    {"method":"set","system":{"zone":{"name":"CET"}}}])";
    const Answer applied(apply(changes, 2));
    ASSERT_EQ(applied.code(), 0) << applied.text;
    const auto start = Clock::now();
    json_object *found = nullptr;
    EXPECT_NE(hostRequest(kLan).find("\"leaseMinutes\":333"), std::string::npos);
    EXPECT_NE(changeset("kepd.pending").find("\"state\":\"pending\""), std::string::npos);

    const Answer write(hostRequest(R"({"method":"set","dhcp":{"lan":{"leaseMinutes":5}}})"));
    EXPECT_EQ(write.code(), KEP_HOST_ERR_PENDING);
    EXPECT_NE(write.text.find("change set 1 of uid " + std::to_string(getuid())), std::string::npos)
        << write.text;
    EXPECT_EQ(Answer(apply(R"({"method":"set","ntp":{"main":{"zone":"CET"}}})")).code(),
              KEP_HOST_ERR_PENDING);
    char *text = nullptr, *cause = nullptr;
    EXPECT_EQ(kepHostFetchEx("kepd.reset", &text, &cause, nullptr), KEP_HOST_ERR_PENDING);
    free(text);
    free(cause);
    EXPECT_EQ(Answer(hostRequest(R"({"method":"set","ntp":{"main":{"zone":"CET"}}})")).code(), 0);
    ASSERT_EQ(Answer(hostRequest(R"({"method":"set","ntp":{"main":{"zone":"UTC"}}})")).code(), 0);

    // Not confirmed: back within a second of the window's end (a wall-clock second).
    const double expires = static_cast<double>(json_object_get_int64(
        json_object_object_get_ex(applied.at("pending"), "expires", &found) ? found : nullptr));
    while (msSince(start) < 10000 * kSlow &&
           hostRequest(kLan).find("\"leaseMinutes\":333") != std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_LT(wallSeconds() - expires, 1.0 * kSlow);
    EXPECT_EQ(exported(), before);
    EXPECT_NE(readText(dir_ + "/kepd.log").find("change set 1: its confirm window ended"), std::string::npos);
    EXPECT_EQ(Answer(changeset("kepd.confirm")).code(), KEP_HOST_ERR_NO_CHANGESET);

    // Confirmed: it stays past its window.
    ASSERT_EQ(Answer(apply(changes, 1)).code(), 0);
    EXPECT_NE(changeset("kepd.confirm").find("\"confirmed\":2"), std::string::npos);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_NE(hostRequest(kLan).find("\"leaseMinutes\":333"), std::string::npos);
    EXPECT_EQ(Answer(hostRequest(R"({"method":"set","dhcp":{"lan":{"leaseMinutes":1440}}})")).code(), 0);

    // Cancelled: undone at once.
    ASSERT_EQ(Answer(apply(R"({"method":"set","dhcp":{"lan":{"leaseMinutes":77}}})", 60)).code(), 0);
    const Answer cancelled(changeset("kepd.cancel"));
    EXPECT_EQ(cancelled.restored("dhcp"), "restored") << cancelled.text;
    EXPECT_NE(hostRequest(kLan).find("\"leaseMinutes\":1440"), std::string::npos);
}

// A host killed inside the window, and the whole system restarted: the change set is
// undone on start, and the log says so.
TEST_F(ChangeSet, AStoppedHostUndoesItOnItsNextStart) {
    const std::string before = exported();
    const Answer applied(apply(R"([{"method":"set","dhcp":{"lan":{"leaseMinutes":42}}},
      {"method":"add","dhcp":{"table":"host","para":{"mac":"02:00:00:00:00:0b","ip":"192.168.1.11"}}},
      {"method":"delete","ntp":{"name":"server_1"}}])",
                               60));
    ASSERT_EQ(applied.code(), 0) << applied.text;
    ASSERT_NE(exported(), before);
    stopAll(SIGKILL);
    startAll();
    auto until = Clock::now() + std::chrono::milliseconds(10000 * kSlow);
    while (Clock::now() < until && exported() != before)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(exported(), before);
    const std::string log = readText(dir_ + "/kepd.log");
    EXPECT_NE(log.find("was not confirmed or finished when the host stopped: undoing it"), std::string::npos);
    EXPECT_NE(log.find("of a stopped host: undone"), std::string::npos);
    EXPECT_EQ(changeset("kepd.pending"), R"({"error_code":0})");
}

// An owner that cannot take the restore: its module is named in the answer and the
// log, and left as the restore left it; the others are put back.
TEST_F(ChangeSet, ARestoreThatFailsIsNamedAndLeftAsItIs) {
    qxImiSetTimeout(10000);
    ASSERT_EQ(Answer(apply(R"([{"method":"set","dhcp":{"lan":{"leaseMinutes":11}}},
                               {"method":"set","system":{"zone":{"name":"CET"}}}])",
                           60))
                  .code(),
              0);
    ASSERT_TRUE(stopProcess(owners_[1]));  // sysd
    const Answer cancelled(changeset("kepd.cancel"));
    kill(owners_[1], SIGCONT);
    EXPECT_EQ(cancelled.code(), KEP_HOST_ERR_UNDOABLE) << cancelled.text;
    EXPECT_EQ(cancelled.restored("dhcp"), "restored");
    EXPECT_NE(cancelled.restored("system").find("not restored: "), std::string::npos) << cancelled.text;
    EXPECT_NE(readText(dir_ + "/kepd.log").find("change set 1 (cancelled): system: not restored"),
              std::string::npos);
    EXPECT_NE(hostRequest(kLan).find("\"leaseMinutes\":1440"), std::string::npos);
    EXPECT_NE(hostRequest(R"({"method":"get","system":{"name":"zone"}})").find("CET"), std::string::npos);
    EXPECT_EQ(changeset("kepd.pending"), R"({"error_code":0})");  // nothing retried behind anyone's back
}

}  // namespace
