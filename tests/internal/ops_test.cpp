// Model operations against in-process callees: which callback each operation picks,
// what it sends, and how the answer becomes the result.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "base/guard.h"
#include "kep_diag.h"
#include "kep_json.h"
#include "kep_model.h"
#include "ops/imi_invoke.h"
#include "ops_fixture.h"

using kep::JsonPtr;
using kep::ModelReqParams;
using kep_test::Members;

namespace {

std::string text(json_object *v) {
    return jsonGetObjectStringOrigin(v);
}

class OpsTest : public kep_test::OpsFixture {
protected:
    size_t totalCalls() {
        size_t n = 0;
        for (auto &c : callees_) n += c.second->calls.size();
        return n;
    }
};

TEST_F(OpsTest, InvokerChecksSendsInOrderAndPassesAnswersOn) {
    kep_test::Callee &c = callee("cb", std::nullopt);
    auto invoke = [](ModelReqParams p) {
        kep::RpcPara set;
        int rc = kep::imiExcuteKepHandle(set.get(), &p);
        return std::make_pair(rc, std::string(p.outBuf ? p.outBuf : "<none>"));
    };
    EXPECT_EQ(invoke({-1, "cb", "s", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr}).first, -1);
    EXPECT_EQ(invoke({self(), "", "s", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr}).first, -1);
    ModelReqParams p{self(), "cb", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    EXPECT_EQ(kep::imiExcuteKepHandle(nullptr, &p), -1);
    EXPECT_EQ(calls("cb"), 0u);
    // pid 0 is sent
    EXPECT_NE(invoke({0, "cb", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr}).first, -1);

    EXPECT_EQ(invoke(p), std::make_pair(0, std::string("<none>")));
    EXPECT_TRUE(last("cb").empty());
    c.errorCode = 42;
    c.result = "\"why\"";
    EXPECT_EQ(invoke({self(), "cb", "s", "{\"a\":1}", "{\"f\":2}", nullptr, "t", nullptr, nullptr}),
              std::make_pair(42, std::string("\"why\"")));
    EXPECT_EQ(last("cb"),
              (Members{{"name", "s"}, {"table", "t"}, {"para", "{\"a\":1}"}, {"filter", "{\"f\":2}"}}));
    c.errorCode = std::nullopt;
    EXPECT_EQ(invoke(p), std::make_pair(-1500, std::string("<none>")));
}

// One module holding every kind of table and section the resolution tells apart.
class Resolution : public OpsTest {
protected:
    static constexpr const char *kLongest = "abcdefghijklmnopqrstuvwxyz01234";  // 31 characters
    void SetUp() override {
        OpsTest::SetUp();
        DataModule *m = kep_test::addModule("m");
        DataTable *host = kep_test::addTable(m, "host");
        slot(host->methodCb[KEP_METHOD_GET], "hostGet");
        slot(host->methodCb[KEP_METHOD_SET], "hostSet");
        slot(host->methodCb[KEP_METHOD_DELETE], "hostDel");
        kep_test::addSection(host, "host_1");  // a list entry: no callbacks of its own
        slot(kep_test::addTable(m, "host_guest")->methodCb[KEP_METHOD_GET], "guestGet");
        slot(kep_test::addTable(m, "both")->methodCb[KEP_METHOD_GET], "bothGet");
        slot(kep_test::addTable(m, kLongest)->methodCb[KEP_METHOD_GET], "longestGet");
        slot(kep_test::addTable(m, "")->methodCb[KEP_METHOD_GET], "unnamedGet");  // a description's name=""
        slot(kep_test::addTable(m, "v")->methodCb[KEP_METHOD_GET], "vGet");       // a name of one character
        DataTable *sys = kep_test::addTable(m, "sys", 0);
        slot(sys->methodCb[KEP_METHOD_SET], "sysSet");
        DataSection *time = kep_test::addSection(sys, "time");
        slot(time->methodCb[KEP_METHOD_GET], "timeGet");
        slot(time->methodCb[KEP_METHOD_SET], "timeSet");
        slot(time->methodCb[KEP_METHOD_DELETE], "timeDel");
        slot(kep_test::addSection(sys, "both")->methodCb[KEP_METHOD_GET], "secBothGet");
        kep_test::addSection(sys, "log");
        DataTable *dyn = kep_test::addTable(m, "dyn", 0);
        dyn->isDynamic = 1;
        kep_test::addSection(dyn, "dyn_1");
        slot(dyn->methodCb[KEP_METHOD_SET], "dynSet");
        slot(dyn->methodCb[KEP_METHOD_DELETE], "dynDel");
        DataTable *leases = kep_test::addTable(m, "leases");
        leases->isDynamic = 1;
        slot(leases->methodCb[KEP_METHOD_SET], "leaseSet");  // an owner's data is not set
        slot(leases->methodCb[KEP_METHOD_DELETE], "leaseDel");
        leases->opr.pid = self();
        snprintf(leases->opr.cb, sizeof leases->opr.cb, "leaseRead");
        for (const char *cb : {"hostGet", "hostSet", "hostDel", "guestGet", "bothGet", "longestGet",
                               "unnamedGet", "vGet", "sysSet", "timeGet", "timeSet", "timeDel", "secBothGet",
                               "dynSet", "dynDel", "leaseSet", "leaseDel", "leaseRead"})
            callee(cb);
    }
};

TEST_F(Resolution, SectionNamesReachTheirCallback) {
    enum Op { Get, Set, Del };
    struct Case {
        Op op;
        const char *name;
        int rc;
        const char *cb;  // "" when nobody may be called
    } cases[] = {
        {Get, "host_5", 0, "hostGet"},
        {Get, "host_guest_2", 0, "guestGet"},
        {Get, "both", 0, "secBothGet"},
        {Get, "host_1", -1, ""},
        {Get, "plain", -1, ""},
        {Get, "nothing_1", -1, ""},
        {Get, "_1", -1, ""},  // no table's entry, not even of the one without a name
        {Get, "v_2", 0, "vGet"},
        {Get, "abcdefghijklmnopqrstuvwxyz01234_12", 0, "longestGet"},  // a name of 31
        {Get, "abcdefghijklmnopqrstuvwxyz012345_1", -1, ""},           // not cut to 31
        {Get, "leases_3", 0, "leaseRead"},
        {Set, "host_1", 0, "hostSet"},
        {Set, "time", 0, "timeSet"},
        {Set, "host_4", 0, "hostSet"},
        {Set, "log", -7004, ""},
        {Set, "sys_2", -7004, ""},
        {Set, "dyn_1", -7004, ""},
        {Set, "dyn_2", -7004, ""},
        {Set, "leases_2", -7004, ""},
        {Set, "ghost_1", -4000, ""},
        {Set, "ghost", -4000, ""},
        {Del, "host_1", 0, "hostDel"},
        {Del, "host_7", 0, "hostDel"},
        {Del, "time", 0, "timeDel"},
        {Del, "leases_2", 0, "leaseDel"},
        {Del, "dyn_1", -8000, ""},
        {Del, "dyn_2", -8000, ""},
        {Del, "host", -4000, ""},
        {Del, "sys_1", -1, ""},
    };
    JsonPtr para(jsonParseStr("{\"v\":1}"));
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.op) + " " + c.name);
        size_t before = totalCalls();
        JsonPtr out;
        int rc = c.op == Get   ? getSectionObjJson("m", c.name, out.out())
                 : c.op == Set ? editSectionByObjJson("m", c.name, para.get(), nullptr)
                               : deleteDataSection("m", c.name);
        EXPECT_EQ(rc, c.rc);
        EXPECT_EQ(totalCalls(), before + (*c.cb ? 1 : 0));
        if (!*c.cb) continue;
        Members sent{{"name", c.name}};
        if (c.op == Set) sent.emplace_back("para", "{\"v\":1}");
        EXPECT_EQ(last(c.cb), sent);
    }
    // A null name is refused as such (-7004), not looked for (-4000).
    EXPECT_EQ(editSectionByObjJson("m", nullptr, para.get(), nullptr), -7004);
    EXPECT_EQ(deleteDataSection("m", nullptr), -7004);
}

TEST_F(Resolution, TableOperationsSendTheRequestMembers) {
    JsonPtr out;
    JsonPtr req(jsonParseStr("{\"table\":\"host\",\"filter\":{\"ip\":\"a\"},\"para\":[1]}"));
    ASSERT_EQ(getTableObjJson("m", "host", req.get(), out.out()), 0);
    EXPECT_EQ(last("hostGet"), (Members{{"table", "host"}, {"para", "[1]"}, {"filter", "{\"ip\":\"a\"}"}}));
    EXPECT_EQ(editTableByObjJson("m", "host", req.get()), 0);
    EXPECT_EQ(last("hostSet"), (Members{{"para", "[1]"}, {"filter", "{\"ip\":\"a\"}"}}));
    EXPECT_EQ(deleteDataTable("m", "host", jsonObjectObjectGet(req.get(), "filter")), 0);
    EXPECT_EQ(last("hostDel"), (Members{{"filter", "{\"ip\":\"a\"}"}}));

    JsonPtr bare(jsonParseStr("{\"para\":{}}"));
    size_t before = totalCalls();
    EXPECT_EQ(editTableByObjJson("m", "host", bare.get()), -7004);  // no filter
    EXPECT_EQ(editTableByObjJson("m", "nope", req.get()), -4000);
    EXPECT_EQ(editTableByObjJson("m", nullptr, req.get()), -7004);  // refused, not looked for
    EXPECT_EQ(editTableByObjJson("m", "sys", req.get()), -7004);
    EXPECT_EQ(deleteDataTable("m", "sys", nullptr), -7004);
    EXPECT_EQ(deleteDataTable("m", "leases", nullptr), -7004);
    EXPECT_EQ(totalCalls(), before);

    ASSERT_EQ(getTableObjJson("m", "host", bare.get(), out.out()), 0);
    EXPECT_EQ(last("hostGet"), (Members{{"table", "host"}, {"para", "{}"}}));
    callee("hostGet", std::nullopt);
    EXPECT_EQ(getTableObjJson("m", "host", bare.get(), out.out()), -10100);
    callee("hostGet", "not json");
    EXPECT_EQ(getTableObjJson("m", "host", bare.get(), out.out()), -10100);
    callee("hostGet").errorCode = -3;
    EXPECT_EQ(getTableObjJson("m", "host", bare.get(), out.out()), -3);
}

// What this thread's failure record says after an operation: "none", or
// "code pid cb module/name" with pid as "self" for this process.
std::string lastFailure() {
    KepCallFailure f;
    memset(&f, 0x55, sizeof f);
    if (!kepLastCallFailure(&f)) return "none";
    const std::string pid = f.pid == static_cast<int>(getpid()) ? "self" : std::to_string(f.pid);
    return std::to_string(f.code) + " " + pid + " " + f.cb + " " + f.module + "/" + f.name;
}

TEST_F(Resolution, AFailedOwnerCallLeavesItsCauseToThisThread) {
    JsonPtr out, req(jsonParseStr("{}"));
    JsonPtr para(jsonParseStr("{\"v\":1}"));
    kepLastCallFailure(nullptr);
    ASSERT_EQ(getTableObjJson("m", "host", req.get(), out.out()), 0);
    EXPECT_EQ(lastFailure(), "none");
    // A section name that is a table's own is read from that table's owner.
    EXPECT_EQ(getSectionObjJson("m", "host", out.out()), 0);
    EXPECT_EQ(lastFailure(), "none");

    // The owner's own code, and the section the read was for; read once, then gone.
    callee("hostGet").errorCode = 1003;
    EXPECT_EQ(getSectionObjJson("m", "host_5", out.out()), 1003);
    EXPECT_EQ(lastFailure(), "1003 self hostGet m/host_5");
    EXPECT_EQ(lastFailure(), "none");
    callee("hostGet").errorCode = std::nullopt;
    EXPECT_EQ(getTableObjJson("m", "host", req.get(), out.out()), -1500);
    EXPECT_EQ(lastFailure(), "-1500 self hostGet m/host");
    // The RPC's own failure.
    qxImiUnregister("timeGet");
    EXPECT_EQ(getSectionObjJson("m", "time", out.out()), QXRPC_ERR_NO_HANDLER);
    EXPECT_EQ(lastFailure(), "-20008 self timeGet m/time");

    // Nobody to call: the name is not in the tree, or no process serves it.
    EXPECT_EQ(getTableObjJson("m", "nope", req.get(), out.out()), -1);
    EXPECT_EQ(lastFailure(), "-4000 0  m/nope");
    EXPECT_EQ(getSectionObjJson("x", "host_1", out.out()), -1);
    EXPECT_EQ(lastFailure(), "-4000 0  x/host_1");
    EXPECT_EQ(getSectionObjJson("m", "ghost_1_with_a_name_longer_than_any_section", out.out()), -1);
    EXPECT_EQ(lastFailure(), "-4000 0  m/ghost_1_with_a_name_longer_than");
    EXPECT_EQ(getSectionObjJson("m", "host_1", out.out()), -1);
    EXPECT_EQ(lastFailure(), "-7004 0  m/host_1");
    EXPECT_EQ(getTableObjJson("m", "sys", req.get(), out.out()), -1);
    EXPECT_EQ(lastFailure(), "-7004 0  m/sys");
    // A null name is refused before any lookup: there is nothing to name.
    EXPECT_EQ(getSectionObjJson(nullptr, "host_1", out.out()), -1);
    EXPECT_EQ(lastFailure(), "none");
    EXPECT_EQ(getSectionObjJson("m", nullptr, out.out()), -1);
    EXPECT_EQ(lastFailure(), "none");
    EXPECT_EQ(getTableObjJson("m", nullptr, req.get(), out.out()), -1);
    EXPECT_EQ(lastFailure(), "none");

    // Writes and actions name what they were for too; a later success keeps the
    // failure that ended the request.
    callee("hostSet").errorCode = 1002;
    JsonPtr byFilter(jsonParseStr("{\"filter\":{\"ip\":\"a\"},\"para\":{}}"));
    EXPECT_EQ(editTableByObjJson("m", "host", byFilter.get()), 1002);
    callee("hostGet").errorCode = 0;
    ASSERT_EQ(getTableObjJson("m", "host", req.get(), out.out()), 0);
    EXPECT_EQ(lastFailure(), "1002 self hostSet m/host");
    action(getDataModuler("m"), "reboot", "rebootCb", self());
    callee("rebootCb").errorCode = 9;
    EXPECT_EQ(doActionToModel("m", "reboot", para.get(), out.out()), 9);
    EXPECT_EQ(lastFailure(), "9 self rebootCb m/reboot");

    // Another thread's failure is its own.
    callee("leaseRead").errorCode = 77;
    std::string there;
    std::thread([&] {
        getSectionObjJson("m", "leases_1", out.out());
        there = lastFailure();
    }).join();
    EXPECT_EQ(there, "77 self leaseRead m/leases_1");
    EXPECT_EQ(lastFailure(), "none");

    // An interface that names no callback, or no process, has nobody to ask.
    DataTable *leases = getDataTable(getDataModuler("m"), "leases");
    leases->opr.cb[0] = '\0';
    EXPECT_EQ(getSectionObjJson("m", "leases_1", out.out()), -1);
    EXPECT_EQ(lastFailure(), "-7004 0  m/leases_1");
    snprintf(leases->opr.cb, sizeof leases->opr.cb, "leaseRead");
    leases->opr.pid = -1;
    EXPECT_EQ(getSectionObjJson("m", "leases_1", out.out()), -1);
    EXPECT_EQ(lastFailure(), "-7004 0  m/leases_1");
    // Process 0 is a process: it is asked (here it serves nothing).
    leases->opr.pid = 0;
    EXPECT_EQ(getSectionObjJson("m", "leases_1", out.out()), QXRPC_ERR_NO_PEER);
    EXPECT_EQ(lastFailure(), std::to_string(QXRPC_ERR_NO_PEER) + " 0 leaseRead m/leases_1");
}

TEST_F(OpsTest, TransferTurnsSectionsIntoRows) {
    json_object *v = jsonParseStr("{\"a\":{\"x\":1},\"b\":{}}");
    ASSERT_EQ(transferJsonTable(&v), 0);
    EXPECT_EQ(text(v), "[{\"a\":{\"x\":1}},{\"b\":{}}]");
    json_object *same = v;
    EXPECT_EQ(transferJsonTable(&v), 0);
    EXPECT_EQ(v, same);
    jsonObjectObjectDelete(v);
    json_object *none = nullptr;
    EXPECT_EQ(transferJsonTable(&none), -1);
    EXPECT_EQ(transferJsonTable(nullptr), -1);
}

TEST_F(OpsTest, AddAnswersTheOwnersNamesAsArray) {
    DataModule *m = kep_test::addModule("m");
    slot(kep_test::addTable(m, "host")->methodCb[KEP_METHOD_ADD], "add");
    slot(kep_test::addTable(m, "sys", 0)->methodCb[KEP_METHOD_ADD], "sysAdd");
    kep_test::addTable(m, "bare");
    kep_test::Callee &c = callee("add", std::string("\"host_3\""));
    callee("sysAdd");
    JsonPtr para(jsonParseStr("{\"ip\":\"x\"}"));
    JsonPtr res(jsonObjectNewObject());
    auto add = [&](const char *table, const char *name) {
        return addSectionByObjJson("m", table, name, para.get(), res.get());
    };

    EXPECT_EQ(add("host", nullptr), 0);
    EXPECT_EQ(text(res.get()), "{\"name\":[\"host_3\"]}");
    EXPECT_EQ(last("add"), (Members{{"table", "host"}, {"para", "{\"ip\":\"x\"}"}}));
    c.result = "\"host_4\",\"host_5\"";
    EXPECT_EQ(add("host", "host_4"), 0);
    EXPECT_EQ(text(res.get()), "{\"name\":[\"host_4\",\"host_5\"]}");
    EXPECT_EQ(last("add"), (Members{{"name", "host_4"}, {"table", "host"}, {"para", "{\"ip\":\"x\"}"}}));
    c.result = std::nullopt;
    EXPECT_EQ(add("host", nullptr), 0);
    EXPECT_EQ(text(res.get()), "{\"name\":[]}");
    c.errorCode = 7;
    EXPECT_EQ(add("host", nullptr), 7);
    EXPECT_EQ(add("sys", nullptr), -7004);
    EXPECT_EQ(add("bare", nullptr), -7004);
    EXPECT_EQ(add("nope", nullptr), -7004);
    EXPECT_EQ(calls("sysAdd"), 0u);
}

TEST_F(OpsTest, ActionUsesFirstClaimedNodeOfItsName) {
    DataModule *m = kep_test::addModule("m");
    action(m, "reboot", "", 0);  // declared, unclaimed
    action(m, "reboot", "rebootCb", self());
    action(m, "reboot", "laterCb", self());
    action(m, "reset", "", 0);
    kep_test::Callee &c = callee("rebootCb");
    callee("laterCb");
    JsonPtr params(jsonParseStr("{\"delay\":3}"));
    JsonPtr res;
    EXPECT_EQ(doActionToModel("m", "reboot", params.get(), res.out()), 0);
    EXPECT_EQ(text(res.get()), "{}");
    EXPECT_EQ(last("rebootCb"), (Members{{"para", "{\"delay\":3}"}}));
    c.result = std::nullopt;
    EXPECT_EQ(doActionToModel("m", "reboot", params.get(), res.out()), -10100);
    c.errorCode = 9;
    EXPECT_EQ(doActionToModel("m", "reboot", params.get(), res.out()), 9);
    EXPECT_EQ(doActionToModel("m", "reset", params.get(), res.out()), -7004);
    // A claim by process 0 is a claim: the call goes to it (and finds nobody there).
    action(m, "halt", "haltCb", 0);
    EXPECT_EQ(doActionToModel("m", "halt", params.get(), res.out()), QXRPC_ERR_NO_PEER);
    // A callback name of one character is a claim like any other.
    action(m, "stop", "s", self());
    callee("s");
    EXPECT_EQ(doActionToModel("m", "stop", params.get(), res.out()), 0);
    EXPECT_EQ(doActionToModel("x", "reboot", params.get(), res.out()), -7004);
    EXPECT_EQ(doActionToModel("m", nullptr, params.get(), res.out()), -7004);
    EXPECT_EQ(doActionToModel(nullptr, "reboot", params.get(), res.out()), -7004);
    EXPECT_EQ(calls("laterCb"), 0u);
}

std::string gRecord;
int recordWriter(const char *name, json_object *value, void *, int) {
    gRecord = std::string(name) + "=" + jsonGetObjectStringOrigin(value);
    return 4;
}

TEST_F(OpsTest, RecordFromRequestMergesStoredValues) {
    char path[] = "/tmp/kepopsXXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const char doc[] = "{\"sys\":{\"time\":{\"zone\":\"utc\",\"ntp\":1,\"on\":0}}}";
    ASSERT_EQ(write(fd, doc, sizeof doc - 1), static_cast<ssize_t>(sizeof doc - 1));
    close(fd);
    DataModule *m = kep_test::addModule("m");
    snprintf(m->configFile, sizeof m->configFile, "%s", path);
    DataTable *sys = kep_test::addTable(m, "sys", 0);
    kep_test::addSection(sys, "time")->opr.jsonToBin.config = recordWriter;
    DataTable *live = kep_test::addTable(m, "live", 0);  // the owner's data: no record from the file
    live->isDynamic = 1;
    kep_test::addSection(live, "time")->opr.jsonToBin.config = recordWriter;
    char buf[8];
    JsonPtr req(jsonParseStr("{\"m\":{\"time\":{\"ntp\":5,\"on\":true,\"extra\":1}}}"));
    EXPECT_EQ(modelReadFromReqObj("/m/sys/time", req.get(), buf, sizeof buf), 4);
    EXPECT_EQ(gRecord, "time={\"zone\":\"utc\",\"ntp\":5,\"on\":1}");
    JsonPtr bad(jsonParseStr("{\"m\":{\"time\":{\"ntp\":[1]}}}"));
    EXPECT_EQ(modelReadFromReqObj("/m/sys/time", bad.get(), buf, sizeof buf), -1);
    EXPECT_EQ(modelReadFromReqObj("/m/sys/date", req.get(), buf, sizeof buf), -1);
    EXPECT_EQ(modelReadEx("/m/sys/time", req.get(), buf, 0), -1);
    EXPECT_EQ(modelReadEx("/m/sys/time", req.get(), buf, 1), 4);  // a record may be one byte
    EXPECT_EQ(modelReadFromReqObj(nullptr, req.get(), buf, sizeof buf), -1);
    EXPECT_EQ(modelReadFromReqObj("/m/sys/time", nullptr, buf, sizeof buf), -1);
    // A path without a section names none, not a section of an empty name.
    kep_test::addSection(sys, "")->opr.jsonToBin.config = recordWriter;
    for (const char *path : {"/m/sys/date", "/m/nosuch/time", "/m/sys", "/m/sys/", "/m/live/time"}) {
        EXPECT_EQ(modelReadEx(path, req.get(), buf, sizeof buf), -1) << path;
        EXPECT_EQ(modelReadFromReqObj(path, req.get(), buf, sizeof buf), -1) << path;
    }
    unlink(path);
}

}  // namespace
