// Change sets through the host: kepd with the example owners of three modules (dhcpd
// with a list table of 1,000 static leases, sysd, ntpd), files on disk (/tmp here).
//
// The change set sets one lease of the large table, the DHCP pool, the time zone and
// the NTP settings, a section each:
//   changeset/plain   the four requests sent one by one through the host, no change set
//   changeset/apply   the same as one change set: the host reads the four places and
//                     keeps them in its record (written and flushed), then applies
//   changeset/undone  the same with a fifth request the owner refuses: applied, then
//                     every module put back
//   changeset/floor   the tables the change set names, read and written once through
//                     the host: a get of each whole table, and one write to each
// The snapshot costs apply - plain, the rollback undone - apply; the target is that the
// two together cost at most what the floor does.
#include <sys/stat.h>

#include <string>

#include "bench_support.h"
#include "kep_host.h"

namespace {

class System {
public:
    explicit System(int leases) {
        dir_ = kep_bench::makeTempDir("/tmp");
        if (dir_.empty()) return;
        setenv("KEP_RUNTIME_DIR", (dir_ + "/run").c_str(), 1);
        const struct {
            const char *example, *program;
        } owners[] = {{"dhcpd/dhcp", DHCPD_PATH}, {"sysd/system", SYSD_PATH}, {"ntpd/ntp", NTPD_PATH}};
        std::vector<std::string> models;
        for (const auto &o : owners) {
            const std::string model = kep_bench::exampleModel(o.example, dir_);
            models.push_back(dir_ + "/" + std::string(strchr(o.example, '/') + 1) + ".xml");
            if (!kep_bench::writeFile(models.back(), model)) return;
        }
        if (!kep_bench::writeFile(dir_ + "/dhcp.json", kep_bench::dhcpFile(leases))) return;
        const std::string log = dir_ + "/log";
        for (size_t i = 0; i < 3; i++) {
            const std::string program = owners[i].program, model = models[i];
            if (!owners_[i].start([] { return true; },
                                  [program, model, log] {
                                      kep_bench::redirect(log);
                                      execl(program.c_str(), program.c_str(), model.c_str(),
                                            static_cast<char *>(nullptr));
                                      _exit(127);
                                  }))
                return;
        }
        ok_ = host_.start([] { return true; },
                          [models, log] {
                              kep_bench::redirect(log);
                              execl(KEPD_PATH, "kepd", "-m", models[0].c_str(), "-m", models[1].c_str(), "-m",
                                    models[2].c_str(), static_cast<char *>(nullptr));
                              _exit(127);
                          }) &&
              waitServed();
    }
    ~System() {
        host_.stop();
        for (auto &o : owners_) o.stop();
        kep_bench::removeTree(dir_);
    }
    bool ok() const { return ok_; }

    static std::string request(const std::string &text) {
        char *out = nullptr;
        std::string s = kepHostRequest(text.c_str(), &out) == 0 && out ? out : "";
        free(out);
        return s;
    }
    static std::string apply(const std::string &changes) {
        char *out = nullptr;
        std::string s = kepHostApply(nullptr, changes.c_str(), 0, &out) == 0 && out ? out : "";
        free(out);
        return s;
    }

private:
    bool waitServed() {
        for (int i = 0; i < 3000; i++) {
            if (request(R"({"method":"get","ntp":{"name":"main"},"system":{"name":"zone"}})")
                        .find("\"error_code\":0") != std::string::npos &&
                request(R"({"method":"get","dhcp":{"name":"lan"}})").find("\"error_code\":0") !=
                    std::string::npos)
                return true;
            usleep(10000);
        }
        return false;
    }

    std::string dir_;
    kep_bench::Child owners_[3], host_;
    bool ok_ = false;
};

constexpr int kLeases = 1000;

System &shared() {
    static System s(kLeases);
    return s;
}

// The four requests, with values that change every time (v), so that each is a write.
std::vector<std::string> requests(int v) {
    const std::string n = std::to_string(v);
    return {R"({"method":"set","dhcp":{"host_500":{"hostname":"lease-)" + n + R"("}}})",
            R"({"method":"set","dhcp":{"lan":{"leaseMinutes":)" + std::to_string(600 + v % 600) + "}}}",
            R"({"method":"set","system":{"zone":{"name":"zone-)" + n + R"("}}})",
            R"({"method":"set","ntp":{"main":{"zone":"zone-)" + n + R"("}}})"};
}

std::string changeSet(int v, bool failing) {
    std::string out = "[";
    for (const std::string &r : requests(v)) out += (out.size() > 1 ? "," : "") + r;
    if (failing) out += R"(,{"method":"set","ntp":{"main":{"intervalMinutes":"often"}}})";
    return out + "]";
}

bool ok(const std::string &response) {
    return response.find("\"error_code\":0") != std::string::npos;
}

void BM_Plain(benchmark::State &state) {
    if (!shared().ok()) return state.SkipWithError("the system did not start");
    int v = 0;
    for (auto _ : state) {
        for (const std::string &r : requests(++v))
            if (!ok(System::request(r))) return state.SkipWithError("a request failed");
    }
}

void BM_Apply(benchmark::State &state) {
    if (!shared().ok()) return state.SkipWithError("the system did not start");
    int v = 100000;
    for (auto _ : state) {
        const std::string a = System::apply(changeSet(++v, false));
        if (a.compare(0, 15, "{\"error_code\":0") != 0) return state.SkipWithError(("apply: " + a).c_str());
    }
}

void BM_Undone(benchmark::State &state) {
    if (!shared().ok()) return state.SkipWithError("the system did not start");
    int v = 200000;
    for (auto _ : state) {
        const std::string a = System::apply(changeSet(++v, true));
        if (a.find("\"failed\":4") == std::string::npos || a.find("not restored") != std::string::npos)
            return state.SkipWithError(("undo: " + a).c_str());
    }
}

void BM_Floor(benchmark::State &state) {
    if (!shared().ok()) return state.SkipWithError("the system did not start");
    const char *const reads[] = {
        R"({"method":"get","dhcp":{"table":"host"}})", R"({"method":"get","dhcp":{"table":"pool"}})",
        R"({"method":"get","system":{"table":"time"}})", R"({"method":"get","ntp":{"table":"settings"}})"};
    int v = 300000;
    for (auto _ : state) {
        for (const char *r : reads)
            if (!ok(System::request(r))) return state.SkipWithError("a read failed");
        for (const std::string &r : requests(++v))
            if (!ok(System::request(r))) return state.SkipWithError("a write failed");
    }
}

BENCHMARK(BM_Plain)->Name("changeset/plain")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_Apply)->Name("changeset/apply")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_Undone)->Name("changeset/undone")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_Floor)->Name("changeset/floor")->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
