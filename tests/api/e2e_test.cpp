// Requests through the request entry while a forked owner process serves the
// callbacks over the RPC: what each callback receives, the exact response, and the
// answers of a real peer that cannot be used (dead and hung peers: faults_test).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <thread>
#include <vector>

#include "kep_json.h"
#include "kep_model.h"
#include "kep_pf_json.h"
#include "kep_request.h"
#include "kep_tree.h"
#include "kep_xml.h"
#include "log_capture.h"
#include "owner_process.h"

using kep_test::answer;
using kep_test::OwnerProcess;

namespace {

// The response text re-serialised: spacing does not matter, member order does.
std::string handle(const std::string &request) {
    char *out = nullptr;
    if (standardKepReqHandle(request.c_str(), &out) != 0 || !out) return "<no response>";
    json_object *parsed = jsonParseStr(out);
    free(out);
    std::string text = parsed ? jsonGetObjectStringOrigin(parsed) : "<not json>";
    jsonObjectObjectDelete(parsed);
    return text;
}

// Every call the owner received, as "cb(member=text,...)".
std::vector<std::string> received(const OwnerProcess &owner) {
    std::vector<std::string> out;
    for (const kep_test::RecordedCall &call : owner.calls()) {
        std::string s = call.cb + "(";
        for (const kep_test::RecordedMember &m : call.members)
            s += (s.back() == '(' ? "" : ",") + m.name + "=" + m.text;
        out.push_back(s + ")");
    }
    return out;
}

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

// Module m: list table host, private table sys whose section time has its own get
// and set and three listeners, action reboot; all served by the owner.
class EndToEnd : public ::testing::Test {
protected:
    void wire(const OwnerProcess &owner) {
        ASSERT_TRUE(owner.ready());
        XmlNode **doc = strXmlParse(
            R"(<model><module name="m"><table name="host"/><table name="sys"><section name="time"/></table>)"
            R"(</module></model>)",
            1);
        ASSERT_NE(doc, nullptr);
        ASSERT_EQ(registerDataModel(*doc), 0);
        mxmlTreeDelete(doc);
        const int pid = static_cast<int>(owner.pid());
        int rc = registerMethodCb("/m/host", KEP_METHOD_GET, "hostGet", pid) |
                 registerMethodCb("/m/host", KEP_METHOD_SET, "hostSet", pid) |
                 registerMethodCb("/m/host", KEP_METHOD_ADD, "hostAdd", pid) |
                 registerMethodCb("/m/host", KEP_METHOD_DELETE, "hostDel", pid) |
                 registerMethodCb("/m/sys/time", KEP_METHOD_GET, "timeGet", pid) |
                 registerMethodCb("/m/sys/time", KEP_METHOD_SET, "timeSet", pid);
        // Declared by the first test of a process; a later one points it at its own owner.
        if (registerAction("m", "reboot", "rebootCb", pid) != 0)
            rc |= registerMethodCb("/m/reboot", KEP_METHOD_ACTION, "rebootCb", pid);
        for (const char *cb : {"listenA", "listenB", "listenC"})
            rc |= registerVerNotify("/m/sys/time", KEP_SELECT_NOTIFY, cb, pid);
        ASSERT_EQ(rc, 0);
    }
};

TEST_F(EndToEnd, EveryMethodReachesTheRightCallbackWithTheRightMembers) {
    OwnerProcess owner(goodOwner());
    wire(owner);
    struct Step {
        const char *request;
        const char *response;
        std::vector<std::string> calls;
    } steps[] = {
        {R"({"method":"get","m":{"table":"host","filter":{"ip":"a"},"para":{"page":1}}})",
         R"({"m":{"count":{"host":9},"host":[{"host_1":{"ip":"a"}},{"host_2":{"ip":"b"}}]},"error_code":0})",
         {R"(hostGet(table=host,para={"page":1},filter={"ip":"a"}))"}},
        {R"({"method":"get","m":{"name":["time","host_7"]}})",
         R"({"m":{"time":{"zone":"utc"},"host_7":{"host_1":{"ip":"a"},"host_2":{"ip":"b"},"countAll":9}},)"
         R"("error_code":0})",
         {"timeGet(name=time)", "hostGet(name=host_7)"}},
        {R"({"method":"set","m":{"table":"host","filter":{"ip":"a"},"para":{"ip":"c"}}})",
         R"({"error_code":0})",
         {R"(hostSet(para={"ip":"c"},filter={"ip":"a"}))"}},
        {R"({"method":"set","m":{"time":{"zone":"cet"},"host_1":{"ip":"d"}}})",
         R"({"error_code":0})",
         {R"(timeSet(name=time,para={"zone":"cet"}))", R"(hostSet(name=host_1,para={"ip":"d"}))"}},
        {R"({"method":"add","m":{"table":"host","name":"host_3","para":{"ip":"e"}}})",
         R"({"m":{"name":["host_3"]},"error_code":0})",
         {R"(hostAdd(name=host_3,table=host,para={"ip":"e"}))"}},
        {R"({"method":"delete","m":{"name":"host_2"}})", R"({"error_code":0})", {"hostDel(name=host_2)"}},
        {R"({"method":"delete","m":{"name":["host_1","host_2"]}})",
         R"({"error_code":0})",
         {"hostDel(name=host_1)", "hostDel(name=host_2)"}},
        {R"({"method":"delete","m":{"table":"host","filter":{"ip":"b"}}})",
         R"({"error_code":0})",
         {R"(hostDel(filter={"ip":"b"}))"}},
        {R"({"method":"do","m":{"reboot":{"delay":5}}})",
         R"({"after":5,"error_code":0})",
         {R"(rebootCb(para={"delay":5}))"}},
    };
    for (const Step &s : steps) {
        owner.clearCalls();
        EXPECT_EQ(handle(s.request), s.response);
        EXPECT_EQ(received(owner), s.calls) << s.request;
    }
    owner.clearCalls();
    notifySecdataChanged("/m/sys/time");  // listenB refuses: listenC is not told
    EXPECT_EQ(received(owner), (std::vector<std::string>{"listenA(name=section,para=time)",
                                                         "listenB(name=section,para=time)"}));
}

TEST_F(EndToEnd, CalleeAnswersThatAreNotUsable) {
    OwnerProcess owner({
        {"hostGet", answer(0, "not json")},
        {"hostSet", answer(-321)},
        {"hostAdd", answer(0)},
        {"hostDel", [](QxRpcPara *) { return 0; }},  // answers no errorCode
        {"timeGet", answer(0)},
        {"timeSet", answer(0)},
        {"rebootCb", answer(0, "oops")},
    });
    wire(owner);
    EXPECT_EQ(handle(R"({"method":"get","m":{"table":"host"}})"), R"({"error_code":-10000})");
    EXPECT_EQ(handle(R"({"method":"get","m":{"name":"time"}})"), R"({"error_code":-10000})");
    EXPECT_EQ(handle(R"({"method":"set","m":{"host_1":{}}})"), R"({"error_code":-321})");
    EXPECT_EQ(handle(R"({"method":"delete","m":{"name":"host_1"}})"), R"({"error_code":-1500})");
    EXPECT_EQ(handle(R"({"method":"add","m":{"table":"host","para":{}}})"),
              R"({"m":{"name":[]},"error_code":0})");
    EXPECT_EQ(handle(R"({"method":"do","m":{"reboot":{}}})"), R"({"error_code":-10100})");
    // No rollback: module x fails after m's section was set.
    owner.clearCalls();
    EXPECT_EQ(handle(R"({"method":"set","m":{"time":{}},"x":{"a":{}}})"), R"({"error_code":-7004})");
    EXPECT_EQ(received(owner), (std::vector<std::string>{"timeSet(name=time,para={})"}));
}

TEST_F(EndToEnd, ConcurrentGetsFromManyThreads) {
    OwnerProcess owner(goodOwner());
    wire(owner);
    const std::string requests[2] = {R"({"method":"get","m":{"table":"host"}})",
                                     R"({"method":"get","m":{"name":"time"}})"};
    const std::string responses[2] = {handle(requests[0]), handle(requests[1])};
    ASSERT_EQ(responses[1], R"({"m":{"time":{"zone":"utc"}},"error_code":0})");
    kep_test::LogCapture log;  // the logging path runs on every thread too
    std::vector<int> wrong(6, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 15; i++) wrong[t] += handle(requests[(t + i) % 2]) != responses[(t + i) % 2];
        });
    }
    for (std::thread &th : threads) th.join();
    EXPECT_EQ(wrong, std::vector<int>(6, 0));
    EXPECT_EQ(owner.calls().size(), 92u);
    EXPECT_FALSE(log.lines().empty());
}

}  // namespace
