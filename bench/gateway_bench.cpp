// The HTTP gateway (kepwebd) in front of the host, against its two references, all in
// one run with one client (libcurl, one kept-alive connection):
//
//   gateway/host_path       the request through the host alone (kepHostRequest), no HTTP
//   gateway/http_floor      libmicrohttpd in a process of its own answering the same
//                           response bytes from memory, configured as the gateway is
//   gateway/through_gateway the same request through kepwebd, which reads from the owner
//                           over the direct route (the host's tree in its own process)
//   gateway/host_then_floor the host path and the floor one after the other: what the two
//                           hops cost together when nothing joins them, caches shared as
//                           the gateway shares them
//   gateway/clients:64      64 kept-alive clients for KEP_GW_SOAK_SECONDS (30): throughput,
//                           p99, errors, the gateway's resident memory at start and end
//   gateway/sessions:1000   the gateway's resident memory before and after 1,000 logins
//   gateway/wrong_logins:1000  a logged-in user's gets, alone and while another client
//                           sends 1,000 wrong logins from the same address
//
// The request is a get of the dhcp module's host table of 3 leases, served by the
// example owner dhcpd as shipped.
#include <crypt.h>
#include <curl/curl.h>
#include <microhttpd.h>
#include <pwd.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "kep_host.h"

namespace {

const char kRequest[] = R"({"method":"get","dhcp":{"table":"host"}})";

long rssKb(pid_t pid) {
    const std::string status = kep_bench::readText("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("VmRSS:");
    return at == std::string::npos ? -1 : atol(status.c_str() + at + 6);
}

size_t collect(char *data, size_t size, size_t n, void *out) {
    static_cast<std::string *>(out)->append(data, size * n);
    return size * n;
}

// One kept-alive HTTP connection.
class Client {
public:
    Client() : curl_(curl_easy_init()) {}
    ~Client() {
        curl_slist_free_all(headers_);
        curl_easy_cleanup(curl_);
    }
    // POSTs body to url; the status, with the answer in *reply.
    long post(const std::string &url, const std::string &body, const std::string &token, std::string *reply) {
        if (token != token_ || !headers_) {
            curl_slist_free_all(headers_);
            headers_ = curl_slist_append(nullptr, "Content-Type: application/json");
            if (!token.empty())
                headers_ = curl_slist_append(headers_, ("Authorization: Bearer " + token).c_str());
            token_ = token;
        }
        reply->clear();
        curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers_);
        curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(curl_, CURLOPT_WRITEDATA, reply);
        curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, 10000L);
        long status = 0;
        if (curl_easy_perform(curl_) == CURLE_OK) curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
        return status;
    }

private:
    CURL *curl_;
    curl_slist *headers_ = nullptr;
    std::string token_;
};

std::string tokenOf(const std::string &reply) {
    const size_t at = reply.find("\"token\":\"");
    return at == std::string::npos ? "" : reply.substr(at + 9, 32);
}

// The floor: libmicrohttpd's own cost for one request and this answer.
std::string gFloorBody;

MHD_Result floorAnswer(void *, MHD_Connection *conn, const char *, const char *, const char *, const char *,
                       size_t *uploadSize, void **state) {
    if (!*state) {
        *state = conn;
        return MHD_YES;
    }
    if (*uploadSize) {
        *uploadSize = 0;
        return MHD_YES;
    }
    MHD_Response *r = MHD_create_response_from_buffer(
        gFloorBody.size(), const_cast<char *>(gFloorBody.data()), MHD_RESPMEM_PERSISTENT);
    // The headers the gateway sends, so that the bytes on the wire are the same.
    MHD_add_response_header(r, "Content-Type", "application/json");
    MHD_add_response_header(r, "Content-Security-Policy", "default-src 'self'");
    MHD_add_response_header(r, "X-Content-Type-Options", "nosniff");
    MHD_add_response_header(r, "X-Frame-Options", "DENY");
    MHD_add_response_header(r, "Referrer-Policy", "no-referrer");
    MHD_add_response_header(r, "Cache-Control", "no-store");
    const MHD_Result rc = MHD_queue_response(conn, 200, r);
    MHD_destroy_response(r);
    return rc;
}

// The host, the dhcp owner, the floor and a gateway, for as long as it lives.
class System {
public:
    explicit System(std::vector<std::string> gatewayArgs) {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        dir_ = kep_bench::makeTempDir("/tmp");
        if (dir_.empty()) return;
        chmod(dir_.c_str(), 0711);
        setenv("KEP_RUNTIME_DIR", (dir_ + "/run").c_str(), 1);
        const std::string model = kep_bench::exampleModel("dhcpd/dhcp", dir_);
        std::string access, group;
        std::vector<std::string> runAs;
        if (geteuid() == 0) {
            // As on the device: the gateway unprivileged, admitted by the host's access rule
            // to requests and by the owner's RPC group to reads.
            const passwd *pw = getpwnam("nobody");
            if (!pw) return;
            group = std::to_string(pw->pw_gid);
            mkdir((dir_ + "/run").c_str(), 0711);
            chmod((dir_ + "/run").c_str(), 0711);
            mkdir((dir_ + "/access.d").c_str(), 0755);
            if (!kep_bench::writeFile(dir_ + "/access.d/web.json",
                                      "{\"group\": " + std::to_string(pw->pw_gid) + ", \"send\": true}"))
                return;
            access = dir_ + "/access.d";
            runAs = {"-U", "nobody"};
        }
        char salt[CRYPT_GENSALT_OUTPUT_SIZE];
        crypt_data data{};
        const char *hash =
            crypt_rn("bench-password", crypt_gensalt_rn("$6$", 1000, nullptr, 0, salt, sizeof salt), &data,
                     sizeof data);
        mkdir((dir_ + "/www").c_str(), 0755);
        if (!hash || !kep_bench::writeFile(dir_ + "/dhcp.xml", model) ||
            !kep_bench::writeFile(dir_ + "/users", std::string("bench:") + hash + ":admin\n") ||
            !kep_bench::writeFile(dir_ + "/rules.json", R"({"admin": {"*": ["read", "write", "exec"]}})"))
            return;
        const std::string xml = dir_ + "/dhcp.xml", log = dir_ + "/log", webLog = dir_ + "/kepwebd.log";
        if (!owner_.start([] { return true; },
                          [xml, log, group] {
                              kep_bench::redirect(log);
                              if (!group.empty()) setenv("KEP_RPC_GROUP", group.c_str(), 1);
                              execl(DHCPD_PATH, "dhcpd", xml.c_str(), static_cast<char *>(nullptr));
                              _exit(127);
                          }) ||
            !host_.start([] { return true; },
                         [xml, log, access] {
                             kep_bench::redirect(log);
                             if (access.empty())
                                 execl(KEPD_PATH, "kepd", "-m", xml.c_str(), static_cast<char *>(nullptr));
                             execl(KEPD_PATH, "kepd", "-m", xml.c_str(), "-a", access.c_str(),
                                   static_cast<char *>(nullptr));
                             _exit(127);
                         }) ||
            kepHostWait(10000) != 0 || !waitServed())
            return;
        gFloorBody = hostGet();
        std::vector<std::string> argv = {
            KEPWEBD_PATH,         "-f", "-l",         "127.0.0.1:0", "-u", dir_ + "/users", "-r",
            dir_ + "/rules.json", "-w", dir_ + "/www"};
        argv.insert(argv.end(), runAs.begin(), runAs.end());
        argv.insert(argv.end(), gatewayArgs.begin(), gatewayArgs.end());
        if (!gateway_.start([] { return true; },
                            [argv, webLog] {
                                kep_bench::redirect(webLog);
                                std::vector<char *> args;
                                for (const std::string &a : argv)
                                    args.push_back(const_cast<char *>(a.c_str()));
                                args.push_back(nullptr);
                                execv(args[0], args.data());
                                _exit(127);
                            }))
            return;
        const std::string portFile = dir_ + "/floor.port";
        if (!floor_.start(
                [portFile] {
                    MHD_Daemon *d = MHD_start_daemon(
                        MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_AUTO, 0,
                        nullptr, nullptr, floorAnswer, nullptr, MHD_OPTION_SOCK_ADDR, nullptr,
                        MHD_OPTION_CONNECTION_LIMIT, 128u, MHD_OPTION_CONNECTION_TIMEOUT, 10u,
                        MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<size_t>(32 * 1024),
                        MHD_OPTION_THREAD_STACK_SIZE, static_cast<size_t>(512 * 1024), MHD_OPTION_END);
                    const MHD_DaemonInfo *info =
                        d ? MHD_get_daemon_info(d, MHD_DAEMON_INFO_BIND_PORT) : nullptr;
                    return info && kep_bench::writeFile(portFile, std::to_string(info->port));
                },
                [] {
                    for (;;) pause();
                }))
            return;
        for (int i = 0; i < 1000 && port_ == 0; i++) {
            const std::string text = kep_bench::readText(webLog);
            const size_t at = text.find("listening on 127.0.0.1:");
            if (at != std::string::npos && text.find("serving with") != std::string::npos)
                port_ = atoi(text.c_str() + at + 23);
            else
                usleep(10000);
        }
        floorPort_ = atoi(kep_bench::readText(portFile).c_str());
        ok_ = port_ > 0 && floorPort_ > 0 && !gFloorBody.empty();
    }
    ~System() {
        gateway_.stop();
        floor_.stop();
        host_.stop();
        owner_.stop();
        kep_bench::removeTree(dir_);
    }
    bool ok() const { return ok_; }
    pid_t gateway() const { return gateway_.pid(); }
    std::string api(const char *path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
    std::string floorUrl() const { return "http://127.0.0.1:" + std::to_string(floorPort_) + "/api/request"; }
    std::string login(Client &c, const char *password = "bench-password") const {
        std::string reply;
        c.post(api("/api/login"), std::string(R"({"username":"bench","password":")") + password + "\"}", "",
               &reply);
        return tokenOf(reply);
    }
    static std::string hostGet() {
        char *out = nullptr;
        std::string s = kepHostRequest(kRequest, &out) == 0 && out ? out : "";
        free(out);
        return s;
    }

private:
    bool waitServed() {
        for (int i = 0; i < 1000; i++) {
            if (hostGet().find("\"error_code\":0") != std::string::npos) return true;
            usleep(10000);
        }
        return false;
    }

    std::string dir_;
    kep_bench::Child owner_, host_, gateway_, floor_;
    int port_ = 0, floorPort_ = 0;
    bool ok_ = false;
};

// The system the latency paths share: started once, with room for 64 clients.
System &shared() {
    static System s({"-C", "128", "-P", "128"});
    return s;
}

void BM_HostPath(benchmark::State &state) {
    if (!shared().ok()) return state.SkipWithError("the system did not start");
    kep_bench::Latencies lat;
    for (auto _ : state) {
        const int64_t t = kep_bench::nowNs();
        if (System::hostGet().empty()) return state.SkipWithError("the host did not answer");
        lat.add(kep_bench::nowNs() - t);
    }
    lat.report(state);
}

void httpPath(benchmark::State &state, bool gateway) {
    System &s = shared();
    if (!s.ok()) return state.SkipWithError("the system did not start");
    Client c;
    const std::string token = s.login(c), url = gateway ? s.api("/api/request") : s.floorUrl();
    if (token.empty()) return state.SkipWithError("no login");
    std::string reply;
    kep_bench::Latencies lat;
    for (auto _ : state) {
        const int64_t t = kep_bench::nowNs();
        if (c.post(url, kRequest, token, &reply) != 200) return state.SkipWithError("not 200");
        lat.add(kep_bench::nowNs() - t);
    }
    if (reply != System::hostGet()) return state.SkipWithError("the answer differs from the host's");
    lat.report(state);
}

void BM_HostThenFloor(benchmark::State &state) {
    System &s = shared();
    if (!s.ok()) return state.SkipWithError("the system did not start");
    Client c;
    std::string reply;
    kep_bench::Latencies lat;
    for (auto _ : state) {
        const int64_t t = kep_bench::nowNs();
        if (System::hostGet().empty()) return state.SkipWithError("the host did not answer");
        if (c.post(s.floorUrl(), kRequest, "", &reply) != 200) return state.SkipWithError("not 200");
        lat.add(kep_bench::nowNs() - t);
    }
    lat.report(state);
}

void BM_HttpFloor(benchmark::State &state) {
    httpPath(state, false);
}
void BM_ThroughGateway(benchmark::State &state) {
    httpPath(state, true);
}

void BM_Clients(benchmark::State &state) {
    System &s = shared();
    if (!s.ok()) return state.SkipWithError("the system did not start");
    const int clients = static_cast<int>(state.range(0));
    const char *env = getenv("KEP_GW_SOAK_SECONDS");
    const int seconds = env && atoi(env) > 0 ? atoi(env) : 30;
    Client first;
    const std::string token = s.login(first);
    if (token.empty()) return state.SkipWithError("no login");
    for (auto _ : state) {
        std::atomic<long> errors{0}, done{0};
        std::vector<kep_bench::Latencies> lat(static_cast<size_t>(clients));
        const int64_t end = kep_bench::nowNs() + static_cast<int64_t>(seconds) * 1000000000;
        long rssStart = 0, rssMax = 0;
        std::vector<std::thread> threads;
        for (int i = 0; i < clients; i++) {
            threads.emplace_back([&, i] {
                Client c;
                std::string reply;
                while (kep_bench::nowNs() < end) {
                    const int64_t t = kep_bench::nowNs();
                    if (c.post(s.api("/api/request"), kRequest, token, &reply) != 200 ||
                        reply.find("\"error_code\":0") == std::string::npos)
                        errors++;
                    lat[static_cast<size_t>(i)].add(kep_bench::nowNs() - t);
                    done++;
                }
            });
        }
        // Memory once every client is connected and the first second has passed, then its highest.
        sleep(1);
        rssStart = rssKb(s.gateway());
        while (kep_bench::nowNs() < end) {
            rssMax = std::max(rssMax, rssKb(s.gateway()));
            usleep(200000);
        }
        for (std::thread &t : threads) t.join();
        kep_bench::Latencies all;
        for (const auto &l : lat) all.merge(l);
        all.report(state);
        state.counters["requests_per_s"] = static_cast<double>(done.load()) / seconds;
        state.counters["errors"] = static_cast<double>(errors.load());
        state.counters["rss_start_kb"] = static_cast<double>(rssStart);
        state.counters["rss_max_kb"] = static_cast<double>(rssMax);
        state.counters["rss_end_kb"] = static_cast<double>(rssKb(s.gateway()));
        state.counters["seconds"] = seconds;
    }
}

void BM_Sessions(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    System s({"-s", std::to_string(n)});  // the first login is ended by the last
    if (!s.ok()) return state.SkipWithError("the system did not start");
    Client c;
    for (auto _ : state) {
        if (s.login(c).empty()) return state.SkipWithError("no login");  // everything touched once
        usleep(200000);
        const long before = rssKb(s.gateway());
        for (int i = 0; i < n; i++) {
            if (s.login(c).empty()) return state.SkipWithError("no login");
        }
        usleep(200000);
        const long after = rssKb(s.gateway());
        state.counters["rss_before_kb"] = static_cast<double>(before);
        state.counters["rss_after_kb"] = static_cast<double>(after);
        state.counters["bytes_per_session"] = static_cast<double>(after - before) * 1024.0 / n;
    }
}

void BM_WrongLogins(benchmark::State &state) {
    const int attempts = static_cast<int>(state.range(0));
    System s({});
    if (!s.ok()) return state.SkipWithError("the system did not start");
    Client user;
    const std::string token = s.login(user);
    if (token.empty()) return state.SkipWithError("no login");
    const std::string url = s.api("/api/request");
    std::string reply;
    for (auto _ : state) {
        kep_bench::Latencies alone, attacked;
        for (int i = 0; i < 2000; i++) {
            const int64_t t = kep_bench::nowNs();
            if (user.post(url, kRequest, token, &reply) != 200) return state.SkipWithError("not 200");
            alone.add(kep_bench::nowNs() - t);
        }
        std::atomic<bool> attacking{true};
        std::atomic<long> refused{0}, wrong{0};
        const int64_t start = kep_bench::nowNs();
        std::thread attacker([&] {
            Client c;
            std::string r;
            for (int i = 0; i < attempts; i++) {
                const long status =
                    c.post(s.api("/api/login"), R"({"username":"bench","password":"guess"})", "", &r);
                if (status == 429) refused++;
                if (status == 401) wrong++;
            }
            attacking = false;
        });
        long errors = 0;
        while (attacking) {
            const int64_t t = kep_bench::nowNs();
            if (user.post(url, kRequest, token, &reply) != 200) errors++;
            attacked.add(kep_bench::nowNs() - t);
        }
        attacker.join();
        const double attackMs = static_cast<double>(kep_bench::nowNs() - start) / 1e6;
        state.counters["alone_p50_us"] = alone.percentileUs(50);
        state.counters["alone_p99_us"] = alone.percentileUs(99);
        state.counters["attacked_p50_us"] = attacked.percentileUs(50);
        state.counters["attacked_p99_us"] = attacked.percentileUs(99);
        state.counters["attacked_gets"] = static_cast<double>(attacked.size());
        state.counters["errors"] = static_cast<double>(errors);
        state.counters["refused_429"] = static_cast<double>(refused.load());
        state.counters["answered_401"] = static_cast<double>(wrong.load());
        state.counters["attack_ms"] = attackMs;
    }
}

}  // namespace

BENCHMARK(BM_HostPath)->Name("gateway/host_path");
BENCHMARK(BM_HttpFloor)->Name("gateway/http_floor");
BENCHMARK(BM_ThroughGateway)->Name("gateway/through_gateway");
BENCHMARK(BM_HostThenFloor)->Name("gateway/host_then_floor");
BENCHMARK(BM_Clients)->Name("gateway/clients")->Arg(64)->Iterations(1)->Repetitions(1)->UseRealTime();
BENCHMARK(BM_Sessions)->Name("gateway/sessions")->Arg(1000)->Iterations(1)->Repetitions(1);
BENCHMARK(BM_WrongLogins)->Name("gateway/wrong_logins")->Arg(1000)->Iterations(1)->Repetitions(1);
BENCHMARK_MAIN();
