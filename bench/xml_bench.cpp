// The pooled XML parser on a model description of 850 elements (the most one
// description may hold), against Mini-XML's mxmlLoadString on the same text, and
// fdXmlParse on the same file with the share of its time spent in the kernel.
// A description of 90 elements, which the first pool (100 elements) holds, shows
// the parser without its retries: a larger one is parsed again from the start with
// each larger pool, six times for 850 elements.
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

double seconds(const timeval &tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6; }

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
BENCHMARK_CAPTURE(BM_Mxml, default, MXML_NO_CALLBACK)->Name("xml/mxmlLoadString_no_callback")->ArgName("elements")->Arg(850)->Arg(90);
BENCHMARK_CAPTURE(BM_Mxml, opaque, MXML_OPAQUE_CALLBACK)->Name("xml/mxmlLoadString_opaque")->ArgName("elements")->Arg(850)->Arg(90);
#endif

}  // namespace

BENCHMARK_MAIN();
