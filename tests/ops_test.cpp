// Model operations against in-process callees: which callback is chosen, what it
// receives, and how its answer becomes the result.
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "guard.h"
#include "kep_json.h"
#include "kep_model.h"
#include "ops/imi_invoke.h"
#include "ops_fixture.h"

using kep::JsonPtr;
using kep::ModelReqParams;
using kep_test::Members;

namespace {

std::string text(json_object *v) { return jsonGetObjectStringOrigin(v); }

class OpsTest : public kep_test::OpsFixture {};

// ---- the invoker ----

TEST_F(OpsTest, InvokerRefusesBadRecordsWithoutTraffic) {
    callee("cb");
    kep::RpcPara set;
    ModelReqParams p{};
    p.pid = -1;
    p.cb = "cb";
    EXPECT_EQ(kep::imiExcuteKepHandle(set.get(), &p), -1);
    p.pid = self();
    p.cb = "";
    EXPECT_EQ(kep::imiExcuteKepHandle(set.get(), &p), -1);
    p.cb = "cb";
    EXPECT_EQ(kep::imiExcuteKepHandle(nullptr, &p), -1);
    EXPECT_EQ(kep::imiExcuteKepHandle(set.get(), nullptr), -1);
    EXPECT_EQ(calls("cb"), 0);
    // pid 0 is a valid address: the call is attempted and fails in the RPC, not here.
    p.pid = 0;
    EXPECT_NE(kep::imiExcuteKepHandle(set.get(), &p), -1);
}

TEST_F(OpsTest, InvokerSendsMembersInFixedOrder) {
    auto &c = callee("cb", std::nullopt);
    {
        kep::RpcPara set;
        ModelReqParams p{self(), "cb", nullptr, nullptr, nullptr, nullptr, nullptr};
        EXPECT_EQ(kep::imiExcuteKepHandle(set.get(), &p), 0);
        EXPECT_EQ(p.outBuf, nullptr);
    }
    {
        kep::RpcPara set;
        ModelReqParams p{self(), "cb", "s", "{\"a\":1}", "{\"f\":2}", nullptr, "t"};
        EXPECT_EQ(kep::imiExcuteKepHandle(set.get(), &p), 0);
    }
    ASSERT_EQ(c.calls.size(), 2u);
    EXPECT_TRUE(c.calls[0].empty());
    EXPECT_EQ(c.calls[1], (Members{{"name", "s"}, {"table", "t"}, {"para", "{\"a\":1}"}, {"filter", "{\"f\":2}"}}));
}

TEST_F(OpsTest, InvokerPassesCalleeCodeAndResult) {
    auto &c = callee("cb", std::string("\"why\""));
    c.errorCode = 42;
    kep::RpcPara set;
    ModelReqParams p{self(), "cb", nullptr, nullptr, nullptr, nullptr, nullptr};
    EXPECT_EQ(kep::imiExcuteKepHandle(set.get(), &p), 42);
    ASSERT_NE(p.outBuf, nullptr);
    EXPECT_STREQ(p.outBuf, "\"why\"");

    c.errorCode = std::nullopt;
    kep::RpcPara set2;
    ModelReqParams q{self(), "cb", nullptr, nullptr, nullptr, nullptr, nullptr};
    EXPECT_EQ(kep::imiExcuteKepHandle(set2.get(), &q), -1500);
    EXPECT_EQ(q.outBuf, nullptr);
}

// ---- reads ----

TEST_F(OpsTest, TableReadSendsTableParaAndFilter) {
    DataTable *t = table(module("m"), "host");
    slot(t->methodCb[KEP_METHOD_GET], "get");
    auto &c = callee("get", std::string("{\"host_1\":{\"ip\":\"a\"}}"));
    JsonPtr req(jsonParseStr("{\"table\":\"host\",\"filter\":{\"ip\":\"a\"},\"para\":[1]}"));
    json_object *out = nullptr;
    ASSERT_EQ(getTableObjJson("m", "host", req.get(), &out), 0);
    JsonPtr data(out);
    EXPECT_EQ(text(out), "{\"host_1\":{\"ip\":\"a\"}}");
    EXPECT_EQ(c.calls.back(), (Members{{"table", "host"}, {"para", "[1]"}, {"filter", "{\"ip\":\"a\"}"}}));

    JsonPtr bare(jsonParseStr("{\"table\":\"host\"}"));
    ASSERT_EQ(getTableObjJson("m", "host", bare.get(), data.out()), 0);
    EXPECT_EQ(c.calls.back(), (Members{{"table", "host"}}));

    c.result = std::nullopt;
    EXPECT_EQ(getTableObjJson("m", "host", bare.get(), data.out()), -10100);
    c.result = "not json";
    EXPECT_EQ(getTableObjJson("m", "host", bare.get(), data.out()), -10100);
    c.errorCode = -3;
    EXPECT_EQ(getTableObjJson("m", "host", bare.get(), data.out()), -3);
    EXPECT_EQ(getTableObjJson("m", "nope", bare.get(), data.out()), -1);
}

TEST_F(OpsTest, SectionReadResolvesSectionNodesAndListNames) {
    DataModule *m = module("m");
    DataTable *host = table(m, "host");
    DataTable *guest = table(m, "host_guest");
    DataTable *both = table(m, "both");
    DataTable *priv = table(m, "priv", 0);
    slot(host->methodCb[KEP_METHOD_GET], "hostGet");
    slot(guest->methodCb[KEP_METHOD_GET], "guestGet");
    slot(both->methodCb[KEP_METHOD_GET], "tableGet");
    slot(section(priv, "both")->methodCb[KEP_METHOD_GET], "secGet");
    section(host, "host_9");  // a list entry without callbacks of its own
    priv->methodCb[KEP_METHOD_GET] = nullptr;
    callee("hostGet");
    callee("guestGet");
    callee("tableGet");
    callee("secGet", std::string("{\"x\":1}"));

    JsonPtr out;
    EXPECT_EQ(getSectionObjJson("m", "host_1", out.out()), 0);
    EXPECT_EQ(callees_["hostGet"]->calls.back(), (Members{{"name", "host_1"}}));
    EXPECT_EQ(getSectionObjJson("m", "host_guest_2", out.out()), 0);  // cut at the last underscore
    EXPECT_EQ(calls("guestGet"), 1);
    EXPECT_EQ(getSectionObjJson("m", "both", out.out()), 0);  // a section node wins over a table
    EXPECT_EQ(calls("secGet"), 1);
    EXPECT_EQ(text(out.get()), "{\"x\":1}");
    EXPECT_EQ(calls("tableGet"), 0);
    EXPECT_EQ(getSectionObjJson("m", "host_9", out.out()), -1);  // own slot empty
    EXPECT_EQ(getSectionObjJson("m", "plain", out.out()), -1);
    EXPECT_EQ(getSectionObjJson("m", "nothing_1", out.out()), -1);
    EXPECT_EQ(calls("hostGet"), 1);
}

TEST_F(OpsTest, SectionOfDynamicTableIsReadThroughItsInterface) {
    DataTable *lease = table(module("m"), "lease", 1, 1);
    JsonPtr out;
    EXPECT_EQ(getSectionObjJson("m", "lease_3", out.out()), -1);  // nobody serves it yet
    lease->opr.pid = self();
    snprintf(lease->opr.cb, sizeof lease->opr.cb, "leaseRead");
    auto &c = callee("leaseRead", std::string("{\"mac\":\"m\"}"));
    EXPECT_EQ(getSectionObjJson("m", "lease_3", out.out()), 0);
    EXPECT_EQ(c.calls.back(), (Members{{"name", "lease_3"}}));
}

TEST_F(OpsTest, TransferTurnsSectionsIntoRows) {
    json_object *v = jsonParseStr("{\"a\":{\"x\":1},\"b\":{\"y\":2}}");
    ASSERT_EQ(transferJsonTable(&v), 0);
    EXPECT_EQ(text(v), "[{\"a\":{\"x\":1}},{\"b\":{\"y\":2}}]");
    json_object *same = v;
    EXPECT_EQ(transferJsonTable(&v), 0);
    EXPECT_EQ(v, same);
    jsonObjectObjectDelete(v);
    v = jsonParseStr("{}");
    ASSERT_EQ(transferJsonTable(&v), 0);
    EXPECT_EQ(text(v), "[]");
    jsonObjectObjectDelete(v);
    v = nullptr;
    EXPECT_EQ(transferJsonTable(&v), -1);
}

// ---- edits ----

TEST_F(OpsTest, TableEditNeedsFilterAndPara) {
    DataTable *t = table(module("m"), "host");
    slot(t->methodCb[KEP_METHOD_SET], "set");
    auto &c = callee("set");
    JsonPtr noFilter(jsonParseStr("{\"table\":\"host\",\"para\":{\"a\":1}}"));
    EXPECT_EQ(editTableByObjJson("m", "host", noFilter.get()), -7004);
    EXPECT_EQ(c.calls.size(), 0u);
    JsonPtr req(jsonParseStr("{\"table\":\"host\",\"para\":{\"a\":1},\"filter\":{\"b\":2}}"));
    EXPECT_EQ(editTableByObjJson("m", "host", req.get()), 0);
    EXPECT_EQ(c.calls.back(), (Members{{"para", "{\"a\":1}"}, {"filter", "{\"b\":2}"}}));
    EXPECT_EQ(editTableByObjJson("m", "nope", req.get()), -4000);
    EXPECT_EQ(editTableByObjJson("x", "host", req.get()), -7004);
}

TEST_F(OpsTest, SectionEditPicksTableOrSectionCallback) {
    DataModule *m = module("m");
    DataTable *host = table(m, "host");
    DataTable *sys = table(m, "sys", 0);
    DataTable *dyn = table(m, "dyn", 1, 1);
    table(m, "noset");
    section(host, "host_1");
    slot(section(sys, "time")->methodCb[KEP_METHOD_SET], "timeSet");
    section(sys, "log");  // no callback of its own
    section(dyn, "dyn_1");
    slot(host->methodCb[KEP_METHOD_SET], "hostSet");
    slot(sys->methodCb[KEP_METHOD_SET], "sysSet");
    slot(dyn->methodCb[KEP_METHOD_SET], "dynSet");
    auto &hostSet = callee("hostSet");
    auto &timeSet = callee("timeSet");
    callee("sysSet");
    callee("dynSet");
    JsonPtr para(jsonParseStr("{\"v\":1}"));

    EXPECT_EQ(editSectionByObjJson("m", "host_1", para.get(), nullptr), 0);
    EXPECT_EQ(hostSet.calls.back(), (Members{{"name", "host_1"}, {"para", "{\"v\":1}"}}));
    EXPECT_EQ(editSectionByObjJson("m", "time", para.get(), nullptr), 0);
    EXPECT_EQ(timeSet.calls.back(), (Members{{"name", "time"}, {"para", "{\"v\":1}"}}));
    EXPECT_EQ(editSectionByObjJson("m", "host_4", para.get(), nullptr), 0);  // list name, no node
    EXPECT_EQ(hostSet.calls.back(), (Members{{"name", "host_4"}, {"para", "{\"v\":1}"}}));

    EXPECT_EQ(editSectionByObjJson("m", "log", para.get(), nullptr), -7004);   // empty own slot
    EXPECT_EQ(editSectionByObjJson("m", "sys_2", para.get(), nullptr), -7004); // not a list table
    EXPECT_EQ(editSectionByObjJson("m", "dyn_1", para.get(), nullptr), -7004);
    EXPECT_EQ(editSectionByObjJson("m", "dyn_2", para.get(), nullptr), -7004);
    EXPECT_EQ(editSectionByObjJson("m", "noset_1", para.get(), nullptr), -7004);
    EXPECT_EQ(editSectionByObjJson("m", "ghost_1", para.get(), nullptr), -4000);
    EXPECT_EQ(editSectionByObjJson("m", "ghost", para.get(), nullptr), -4000);
    EXPECT_EQ(calls("sysSet") + calls("dynSet"), 0);
}

// ---- adds and deletes ----

TEST_F(OpsTest, AddReturnsTheOwnersNamesAsArray) {
    DataModule *m = module("m");
    DataTable *host = table(m, "host");
    slot(table(m, "sys", 0)->methodCb[KEP_METHOD_ADD], "sysAdd");
    table(m, "bare");
    slot(host->methodCb[KEP_METHOD_ADD], "add");
    auto &c = callee("add", std::string("\"host_3\""));
    callee("sysAdd");
    JsonPtr para(jsonParseStr("{\"ip\":\"x\"}"));
    JsonPtr res(jsonObjectNewObject());

    EXPECT_EQ(addSectionByObjJson("m", "host", nullptr, para.get(), res.get()), 0);
    EXPECT_EQ(text(res.get()), "{\"name\":[\"host_3\"]}");
    EXPECT_EQ(c.calls.back(), (Members{{"table", "host"}, {"para", "{\"ip\":\"x\"}"}}));
    c.result = "\"host_4\",\"host_5\"";
    EXPECT_EQ(addSectionByObjJson("m", "host", "host_4", para.get(), res.get()), 0);
    EXPECT_EQ(text(res.get()), "{\"name\":[\"host_4\",\"host_5\"]}");
    EXPECT_EQ(c.calls.back(), (Members{{"name", "host_4"}, {"table", "host"}, {"para", "{\"ip\":\"x\"}"}}));
    c.result = std::nullopt;
    EXPECT_EQ(addSectionByObjJson("m", "host", nullptr, para.get(), res.get()), 0);
    EXPECT_EQ(text(res.get()), "{\"name\":[]}");
    c.errorCode = 7;
    EXPECT_EQ(addSectionByObjJson("m", "host", nullptr, para.get(), res.get()), 7);

    EXPECT_EQ(addSectionByObjJson("m", "sys", nullptr, para.get(), res.get()), -7004);
    EXPECT_EQ(addSectionByObjJson("m", "bare", nullptr, para.get(), res.get()), -7004);
    EXPECT_EQ(addSectionByObjJson("m", "nope", nullptr, para.get(), res.get()), -7004);
    EXPECT_EQ(calls("sysAdd"), 0);
}

TEST_F(OpsTest, DeletesPickTheirCallbackAndRefuseDynamicSections) {
    DataModule *m = module("m");
    DataTable *host = table(m, "host");
    DataTable *sys = table(m, "sys", 0);
    DataTable *dyn = table(m, "dyn", 0, 1);
    DataTable *dynList = table(m, "leases", 1, 1);
    section(host, "host_1");
    slot(section(sys, "time")->methodCb[KEP_METHOD_DELETE], "timeDel");
    section(dyn, "dyn_1");
    slot(host->methodCb[KEP_METHOD_DELETE], "hostDel");
    slot(dyn->methodCb[KEP_METHOD_DELETE], "dynDel");
    slot(dynList->methodCb[KEP_METHOD_DELETE], "leaseDel");
    auto &hostDel = callee("hostDel");
    callee("timeDel");
    callee("dynDel");
    callee("leaseDel");

    EXPECT_EQ(deleteDataSection("m", "host_1"), 0);
    EXPECT_EQ(hostDel.calls.back(), (Members{{"name", "host_1"}}));
    EXPECT_EQ(deleteDataSection("m", "host_7"), 0);
    EXPECT_EQ(hostDel.calls.back(), (Members{{"name", "host_7"}}));
    EXPECT_EQ(deleteDataSection("m", "time"), 0);
    EXPECT_EQ(calls("timeDel"), 1);
    EXPECT_EQ(deleteDataSection("m", "leases_2"), 0);  // entries of a dynamic list table may go
    EXPECT_EQ(calls("leaseDel"), 1);

    EXPECT_EQ(deleteDataSection("m", "dyn_1"), -8000);
    EXPECT_EQ(deleteDataSection("m", "dyn_2"), -8000);
    EXPECT_EQ(calls("dynDel"), 0);
    EXPECT_EQ(deleteDataSection("m", "host"), -4000);  // a whole name is never a table here
    EXPECT_EQ(deleteDataSection("m", "sys_1"), -1);    // private table: no table delete slot
    EXPECT_EQ(deleteDataSection("x", "host_1"), -7004);

    JsonPtr filter(jsonParseStr("{\"ip\":\"a\"}"));
    EXPECT_EQ(deleteDataTable("m", "host", filter.get()), 0);
    EXPECT_EQ(hostDel.calls.back(), (Members{{"filter", "{\"ip\":\"a\"}"}}));
    EXPECT_EQ(deleteDataTable("m", "host", nullptr), 0);
    EXPECT_TRUE(hostDel.calls.back().empty());
    EXPECT_EQ(deleteDataTable("m", "sys", nullptr), -7004);
    EXPECT_EQ(deleteDataTable("m", "leases", nullptr), -7004);
}

TEST_F(OpsTest, NotifyStopsAtFirstRefusingListener) {
    DataSection *s = section(table(module("m"), "sys", 0), "time");
    listener(s, "n1");
    listener(s, "n2");
    listener(s, "n3");
    auto &n1 = callee("n1");
    callee("n2").errorCode = 5;
    callee("n3");
    notifySecdataChanged("/m/sys/time");
    EXPECT_EQ(n1.calls.back(), (Members{{"name", "section"}, {"para", "time"}}));
    EXPECT_EQ(calls("n2"), 1);
    EXPECT_EQ(calls("n3"), 0);
    notifySecdataChanged("/m/sys");
    notifySecdataChanged("/m/sys/other");
    notifySecdataChanged(nullptr);
    EXPECT_EQ(calls("n1"), 1);
}

// ---- actions ----

TEST_F(OpsTest, ActionUsesFirstClaimedNodeOfItsName) {
    DataModule *m = module("m");
    action(m, "reboot", "", 0);  // declared, unclaimed
    action(m, "reboot", "rebootCb", self());
    action(m, "reboot", "laterCb", self());
    action(m, "reset", "", 0);
    auto &c = callee("rebootCb", std::string("{}"));
    callee("laterCb");
    JsonPtr params(jsonParseStr("{\"delay\":3}"));
    JsonPtr res;
    EXPECT_EQ(doActionToModel("m", "reboot", params.get(), res.out()), 0);
    EXPECT_EQ(text(res.get()), "{}");
    EXPECT_EQ(c.calls.back(), (Members{{"para", "{\"delay\":3}"}}));
    EXPECT_EQ(calls("laterCb"), 0);

    c.result = std::nullopt;
    EXPECT_EQ(doActionToModel("m", "reboot", params.get(), res.out()), -10100);
    EXPECT_EQ(res.get(), nullptr);
    c.errorCode = 9;
    EXPECT_EQ(doActionToModel("m", "reboot", params.get(), res.out()), 9);
    EXPECT_EQ(doActionToModel("m", "reset", params.get(), res.out()), -7004);
    EXPECT_EQ(doActionToModel("m", "rebootx", params.get(), res.out()), -7004);
    EXPECT_EQ(doActionToModel("x", "reboot", params.get(), res.out()), -7004);
}

// ---- binary records ----

std::string gSeen;
int recordWriter(const char *name, json_object *value, void *, int) {
    gSeen = std::string(name) + "=" + jsonGetObjectStringOrigin(value);
    return 4;
}

TEST_F(OpsTest, RecordFromRequestMergesStoredValues) {
    char path[] = "/tmp/kepopsXXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const char doc[] = "{\"sys\":{\"time\":{\"zone\":\"utc\",\"ntp\":1,\"on\":0}}}";
    ASSERT_EQ(write(fd, doc, sizeof doc - 1), static_cast<ssize_t>(sizeof doc - 1));
    close(fd);
    DataModule *m = module("m");
    snprintf(m->configFile, sizeof m->configFile, "%s", path);
    section(table(m, "sys", 0), "time")->opr.jsonToBin.config = recordWriter;
    char buf[8];

    JsonPtr req(jsonParseStr("{\"m\":{\"time\":{\"ntp\":5,\"on\":true,\"extra\":1}}}"));
    EXPECT_EQ(modelReadFromReqObj("/m/sys/time", req.get(), buf, sizeof buf), 4);
    EXPECT_EQ(gSeen, "time={\"zone\":\"utc\",\"ntp\":5,\"on\":1}");
    JsonPtr bad(jsonParseStr("{\"m\":{\"time\":{\"ntp\":[1]}}}"));
    EXPECT_EQ(modelReadFromReqObj("/m/sys/time", bad.get(), buf, sizeof buf), -1);
    EXPECT_EQ(modelReadFromReqObj("/m/sys/date", req.get(), buf, sizeof buf), -1);
    EXPECT_EQ(modelReadEx("/m/sys/time", req.get(), buf, 0), -1);
    EXPECT_EQ(modelReadEx("/m/sys", req.get(), buf, sizeof buf), -1);
    unlink(path);
}

}  // namespace
