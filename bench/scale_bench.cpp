// How the cost of requests and stores grows with the tree and the file.
//
//   scale/request/*   get of a list entry by name, edit by list-section name, add,
//                     with 10/100/1000 list sections in the table (one module) and
//                     with 10/100/500 modules (10 sections each, the last one asked).
//                     The owner's callbacks are registered in this process, so the
//                     figures are the library's own work without the socket.
//   scale/doc_floor   json-c alone parsing and serialising a module document of that
//                     many sections in memory: the size-bound reference.
//   scale/store/*     modelWrite updating or adding a list section in a module file of
//                     10/100/1000 sections (whole-file rewrite, atomic store; the document
//                     kept from the first write, before the timing), on disk
//                     (with the flush) and on tmpfs (where the flush costs nothing),
//                     against json-c reading and writing that file with and without
//                     fsync.
//   scale/kept/*      the owner's process keeping the module's parsed file: every
//                     section of a list table read one by one with modelRead, and one
//                     list section added with modelWrite, at 100/1000/10000 sections on
//                     disk; scale/doc_floor at the same sizes is their reference.
//   scale/kept_memory resident memory of a process holding a file of 50,000 sections
//                     (a fresh process each, started from this program), against the
//                     file's size, beside json-c alone holding the same file.
#include <json-c/json.h>
#include <malloc.h>
#include <sys/stat.h>
#include <time.h>

#include "bench_support.h"
#include "kepHandle.h"
#include "kep_platform.h"
#include "tree/tree_internal.h"

namespace {

// ---- trees ----

std::string moduleName(int i) {
    return "m" + std::to_string(i);
}

// Merges modules [from, to) with one list table t each, in descriptions that stay
// under the parser's element limit. configDir: the modules get a configuration file.
bool mergeModules(int from, int to, const std::string &configDir) {
    for (int start = from; start < to; start += 200) {
        std::string xml = "<model>";
        for (int i = start; i < to && i < start + 200; i++) {
            xml += "<module name=\"" + moduleName(i) + "\">";
            if (!configDir.empty()) xml += "<config name=\"" + configDir + "/" + moduleName(i) + ".json\"/>";
            xml += "<table name=\"t\" attribute=\"config\"/></module>";
        }
        xml += "</model>";
        XmlNode **doc = strXmlParse(xml.c_str(), 1);
        bool ok = doc && registerDataModel(*doc) == 0;
        if (doc) mxmlTreeDelete(doc);
        if (!ok) return false;
    }
    return true;
}

// {"t":[{"t_1":{...}}, ...]} with n sections of 5 string options.
json_object *sectionValue(int i) {
    json_object *v = json_object_new_object();
    std::string k = std::to_string(i);
    json_object_object_add(v, "name", json_object_new_string(("host-" + k).c_str()));
    json_object_object_add(
        v, "ip",
        json_object_new_string(("10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250)).c_str()));
    json_object_object_add(v, "mac", json_object_new_string("02:00:00:00:00:01"));
    json_object_object_add(v, "note", json_object_new_string("benchmark entry"));
    json_object_object_add(v, "mode", json_object_new_string("static"));
    return v;
}

json_object *listArray(int sections) {
    json_object *arr = json_object_new_array();
    for (int i = 1; i <= sections; i++) {
        json_object *e = json_object_new_object();
        json_object_object_add(e, ("t_" + std::to_string(i)).c_str(), sectionValue(i));
        json_object_array_add(arr, e);
    }
    return arr;
}

json_object *moduleDocument(int sections) {
    json_object *doc = json_object_new_object();
    json_object_object_add(doc, "t", listArray(sections));
    return doc;
}

// ---- the in-process owner ----

int answerSection(QxRpcPara *set, void *) {
    qxrpcAddInt(set, "errorCode", 0);
    qxrpcAddStringPtr(
        set, "result",
        R"({"name":"host-1","ip":"10.0.0.1","mac":"02:00:00:00:00:01","note":"n","mode":"static"})");
    return 0;
}

int answerOk(QxRpcPara *set, void *) {
    qxrpcAddInt(set, "errorCode", 0);
    return 0;
}

int answerAdded(QxRpcPara *set, void *) {
    qxrpcAddInt(set, "errorCode", 0);
    qxrpcAddStringPtr(set, "result", "\"t_new\"");
    return 0;
}

// A fresh tree of `modules` modules, each with list table t of `sections` section
// nodes served by this process's callbacks.
bool buildRequestTree(int modules, int sections) {
    kep::resetTreeForTest();
    if (!mergeModules(0, modules, "")) return false;
    json_object *arr = listArray(sections);
    int pid = getpid();
    bool ok = qxImiRegister("get", answerSection, nullptr) == 0 &&
              qxImiRegister("set", answerOk, nullptr) == 0 && qxImiRegister("add", answerAdded, nullptr) == 0;
    for (int i = 0; ok && i < modules; i++) {
        std::string path = "/" + moduleName(i) + "/t";
        ok = loadTableListConfig(getTableByFullName(path.c_str()), arr) == 0 &&
             registerMethodCb(path.c_str(), KEP_METHOD_GET, "get", pid) == 0 &&
             registerMethodCb(path.c_str(), KEP_METHOD_SET, "set", pid) == 0 &&
             registerMethodCb(path.c_str(), KEP_METHOD_ADD, "add", pid) == 0;
    }
    json_object_put(arr);
    return ok;
}

enum Op { kGet, kEdit, kAdd };

void BM_Request(benchmark::State &state, Op op) {
    const int modules = static_cast<int>(state.range(0)), sections = static_cast<int>(state.range(1));
    if (!buildRequestTree(modules, sections)) return state.SkipWithError("tree setup failed");
    // The last module and its last section: the far end of every list walked.
    const std::string m = moduleName(modules - 1), s = "t_" + std::to_string(sections);
    std::string request;
    // A section node answers a get by name with its own get slot, which list entries
    // do not have: the get asks for an entry without a node, which walks every node
    // of the module before falling back to the list table's callback.
    if (op == kGet) {
        request = R"({"method":"get",")" + m + R"(":{"name":"t_)" + std::to_string(sections + 1) + R"("}})";
    }
    if (op == kEdit) request = R"({"method":"set",")" + m + R"(":{")" + s + R"(":{"ip":"10.9.9.9"}}})";
    if (op == kAdd) request = R"({"method":"add",")" + m + R"(":{"table":"t","para":{"ip":"10.9.9.9"}}})";
    for (auto _ : state) {
        char *out = nullptr;
        int rc = standardKepReqHandle(request.c_str(), &out);
        bool ok = rc == 0 && out && strstr(out, "\"error_code\":0");
        if (!ok) fprintf(stderr, "%s -> %d %s\n", request.c_str(), rc, out ? out : "(null)");
        free(out);
        if (!ok) {
            state.SkipWithError("request failed");
            break;
        }
    }
    kep::resetTreeForTest();
}

void requestArgs(benchmark::internal::Benchmark *b) {
    for (int n : {10, 100, 1000}) b->Args({1, n});
    for (int n : {10, 100, 500}) b->Args({n, 10});
    b->ArgNames({"modules", "sections"});
}

BENCHMARK_CAPTURE(BM_Request, get, kGet)->Name("scale/request/get_section")->Apply(requestArgs);
BENCHMARK_CAPTURE(BM_Request, edit, kEdit)->Name("scale/request/edit_section")->Apply(requestArgs);
BENCHMARK_CAPTURE(BM_Request, add, kAdd)->Name("scale/request/add_section")->Apply(requestArgs);

// json-c alone: parse and serialise the module document of that many sections.
void BM_DocFloor(benchmark::State &state) {
    json_object *doc = moduleDocument(static_cast<int>(state.range(0)));
    std::string text = json_object_to_json_string_ext(doc, JSON_C_TO_STRING_PLAIN);
    json_object_put(doc);
    for (auto _ : state) {
        json_object *parsed = json_tokener_parse(text.c_str());
        benchmark::DoNotOptimize(json_object_to_json_string_ext(parsed, JSON_C_TO_STRING_PLAIN));
        json_object_put(parsed);
    }
    state.counters["doc_bytes"] = static_cast<double>(text.size());
}
BENCHMARK(BM_DocFloor)
    ->Name("scale/doc_floor")
    ->ArgName("sections")
    ->Arg(10)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000);

// json-c alone serialising it: the part of a store that grows with the document.
void BM_SerialiseFloor(benchmark::State &state) {
    json_object *doc = moduleDocument(static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(json_object_to_json_string_ext(doc, JSON_C_TO_STRING_PLAIN));
    json_object_put(doc);
}
BENCHMARK(BM_SerialiseFloor)
    ->Name("scale/doc_floor_serialise")
    ->ArgName("sections")
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000);

// ---- stores ----

struct Rec {
    char name[32], ip[16], mac[18], note[32], mode[16];
};

int recToJson(const char *, json_object **value, const void *record, int size) {
    if (size != static_cast<int>(sizeof(Rec))) return -1;
    const Rec *r = static_cast<const Rec *>(record);
    json_object *v = json_object_new_object();
    json_object_object_add(v, "name", json_object_new_string(r->name));
    json_object_object_add(v, "ip", json_object_new_string(r->ip));
    json_object_object_add(v, "mac", json_object_new_string(r->mac));
    json_object_object_add(v, "note", json_object_new_string(r->note));
    json_object_object_add(v, "mode", json_object_new_string(r->mode));
    *value = v;
    return 0;
}

int recFromJson(const char *, json_object *value, void *buf, int size) {
    if (size < static_cast<int>(sizeof(Rec))) return -1;
    Rec r{};
    auto copy = [value](const char *key, char *field, size_t room) {
        json_object *v = nullptr;
        if (!json_object_object_get_ex(value, key, &v)) return false;
        snprintf(field, room, "%s", json_object_get_string(v));
        return true;
    };
    if (!copy("name", r.name, sizeof r.name) || !copy("ip", r.ip, sizeof r.ip) ||
        !copy("mac", r.mac, sizeof r.mac) || !copy("note", r.note, sizeof r.note) ||
        !copy("mode", r.mode, sizeof r.mode))
        return -1;
    memcpy(buf, &r, sizeof r);
    return sizeof r;
}

const Rec kRec = {"host-new", "10.9.9.9", "02:00:00:00:09:09", "added by the benchmark", "static"};

enum Where { kDisk, kTmpfs };

// A module m0 whose file holds table t with `sections` entries, and their nodes.
bool buildStoreTree(const std::string &dir, int sections) {
    kep::resetTreeForTest();
    json_object *doc = moduleDocument(sections);
    bool ok = json_object_to_file_ext((dir + "/m0.json").c_str(), doc, JSON_C_TO_STRING_PLAIN) == 0 &&
              mergeModules(0, 1, dir);
    OprInterface opr{};
    opr.binToJson.config = recToJson;
    opr.jsonToBin.config = recFromJson;
    ok = ok && regOprInterface("/m0/t", &opr) == 0 &&
         loadTableListConfig(getTableByFullName("/m0/t"), json_object_object_get(doc, "t")) == 0;
    json_object_put(doc);
    return ok;
}

const char *base(Where where) {
    return where == kDisk ? "/tmp" : "/dev/shm";
}

void BM_Store(benchmark::State &state, Where where, bool add) {
    const int sections = static_cast<int>(state.range(0));
    std::string dir = kep_bench::makeTempDir(base(where));
    if (dir.empty() || !buildStoreTree(dir, sections)) return state.SkipWithError("store setup failed");
    const std::string updated = "/m0/t/t_" + std::to_string(sections / 2);
    // The owner's process keeps the document: the first write, before the timing,
    // reads the file just written, later ones only the file's identity.
    const bool warm =
        add ? modelWrite("/m0/t/t_new", &kRec, sizeof kRec) == 0 && modelWrite("/m0/t/t_new", nullptr, 0) == 0
            : modelWrite(updated.c_str(), &kRec, sizeof kRec) == 0;
    if (!warm) return state.SkipWithError("first write failed");
    for (auto _ : state) {
        if (add) {
            if (modelWrite("/m0/t/t_new", &kRec, sizeof kRec) != 0) {
                state.SkipWithError("add failed");
                break;
            }
            state.PauseTiming();
            bool gone = modelWrite("/m0/t/t_new", nullptr, 0) == 0;
            state.ResumeTiming();
            if (!gone) {
                state.SkipWithError("delete failed");
                break;
            }
        } else if (modelWrite(updated.c_str(), &kRec, sizeof kRec) != 0) {
            state.SkipWithError("update failed");
            break;
        }
    }
    struct stat st;
    if (stat((dir + "/m0.json").c_str(), &st) == 0)
        state.counters["file_bytes"] = static_cast<double>(st.st_size);
    kep::resetTreeForTest();
    kep_bench::removeTree(dir);
}

// json-c alone: read the file in one call, parse it, serialise it, write a
// temporary file (flushed or not), rename it over the old one (and flush the folder
// when flushing).
void BM_FileFloor(benchmark::State &state, Where where, bool flush) {
    const int sections = static_cast<int>(state.range(0));
    std::string dir = kep_bench::makeTempDir(base(where));
    std::string path = dir + "/m0.json", tmp = path + ".tmp";
    json_object *doc = moduleDocument(sections);
    bool ok = !dir.empty() && json_object_to_file_ext(path.c_str(), doc, JSON_C_TO_STRING_PLAIN) == 0;
    json_object_put(doc);
    if (!ok) return state.SkipWithError("floor setup failed");
    std::string buf;
    for (auto _ : state) {
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st;
        ok = fd >= 0 && fstat(fd, &st) == 0;
        buf.resize(ok ? static_cast<size_t>(st.st_size) : 0);
        ok = ok && read(fd, &buf[0], buf.size()) == static_cast<ssize_t>(buf.size());
        if (fd >= 0) close(fd);
        json_object *doc = ok ? json_tokener_parse(buf.c_str()) : nullptr;
        const char *text = json_object_to_json_string_ext(doc, JSON_C_TO_STRING_PLAIN);
        fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        size_t len = strlen(text);
        ok =
            doc && fd >= 0 && write(fd, text, len) == static_cast<ssize_t>(len) && (!flush || fsync(fd) == 0);
        if (fd >= 0) close(fd);
        json_object_put(doc);
        ok = ok && rename(tmp.c_str(), path.c_str()) == 0;
        if (ok && flush) {
            int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            if (dfd >= 0) {
                fsync(dfd);
                close(dfd);
            }
        }
        if (!ok) {
            state.SkipWithError("floor write failed");
            break;
        }
    }
    kep_bench::removeTree(dir);
}

void storeArgs(benchmark::internal::Benchmark *b) {
    b->ArgName("sections")->Arg(10)->Arg(100)->Arg(1000);
}

// A flush to disk takes milliseconds: fewer and shorter runs keep the whole report
// within minutes, and each still holds dozens of stores.
void diskArgs(benchmark::internal::Benchmark *b) {
    storeArgs(b);
    b->MinTime(0.1)->Repetitions(3);
}

BENCHMARK_CAPTURE(BM_Store, disk_update, kDisk, false)->Name("scale/store/update_disk")->Apply(diskArgs);
BENCHMARK_CAPTURE(BM_Store, disk_add, kDisk, true)->Name("scale/store/add_disk")->Apply(diskArgs);
BENCHMARK_CAPTURE(BM_Store, tmpfs_update, kTmpfs, false)->Name("scale/store/update_tmpfs")->Apply(storeArgs);
BENCHMARK_CAPTURE(BM_Store, tmpfs_add, kTmpfs, true)->Name("scale/store/add_tmpfs")->Apply(storeArgs);
BENCHMARK_CAPTURE(BM_FileFloor, disk_fsync, kDisk, true)
    ->Name("scale/file_floor/disk_fsync")
    ->Apply(diskArgs);
BENCHMARK_CAPTURE(BM_FileFloor, disk_nofsync, kDisk, false)
    ->Name("scale/file_floor/disk_nofsync")
    ->Apply(diskArgs);
BENCHMARK_CAPTURE(BM_FileFloor, tmpfs, kTmpfs, false)->Name("scale/file_floor/tmpfs")->Apply(storeArgs);

// ---- the kept document ----

// Sets the file's times a minute back: a file written long before, as an owner's file
// is when it reads it. One written just now is read again by every operation until
// it is older than a clock tick or two (the store cannot tell it from a file changed
// again within the same tick).
void age(const std::string &path) {
    struct timespec past[2];
    clock_gettime(CLOCK_REALTIME, &past[0]);
    past[0].tv_sec -= 60;
    past[1] = past[0];
    utimensat(AT_FDCWD, path.c_str(), past, 0);
}

// Every section t_1 .. t_n read one by one, as an owner answering a get of the table
// does, from the kept document: the first read, before the timing, parses the file
// (what scale/doc_floor's parse costs) and builds the indexes.
void BM_ReadAll(benchmark::State &state) {
    const int sections = static_cast<int>(state.range(0));
    std::string dir = kep_bench::makeTempDir(base(kDisk));
    if (dir.empty() || !buildStoreTree(dir, sections)) return state.SkipWithError("setup failed");
    age(dir + "/m0.json");
    std::vector<std::string> paths;
    for (int i = 1; i <= sections; i++) paths.push_back("/m0/t/t_" + std::to_string(i));
    Rec r;
    if (modelRead(paths.back().c_str(), &r, sizeof r) != static_cast<int>(sizeof r))
        return state.SkipWithError("first read failed");
    for (auto _ : state) {
        for (const std::string &path : paths) {
            if (modelRead(path.c_str(), &r, sizeof r) != static_cast<int>(sizeof r)) {
                state.SkipWithError("read failed");
                break;
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * sections);
    kep::resetTreeForTest();
    kep_bench::removeTree(dir);
}
BENCHMARK(BM_ReadAll)
    ->Name("scale/kept/read_all_disk")
    ->ArgName("sections")
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->MinTime(0.2)
    ->Repetitions(3);

// One list section added (and removed again outside the timing) on disk: the document
// stays kept across the stores.
BENCHMARK_CAPTURE(BM_Store, kept_add, kDisk, true)
    ->Name("scale/kept/add_disk")
    ->ArgName("sections")
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->MinTime(0.1)
    ->Repetitions(3);

// Resident memory, in a process of its own started from this program with
// "--resident HOW DIR SECTIONS": "kept" holds the module's document in the store (its
// last section read through modelRead, which also builds the table's index), "jsonc"
// the same file parsed by json-c alone. Prints the growth of the resident set.
long residentBytes() {
    long pages = 0, resident = 0;
    FILE *f = fopen("/proc/self/statm", "r");
    if (!f) return -1;
    const bool ok = fscanf(f, "%ld %ld", &pages, &resident) == 2;
    fclose(f);
    return ok ? resident * sysconf(_SC_PAGESIZE) : -1;
}

int measureResident(const std::string &how, const std::string &dir, int sections) {
    const std::string last = "t_" + std::to_string(sections);
    OprInterface opr{};
    opr.jsonToBin.config = recFromJson;
    // The tree with its section nodes comes before: its size is not the store's.
    const bool kept = how == "kept";
    if (kept) {
        json_object *doc = json_object_from_file((dir + "/m0.json").c_str());
        const bool ok =
            doc && mergeModules(0, 1, dir) && regOprInterface("/m0/t", &opr) == 0 &&
            loadTableListConfig(getTableByFullName("/m0/t"), json_object_object_get(doc, "t")) == 0;
        json_object_put(doc);
        if (!ok) return 1;
    }
    malloc_trim(0);
    const long before = residentBytes();
    json_object *held = nullptr;
    Rec r;
    if (kept && modelRead(("/m0/t/" + last).c_str(), &r, sizeof r) != static_cast<int>(sizeof r)) return 1;
    if (!kept && !(held = json_object_from_file((dir + "/m0.json").c_str()))) return 1;
    printf("%ld\n", residentBytes() - before);
    json_object_put(held);
    return 0;
}

// Runs measureResident in a fresh process; the bytes it printed, or -1.
double residentOf(const char *how, const std::string &dir, int sections) {
    const std::string cmd = "/proc/" + std::to_string(getpid()) + "/exe --resident " + how + " '" + dir +
                            "' " + std::to_string(sections);
    FILE *p = popen(cmd.c_str(), "r");
    long bytes = -1;
    if (!p) return -1;
    if (fscanf(p, "%ld", &bytes) != 1) bytes = -1;
    return pclose(p) == 0 ? static_cast<double>(bytes) : -1;
}

void BM_KeptMemory(benchmark::State &state) {
    const int sections = static_cast<int>(state.range(0));
    std::string dir = kep_bench::makeTempDir(base(kDisk));
    const std::string file = dir + "/m0.json";
    json_object *doc = moduleDocument(sections);
    const bool ok = !dir.empty() && json_object_to_file_ext(file.c_str(), doc, JSON_C_TO_STRING_PLAIN) == 0;
    json_object_put(doc);
    if (!ok) return state.SkipWithError("setup failed");
    age(file);
    double kept = -1, jsonc = -1;
    for (auto _ : state) {
        kept = residentOf("kept", dir, sections);
        jsonc = residentOf("jsonc", dir, sections);
    }
    struct stat st;
    const double bytes = stat(file.c_str(), &st) == 0 ? static_cast<double>(st.st_size) : 0;
    if (kept < 0 || jsonc < 0 || bytes <= 0) state.SkipWithError("measuring failed");
    state.counters["file_bytes"] = bytes;
    state.counters["kept_rss_bytes"] = kept;
    state.counters["jsonc_rss_bytes"] = jsonc;
    state.counters["kept_per_file_byte"] = bytes > 0 ? kept / bytes : 0;
    state.counters["jsonc_per_file_byte"] = bytes > 0 ? jsonc / bytes : 0;
    kep_bench::removeTree(dir);
}
BENCHMARK(BM_KeptMemory)->Name("scale/kept_memory")->ArgName("sections")->Arg(50000)->Iterations(1);

}  // namespace

int main(int argc, char **argv) {
    if (argc == 5 && strcmp(argv[1], "--resident") == 0)
        return measureResident(argv[2], argv[3], atoi(argv[4]));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
