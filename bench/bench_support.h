// Helpers shared by the benchmarks: forked server processes, per-iteration latency
// percentiles, temporary folders and model descriptions built from text.
#pragma once

#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace kep_bench {

// A whole file's text; "" when it cannot be read.
inline std::string readText(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// This process's standard output and error to the end of log (a forked server's).
inline void redirect(const std::string &log) {
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd >= 0) {
        dup2(fd, 1);
        dup2(fd, 2);
    }
}

#ifdef KEP_SOURCE_DIR
// An example's model description (examples/NAME.xml.in) with its files in dir.
inline std::string exampleModel(const std::string &name, const std::string &dir) {
    std::string model = readText(std::string(KEP_SOURCE_DIR) + "/examples/" + name + ".xml.in");
    for (size_t at; (at = model.find("@CONFDIR@")) != std::string::npos;) model.replace(at, 9, dir);
    return model;
}
#endif

// The dhcp module's file as its owner keeps it: n static leases, each with an address
// and a MAC of its own, and the pool.
inline std::string dhcpFile(int n) {
    std::string text = R"({"host":[)";
    char entry[160];
    for (int i = 1; i <= n; i++) {
        snprintf(
            entry, sizeof entry,
            R"(%s{"host_%d":{"mac":"02:00:%02x:%02x:%02x:%02x","ip":"10.%d.%d.%d","hostname":"host-%d"}})",
            i > 1 ? "," : "", i, (i >> 24) & 255, (i >> 16) & 255, (i >> 8) & 255, i & 255, (i >> 16) & 255,
            (i >> 8) & 255, i & 255, i);
        text += entry;
    }
    return text +
           R"(],"pool":{"lan":{"start":"192.168.1.100","end":"192.168.1.199","leaseMinutes":1440,"enabled":true}}})";
}

inline int64_t nowNs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Per-iteration latencies of one benchmark run; reported as p50/p99 counters.
class Latencies {
public:
    void reserve(size_t n) { ns_.reserve(n); }
    void add(int64_t ns) { ns_.push_back(ns); }
    void merge(const Latencies &other) { ns_.insert(ns_.end(), other.ns_.begin(), other.ns_.end()); }
    size_t size() const { return ns_.size(); }
    // Percentile p (0..100) in microseconds; sorts the samples.
    double percentileUs(double p) {
        if (ns_.empty()) return 0;
        std::sort(ns_.begin(), ns_.end());
        size_t i = static_cast<size_t>(p / 100.0 * static_cast<double>(ns_.size() - 1) + 0.5);
        return static_cast<double>(ns_[std::min(i, ns_.size() - 1)]) / 1000.0;
    }
    void report(benchmark::State &state) {
        double p50 = percentileUs(50), p99 = percentileUs(99);
        state.counters["p50_us"] = p50;
        state.counters["p99_us"] = p99;
        state.counters["p99_over_p50"] = p50 > 0 ? p99 / p50 : 0;
    }

private:
    std::vector<int64_t> ns_;
};

// A child process running body() until it is killed; it dies with its parent.
// body reports readiness by returning from setup (ready is written before serve).
class Child {
public:
    Child() = default;
    // setup runs in the child and returns true when it can serve; serve never returns.
    bool start(const std::function<bool()> &setup, const std::function<void()> &serve) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return false;
        pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            close(fds[0]);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(1);
            char ok = setup() ? 'R' : 'F';
            if (write(fds[1], &ok, 1) != 1 || ok != 'R') _exit(2);
            close(fds[1]);
            serve();
            _exit(0);
        }
        close(fds[1]);
        char state = 0;
        struct pollfd p = {fds[0], POLLIN, 0};
        bool ready = pid_ > 0 && poll(&p, 1, 10000) == 1 && read(fds[0], &state, 1) == 1 && state == 'R';
        close(fds[0]);
        if (!ready) stop();
        return ready;
    }
    pid_t pid() const { return pid_; }
    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        int status;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }
    ~Child() { stop(); }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

private:
    pid_t pid_ = -1;
};

// A fresh folder under base ("/tmp", "/dev/shm"); paths stay short because a
// module's configuration path holds at most 31 characters.
inline std::string makeTempDir(const char *base) {
    std::string templ = std::string(base) + "/kb.XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    return mkdtemp(buf.data()) ? std::string(buf.data()) : std::string();
}

inline void removeTree(const std::string &dir) {
    if (dir.empty()) return;
    std::string cmd = "rm -rf '" + dir + "'";
    if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", dir.c_str());
}

inline bool writeFile(const std::string &path, const std::string &text) {
    FILE *f = fopen(path.c_str(), "w");
    if (!f) return false;
    bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
    return fclose(f) == 0 && ok;
}

}  // namespace kep_bench
