#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "kep_tree.h"
#include "tree/tree_internal.h"
#include "tree_builder.h"

namespace {

using kep_test::addModule;
using kep_test::addSection;
using kep_test::addTable;
using TreeTest = kep_test::FreshTree;

TEST_F(TreeTest, LookupsReturnFirstMatch) {
    EXPECT_EQ(getModuleSize(), 0);
    EXPECT_EQ(getModulerRoot(), nullptr);
    DataModule *m1 = addModule("m1");
    DataModule *m2 = addModule("m2");
    DataTable *t1 = addTable(m1, "t");
    DataTable *t2 = addTable(m2, "t");
    addTable(addModule("m1"), "t");
    EXPECT_EQ(getModuleSize(), 3);
    EXPECT_EQ(getModulerRoot(), m1);
    EXPECT_EQ(getDataModuler("m1"), m1);
    EXPECT_EQ(getDataModuler("M1"), nullptr);
    EXPECT_EQ(getDataModuler("m"), nullptr);
    EXPECT_EQ(getDataTable(nullptr, "t"), t1);
    EXPECT_EQ(getDataTable(m2, "t"), t2);
    EXPECT_EQ(getDataTable(m2, "x"), nullptr);
}

TEST_F(TreeTest, PathSplittingAndTableByFullName) {
    kep::TreePath p;
    EXPECT_FALSE(kep::splitTreePath(nullptr, &p));
    EXPECT_FALSE(kep::splitTreePath("m/t", &p));
    EXPECT_FALSE(kep::splitTreePath("/m", &p));
    const std::pair<const char *, const char *> sections[] = {
        {"/m/t", ""}, {"/m/t/", ""}, {"/m/t/s/x", "s/x"}};
    for (auto [path, section] : sections) {
        ASSERT_TRUE(kep::splitTreePath(path, &p));
        EXPECT_STREQ(p.module, "m");
        EXPECT_STREQ(p.table, "t");
        EXPECT_STREQ(p.section, section) << path;
    }
    DataTable *t = addTable(addModule("m"), "t");
    EXPECT_EQ(getTableByFullName("/m"), nullptr);
    EXPECT_EQ(getTableByFullName("/m/t/s"), t);
    EXPECT_EQ(getTableByFullName("/m/x"), nullptr);

    // Components are cut to 31 characters before comparison.
    std::string m31(31, 'm'), t31(31, 't');
    DataTable *longT = addTable(addModule(m31.c_str()), t31.c_str());
    EXPECT_EQ(getTableByFullName(("/" + m31 + "xyz/" + t31 + "tail/s").c_str()), longT);
}

TEST_F(TreeTest, PathSearchFallsThroughToLaterModuleOfSameName) {
    addTable(addModule("m"), "a");
    addModule("other");
    DataModule *second = addModule("m");
    DataTable *b = addTable(second, "b");
    kep::TreePath p;
    ASSERT_TRUE(kep::splitTreePath("/m/b", &p));
    DataModule *found = nullptr;
    EXPECT_EQ(kep::findPathTable(p, &found), b);
    EXPECT_EQ(found, second);
    EXPECT_EQ(getTableByFullName("/other/b"), nullptr);
}

TEST_F(TreeTest, FindSectionInModule) {
    DataModule *m = addModule("m");
    addSection(addTable(m, "t1"), "x");
    DataTable *t2 = addTable(m, "t2");
    DataSection *s = addSection(t2, "s");
    DataSection *out = nullptr;
    EXPECT_EQ(findSectionInModule("m", "s", &out), 1);
    EXPECT_EQ(out, s);
    out = nullptr;
    EXPECT_EQ(findSectionInModule("m", "nope", &out), 0);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(findSectionInModule("zz", "s", &out), -1);
    EXPECT_EQ(findSectionInModule(nullptr, "s", &out), -1);
    EXPECT_EQ(findSectionInModule("m", nullptr, &out), -1);
    EXPECT_EQ(kep::findSectionInTable(t2, "s"), s);
    EXPECT_EQ(kep::findSectionInTable(t2, "x"), nullptr);
}

TEST_F(TreeTest, LastIndexOfChar) {
    EXPECT_EQ(kep::lastIndexOfChar("a_b_c", '_'), 3);
    EXPECT_EQ(kep::lastIndexOfChar("abc", '_'), -1);
    EXPECT_EQ(kep::lastIndexOfChar("", '_'), 0);
    EXPECT_EQ(kep::lastIndexOfChar(nullptr, '_'), 0);
}

TEST_F(TreeTest, DeletePluginTable) {
    char dir[] = "/tmp/kep-pt-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string file = std::string(dir) + "/m.json";
    auto write = [&](const std::string &text) { std::ofstream(file) << text; };
    auto read = [&] {
        std::stringstream ss;
        ss << std::ifstream(file).rdbuf();
        return ss.str();
    };
    DataModule *m = addModule("m");
    kep::copyName(m->configFile, file.c_str(), sizeof m->configFile);
    DataTable *host = addTable(m, "host", 1);
    addSection(host, "host_1");
    DataTable *named = addTable(m, "named", 0);
    addSection(named, "s");
    addTable(m, "dyn", 1)->isDynamic = 1;

    write(R"({"host":[{"ip":"1"}],"dyn":{"a":1}})");
    EXPECT_EQ(deletePluginTable("m", "host"), 0);
    EXPECT_EQ(read(), R"({"dyn":{"a":1}})");
    EXPECT_EQ(lstCount(&host->sections), 0);

    const std::string text = R"({ "dyn": 1 })";
    write(text);
    EXPECT_EQ(deletePluginTable("m", "named"), 0);  // no member: nothing written
    EXPECT_EQ(lstCount(&named->sections), 1);       // named sections stay
    EXPECT_EQ(deletePluginTable("m", "dyn"), -1);
    EXPECT_EQ(read(), text);
    EXPECT_EQ(deletePluginTable(nullptr, "host"), -1);
    EXPECT_EQ(deletePluginTable("m", nullptr), -1);
    EXPECT_EQ(deletePluginTable("x", "host"), -1);
    EXPECT_EQ(deletePluginTable("m", "none"), -1);
    unlink(file.c_str());
    EXPECT_EQ(deletePluginTable("m", "host"), -1);
    rmdir(dir);
}

}  // namespace
