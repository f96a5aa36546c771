// Requests through the request entry while a forked owner process serves the
// callbacks over the RPC: what each callback receives, the exact response, and the
// failure paths of a real peer (refusing, malformed, dead, hung).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <thread>
#include <vector>

#include "kep_json.h"
#include "kep_model.h"
#include "kep_pf_json.h"
#include "kep_request.h"
#include "owner_process.h"
#include "tree_builder.h"

using kep_test::answer;
using kep_test::OwnerProcess;
using kep_test::RecordedCall;

namespace {

using Names = std::vector<std::string>;

// The request entry's answer text, re-serialised so that spacing does not matter
// while member order still does.
std::string handle(const std::string &request) {
    char *out = nullptr;
    int rc = standardKepReqHandle(request.c_str(), &out);
    EXPECT_EQ(rc, 0) << request;
    if (!out) return "";
    json_object *parsed = jsonParseStr(out);
    free(out);
    std::string text = parsed ? jsonGetObjectStringOrigin(parsed) : "not json";
    jsonObjectObjectDelete(parsed);
    return text;
}

// Module m: list table host (get, set, add, delete), private table sys with section
// time (own get and set, two notify listeners), action reboot.
class EndToEnd : public kep_test::FreshTree {
protected:
    void wire(pid_t owner) {
        DataModule *m = kep_test::addModule("m");
        kep_test::addTable(m, "host");
        DataTable *sys = kep_test::addTable(m, "sys", 0);
        kep_test::addSection(sys, "time");
        kep_test::addAction(m, "reboot");
        const int pid = static_cast<int>(owner);
        ASSERT_EQ(registerMethodCb("/m/host", KEP_METHOD_GET, "hostGet", pid), 0);
        ASSERT_EQ(registerMethodCb("/m/host", KEP_METHOD_SET, "hostSet", pid), 0);
        ASSERT_EQ(registerMethodCb("/m/host", KEP_METHOD_ADD, "hostAdd", pid), 0);
        ASSERT_EQ(registerMethodCb("/m/host", KEP_METHOD_DELETE, "hostDel", pid), 0);
        ASSERT_EQ(registerMethodCb("/m/sys/time", KEP_METHOD_GET, "timeGet", pid), 0);
        ASSERT_EQ(registerMethodCb("/m/sys/time", KEP_METHOD_SET, "timeSet", pid), 0);
        ASSERT_EQ(registerVerNotify("/m/sys/time", KEP_SELECT_NOTIFY, "listenA", pid), 0);
        ASSERT_EQ(registerVerNotify("/m/sys/time", KEP_SELECT_NOTIFY, "listenB", pid), 0);
        ASSERT_EQ(registerVerNotify("/m/sys/time", KEP_SELECT_NOTIFY, "listenC", pid), 0);
        ASSERT_EQ(registerMethodCb("/m/reboot", KEP_METHOD_ACTION, "rebootCb", pid), 0);
    }
    void TearDown() override {
        qxImiSetTimeout(0);
        kep_test::FreshTree::TearDown();
    }
};

kep_test::OwnerHandlers goodOwner() {
    return {
        {"hostGet", answer(0, R"({"host_1":{"ip":"a"},"host_2":{"ip":"b"},"countAll":9})")},
        {"hostSet", answer(0)},
        {"hostAdd", answer(0, R"("host_3")")},
        {"hostDel", answer(0)},
        {"timeGet", answer(0, R"({"zone":"utc"})")},
        {"timeSet", answer(0)},
        {"listenA", answer(0)},
        {"listenB", answer(4)},
        {"listenC", answer(0)},
        {"rebootCb", answer(0, R"({"after":5})")},
    };
}

void expectCall(const RecordedCall &call, const std::string &cb, const Names &names) {
    EXPECT_EQ(call.cb, cb);
    EXPECT_EQ(call.names(), names) << cb;
}

TEST_F(EndToEnd, EveryMethodReachesTheRightCallbackWithTheRightMembers) {
    OwnerProcess owner(goodOwner());
    ASSERT_TRUE(owner.ready());
    wire(owner.pid());

    EXPECT_EQ(handle(R"({"method":"get","m":{"table":"host","filter":{"ip":"a"},"para":{"page":1}}})"),
              R"({"m":{"count":{"host":9},"host":[{"host_1":{"ip":"a"}},{"host_2":{"ip":"b"}}]},"error_code":0})");
    EXPECT_EQ(handle(R"({"method":"get","m":{"name":["time","host_7"]}})"),
              R"({"m":{"time":{"zone":"utc"},"host_7":{"host_1":{"ip":"a"},"host_2":{"ip":"b"},"countAll":9}},)"
              R"("error_code":0})");
    EXPECT_EQ(handle(R"({"method":"set","m":{"table":"host","filter":{"ip":"a"},"para":{"ip":"c"}}})"),
              R"({"error_code":0})");
    EXPECT_EQ(handle(R"({"method":"set","m":{"time":{"zone":"cet"},"host_1":{"ip":"d"}}})"), R"({"error_code":0})");
    EXPECT_EQ(handle(R"({"method":"add","m":{"table":"host","name":"host_3","para":{"ip":"e"}}})"),
              R"({"m":{"name":["host_3"]},"error_code":0})");
    EXPECT_EQ(handle(R"({"method":"delete","m":{"name":"host_2"}})"), R"({"error_code":0})");
    EXPECT_EQ(handle(R"({"method":"delete","m":{"table":"host","filter":{"ip":"b"}}})"), R"({"error_code":0})");
    EXPECT_EQ(handle(R"({"method":"do","m":{"reboot":{"delay":5}}})"), R"({"after":5,"error_code":0})");

    std::vector<RecordedCall> calls = owner.calls();
    ASSERT_EQ(calls.size(), 10u);
    expectCall(calls[0], "hostGet", {"table", "para", "filter"});
    EXPECT_EQ(calls[0].text("table"), "host");
    EXPECT_EQ(calls[0].text("para"), R"({"page":1})");
    EXPECT_EQ(calls[0].text("filter"), R"({"ip":"a"})");
    expectCall(calls[1], "timeGet", {"name"});
    expectCall(calls[2], "hostGet", {"name"});
    EXPECT_EQ(calls[2].text("name"), "host_7");
    expectCall(calls[3], "hostSet", {"para", "filter"});
    EXPECT_EQ(calls[3].text("para"), R"({"ip":"c"})");
    expectCall(calls[4], "timeSet", {"name", "para"});
    EXPECT_EQ(calls[4].text("para"), R"({"zone":"cet"})");
    expectCall(calls[5], "hostSet", {"name", "para"});
    EXPECT_EQ(calls[5].text("name"), "host_1");
    expectCall(calls[6], "hostAdd", {"name", "table", "para"});
    EXPECT_EQ(calls[6].text("name"), "host_3");
    expectCall(calls[7], "hostDel", {"name"});
    EXPECT_EQ(calls[7].text("name"), "host_2");
    expectCall(calls[8], "hostDel", {"filter"});
    expectCall(calls[9], "rebootCb", {"para"});
    EXPECT_EQ(calls[9].text("para"), R"({"delay":5})");
}

TEST_F(EndToEnd, NotifyWalkStopsAtFirstRefusal) {
    OwnerProcess owner(goodOwner());
    ASSERT_TRUE(owner.ready());
    wire(owner.pid());
    notifySecdataChanged("/m/sys/time");
    std::vector<RecordedCall> calls = owner.calls();
    ASSERT_EQ(calls.size(), 2u);
    expectCall(calls[0], "listenA", {"name", "para"});
    EXPECT_EQ(calls[0].text("name"), "section");
    EXPECT_EQ(calls[0].text("para"), "time");
    expectCall(calls[1], "listenB", {"name", "para"});
}

TEST_F(EndToEnd, CalleeAnswersThatAreNotUsable) {
    OwnerProcess owner({
        {"hostGet", answer(0, "not json")},
        {"hostSet", answer(-321)},
        {"hostAdd", answer(0)},
        {"hostDel", [](QxRpcPara *) { return 0; }},  // no errorCode
        {"timeGet", answer(0)},
        {"timeSet", answer(0)},
        {"rebootCb", answer(0, "oops")},
    });
    ASSERT_TRUE(owner.ready());
    wire(owner.pid());
    EXPECT_EQ(handle(R"({"method":"get","m":{"table":"host"}})"), R"({"error_code":-10000})");
    EXPECT_EQ(handle(R"({"method":"get","m":{"name":"time"}})"), R"({"error_code":-10000})");
    EXPECT_EQ(handle(R"({"method":"set","m":{"host_1":{}}})"), R"({"error_code":-321})");
    EXPECT_EQ(handle(R"({"method":"delete","m":{"name":"host_1"}})"), R"({"error_code":-1500})");
    EXPECT_EQ(handle(R"({"method":"add","m":{"table":"host","para":{}}})"), R"({"m":{"name":[]},"error_code":0})");
    EXPECT_EQ(handle(R"({"method":"do","m":{"reboot":{}}})"), R"({"error_code":-10100})");
    // No rollback: the second module fails after the first was changed.
    owner.clearCalls();
    EXPECT_EQ(handle(R"({"method":"set","m":{"time":{}},"x":{"a":{}}})"), R"({"error_code":-7004})");
    std::vector<RecordedCall> calls = owner.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].cb, "timeSet");
}

TEST_F(EndToEnd, DeadAndHungCalleesFailInsteadOfBlocking) {
    OwnerProcess hung({{"hostSet", kep_test::hang()}});
    ASSERT_TRUE(hung.ready());
    wire(hung.pid());
    qxImiSetTimeout(200);
    EXPECT_EQ(handle(R"({"method":"set","m":{"host_1":{}}})"), R"({"error_code":-20006})");
    hung.kill();
    EXPECT_EQ(handle(R"({"method":"set","m":{"host_1":{}}})"), R"({"error_code":-20005})");
    EXPECT_EQ(handle(R"({"method":"get","m":{"table":"host"}})"), R"({"error_code":-10000})");
}

TEST_F(EndToEnd, ConcurrentGetsFromManyThreads) {
    OwnerProcess owner(goodOwner());
    ASSERT_TRUE(owner.ready());
    wire(owner.pid());
    const std::string tableRsp =
        R"({"m":{"count":{"host":9},"host":[{"host_1":{"ip":"a"}},{"host_2":{"ip":"b"}}]},"error_code":0})";
    const std::string sectionRsp = R"({"m":{"time":{"zone":"utc"}},"error_code":0})";
    std::vector<std::thread> threads;
    std::vector<int> bad(6, 0);
    for (int t = 0; t < 6; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 15; i++) {
                char *out = nullptr;
                bool table = (t + i) % 2 == 0;
                const char *req = table ? R"({"method":"get","m":{"table":"host"}})"
                                        : R"({"method":"get","m":{"name":"time"}})";
                if (standardKepReqHandle(req, &out) != 0 || !out) {
                    bad[t]++;
                    continue;
                }
                json_object *parsed = jsonParseStr(out);
                free(out);
                if (!parsed || jsonGetObjectStringOrigin(parsed) != (table ? tableRsp : sectionRsp)) bad[t]++;
                jsonObjectObjectDelete(parsed);
            }
        });
    }
    for (auto &th : threads) th.join();
    for (int t = 0; t < 6; t++) EXPECT_EQ(bad[t], 0) << "thread " << t;
    EXPECT_EQ(owner.calls().size(), 90u);
}

}  // namespace
