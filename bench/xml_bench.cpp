// The pooled XML parser on a model description of 850 elements (the most one
// description may hold), against Mini-XML's mxmlLoadString on the same text, and
// fdXmlParse on the same file with the share of its time spent in the kernel.
// A description of 90 elements, which the first pool (100 elements) holds, shows
// the parser without its retries: a larger one is parsed again from the start with
// each larger pool, six times for 850 elements.
#include <sys/mman.h>
#include <sys/resource.h>

#include "bench_support.h"
#include "kepHandle.h"
#ifdef KEP_HAVE_MXML
#include <mxml.h>
#endif

namespace {

#include <map>

// An indented description of exactly kElements elements: modules with a config
// file, tables of both kinds, named sections and services.
std::string description(int kElements) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<model>\n";
    int count = 1;
    for (int m = 0; count < kElements; m++) {
        std::string mod = "mod" + std::to_string(m);
        xml += "  <module name=\"" + mod + "\">\n";
        count++;
        if (count < kElements) {
            xml += "    <config name=\"/etc/kep/" + mod + ".json\"/>\n";
            count++;
        }
        for (int t = 0; t < 4 && count < kElements; t++) {
            const char *kind = t == 3 ? "dynamic" : "config";
            xml += "    <table name=\"table" + std::to_string(t) + "\" attribute=\"" + kind + "\">\n";
            count++;
            for (int s = 0; s < 3 && count < kElements; s++) {
                xml += "      <section name=\"section" + std::to_string(s) + "\"/>\n";
                count++;
            }
            xml += "    </table>\n";
        }
        if (count < kElements) {
            xml += "    <service name=\"restart\"/>\n";
            count++;
        }
        xml += "  </module>\n";
    }
    return xml + "</model>\n";
}

// The description of n elements, made once.
const std::string &text(int n) {
    static std::map<int, std::string> made;
    auto it = made.find(n);
    if (it == made.end()) it = made.emplace(n, description(n)).first;
    return it->second;
}

int countElements(XmlNode *n) {
    int c = 0;
    for (; n; n = n->next) c += 1 + countElements(n->firstChild);
    return c;
}

long minorFaults() {
    rusage ru;
    getrusage(RUSAGE_THREAD, &ru);
    return ru.ru_minflt;
}

// Page faults per parse: memory the allocator gave back to the kernel and took again.
void reportFaults(benchmark::State &state, long before) {
    state.counters["faults_per_parse"] =
        benchmark::Counter(static_cast<double>(minorFaults() - before), benchmark::Counter::kAvgIterations);
}

void BM_StrXmlParse(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    XmlNode **check = strXmlParse(text(n).c_str(), 1);
    if (!check) return state.SkipWithError("strXmlParse failed");
    state.counters["elements"] = countElements(*check);
    mxmlTreeDelete(check);
    const long faults = minorFaults();
    for (auto _ : state) {
        XmlNode **doc = strXmlParse(text(n).c_str(), 1);
        benchmark::DoNotOptimize(doc);
        mxmlTreeDelete(doc);
    }
    reportFaults(state, faults);
    state.counters["bytes"] = static_cast<double>(text(n).size());
}
BENCHMARK(BM_StrXmlParse)->Name("xml/strXmlParse")->ArgName("elements")->Arg(850)->Arg(90);

int countAttributes(XmlNode *n) {
    int c = 0;
    for (; n; n = n->next) {
        for (XmlAttr *a = n->attrs; a; a = a->next) c++;
        c += countAttributes(n->firstChild);
    }
    return c;
}

// Writes the first bytes of a fresh block as the parser does: faulted in ahead by
// madvise (here in one call, where the parser makes one per 64 KiB), then written.
void writeLikeThePool(void *block, size_t bytes) {
#ifdef MADV_POPULATE_WRITE
    const uintptr_t page = static_cast<uintptr_t>(getpagesize());
    const uintptr_t start = reinterpret_cast<uintptr_t>(block) & ~(page - 1);
    madvise(reinterpret_cast<void *>(start), reinterpret_cast<uintptr_t>(block) + bytes - start,
            MADV_POPULATE_WRITE);
#endif
    memset(block, 0, bytes);
}

// The heap's part of a parse, without the parse: the pool's two blocks for the
// description allocated, the records its document uses written, both freed. With the
// default heap, glibc hands the freed blocks back to the kernel and the next round
// takes them again; the parse loop pays the same.
void BM_PoolBlocksAlone(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    XmlNode **check = strXmlParse(text(n).c_str(), 1);
    if (!check) return state.SkipWithError("strXmlParse failed");
    const size_t nodesUsed = static_cast<size_t>(countElements(*check)) * sizeof(XmlNode);
    const size_t attrsUsed = static_cast<size_t>(countAttributes(*check)) * sizeof(XmlAttr);
    mxmlTreeDelete(check);
    constexpr size_t kRoom = 850;  // the blocks' room for a text of more than 700 start tags
    const long faults = minorFaults();
    for (auto _ : state) {
        void *ctx = malloc(256);
        void *nodes = malloc(kRoom * sizeof(XmlNode));
        void *attrs = malloc(kRoom * 3 * sizeof(XmlAttr));
        if (!ctx || !nodes || !attrs) {
            free(ctx);
            free(nodes);
            free(attrs);
            return state.SkipWithError("out of memory");
        }
        writeLikeThePool(nodes, nodesUsed);
        writeLikeThePool(attrs, attrsUsed);
        benchmark::DoNotOptimize(nodes);
        benchmark::DoNotOptimize(attrs);
        free(nodes);
        free(attrs);
        free(ctx);
    }
    reportFaults(state, faults);
}
BENCHMARK(BM_PoolBlocksAlone)->Name("xml/pool_blocks_alone")->ArgName("elements")->Arg(850);

double seconds(const timeval &tv) {
    return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6;
}

void BM_FdXmlParse(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    std::string dir = kep_bench::makeTempDir("/tmp");
    std::string path = dir + "/model.xml";
    if (dir.empty() || !kep_bench::writeFile(path, text(n))) return state.SkipWithError("setup failed");
    rusage before, after;
    getrusage(RUSAGE_THREAD, &before);
    for (auto _ : state) {
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        XmlNode **doc = fdXmlParse(fd, 1);
        if (fd >= 0) close(fd);
        if (!doc) {
            state.SkipWithError("fdXmlParse failed");
            break;
        }
        mxmlTreeDelete(doc);
    }
    getrusage(RUSAGE_THREAD, &after);
    double user = seconds(after.ru_utime) - seconds(before.ru_utime);
    double sys = seconds(after.ru_stime) - seconds(before.ru_stime);
    state.counters["sys_share"] = user + sys > 0 ? sys / (user + sys) : 0;
    state.counters["file_bytes"] = static_cast<double>(text(n).size());
    kep_bench::removeTree(dir);
}
BENCHMARK(BM_FdXmlParse)->Name("xml/fdXmlParse")->ArgName("elements")->Arg(850)->Arg(90);

#ifdef KEP_HAVE_MXML
// callback: MXML_NO_CALLBACK (text nodes split into words) or MXML_OPAQUE_CALLBACK.
void BM_Mxml(benchmark::State &state, mxml_load_cb_t callback) {
    const int n = static_cast<int>(state.range(0));
    mxml_node_t *check = mxmlLoadString(nullptr, text(n).c_str(), callback);
    if (!check) return state.SkipWithError("mxmlLoadString failed");
    int elements = 0;
    for (mxml_node_t *n = check; n; n = mxmlWalkNext(n, check, MXML_DESCEND)) {
        if (mxmlGetType(n) == MXML_ELEMENT && mxmlGetElement(n)[0] != '?') elements++;
    }
    state.counters["elements"] = elements;
    mxmlDelete(check);
    const long faults = minorFaults();
    for (auto _ : state) {
        mxml_node_t *doc = mxmlLoadString(nullptr, text(n).c_str(), callback);
        benchmark::DoNotOptimize(doc);
        mxmlDelete(doc);
    }
    reportFaults(state, faults);
}
BENCHMARK_CAPTURE(BM_Mxml, default, MXML_NO_CALLBACK)
    ->Name("xml/mxmlLoadString_no_callback")
    ->ArgName("elements")
    ->Arg(850)
    ->Arg(90);
BENCHMARK_CAPTURE(BM_Mxml, opaque, MXML_OPAQUE_CALLBACK)
    ->Name("xml/mxmlLoadString_opaque")
    ->ArgName("elements")
    ->Arg(850)
    ->Arg(90);
#endif

// The parse a process makes of its description at start: the first large parse in a
// new process, whose heap has to be faulted in as it grows. Each iteration runs this
// program again (fresh heap), which warms its code with a small parse, then times one
// parse and release of the description and reports the nanoseconds and page faults.
constexpr char kFirstParseFlag[] = "--kep-first-parse=";

enum class Parser { Kep, Mxml };

void parseOnce(Parser parser, const char *xml) {
    if (parser == Parser::Kep) {
        XmlNode **doc = strXmlParse(xml, 1);
        if (!doc) _exit(2);
        mxmlTreeDelete(doc);
        return;
    }
#ifdef KEP_HAVE_MXML
    mxml_node_t *doc = mxmlLoadString(nullptr, xml, MXML_OPAQUE_CALLBACK);
    if (!doc) _exit(2);
    mxmlDelete(doc);
#endif
}

// The child: argument "kep:850" or "mxml:850"; prints "<ns> <faults>".
int firstParseChild(const char *arg) {
    const Parser parser = strncmp(arg, "kep:", 4) == 0 ? Parser::Kep : Parser::Mxml;
    const std::string &xml = text(atoi(strchr(arg, ':') + 1));
    parseOnce(parser, "<a b=\"c\"><d>e</d></a>");
    const long faults = minorFaults();
    const int64_t start = kep_bench::nowNs();
    parseOnce(parser, xml.c_str());
    const int64_t ns = kep_bench::nowNs() - start;
    printf("%lld %ld\n", static_cast<long long>(ns), minorFaults() - faults);
    return 0;
}

void BM_FirstParse(benchmark::State &state, Parser parser) {
    const std::string arg = std::string(kFirstParseFlag) + (parser == Parser::Kep ? "kep:" : "mxml:") +
                            std::to_string(state.range(0));
    double faults = 0;
    for (auto _ : state) {
        int out[2];
        if (pipe(out) != 0) return state.SkipWithError("pipe failed");
        const pid_t pid = fork();
        if (pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            execl("/proc/self/exe", "kep_bench_xml", arg.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        close(out[1]);
        char line[64] = {0};
        const ssize_t got = pid > 0 ? read(out[0], line, sizeof line - 1) : -1;
        close(out[0]);
        int status = 0;
        if (pid > 0) waitpid(pid, &status, 0);
        long long ns = 0;
        long f = 0;
        if (got <= 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0 ||
            sscanf(line, "%lld %ld", &ns, &f) != 2) {
            return state.SkipWithError("the parsing process failed");
        }
        state.SetIterationTime(static_cast<double>(ns) / 1e9);
        faults += static_cast<double>(f);
    }
    state.counters["faults_per_parse"] = benchmark::Counter(faults, benchmark::Counter::kAvgIterations);
}
BENCHMARK_CAPTURE(BM_FirstParse, kep, Parser::Kep)
    ->Name("xml/first_parse/strXmlParse")
    ->ArgName("elements")
    ->Arg(850)
    ->UseManualTime();
#ifdef KEP_HAVE_MXML
BENCHMARK_CAPTURE(BM_FirstParse, mxml, Parser::Mxml)
    ->Name("xml/first_parse/mxmlLoadString_opaque")
    ->ArgName("elements")
    ->Arg(850)
    ->UseManualTime();
#endif

}  // namespace

int main(int argc, char **argv) {
    if (argc == 2 && strncmp(argv[1], kFirstParseFlag, sizeof kFirstParseFlag - 1) == 0) {
        return firstParseChild(argv[1] + sizeof kFirstParseFlag - 1);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
