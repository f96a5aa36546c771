// The stand-in JSON object layer and debug log.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <math.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json-c/json.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/guard.h"
#include "child.h"
#include "config_fixture.h"
#include "kep_pf_debug.h"
#include "kep_pf_json.h"
#include "platform/standin/json_match.h"
#include "rerun.h"

using kep_test::readText;
using kep_test::writeText;

namespace {

std::string text(json_object *obj) {
    return obj ? json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN) : "NULL";
}

std::string parsed(const char *in) {
    kep::JsonPtr obj(jsonObjectFromString(in));
    return text(obj.get());
}

// A scratch folder, removed with what it holds.
class TempDir {
public:
    TempDir() {
        char tmpl[] = "/tmp/kep-json-XXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }
    std::vector<std::string> entries() const {
        std::vector<std::string> out;
        for (const auto &e : std::filesystem::directory_iterator(path_)) out.push_back(e.path().filename());
        std::sort(out.begin(), out.end());
        return out;
    }

private:
    std::string path_;
};

// Holds an extra reference so a test can tell whether a call released the value:
// dropping the last reference then frees it, and json_object_put says so.
bool releasedOnce(json_object *heldTwice) {
    return json_object_put(heldTwice) == 1;
}

// Fails the next read once with this errno (0: none): a signal, or a failing disk.
std::atomic<int> gReadFault{0};
// Hands out at most this many bytes a read (0: no limit), as a pipe-backed or network
// file system may.
std::atomic<size_t> gReadChunk{0};

// Fails every lock taken without waiting with this errno (0: none): EWOULDBLOCK as
// when another store takes each new temporary file for a leftover before it is
// locked, ENOLCK as on a file system without locks.
std::atomic<int> gLockFault{0};

}  // namespace

extern "C" int flock(int fd, int op) {
    static const auto real = reinterpret_cast<int (*)(int, int)>(dlsym(RTLD_NEXT, "flock"));
    if (const int e = gLockFault.load(); e && (op & LOCK_NB)) {
        errno = e;
        return -1;
    }
    return real(fd, op);
}

extern "C" ssize_t read(int fd, void *buf, size_t n) {
    static const auto real = reinterpret_cast<ssize_t (*)(int, void *, size_t)>(dlsym(RTLD_NEXT, "read"));
    if (const int e = gReadFault.exchange(0)) {
        errno = e;
        return -1;
    }
    const size_t chunk = gReadChunk.load();
    return real(fd, buf, chunk && n > chunk ? chunk : n);
}

TEST(JsonText, ParsesWholeTextsOnly) {
    EXPECT_EQ(parsed("{\"a\":[1,\"x\"]}"), "{\"a\":[1,\"x\"]}");
    EXPECT_EQ(parsed("  {\"a\":1} \r\n"), "{\"a\":1}");
    for (const char *scalar : {"-5", "true", "\"s\""}) EXPECT_EQ(parsed(scalar), scalar);

    for (const char *bad : {"", "   ", "null", "{", "{\"a\":1} x", "{}{}", "123 4", "12a", "tru", "[1,2"}) {
        EXPECT_EQ(jsonObjectFromString(bad), nullptr) << bad;
    }
    EXPECT_EQ(jsonObjectFromString(nullptr), nullptr);

    // A container cut short inside a comment is refused, not read as the value it was
    // in the middle of; so is a whole one followed by an unended line comment, which
    // json-c's file reader refuses too.
    for (const char *cut : {"{\"a\":1 //x", "[1,2 //x", "{\"a\":{\"b\":5}//x", "/*c*/{\"a\":1 /* x",
                            "{\"a\":1} // end", "[1]//"}) {
        EXPECT_EQ(jsonObjectFromString(cut), nullptr) << cut;
    }
    EXPECT_EQ(parsed("/* c */ {\"a\":1}"), "{\"a\":1}");
    EXPECT_EQ(parsed("5 // five"), "5");
    EXPECT_EQ(parsed("5 // {"), "5");
    EXPECT_EQ(parsed("{\"a\":1} // end\n"), "{\"a\":1}");

    // Nesting is bounded rather than recursing without limit.
    EXPECT_EQ(jsonObjectFromString((std::string(200000, '[') + std::string(200000, ']')).c_str()), nullptr);
    EXPECT_NE(parsed((std::string(20, '[') + std::string(20, ']')).c_str()), "NULL");
}

TEST(JsonFile, FromFileRejectsMissingAndBrokenFiles) {
    TempDir dir;
    writeText(dir / "good.json", "{\"k\":\"v\"}\n");
    for (const auto &f : {std::pair<const char *, std::string>{"broken.json", "{\"k\":"},
                          {"trailing.json", "{\"k\":1} {"},
                          {"nul.json", std::string("{\"k\":1}\0{", 9)},
                          {"empty.json", ""},
                          {"cut.json", "{\"k\":{\"v\":5}//"}})
        writeText(dir / f.first, f.second);
    ASSERT_EQ(mkfifo((dir / "fifo.json").c_str(), 0600), 0);
    kep::JsonPtr good(jsonObjectFromFile((dir / "good.json").c_str()));
    EXPECT_EQ(text(good.get()), "{\"k\":\"v\"}");
    // A read a signal interrupted is made again; one that failed leaves no object.
    gReadFault = EINTR;
    kep::JsonPtr again(jsonObjectFromFile((dir / "good.json").c_str()));
    EXPECT_EQ(text(again.get()), text(good.get()));
    gReadFault = EIO;
    EXPECT_EQ(jsonObjectFromFile((dir / "good.json").c_str()), nullptr);
    // Short reads are put together in order.
    gReadChunk = 1;
    kep::JsonPtr pieces(jsonObjectFromFile((dir / "good.json").c_str()));
    gReadChunk = 0;
    EXPECT_EQ(text(pieces.get()), text(good.get()));
    // Without standard input the file may come as descriptor 0.
    const int in = dup(0);
    close(0);
    kep::JsonPtr onZero(jsonObjectFromFile((dir / "good.json").c_str()));
    if (in >= 0) {
        dup2(in, 0);
        close(in);
    }
    EXPECT_EQ(text(onZero.get()), text(good.get()));
    for (const char *name : {"missing.json", "broken.json", "trailing.json", "nul.json", "empty.json",
                             "cut.json", "fifo.json"}) {
        EXPECT_EQ(jsonObjectFromFile((dir / name).c_str()), nullptr) << name;
    }
    EXPECT_EQ(jsonObjectFromFile(nullptr), nullptr);
    EXPECT_EQ(jsonObjectFromFile((dir / "").c_str()), nullptr);  // a folder
    // A file shorter than the size it reports (sysfs says 4096) is read to its end.
    const char *sysfs = "/sys/devices/system/cpu/kernel_max";
    if (access(sysfs, R_OK) == 0) {
        kep::JsonPtr n(jsonObjectFromFile(sysfs));
        EXPECT_EQ(text(n.get()), std::to_string(std::stoi(readText(sysfs))));
    }
}

TEST(JsonFile, StoreReplacesWholeFilesAndKeepsTheOldOneOnFailure) {
    TempDir dir;
    const std::string path = dir / "cfg.json";
    kep::JsonPtr obj(jsonObjectFromString("{\"a\":1,\"b\":\"two\"}"));
    ASSERT_EQ(jsonObjectToFile(path.c_str(), obj.get()), 0);
    EXPECT_EQ(readText(path), "{\"a\":1,\"b\":\"two\"}");

    kep::JsonPtr next(jsonObjectFromString("{\"a\":2}"));
    ASSERT_EQ(jsonObjectToFileMem(path.c_str(), next.get()), 0);
    kep::JsonPtr back(jsonObjectFromFile(path.c_str()));
    EXPECT_EQ(text(back.get()), "{\"a\":2}");
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"cfg.json"}) << "no temporary file left";

    // Folders that cannot take the file (root ignores permissions, so they are
    // missing, a regular file, or the target is itself a folder).
    const std::string before = readText(path);
    for (const std::string &bad : {dir / "missing/cfg.json", path + "/cfg.json", dir / ""}) {
        EXPECT_NE(jsonObjectToFile(bad.c_str(), obj.get()), 0) << bad;
        EXPECT_NE(jsonObjectToFileMem(bad.c_str(), obj.get()), 0) << bad;
    }
    EXPECT_NE(jsonObjectToFile(nullptr, obj.get()), 0);
    EXPECT_NE(jsonObjectToFile(path.c_str(), nullptr), 0);
    EXPECT_NE(jsonObjectToFileMem(nullptr, obj.get()), 0);
    EXPECT_NE(jsonObjectToFileMem(path.c_str(), nullptr), 0);
    EXPECT_EQ(readText(path), before);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"cfg.json"});

    // A path whose temporary file's name would not fit PATH_MAX is refused before
    // anything is made; one byte shorter, it is stored.
    TempDir deepDir;
    std::string deep = deepDir / "";
    while (deep.size() < PATH_MAX - 160) {
        deep += std::string(99, 'd') + "/";
        ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
    }
    const std::string longest = deep + std::string(PATH_MAX - 11 - deep.size(), 'f');
    EXPECT_NE(jsonObjectToFile((longest + "f").c_str(), obj.get()), 0);
    EXPECT_EQ(std::filesystem::directory_iterator(deep), std::filesystem::directory_iterator());
    EXPECT_EQ(jsonObjectToFile(longest.c_str(), obj.get()), 0);

    // A write that fails half way (the file size limit stands in for a full disk).
    EXPECT_EQ(kep_test::inChildWithFileLimit(4,
                                             [&] {
                                                 const bool refused =
                                                     jsonObjectToFile(path.c_str(), obj.get()) != 0 &&
                                                     jsonObjectToFileMem(path.c_str(), obj.get()) != 0;
                                                 // The child skips the destructors: it releases its copies
                                                 // itself, so that a leak check of it does not depend on
                                                 // where the pointers were left.
                                                 obj.reset();
                                                 next.reset();
                                                 back.reset();
                                                 return refused ? 0 : 1;
                                             }),
              0);
    EXPECT_EQ(readText(path), before);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"cfg.json"});

    // A daemon without standard input, storing into a folder it may write but not
    // read (so the folder is not opened first): the temporary file is descriptor 0,
    // also when it is made under a name of its own because a leftover it may not
    // remove holds the usual one.
    if (geteuid() == 0) {
        TempDir dropBox;
        ASSERT_EQ(chown((dropBox / "").c_str(), 65534, 65534), 0);
        ASSERT_EQ(chmod((dropBox / "").c_str(), 0300), 0);
        const std::string dropped = dropBox / "cfg.json";
        for (bool leftover : {false, true}) {
            if (leftover) {
                const int fd = open((dropped + ".tmp").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
                ASSERT_GE(fd, 0);
                close(fd);
                ASSERT_EQ(unlink(dropped.c_str()), 0);
            }
            EXPECT_EQ(kep_test::inChild([&] {
                          close(0);
                          bool ok = setgid(65534) == 0 && setuid(65534) == 0;
                          ok = ok && jsonObjectToFile(dropped.c_str(), obj.get()) == 0;
                          obj.reset();
                          next.reset();
                          back.reset();
                          return ok ? 0 : 1;
                      }),
                      0)
                << leftover;
            EXPECT_EQ(readText(dropped), "{\"a\":1,\"b\":\"two\"}") << leftover;
        }
        EXPECT_EQ(dropBox.entries(), (std::vector<std::string>{"cfg.json", "cfg.json.tmp"}));
    }
}

namespace {

struct Mode {
    unsigned mode;
    gid_t gid;
    uid_t uid;
};

// The mode and group that a store of path gives the file, after the file was given
// mode before (or removed, with before 0).
Mode storedMode(const std::string &path, unsigned before) {
    if (before) {
        EXPECT_EQ(chmod(path.c_str(), before), 0) << path;
    } else {
        unlink(path.c_str());
    }
    kep::JsonPtr obj(jsonObjectFromString("{\"a\":1}"));
    EXPECT_EQ(jsonObjectToFile(path.c_str(), obj.get()), 0);
    struct stat st;
    EXPECT_EQ(stat(path.c_str(), &st), 0);
    return {static_cast<unsigned>(st.st_mode & 07777), st.st_gid, st.st_uid};
}

// A group this process may give its files other than its own: any as root, else a
// supplementary one; -1 when there is none.
int otherGroup() {
    if (geteuid() == 0) return 65534;
    gid_t groups[64];
    const int n = getgroups(64, groups);
    for (int i = 0; i < n; i++)
        if (groups[i] != getegid()) return static_cast<int>(groups[i]);
    return -1;
}

}  // namespace

// Configuration files are the owner's alone, or also their group's when one is
// configured; a store never copies a looser mode, but keeps a narrower one.
TEST(JsonFile, StoredFilesAreNeverWiderThanTheOwnersOrTheGroups) {
    TempDir dir;
    const std::string path = dir / "cfg.json";
    ASSERT_EQ(jsonObjectSetFileGroup(-1), 0);
    EXPECT_EQ(storedMode(path, 0).mode, 0600u);
    for (unsigned before : {0666u, 0644u, 0604u, 0600u, 0400u, 04755u}) {
        EXPECT_EQ(storedMode(path, before).mode, 0600u) << std::oct << before;
    }
    EXPECT_EQ(jsonObjectSetFileGroup(-2), -1);
    if (geteuid() == 0) {
        // Group 0 is a group like any other.
        ASSERT_EQ(jsonObjectSetFileGroup(0), 0);
        const Mode zero = storedMode(path, 0);
        EXPECT_EQ(zero.mode, 0640u);
        EXPECT_EQ(zero.gid, 0u);
    }

    const int group = otherGroup();
    if (group < 0) GTEST_SKIP() << "no group to give files but the process's own";
    ASSERT_EQ(jsonObjectSetFileGroup(group), 0);
    Mode fresh = storedMode(path, 0);
    EXPECT_EQ(fresh.mode, 0640u);
    EXPECT_EQ(fresh.gid, static_cast<gid_t>(group));
    EXPECT_EQ(fresh.uid, geteuid());  // the group is given, the owner stays
    const struct {
        unsigned before, after;
    } cases[] = {{0666, 0640}, {0660, 0640}, {0640, 0640}, {0620, 0600}, {0600, 0600}, {0400, 0600}};
    for (const auto &c : cases) {
        const Mode m = storedMode(path, c.before);
        EXPECT_EQ(m.mode, c.after) << std::oct << c.before;
        EXPECT_EQ(m.gid, static_cast<gid_t>(group)) << std::oct << c.before;
    }
    // What was there but is no regular file narrows nothing.
    unlink(path.c_str());
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(storedMode(path, 0600).mode, 0640u);
    // A process that may not give the group (not root, not a member) keeps its files
    // to itself.
    if (geteuid() == 0) {
        ASSERT_EQ(chmod((dir / "").c_str(), 0777), 0);
        // Stores name as user 65534 with these supplementary groups: whether the file
        // gets mode and gid, and stays the user's own.
        auto storedAsNobody = [&](const char *name, int fileGroup, std::vector<gid_t> groups, mode_t mode,
                                  gid_t gid) {
            return kep_test::inChild([&] {
                bool ok = jsonObjectSetFileGroup(fileGroup) == 0 &&
                          setgroups(groups.size(), groups.data()) == 0 && setgid(65534) == 0 &&
                          setuid(65534) == 0;
                const std::string file = dir / name;
                kep::JsonPtr obj(jsonObjectFromString("{\"a\":1}"));
                struct stat st;
                ok = ok && jsonObjectToFile(file.c_str(), obj.get()) == 0 && stat(file.c_str(), &st) == 0 &&
                     (st.st_mode & 0777) == mode && st.st_gid == gid && st.st_uid == 65534;
                return ok ? 0 : 1;
            });
        };
        EXPECT_EQ(storedAsNobody("own.json", 0, {}, 0600, 65534), 0);
        // A member of the group gives it, and the file stays its own.
        EXPECT_EQ(storedAsNobody("member.json", group, {static_cast<gid_t>(group)}, 0640,
                                 static_cast<gid_t>(group)),
                  0);
    }
    ASSERT_EQ(jsonObjectSetFileGroup(-1), 0);
}

// KEP_CONFIG_GROUP and KEP_JSON_FILE_LIMIT, read once: checked in fresh runs of this
// program with them set, so that no earlier store has read the environment already.
TEST(JsonFile, SettingsFromTheEnvironment) {
    if (const char *child = getenv("KEP_TEST_SETTINGS_DIR")) {
        const std::string path = std::string(child) + "/cfg.json";
        const int gid = atoi(getenv("KEP_TEST_SETTINGS_GID"));
        if (strcmp(getenv("KEP_JSON_FILE_LIMIT"), "1") == 0) {
            // One byte is a limit too: the smallest document is over it.
            writeText(path, "{}");
            EXPECT_EQ(kep::JsonPtr(jsonObjectFromFile(path.c_str())).get(), nullptr);
            EXPECT_NE(jsonObjectToFile(path.c_str(), kep::JsonPtr(jsonObjectNewObject()).get()), 0);
            return;
        }
        const Mode m = storedMode(path, 0);
        EXPECT_EQ(m.mode, gid >= 0 ? 0640u : 0600u);
        if (gid >= 0) {
            EXPECT_EQ(m.gid, static_cast<gid_t>(gid));
        }
        // 100 bytes at most, read or written; a limit that is no byte count leaves 64 MiB.
        const bool limited = strcmp(getenv("KEP_JSON_FILE_LIMIT"), "100") == 0;
        if (strcmp(getenv("KEP_JSON_FILE_LIMIT"), "100x") == 0) {
            // A sound document one byte over 64 MiB, blanks after "{}", is not read.
            const std::string blanks(1 << 20, ' ');
            const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            ASSERT_GE(fd, 0);
            bool written = write(fd, "{}", 2) == 2;
            for (int i = 0; i < 64 && written; i++)
                written = write(fd, blanks.data(), blanks.size()) == static_cast<ssize_t>(blanks.size());
            close(fd);
            ASSERT_TRUE(written && truncate(path.c_str(), (64L << 20) + 1) == 0);
            EXPECT_EQ(kep::JsonPtr(jsonObjectFromFile(path.c_str())).get(), nullptr);
        }
        writeText(path, "{\"a\":\"" + std::string(92, 'x') + "\"}");
        kep::JsonPtr at(jsonObjectFromFile(path.c_str()));
        EXPECT_NE(at.get(), nullptr);
        writeText(path, "{\"a\":\"" + std::string(93, 'x') + "\"}");
        kep::JsonPtr over(jsonObjectFromFile(path.c_str()));
        EXPECT_EQ(over.get() == nullptr, limited);
        kep::JsonPtr big(jsonObjectFromString(("{\"a\":\"" + std::string(93, 'x') + "\"}").c_str()));
        EXPECT_EQ(jsonObjectToFile(path.c_str(), big.get()) != 0, limited);
        EXPECT_EQ(jsonObjectToFileMem(path.c_str(), big.get()) != 0, limited);
        // A text of exactly the limit is stored, plain or laid out.
        EXPECT_EQ(jsonObjectToFile(path.c_str(), at.get()), 0);
        kep::JsonPtr laidOut(jsonObjectNewObject());
        jsonObjectAddString(laidOut.get(), "a", "");
        const size_t room =
            100 - strlen(json_object_to_json_string_ext(laidOut.get(), JSON_C_TO_STRING_PRETTY));
        jsonObjectAddString(laidOut.get(), "a", std::string(room, 'x').c_str());
        ASSERT_EQ(strlen(json_object_to_json_string_ext(laidOut.get(), JSON_C_TO_STRING_PRETTY)), 100u);
        EXPECT_EQ(jsonObjectToFileMem(path.c_str(), laidOut.get()), 0);
        return;
    }
    struct Run {
        std::string group;
        int gid;
        const char *limit;
    };
    std::vector<Run> runs = {
        {"kep-no-such-group", -1, "100x"}, {"", -1, "0"}, {"", -1, "1"}, {"", -1, "100"}};
    // By name when the group has one, which is the harder of the two to read.
    if (const int group = otherGroup(); group >= 0) {
        struct group entry, *found = nullptr;
        char buf[4096];
        const bool named =
            getgrgid_r(static_cast<gid_t>(group), &entry, buf, sizeof buf, &found) == 0 && found;
        runs.push_back({named ? found->gr_name : std::to_string(group), group, "100"});
    }
    for (const Run &r : runs) {
        TempDir dir;
        const std::string folder = dir / "", gid = std::to_string(r.gid);
        EXPECT_EQ(kep_test::rerunAlone("JsonFile.SettingsFromTheEnvironment",
                                       {{"KEP_TEST_SETTINGS_DIR", folder.c_str()},
                                        {"KEP_TEST_SETTINGS_GID", gid.c_str()},
                                        {"KEP_CONFIG_GROUP", r.group.c_str()},
                                        {"KEP_JSON_FILE_LIMIT", r.limit}}),
                  0)
            << "the run with \"" << r.group << "\" and " << r.limit << " failed";
    }
}

// Stores cut short (a killed writer, a power cut) leave their temporary files; the
// next store of the same path removes them, and nothing else.
TEST(JsonFile, StoreRemovesTheTemporaryFilesOfStoresCutShort) {
    TempDir dir;
    const std::string path = dir / "cfg.json";
    kep::JsonPtr obj(jsonObjectFromString("{\"a\":1}"));
    auto sorted = [](std::vector<std::string> v) {
        std::sort(v.begin(), v.end());
        return v;
    };
    auto lock = [](const std::string &file) {
        int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(flock(fd, LOCK_EX), 0) << file;
        return fd;
    };

    // The temporary file of the path and ones named for a second store at the same
    // time, all cut short; files that only look alike.
    for (const char *left : {"cfg.json.tmp", "cfg.json.tmpAb12Cd", "cfg.json.tmpZZZZZZ"})
        writeText(dir / left, "{\"cut");
    std::vector<std::string> kept = {"cfg.json.tmpAb12C",
                                     "cfg.json.tmpAb12Cde",
                                     "cfg.json.tmp-b12Cd",
                                     "cfg.jso.tmp",
                                     "cfg.jso.tmpAb12Cd",
                                     "other.json.tmp",
                                     "cfg.json.unreadable-20261124T101530Z",
                                     "target.json"};
    for (const std::string &name : kept) writeText(dir / name, "x");
    ASSERT_EQ(mkdir((dir / "cfg.json.tmpFolder").c_str(), 0700), 0);
    ASSERT_EQ(symlink((dir / "target.json").c_str(), (dir / "cfg.json.tmpLinked").c_str()), 0);
    // One that a store in progress holds.
    writeText(dir / "cfg.json.tmpLive01", "{");
    int live = lock(dir / "cfg.json.tmpLive01");
    kept.insert(kept.end(), {"cfg.json.tmpFolder", "cfg.json.tmpLinked", "cfg.json.tmpLive01", "cfg.json"});

    ASSERT_EQ(jsonObjectToFile(path.c_str(), obj.get()), 0);
    EXPECT_EQ(readText(path), "{\"a\":1}");
    EXPECT_EQ(sorted(dir.entries()), sorted(kept));
    EXPECT_EQ(readText(dir / "target.json"), "x");

    // While a store holds the path's temporary file, another writes one of its own
    // and sweeps: the one given up since goes.
    close(live);
    kept.erase(std::find(kept.begin(), kept.end(), "cfg.json.tmpLive01"));
    writeText(dir / "cfg.json.tmp", "{");
    live = lock(dir / "cfg.json.tmp");
    kept.push_back("cfg.json.tmp");
    kep::JsonPtr next(jsonObjectFromString("{\"a\":2}"));
    ASSERT_EQ(jsonObjectToFileMem(path.c_str(), next.get()), 0);
    kep::JsonPtr back(jsonObjectFromFile(path.c_str()));
    EXPECT_EQ(text(back.get()), "{\"a\":2}");
    EXPECT_EQ(sorted(dir.entries()), sorted(kept));
    close(live);

    // A temporary file of the path that no store could remove (a folder) leaves the
    // stores to names of their own.
    ASSERT_EQ(unlink((dir / "cfg.json.tmp").c_str()), 0);
    ASSERT_EQ(mkdir((dir / "cfg.json.tmp").c_str(), 0700), 0);
    ASSERT_EQ(jsonObjectToFile(path.c_str(), obj.get()), 0);
    EXPECT_EQ(readText(path), "{\"a\":1}");
    EXPECT_EQ(sorted(dir.entries()), sorted(kept));
}

// A store that loses every temporary file it makes gives up after eight of them and
// leaves the file as it was; on a file system without locks the temporary file is
// used unlocked; the next store that can lock sweeps what the others left.
TEST(JsonFile, AStoreGivesUpAfterEightLostTemporaryFiles) {
    TempDir dir;
    const std::string path = dir / "cfg.json";
    kep::JsonPtr one(jsonObjectFromString("{\"a\":1}")), two(jsonObjectFromString("{\"a\":2}"));
    ASSERT_EQ(jsonObjectToFile(path.c_str(), one.get()), 0);
    gLockFault = EWOULDBLOCK;
    EXPECT_NE(jsonObjectToFile(path.c_str(), two.get()), 0);
    gLockFault = 0;
    EXPECT_EQ(readText(path), "{\"a\":1}");
    EXPECT_EQ(dir.entries().size(), 9u) << "the file and the temporary file of each try";
    gLockFault = ENOLCK;
    EXPECT_EQ(jsonObjectToFile(path.c_str(), two.get()), 0);
    gLockFault = 0;
    EXPECT_EQ(readText(path), "{\"a\":2}");
    EXPECT_EQ(dir.entries().size(), 9u) << "nothing is swept that cannot be locked";
    ASSERT_EQ(jsonObjectToFile(path.c_str(), one.get()), 0);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"cfg.json"});
}

// Two processes with several threads each store one file at once, so that every
// store sweeps the folder while the others' temporary files are in it: each lands
// whole, and none is taken for a leftover.
TEST(JsonFile, ConcurrentStoresOfOneFileAllLand) {
    TempDir dir;
    const std::string path = dir / "cfg.json";
    constexpr int kThreads = 4, kStores = 40;
    auto storeMany = [&path](int process) {
        std::atomic<int> failed{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < kStores; ++i) {
                    kep::JsonPtr doc(jsonObjectNewObject());
                    jsonObjectAddInt(doc.get(), "writer", process * kThreads + t);
                    jsonObjectAddInt(doc.get(), "store", i);
                    const int rc = i % 2 ? jsonObjectToFile(path.c_str(), doc.get())
                                         : jsonObjectToFileMem(path.c_str(), doc.get());
                    if (rc != 0) failed++;
                }
            });
        }
        for (std::thread &th : threads) th.join();
        return failed.load();
    };
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(storeMany(1) == 0 ? 0 : 1);
    EXPECT_EQ(storeMany(0), 0);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    kep::JsonPtr last(jsonObjectFromFile(path.c_str()));
    int store = -1;
    EXPECT_EQ(jsonObjectGetInt(last.get(), "store", &store), 0);
    EXPECT_EQ(store, kStores - 1);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"cfg.json"});
}

// Whether json-c's reader turns text into an object equal to obj: what the store's
// check has to decide without reading the text.
bool readsBackAs(const std::string &text, json_object *obj) {
    kep::JsonPtr back(jsonObjectFromString(text.c_str()));
    return back && json_object_equal(obj, back.get());
}

bool matches(const std::string &text, json_object *obj) {
    return kep_pf::jsonTextMatches(text.c_str(), text.size(), obj);
}

// The store checks its text against the object before it replaces a file. It must
// take every text json-c writes, and a damaged one (pieces dropped, as a failed append
// drops them) only when the reader would still read it as an equal object.
TEST(JsonMatch, AgreesWithReadingTheTextBack) {
    const char *samples[] = {
        R"({"name":"lan","hosts":[{"mac":"00:11","ip":"10.0.0.2","lease":3600},)"
        R"({"mac":"a\/b\"c\\d\n\u0001\t\r\b\f","on":true,"off":false,"none":null}],"ratio":1.5,)"
        R"("big":18446744073709551615,"top":9223372036854775807,"neg":-9223372036854775808,)"
        R"("exp":1e-7,"whole":2.0,"inf":-Infinity,"empty":{},"none":[],"u":"\u00e9t\u00e9"})",
        "[1,[2,[3,{}]],\"\"]",
        R"(["a\u0000b"])",  // a string may hold a zero byte
        "\"x\"",
        "0",
        "-1.25",
        "true",
        "null",
        // Doubles keep the text they were read from, inside JSON's grammar or not.
        "[-0.0,1.,01.5,1E2,-0.5e-3,Infinity]",
    };
    int rejected = 0;
    for (const char *sample : samples) {
        kep::JsonPtr obj(jsonObjectFromString(sample));
        ASSERT_TRUE(obj || strcmp(sample, "null") == 0) << sample;
        for (int flags : {JSON_C_TO_STRING_PLAIN, JSON_C_TO_STRING_SPACED, JSON_C_TO_STRING_PRETTY}) {
            const std::string text = json_object_to_json_string_ext(obj.get(), flags);
            ASSERT_TRUE(matches(text, obj.get())) << text;
            for (size_t at = 0; at < text.size(); at++) {
                // Cut there (a store cut short), and with bytes taken out there.
                if (matches(text.substr(0, at), obj.get())) {
                    EXPECT_TRUE(readsBackAs(text.substr(0, at), obj.get())) << text.substr(0, at);
                }
                for (size_t n = 1; n <= 4 && at + n <= text.size(); n++) {
                    const std::string damaged = text.substr(0, at) + text.substr(at + n);
                    if (matches(damaged, obj.get())) {
                        EXPECT_TRUE(readsBackAs(damaged, obj.get())) << damaged;
                    } else {
                        rejected++;
                    }
                }
            }
        }
    }
    EXPECT_GT(rejected, 1000);

    kep::JsonPtr one(json_object_new_int(1));
    EXPECT_FALSE(matches("1 x", one.get()));
    EXPECT_FALSE(matches("1.0", one.get()));                    // reads back as a double
    EXPECT_FALSE(kep_pf::jsonTextMatches("12", 1, one.get()));  // not terminated where it ends
    // json-c writes and reads a NaN as "NaN"; json_object_equal finds it unequal to
    // itself, which must not make a value unstorable.
    kep::JsonPtr nan(json_object_new_double(NAN));
    EXPECT_TRUE(matches(json_object_to_json_string(nan.get()), nan.get()));
    EXPECT_FALSE(matches("1.5", nan.get()));
    EXPECT_FALSE(matches("NaN", kep::JsonPtr(json_object_new_double(1.5)).get()));

    // "\u" escapes of a hand-edited file, which json-c reads but never writes: digits
    // of either case, and the ones it would read as something else or not at all.
    const std::pair<const char *, std::string> escaped[] = {
        {R"("\u004a\u004A\u0039\u006f\u006F")", "JJ9oo"},
        {R"("\u00zz")", "\x11"},
        {R"("\u00z")", std::string("\x01")},
        {R"("\u00z")", std::string(1, '\0')},
        {R"("\u003:")", ":"},
        {R"("\u0080")", "\x80"},
        {R"("\u0080")", std::string(1, '\0')},
        {R"("\u0080")", "\x01"},
        {R"("\u004G")", "P"},               // G is no digit, though 4 * 16 + 16 would be P
        {R"("\u004G")", "@"},               // nor is it 0
        {R"("\q")", std::string(1, '\0')},  // nor is q an escape
    };
    for (const auto &[text, want] : escaped) {
        kep::JsonPtr s(json_object_new_string_len(want.data(), static_cast<int>(want.size())));
        EXPECT_EQ(matches(text, s.get()), readsBackAs(text, s.get())) << text;
    }
    EXPECT_TRUE(matches(escaped[0].first, kep::JsonPtr(json_object_new_string("JJ9oo")).get()));

    // Numbers as a hand-edited file may hold them, each against the double a lenient
    // reading of it gives: taken exactly when json-c's reader takes them.
    for (const char *number :
         {"1.5",     "-0.5e-3", "1E2",      "1e+2",      "1E-2",  "1.e5", ".5",    "-.5",
          "1.",      "-",       "1e",       "1e+",       "1x5e2", "1.5x", "1.5.5", "1ee5",
          "1e5.5",   "01.5",    "-01.5",    "00",        "1.5e",  "+1.5", "9.9e9", "0.9",
          "1.5e++3", "0x1p3",   "Infinity", "-Infinity", "5",     "-0",   "+.5",   "x.5"}) {
        kep::JsonPtr d(json_object_new_double(strtod(number, nullptr)));
        EXPECT_EQ(matches(number, d.get()), readsBackAs(number, d.get())) << number;
    }
}

// The reader refuses values nested deeper than its depth; a file it cannot read back
// must not be stored.
TEST(JsonMatch, RefusesWhatTheReaderIsTooShallowFor) {
    for (int levels = kep_pf::kJsonReadLevels - 1; levels <= kep_pf::kJsonReadLevels + 1; levels++) {
        for (bool inObject : {false, true}) {
            // levels values nested: containers around an empty array or a number.
            kep::JsonPtr obj(inObject ? json_object_new_int(7) : json_object_new_array());
            for (int i = 1; i < levels; i++) {
                json_object *outer = inObject ? json_object_new_object() : json_object_new_array();
                if (inObject) {
                    json_object_object_add(outer, "a", obj.release());
                } else {
                    json_object_array_add(outer, obj.release());
                }
                obj.reset(outer);
            }
            const std::string text = json_object_to_json_string(obj.get());
            EXPECT_EQ(matches(text, obj.get()), readsBackAs(text, obj.get())) << levels << " " << text;
            EXPECT_EQ(matches(text, obj.get()), levels <= kep_pf::kJsonReadLevels) << levels;
            // A response text goes to the client's reader, not json-c's: any depth.
            char *response = nullptr;
            EXPECT_EQ(jsonObjectToMallocString(obj.get(), &response), 0);
            EXPECT_STREQ(response, json_object_to_json_string_ext(obj.get(), JSON_C_TO_STRING_PLAIN));
            free(response);
        }
    }
}

TEST(JsonObject, CursorWalksMembersInInsertionOrder) {
    kep::JsonPtr obj(jsonObjectNewObject());
    for (const char *k : {"z", "a", "m"}) ASSERT_EQ(jsonObjectAddString(obj.get(), k, k), 0);
    ASSERT_EQ(jsonObjectObjectDel(obj.get(), "a"), 0);
    ASSERT_EQ(jsonObjectAddInt(obj.get(), "a", 5), 0);
    ASSERT_EQ(jsonObjectAddString(obj.get(), "z", "again"), 0);   // replaced in place
    EXPECT_EQ(jsonObjectAddString(obj.get(), "n", nullptr), -1);  // no text: refused, nothing added

    std::vector<std::string> keys, values;
    const char *key = nullptr;
    for (JsonObjCursor *c = jsonObjectNextSubObject(obj.get(), nullptr, &key); c;
         c = jsonObjectNextSubObject(obj.get(), c, &key)) {
        keys.push_back(key);
        values.push_back(text(jsonObjectCursorValue(c)));
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"z", "m", "a"}));
    EXPECT_EQ(values, (std::vector<std::string>{"\"again\"", "\"m\"", "5"}));

    kep::JsonPtr empty(jsonObjectNewObject()), array(jsonObjectNewArray());
    EXPECT_EQ(jsonObjectNextSubObject(empty.get(), nullptr, &key), nullptr);
    EXPECT_EQ(jsonObjectNextSubObject(array.get(), nullptr, &key), nullptr);
    EXPECT_EQ(jsonObjectNextSubObject(nullptr, nullptr, &key), nullptr);
    EXPECT_EQ(jsonObjectCursorValue(nullptr), nullptr);
}

TEST(JsonObject, AddTakesOwnershipEvenOnFailure) {
    kep::JsonPtr obj(jsonObjectNewObject()), array(jsonObjectNewArray());

    json_object *v = json_object_get(json_object_new_string("x"));
    EXPECT_NE(jsonObjectObjectAdd(array.get(), "k", v), 0);  // not an object
    EXPECT_TRUE(releasedOnce(v));
    v = json_object_get(json_object_new_string("x"));
    EXPECT_NE(jsonObjectObjectAdd(obj.get(), nullptr, v), 0);
    EXPECT_TRUE(releasedOnce(v));
    v = json_object_get(json_object_new_int(1));
    EXPECT_NE(jsonObjectArrayAdd(obj.get(), v), 0);  // not an array
    EXPECT_TRUE(releasedOnce(v));
    EXPECT_NE(jsonObjectArrayAdd(array.get(), json_object_get(array.get())), 0);  // into itself
    EXPECT_NE(jsonObjectObjectAdd(obj.get(), "self", json_object_get(obj.get())), 0);

    // On success the container owns it: the extra reference is the last one left
    // only after the container is gone.
    v = json_object_get(json_object_new_string("kept"));
    ASSERT_EQ(jsonObjectObjectAdd(obj.get(), "k", v), 0);
    EXPECT_FALSE(releasedOnce(v));
    EXPECT_STREQ(jsonObjectGetString(obj.get(), "k"), "kept");
    ASSERT_EQ(jsonObjectObjectAdd(obj.get(), "nothing", nullptr), 0);  // a JSON null
    EXPECT_EQ(text(obj.get()), "{\"k\":\"kept\",\"nothing\":null}");

    ASSERT_EQ(jsonObjectArrayAdd(array.get(), json_object_new_int(1)), 0);
    ASSERT_EQ(jsonObjectArrayAdd(array.get(), json_object_new_int(2)), 0);
    json_object *first = jsonObjectArrayGetIdx(array.get(), 0);
    kep::JsonPtr stranger(json_object_new_int(1));
    EXPECT_NE(jsonObjectArrayDel(array.get(), stranger.get()), 0);
    EXPECT_NE(jsonObjectArrayDel(obj.get(), stranger.get()), 0);  // not an array
    EXPECT_NE(jsonObjectArrayDel(array.get(), nullptr), 0);
    EXPECT_EQ(jsonObjectArrayDel(array.get(), first), 0);
    EXPECT_EQ(text(array.get()), "[2]");
    EXPECT_EQ(jsonObjectArrayGetIdx(array.get(), 1), nullptr);
    EXPECT_EQ(jsonObjectArrayLength(obj.get()), 0);

    EXPECT_EQ(jsonObjectObjectGet(obj.get(), nullptr), nullptr);
    EXPECT_EQ(jsonObjectGetString(obj.get(), nullptr), nullptr);
    kep::JsonPtr taken(jsonGetObjFromObj(obj.get(), "k"));
    EXPECT_STREQ(jsonGetObjectString(taken.get()), "kept");
    EXPECT_EQ(jsonObjectObjectGet(obj.get(), "k"), nullptr);
    EXPECT_EQ(jsonGetObjFromObj(obj.get(), "k"), nullptr);
    EXPECT_NE(jsonObjectObjectDel(obj.get(), "k"), 0);
}

TEST(JsonObject, TypeTestsSayOneForTheirOwnTypeOnly) {
    kep::JsonPtr doc(jsonObjectFromString(R"({"o":{},"a":[],"b":true,"i":1,"s":"1","d":1.5})"));
    ASSERT_TRUE(doc);
    using Test = int (*)(json_object *);
    const std::pair<const char *, Test> tests[] = {{"o", jsonObjectIsObject},
                                                   {"a", jsonObjectIsArray},
                                                   {"b", jsonObectIsBool},
                                                   {"i", jsonObectIsInt},
                                                   {"s", jsonObectIsString}};
    for (const auto &[own, test] : tests) {
        for (const char *member : {"o", "a", "b", "i", "s", "d"})
            EXPECT_EQ(test(jsonObjectObjectGet(doc.get(), member)), strcmp(own, member) == 0 ? 1 : 0)
                << own << " of " << member;
        EXPECT_EQ(test(nullptr), 0) << own;
    }
}

TEST(JsonObject, IntegersReadOnlyWhenTheyFit) {
    kep::JsonPtr obj(jsonObjectFromString(
        R"({"i":-7,"b":true,"s":"5","big":3000000000,"huge":18446744073709551615,"d":1.5})"));
    ASSERT_TRUE(obj);
    int v = 99;
    EXPECT_EQ(jsonObjectGetInt(obj.get(), "i", &v), 0);
    EXPECT_EQ(v, -7);
    EXPECT_EQ(jsonObjectGetInt(obj.get(), "b", &v), 0);
    EXPECT_EQ(v, 1);
    v = 99;
    for (const char *k : {"s", "big", "huge", "d", "absent"}) {
        EXPECT_EQ(jsonObjectGetInt(obj.get(), k, &v), -1) << k;
        EXPECT_EQ(v, 99);
    }
    EXPECT_STREQ(jsonObjectGetString(obj.get(), "i"), "-7");  // JSON text of a non-string

    kep::JsonPtr out(jsonObjectNewObject());
    EXPECT_EQ(jsonObjectAddIntByStr(out.get(), "a", "-12"), 0);
    EXPECT_EQ(jsonObjectAddIntByStr(out.get(), "max", "2147483647"), 0);
    EXPECT_EQ(jsonObjectAddIntByStr(out.get(), "min", "-2147483648"), 0);
    for (const char *bad : {"", " 1", "1x", "0x10", "99999999999", "1 ", "2147483648", "-2147483649"}) {
        EXPECT_NE(jsonObjectAddIntByStr(out.get(), "b", bad), 0) << bad;
    }
    EXPECT_EQ(text(out.get()), "{\"a\":-12,\"max\":2147483647,\"min\":-2147483648}");
}

namespace {

void collect(int mid, const char *line, void *user) {
    static_cast<std::vector<std::string> *>(user)->push_back(std::to_string(mid) + ":" + line);
}

}  // namespace

TEST(DebugLog, FlagsAndSink) {
    std::vector<std::string> lines;
    debugSetSink(collect, &lines);
    debugFlagSet(-1, 1);
    debugFlagSet(111, 0);
    EXPECT_EQ(debugFlagGet(110) * 100 + debugFlagGet(111) * 10 + debugFlagGet(3), 101);
    debugFlagSet(-1, 0);
    debugFlagSet(111, 1);
    EXPECT_EQ(debugFlagGet(110) * 10 + debugFlagGet(111), 1);
    debugPrintf(111, "x=%d\r\n", 4);
    debugFlagSet(-1, 0);
    debugSetSink(nullptr, nullptr);
    EXPECT_EQ(lines, std::vector<std::string>{"111:x=4\r\n"});
}
