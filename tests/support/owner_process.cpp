#include "owner_process.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json-c/json.h>

#include <chrono>
#include <thread>

namespace kep_test {
namespace {

// Appends the call as one line: {"cb": name, "m": [[name, isString, value, text], ...]}.
void writeRecord(int fd, const std::string &cb, const QxRpcPara *set) {
    json_object *rec = json_object_new_object(), *members = json_object_new_array();
    json_object_object_add(rec, "cb", json_object_new_string(cb.c_str()));
    for (int i = 0; i < set->count; i++) {
        const QxRpcMember &m = set->member[i];
        json_object *one = json_object_new_array();
        json_object_array_add(one, json_object_new_string(m.name));
        json_object_array_add(one, json_object_new_boolean(m.isString));
        json_object_array_add(one, json_object_new_int(m.value));
        json_object_array_add(one, json_object_new_string(m.isString && m.text ? m.text : ""));
        json_object_array_add(members, one);
    }
    json_object_object_add(rec, "m", members);
    std::string line = json_object_to_json_string_ext(rec, JSON_C_TO_STRING_PLAIN) + std::string("\n");
    json_object_put(rec);
    // One write on an O_APPEND file: records of concurrent calls do not interleave.
    if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(3);
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
    return h->fn ? h->fn(set) : 0;
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
            json_object_object_add(
                obj, m.name, m.isString ? json_object_new_string(m.text) : json_object_new_int(m.value));
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
    char dir[256];
    qxImiRuntimeDir(dir, sizeof dir);
    return std::string(dir) + "/imi-" + std::to_string(pid) + ".sock";
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
    struct pollfd p = {pipeFds[0], POLLIN, 0};
    int n;
    do {
        n = pid_ > 0 ? poll(&p, 1, 5000) : 0;
    } while (n < 0 && errno == EINTR);
    char state = 0;
    ready_ = n > 0 && read(pipeFds[0], &state, 1) == 1 && state == 'R';
    close(pipeFds[0]);
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
    if (options.serve && options.threads > 0) ok = ok && qxImiStartServerThreads(options.threads) == 0;
    char state = ok ? 'R' : 'F';
    if (write(readyFd, &state, 1) != 1 || !ok) _exit(2);
    close(readyFd);
    for (;;) {
        if (!options.serve || options.threads > 0) {
            pause();
        } else if (qxImiServeOnce(-1) < 0) {
            usleep(10000);
        }
    }
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
    if (recordFd_ >= 0) close(recordFd_);
}

std::vector<RecordedCall> OwnerProcess::calls() const {
    std::vector<RecordedCall> out;
    std::string data;
    char buf[65536];
    ssize_t n;
    while (recordFd_ >= 0 && (n = pread(recordFd_, buf, sizeof buf, static_cast<off_t>(data.size()))) > 0)
        data.append(buf, static_cast<size_t>(n));
    // A last line without its newline is a record still being written.
    for (size_t start = 0, end; (end = data.find('\n', start)) != std::string::npos; start = end + 1) {
        json_object *rec = json_tokener_parse(data.substr(start, end - start).c_str());
        json_object *cb = nullptr, *members = nullptr;
        if (json_object_object_get_ex(rec, "cb", &cb) && json_object_object_get_ex(rec, "m", &members)) {
            RecordedCall call{json_object_get_string(cb), {}};
            for (size_t i = 0; i < json_object_array_length(members); i++) {
                json_object *m = json_object_array_get_idx(members, i);
                call.members.push_back({json_object_get_string(json_object_array_get_idx(m, 0)),
                                        json_object_get_boolean(json_object_array_get_idx(m, 1)) != 0,
                                        json_object_get_int(json_object_array_get_idx(m, 2)),
                                        json_object_get_string(json_object_array_get_idx(m, 3))});
            }
            out.push_back(std::move(call));
        }
        json_object_put(rec);
    }
    return out;
}

void OwnerProcess::clearCalls() {
    if (recordFd_ >= 0 && ftruncate(recordFd_, 0) != 0) {
        // Nothing sensible to do: the old calls stay visible.
    }
}

}  // namespace kep_test
