// No data loss: a writer killed at any moment, or a store that fails, leaves a
// module file that holds either the document before the write or the one after it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "child.h"
#include "config_fixture.h"
#include "kep_config.h"

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

struct ListModule {
    explicit ListModule(ConfigTree &tree) {
        module = tree.module("m", "m.json");
        list = tree.table(module, "host", true, false, recOpr());
        file = tree.path("m.json");
    }
    DataModule *module;
    DataTable *list;
    std::string file;
};

// Operation i of a run: adds while the table is small, otherwise adds, updates or
// deletes a random entry. The choices depend only on rng and the table, so a replay
// from the same start repeats them.
int step(ListModule &lm, std::mt19937 &rng, int i) {
    std::vector<std::string> names = sectionNames(lm.list);
    const unsigned choice = rng() % 3;
    if (names.size() < 2 || choice == 0) {
        Rec r = makeRec(("added " + std::to_string(i)).c_str(), i);
        return modelWrite(("/m/host/host_" + std::to_string(i)).c_str(), &r, kRec);
    }
    const std::string path = "/m/host/" + names[rng() % names.size()];
    if (choice == 1) {
        Rec r = makeRec("updated", i);
        return modelWrite(path.c_str(), &r, kRec);
    }
    return modelWrite(path.c_str(), nullptr, 0);
}

std::vector<std::string> tempFilesIn(const std::string &dir) {
    std::vector<std::string> out;
    for (const auto &e : std::filesystem::directory_iterator(dir)) {
        const std::string name = e.path().filename().string();
        if (name != "m.json") out.push_back(name);
    }
    return out;
}

TEST(ConfigCrash, AKilledWriterLeavesTheOldOrTheNewDocument) {
    ConfigTree tree;
    ListModule lm(tree);
    auto *done = static_cast<std::atomic<int> *>(
        mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(done, MAP_FAILED);
    std::mt19937 delays(12345);
    int interrupted = 0;
    for (int round = 0; round < 40; round++) {
        SCOPED_TRACE(round);
        writeText(lm.file, "{}");
        done->store(0);
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            std::mt19937 rng(round);
            for (int i = 0;; i++) {
                if (step(lm, rng, i) != 0) _exit(3);
                done->store(i + 1);
            }
        }
        timespec pause{0, static_cast<long>(delays() % 15000000)};
        nanosleep(&pause, nullptr);
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "writer failed with " << WEXITSTATUS(status);
        const int k = done->load();
        const std::string left = readText(lm.file);
        ASSERT_NE(canonical(left), "<invalid>") << left;

        // Replay the run on the parent's unchanged tree up to the write that was
        // cut off, keeping the documents before and after it.
        std::mt19937 rng(round);
        writeText(lm.file, "{}");
        for (int i = 0; i < k; i++) ASSERT_EQ(step(lm, rng, i), 0);
        const std::string before = readText(lm.file);
        ASSERT_EQ(step(lm, rng, k), 0);
        const std::string after = readText(lm.file);
        EXPECT_TRUE(left == before || left == after)
            << "left: " << left << "\nbefore: " << before << "\nafter: " << after;
        if (left == before && before != after) interrupted++;
        // What the killed store left behind went with the first store after it.
        EXPECT_EQ(tempFilesIn(tree.dir()), std::vector<std::string>{});
        kep::resetTreeForTest();
        lm = ListModule(tree);
    }
    munmap(done, sizeof(std::atomic<int>));
    // Kills that land inside a write are what this test is about.
    EXPECT_GT(interrupted, 0);
}

TEST(ConfigStoreFailure, AFullDiskKeepsThePreviousFile) {
    ConfigTree tree;
    ListModule lm(tree);
    tree.section(lm.list, "host_1", recOpr());
    DataTable *named = tree.table(lm.module, "time", false, false, recOpr());
    tree.section(named, "zone", recOpr());
    const std::string original =
        R"({"host":[{"host_1":{"text":"a","value":1}}],"time":{"zone":{"text":"z","value":2}}})";
    writeText(lm.file, original);

    EXPECT_EQ(kep_test::inChildWithFileLimit(16,
                                             [&] {
                                                 Rec r = makeRec("a longer text than fits", 7);
                                                 if (modelWrite("/m/host/host_2", &r, kRec) == 0) return 1;
                                                 if (sectionNames(lm.list).size() != 2)
                                                     return 2;  // the added node stays
                                                 if (modelWrite("/m/host/host_1", &r, kRec) == 0) return 3;
                                                 if (modelWrite("/m/time/zone", &r, kRec) == 0) return 4;
                                                 if (modelResetConfigFile(lm.module) == 0) return 5;
                                                 if (modelWrite("/m/host/host_1", nullptr, 0) == 0) return 6;
                                                 return 0;
                                             }),
              0);
    EXPECT_EQ(readText(lm.file), original);
    EXPECT_TRUE(tempFilesIn(tree.dir()).empty());
}

}  // namespace
