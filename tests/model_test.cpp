#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "kep_tree.h"
#include "kep_xml.h"
#include "log_capture.h"
#include "model/model_internal.h"
#include "tree/tree_internal.h"
#include "tree_builder.h"

namespace {

const std::string kExample =
    std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/')) + "/../examples/model.xml";

DataTable *table(const char *path) {
    return getTableByFullName(path);
}

int sectionCount(const char *path) {
    DataTable *t = table(path);
    return t ? lstCount(&t->sections) : -1;
}

std::string sectionNames(const char *path) {
    std::string out;
    for (LstNode *n = lstFirst(&table(path)->sections); n; n = lstNext(n)) {
        out += reinterpret_cast<DataSection *>(n)->name;
        out += ",";
    }
    return out;
}

class ModelTest : public kep_test::FreshTree {
protected:
    void TearDown() override {
        if (!file.empty()) unlink(file.c_str());
        FreshTree::TearDown();
    }
    // Parses text and merges it into the tree.
    int merge(const std::string &text) {
        XmlNode **doc = strXmlParse(text.c_str(), 1);
        EXPECT_NE(doc, nullptr) << text;
        if (!doc) return -2;
        int rc = registerDataModel(*doc);
        mxmlTreeDelete(doc);
        return rc;
    }
    int load(const std::string &text) {
        if (file.empty()) {
            char tmpl[] = "/tmp/kep-model-XXXXXX";
            int fd = mkstemp(tmpl);
            close(fd);
            file = tmpl;
        }
        std::ofstream(file, std::ios::trunc) << text;
        return kep::loadModelFile(file.c_str());
    }
    std::string file;
};

TEST_F(ModelTest, SampleDescriptionBuildsTree) {
    kep_test::LogCapture log;
    ASSERT_EQ(kep::loadModelFile(kExample.c_str()), 0);
    EXPECT_EQ(log.messages(), std::vector<std::string>{"=======================data module init\r\n\r\n"});
    EXPECT_EQ(getModuleSize(), 4);
    EXPECT_EQ(table("/dhcp/host")->isDynamic, 0);
    EXPECT_EQ(table("/dhcp/lease")->isDynamic, 1);
    EXPECT_EQ(table("/clients/online")->isDynamic, 1);
    EXPECT_EQ(sectionNames("/dhcp/settings"), "server,pool,");
    EXPECT_EQ(sectionNames("/systime/time"), "ntp,zone,");
    EXPECT_EQ(sectionCount("/dhcp/host"), 0);
    for (LstNode *m = &getModulerRoot()->link; m; m = lstNext(m)) {
        auto *module = reinterpret_cast<DataModule *>(m);
        EXPECT_STREQ(module->configFile, "") << "the start-up build reads no config element";
        for (LstNode *t = lstFirst(&module->tables); t; t = lstNext(t)) {
            EXPECT_EQ(reinterpret_cast<DataTable *>(t)->optionPublic, 1);
        }
    }
    DataModule *system = getDataModuler("system");
    ASSERT_EQ(lstCount(&system->actions), 2);
    auto *restart = reinterpret_cast<ActionNode *>(lstFirst(&system->actions));
    EXPECT_STREQ(restart->name, "restart");
    EXPECT_EQ(restart->pid, 0);
    EXPECT_STREQ(restart->cb, "");
    EXPECT_EQ(registerAction("system", "restart", "cb", 1), -1);
    EXPECT_EQ(registerMethodCb("/system/restart", KEP_METHOD_ACTION, "do_restart", 12), 0);
    EXPECT_EQ(restart->pid, 12);
}

TEST_F(ModelTest, SampleDescriptionMergesWithConfigFiles) {
    std::ifstream in(kExample);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(merge(text), 0);
    EXPECT_EQ(getModuleSize(), 4);
    EXPECT_STREQ(getDataModuler("dhcp")->configFile, "/tmp/kep/dhcp.json");
    EXPECT_STREQ(getDataModuler("clients")->configFile, "");
    EXPECT_EQ(lstCount(&getDataModuler("system")->actions), 0);  // services are not merged
    EXPECT_EQ(sectionNames("/dhcp/settings"), "server,pool,");
}

TEST_F(ModelTest, TableKindFromAttribute) {
    ASSERT_EQ(load(R"(<model><module name="m">
        <table name="plain"/>
        <table name="capital" attribute="Dynamic"/>
        <table name="dyn" attribute="dynamic"/>
        <table name="unknownFirst" attribute="dynamic" attribute="other"/>
        <table name="lastWins" attribute="dynamic" attribute="config"/>
        <table name="cfg" attribute="config"/>
        </module></model>)"),
              0);
    EXPECT_EQ(table("/m/plain")->isDynamic, 0);
    EXPECT_EQ(table("/m/capital")->isDynamic, 0);
    EXPECT_EQ(table("/m/dyn")->isDynamic, 1);
    EXPECT_EQ(table("/m/unknownFirst")->isDynamic, 1);
    EXPECT_EQ(table("/m/lastWins")->isDynamic, 0);  // attributes read newest first
    EXPECT_EQ(table("/m/cfg")->isDynamic, 0);
}

TEST_F(ModelTest, ElementsMatchOnPrefixAnywhereBelow) {
    ASSERT_EQ(load(R"(<model><group><module name="m">
        <tables name="t"><wrap><sections name="deep"/></wrap><section name="s"/></tables>
        <serviceX name="act"/>
        </module></group><modulex name="second"/></model>)"),
              0);
    EXPECT_EQ(getModuleSize(), 2);
    EXPECT_EQ(sectionNames("/m/t"), "deep,s,");
    EXPECT_STREQ(reinterpret_cast<ActionNode *>(lstFirst(&getDataModuler("m")->actions))->name, "act");
    EXPECT_NE(getDataModuler("second"), nullptr);
}

TEST_F(ModelTest, NameAttributeIsFirstInListOrder) {
    ASSERT_EQ(load(R"(<model><module name="old" name="new" named="x"/></model>)"), 0);
    EXPECT_NE(getDataModuler("new"), nullptr);
    EXPECT_EQ(getDataModuler("old"), nullptr);
}

TEST_F(ModelTest, RepeatedNamesGiveUnreachableSecondNodes) {
    const char *text =
        R"(<model><module name="m"><table name="t"/><table name="t" attribute="dynamic"/></module></model>)";
    ASSERT_EQ(load(text), 0);
    ASSERT_EQ(load(text), 0);
    EXPECT_EQ(getModuleSize(), 2);
    EXPECT_EQ(lstCount(&getDataModuler("m")->tables), 2);
    EXPECT_EQ(table("/m/t")->isDynamic, 0);
}

TEST_F(ModelTest, UnreadableDescriptionsFailCleanly) {
    std::string big = "<model>";
    for (int i = 0; i < 860; i++) big += "<module name=\"m\"/>";
    big += "</model>";
    const std::string cases[] = {
        "<model><module name=\"a\"/></model><model/>",  // two top elements
        "<model><module name=\"a\"></model>",           // mismatched close
        "<model><module name></module></model>",        // attribute without value
        big,                                            // beyond the largest pool
        "",
    };
    for (const std::string &text : cases) {
        kep_test::LogCapture log;
        EXPECT_EQ(load(text), -1) << text.substr(0, 60);
        EXPECT_EQ(getModuleSize(), 0);
        EXPECT_TRUE(log.contains("data module init failed.\r\n"));
    }
    kep_test::LogCapture log;
    EXPECT_EQ(kep::loadModelFile("/nonexistent/kep/model.xml"), -1);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"=======================data module init\r\n\r\n",
                                                        "data module init failed.\r\n\r\n"}));
}

TEST_F(ModelTest, DataModuleInitReadsCompiledPath) {
    if (access(kep::modelPath(), F_OK) == 0) GTEST_SKIP() << "a model description is installed";
    EXPECT_EQ(dataModuleInit(), -1);
    EXPECT_EQ(getModuleSize(), 0);
}

TEST_F(ModelTest, MissingNamesKeepWhatWasBuilt) {
    EXPECT_EQ(load(R"(<model><module name="a"/><module/><module name="c"/></model>)"), -1);
    EXPECT_EQ(getModuleSize(), 1);
    kep::resetTreeForTest();

    EXPECT_EQ(load(R"(<model><module name="a"><table name="t"/><table/><table name="u"/></module></model>)"),
              -1);
    DataModule *a = getDataModuler("a");
    ASSERT_EQ(lstCount(&a->tables), 2);
    EXPECT_STREQ(reinterpret_cast<DataTable *>(a->tables.tail)->name, "");
    kep::resetTreeForTest();

    EXPECT_EQ(
        load(
            R"(<model><module name="a"><table name="t"><section name="s"/><section/></table></module></model>)"),
        -1);
    EXPECT_EQ(sectionNames("/a/t"), "s,,");
    kep::resetTreeForTest();

    // Tables come first: the failing table stops the build before any service.
    EXPECT_EQ(load(R"(<model><module name="a"><service name="s"/><table/></module></model>)"), -1);
    EXPECT_EQ(lstCount(&getDataModuler("a")->actions), 0);
    kep::resetTreeForTest();

    EXPECT_EQ(load(R"(<model><module name="a"><service name="s"/><service/></module></model>)"), -1);
    EXPECT_EQ(lstCount(&getDataModuler("a")->actions), 1);
}

TEST_F(ModelTest, MergeNullRootAndEmptyDescription) {
    EXPECT_EQ(registerDataModel(nullptr), 0);
    EXPECT_EQ(merge("<model/>"), 0);
    EXPECT_EQ(getModuleSize(), 0);
}

TEST_F(ModelTest, MergeKeepsExistingTablesAndAddsNewOnes) {
    ASSERT_EQ(merge(R"(<model><module name="m"><config name="/tmp/kep/m.json"/>
        <table name="t"><section name="s"/></table></module></model>)"),
              0);
    OprInterface o{};
    o.pid = 5;
    ASSERT_EQ(regOprInterface("/m/t", &o), 0);
    ASSERT_EQ(registerMethodCb("/m/t/s", KEP_METHOD_GET, "g", 5), 0);
    DataTable *t = table("/m/t");

    ASSERT_EQ(merge(R"(<model><module name="m"><config name="/tmp/other.json"/>
        <table name="t" attribute="dynamic"><section name="x"/></table>
        <table name="u"><section name="y"/></table>
        <table/>
        <service name="ignored"/></module></model>)"),
              0);
    EXPECT_EQ(table("/m/t"), t);
    EXPECT_EQ(t->isDynamic, 0);
    EXPECT_EQ(t->optionPublic, 0);
    EXPECT_EQ(sectionNames("/m/t"), "s,");
    EXPECT_EQ(t->opr.pid, 5);
    EXPECT_NE(reinterpret_cast<DataSection *>(lstFirst(&t->sections))->methodCb[3], nullptr);
    EXPECT_EQ(sectionNames("/m/u"), "y,");
    EXPECT_EQ(lstCount(&getDataModuler("m")->tables), 2);
    EXPECT_STREQ(getDataModuler("m")->configFile, "/tmp/kep/m.json");
    EXPECT_EQ(lstCount(&getDataModuler("m")->actions), 0);
}

TEST_F(ModelTest, MergeSkipsNamelessModules) {
    ASSERT_EQ(merge(R"(<model><module><table name="lost"/></module>
        <module name="b"><table name="t"/></module></model>)"),
              0);
    EXPECT_EQ(getModuleSize(), 1);
    EXPECT_NE(table("/b/t"), nullptr);
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
    EXPECT_EQ(sectionCount("/m/list"), 0);
    EXPECT_EQ(sectionCount("/m/bad"), 0);  // the failed table stays, its sections dropped
    EXPECT_EQ(table("/m/never"), nullptr);
    EXPECT_EQ(getDataModuler("after"), nullptr);
}

// Fails the n-th node allocation, for n = 1, 2, ... until a run needs no failure:
// every run must end in -1 or 0, and the sanitizer build finds any leak.
class FailingCalloc {
public:
    explicit FailingCalloc(int n) {
        gLeft = n;
        kep::treeCalloc = &failing;
    }
    ~FailingCalloc() { kep::treeCalloc = calloc; }
    static bool fired() { return gLeft < 0; }

private:
    static void *failing(size_t count, size_t size) {
        return --gLeft == 0 ? (gLeft = -1, nullptr) : calloc(count, size);
    }
    static inline int gLeft;
};

TEST_F(ModelTest, ExhaustedMemoryFailsEveryStep) {
    std::ifstream in(kExample);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (int n = 1;; n++) {
        kep::resetTreeForTest();
        int loadRc, mergeRc;
        bool loadFired, mergeFired;
        {
            FailingCalloc fail(n);
            loadRc = kep::loadModelFile(kExample.c_str());
            loadFired = FailingCalloc::fired();
        }
        kep::resetTreeForTest();
        {
            FailingCalloc fail(n);
            mergeRc = merge(text);
            mergeFired = FailingCalloc::fired();
        }
        EXPECT_EQ(loadRc, loadFired ? -1 : 0) << n;
        EXPECT_EQ(mergeRc, mergeFired ? -1 : 0) << n;
        if (!loadFired && !mergeFired) {
            EXPECT_GT(n, 15);  // the sample needs a node per module, table, section and service
            break;
        }
        ASSERT_LT(n, 1000);
    }
}

}  // namespace
