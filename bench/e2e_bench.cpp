// End-to-end request latency and throughput across real processes.
//
//   floor_*        the same request and reply frames over a Unix-domain stream socket
//                  between two processes, no library: json-c parses the request and
//                  the reply and serialises the response (the reference)
//   floor_two_hops the kept-connection floor through a relay process (two process
//                  boundaries, the reference for a broker)
//   standin_rpc    the stand-in RPC alone: one call to the owner's get callback
//   request_local  standardKepReqHandle in this process, the owner in another
//   request_host   the same request through the host daemon (kepd) from this client
//   request_direct the same request on the direct route (a copy of the host's tree here)
//   host_beside_stuck  through the host while 4 clients wait on a stopped owner and 4
//                  connections hold half-sent requests
//   concurrent     1..8 threads of this process issuing gets to the one owner; 1 and 4
//                  threads through the host, spread over two owners
//
// The owner answers every get of table t of module m with the same 3 sections of 5
// string options (about 300 bytes of JSON), so that only the path differs.
#include <json-c/json.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <mutex>

#include <atomic>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "kepHandle.h"
#include "kep_direct.h"
#include "kep_host.h"
#include "kep_platform.h"

using kep_bench::Latencies;
using kep_bench::nowNs;

namespace {

const char kRequest[] = R"({"method":"get","m":{"table":"t"}})";
const char kResult[] =
    R"({"t_1":{"name":"printer","ip":"192.168.1.20","mac":"02:00:00:00:00:14","note":"floor 2","mode":"static"},)"
    R"("t_2":{"name":"camera","ip":"192.168.1.21","mac":"02:00:00:00:00:15","note":"door","mode":"static"},)"
    R"("t_3":{"name":"nas","ip":"192.168.1.22","mac":"02:00:00:00:00:16","note":"rack","mode":"reserved"}})";
// m is served by the owner of the latency paths, m3 by a second owner, m2 by one that
// is stopped while the head-of-line benchmark runs.
const char kModel[] =
    R"(<model><module name="m"><table name="t"/></module><module name="m2"><table name="t"/></module>)"
    R"(<module name="m3"><table name="t"/></module></model>)";
const char kRequestOther[] = R"({"method":"get","m3":{"table":"t"}})";
const char kRequestStuck[] = R"({"method":"get","m2":{"table":"t"}})";
const char kCallback[] = "tGet";

std::string gDir;
kep_bench::Child gOwner, gOwner2, gStuck, gFloor, gHost;
std::string gFloorPath, gRelayPath;
kep_bench::Child gRelay;

// ---- the IMI frame layout, written by hand for the floor ----

void put32(std::string &out, uint32_t v) {
    char b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                 static_cast<char>(v)};
    out.append(b, 4);
}

uint32_t get32(const char *p) {
    const unsigned char *u = reinterpret_cast<const unsigned char *>(p);
    return (uint32_t{u[0]} << 24) | (uint32_t{u[1]} << 16) | (uint32_t{u[2]} << 8) | u[3];
}

std::string frame(const std::string &body) {
    std::string out;
    put32(out, 0x4b494d32);
    put32(out, static_cast<uint32_t>(body.size()));
    return out + body;
}

void putString(std::string &body, const char *name, const char *text) {
    body += '\1';
    body += static_cast<char>(strlen(name));
    body += name;
    put32(body, static_cast<uint32_t>(strlen(text)));
    body += text;
}

std::string requestFrame(const char *table) {
    std::string body = "\1";
    put32(body, 0);  // no deadline
    put32(body, 0);
    body += static_cast<char>(strlen(kCallback));
    body += kCallback;
    body += '\1';
    putString(body, "table", table);
    return frame(body);
}

std::string replyFrame() {
    std::string body = "\2";
    put32(body, 0);
    body += '\2';
    body += '\0';
    body += static_cast<char>(strlen("errorCode"));
    body += "errorCode";
    put32(body, 0);
    putString(body, "result", kResult);
    return frame(body);
}

bool readAll(int fd, char *p, size_t n) {
    while (n > 0) {
        ssize_t r = read(fd, p, n);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

bool writeAll(int fd, const char *p, size_t n) {
    while (n > 0) {
        ssize_t r = send(fd, p, n, MSG_NOSIGNAL);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

// One frame into buf; false at the end of the connection.
bool readFrame(int fd, std::string &buf) {
    char header[8];
    if (!readAll(fd, header, 8)) return false;
    buf.resize(get32(header + 4));
    return readAll(fd, &buf[0], buf.size());
}

// The floor's server: answers every request frame with the owner's reply frame, on
// a connection per request or on one kept open.
void serveFloor(int listenFd) {
    const std::string reply = replyFrame();
    std::string buf;
    for (;;) {
        int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        while (readFrame(fd, buf)) {
            if (!writeAll(fd, reply.data(), reply.size())) break;
        }
        close(fd);
    }
}

int connectTo(const std::string &path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        fd = -1;
    }
    return fd;
}

int connectFloor() {
    return connectTo(gFloorPath);
}

// The two-hop floor's relay: forwards each request frame of a client connection to
// the floor server over a connection of its own and the reply back, bytes only.
void serveRelay(int listenFd) {
    std::string buf;
    for (;;) {
        int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        int up = connectFloor();
        while (up >= 0 && readFrame(fd, buf)) {
            std::string out = frame(buf);
            if (!writeAll(up, out.data(), out.size()) || !readFrame(up, buf)) break;
            out = frame(buf);
            if (!writeAll(fd, out.data(), out.size())) break;
        }
        if (up >= 0) close(up);
        close(fd);
    }
}

// One request of the floor on fd: parse the request, send its frame, read the reply,
// parse the result and serialise the response into a malloc'd text.
bool floorRequest(int fd, std::string &buf) {
    json_object *req = json_tokener_parse(kRequest);
    json_object *mod = nullptr, *table = nullptr;
    if (!req || !json_object_object_get_ex(req, "m", &mod) ||
        !json_object_object_get_ex(mod, "table", &table)) {
        json_object_put(req);
        return false;
    }
    std::string out = requestFrame(json_object_get_string(table));
    json_object_put(req);
    if (!writeAll(fd, out.data(), out.size()) || !readFrame(fd, buf)) return false;
    // Reply: kind, status, count, the "errorCode" member, then "result".
    size_t at = 1 + 4 + 1 + 2 + strlen("errorCode") + 4 + 2 + strlen("result");
    if (buf.size() < at + 4) return false;
    std::string text = buf.substr(at + 4, get32(&buf[at]));
    json_object *result = json_tokener_parse(text.c_str());
    json_object *rsp = json_object_new_object(), *m = json_object_new_object();
    json_object_object_add(m, "t", result);
    json_object_object_add(rsp, "m", m);
    json_object_object_add(rsp, "error_code", json_object_new_int(0));
    char *copy = strdup(json_object_to_json_string_ext(rsp, JSON_C_TO_STRING_PLAIN));
    json_object_put(rsp);
    bool ok = result && copy;
    free(copy);
    return ok;
}

// Floor requests over one connection that stays open; fd is closed at the end.
void runKeptConnection(benchmark::State &state, int fd, const char *unreachable) {
    if (fd < 0) return state.SkipWithError(unreachable);
    Latencies lat;
    std::string buf;
    for (auto _ : state) {
        int64_t t0 = nowNs();
        if (!floorRequest(fd, buf)) {
            state.SkipWithError("floor request failed");
            break;
        }
        lat.add(nowNs() - t0);
    }
    close(fd);
    lat.report(state);
}

void BM_FloorKeptConnection(benchmark::State &state) {
    runKeptConnection(state, connectFloor(), "floor server unreachable");
}

// The same through a relay process: two process boundaries, as through a broker.
void BM_FloorTwoHops(benchmark::State &state) {
    runKeptConnection(state, connectTo(gRelayPath), "relay unreachable");
}

void BM_FloorConnectPerRequest(benchmark::State &state) {
    Latencies lat;
    std::string buf;
    for (auto _ : state) {
        int64_t t0 = nowNs();
        int fd = connectFloor();
        bool ok = fd >= 0 && floorRequest(fd, buf);
        if (fd >= 0) close(fd);
        if (!ok) {
            state.SkipWithError("floor request failed");
            break;
        }
        lat.add(nowNs() - t0);
    }
    lat.report(state);
}

void BM_StandinRpcOnly(benchmark::State &state) {
    Latencies lat;
    for (auto _ : state) {
        int64_t t0 = nowNs();
        QxRpcPara set;
        qxrpcParaInit(&set);
        qxrpcAddStringPtr(&set, "table", "t");
        char *text = nullptr;
        int rc = qxImiExecute(gOwner.pid(), kCallback, 0, 0, &set);
        if (rc == 0) rc = qxrpcGetStringPtr(&set, "result", &text);
        qxrpcParaFree(&set);
        if (rc != 0) {
            state.SkipWithError("rpc failed");
            break;
        }
        lat.add(nowNs() - t0);
    }
    lat.report(state);
}

// Times one request after another through send until the benchmark ends; every
// answer must carry "error_code" 0.
void timeRequests(benchmark::State &state, int (*send)(const char *, char **), const char *failure) {
    Latencies lat;
    for (auto _ : state) {
        int64_t t0 = nowNs();
        char *out = nullptr;
        int rc = send(kRequest, &out);
        bool ok = rc == 0 && out && strstr(out, "\"error_code\":0");
        free(out);
        if (!ok) {
            state.SkipWithError(failure);
            break;
        }
        lat.add(nowNs() - t0);
    }
    lat.report(state);
}

void BM_RequestLocal(benchmark::State &state) {
    timeRequests(state, standardKepReqHandle, "request failed");
}

void BM_RequestThroughHost(benchmark::State &state) {
    timeRequests(state, kepHostRequest, "request through the host failed");
}

void BM_RequestDirect(benchmark::State &state) {
    timeRequests(state, kepDirectRequest, "request on the direct route failed");
}

// ---- the host beside a stopped owner and stalled clients ----

// A connection to the host that sent the start of a request and then nothing; made
// again whenever the host drops it.
int stalledConnection() {
    char dir[256];
    qxImiRuntimeDir(dir, sizeof dir);
    int fd = connectTo(std::string(dir) + "/imi-" + std::to_string(gHost.pid()) + ".sock");
    if (fd >= 0 && send(fd, "KIM2", 4, MSG_NOSIGNAL) != 4) {
        close(fd);
        fd = -1;
    }
    return fd;
}

void BM_HostBesideStuck(benchmark::State &state) {
    if (kill(gStuck.pid(), SIGSTOP) != 0) return state.SkipWithError("cannot stop the third owner");
    std::atomic<bool> done{false};
    std::vector<std::thread> load;
    for (int i = 0; i < 4; i++) {
        load.emplace_back([&] {
            while (!done) {
                char *out = nullptr;
                kepHostRequest(kRequestStuck, &out);
                free(out);
            }
        });
    }
    load.emplace_back([&] {
        int fds[4] = {-1, -1, -1, -1};
        while (!done) {
            for (int &fd : fds) {
                char c;
                if (fd >= 0 && recv(fd, &c, 1, MSG_DONTWAIT) == 0) {
                    close(fd);
                    fd = -1;
                }
                if (fd < 0) fd = stalledConnection();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        for (int fd : fds) {
            if (fd >= 0) close(fd);
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    timeRequests(state, kepHostRequest, "request through the host failed");
    done = true;
    kill(gStuck.pid(), SIGCONT);
    for (std::thread &t : load) t.join();
}

// ---- throughput: threads of one client process, one owner ----

std::mutex gMergeLock;
Latencies gMerged;
int gMergedThreads;

// Runs request on every thread of the benchmark until it ends; the latencies of all
// threads are reported together by thread 0, requests per second by each.
template <typename Request>
void runThreads(benchmark::State &state, Request request) {
    if (state.thread_index() == 0) {
        std::lock_guard<std::mutex> hold(gMergeLock);
        gMerged = Latencies();
        gMergedThreads = 0;
    }
    Latencies lat;
    bool failed = false;
    for (auto _ : state) {
        int64_t t0 = nowNs();
        if (!request()) failed = true;
        lat.add(nowNs() - t0);
    }
    {
        std::lock_guard<std::mutex> hold(gMergeLock);
        gMerged.merge(lat);
        gMergedThreads++;
    }
    if (failed) state.SkipWithError("a request failed");
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() != 0) return;
    for (;;) {
        {
            std::lock_guard<std::mutex> hold(gMergeLock);
            if (gMergedThreads == state.threads()) break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::lock_guard<std::mutex> hold(gMergeLock);
    gMerged.report(state);
}

void BM_ConcurrentGets(benchmark::State &state) {
    runThreads(state, [] {
        char *out = nullptr;
        int rc = standardKepReqHandle(kRequest, &out);
        free(out);
        return rc == 0;
    });
}

// Threads of this process through the host, every thread alternating between the two
// healthy owners.
void BM_ConcurrentHost(benchmark::State &state) {
    bool other = state.thread_index() % 2;
    runThreads(state, [&other] {
        char *out = nullptr;
        int rc = kepHostRequest(other ? kRequestOther : kRequest, &out);
        bool ok = rc == 0 && out && strstr(out, "\"error_code\":0");
        free(out);
        other = !other;
        return ok;
    });
}

BENCHMARK(BM_FloorKeptConnection)->Name("e2e/floor_kept_connection");
BENCHMARK(BM_FloorConnectPerRequest)->Name("e2e/floor_connect_per_request");
BENCHMARK(BM_FloorTwoHops)->Name("e2e/floor_two_hops_kept");
BENCHMARK(BM_StandinRpcOnly)->Name("e2e/standin_rpc_only");
BENCHMARK(BM_RequestLocal)->Name("e2e/request_local");
BENCHMARK(BM_RequestThroughHost)->Name("e2e/request_through_host");
BENCHMARK(BM_RequestDirect)->Name("e2e/request_direct");
BENCHMARK(BM_HostBesideStuck)->Name("e2e/host_beside_stuck");
BENCHMARK(BM_ConcurrentGets)->Name("concurrent/get")->ThreadRange(1, 8)->UseRealTime();
BENCHMARK(BM_ConcurrentHost)->Name("concurrent/host")->Threads(1)->Threads(4)->UseRealTime();

// ---- processes ----

int serveOwner(QxRpcPara *set, void *) {
    qxrpcAddInt(set, "errorCode", 0);
    qxrpcAddStringPtr(set, "result", kResult);
    return 0;
}

int listenOn(const std::string &path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (fd >= 0 && (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 64) != 0)) {
        close(fd);
        fd = -1;
    }
    return fd;
}

bool startFloor() {
    gFloorPath = gDir + "/floor.sock";
    gRelayPath = gDir + "/relay.sock";
    int fd = listenOn(gFloorPath), relay = listenOn(gRelayPath);
    bool ok = fd >= 0 && relay >= 0 && gFloor.start([] { return true; }, [fd] { serveFloor(fd); }) &&
              gRelay.start([] { return true; }, [relay] { serveRelay(relay); });
    if (fd >= 0) close(fd);
    if (relay >= 0) close(relay);
    return ok;
}

bool startHost() {
    std::string model = gDir + "/m.xml";
    if (!kep_bench::writeFile(model, kModel)) return false;
    std::string log = gDir + "/kepd.log";
    return gHost.start([] { return true; },
                       [model, log] {
                           int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
                           if (fd >= 0) dup2(fd, 2);
                           execl(KEPD_PATH, "kepd", "-m", model.c_str(), static_cast<char *>(nullptr));
                           _exit(127);
                       }) &&
           kepHostWait(5000) == 0;
}

// An owner process serving the get of path's table with the fixed result.
bool startOwner(kep_bench::Child &child, const char *path) {
    return child.start(
        [path] {
            return qxImiRegister(kCallback, serveOwner, nullptr) == 0 && qxImiListen() >= 0 &&
                   kepHostRegister("method", path, KEP_METHOD_GET, kCallback) == 0;
        },
        [] {
            for (;;) {
                if (qxImiServeOnce(-1) < 0) usleep(1000);
            }
        });
}

bool startOwners() {
    return startOwner(gOwner, "/m/t") && startOwner(gOwner2, "/m3/t") && startOwner(gStuck, "/m2/t") &&
           kepDirectOpen() == 0;
}

bool wireLocalTree() {
    XmlNode **doc = strXmlParse(kModel, 1);
    bool ok = doc && registerDataModel(*doc) == 0;
    if (doc) mxmlTreeDelete(doc);
    return ok && registerMethodCb("/m/t", KEP_METHOD_GET, kCallback, gOwner.pid()) == 0;
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    signal(SIGPIPE, SIG_IGN);
    gDir = kep_bench::makeTempDir("/tmp");
    if (gDir.empty()) return 1;
    setenv("KEP_RUNTIME_DIR", (gDir + "/run").c_str(), 1);
    // The host gives up on the stopped owner after a second.
    setenv("KEP_IMI_TIMEOUT_MS", "1000", 1);
    int rc = 1;
    const char *failed = !startFloor()      ? "floor server"
                         : !startHost()     ? "host daemon"
                         : !startOwners()   ? "owners"
                         : !wireLocalTree() ? "local tree"
                                            : nullptr;
    if (failed) {
        fprintf(stderr, "e2e bench: setting up the %s failed\n", failed);
    } else {
        fprintf(stderr, "result JSON: %zu bytes\n", strlen(kResult));
        benchmark::RunSpecifiedBenchmarks();
        rc = 0;
    }
    benchmark::Shutdown();
    kepDirectClose();
    gOwner.stop();
    gOwner2.stop();
    gStuck.stop();
    gHost.stop();
    gRelay.stop();
    gFloor.stop();
    kep_bench::removeTree(gDir);
    return rc;
}
