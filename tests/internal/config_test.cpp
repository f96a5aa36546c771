// Configuration store: reads and writes through module files and dynamic owners,
// list sections kept in step with the tree, start-up load and factory reset.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "config/config_internal.h"
#include "config_fixture.h"
#include "kep_config.h"
#include "kep_pf_json.h"

using kep_test::canonical;
using kep_test::ConfigTree;
using kep_test::makeRec;
using kep_test::readText;
using kep_test::Rec;
using kep_test::recOpr;
using kep_test::sectionNames;
using kep_test::writeText;

namespace {

constexpr int kRec = sizeof(Rec);

// What the dynamic owner and the verify entries were called with.
struct Calls {
    std::vector<std::string> names;
    std::vector<int> sizes;
    std::vector<int> existed;
    int result = kRec;
    int verifyResult = 0;
    int resetResult = 0;
};
Calls gCalls;

int dynRead(const char *name, void *buf, int size) {
    gCalls.names.push_back(name);
    gCalls.sizes.push_back(size);
    // Fills what it claims, within its room.
    if (gCalls.result > 0) memset(buf, name[0], static_cast<size_t>(std::min(gCalls.result, size)));
    return gCalls.result;
}
int dynWrite(const char *name, const void *, int size) {
    gCalls.names.push_back(name);
    gCalls.sizes.push_back(size);
    return 7;
}
int dynReset(const char *name) {
    gCalls.names.push_back(name);
    return -5;
}
int verifyRecord(const char *name, json_object *value, void *reserved, int existed) {
    gCalls.names.push_back(name);
    gCalls.existed.push_back(existed);
    EXPECT_EQ(reserved, nullptr);
    EXPECT_TRUE(json_object_is_type(value, json_type_object));
    return gCalls.verifyResult;
}
int resetSection(const char *name, json_object **value) {
    Rec r = makeRec(name, 0);
    if (gCalls.resetResult != 0) return gCalls.resetResult;
    return kep_test::recToJson(name, value, &r, kRec);
}
int resetList(const char *name, json_object **value) {
    gCalls.names.push_back(name);
    *value = json_tokener_parse(R"([{"host_9":{"text":"d","value":9}}])");
    return gCalls.resetResult;
}

OprInterface dynOpr() {
    OprInterface opr{};
    opr.resetConfig.dynamic = dynReset;
    opr.binToJson.dynamic = dynRead;
    opr.jsonToBin.dynamic = dynWrite;
    return opr;
}

class ConfigStore : public ::testing::Test {
protected:
    void SetUp() override {
        gCalls = Calls();
        m = tree.module("m", "m.json");
        named = tree.table(m, "time", false, false, recOpr());
        tree.section(named, "settings", recOpr(resetSection));
        tree.section(named, "zone", recOpr());
        list = tree.table(m, "host", true, false, recOpr(resetList));
        file = tree.path("m.json");
    }
    std::string store(const std::string &doc) {
        writeText(file, doc);
        return readText(file);
    }
    Rec read(const std::string &path) {
        Rec r{};
        EXPECT_EQ(modelRead(path.c_str(), &r, kRec), kRec) << path;
        return r;
    }

    ConfigTree tree;
    DataModule *m = nullptr;
    DataTable *named = nullptr;
    DataTable *list = nullptr;
    std::string file;
};

const char kStored[] = R"({"time":{"settings":{"text":"s","value":1},"zone":{"text":"z","value":2}},)"
                       R"("host":[{"host_1":{"text":"a","value":10}},{"host_2":{"text":"b","value":20}}]})";

TEST_F(ConfigStore, RefusedReadsAndWritesStoreNothing) {
    const std::string before = store(kStored);
    tree.section(list, "host_1", recOpr());
    tree.section(list, "host_2", recOpr());
    tree.section(list, "host_3", recOpr());        // no element in the file
    tree.section(list, "host_4", OprInterface{});  // no converter
    Rec two[2] = {makeRec("w", 1), makeRec("w", 2)};
    struct Case {
        bool write;
        const char *path;
        int size;
        bool buffer = true;
    } cases[] = {
        {false, "/m", kRec},
        {false, "m/time/settings", kRec},
        {false, nullptr, kRec},
        {false, "/m/nosuch/settings", kRec},
        {false, "/x/time/settings", kRec},
        {false, "/m/time/zone/x", kRec},  // a section component holding a slash
        {false, "/m/time/nosuch", kRec},
        // A table is read whole or not at all: the converter refuses the short room.
        {false, "/m/time", kRec + 4},
        {false, "/m/time", kRec, false},
        {false, "/m/time", -1},
        {false, "/m/host", 2 * kRec},  // a list table is read one section at a time
        {false, "/m/host/host_3", kRec},
        {false, "/m/host/host_4", kRec},
        {true, "/m", kRec},
        {true, "m/time/settings", kRec},
        {true, "/m/time", kRec},
        {true, "/m/time/zone", 0},
        {true, "/m/time/zone", kRec, false},
        {true, "/m/time/zone", 3},  // the converter refuses
        {true, "/m/host", kRec},
        {true, "/m/host/", kRec},
        {true, "/m/host/host_9", 0, false},
        {true, "/m/host/host_9", -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.write ? "write " : "read ") + (c.path ? c.path : "(null)") + " " +
                     std::to_string(c.size));
        Rec *buf = c.buffer ? two : nullptr;
        EXPECT_EQ(c.write ? modelWrite(c.path, buf, c.size) : modelRead(c.path, buf, c.size), -1);
    }
    // Nothing of a good path's lookup carries over to a malformed one right after it.
    for (const char *bad : {"m/time/zone", "/m"}) {
        EXPECT_EQ(modelRead("/m/time/zone", two, kRec), kRec);
        EXPECT_EQ(modelRead(bad, two, kRec), -1) << bad;
    }
    EXPECT_EQ(readText(file), before);
    EXPECT_EQ(sectionNames(list), (std::vector<std::string>{"host_1", "host_2", "host_3", "host_4"}));
}

TEST_F(ConfigStore, ReadsOfSectionsAndWholeTables) {
    store(kStored);
    tree.section(list, "host_2", recOpr());
    Rec two[2];
    // A trailing slash addresses the whole table too.
    for (const char *path : {"/m/time", "/m/time/"}) {
        EXPECT_EQ(modelRead(path, two, sizeof two), 2 * kRec);
        EXPECT_EQ(std::string(two[0].text) + two[1].text, "sz");
    }
    EXPECT_STREQ(read("/m/time/zone").text, "z");
    EXPECT_EQ(modelRead("/m/host/host_2", two, sizeof two), kRec);
    EXPECT_EQ(two[0].value, 20);
    // A named table missing one of its members is not read at all; its members are.
    store(R"({"time":{"settings":{"text":"s","value":1}}})");
    EXPECT_EQ(modelRead("/m/time", two, sizeof two), -1);
    EXPECT_EQ(read("/m/time/settings").value, 1);
    // Of two nodes of one name a read by name takes the first; a read of the whole
    // table, which would hand the one stored value out twice, fails.
    store(kStored);
    tree.section(named, "zone", recOpr());
    Rec three[3];
    EXPECT_EQ(modelRead("/m/time", three, sizeof three), -1);
    EXPECT_STREQ(read("/m/time/zone").text, "z");
    for (const char *doc : {R"({"host":[]})", "not json", "[1,2]"}) {
        store(doc);
        EXPECT_EQ(modelRead("/m/time/settings", two, kRec), -1) << doc;
    }
    // A section without a converter cannot be read, even with its element stored.
    tree.section(list, "host_4", OprInterface{});
    store(R"({"host":[{"host_4":{"text":"x","value":1}}]})");
    EXPECT_EQ(modelRead("/m/host/host_4", two, kRec), -1);
    // A record of one byte is a record, read and written.
    OprInterface flag = recOpr();
    flag.jsonToBin.config = [](const char *, json_object *, void *buf, int size) {
        if (size < 1) return -1;
        *static_cast<char *>(buf) = 'f';
        return 1;
    };
    flag.binToJson.config = [](const char *, json_object **out, const void *record, int size) {
        if (size != 1) return -1;
        *out = json_object_new_int(*static_cast<const char *>(record));
        return 0;
    };
    tree.section(named, "flag", flag);
    store(R"({"time":{"flag":{}}})");
    EXPECT_EQ(modelRead("/m/time/flag", two, kRec), 1);
    EXPECT_EQ(modelWrite("/m/time/flag", "x", 1), 0);
    EXPECT_EQ(canonical(readText(file)), R"({"time":{"flag":120}})");
    // A list section whose conversion gives no byte was not read.
    OprInterface nothing = recOpr();
    nothing.jsonToBin.config = [](const char *, json_object *, void *, int) { return 0; };
    tree.section(list, "host_5", nothing);
    store(R"({"host":[{"host_5":{}}]})");
    EXPECT_EQ(modelRead("/m/host/host_5", two, kRec), -1);

    // Names are cut to 31 characters, in the path and in the file's members alike.
    std::string longModule(32, 'M'), longTable(33, 'T');  // just past the cut
    tree.section(
        tree.table(tree.module(longModule.c_str(), "long.json"), longTable.c_str(), false, false, recOpr()),
        "s", recOpr());
    writeText(tree.path("long.json"), "{\"" + longTable.substr(0, 31) + R"(":{"s":{"text":"L","value":3}}})");
    EXPECT_STREQ(read("/" + longModule + "/" + longTable + "/s").text, "L");
    Rec w = makeRec("W", 4);
    EXPECT_EQ(modelWrite(("/" + longModule + "/" + longTable + "/s").c_str(), &w, kRec), 0);
    EXPECT_STREQ(read("/" + longModule.substr(0, 31) + "/" + longTable.substr(0, 31) + "/s").text, "W");
}

TEST_F(ConfigStore, DynamicTablesCallTheOwnerBetweenTheLockHooks) {
    DataTable *dynList = tree.table(m, "stats", true, true, dynOpr());
    DataTable *dynNamed = tree.table(m, "ports", false, true, dynOpr());
    tree.section(dynNamed, "lan", dynOpr());
    tree.section(dynNamed, "wan", dynOpr());
    char buf[64];

    gCalls.result = 5;
    EXPECT_EQ(modelRead("/m/stats", buf, sizeof buf), 5);
    EXPECT_EQ(gCalls.names, std::vector<std::string>{"stats"});
    gCalls = Calls();
    gCalls.result = 5;
    EXPECT_EQ(modelRead("/m/ports", buf, sizeof buf), 10);
    EXPECT_EQ(std::string(buf, 10), "lllllwwwww");
    EXPECT_EQ(gCalls.sizes, (std::vector<int>{64, 59}));
    EXPECT_EQ(modelRead("/m/ports/wan", buf, sizeof buf), 5);
    gCalls.result = 0;
    EXPECT_EQ(modelRead("/m/ports", buf, sizeof buf), -1);
    EXPECT_EQ(modelRead("/m/ports/lan", buf, sizeof buf), -1);
    // A reader claiming more than its room would push the next one past the buffer.
    gCalls.result = 40;
    EXPECT_EQ(modelRead("/m/ports", buf, 60), -1);
    // No room is no reason to refuse: the owner is asked, and its answer of no byte
    // is passed on.
    gCalls = Calls();
    gCalls.result = 0;
    EXPECT_EQ(modelRead("/m/stats", buf, 0), 0);
    EXPECT_EQ(gCalls.sizes, std::vector<int>{0});
    dynList->opr.binToJson.dynamic = nullptr;
    EXPECT_EQ(modelRead("/m/stats", buf, sizeof buf), -1);

    gCalls = Calls();
    EXPECT_EQ(modelWrite("/m/ports/lan", buf, 0), 7);
    EXPECT_EQ(modelWrite("/m/stats", buf, 3), 7);
    EXPECT_EQ(gCalls.names, (std::vector<std::string>{"lan", "stats"}));
    EXPECT_EQ(modelWrite("/m/ports", buf, 3), -1);
    EXPECT_EQ(modelWrite("/m/ports/dmz", buf, 3), -1);
    EXPECT_EQ(modelWrite("/m/ports/lan", nullptr, 3), -1);
    EXPECT_EQ(modelWrite("/m/ports/lan", buf, -1), -1);
    EXPECT_EQ(modelLock(), 0);
    modelUnlock(0);
}

TEST_F(ConfigStore, NamedSectionWriteReplacesOnlyItsMember) {
    store(kStored);
    Rec r = makeRec("new", 42);
    EXPECT_EQ(modelWrite("/m/time/zone", &r, kRec), 0);
    EXPECT_STREQ(read("/m/time/zone").text, "new");
    EXPECT_EQ(read("/m/time/settings").value, 1);

    // A section without a node: the document is stored back as it was.
    const std::string before = canonical(readText(file));
    EXPECT_EQ(modelWrite("/m/time/nosuch", &r, kRec), 0);
    EXPECT_EQ(canonical(readText(file)), before);

    store(R"({"host":[]})");
    EXPECT_EQ(modelWrite("/m/time/zone", &r, kRec), -1);
}

TEST_F(ConfigStore, ListSectionsAreAddedUpdatedAndDeletedWithTheirNodes) {
    store(R"({"time":{}})");
    Rec a = makeRec("a", 1), b = makeRec("b", 2), c = makeRec("c", 3);
    ASSERT_EQ(modelWrite("/m/host/host_1", &a, kRec), 0);
    EXPECT_EQ(canonical(readText(file)), R"({"time":{},"host":[{"host_1":{"text":"a","value":1}}]})");
    ASSERT_EQ(modelWrite("/m/host/host_2", &b, kRec), 0);
    ASSERT_EQ(modelWrite("/m/host/host_3", &c, kRec), 0);
    EXPECT_EQ(sectionNames(list), (std::vector<std::string>{"host_1", "host_2", "host_3"}));
    // New nodes share the table's interface.
    EXPECT_EQ(reinterpret_cast<DataSection *>(lstFirst(&list->sections))->opr.jsonToBin.config,
              list->opr.jsonToBin.config);

    Rec u = makeRec("u", 99);
    ASSERT_EQ(modelWrite("/m/host/host_1", &u, kRec), 0);
    EXPECT_EQ(canonical(readText(file)),
              R"({"time":{},"host":[{"host_1":{"text":"u","value":99}},{"host_2":{"text":"b","value":2}},)"
              R"({"host_3":{"text":"c","value":3}}]})");
    EXPECT_EQ(read("/m/host/host_1").value, 99);
    EXPECT_EQ(sectionNames(list).size(), 3u);

    ASSERT_EQ(modelWrite("/m/host/host_2", nullptr, 0), 0);
    ASSERT_EQ(modelWrite("/m/host/host_1", nullptr, 0), 0);
    EXPECT_EQ(sectionNames(list), std::vector<std::string>{"host_3"});
    ASSERT_EQ(modelWrite("/m/host/host_3", nullptr, 0), 0);
    EXPECT_EQ(canonical(readText(file)), R"({"time":{}})");
    EXPECT_TRUE(sectionNames(list).empty());

    EXPECT_EQ(modelWrite("/m/host/host_9", &a, -1), -1);
    // A record of no byte is its owner's to judge: the conversion is asked, and takes it here.
    list->opr.binToJson.config = [](const char *, json_object **out, const void *, int size) {
        if (size != 0) return -1;
        *out = json_object_new_object();
        return 0;
    };
    EXPECT_EQ(modelWrite("/m/host/host_9", "", 0), 0);
    EXPECT_EQ(canonical(readText(file)), R"({"time":{},"host":[{"host_9":{}}]})");
}

TEST_F(ConfigStore, ListWriteFailuresLeaveFileAndTreeAlone) {
    tree.section(list, "host_1", recOpr());
    tree.section(list, "host_7", recOpr());  // a node without an element
    const std::string before = store(R"({"host":[{"host_1":{"text":"a","value":1}}]})");
    Rec r = makeRec("r", 5);

    EXPECT_EQ(modelWrite("/m/host/host_7", &r, kRec), -1);
    EXPECT_EQ(modelWrite("/m/host/host_1", &r, 3), -1);
    EXPECT_EQ(modelWrite("/m/host/host_2", &r, 3), -1);

    tree.verify(list, nullptr);  // registered remotely: no in-process check, skipped
    tree.verify(list, verifyRecord);
    gCalls.verifyResult = 1;
    EXPECT_EQ(modelWrite("/m/host/host_1", &r, kRec), -1);
    EXPECT_EQ(modelWrite("/m/host/host_2", &r, kRec), -1);
    EXPECT_EQ(gCalls.existed, (std::vector<int>{1, 0}));
    EXPECT_EQ(readText(file), before);
    EXPECT_EQ(sectionNames(list), (std::vector<std::string>{"host_1", "host_7"}));

    gCalls.verifyResult = 0;
    EXPECT_EQ(modelWrite("/m/host/host_2", &r, kRec), 0);
    EXPECT_EQ(sectionNames(list), (std::vector<std::string>{"host_1", "host_7", "host_2"}));

    // Deleting the node without an element still drops the node and rewrites the file.
    EXPECT_EQ(modelWrite("/m/host/host_7", nullptr, 0), 0);
    EXPECT_EQ(sectionNames(list), (std::vector<std::string>{"host_1", "host_2"}));

    store(R"({"time":{}})");
    EXPECT_EQ(modelWrite("/m/host/host_1", nullptr, 0), -1);
    EXPECT_EQ(modelWrite("/m/host/host_1", &r, kRec), -1);
    EXPECT_EQ(sectionNames(list).size(), 2u);
    store(R"({"host":{"host_1":{}}})");  // wrong type: no array to append to
    EXPECT_EQ(modelWrite("/m/host/host_5", &r, kRec), -1);
    EXPECT_EQ(sectionNames(list).size(), 2u);
}

TEST_F(ConfigStore, LoadCreatesListNodesInArrayOrder) {
    DataModule *bare = tree.module("bare", "");
    tree.table(bare, "host", true, false, recOpr());
    store(R"({"host":[{"host_2":{}},{"host_1":{"x":1}},{},{"host_3":{}}],"time":[{"t":{}}]})");
    named->optionPublic = 0;
    EXPECT_EQ(systemLoadConfigFile(), 0);
    EXPECT_EQ(sectionNames(list), (std::vector<std::string>{"host_2", "host_1"}));
    EXPECT_EQ(sectionNames(named), (std::vector<std::string>{"settings", "zone"}));
    EXPECT_EQ(reinterpret_cast<DataSection *>(lstFirst(&list->sections))->opr.binToJson.config,
              &kep_test::recToJson);

    EXPECT_EQ(loadTableListConfig(list, nullptr), 0);
    EXPECT_EQ(loadTableListConfig(nullptr, nullptr), -1);
    json_object *odd = json_tokener_parse(R"([{"host_5":1},"text",{"host_6":{}}])");
    EXPECT_EQ(loadTableListConfig(list, odd), 0);
    json_object_put(odd);
    EXPECT_EQ(sectionNames(list), (std::vector<std::string>{"host_2", "host_1", "host_5"}));
}

TEST_F(ConfigStore, LoadRepairsAnUnreadableFileWithDefaults) {
    for (const char *bad : {"{\"host\": [", "not json at all", "[]", "\"text\"", ""}) {
        SCOPED_TRACE(bad);
        store(bad);
        EXPECT_EQ(systemLoadConfigFile(), 0);
        EXPECT_EQ(
            canonical(readText(file)),
            R"({"time":{"settings":{"text":"settings","value":0}},"host":[{"host_9":{"text":"d","value":9}}]})");
        // The defaults' list entries are loaded like any stored ones.
        EXPECT_EQ(sectionNames(list).back(), "host_9");
    }
    // A missing file is repaired the same way.
    unlink(file.c_str());
    EXPECT_EQ(systemLoadConfigFile(), 0);
    EXPECT_NE(readText(file), "<missing>");
}

TEST_F(ConfigStore, BadFilesAreRefusedOrRepairedNeverTrusted) {
    std::string huge = R"({"host":[)";
    for (int i = 0; i < 3000; i++) huge += (i ? ",{\"host_" : "{\"host_") + std::to_string(i) + "\":{}}";
    huge += "]}";
    const std::string cases[] = {
        std::string(kStored).substr(0, sizeof kStored / 2),
        std::string(5000, '[') + std::string(5000, ']'),
        R"({"time":[1,2],"host":{"host_1":5}})",
        R"({"time":{"zone":7,"settings":null},"host":[5,{"host_1":"x"},[]]})",
        std::string("{\"time\":{}}\0garbage", 19),
        huge,
    };
    tree.section(list, "host_1", recOpr());
    Rec r = makeRec("r", 1);
    Rec two[2];
    for (const std::string &bad : cases) {
        SCOPED_TRACE(bad.substr(0, 60));
        store(bad);
        EXPECT_EQ(modelRead("/m/time", two, sizeof two), -1);
        EXPECT_EQ(modelRead("/m/time/zone", two, kRec), -1);
        EXPECT_EQ(modelRead("/m/host/host_1", two, kRec), -1);
        modelWrite("/m/time/zone", &r, kRec);
        modelWrite("/m/host/host_1", &r, kRec);
        modelWrite("/m/host/host_2", &r, kRec);
        modelWrite("/m/host/host_2", nullptr, 0);
        EXPECT_EQ(systemLoadConfigFile(), 0);
        EXPECT_NE(canonical(readText(file)), "<invalid>");
    }
    EXPECT_GE(sectionNames(list).size(), 3000u);
}

TEST_F(ConfigStore, LoadStopsWhenTheRepairFails) {
    DataModule *lost = tree.module("lost", "nodir/l.json");
    DataModule *after = tree.module("after", "a.json");
    DataTable *afterList = tree.table(after, "host", true, false, recOpr());
    writeText(tree.path("a.json"), R"({"host":[{"host_1":{}}]})");
    (void)lost;
    EXPECT_EQ(systemLoadConfigFile(), -1);
    EXPECT_TRUE(sectionNames(afterList).empty());
}

TEST_F(ConfigStore, ResetBuildsTheDefaultsOfEveryTableKind) {
    DataTable *dynList = tree.table(m, "stats", true, true, dynOpr());
    DataTable *dynNamed = tree.table(m, "ports", false, true, dynOpr());
    tree.section(dynNamed, "lan", dynOpr());
    DataTable *noDefaults = tree.table(m, "misc", false, false, recOpr());
    tree.section(noDefaults, "a", recOpr());
    DataTable *noListDefault = tree.table(m, "users", true, false, recOpr());
    tree.section(list, "host_1", recOpr());

    json_object *v = reinterpret_cast<json_object *>(1);
    EXPECT_EQ(tableResetConfig(dynList, &v), 0);
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(tableResetConfig(noListDefault, &v), 0);
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(tableResetConfig(dynNamed, &v), 0);
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(gCalls.names, std::vector<std::string>{"lan"});
    EXPECT_EQ(tableResetConfig(noDefaults, &v), 0);
    EXPECT_STREQ(json_object_to_json_string_ext(v, JSON_C_TO_STRING_PLAIN), "{}");
    json_object_put(v);
    EXPECT_EQ(tableResetConfig(nullptr, &v), -1);
    EXPECT_EQ(tableResetConfig(noDefaults, nullptr), -1);

    EXPECT_EQ(modelResetConfigFile(m), 0);
    EXPECT_EQ(
        canonical(readText(file)),
        R"({"time":{"settings":{"text":"settings","value":0}},"host":[{"host_9":{"text":"d","value":9}}],)"
        R"("misc":{}})");
    // The tree keeps its list sections.
    EXPECT_EQ(sectionNames(list), std::vector<std::string>{"host_1"});
    EXPECT_EQ(modelResetConfigFile(nullptr), -1);
}

TEST_F(ConfigStore, AFailingDefaultLeavesTheFileAsItWas) {
    const std::string before = store(kStored);
    gCalls.resetResult = 3;
    json_object *v = nullptr;
    EXPECT_EQ(tableResetConfig(list, &v), 3);
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(tableResetConfig(named, &v), -1);
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(modelResetConfigFile(m), -1);
    EXPECT_EQ(readText(file), before);

    // Without a file the reset still asks every table and stores nothing.
    gCalls = Calls();
    DataModule *bare = tree.module("bare", "");
    tree.table(bare, "host", true, false, recOpr(resetList));
    EXPECT_EQ(modelResetConfigFile(bare), 0);
    EXPECT_EQ(gCalls.names, std::vector<std::string>{"host"});
}

// A file named by one character, relative to the working folder, is a file like any
// other: read, written and reset.
TEST_F(ConfigStore, AOneCharacterFileNameIsAFile) {
    DataModule *shortFile = tree.module("s", "x");
    kep::copyName(shortFile->configFile, "x", sizeof shortFile->configFile);
    tree.section(tree.table(shortFile, "t", false, false, recOpr()), "a", recOpr(resetSection));
    char was[4096];
    ASSERT_NE(getcwd(was, sizeof was), nullptr);
    ASSERT_EQ(chdir(tree.dir().c_str()), 0);
    writeText("x", R"({"t":{"a":{"text":"q","value":5}}})");
    EXPECT_EQ(read("/s/t/a").value, 5);
    Rec r = makeRec("w", 6);
    EXPECT_EQ(modelWrite("/s/t/a", &r, kRec), 0);
    EXPECT_EQ(read("/s/t/a").value, 6);
    EXPECT_EQ(modelResetConfigFile(shortFile), 0);
    EXPECT_EQ(canonical(readText("x")), R"({"t":{"a":{"text":"a","value":0}}})");
    ASSERT_EQ(chdir(was), 0);
}

// The binding record as the cloud module stores it: its 100 bytes in hexadecimal.
int bindToJson(const char *, json_object **out, const void *record, int size) {
    if (size != 100) return -1;
    char hex[201];
    for (int i = 0; i < size; i++)
        snprintf(hex + 2 * i, 3, "%02x", static_cast<const unsigned char *>(record)[i]);
    *out = json_object_new_object();
    json_object_object_add(*out, "record", json_object_new_string(hex));
    return 0;
}
int bindToBin(const char *, json_object *value, void *buf, int size) {
    json_object *hex = nullptr;
    if (size < 100 || !json_object_object_get_ex(value, "record", &hex) ||
        json_object_get_string_len(hex) != 200)
        return -1;
    for (int i = 0; i < 100; i++) {
        unsigned byte = 0;
        sscanf(json_object_get_string(hex) + 2 * i, "%2x", &byte);
        static_cast<unsigned char *>(buf)[i] = static_cast<unsigned char>(byte);
    }
    return 100;
}

// A factory reset keeps the binding record and marks it in its last four bytes; an
// unreadable record becomes zeros and the mark. Every other module holds its defaults.
TEST_F(ConfigStore, FactoryResetKeepsTheCloudBinding) {
    OprInterface opr{};
    opr.binToJson.config = bindToJson;
    opr.jsonToBin.config = bindToBin;
    DataTable *t = tree.table(tree.module("cloud_config", "c.json"), "router_post", false, false, opr);
    tree.section(t, "bind", opr);
    unsigned char rec[100] = {};
    for (int i = 0; i < 96; i++) rec[i] = static_cast<unsigned char>(i * 7 + 1);
    for (const bool readable : {true, false}) {
        SCOPED_TRACE(readable);
        writeText(tree.path("c.json"), readable ? R"({"router_post":{}})" : "garbage");
        if (readable) {
            ASSERT_EQ(modelWrite("/cloud_config/router_post/bind", rec, 100), 0);
        }
        store(kStored);
        EXPECT_EQ(systemResetConfigFile(), 0);
        unsigned char after[100];
        ASSERT_EQ(modelRead("/cloud_config/router_post/bind", after, 100), 100);
        unsigned char want[100] = {};
        if (readable) memcpy(want, rec, 96);
        const int32_t mark = 1;
        memcpy(want + 96, &mark, 4);
        EXPECT_EQ(memcmp(after, want, 100), 0);
        EXPECT_EQ(
            canonical(readText(file)),
            R"({"time":{"settings":{"text":"settings","value":0}},"host":[{"host_9":{"text":"d","value":9}}]})");
    }
}

// ---- the documents a process keeps ----

// Run once right after the next plain store has put its file in place.
std::function<void()> gAfterStore;

}  // namespace

// The platform's plain store with that hook: the library's objects are linked into
// this executable, so they call this definition, which calls the platform's.
extern "C" int jsonObjectToFile(const char *path, json_object *obj) {
    using Store = int (*)(const char *, json_object *);
    static const Store platform = reinterpret_cast<Store>(dlsym(RTLD_NEXT, "jsonObjectToFile"));
    const int result = platform(path, obj);
    if (gAfterStore) {
        std::function<void()> hook = std::move(gAfterStore);
        gAfterStore = nullptr;
        hook();
    }
    return result;
}

namespace {

// Sets the file's times well into the past, as a file written long before is: a
// document read from it is kept.
void age(const std::string &path) {
    struct timespec past[2];
    clock_gettime(CLOCK_REALTIME, &past[0]);
    past[0].tv_sec -= 60;
    past[1] = past[0];
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), past, 0), 0) << path;
}

// Whether fn succeeded in another process, as another writer of the file.
template <typename Fn>
bool inOtherProcess(Fn fn) {
    return kep_test::inChild([&] { return fn() ? 0 : 1; }) == 0;
}

// A process-wide count, as it grew since the last call.
class CountSince {
public:
    explicit CountSince(unsigned long (*count)()) : count_(count), last_(count()) {}
    unsigned long operator()() {
        const unsigned long now = count_(), n = now - last_;
        last_ = now;
        return n;
    }

private:
    unsigned long (*count_)();
    unsigned long last_;
};

class KeptDocument : public ConfigStore {
protected:
    CountSince reads{kep::moduleFileReads};  // the file's reads
    CountSince builds{kep::indexBuilds};     // the indexes built
};

TEST_F(KeptDocument, ReadingEverySectionParsesTheFileOnce) {
    std::string doc = R"({"time":{"settings":{"text":"s","value":1},"zone":{"text":"z","value":2}},"host":[)";
    constexpr int kHosts = 200;
    for (int i = 1; i <= kHosts; i++) {
        doc += (i > 1 ? "," : "") + std::string(R"({"host_)") + std::to_string(i) +
               R"(":{"text":"h","value":)" + std::to_string(i) + "}}";
        tree.section(list, ("host_" + std::to_string(i)).c_str(), recOpr());
    }
    store(doc + "]}");
    age(file);
    reads();
    builds();
    for (int round = 0; round < 2; round++) {
        for (int i = kHosts; i >= 1; i--) EXPECT_EQ(read("/m/host/host_" + std::to_string(i)).value, i);
        Rec two[2];
        EXPECT_EQ(modelRead("/m/time", two, sizeof two), 2 * kRec);
        // The list's index and the table's section index, each built once.
        EXPECT_EQ(builds(), round == 0 ? 2u : 0u);
    }
    EXPECT_EQ(reads(), 1u);

    // What this process stores it keeps: reads after a write parse nothing.
    Rec r = makeRec("w", 7);
    ASSERT_EQ(modelWrite("/m/host/host_100", &r, kRec), 0);
    ASSERT_EQ(modelWrite("/m/time/zone", &r, kRec), 0);
    Rec added = makeRec("n", 201);
    ASSERT_EQ(modelWrite("/m/host/host_201", &added, kRec), 0);
    EXPECT_EQ(read("/m/host/host_100").value, 7);
    EXPECT_EQ(read("/m/host/host_201").value, 201);
    EXPECT_EQ(read("/m/time/zone").value, 7);
    // The list's index took the added element in; the section index was built again
    // for the new node.
    EXPECT_EQ(builds(), 1u);
    ASSERT_EQ(modelWrite("/m/host/host_1", nullptr, 0), 0);
    EXPECT_EQ(read("/m/host/host_2").value, 2);
    EXPECT_EQ(reads(), 0u);
    // A removal moves the elements after it and drops a node: both are built again.
    EXPECT_EQ(builds(), 2u);

    // A file written just now may yet change within the same clock tick without a
    // new time: it is read again by every operation until it is old enough.
    store(kStored);
    EXPECT_EQ(read("/m/host/host_2").value, 20);
    EXPECT_EQ(read("/m/host/host_2").value, 20);
    EXPECT_EQ(reads(), 2u);

    // Old enough is two ticks of the coarsest clock (20 ms) past the time, or two
    // seconds past a time of whole seconds (a file system that keeps no more).
    // (A whole-seconds time is that many seconds and the part of the current second old,
    // which is kept below 0.9 s.)
    auto readTwiceAged = [&](long long ns, bool wholeSeconds) {
        struct timespec t[2];
        clock_gettime(CLOCK_REALTIME, &t[0]);
        if (wholeSeconds && t[0].tv_nsec > 900000000) {
            usleep(150000);
            clock_gettime(CLOCK_REALTIME, &t[0]);
        }
        const long long at = t[0].tv_sec * 1000000000LL + t[0].tv_nsec - ns;
        t[0] = {static_cast<time_t>(at / 1000000000LL),
                static_cast<long>(wholeSeconds ? 0 : at % 1000000000LL | 1)};
        t[1] = t[0];
        EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), t, 0), 0);
        reads();
        EXPECT_EQ(read("/m/host/host_2").value, 20);
        EXPECT_EQ(read("/m/host/host_2").value, 20);
        return reads();
    };
    EXPECT_EQ(readTwiceAged(20200000, false), 1u);
    EXPECT_EQ(readTwiceAged(2000000000, true), 1u);
    EXPECT_EQ(readTwiceAged(1000000000, true), 2u);

    // A reset stores the file past the kept document; once the new file is read and
    // kept, a write and the reads after it parse nothing more.
    ASSERT_EQ(modelResetConfigFile(m), 0);
    age(file);
    reads();
    EXPECT_EQ(read("/m/time/settings").value, 0);
    ASSERT_EQ(modelWrite("/m/time/zone", &r, kRec), 0);
    EXPECT_EQ(read("/m/time/zone").value, 7);
    EXPECT_EQ(read("/m/time/settings").value, 0);
    EXPECT_EQ(reads(), 1u);

    // A list's index is at most half full. The reset left one element: its index has
    // 8 slots and takes three appends; the fourth drops it, and the next lookup builds
    // it again, larger. (Each add also gives the table a node, so its section index is
    // built again every time.)
    EXPECT_EQ(read("/m/host/host_9").value, 9);
    builds();
    for (int i = 1; i <= 4; i++) {
        const std::string path = "/m/host/new_" + std::to_string(i);
        Rec h = makeRec("h", i);
        ASSERT_EQ(modelWrite(path.c_str(), &h, kRec), 0);
        EXPECT_EQ(read(path).value, i);
        EXPECT_EQ(builds(), i == 4 ? 2u : 1u) << i;
    }
    EXPECT_EQ(read("/m/host/host_9").value, 9);
    EXPECT_EQ(reads(), 0u);

    // The index of an empty list, built by a lookup that found nothing, takes the
    // list's first element in (the new node's section index is built again).
    store(R"({"time":{},"host":[]})");
    age(file);
    Rec none;
    EXPECT_LT(modelRead("/m/host/host_2", &none, kRec), 0);
    EXPECT_EQ(builds(), 1u);
    ASSERT_EQ(modelWrite("/m/host/first", &r, kRec), 0);
    EXPECT_EQ(read("/m/host/first").value, 7);
    EXPECT_EQ(builds(), 1u);
}

TEST_F(KeptDocument, FileChangedByAnotherWriterIsReadAgain) {
    tree.section(list, "host_1", recOpr());
    tree.section(list, "host_2", recOpr());
    store(kStored);
    age(file);
    // The start-up load reads every module without keeping it (a host serves them all).
    reads();
    ASSERT_EQ(systemLoadConfigFile(), 0);
    EXPECT_EQ(reads(), 1u);
    EXPECT_EQ(read("/m/host/host_1").value, 10);
    EXPECT_EQ(reads(), 1u);

    // Replaced whole by another process, as a store of its own does.
    const std::string replaced = std::string(kStored).replace(std::string(kStored).find("10"), 2, "11");
    ASSERT_TRUE(inOtherProcess([&] {
        writeText(file + ".new", replaced);
        return rename((file + ".new").c_str(), file.c_str()) == 0;
    }));
    EXPECT_EQ(read("/m/host/host_1").value, 11);
    age(file);
    EXPECT_EQ(read("/m/host/host_1").value, 11);

    // Changed in place, same size, by a writer that only rewrites bytes.
    ASSERT_TRUE(inOtherProcess([&] {
        const size_t at = replaced.find("11");
        int fd = open(file.c_str(), O_WRONLY);
        const bool ok = fd >= 0 && pwrite(fd, "12", 2, static_cast<off_t>(at)) == 2;
        if (fd >= 0) close(fd);
        return ok;
    }));
    EXPECT_EQ(read("/m/host/host_1").value, 12);

    // Removed, then broken: nothing kept is handed out.
    age(file);
    EXPECT_EQ(read("/m/host/host_2").value, 20);
    unlink(file.c_str());
    Rec r;
    EXPECT_EQ(modelRead("/m/host/host_2", &r, kRec), -1);
    store("{\"host\":[");
    age(file);
    EXPECT_EQ(modelRead("/m/host/host_2", &r, kRec), -1);
}

// A write refused after it has begun to change the document, or whose store fails,
// leaves the file and what later reads and writes see as they were.
TEST_F(KeptDocument, RefusedWriteLeavesFileAndReadsUnchanged) {
    tree.section(list, "host_1", recOpr());
    tree.section(list, "host_2", recOpr());
    const std::string before = store(kStored);
    age(file);
    EXPECT_EQ(read("/m/host/host_1").value, 10);
    reads();
    tree.verify(list, verifyRecord);
    gCalls.verifyResult = 1;
    Rec r = makeRec("refused", 5);
    // The add appends an element before it asks the verify function.
    EXPECT_EQ(modelWrite("/m/host/host_3", &r, kRec), -1);
    EXPECT_EQ(modelWrite("/m/host/host_1", &r, kRec), -1);
    EXPECT_EQ(readText(file), before);
    EXPECT_EQ(read("/m/host/host_1").value, 10);
    EXPECT_EQ(reads(), 1u);  // the changed document was not kept

    // A store that fails (a full disk: a file size limit) keeps nothing either.
    gCalls.verifyResult = 0;
    ASSERT_TRUE(inOtherProcess([&] {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit = {16, 16};
        Rec got{};
        const unsigned long readsBefore = kep::moduleFileReads();
        return setrlimit(RLIMIT_FSIZE, &limit) == 0 && modelWrite("/m/host/host_1", &r, kRec) != 0 &&
               modelRead("/m/host/host_1", &got, kRec) == kRec && got.value == 10 &&
               kep::moduleFileReads() == readsBefore + 1;
    }));
    EXPECT_EQ(readText(file), before);

    // The next successful write stores what was read, plus its own change only.
    Rec ok = makeRec("ok", 6);
    ASSERT_EQ(modelWrite("/m/host/host_2", &ok, kRec), 0);
    EXPECT_EQ(canonical(readText(file)),
              canonical(std::string(kStored).replace(std::string(kStored).find(R"({"text":"b","value":20})"),
                                                     23, R"({"text":"ok","value":6})")));
}

// The index of a kept document finds what a walk of the array in order finds: the
// first element keyed by the name, also after elements are added, updated, removed.
TEST_F(KeptDocument, IndexFindsTheFirstOfDuplicateNames) {
    store(R"({"host":[{"host_1":{"text":"a","value":1}},5,{},{"host_2":{"text":"b","value":2}},)"
          R"({"host_1":{"text":"c","value":3}},{"y":{},"host_5":{"text":"d","value":4}},)"
          R"({"host_5":{"text":"e","value":5},"x":{"text":"f","value":6}},{"x":{"text":"g","value":7}},)"
          R"({"costarring":{"text":"k","value":12}},{"liquid":{"text":"l","value":11}}],)"
          R"("lease":[{"x":{}},{"host_2":{}},{"host_1":{}},{"liquid":{}}]})");
    age(file);
    // "costarring" and "liquid" hash alike: an index must tell them apart by name.
    const char *names[] = {"host_1", "host_2", "host_5", "x", "y", "host_9", "", "costarring", "liquid"};
    // Each array has an index of its own: lookups in two arrays taken in turn.
    auto sameAsWalk = [&](const char *when) {
        kep::ModuleDocument doc(*m);
        ASSERT_TRUE(doc);
        for (const char *name : names) {
            for (const char *member : {"host", "lease"}) {
                json_object *array = jsonObjectObjectGet(doc.get(), member);
                EXPECT_EQ(doc.findListElement(array, name), kep::findListElement(array, name))
                    << when << " " << member << " " << name;
            }
        }
    };
    sameAsWalk("read");
    // Of two nodes of one name the first is read, with its own converter.
    OprInterface marked = recOpr();
    marked.jsonToBin.config = [](const char *name, json_object *value, void *buf, int size) {
        const int got = kep_test::jsonToRec(name, value, buf, size);
        static_cast<Rec *>(buf)->value += 100;
        return got;
    };
    tree.section(list, "host_1", marked);
    for (const char *name : {"host_1", "host_5", "x", "costarring", "liquid"})
        tree.section(list, name, recOpr());
    EXPECT_EQ(read("/m/host/host_1").value, 101);
    EXPECT_EQ(read("/m/host/x").value, 7);
    EXPECT_EQ(read("/m/host/liquid").value, 11);
    EXPECT_EQ(read("/m/host/costarring").value, 12);
    Rec r = makeRec("u", 8);
    // Replacing host_5's member moves it behind "x": that element now answers "x".
    ASSERT_EQ(modelWrite("/m/host/host_5", &r, kRec), 0);
    sameAsWalk("update");
    EXPECT_EQ(read("/m/host/x").value, 6);
    ASSERT_EQ(modelWrite("/m/host/host_9", &r, kRec), 0);
    sameAsWalk("add");
    EXPECT_EQ(read("/m/host/host_9").value, 8);
    ASSERT_EQ(modelWrite("/m/host/host_1", nullptr, 0), 0);  // the first node and element
    sameAsWalk("delete");
    EXPECT_EQ(read("/m/host/host_1").value, 3);
    // Nodes taken out of the list by other means are not found either.
    DataSection *gone = kep::findSectionInTable(list, "host_1");
    lstDelete(&list->sections, &gone->link);
    kep::freeDataSection(gone);
    Rec none;
    EXPECT_EQ(modelRead("/m/host/host_1", &none, kRec), -1);
    EXPECT_EQ(read("/m/host/x").value, 6);
}

// Threads reading and writing one module at once: a read never fails or sees a value
// nobody wrote, and afterwards what reads return is what the file holds.
TEST_F(KeptDocument, ConcurrentReadsAndWritesOfOneModule) {
    tree.section(list, "host_1", recOpr());
    tree.section(list, "host_2", recOpr());
    store(kStored);
    age(file);
    constexpr int kWrites = 150;
    std::atomic<int> bad{0};
    std::atomic<bool> writing{true};
    std::vector<std::thread> threads;
    for (int w = 0; w < 2; w++) {
        threads.emplace_back([&, w] {
            const std::string path = w == 0 ? "/m/host/host_1" : "/m/time/zone";
            for (int i = 1; i <= kWrites; i++) {
                Rec r = makeRec("w", 1000 * (w + 1) + i);
                if (modelWrite(path.c_str(), &r, kRec) != 0) bad++;
            }
        });
    }
    for (int t = 0; t < 2; t++) {
        threads.emplace_back([&] {
            while (writing.load()) {
                for (const char *path :
                     {"/m/host/host_1", "/m/host/host_2", "/m/time/zone", "/m/time/settings"}) {
                    Rec r{};
                    if (modelRead(path, &r, kRec) != kRec) {
                        bad++;
                        continue;
                    }
                    const int v = r.value;
                    const bool known = v == 10 || v == 20 || v == 1 || v == 2 ||
                                       (v > 1000 && v <= 1000 + kWrites) || (v > 2000 && v <= 2000 + kWrites);
                    if (!known) bad++;
                }
            }
        });
    }
    threads[0].join();
    threads[1].join();
    writing = false;
    for (size_t i = 2; i < threads.size(); i++) threads[i].join();
    EXPECT_EQ(bad.load(), 0);
    // Each store wrote the whole document: the last one wins, and reads agree with it.
    json_object *held = json_tokener_parse(readText(file).c_str());
    ASSERT_NE(held, nullptr);
    auto stored = [&](const char *table, const char *section) {
        json_object *t = json_object_object_get(held, table), *v = nullptr;
        if (json_object_is_type(t, json_type_array)) {
            for (size_t i = 0; i < json_object_array_length(t); i++)
                if (json_object_object_get_ex(json_object_array_get_idx(t, i), section, &v)) break;
        } else {
            v = json_object_object_get(t, section);
        }
        return json_object_get_int(json_object_object_get(v, "value"));
    };
    EXPECT_EQ(read("/m/host/host_1").value, stored("host", "host_1"));
    EXPECT_EQ(read("/m/time/zone").value, stored("time", "zone"));
    EXPECT_EQ(read("/m/host/host_2").value, 20);
    json_object_put(held);
}

// Another thread's store that lands after this thread's store has put its file in
// place, before this one has looked at the file: the file is the other's, and what
// this thread wrote is not taken for it.
TEST_F(KeptDocument, ConcurrentStoreLandingFirstIsNotTakenForOnesOwn) {
    tree.section(list, "host_1", recOpr());
    store(kStored);
    age(file);
    EXPECT_EQ(read("/m/host/host_1").value, 10);
    gAfterStore = [] {
        std::thread([] {
            Rec other = makeRec("other", 77);
            EXPECT_EQ(modelWrite("/m/time/zone", &other, kRec), 0);
        }).join();
    };
    Rec mine = makeRec("mine", 55);
    ASSERT_EQ(modelWrite("/m/host/host_1", &mine, kRec), 0);
    // The other store read this one's file: both changes are in it, and reads say so.
    EXPECT_EQ(read("/m/time/zone").value, 77);
    EXPECT_EQ(read("/m/host/host_1").value, 55);

    // Once a store made beside the kept document is over (a reset, or a write while
    // the document was held), it is read once, and what is stored after it is kept.
    for (int kind = 0; kind < 2; kind++) {
        SCOPED_TRACE(kind);
        if (kind == 0) {
            ASSERT_EQ(modelResetConfigFile(m), 0);
        } else {
            kep::ModuleDocument held(*m);
            kep::ModuleDocument beside(*m);
            ASSERT_TRUE(beside);
            ASSERT_EQ(beside.store(), 0);
        }
        age(file);
        reads();
        Rec any;
        modelRead("/m/time/zone", &any, kRec);
        ASSERT_EQ(modelWrite("/m/time/zone", &mine, kRec), 0);
        EXPECT_EQ(read("/m/time/zone").value, 55);
        EXPECT_EQ(reads(), 1u);
    }
}

TEST(ConfigEmptyTree, EveryEntryPointRefuses) {
    ConfigTree tree;
    char buf[8];
    EXPECT_EQ(modelRead("/m/t/s", buf, sizeof buf), -1);
    EXPECT_EQ(modelWrite("/m/t/s", buf, sizeof buf), -1);
    EXPECT_EQ(systemLoadConfigFile(), -1);
    EXPECT_EQ(systemResetConfigFile(), -1);
}

}  // namespace
