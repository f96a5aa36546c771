// The method handlers against in-process callees: response shapes and member order,
// the walk that stops at the first failure, error codes.
#include <gtest/gtest.h>

#include <string>

#include "base/guard.h"
#include "kep_json.h"
#include "ops_fixture.h"
#include "request/method_handlers.h"

using kep::JsonPtr;
using kep_test::Members;

namespace {

class MethodsTest : public kep_test::OpsFixture {
protected:
    // Runs handler on the request; rsp receives the response's text, "" for none.
    int run(int (*handler)(json_object *, json_object **), const char *request) {
        JsonPtr req(jsonParseStr(request));
        EXPECT_TRUE(req) << request;
        JsonPtr out;
        int rc = handler(req.get(), out.out());
        rsp = out ? jsonGetObjectStringOrigin(out.get()) : "";
        return rc;
    }
    std::string rsp;
};

TEST_F(MethodsTest, RequestWithoutModulesAnswersOnlyTheCode) {
    for (auto h :
         {kep::kepMethodGet, kep::kepMethodSet, kep::kepMethodAdd, kep::kepMethodDel, kep::kepMethodDo}) {
        EXPECT_EQ(run(h, "{\"method\":\"x\"}"), 0);
        EXPECT_EQ(rsp, "{\"error_code\":0}");
        EXPECT_EQ(run(h, "{}"), 0);
        EXPECT_EQ(rsp, "");
        EXPECT_EQ(h(nullptr, nullptr), -10000);
    }
}

TEST_F(MethodsTest, GetCountsEachTableByCountAllOrRows) {
    DataModule *m = kep_test::addModule("m");
    slot(kep_test::addTable(m, "a")->methodCb[KEP_METHOD_GET], "aGet");
    slot(kep_test::addTable(m, "b")->methodCb[KEP_METHOD_GET], "bGet");
    kep_test::Callee &a = callee("aGet", std::string("{\"a_1\":{},\"a_2\":{},\"a_3\":{},\"countAll\":40}"));
    callee("bGet", std::string("[{\"b_1\":{}},{\"b_2\":{}}]"));
    const std::string rows = "[{\"a_1\":{}},{\"a_2\":{}},{\"a_3\":{}}]";

    EXPECT_EQ(run(kep::kepMethodGet, "{\"method\":\"get\",\"m\":{\"table\":\"a\"}}"), 0);
    EXPECT_EQ(rsp, "{\"m\":{\"count\":{\"a\":40},\"a\":" + rows + "},\"error_code\":0}");
    a.result = "{\"a_1\":{},\"a_2\":{},\"a_3\":{}}";
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"table\":\"a\"}}"), 0);
    EXPECT_EQ(rsp, "{\"m\":{\"count\":{\"a\":3},\"a\":" + rows + "},\"error_code\":0}");
    a.result = "{\"a_1\":{},\"countAll\":40}";
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"table\":[\"a\",\"b\"]}}"), 0);
    EXPECT_EQ(rsp,
              "{\"m\":{\"a\":[{\"a_1\":{}}],\"b\":[{\"b_1\":{}},{\"b_2\":{}}],\"count\":{\"a\":40,\"b\":2}},"
              "\"error_code\":0}");
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"table\":[]}}"), 0);
    EXPECT_EQ(rsp, "{\"m\":{\"count\":null},\"error_code\":0}");
    // A table without rows counts 0, or what the owner counts beyond this read.
    a.result = "{}";
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"table\":\"a\"}}"), 0);
    EXPECT_EQ(rsp, "{\"m\":{\"count\":{\"a\":0},\"a\":[]},\"error_code\":0}");
    a.result = "{\"countAll\":40}";
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"table\":\"a\"}}"), 0);
    EXPECT_EQ(rsp, "{\"m\":{\"count\":{\"a\":40},\"a\":[]},\"error_code\":0}");
    // The data key selects table mode by its first five characters.
    kep::JsonPtr value(jsonParseStr("\"b\"")), request(jsonParseStr("{\"table\":\"b\"}"));
    kep::JsonPtr out(jsonParseStr("{}"));
    EXPECT_EQ(kep::getDataJson("m", "tables", value.get(), request.get(), out.get()), 0);
    EXPECT_EQ(kep::getDataJson("m", "tabl", value.get(), request.get(), out.get()), -10100);
    EXPECT_EQ(kep::getDataJson("m", nullptr, value.get(), request.get(), out.get()), -10000);
    EXPECT_EQ(kep::getDataJson(nullptr, "table", value.get(), request.get(), out.get()), -10000);
}

TEST_F(MethodsTest, GetSectionsAndItsFailures) {
    DataModule *m = kep_test::addModule("m");
    DataTable *sys = kep_test::addTable(m, "sys", 0);
    slot(kep_test::addSection(sys, "s1")->methodCb[KEP_METHOD_GET], "s1Get");
    slot(kep_test::addSection(sys, "s2")->methodCb[KEP_METHOD_GET], "s2Get");
    callee("s1Get", std::string("{\"v\":1}"));
    callee("s2Get", std::string("{\"v\":2}"));
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"name\":[\"s2\",\"s1\"]}}"), 0);
    EXPECT_EQ(rsp, "{\"m\":{\"s2\":{\"v\":2},\"s1\":{\"v\":1}},\"error_code\":0}");

    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"filter\":{}}}"), -10100);
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"name\":[\"s1\",3]}}"), -10100);
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"name\":3}}"), -10000);
    // A later module's failure releases what was read for the earlier ones.
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"name\":\"s1\"},\"n\":{\"name\":\"s1\"}}"), -10000);
    EXPECT_EQ(rsp, "");
    callee("s1Get").errorCode = 77;  // a read's own code is not passed on
    EXPECT_EQ(run(kep::kepMethodGet, "{\"m\":{\"name\":\"s1\"}}"), -10000);
}

TEST_F(MethodsTest, SetStopsAtTheFirstFailingSection) {
    DataModule *m = kep_test::addModule("m");
    DataTable *sys = kep_test::addTable(m, "sys", 0);
    for (const char *s : {"a", "b", "c"}) {
        std::string cb = std::string(s) + "Set";
        slot(kep_test::addSection(sys, s)->methodCb[KEP_METHOD_SET], cb.c_str());
        callee(cb);
    }
    slot(kep_test::addTable(m, "host")->methodCb[KEP_METHOD_SET], "hostSet");
    callee("hostSet");
    callee("bSet").errorCode = 12;
    EXPECT_EQ(run(kep::kepMethodSet, "{\"m\":{\"a\":{\"x\":1},\"b\":{},\"c\":{}}}"), 12);
    EXPECT_EQ(rsp, "{\"error_code\":12}");
    EXPECT_EQ(calls("aSet") * 100 + calls("bSet") * 10 + calls("cSet"), 110u);
    // With "table" only the table edit runs, whatever else the object holds.
    EXPECT_EQ(run(kep::kepMethodSet, "{\"m\":{\"a\":{},\"table\":\"host\",\"filter\":{},\"para\":{}}}"), 0);
    EXPECT_EQ(rsp, "{\"error_code\":0}");
    EXPECT_EQ(calls("hostSet") * 10 + calls("aSet"), 11u);
}

TEST_F(MethodsTest, AddDeleteAndDoShapes) {
    for (const char *name : {"m", "n"}) {
        DataModule *mod = kep_test::addModule(name);
        DataTable *host = kep_test::addTable(mod, "host");
        std::string cb = std::string(name) + "Host";
        slot(host->methodCb[KEP_METHOD_ADD], cb.c_str());
        slot(host->methodCb[KEP_METHOD_DELETE], cb.c_str());
        callee(cb, "\"" + std::string(name) + "_host_1\"");
        action(mod, "ping", cb.c_str(), self());
    }
    EXPECT_EQ(run(kep::kepMethodAdd,
                  "{\"m\":{\"table\":\"host\",\"para\":{}},\"n\":{\"table\":\"host\",\"para\":{}}}"),
              0);
    EXPECT_EQ(rsp, "{\"m\":{\"name\":[\"m_host_1\"]},\"n\":{\"name\":[\"n_host_1\"]},\"error_code\":0}");
    EXPECT_EQ(run(kep::kepMethodAdd, "{\"m\":{\"table\":\"host\"}}"), -10100);
    EXPECT_EQ(run(kep::kepMethodAdd, "{\"m\":{\"table\":\"sys\",\"para\":{}}}"), -7004);
    EXPECT_EQ(rsp, "{\"m\":{},\"error_code\":-7004}");

    // Deleting by a name list stops at the first failure; earlier deletions stay.
    EXPECT_EQ(run(kep::kepMethodDel, "{\"m\":{\"name\":[\"host_1\",\"other_2\",\"host_3\"]}}"), -4000);
    EXPECT_EQ(rsp, "{\"error_code\":-4000}");
    EXPECT_EQ(last("mHost"), (Members{{"name", "host_1"}}));
    // Whatever member comes first names the sections.
    EXPECT_EQ(run(kep::kepMethodDel, "{\"m\":{\"x\":\"host_5\",\"name\":\"host_6\"}}"), 0);
    EXPECT_EQ(last("mHost"), (Members{{"name", "host_5"}}));
    EXPECT_EQ(run(kep::kepMethodDel, "{\"m\":{\"table\":1}}"), -10100);
    EXPECT_EQ(run(kep::kepMethodDel, "{\"m\":{\"filter\":{}}}"), -10100);

    callee("mHost", std::string("{\"rtt\":3}"));
    EXPECT_EQ(run(kep::kepMethodDo, "{\"method\":\"do\",\"m\":{\"ping\":{\"h\":1},\"other\":{}}}"), 0);
    EXPECT_EQ(rsp, "{\"rtt\":3,\"error_code\":0}");
    EXPECT_EQ(last("mHost"), (Members{{"para", "{\"h\":1}"}}));
    // A module naming no action is passed over.
    callee("nHost", std::string("{\"rtt\":4}"));
    EXPECT_EQ(run(kep::kepMethodDo, "{\"m\":{},\"n\":{\"ping\":{}}}"), 0);
    EXPECT_EQ(rsp, "{\"rtt\":4,\"error_code\":0}");
    EXPECT_EQ(run(kep::kepMethodDo, "{\"m\":{\"pong\":{}}}"), -7004);
    EXPECT_EQ(rsp, "{\"error_code\":-7004}");
    callee("mHost", std::string("[1]"));  // an action must answer an object
    EXPECT_EQ(run(kep::kepMethodDo, "{\"m\":{\"ping\":{}}}"), -10100);
    EXPECT_EQ(rsp, "{\"error_code\":-10100}");
}

}  // namespace
