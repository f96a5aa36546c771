// A forked "owner" process that serves IMI handlers, for end-to-end tests.
//
//   kep_test::OwnerProcess owner({
//       {"tableCb", kep_test::answer(0, R"([{"a":1}])")},
//       {"echoCb", kep_test::echoMembers()},
//       {"slowCb", kep_test::hang()},
//   });
//   ASSERT_TRUE(owner.ready());
//   ... qxImiExecute(owner.pid(), "tableCb", 0, 0, set) or library calls ...
//   auto calls = owner.calls();          // what the owner received, in order
//   EXPECT_EQ(calls[0].names(), (std::vector<std::string>{"name", "table"}));
//   EXPECT_EQ(calls[0].text("table"), "t");
//
// The child registers the handlers, listens, reports ready and serves one request
// at a time until it is stopped, killed, or its parent dies. Handlers run in the
// child: state they capture (a counter in a mutable lambda) lives there, and the
// parent sees the child only through the answers and calls().
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "kep_pf_rpc.h"

namespace kep_test {

// Reads its inputs from set and adds its outputs; a nonzero result is what the
// caller's qxImiExecute returns.
using OwnerHandler = std::function<int(QxRpcPara *set)>;
using OwnerHandlers = std::vector<std::pair<std::string, OwnerHandler>>;

// Answers "errorCode" code, and "result" unless result is null.
OwnerHandler answer(int code, const char *result = nullptr);
// Answers "errorCode" 0 and a "result" that is a JSON object of the members it
// received, in order (strings as strings, integers as numbers).
OwnerHandler echoMembers();
// Never answers (the caller must time out).
OwnerHandler hang();

struct RecordedMember {
    std::string name;
    bool isString = false;
    int value = 0;
    std::string text;
};

// One request the owner received, with its input members in order.
struct RecordedCall {
    std::string cb;
    std::vector<RecordedMember> members;

    std::vector<std::string> names() const;
    const RecordedMember *find(const std::string &name) const;
    // The text of a string member, "" when absent.
    std::string text(const std::string &name) const;
};

struct OwnerOptions {
    // false: the child listens (the kernel accepts connections) but never answers.
    bool serve = true;
    // > 0: served by up to that many background threads instead of one loop.
    int threads = 0;
    // Runs in the child before it listens.
    std::function<void()> setup;
};

class OwnerProcess {
public:
    explicit OwnerProcess(OwnerHandlers handlers, OwnerOptions options = {});
    ~OwnerProcess();  // stops the child (SIGTERM, then SIGKILL) and reaps it
    OwnerProcess(const OwnerProcess &) = delete;
    OwnerProcess &operator=(const OwnerProcess &) = delete;

    pid_t pid() const { return pid_; }
    // The constructor waits (up to 5 s) until the child's socket accepts calls.
    bool ready() const { return ready_; }
    // SIGKILL and reap, like a crash: the socket file stays behind, stale.
    void kill();
    // SIGTERM: the child removes its socket file and exits; true when it exited with 0.
    bool stop();

    // Every request received so far, in order of arrival.
    std::vector<RecordedCall> calls() const;
    void clearCalls();

private:
    [[noreturn]] void runChild(int readyFd, const OwnerOptions &options);
    bool reap(int timeoutMs, int *status);

    OwnerHandlers handlers_;
    pid_t pid_ = -1;
    bool ready_ = false;
    int recordFd_ = -1;  // unlinked file shared with the child, one JSON line per call
};

// The socket path of pid in the runtime folder (KEP_RUNTIME_DIR or the default).
std::string imiSocketPath(pid_t pid);

}  // namespace kep_test
