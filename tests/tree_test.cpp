#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "kep_tree.h"
#include "log_capture.h"
#include "tree/tree_internal.h"
#include "tree_builder.h"

namespace {

using kep_test::addModule;
using kep_test::addSection;
using kep_test::addTable;

MethodCbNode *cbNode(int pid, const char *cb) {
    auto *n = static_cast<MethodCbNode *>(kep::newCbNode());
    n->pid = pid;
    kep::copyName(n->cb, cb, sizeof n->cb);
    return n;
}

using TreeTest = kep_test::FreshTree;

TEST_F(TreeTest, FreshTreeIsEmpty) {
    EXPECT_EQ(getModuleSize(), 0);
    EXPECT_EQ(getModulerRoot(), nullptr);
    EXPECT_EQ(getDataModuler("m"), nullptr);
    EXPECT_EQ(getDataTable(nullptr, "t"), nullptr);
}

TEST_F(TreeTest, LookupsReturnFirstMatch) {
    DataModule *m1 = addModule("m1");
    DataModule *m2 = addModule("m2");
    DataModule *m1b = addModule("m1");
    DataTable *t1 = addTable(m1, "t");
    DataTable *t2 = addTable(m2, "t");
    addTable(m1b, "t");
    EXPECT_EQ(getModuleSize(), 3);
    EXPECT_EQ(getModulerRoot(), m1);
    EXPECT_EQ(getDataModuler("m1"), m1);
    EXPECT_EQ(getDataModuler("M1"), nullptr);  // case-sensitive
    EXPECT_EQ(getDataModuler("m"), nullptr);   // exact length
    EXPECT_EQ(getDataTable(nullptr, "t"), t1);
    EXPECT_EQ(getDataTable(m2, "t"), t2);
    EXPECT_EQ(getDataTable(m2, "x"), nullptr);
    EXPECT_EQ(getDataTable(m2, nullptr), nullptr);
}

TEST_F(TreeTest, GetDataTableWithModuleTracesEachComparison) {
    DataModule *m = addModule("m");
    addTable(m, "a");
    addTable(m, "b");
    kep_test::LogCapture log;
    getDataTable(m, "b");
    auto msgs = log.messages();
    ASSERT_EQ(msgs.size(), 2u);
    EXPECT_EQ(msgs[0], "tableName:b pDataTable->name:a.\n\r\n");
    EXPECT_EQ(msgs[1], "tableName:b pDataTable->name:b.\n\r\n");
    log.clear();
    getDataTable(nullptr, "b");
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(TreeTest, SplitTreePathComponents) {
    kep::TreePath p;
    EXPECT_FALSE(kep::splitTreePath(nullptr, &p));
    EXPECT_FALSE(kep::splitTreePath("m/t", &p));
    EXPECT_FALSE(kep::splitTreePath("/m", &p));
    ASSERT_TRUE(kep::splitTreePath("/m/t", &p));
    EXPECT_STREQ(p.module, "m");
    EXPECT_STREQ(p.table, "t");
    EXPECT_STREQ(p.section, "");
    ASSERT_TRUE(kep::splitTreePath("/m/t/", &p));
    EXPECT_STREQ(p.section, "");
    ASSERT_TRUE(kep::splitTreePath("/m/t/s/x", &p));
    EXPECT_STREQ(p.section, "s/x");
    ASSERT_TRUE(kep::splitTreePath("//", &p));
    EXPECT_STREQ(p.module, "");
    EXPECT_STREQ(p.table, "");
}

TEST_F(TreeTest, PathComponentsAreCutAt31) {
    std::string m31(31, 'm'), t31(31, 't');
    DataModule *m = addModule(m31.c_str());
    DataTable *t = addTable(m, t31.c_str());
    std::string path = "/" + m31 + "xyz/" + t31 + "tail/sec";
    kep::TreePath p;
    ASSERT_TRUE(kep::splitTreePath(path.c_str(), &p));
    EXPECT_EQ(std::string(p.module), m31);
    EXPECT_EQ(std::string(p.table), t31);
    EXPECT_STREQ(p.section, "sec");
    EXPECT_EQ(getTableByFullName(path.c_str()), t);
}

TEST_F(TreeTest, TableByFullName) {
    DataModule *m = addModule("m");
    DataTable *t = addTable(m, "t");
    EXPECT_EQ(getTableByFullName("/m"), nullptr);
    EXPECT_EQ(getTableByFullName("m/t"), nullptr);
    EXPECT_EQ(getTableByFullName(nullptr), nullptr);
    EXPECT_EQ(getTableByFullName("/m/t"), t);
    EXPECT_EQ(getTableByFullName("/m/t/s"), t);
    EXPECT_EQ(getTableByFullName("/m/x"), nullptr);
    EXPECT_EQ(getTableByFullName("/x/t"), nullptr);
}

TEST_F(TreeTest, PathSearchFallsThroughToLaterModuleOfSameName) {
    DataModule *first = addModule("m");
    addTable(first, "a");
    addModule("other");
    DataModule *second = addModule("m");
    DataTable *t = addTable(second, "b");
    EXPECT_EQ(getTableByFullName("/m/b"), t);
    kep::TreePath p;
    ASSERT_TRUE(kep::splitTreePath("/m/b", &p));
    DataModule *found = nullptr;
    EXPECT_EQ(kep::findPathTable(p, &found), t);
    EXPECT_EQ(found, second);
    EXPECT_EQ(getTableByFullName("/other/b"), nullptr);
}

TEST_F(TreeTest, FindSectionInModule) {
    DataModule *m = addModule("m");
    DataTable *t1 = addTable(m, "t1");
    addSection(t1, "x");
    DataTable *t2 = addTable(m, "t2");
    DataSection *s = addSection(t2, "s");
    DataSection *out = nullptr;
    kep_test::LogCapture log;
    EXPECT_EQ(findSectionInModule("m", "s", &out), 1);
    EXPECT_EQ(out, s);
    auto msgs = log.messages();
    ASSERT_EQ(msgs.size(), 4u);
    EXPECT_EQ(msgs[0], "table:t1\n\r\n");
    EXPECT_EQ(msgs[1], "section:x secName:s, slen:1 \n\r\n");
    EXPECT_EQ(msgs[2], "table:t2\n\r\n");
    EXPECT_EQ(msgs[3], "section:s secName:s, slen:1 \n\r\n");

    out = nullptr;
    EXPECT_EQ(findSectionInModule("m", "nope", &out), 0);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(findSectionInModule("zz", "s", &out), -1);
    EXPECT_EQ(findSectionInModule(nullptr, "s", &out), -1);
    EXPECT_EQ(findSectionInModule("m", nullptr, &out), -1);
    EXPECT_EQ(kep::findSectionInTable(t2, "s"), s);
    EXPECT_EQ(kep::findSectionInTable(t1, "s"), nullptr);
    EXPECT_EQ(kep::findSectionInTable(nullptr, "s"), nullptr);
}

TEST_F(TreeTest, LastIndexOfChar) {
    EXPECT_EQ(kep::lastIndexOfChar("a_b_c", '_'), 3);
    EXPECT_EQ(kep::lastIndexOfChar("abc", '_'), -1);
    EXPECT_EQ(kep::lastIndexOfChar("", '_'), 0);
    EXPECT_EQ(kep::lastIndexOfChar(nullptr, '_'), 0);
    EXPECT_EQ(kep::lastIndexOfChar("_", '_'), 0);
}

TEST_F(TreeTest, CopyNameCutsAndTerminates) {
    char buf[8];
    memset(buf, 'z', sizeof buf);
    kep::copyName(buf, "abcdefghij", sizeof buf);
    EXPECT_STREQ(buf, "abcdefg");
    kep::copyName(buf, nullptr, sizeof buf);
    EXPECT_STREQ(buf, "");
}

TEST_F(TreeTest, AllocatorsGiveZeroFilledNodes) {
    DataTable *t = kep::newDataTable();
    ASSERT_NE(t, nullptr);
    DataTable zero;
    memset(&zero, 0, sizeof zero);
    EXPECT_EQ(memcmp(t, &zero, sizeof zero), 0);
    free(t);
}

TEST_F(TreeTest, DelDataModuleDropsActionsAppOpsAndPublicSections) {
    DataModule *m = addModule("m");
    DataTable *pub = addTable(m, "pub", 1);
    DataTable *priv = addTable(m, "priv", 0);
    addSection(pub, "pub_1")->methodCb[1] = cbNode(4, "cb");
    addSection(pub, "pub_2");
    addSection(priv, "named");
    ActionNode *a = kep::newActionNode();
    lstAdd(&m->actions, &a->link);
    m->appOps.reserved[0] = m;

    delDataModule("m", 0);
    EXPECT_EQ(lstCount(&m->actions), 0);
    EXPECT_EQ(m->appOps.reserved[0], nullptr);
    EXPECT_EQ(lstCount(&pub->sections), 2);

    delDataModule("m", 1);
    EXPECT_EQ(lstCount(&pub->sections), 0);
    EXPECT_EQ(lstCount(&priv->sections), 1);
    EXPECT_EQ(getDataModuler("m"), m);
    EXPECT_EQ(getTableByFullName("/m/pub"), pub);

    delDataModule(nullptr, 1);
    delDataModule("unknown", 1);
}

TEST_F(TreeTest, UnregisterPrivateTableClearsSections) {
    DataModule *m = addModule("m");
    DataTable *t = addTable(m, "t", 0);
    DataSection *s = addSection(t, "s");
    s->opr.pid = 5;
    s->methodCb[0] = cbNode(5, "a");
    s->methodCb[3] = cbNode(5, "g");
    lstAdd(&s->verList, static_cast<LstNode *>(kep::newCbNode()));
    lstAdd(&s->notList, static_cast<LstNode *>(kep::newCbNode()));
    t->opr.pid = 6;
    t->methodCb[2] = cbNode(6, "d");
    lstAdd(&t->notList, static_cast<LstNode *>(kep::newCbNode()));

    EXPECT_EQ(unregisterTable("/m/t"), 0);
    for (MethodCbNode *slot : s->methodCb) EXPECT_EQ(slot, nullptr);
    for (MethodCbNode *slot : t->methodCb) EXPECT_EQ(slot, nullptr);
    EXPECT_EQ(s->opr.pid, 0);
    EXPECT_EQ(t->opr.pid, 0);
    EXPECT_EQ(lstCount(&s->verList) + lstCount(&s->notList) + lstCount(&t->notList), 0);
    EXPECT_EQ(lstCount(&t->sections), 1);

    EXPECT_EQ(unregisterTable("/m/x"), -1);
    EXPECT_EQ(unregisterTable(nullptr), -1);
}

TEST_F(TreeTest, UnregisterPublicTableKeepsSectionCopies) {
    DataModule *m = addModule("m");
    DataTable *t = addTable(m, "t", 1);
    DataSection *s = addSection(t, "t_1");
    s->opr.pid = 5;
    t->opr.pid = 5;
    EXPECT_EQ(unregisterTable("/m/t"), 0);
    EXPECT_EQ(t->opr.pid, 0);
    EXPECT_EQ(s->opr.pid, 5);
}

class PluginTableTest : public TreeTest {
protected:
    void SetUp() override {
        FreshTree::SetUp();
        char tmpl[] = "/tmp/kep-pt-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        file = dir + "/m.json";
        ASSERT_LT(file.size(), 32u);
        m = addModule("m");
        kep::copyName(m->configFile, file.c_str(), sizeof m->configFile);
    }
    void TearDown() override {
        unlink(file.c_str());
        rmdir(dir.c_str());
        FreshTree::TearDown();
    }
    void write(const std::string &text) { std::ofstream(file) << text; }
    std::string read() {
        std::stringstream ss;
        ss << std::ifstream(file).rdbuf();
        return ss.str();
    }
    std::string dir, file;
    DataModule *m = nullptr;
};

TEST_F(PluginTableTest, RemovesMemberAndListEntries) {
    DataTable *t = addTable(m, "host", 1);
    addSection(t, "host_1");
    addTable(m, "keep", 1);
    write(R"({"host":[{"ip":"1"}],"keep":{"a":1}})");
    EXPECT_EQ(deletePluginTable("m", "host"), 0);
    EXPECT_EQ(read().find("host"), std::string::npos);
    EXPECT_NE(read().find("keep"), std::string::npos);
    EXPECT_EQ(lstCount(&t->sections), 0);
}

TEST_F(PluginTableTest, MissingMemberWritesNothing) {
    DataTable *t = addTable(m, "named", 0);
    addSection(t, "s");
    const std::string text = R"({ "other": 1 })";
    write(text);
    EXPECT_EQ(deletePluginTable("m", "named"), 0);
    EXPECT_EQ(read(), text);
    EXPECT_EQ(lstCount(&t->sections), 1);  // private: named sections stay
}

TEST_F(PluginTableTest, RefusedCases) {
    DataTable *dyn = addTable(m, "dyn", 1);
    dyn->isDynamic = 1;
    addTable(m, "cfg", 1);
    const std::string text = R"({"dyn":1,"cfg":2})";
    write(text);
    EXPECT_EQ(deletePluginTable("m", "dyn"), -1);
    EXPECT_EQ(read(), text);
    EXPECT_EQ(deletePluginTable(nullptr, "cfg"), -1);
    EXPECT_EQ(deletePluginTable("m", nullptr), -1);
    EXPECT_EQ(deletePluginTable("x", "cfg"), -1);
    EXPECT_EQ(deletePluginTable("m", "none"), -1);
    unlink(file.c_str());
    EXPECT_EQ(deletePluginTable("m", "cfg"), -1);  // no configuration file
}

}  // namespace
