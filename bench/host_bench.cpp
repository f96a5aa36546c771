// The whole system at scale: the host daemon (kepd) and the example owner of the dhcp
// module (dhcpd), as shipped, with a list table of n static leases in its file.
//
//   host/get_table/sections:N   a get of the whole list table through the host
//   host/add/sections:N         one add through the host (the owner checks the new
//                               entry against every other and rewrites its file);
//                               the entry is deleted again outside the timing
//   host/memory/sections:N      no timing: the owner's and the host's resident memory
//                               after a get of the whole table, against the file's size
//   host/monitor/watchers:W     a get of a 3-lease table through the host, with nobody
//                               watching its traffic (0), with kepctl monitor reading
//                               every line (1), and with a watcher that is stopped and
//                               loses its lines (2)
//
// The files live on disk (/tmp here), where the store's flush is real, as on a device.
#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>

#include "bench_support.h"
#include "kep_host.h"
#include "kep_pf_rpc.h"

namespace {

// One owner and one host serving a dhcp file of n leases, for as long as it lives.
class System {
public:
    explicit System(int n) {
        dir_ = kep_bench::makeTempDir("/tmp");
        if (dir_.empty()) return;
        setenv("KEP_RUNTIME_DIR", (dir_ + "/run").c_str(), 1);
        const std::string model = kep_bench::exampleModel("dhcpd/dhcp", dir_);
        if (!kep_bench::writeFile(dir_ + "/dhcp.xml", model) ||
            !kep_bench::writeFile(dir_ + "/dhcp.json", kep_bench::dhcpFile(n)))
            return;
        const std::string xml = dir_ + "/dhcp.xml", log = dir_ + "/log";
        ok_ = owner_.start([] { return true; },
                           [xml, log] {
                               kep_bench::redirect(log);
                               execl(DHCPD_PATH, "dhcpd", xml.c_str(), static_cast<char *>(nullptr));
                               _exit(127);
                           }) &&
              host_.start([] { return true; },
                          [xml, log] {
                              kep_bench::redirect(log);
                              execl(KEPD_PATH, "kepd", "-m", xml.c_str(), static_cast<char *>(nullptr));
                              _exit(127);
                          }) &&
              waitServed();
    }
    ~System() {
        host_.stop();
        owner_.stop();
        kep_bench::removeTree(dir_);
    }
    bool ok() const { return ok_; }
    pid_t owner() const { return owner_.pid(); }
    pid_t host() const { return host_.pid(); }
    long fileBytes() const {
        struct stat st;
        return stat((dir_ + "/dhcp.json").c_str(), &st) == 0 ? static_cast<long>(st.st_size) : 0;
    }

    // The response text, or an empty one when the request failed.
    static std::string request(const char *text) {
        char *out = nullptr;
        std::string s = kepHostRequest(text, &out) == 0 && out ? out : "";
        free(out);
        return s;
    }

private:
    bool waitServed() {
        for (int i = 0; i < 3000; i++) {
            char *dump = nullptr;
            bool registered = kepHostFetch("kepd.dump", &dump) == 0 && strstr(dump, "/dhcp/restart:do");
            free(dump);
            if (registered) return true;
            usleep(10000);
        }
        return false;
    }

    std::string dir_;
    kep_bench::Child owner_, host_;
    bool ok_ = false;
};

const char kGet[] = R"({"method":"get","dhcp":{"table":"host"}})";

void BM_GetTable(benchmark::State &state) {
    System sys(static_cast<int>(state.range(0)));
    if (!sys.ok()) return state.SkipWithError("the system did not start");
    for (auto _ : state) {
        if (System::request(kGet).find("\"error_code\":0") == std::string::npos) {
            state.SkipWithError("the get failed");
            break;
        }
    }
    state.counters["file_bytes"] = static_cast<double>(sys.fileBytes());
}

void BM_Add(benchmark::State &state) {
    System sys(static_cast<int>(state.range(0)));
    if (!sys.ok()) return state.SkipWithError("the system did not start");
    const char add[] =
        R"({"method":"add","dhcp":{"table":"host","name":"host_999999","para":{"mac":"02:ff:00:00:00:01","ip":"172.16.0.1","hostname":"new"}}})";
    const char del[] = R"({"method":"delete","dhcp":{"name":"host_999999"}})";
    for (auto _ : state) {
        int64_t t0 = kep_bench::nowNs();
        const bool added = System::request(add).find("\"error_code\":0") != std::string::npos;
        state.SetIterationTime(static_cast<double>(kep_bench::nowNs() - t0) / 1e9);
        if (!added || System::request(del).find("\"error_code\":0") == std::string::npos) {
            state.SkipWithError("the add or the delete failed");
            break;
        }
    }
    state.counters["file_bytes"] = static_cast<double>(sys.fileBytes());
}

// VmRSS and VmHWM of a process, in bytes.
void memoryOf(pid_t pid, double *rss, double *hwm) {
    std::istringstream status(kep_bench::readText("/proc/" + std::to_string(pid) + "/status"));
    std::string line;
    *rss = *hwm = 0;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) *rss = std::stod(line.substr(6)) * 1024;
        if (line.rfind("VmHWM:", 0) == 0) *hwm = std::stod(line.substr(6)) * 1024;
    }
}

void BM_Memory(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    double baseOwner = 0, baseHost = 0, hwm = 0;
    {
        // The same processes with no lease at all: what they take without the file.
        System empty(0);
        if (!empty.ok() || System::request(kGet).empty())
            return state.SkipWithError("the system did not start");
        memoryOf(empty.owner(), &baseOwner, &hwm);
        memoryOf(empty.host(), &baseHost, &hwm);
    }
    System sys(n);
    if (!sys.ok()) return state.SkipWithError("the system did not start");
    for (auto _ : state) {
        if (System::request(kGet).find("\"error_code\":0") == std::string::npos) {
            state.SkipWithError("the get failed");
            break;
        }
    }
    // Both give the memory of large answers back when idle (within a second).
    usleep(1500 * 1000);
    double ownerRss, ownerHwm, hostRss, hostHwm;
    memoryOf(sys.owner(), &ownerRss, &ownerHwm);
    memoryOf(sys.host(), &hostRss, &hostHwm);
    const double bytes = static_cast<double>(sys.fileBytes());
    state.counters["file_bytes"] = bytes;
    state.counters["owner_rss_over_file"] = (ownerRss - baseOwner) / bytes;
    state.counters["owner_peak_over_file"] = (ownerHwm - baseOwner) / bytes;
    state.counters["host_rss_over_file"] = (hostRss - baseHost) / bytes;
    state.counters["host_peak_over_file"] = (hostHwm - baseHost) / bytes;
}

// Latency of the get of a small table, with W watchers as above.
void BM_Monitor(benchmark::State &state) {
    System sys(3);
    if (!sys.ok()) return state.SkipWithError("the system did not start");
    kep_bench::Child watcher;
    const std::string err = "/tmp/kep-bench-monitor-" + std::to_string(getpid()) + ".err";
    if (state.range(0) > 0) {
        unlink(err.c_str());
        const bool started =
            watcher.start([] { return true; },
                          [err] {
                              int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
                              int log = open(err.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
                              if (null < 0 || log < 0) _exit(126);
                              dup2(null, 1);
                              dup2(log, 2);
                              execl(KEPCTL_PATH, "kepctl", "monitor", static_cast<char *>(nullptr));
                              _exit(127);
                          });
        bool watching = false;
        for (int i = 0; started && !watching && i < 1000; i++) {
            watching = kep_bench::readText(err).find("watching") != std::string::npos;
            if (!watching) usleep(10000);
        }
        unlink(err.c_str());
        if (!watching) return state.SkipWithError("kepctl monitor did not start");
        if (state.range(0) == 2) kill(watcher.pid(), SIGSTOP);
    }
    kep_bench::Latencies lat;
    for (auto _ : state) {
        const int64_t t = kep_bench::nowNs();
        if (System::request(kGet).find("\"error_code\":0") == std::string::npos) {
            state.SkipWithError("the get failed");
            break;
        }
        lat.add(kep_bench::nowNs() - t);
    }
    lat.report(state);
    watcher.stop();
}

BENCHMARK(BM_GetTable)
    ->Name("host/get_table")
    ->ArgName("sections")
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Add)
    ->Name("host/add")
    ->ArgName("sections")
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Memory)
    ->Name("host/memory")
    ->ArgName("sections")
    ->Arg(50000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Monitor)->Name("host/monitor")->ArgName("watchers")->Arg(0)->Arg(1)->Arg(2);

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    signal(SIGPIPE, SIG_IGN);
    // A get of 10,000 sections takes the owner longer than the default's margin on a
    // loaded machine; the benchmark measures, it does not test time-outs.
    setenv("KEP_IMI_TIMEOUT_MS", "30000", 1);
    qxImiSetTimeout(60000);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
