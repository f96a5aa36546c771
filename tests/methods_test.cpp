// The method handlers against in-process callees: response shapes, member order,
// the walk that stops at the first failure, error codes.
#include <gtest/gtest.h>

#include <string>

#include "guard.h"
#include "kep_json.h"
#include "log_capture.h"
#include "ops_fixture.h"
#include "request/method_handlers.h"

using kep::JsonPtr;
using kep_test::Members;

namespace {

class MethodsTest : public kep_test::OpsFixture {
protected:
    // Runs handler on request text; rsp receives the response text ("" for none).
    int run(int (*handler)(json_object *, json_object **), const char *request, std::string *rsp) {
        JsonPtr req(jsonParseStr(request));
        EXPECT_TRUE(req) << request;
        JsonPtr out;
        int rc = handler(req.get(), out.out());
        *rsp = out ? jsonGetObjectStringOrigin(out.get()) : "";
        return rc;
    }
    std::string rsp;
};

TEST_F(MethodsTest, RequestWithoutModulesAnswersOnlyTheCode) {
    for (auto h : {kep::kepMethodGet, kep::kepMethodSet, kep::kepMethodAdd, kep::kepMethodDel, kep::kepMethodDo}) {
        EXPECT_EQ(run(h, "{\"method\":\"x\"}", &rsp), 0);
        EXPECT_EQ(rsp, "{\"error_code\":0}");
        EXPECT_EQ(run(h, "{}", &rsp), 0);
        EXPECT_EQ(rsp, "");
        JsonPtr req(jsonParseStr("{}"));
        EXPECT_EQ(h(req.get(), nullptr), -10000);
    }
}

TEST_F(MethodsTest, GetCountsRowsOrTakesCountAll) {
    DataModule *m = module("m");
    slot(table(m, "a")->methodCb[KEP_METHOD_GET], "aGet");
    slot(table(m, "b")->methodCb[KEP_METHOD_GET], "bGet");
    auto &a = callee("aGet", std::string("{\"a_1\":{},\"a_2\":{},\"a_3\":{},\"countAll\":40}"));
    callee("bGet", std::string("[{\"b_1\":{}},{\"b_2\":{}}]"));

    EXPECT_EQ(run(kep::kepMethodGet, "{\"method\":\"get\",\"m\":{\"table\":\"a\",\"filter\":{\"k\":1}}}", &rsp), 0);
    EXPECT_EQ(rsp, "{\"m\":{\"count\":{\"a\":40},\"a\":[{\"a_1\":{}},{\"a_2\":{}},{\"a_3\":{}}]},\"error_code\":0}");
    EXPECT_EQ(a.calls.back(), (Members{{"table", "a"}, {"filter", "{\"k\":1}"}}));

    a.result = "{\"a_1\":{},\"a_2\":{},\"a_3\":{}}";
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"table\":\"a\"}}", &rsp), 0);
    EXPECT_EQ(rsp, "{\"m\":{\"count\":{\"a\":3},\"a\":[{\"a_1\":{}},{\"a_2\":{}},{\"a_3\":{}}]},\"error_code\":0}");

    // Each table is counted afresh: b has no countAll after a had one.
    a.result = "{\"a_1\":{},\"countAll\":40}";
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"table\":[\"a\",\"b\"]}}", &rsp), 0);
    EXPECT_EQ(rsp, "{\"m\":{\"a\":[{\"a_1\":{}}],\"b\":[{\"b_1\":{}},{\"b_2\":{}}],\"count\":{\"a\":40,\"b\":2}},"
                   "\"error_code\":0}");

    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"table\":[]}}", &rsp), 0);
    EXPECT_EQ(rsp, "{\"m\":{\"count\":null},\"error_code\":0}");
}

TEST_F(MethodsTest, GetReadsSectionsByName) {
    DataModule *m = module("m");
    DataTable *sys = table(m, "sys", 0);
    slot(section(sys, "s1")->methodCb[KEP_METHOD_GET], "s1Get");
    slot(section(sys, "s2")->methodCb[KEP_METHOD_GET], "s2Get");
    callee("s1Get", std::string("{\"v\":1}"));
    callee("s2Get", std::string("{\"v\":2}"));
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"name\":\"s1\"}}", &rsp), 0);
    EXPECT_EQ(rsp, "{\"m\":{\"s1\":{\"v\":1}},\"error_code\":0}");
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"name\":[\"s2\",\"s1\"]}}", &rsp), 0);
    EXPECT_EQ(rsp, "{\"m\":{\"s2\":{\"v\":2},\"s1\":{\"v\":1}},\"error_code\":0}");
}

TEST_F(MethodsTest, GetFailuresReleaseTheWholeResponse) {
    DataModule *m = module("m");
    slot(table(m, "a")->methodCb[KEP_METHOD_GET], "aGet");
    callee("aGet", std::string("{\"a_1\":{}}"));
    kep_test::LogCapture log;
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"filter\":{}}}", &rsp), -10100);
    EXPECT_EQ(rsp, "");
    EXPECT_TRUE(log.contains("no table and no name, bad json str!"));
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"table\":[\"a\",3]}}", &rsp), -10100);
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"table\":3}}", &rsp), -10000);
    // The callee's own code is not passed on by a get.
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"table\":\"a\"},\"n\":{\"table\":\"a\"}}", &rsp), -10000);
    EXPECT_EQ(rsp, "");
    callee("aGet").errorCode = 77;
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"table\":\"a\"}}", &rsp), -10000);
}

TEST_F(MethodsTest, SetStopsAtFirstFailingSection) {
    DataModule *m = module("m");
    DataTable *sys = table(m, "sys", 0);
    DataTable *host = table(m, "host");
    for (const char *s : {"a", "b", "c"}) {
        std::string cb = std::string(s) + "Set";
        slot(section(sys, s)->methodCb[KEP_METHOD_SET], cb.c_str());
        callee(cb);
    }
    slot(host->methodCb[KEP_METHOD_SET], "hostSet");
    auto &hostSet = callee("hostSet");
    callee("bSet").errorCode = 12;
    EXPECT_EQ(run(kep::kepMethodSet, "{\"m\":{\"a\":{\"x\":1},\"b\":{},\"c\":{}}}", &rsp), 12);
    EXPECT_EQ(rsp, "{\"error_code\":12}");
    EXPECT_EQ(calls("aSet"), 1);
    EXPECT_EQ(calls("bSet"), 1);
    EXPECT_EQ(calls("cSet"), 0);
    // A "table" member makes it a table edit only, whatever else the object holds.
    EXPECT_EQ(run(kep::kepMethodSet,
                  "{\"m\":{\"a\":{},\"table\":\"host\",\"filter\":{\"f\":1},\"para\":{\"p\":2}}}", &rsp),
              0);
    EXPECT_EQ(rsp, "{\"error_code\":0}");
    EXPECT_EQ(hostSet.calls.back(), (Members{{"para", "{\"p\":2}"}, {"filter", "{\"f\":1}"}}));
    EXPECT_EQ(calls("aSet"), 1);
}

TEST_F(MethodsTest, AddAnswersNamesPerModule) {
    for (const char *name : {"m", "n"}) {
        DataModule *mod = module(name);
        std::string cb = std::string(name) + "Add";
        slot(table(mod, "host")->methodCb[KEP_METHOD_ADD], cb.c_str());
        callee(cb, "\"" + std::string(name) + "_host_1\"");
    }
    EXPECT_EQ(run(kep::kepMethodAdd,
                  "{\"method\":\"add\",\"m\":{\"table\":\"host\",\"para\":{}},"
                  "\"n\":{\"table\":\"host\",\"name\":\"h\",\"para\":{}}}",
                  &rsp),
              0);
    EXPECT_EQ(rsp, "{\"m\":{\"name\":[\"m_host_1\"]},\"n\":{\"name\":[\"n_host_1\"]},\"error_code\":0}");
    EXPECT_EQ(callees_["nAdd"]->calls.back(), (Members{{"name", "h"}, {"table", "host"}, {"para", "{}"}}));
    EXPECT_EQ(run(kep::kepMethodAdd, "{\"m\":{\"table\":\"host\"}}", &rsp), -10100);
    EXPECT_EQ(run(kep::kepMethodAdd, "{\"m\":{\"para\":{}}}", &rsp), -10100);
    EXPECT_EQ(run(kep::kepMethodAdd, "{\"m\":{\"table\":\"sys\",\"para\":{}}}", &rsp), -7004);
    EXPECT_EQ(rsp, "{\"m\":{},\"error_code\":-7004}");
}

TEST_F(MethodsTest, DeleteByNamesKeepsEarlierDeletions) {
    DataModule *m = module("m");
    DataTable *host = table(m, "host");
    slot(host->methodCb[KEP_METHOD_DELETE], "hostDel");
    auto &del = callee("hostDel");
    EXPECT_EQ(run(kep::kepMethodDel, "{\"m\":{\"name\":[\"host_1\",\"other_2\"]}}", &rsp), -4000);
    EXPECT_EQ(rsp, "{\"error_code\":-4000}");
    ASSERT_EQ(del.calls.size(), 1u);
    EXPECT_EQ(del.calls[0], (Members{{"name", "host_1"}}));
    // The first member names the sections, whatever its key.
    EXPECT_EQ(run(kep::kepMethodDel, "{\"m\":{\"x\":\"host_5\",\"name\":\"host_6\"}}", &rsp), 0);
    EXPECT_EQ(del.calls.back(), (Members{{"name", "host_5"}}));
    EXPECT_EQ(run(kep::kepMethodDel, "{\"m\":{\"table\":\"host\",\"filter\":{\"a\":1}}}", &rsp), 0);
    EXPECT_EQ(del.calls.back(), (Members{{"filter", "{\"a\":1}"}}));
    EXPECT_EQ(run(kep::kepMethodDel, "{\"m\":{\"table\":1}}", &rsp), -10100);
    EXPECT_EQ(run(kep::kepMethodDel, "{\"m\":{\"filter\":{}}}", &rsp), -10100);
    EXPECT_EQ(run(kep::kepMethodDel, "{\"m\":{\"name\":[\"host_1\",2]}}", &rsp), -10100);
}

TEST_F(MethodsTest, DoAnswersTheActionsObject) {
    DataModule *m = module("m");
    action(m, "ping", "pingCb", self());
    auto &ping = callee("pingCb", std::string("{\"rtt\":3}"));
    EXPECT_EQ(run(kep::kepMethodDo, "{\"method\":\"do\",\"m\":{\"ping\":{\"host\":\"h\"},\"other\":{}}}", &rsp), 0);
    EXPECT_EQ(rsp, "{\"rtt\":3,\"error_code\":0}");
    EXPECT_EQ(ping.calls.back(), (Members{{"para", "{\"host\":\"h\"}"}}));
    EXPECT_EQ(run(kep::kepMethodDo, "{\"m\":{\"pong\":{}}}", &rsp), -7004);
    EXPECT_EQ(rsp, "{\"error_code\":-7004}");
    ping.result = "[1]";
    EXPECT_EQ(run(kep::kepMethodDo, "{\"m\":{\"ping\":{}}}", &rsp), -10100);
    ping.result = std::nullopt;
    EXPECT_EQ(run(kep::kepMethodDo, "{\"m\":{\"ping\":{}}}", &rsp), -10100);
    EXPECT_EQ(rsp, "{\"error_code\":-10100}");
}

}  // namespace
