// What the agent decides without a broker: its settings and controllers files, the
// answers it keeps for repeated deliveries, the request rate per controller, and the
// topics both programs read.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>

#include "answer_journal.h"
#include "fleet_mqtt.h"
#include "request_limits.h"
#include "settings.h"

namespace {

using kepagent::AnswerCache;
using kepagent::AnswerJournal;
using kepagent::RateLimit;

TEST(FleetTopics, OnlyWellFormedTopicsOfValidNamesSplit) {
    std::string device, kind, name;
    EXPECT_TRUE(kepfleet::splitTopic("kep/d0001/request/ctl-a", &device, &kind, &name));
    EXPECT_EQ(device + "|" + kind + "|" + name, "d0001|request|ctl-a");
    EXPECT_TRUE(kepfleet::splitTopic("kep/d0001/status", &device, &kind, &name));
    EXPECT_EQ(kind + "|" + name, "status|");
    for (const char *bad : {"kep/d0001/request/", "kep/d0001/request/a/b", "kep/d0001/request/+",
                            "kep/+/status", "kep/d0001/status/x", "kep/d0001/other/ctl",
                            "x/d0001/request/ctl", "kep/.x/status", "kep//request/ctl", "kep/d0001"})
        EXPECT_FALSE(kepfleet::splitTopic(bad, &device, &kind, &name)) << bad;
    EXPECT_EQ(kepfleet::requestTopic("d1", "c"), "kep/d1/request/c");
    EXPECT_EQ(kepfleet::responseTopic("d1", "c"), "kep/d1/response/c");
}

TEST(FleetAnswerCache, RepeatsTheAnswerRefusesReuseAndForgets) {
    AnswerCache cache(2, 1000);
    std::string answer;
    EXPECT_EQ(cache.find("c", "k1", "req", 0, &answer), AnswerCache::Seen::kNew);
    cache.store("c", "k1", "req", "A1", 0);
    EXPECT_EQ(cache.find("c", "k1", "req", 10, &answer), AnswerCache::Seen::kSame);
    EXPECT_EQ(answer, "A1");
    EXPECT_EQ(cache.find("c", "k1", "other", 10, &answer), AnswerCache::Seen::kDifferent);
    // The same correlation data from another controller is another request.
    EXPECT_EQ(cache.find("d", "k1", "req", 10, &answer), AnswerCache::Seen::kNew);
    // Past its age, and beyond the capacity (oldest first), an answer is forgotten.
    EXPECT_EQ(cache.find("c", "k1", "req", 1000, &answer), AnswerCache::Seen::kNew);
    cache.store("c", "a", "r", "1", 2000);
    cache.store("c", "b", "r", "2", 2001);
    cache.store("c", "a", "r", "1b", 2002);  // stored again: a is now the newest
    cache.store("c", "d", "r", "3", 2003);
    EXPECT_EQ(cache.size(), 2u);
    EXPECT_EQ(cache.find("c", "b", "r", 2004, &answer), AnswerCache::Seen::kNew);
    EXPECT_EQ(cache.find("c", "a", "r", 2004, &answer), AnswerCache::Seen::kSame);
    EXPECT_EQ(answer, "1b");
}

TEST(FleetAnswerCache, StaysBoundedWhenOneKeyIsStoredOverAndOver) {
    AnswerCache cache(4, 1000000);
    for (int i = 0; i < 10000; i++) cache.store("c", "same", "r", std::to_string(i), i);
    std::string answer;
    EXPECT_EQ(cache.size(), 1u);
    EXPECT_EQ(cache.find("c", "same", "r", 10000, &answer), AnswerCache::Seen::kSame);
    EXPECT_EQ(answer, "9999");
}

// A folder of its own for each journal test, removed with what is in it.
class FleetAnswerJournal : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/journalXXXXXX";
        ASSERT_TRUE(mkdtemp(tmpl));
        dir_ = tmpl;
        path_ = dir_ + "/answers";
    }
    void TearDown() override {
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }
    std::string fileText() const {
        std::ifstream in(path_);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    // A restarted agent: a new journal and cache over the same file.
    bool reopen(AnswerCache *cache, std::unique_ptr<AnswerJournal> *journal, size_t capacity = 8,
                int64_t maxAgeMs = 600000) {
        journal->reset(new AnswerJournal(capacity, maxAgeMs));
        std::string error;
        const bool ok = (*journal)->open(path_, cache, "UNKNOWN", 0, &error);
        EXPECT_TRUE(ok) << error;
        return ok;
    }
    std::string dir_, path_;
};

TEST_F(FleetAnswerJournal, ARestartedAgentRepeatsAnswersAndNeverAppliesABegunRequestAgain) {
    {
        AnswerCache cache(8, 600000);
        std::unique_ptr<AnswerJournal> journal;
        ASSERT_TRUE(reopen(&cache, &journal));
        ASSERT_TRUE(journal->begin("ctl", std::string("k\0\xff", 3), "add"));
        journal->answered("ctl", std::string("k\0\xff", 3), "add", R"({"error_code":0,"x":"a\nb"})");
        // Stopped between applying and answering (a crash, a power cut).
        ASSERT_TRUE(journal->begin("ctl", "k2", "do"));
        ASSERT_TRUE(journal->begin("ctl", "big", "set"));
        journal->answered("ctl", "big", "set", std::string(AnswerJournal::kMaxAnswer + 1, 'x'));
    }
    // A power cut in the middle of the last append.
    { std::ofstream(path_, std::ios::app) << R"({"at":1,"controller":"ctl","corr)"; }
    AnswerCache cache(8, 600000);
    std::unique_ptr<AnswerJournal> journal;
    ASSERT_TRUE(reopen(&cache, &journal));
    std::string answer;
    EXPECT_EQ(cache.find("ctl", std::string("k\0\xff", 3), "add", 0, &answer), AnswerCache::Seen::kSame);
    EXPECT_EQ(answer, R"({"error_code":0,"x":"a\nb"})");
    EXPECT_EQ(cache.find("ctl", std::string("k\0\xff", 3), "other", 0, &answer),
              AnswerCache::Seen::kDifferent);
    EXPECT_EQ(cache.find("ctl", "k2", "do", 0, &answer), AnswerCache::Seen::kSame);
    EXPECT_EQ(answer, "UNKNOWN");
    EXPECT_EQ(cache.find("ctl", "big", "set", 0, &answer), AnswerCache::Seen::kSame);
    EXPECT_EQ(answer, "UNKNOWN");
    EXPECT_EQ(cache.find("other", "k2", "do", 0, &answer), AnswerCache::Seen::kNew);
    // Rewritten at start: one whole line a request, the torn one gone.
    EXPECT_EQ(journal->lines(), 3u);
    const std::string text = fileText();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
    EXPECT_EQ(text.back(), '\n');
    struct stat st;
    ASSERT_EQ(stat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(FleetAnswerJournal, StaysBoundedAndForgetsWhatIsPastItsAge) {
    AnswerCache cache(4, 600000);
    std::unique_ptr<AnswerJournal> journal;
    ASSERT_TRUE(reopen(&cache, &journal, 4));
    for (int i = 0; i < 1000; i++) {
        const std::string k = "k" + std::to_string(i);
        ASSERT_TRUE(journal->begin("ctl", k, "set"));
        journal->answered("ctl", k, "set", std::to_string(i));
        EXPECT_LE(journal->lines(), 2u * 4 + 16 + 1);
    }
    AnswerCache after(4, 600000);
    ASSERT_TRUE(reopen(&after, &journal, 4));
    std::string answer;
    EXPECT_EQ(after.size(), 4u);
    EXPECT_EQ(after.find("ctl", "k999", "set", 0, &answer), AnswerCache::Seen::kSame);
    EXPECT_EQ(answer, "999");
    EXPECT_EQ(after.find("ctl", "k995", "set", 0, &answer), AnswerCache::Seen::kNew);
    // Older than its age when the agent comes back: not kept.
    AnswerCache late(4, 600000);
    ASSERT_TRUE(reopen(&late, &journal, 4, 0));
    EXPECT_EQ(late.size(), 0u);
    EXPECT_EQ(journal->lines(), 0u);
    // A file grown past what is read at start: its newest records still count.
    ASSERT_TRUE(journal->begin("ctl", "kk", "set"));
    journal->answered("ctl", "kk", "set", "kept");
    const std::string records = fileText();
    {
        std::ofstream out(path_, std::ios::trunc);
        out << std::string(AnswerJournal::kMaxFile + 10, 'x') << "\n" << records;
    }
    AnswerCache grown(4, 600000);
    ASSERT_TRUE(reopen(&grown, &journal, 4));
    EXPECT_EQ(grown.find("ctl", "kk", "set", 0, &answer), AnswerCache::Seen::kSame);
    EXPECT_EQ(answer, "kept");
    EXPECT_EQ(journal->lines(), 1u);
    EXPECT_LT(fileText().size(), records.size());
}

TEST_F(FleetAnswerJournal, AFileThatCannotBeKeptIsRefused) {
    AnswerCache cache(4, 600000);
    AnswerJournal journal(4, 600000);
    std::string error;
    ASSERT_EQ(symlink("/etc/passwd", path_.c_str()), 0);
    EXPECT_FALSE(journal.open(path_, &cache, "U", 0, &error));
    EXPECT_NE(error.find(path_), std::string::npos);
    AnswerJournal none(4, 600000);
    EXPECT_FALSE(none.open(dir_ + "/no/such/folder", &cache, "U", 0, &error));
    // Not open: nothing can be recorded, so nothing may be applied.
    EXPECT_FALSE(none.begin("ctl", "k", "set"));
}

TEST(FleetRateLimit, BurstThenRateAndEachControllerApart) {
    RateLimit rate(10, 3, 2);
    for (int i = 0; i < 3; i++) EXPECT_TRUE(rate.allow("a", 0));
    EXPECT_FALSE(rate.allow("a", 0));
    EXPECT_TRUE(rate.allow("b", 0));    // its own bucket
    EXPECT_FALSE(rate.allow("a", 50));  // half a token refilled
    EXPECT_TRUE(rate.allow("a", 100));  // one token per 100 ms
    EXPECT_FALSE(rate.allow("a", 100));
    // A third controller: the table holds two, the fullest is forgotten, never grows.
    EXPECT_TRUE(rate.allow("c", 100));
    EXPECT_EQ(rate.size(), 2u);
}

TEST(FleetSettings, FileAndFlagsShareNamesAndRangesAreChecked) {
    kepagent::Settings s;
    std::string error;
    ASSERT_TRUE(
        kepagent::parseSettingsFile("# agent\n device = d0001\nbroker-port=8884\n\nrate = 5\n", &s, &error))
        << error;
    EXPECT_EQ(s.device, "d0001");
    EXPECT_EQ(s.broker.port, 8884);
    EXPECT_EQ(s.rate, 5);
    const struct {
        const char *text, *error;
    } bad[] = {
        {"device d0001\n", "line 1: not name = value"},
        {"\nbroker-port = 0\n", "line 2: broker-port: a whole number from 1 to 65535"},
        {"rate = 5x\n", "line 1: rate: a whole number from 1 to 10000"},
        {"colour = red\n", "line 1: no setting \"colour\""},
        {"config = other\n", "line 1: a configuration file names no other"},
    };
    for (const auto &b : bad) {
        EXPECT_FALSE(kepagent::parseSettingsFile(b.text, &s, &error)) << b.text;
        EXPECT_EQ(error, b.error);
    }
}

TEST(FleetSettings, NothingIsAllowedWithoutRulesAndTlsIsRequired) {
    kepagent::Settings s;
    std::string error;
    s.device = "d0001";
    s.broker.caFile = "ca.pem";
    s.broker.passwordFile = "pw";
    s.rulesFile = "rules.json";
    s.controllersFile = "controllers";
    EXPECT_TRUE(kepagent::checkSettings(s, &error)) << error;
    auto without = [&](auto change) {
        kepagent::Settings t = s;
        change(t);
        return !kepagent::checkSettings(t, &error);
    };
    EXPECT_TRUE(without([](kepagent::Settings &t) { t.device = "a/b"; }));
    EXPECT_TRUE(without([](kepagent::Settings &t) { t.device = "+"; }));
    EXPECT_TRUE(without([](kepagent::Settings &t) { t.broker.caFile.clear(); }));
    EXPECT_TRUE(without([](kepagent::Settings &t) { t.controllersFile.clear(); }));
    EXPECT_TRUE(without([](kepagent::Settings &t) { t.broker.passwordFile.clear(); }));
    EXPECT_TRUE(without([](kepagent::Settings &t) { t.broker.keyFile = "k"; }));
}

TEST(FleetSettings, ControllersNeedARoleWithRules) {
    keprules::Rules rules;
    std::string error;
    ASSERT_TRUE(keprules::parseRules(R"({"operator": {"*": ["read"]}})", &rules, &error));
    std::map<std::string, std::string> roles;
    EXPECT_TRUE(kepagent::parseControllers("# who\nctl-a:operator\n\n", rules, &roles, &error)) << error;
    EXPECT_EQ(roles.at("ctl-a"), "operator");
    const struct {
        const char *text, *error;
    } bad[] = {
        {"ctl-a\n", "line 1: not CONTROLLER:ROLE"},
        {"ctl-a:operator:x\n", "line 1: not CONTROLLER:ROLE"},
        {"\nctl/a:operator\n", "line 2: controller: 1 to 32 letters, digits, '.', '_', '-'"},
        {"ctl-a:admin\n", "line 1: role \"admin\" has no rules"},
        {"ctl-a:operator\nctl-a:operator\n", "line 2: controller ctl-a is named twice"},
    };
    for (const auto &b : bad) {
        EXPECT_FALSE(kepagent::parseControllers(b.text, rules, &roles, &error)) << b.text;
        EXPECT_EQ(error, b.error);
        EXPECT_TRUE(roles.empty());
    }
}

}  // namespace
