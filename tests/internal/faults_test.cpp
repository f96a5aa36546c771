// Faults of the world around the library: owners that die in the middle of a call
// or never answer, a full disk, a configuration folder that disappears, a model
// description replaced while running. Nothing may hang or crash, and nothing that
// had been stored may be lost.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "config_fixture.h"
#include "kep_config.h"
#include "kep_json.h"
#include "kep_pf_debug.h"
#include "kep_pf_json.h"
#include "kep_request.h"
#include "kep_xml.h"
#include "model/model_internal.h"
#include "owner_process.h"
#include "tree_builder.h"

using kep_test::answer;
using kep_test::OwnerProcess;
using kep_test::readText;
using kep_test::Rec;
using kep_test::writeText;

// The clock of the stand-in's repair stamps: time() of this program comes before the
// C library's, so that a test can set the instant a repair happens at.
namespace {
bool gClockSet;
time_t gClock;
}  // namespace

extern "C" time_t time(time_t *out) noexcept {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const time_t t = gClockSet ? gClock : now.tv_sec;
    if (out) *out = t;
    return t;
}

namespace {

// Sets the clock for as long as it lives.
struct ClockSet {
    explicit ClockSet(time_t t) {
        gClock = t;
        gClockSet = true;
    }
    ~ClockSet() { gClockSet = false; }
};

// How many times an owner is killed in the middle of a request and restarted;
// KEP_KILL_ITERATIONS lowers it for slow runs (valgrind).
int killIterations() {
    const char *env = getenv("KEP_KILL_ITERATIONS");
    int n = env ? atoi(env) : 0;
    return n > 0 ? n : 25;
}

std::string handle(const std::string &request) {
    char *out = nullptr;
    if (standardKepReqHandle(request.c_str(), &out) != 0 || !out) return "<no response>";
    std::string text = out;
    free(out);
    return text;
}

using Clock = std::chrono::steady_clock;
long msSince(Clock::time_point t0) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count());
}

class OwnerFaults : public kep_test::FreshTree {
protected:
    void SetUp() override {
        FreshTree::SetUp();
        DataModule *m = kep_test::addModule("m");
        kep_test::addTable(m, "host");
    }
    void TearDown() override {
        qxImiSetTimeout(0);
        FreshTree::TearDown();
    }
    static void serve(const OwnerProcess &owner) {
        ASSERT_TRUE(owner.ready());
        const int pid = static_cast<int>(owner.pid());
        ASSERT_EQ(registerMethodCb("/m/host", KEP_METHOD_GET, "hostGet", pid) |
                      registerMethodCb("/m/host", KEP_METHOD_SET, "hostSet", pid),
                  0);
    }
};

// The owner dies while it holds the call: the request answers an error at once (the
// connection breaks), well within the time-out, and a restarted owner is served.
TEST_F(OwnerFaults, OwnerKilledInTheMiddleOfARequestThenRestarted) {
    const int timeoutMs = 3000;
    qxImiSetTimeout(timeoutMs);
    const std::string set = R"({"method":"set","m":{"host_1":{"ip":"x"}}})";
    const std::string get = R"({"method":"get","m":{"table":"host"}})";
    const std::string rows = R"({"m":{"count":{"host":1},"host":[{"host_1":{"ip":"a"}}]},"error_code":0})";
    long slowest = 0;  // from the kill to the answer
    const int iterations = killIterations();
    for (int i = 0; i < iterations; i++) {
        auto owner = std::make_unique<OwnerProcess>(kep_test::OwnerHandlers{
            {"hostSet", kep_test::hang()}, {"hostGet", answer(0, R"([{"host_1":{"ip":"a"}}])")}});
        serve(*owner);
        Clock::time_point t0 = Clock::now();
        std::future<std::string> pending = std::async(std::launch::async, [&] { return handle(set); });
        // Killed once the call has arrived and the handler holds it.
        while (owner->calls().empty() && msSince(t0) < timeoutMs)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_FALSE(owner->calls().empty()) << "iteration " << i;
        Clock::time_point killed = Clock::now();
        owner->kill();
        const std::string reply = pending.get();
        slowest = std::max(slowest, msSince(killed));
        EXPECT_EQ(reply, R"({"error_code":-20007})") << "iteration " << i;
        // The stale socket of the dead owner is refused, not waited on.
        EXPECT_EQ(handle(get), R"({"error_code":-10000})") << "iteration " << i;
        owner.reset();

        OwnerProcess restarted(
            {{"hostGet", answer(0, R"([{"host_1":{"ip":"a"}}])")}, {"hostSet", answer(0)}});
        serve(restarted);
        EXPECT_EQ(handle(get), rows) << "iteration " << i;
        EXPECT_EQ(handle(set), R"({"error_code":0})") << "iteration " << i;
    }
    EXPECT_LT(slowest, timeoutMs);
    printf(
        "FAULTS owner killed mid-request and restarted: %d iterations, slowest answer %ld ms after the "
        "kill\n",
        iterations, slowest);
    fflush(stdout);  // not again from the forked owners
}

// A silent owner costs one time-out per call; a dead one is not waited on.
TEST_F(OwnerFaults, OwnerThatNeverAnswersTimesOut) {
    OwnerProcess owner({{"hostGet", kep_test::hang()}});
    serve(owner);
    qxImiSetTimeout(300);
    Clock::time_point t0 = Clock::now();
    EXPECT_EQ(handle(R"({"method":"get","m":{"table":"host"}})"), R"({"error_code":-10000})");
    EXPECT_EQ(handle(R"({"method":"set","m":{"host_1":{}}})"), R"({"error_code":-20006})");
    long took = msSince(t0);
    EXPECT_GE(took, 600);
    EXPECT_LT(took, 5000);  // bounded by the time-outs, with room for a slow machine
    owner.kill();
    EXPECT_EQ(handle(R"({"method":"set","m":{"host_1":{}}})"), R"({"error_code":-20005})");
}

// ---- the configuration store against the file system ----

class StoreFaults : public ::testing::Test {
protected:
    void SetUp() override {
        DataModule *m = tree_.module("m", "m.json");
        DataTable *host = tree_.table(m, "host", true, false, kep_test::recOpr(resetHosts));
        (void)host;
        stored_ = R"({"host":[{"host_1":{"text":"kept","value":7}}]})";
        writeText(tree_.path("m.json"), stored_);
        ASSERT_EQ(systemLoadConfigFile(), 0);
    }
    static int resetHosts(const char *, json_object **value) {
        *value = json_tokener_parse(R"([{"host_1":{"text":"default","value":0}}])");
        return *value ? 0 : -1;
    }
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto &e : std::filesystem::directory_iterator(tree_.dir()))
            names.push_back(e.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    kep_test::ConfigTree tree_;
    std::string stored_;
};

TEST_F(StoreFaults, FullDiskFailsTheStoreAndKeepsTheOldFile) {
    const std::string file = tree_.path("m.json");
    const Rec rec = kep_test::makeRec("a record that makes the file grow", 1);
    // Both kinds of store, a write and a reset, refuse a file they cannot write whole.
    EXPECT_EQ(kep_test::inChildWithFileLimit(
                  32, [&] { return modelWrite("/m/host/host_2", &rec, sizeof rec) == 0 ? 1 : 0; }),
              0);
    EXPECT_EQ(kep_test::inChildWithFileLimit(
                  32, [&] { return modelResetConfigFile(getDataModuler("m")) == 0 ? 1 : 0; }),
              0);
    EXPECT_EQ(kep_test::inChildWithFileLimit(32, [&] { return systemResetConfigFile() == 0 ? 0 : 1; }), 0);
    EXPECT_EQ(readText(file), stored_);
    EXPECT_EQ(files(), std::vector<std::string>{"m.json"});  // no temporary file left behind
    // With room again the same write goes through.
    ASSERT_EQ(modelWrite("/m/host/host_2", &rec, sizeof rec), 0);
    EXPECT_NE(readText(file).find("a record that makes"), std::string::npos);
}

TEST_F(StoreFaults, ConfigurationFolderThatDisappears) {
    const std::string file = tree_.path("m.json");
    const std::string moved = tree_.dir() + ".away";
    std::filesystem::rename(tree_.dir(), moved);
    Rec rec{};
    EXPECT_EQ(modelRead("/m/host/host_1", &rec, sizeof rec), -1);
    rec = kep_test::makeRec("lost?", 2);
    EXPECT_NE(modelWrite("/m/host/host_1", &rec, sizeof rec), 0);
    EXPECT_NE(modelWrite("/m/host/host_9", &rec, sizeof rec), 0);
    // The start-up repair cannot write its defaults either: it reports it and stops.
    EXPECT_EQ(systemLoadConfigFile(), -1);
    EXPECT_EQ(systemResetConfigFile(), 0);  // walks every module whatever each gives
    EXPECT_FALSE(std::filesystem::exists(tree_.dir()));
    // The folder comes back: what had been stored is all there, and stores work again.
    std::filesystem::rename(moved, tree_.dir());
    EXPECT_EQ(readText(file), stored_);
    ASSERT_EQ(modelRead("/m/host/host_1", &rec, sizeof rec), static_cast<int>(sizeof rec));
    EXPECT_STREQ(rec.text, "kept");
    rec = kep_test::makeRec("back", 3);
    EXPECT_EQ(modelWrite("/m/host/host_1", &rec, sizeof rec), 0);
    EXPECT_NE(readText(file).find("back"), std::string::npos);
}

// Every repair keeps the file it replaces, under a name of its own; a file over the
// reader's size limit is unreadable and kept alike.
TEST_F(StoreFaults, StartUpRepairKeepsEveryUnreadableFile) {
    const std::string file = tree_.path("m.json");
    kep::resetTreeForTest();
    DataModule *m = tree_.module("m", "m.json");
    tree_.table(m, "host", true, false, kep_test::recOpr(resetHosts));
    const std::string broken[] = {"{\"host\":[{\"host_1\":", "not json"};
    auto repair = [&](const std::string &text) {
        writeText(file, text);
        ASSERT_EQ(systemLoadConfigFile(), 0);
        EXPECT_EQ(kep_test::canonical(readText(file)),
                  R"({"host":[{"host_1":{"text":"default","value":0}}]})");
    };
    // Stamped with the time of the repair in UTC; a second repair within the same second
    // adds "-2", so that the names sort in time order.
    {
        const ClockSet leapDay(1709251199);  // 2024-02-29T23:59:59Z
        for (const std::string &text : broken) repair(text);
    }
    std::vector<std::string> kept = kep_test::keptUnreadable(file);
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_EQ(kept[0], file + ".unreadable-20240229T235959Z");
    EXPECT_EQ(kept[1], file + ".unreadable-20240229T235959Z-2");
    EXPECT_EQ(readText(kept[0]), broken[0]);
    EXPECT_EQ(readText(kept[1]), broken[1]);
    // Around the epoch, leap days of century years and the ends of 32-bit time.
    std::vector<long long> instants = {0, -1, 951868799, 951868800, 2147483647, -2147483648LL};
    if (sizeof(time_t) > 4) instants.insert(instants.end(), {4107542399LL, 4107542400LL});
    // The last second of every month of a leap year, where a day can slip into the next.
    for (int month = 1; month <= 12; month++) {
        struct tm next {};
        next.tm_year = 2024 - 1900;
        next.tm_mon = month;  // 12 is January of the next year
        next.tm_mday = 1;
        instants.push_back(static_cast<long long>(timegm(&next)) - 1);
    }
    for (long long at : instants) {
        for (const std::string &k : kep_test::keptUnreadable(file)) std::filesystem::remove(k);
        const time_t t = static_cast<time_t>(at);
        const ClockSet clock(t);
        repair(broken[1]);
        struct tm utc;
        char stamp[32];
        strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", gmtime_r(&t, &utc));
        EXPECT_EQ(kep_test::keptUnreadable(file), std::vector<std::string>{file + ".unreadable-" + stamp});
    }
    kept = kep_test::keptUnreadable(file);

    // A sound file over the size limit (which the defaults are not).
    for (const std::string &k : kept) std::filesystem::remove(k);
    const std::string large =
        R"({"host":[{"host_1":{"text":")" + std::string(600, 'x') + R"(","value":7}}]})";
    writeText(file, large);
    ASSERT_EQ(jsonObjectSetFileLimit(500), 0);
    EXPECT_EQ(systemLoadConfigFile(), 0);
    ASSERT_EQ(jsonObjectSetFileLimit(64L * 1024 * 1024), 0);
    kept = kep_test::keptUnreadable(file);
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(readText(kept[0]), large);
    EXPECT_EQ(jsonObjectSetFileLimit(0), -1);
    EXPECT_EQ(jsonObjectSetFileLimit(1), 0);
    ASSERT_EQ(jsonObjectSetFileLimit(64L * 1024 * 1024), 0);

    // A sound file replaced by a factory reset is not kept.
    std::filesystem::remove(kept[0]);
    EXPECT_EQ(systemResetConfigFile(), 0);
    EXPECT_TRUE(kep_test::keptUnreadable(file).empty());
}

// ---- the model description ----

TEST(ModelFaults, DescriptionReplacedWhileRunningHasNoEffectUntilReread) {
    kep::resetTreeForTest();
    char tmpl[] = "/tmp/kfXXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string path = std::string(tmpl) + "/model.xml";
    writeText(path, R"(<model><module name="a"><table name="t"/></module></model>)");
    ASSERT_EQ(kep::loadModelFile(path.c_str()), 0);
    ASSERT_EQ(registerMethodCb("/a/t", KEP_METHOD_GET, "tGet", static_cast<int>(getpid())), 0);
    // Replaced in place, then by rename, then removed: the tree does not move.
    writeText(path, R"(<model><module name="b"><table name="u"/></module></model>)");
    std::filesystem::rename(path, path + ".old");
    writeText(path, "<model><mod");
    EXPECT_NE(getTableByFullName("/a/t"), nullptr);
    EXPECT_EQ(getDataModuler("b"), nullptr);
    EXPECT_NE(getTableByFullName("/a/t")->methodCb[KEP_METHOD_GET], nullptr);
    std::filesystem::remove(path);
    EXPECT_EQ(getModuleSize(), 1);
    // Re-read: a broken description changes nothing, a sound one is merged.
    writeText(path, "<model><mod");
    EXPECT_EQ(kep::loadModelFile(path.c_str()), -1);
    EXPECT_EQ(getModuleSize(), 1);
    std::filesystem::rename(path + ".old", path);
    XmlNode **doc = strXmlParse(readText(path).c_str(), 1);
    ASSERT_NE(doc, nullptr);
    EXPECT_EQ(registerDataModel(*doc), 0);
    mxmlTreeDelete(doc);
    EXPECT_NE(getTableByFullName("/b/u"), nullptr);
    EXPECT_NE(getTableByFullName("/a/t")->methodCb[KEP_METHOD_GET], nullptr);
    std::filesystem::remove_all(tmpl);
    kep::resetTreeForTest();
}

}  // namespace
