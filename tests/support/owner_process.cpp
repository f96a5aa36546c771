#include "owner_process.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json-c/json.h>

#include <chrono>
#include <memory>
#include <thread>

namespace kep_test {
namespace {

// ---- the call record: [u32 size][payload] per call, appended by the child ----

void putU32(std::string &out, uint32_t v) { out.append(reinterpret_cast<const char *>(&v), 4); }

void putStr(std::string &out, const std::string &s) {
    putU32(out, static_cast<uint32_t>(s.size()));
    out += s;
}

struct Cursor {
    const std::string &s;
    size_t pos = 0;
    bool ok = true;
    uint32_t u32() {
        uint32_t v = 0;
        if (pos + 4 > s.size()) return ok = false, 0;
        memcpy(&v, s.data() + pos, 4);
        pos += 4;
        return v;
    }
    std::string str() {
        uint32_t n = u32();
        if (!ok || pos + n > s.size()) return ok = false, std::string();
        std::string out = s.substr(pos, n);
        pos += n;
        return out;
    }
};

void writeRecord(int fd, const std::string &cb, const QxRpcPara *set) {
    std::string payload;
    putStr(payload, cb);
    putU32(payload, static_cast<uint32_t>(set->count));
    for (int i = 0; i < set->count; i++) {
        const QxRpcMember &m = set->member[i];
        putStr(payload, m.name);
        putU32(payload, m.isString ? 1 : 0);
        putU32(payload, static_cast<uint32_t>(m.value));
        putStr(payload, m.isString && m.text ? m.text : "");
    }
    std::string record;
    putStr(record, payload);
    const char *p = record.data();
    size_t left = record.size();
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

// What the child's trampoline needs per handler.
struct ChildHandler {
    std::string name;
    OwnerHandler fn;
    int recordFd;
};

int trampoline(QxRpcPara *set, void *user) {
    auto *h = static_cast<ChildHandler *>(user);
    writeRecord(h->recordFd, h->name, set);
    try {
        return h->fn ? h->fn(set) : 0;
    } catch (...) {
        return -1;
    }
}

char gChildSocket[256];

// The child's exit on SIGTERM: take the socket file away, then leave at once even
// if a handler is busy.
void onTerm(int) {
    if (gChildSocket[0]) unlink(gChildSocket);
    _exit(0);
}

}  // namespace

OwnerHandler answer(int code, const char *result) {
    bool hasResult = result != nullptr;
    std::string text = hasResult ? result : "";
    return [code, hasResult, text](QxRpcPara *set) {
        qxrpcAddInt(set, "errorCode", code);
        if (hasResult) qxrpcAddStringPtr(set, "result", text.c_str());
        return 0;
    };
}

OwnerHandler echoMembers() {
    return [](QxRpcPara *set) {
        json_object *obj = json_object_new_object();
        int inputs = set->count;
        for (int i = 0; i < inputs; i++) {
            const QxRpcMember &m = set->member[i];
            json_object_object_add(obj, m.name,
                                   m.isString ? json_object_new_string(m.text) : json_object_new_int(m.value));
        }
        qxrpcAddInt(set, "errorCode", 0);
        qxrpcAddStringPtr(set, "result", json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN));
        json_object_put(obj);
        return 0;
    };
}

OwnerHandler hang() {
    return [](QxRpcPara *) {
        for (;;) pause();
        return 0;
    };
}

OwnerHandler sequence(std::vector<OwnerHandler> steps) {
    auto state = std::make_shared<std::pair<size_t, std::vector<OwnerHandler>>>(0, std::move(steps));
    return [state](QxRpcPara *set) {
        auto &[next, list] = *state;
        if (list.empty()) return 0;
        size_t i = next < list.size() ? next++ : list.size() - 1;
        return list[i](set);
    };
}

std::vector<std::string> RecordedCall::names() const {
    std::vector<std::string> out;
    for (const RecordedMember &m : members) out.push_back(m.name);
    return out;
}

const RecordedMember *RecordedCall::find(const std::string &name) const {
    for (const RecordedMember &m : members) {
        if (m.name == name) return &m;
    }
    return nullptr;
}

std::string RecordedCall::text(const std::string &name) const {
    const RecordedMember *m = find(name);
    return m && m->isString ? m->text : std::string();
}

std::string imiSocketPath(pid_t pid) {
    const char *env = getenv("KEP_IMI_DIR");
    std::string dir = env && *env ? env : "/tmp/kep-imi-" + std::to_string(geteuid());
    return dir + "/imi-" + std::to_string(pid) + ".sock";
}

OwnerProcess::OwnerProcess(OwnerHandlers handlers, OwnerOptions options) : handlers_(std::move(handlers)) {
    char path[] = "/tmp/kep-owner-calls-XXXXXX";
    recordFd_ = mkostemp(path, O_CLOEXEC | O_APPEND);
    if (recordFd_ >= 0) unlink(path);
    int pipeFds[2];
    if (recordFd_ < 0 || pipe2(pipeFds, O_CLOEXEC) != 0) return;
    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        close(pipeFds[0]);
        // Dies with the test process rather than outliving a crashed test.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(1);
        runChild(pipeFds[1], options);
    }
    close(pipeFds[1]);
    if (pid_ < 0) {
        close(pipeFds[0]);
        return;
    }
    readyFd_ = pipeFds[0];
    waitReady(options.readyTimeoutMs);
}

void OwnerProcess::runChild(int readyFd, const OwnerOptions &options) {
    snprintf(gChildSocket, sizeof gChildSocket, "%s", imiSocketPath(getpid()).c_str());
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = onTerm;
    sigaction(SIGTERM, &sa, nullptr);
    if (options.setup) options.setup();
    // Owned by the child until it exits.
    auto *table = new std::vector<ChildHandler>();
    for (auto &[name, fn] : handlers_) table->push_back({name, fn, recordFd_});
    bool ok = true;
    for (ChildHandler &h : *table) ok = ok && qxImiRegister(h.name.c_str(), trampoline, &h) == 0;
    ok = ok && qxImiListen() >= 0;
    char state = ok ? 'R' : 'F';
    if (write(readyFd, &state, 1) != 1 || !ok) _exit(2);
    close(readyFd);
    for (;;) {
        if (options.serve) {
            if (qxImiServeOnce(-1) < 0) usleep(10000);
        } else {
            pause();
        }
    }
}

bool OwnerProcess::waitReady(int timeoutMs) {
    if (ready_ || readyFd_ < 0) return ready_;
    struct pollfd p = {readyFd_, POLLIN, 0};
    int n;
    do {
        n = poll(&p, 1, timeoutMs);
    } while (n < 0 && errno == EINTR);
    char state = 0;
    if (n > 0 && read(readyFd_, &state, 1) == 1) ready_ = state == 'R';
    if (n > 0) {
        close(readyFd_);
        readyFd_ = -1;
    }
    return ready_;
}

bool OwnerProcess::reap(int timeoutMs, int *status) {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        pid_t r = waitpid(pid_, status, WNOHANG);
        if (r == pid_ || (r < 0 && errno != EINTR)) {
            pid_ = -1;
            return r > 0;
        }
        if (std::chrono::steady_clock::now() >= until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void OwnerProcess::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    int status;
    reap(5000, &status);
}

bool OwnerProcess::stop() {
    if (pid_ <= 0) return false;
    ::kill(pid_, SIGTERM);
    int status = 0;
    if (reap(2000, &status)) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    kill();
    return false;
}

OwnerProcess::~OwnerProcess() {
    stop();
    if (readyFd_ >= 0) close(readyFd_);
    if (recordFd_ >= 0) close(recordFd_);
}

std::vector<RecordedCall> OwnerProcess::calls() const {
    std::vector<RecordedCall> out;
    if (recordFd_ < 0) return out;
    std::string data;
    char buf[65536];
    off_t off = 0;
    for (;;) {
        ssize_t n = pread(recordFd_, buf, sizeof buf, off);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        data.append(buf, static_cast<size_t>(n));
        off += n;
    }
    Cursor c{data};
    while (c.ok && c.pos < data.size()) {
        std::string payload = c.str();
        if (!c.ok) break;  // a record still being written
        Cursor p{payload};
        RecordedCall call;
        call.cb = p.str();
        uint32_t count = p.u32();
        for (uint32_t i = 0; p.ok && i < count; i++) {
            RecordedMember m;
            m.name = p.str();
            m.isString = p.u32() != 0;
            m.value = static_cast<int>(p.u32());
            m.text = p.str();
            call.members.push_back(std::move(m));
        }
        if (p.ok) out.push_back(std::move(call));
    }
    return out;
}

void OwnerProcess::clearCalls() {
    if (recordFd_ >= 0 && ftruncate(recordFd_, 0) != 0) {
        // Nothing sensible to do: the old calls stay visible.
    }
}

}  // namespace kep_test
