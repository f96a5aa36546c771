#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "kep_tree.h"
#include "kep_xml.h"
#include "model/model_internal.h"
#include "tree/tree_internal.h"
#include "tree_builder.h"

namespace {

const std::string kExample =
    std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/')) + "/../../examples/model.xml";

std::string sections(const char *path) {
    DataTable *t = getTableByFullName(path);
    if (!t) return "(no table)";
    std::string out;
    for (LstNode *n = lstFirst(&t->sections); n; n = lstNext(n))
        out += std::string(reinterpret_cast<DataSection *>(n)->name) + ",";
    return out;
}

int isDynamic(const char *path) {
    return getTableByFullName(path)->isDynamic;
}

class ModelTest : public kep_test::FreshTree {
protected:
    void TearDown() override {
        if (!file.empty()) unlink(file.c_str());
        FreshTree::TearDown();
    }
    int merge(const std::string &text) {
        XmlNode **doc = strXmlParse(text.c_str(), 1);
        EXPECT_NE(doc, nullptr) << text;
        int rc = doc ? registerDataModel(*doc) : -2;
        mxmlTreeDelete(doc);
        return rc;
    }
    int load(const std::string &text) {
        if (file.empty()) {
            char tmpl[] = "/tmp/kep-model-XXXXXX";
            close(mkstemp(tmpl));
            file = tmpl;
        }
        std::ofstream(file, std::ios::trunc) << text;
        return kep::loadModelFile(file.c_str());
    }
    static std::string example() {
        std::ifstream in(kExample);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    std::string file;
};

TEST_F(ModelTest, SampleDescriptionAtStart) {
    ASSERT_EQ(kep::loadModelFile(kExample.c_str()), 0);
    EXPECT_EQ(getModuleSize(), 2);
    EXPECT_EQ(isDynamic("/dhcp/host"), 0);
    EXPECT_EQ(isDynamic("/dhcp/client"), 1);
    EXPECT_EQ(sections("/dhcp/host"), "");
    EXPECT_EQ(sections("/dhcp/pool"), "lan,");
    EXPECT_EQ(sections("/system/time"), "ntp,zone,");
    EXPECT_EQ(getTableByFullName("/system/time")->optionPublic, 1);
    EXPECT_STREQ(getDataModuler("dhcp")->configFile, "");  // config elements are the merge's
    for (const char *module : {"dhcp", "system"}) {
        SCOPED_TRACE(module);
        DataModule *m = getDataModuler(module);
        ASSERT_NE(m, nullptr);
        ASSERT_EQ(lstCount(&m->actions), 1);
        auto *action = reinterpret_cast<ActionNode *>(lstFirst(&m->actions));
        EXPECT_STREQ(action->name, *module == 'd' ? "restart" : "sync");
        EXPECT_EQ(action->pid, 0);
        EXPECT_STREQ(action->cb, "");
    }
    EXPECT_EQ(registerAction("dhcp", "restart", "cb", 1), -1);
    EXPECT_EQ(registerAction("system", "sync", "cb", 1), -1);
}

TEST_F(ModelTest, SampleDescriptionMerged) {
    ASSERT_EQ(merge(example()), 0);
    EXPECT_EQ(getModuleSize(), 2);
    EXPECT_STREQ(getDataModuler("dhcp")->configFile, "/etc/kep/dhcp.json");
    EXPECT_STREQ(getDataModuler("system")->configFile, "/etc/kep/system.json");
    EXPECT_EQ(lstCount(&getDataModuler("dhcp")->actions), 0);  // services are not merged
    EXPECT_EQ(sections("/dhcp/pool"), "lan,");
    EXPECT_EQ(isDynamic("/dhcp/client"), 1);
    // A module without a config element has no configuration file.
    ASSERT_EQ(merge(R"(<model><module name="clients"><table name="online"/></module></model>)"), 0);
    EXPECT_STREQ(getDataModuler("clients")->configFile, "");
}

TEST_F(ModelTest, AttributesAndElementPrefixes) {
    ASSERT_EQ(load(R"(<model><group><module name="old" name="m" named="x">
        <table name="plain"/><table name="capital" attribute="Dynamic"/>
        <table name="unknownFirst" attribute="dynamic" attribute="other"/>
        <table name="lastWins" attribute="dynamic" attribute="config"/>
        <tables name="t"><wrap><sections name="deep"/></wrap><section name="s"/></tables>
        <serviceX name="act"/></module></group><modulex name="second"/></model>)"),
              0);
    EXPECT_EQ(getModuleSize(), 2);
    EXPECT_EQ(getDataModuler("old"), nullptr);  // attributes are read newest first
    EXPECT_EQ(isDynamic("/m/plain") + isDynamic("/m/capital") + isDynamic("/m/lastWins"), 0);
    EXPECT_EQ(isDynamic("/m/unknownFirst"), 1);
    EXPECT_EQ(sections("/m/t"), "deep,s,");
    EXPECT_STREQ(reinterpret_cast<ActionNode *>(lstFirst(&getDataModuler("m")->actions))->name, "act");
    EXPECT_NE(getDataModuler("second"), nullptr);
}

TEST_F(ModelTest, RepeatedStartAddsUnreachableSecondNodes) {
    const char *text =
        R"(<model><module name="m"><table name="t"/><table name="t" attribute="dynamic"/></module></model>)";
    ASSERT_EQ(load(text), 0);
    ASSERT_EQ(load(text), 0);
    EXPECT_EQ(getModuleSize(), 2);
    EXPECT_EQ(lstCount(&getDataModuler("m")->tables), 2);
    EXPECT_EQ(isDynamic("/m/t"), 0);
}

TEST_F(ModelTest, UnreadableDescriptionsLeaveTreeEmpty) {
    std::string big = "<model>";
    for (int i = 0; i < 860; i++) big += "<module name=\"m\"/>";
    const std::string cases[] = {
        "<model><module name=\"a\"/></model><model/>",  // two top elements
        "<model><module name=\"a\"></model>",           // mismatched close
        "<model><module name></module></model>",        // attribute without value
        big + "</model>",                               // beyond the largest pool
        "",
    };
    for (const std::string &text : cases) {
        EXPECT_EQ(load(text), -1) << text.substr(0, 60);
        EXPECT_EQ(getModuleSize(), 0);
    }
    EXPECT_EQ(kep::loadModelFile("/nonexistent/kep/model.xml"), -1);
    if (access(kep::modelPath(), F_OK) != 0) {
        EXPECT_EQ(dataModuleInit(), -1);
        EXPECT_EQ(getModuleSize(), 0);
    }
}

TEST_F(ModelTest, MissingNamesKeepWhatWasBuilt) {
    struct Case {
        const char *text;
        const char *module;
        int tables, actions;
        const char *path, *sections;
    };
    const Case cases[] = {
        {R"(<model><module name="a"/><module/><module name="c"/></model>)", "a", 0, 0, "", ""},
        // the nameless table stays, appended before it was read
        {R"(<model><module name="a"><table name="t"/><table/><table name="u"/></module></model>)", "a", 2, 0,
         "", ""},
        {R"(<model><module name="a"><table name="t"><section name="s"/><section/></table></module></model>)",
         "a", 1, 0, "/a/t", "s,,"},
        // tables come first: the failing table stops the build before any service
        {R"(<model><module name="a"><service name="s"/><table/></module></model>)", "a", 1, 0, "", ""},
        {R"(<model><module name="a"><service name="s"/><service/></module></model>)", "a", 0, 1, "", ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        kep::resetTreeForTest();
        EXPECT_EQ(load(c.text), -1);
        EXPECT_EQ(getModuleSize(), 1);
        DataModule *m = getDataModuler(c.module);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(lstCount(&m->tables), c.tables);
        EXPECT_EQ(lstCount(&m->actions), c.actions);
        if (*c.path) {
            EXPECT_EQ(sections(c.path), c.sections);
        }
    }
}

TEST_F(ModelTest, MergeKeepsExistingTablesAndAddsNewOnes) {
    EXPECT_EQ(registerDataModel(nullptr), 0);
    ASSERT_EQ(merge(R"(<model><module name="m"><config name="/tmp/kep/m.json"/>
        <table name="t"><section name="s"/></table></module></model>)"),
              0);
    OprInterface o{};
    o.pid = 5;
    ASSERT_EQ(regOprInterface("/m/t", &o), 0);
    ASSERT_EQ(registerMethodCb("/m/t/s", KEP_METHOD_GET, "g", 5), 0);
    DataTable *t = getTableByFullName("/m/t");

    ASSERT_EQ(merge(R"(<model><module><table name="lost"/></module>
        <module name="m"><config name="/tmp/other.json"/>
        <table name="t" attribute="dynamic"><section name="x"/></table>
        <table name="u"><section name="y"/></table><table/><service name="ignored"/></module></model>)"),
              0);
    EXPECT_EQ(getModuleSize(), 1);
    EXPECT_EQ(getTableByFullName("/m/t"), t);
    EXPECT_EQ(t->isDynamic + t->optionPublic, 0);
    EXPECT_EQ(sections("/m/t"), "s,");
    EXPECT_EQ(t->opr.pid, 5);
    EXPECT_NE(reinterpret_cast<DataSection *>(lstFirst(&t->sections))->methodCb[3], nullptr);
    EXPECT_EQ(sections("/m/u"), "y,");
    EXPECT_EQ(lstCount(&getDataModuler("m")->tables), 2);
    EXPECT_STREQ(getDataModuler("m")->configFile, "/tmp/kep/m.json");
    EXPECT_EQ(lstCount(&getDataModuler("m")->actions), 0);
}

TEST_F(ModelTest, MergeFailureClearsModuleRegistrations) {
    ASSERT_EQ(
        merge(
            R"(<model><module name="m"><table name="list"><section name="list_1"/></table></module></model>)"),
        0);
    ASSERT_EQ(registerAction("m", "act", "cb", 1), 0);
    AppOps ops{nullptr, {&ops, nullptr, nullptr}};
    ASSERT_EQ(registerAppModule("m", &ops), 0);
    EXPECT_EQ(merge(R"(<model><module name="m"><table name="bad"><section name="ok"/><section/></table>
        <table name="never"/></module><module name="after"/></model>)"),
              -1);
    DataModule *m = getDataModuler("m");
    EXPECT_EQ(lstCount(&m->actions), 0);
    EXPECT_EQ(m->appOps.reserved[0], nullptr);
    EXPECT_EQ(sections("/m/list"), "");
    EXPECT_EQ(sections("/m/bad"), "");  // the failed table stays, its sections dropped
    EXPECT_EQ(getTableByFullName("/m/never"), nullptr);
    EXPECT_EQ(getDataModuler("after"), nullptr);
}

}  // namespace
