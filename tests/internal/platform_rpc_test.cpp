// The stand-in IMI across real processes: forked owners serve handlers, this
// process calls them.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <list>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/guard.h"
#include "child.h"
#include "kep_pf_rpc.h"
#include "log_capture.h"
#include "owner_process.h"
#include "rerun.h"

using kep_test::OwnerProcess;

namespace {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point t) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

std::string getText(QxRpcPara *set, const char *name) {
    char *text = nullptr;
    return qxrpcGetStringPtr(set, name, &text) == 0 && text ? text : "<absent>";
}

int getInt(QxRpcPara *set, const char *name) {
    int v = -12345;
    qxrpcGetInt(set, name, &v);
    return v;
}

// Restores the time-out a test changed.
struct TimeoutGuard {
    explicit TimeoutGuard(int ms) { qxImiSetTimeout(ms); }
    ~TimeoutGuard() { qxImiSetTimeout(0); }
};

// Opens a raw connection to pid's socket.
int rawConnect(pid_t pid) {
    std::string path = kep_test::imiSocketPath(pid);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Whether the peer has closed fd, waiting up to waitMs for it. A peer that closes
// with bytes of ours unread resets the connection, which the first read reports
// unless a send that was waiting for room in the socket did so already.
bool closedByPeer(int fd, int waitMs) {
    pollfd p = {fd, POLLIN, 0};
    char c;
    if (poll(&p, 1, waitMs) != 1) return false;
    const ssize_t n = recv(fd, &c, 1, MSG_DONTWAIT);
    return n == 0 || (n < 0 && errno == ECONNRESET);
}

}  // namespace

TEST(ImiRemote, MembersArriveInOrderAndAnswersComeBack) {
    OwnerProcess owner({{"echoCb", kep_test::echoMembers()},
                        {"failCb", kep_test::answer(-1402, R"({"why":1})")},
                        {"refuse", [](QxRpcPara *set) { return qxrpcAddInt(set, "errorCode", 0), 42; }},
                        {"fill", [](QxRpcPara *set) {
                             while (qxrpcAddStringPtr(set, "m", std::to_string(set->count).c_str()) == 0) {
                             }
                             return 0;
                         }}});
    ASSERT_TRUE(owner.ready());

    kep::RpcPara set;
    ASSERT_EQ(qxrpcAddStringPtr(set.get(), "name", "sec_1"), 0);
    ASSERT_EQ(qxrpcAddStringPtr(set.get(), "table", "t"), 0);
    ASSERT_EQ(qxrpcAddInt(set.get(), "n", -7), 0);
    ASSERT_EQ(qxrpcAddStringPtr(set.get(), "para", R"({"a":"\né"})"), 0);
    ASSERT_EQ(qxrpcAddStringPtr(set.get(), "filter", ""), 0);
    ASSERT_EQ(qxImiExecute(owner.pid(), "echoCb", 0, 0, set.get()), 0);

    // Only the outputs are left.
    EXPECT_EQ(set.get()->count, 2);
    EXPECT_EQ(getInt(set.get(), "errorCode"), 0);
    EXPECT_EQ(getText(set.get(), "result"),
              R"({"name":"sec_1","table":"t","n":-7,"para":"{\"a\":\"\\né\"}","filter":""})");
    char *gone = nullptr;
    EXPECT_NE(qxrpcGetStringPtr(set.get(), "table", &gone), 0);

    auto calls = owner.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].cb, "echoCb");
    EXPECT_EQ(calls[0].names(), (std::vector<std::string>{"name", "table", "n", "para", "filter"}));
    EXPECT_EQ(calls[0].text("para"), R"({"a":"\né"})");
    EXPECT_EQ(calls[0].find("n")->value, -7);

    // A callee's error code travels as a member; the call itself succeeded.
    kep::RpcPara empty;
    ASSERT_EQ(qxImiExecute(owner.pid(), "failCb", 0, 0, empty.get()), 0);
    EXPECT_EQ(getInt(empty.get(), "errorCode"), -1402);
    EXPECT_EQ(getText(empty.get(), "result"), R"({"why":1})");
    calls = owner.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_TRUE(calls[1].members.empty());

    // A handler's own result, or an unknown name, leaves the set as it was.
    kep::RpcPara kept;
    qxrpcAddStringPtr(kept.get(), "table", "t");
    EXPECT_EQ(qxImiExecute(owner.pid(), "refuse", 0, 0, kept.get()), 42);
    EXPECT_EQ(qxImiExecute(owner.pid(), "nobody", 0, 0, kept.get()), QXRPC_ERR_NO_HANDLER);
    EXPECT_EQ(kept.get()->count, 1);
    EXPECT_EQ(getText(kept.get(), "table"), "t");

    // An answer may fill the set.
    kep::RpcPara full;
    ASSERT_EQ(qxImiExecute(owner.pid(), "fill", 0, 0, full.get()), 0);
    ASSERT_EQ(full.get()->count, QXRPC_MAX_MEMBERS);
    EXPECT_STREQ(full.get()->member[QXRPC_MAX_MEMBERS - 1].text,
                 std::to_string(QXRPC_MAX_MEMBERS - 1).c_str());
}

TEST(ImiRemote, HungCalleeTimesOutWithinBounds) {
    TimeoutGuard timeout(1);
    EXPECT_EQ(qxImiGetTimeout(), 1);
    qxImiSetTimeout(300);
    EXPECT_EQ(qxImiGetTimeout(), 300);
    OwnerProcess hung({{"cb", kep_test::hang()}});
    kep_test::OwnerOptions silent;
    silent.serve = false;
    OwnerProcess deaf({{"cb", kep_test::answer(0)}}, silent);
    ASSERT_TRUE(hung.ready());
    ASSERT_TRUE(deaf.ready());
    for (pid_t pid : {hung.pid(), deaf.pid()}) {
        kep::RpcPara set;
        qxrpcAddStringPtr(set.get(), "table", "t");
        auto start = Clock::now();
        EXPECT_EQ(qxImiExecute(pid, "cb", 0, 0, set.get()), QXRPC_ERR_TIMEOUT);
        long took = msSince(start);
        EXPECT_GE(took, 250);
        EXPECT_LT(took, 1500);
        EXPECT_EQ(getText(set.get(), "table"), "t");
    }
}

// KEP_IMI_TIMEOUT_MS, read once: each value in a fresh run of this program.
TEST(ImiRemote, TimeOutFromTheEnvironment) {
    if (const char *want = getenv("KEP_TEST_TIMEOUT")) {
        EXPECT_EQ(qxImiGetTimeout(), atoi(want));
        return;
    }
    const std::pair<const char *, const char *> cases[] = {
        {nullptr, "5000"}, {"250", "250"}, {"3600000", "3600000"}, {"3600001", "5000"},
        {"0", "5000"},     {"-5", "5000"}, {"12x", "5000"},        {"", "5000"},
    };
    for (const auto &[env, want] : cases) {
        EXPECT_EQ(kep_test::rerunAlone("ImiRemote.TimeOutFromTheEnvironment",
                                       {{"KEP_IMI_TIMEOUT_MS", env}, {"KEP_TEST_TIMEOUT", want}}),
                  0)
            << (env ? env : "(unset)");
    }
}

TEST(ImiRemote, DeadCalleeFailsAtOnce) {
    OwnerProcess owner({{"cb", kep_test::answer(0)}});
    ASSERT_TRUE(owner.ready());
    pid_t pid = owner.pid();
    owner.kill();
    struct stat st;
    ASSERT_EQ(stat(kep_test::imiSocketPath(pid).c_str(), &st), 0) << "a crash leaves the socket file";

    kep::RpcPara set;
    auto start = Clock::now();
    EXPECT_EQ(qxImiExecute(pid, "cb", 0, 0, set.get()), QXRPC_ERR_NO_PEER);
    EXPECT_EQ(qxImiExecute(999999999, "cb", 0, 0, set.get()), QXRPC_ERR_NO_PEER);
    EXPECT_EQ(qxImiExecute(0, "cb", 0, 0, set.get()), QXRPC_ERR_NO_PEER);
    EXPECT_LT(msSince(start), 200);
    EXPECT_NE(stat(kep_test::imiSocketPath(pid).c_str(), &st), 0)
        << "the caller removes a dead process's socket";
    // A file there that is no socket is not the caller's to remove.
    const std::string plantedPath = kep_test::imiSocketPath(pid);
    const int planted = open(plantedPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(planted, 0);
    close(planted);
    EXPECT_EQ(qxImiExecute(pid, "cb", 0, 0, set.get()), QXRPC_ERR_NO_PEER);
    EXPECT_EQ(stat(plantedPath.c_str(), &st), 0);
    unlink(plantedPath.c_str());

    // One that refuses while its process lives (bound, not yet listening) is left
    // alone, and so is the process: it exits with the number of the first signal it
    // gets, all of them blocked from its start so that none is lost or ignored.
    sigset_t all, was;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &was);
    const pid_t early = fork();
    if (early == 0) {
        siginfo_t info;
        _exit(sigwaitinfo(&all, &info));
    }
    sigprocmask(SIG_SETMASK, &was, nullptr);
    const std::string path = kep_test::imiSocketPath(early);
    const int bound = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    ASSERT_EQ(bind(bound, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    EXPECT_EQ(qxImiExecute(early, "cb", 0, 0, set.get()), QXRPC_ERR_NO_PEER);
    EXPECT_EQ(stat(path.c_str(), &st), 0);
    kill(early, SIGUSR1);
    int status = -1;
    ASSERT_EQ(waitpid(early, &status, 0), early);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == SIGUSR1) << "the process was signalled";
    close(bound);
    unlink(path.c_str());

    // A clean stop takes the file away.
    OwnerProcess stopped({{"cb", kep_test::answer(0)}});
    ASSERT_TRUE(stopped.ready());
    pid = stopped.pid();
    EXPECT_TRUE(stopped.stop());
    EXPECT_NE(stat(kep_test::imiSocketPath(pid).c_str(), &st), 0);
}

TEST(ImiRemote, BadArgumentsAndLimits) {
    // Under valgrind moving 16 MiB takes longer than the default time-out, on both sides
    // (the owner is forked with this one), which is not what this checks.
    TimeoutGuard patient(60000);
    OwnerProcess owner({{"len",
                         [](QxRpcPara *set) {
                             char *text = nullptr;
                             qxrpcGetStringPtr(set, "text", &text);
                             return qxrpcAddInt(set, "length", text ? static_cast<int>(strlen(text)) : -1);
                         }},
                        {"big", kep_test::answer(0, std::string(16u << 20, 'y').c_str())},
                        {"tooBig", kep_test::answer(0, std::string((16u << 20) + 1, 'y').c_str())},
                        {std::string(127, 'c'), kep_test::answer(0, "longest")},
                        {"c", kep_test::answer(0, "shortest")}});
    ASSERT_TRUE(owner.ready());
    kep::RpcPara set;
    EXPECT_EQ(qxImiExecute(owner.pid(), nullptr, 0, 0, set.get()), QXRPC_ERR_ARG);
    EXPECT_EQ(qxImiExecute(owner.pid(), "", 0, 0, set.get()), QXRPC_ERR_ARG);
    EXPECT_EQ(qxImiExecute(-1, "len", 0, 0, set.get()), QXRPC_ERR_ARG);
    EXPECT_EQ(qxImiExecute(owner.pid(), "len", 0, 0, nullptr), QXRPC_ERR_ARG);
    EXPECT_EQ(qxImiExecute(owner.pid(), std::string(128, 'c').c_str(), 0, 0, set.get()), QXRPC_ERR_ARG);
    kep::RpcPara longest;  // a name of 127 characters is one
    ASSERT_EQ(qxImiExecute(owner.pid(), std::string(127, 'c').c_str(), 0, 0, longest.get()), 0);
    EXPECT_EQ(getText(longest.get(), "result"), "longest");
    ASSERT_EQ(qxImiExecute(owner.pid(), "c", 0, 0, longest.get()), 0);
    EXPECT_EQ(getText(longest.get(), "result"), "shortest");

    // One member may hold 16 MiB, the members of a call 32 MiB together.
    std::string big(16u << 20, 'x');
    ASSERT_EQ(qxrpcAddStringPtr(set.get(), "text", big.c_str()), 0);
    ASSERT_EQ(qxImiExecute(owner.pid(), "len", 0, 0, set.get()), 0);
    EXPECT_EQ(getInt(set.get(), "length"), 16 << 20);

    kep::RpcPara tooBig;
    big += 'x';
    ASSERT_EQ(qxrpcAddStringPtr(tooBig.get(), "text", big.c_str()), 0);
    EXPECT_EQ(qxImiExecute(owner.pid(), "len", 0, 0, tooBig.get()), QXRPC_ERR_ARG);
    // Each member costs its name, its text and 6 bytes; the frame keeps 256 bytes for
    // the kind, deadline and callback name. Filled to the byte, a call is let through
    // to look for its callee (here: none).
    big.pop_back();
    const std::string rest((16u << 20) - 280, 'b');
    kep::RpcPara full, tooMuch;
    for (QxRpcPara *s : {full.get(), tooMuch.get()}) {
        ASSERT_EQ(qxrpcAddStringPtr(s, "text", big.c_str()), 0);
        ASSERT_EQ(qxrpcAddInt(s, "n", 1), 0);
    }
    ASSERT_EQ(qxrpcAddStringPtr(full.get(), "b", rest.c_str()), 0);
    ASSERT_EQ(qxrpcAddStringPtr(tooMuch.get(), "b", (rest + "b").c_str()), 0);
    EXPECT_EQ(qxImiExecute(999999999, "len", 0, 0, full.get()), QXRPC_ERR_NO_PEER);
    EXPECT_EQ(qxImiExecute(owner.pid(), "len", 0, 0, tooMuch.get()), QXRPC_ERR_ARG);
    // A set filled by hand: a string member without its text is refused, not read.
    kep::RpcPara noText;
    ASSERT_EQ(qxrpcAddInt(noText.get(), "a", 1), 0);
    noText.get()->member[0].isString = 1;
    EXPECT_EQ(qxImiExecute(owner.pid(), "len", 0, 0, noText.get()), QXRPC_ERR_ARG);
    // Nor is a name that fills its array without a terminator.
    kep::RpcPara unended;
    ASSERT_EQ(qxrpcAddInt(unended.get(), "a", 1), 0);
    memset(unended.get()->member[0].name, 'n', QXRPC_NAME_MAX);
    EXPECT_EQ(qxImiExecute(owner.pid(), "len", 0, 0, unended.get()), QXRPC_ERR_ARG);
    EXPECT_EQ(owner.calls().size(), 3u);

    kep::RpcPara answer;
    ASSERT_EQ(qxImiExecute(owner.pid(), "big", 0, 0, answer.get()), 0);
    EXPECT_EQ(getText(answer.get(), "result").size(), 16u << 20);
    // An answer over the limit is refused by its callee, which says why.
    kep::RpcPara refused;
    EXPECT_EQ(qxImiExecute(owner.pid(), "tooBig", 0, 0, refused.get()), QXRPC_ERR_ARG);
}

TEST(ImiRemote, GarbageAndSilentClientsDoNotStopTheServer) {
    kep_test::OwnerOptions options;
    options.setup = [] { qxImiSetTimeout(200); };  // the owner's read time-out
    OwnerProcess owner({{"echoCb", kep_test::echoMembers()}}, options);
    ASSERT_TRUE(owner.ready());

    // Headers that claim too much or too little, and bodies that do not add up.
    const std::string none(8, '\0');  // a request's deadline: none
    const std::vector<std::string> garbage = {
        "GET / HTTP/1.0\r\n\r\n",
        std::string("KIM1\0\0\0\x04\x01\x02"
                    "cb",
                    10),                              // an older peer's frame
        std::string("KIM2\xff\xff\xff\xff", 8),       // absurd length
        std::string("KIM2\0\0\0\x0d\x01", 9) + none,  // truncated body
        std::string("KIM2\0\0\0\x0c\x01", 9) + none +
            "\x02"
            "cb",  // no member count
        std::string("KIM2\0\0\0\x12\x01", 9) + none +
            "\x02"
            "cb\x10\x01\x01"
            "a\0\0",  // count beyond the members
        std::string("KIM2\0\0\0\x10\x01", 9) + none +
            "\x06"
            "echoCb" +
            std::string("\x11", 1),
        std::string("KIM2\0\0\0\x14\x01", 9) + none +
            std::string("\x06"
                        "echoCb\x01\x01\x00",
                        10) +
            std::string(1, '\xff'),
        std::string("KIM2\0\0\0\x18\x01", 9) + none +
            "\x06"
            "echoCb\x01\x01\x01"
            "a\x7f\xff\xff\xff",
        std::string("KIM2\0\0\0\x11\x01\x7f\xff\xff\xff\xff\xff\xff\xff\x06"
                    "echoCb\x00",
                    25),  // deadline past any clock
    };
    for (const std::string &g : garbage) {
        int fd = rawConnect(owner.pid());
        ASSERT_GE(fd, 0);
        ASSERT_EQ(send(fd, g.data(), g.size(), MSG_NOSIGNAL), static_cast<ssize_t>(g.size()));
        shutdown(fd, SHUT_WR);
        char c;
        EXPECT_LE(recv(fd, &c, 1, 0), 0) << "no answer to garbage";
        close(fd);
    }
    // A name with a zero byte in it, or one longer than any callback's, names no
    // callback: its caller, still waiting, is hung up on.
    const std::string zero = std::string("KIM2\0\0\0\x12\x01", 9) + none +
                             std::string(
                                 "\x07"
                                 "echoCb\0\0",
                                 9),
                      tooLong = std::string("KIM2\0\0\0\x8b\x01", 9) + none + "\x80" + std::string(128, 'a') +
                                std::string(1, '\0');
    for (const std::string &frame : {zero, tooLong}) {
        const int named = rawConnect(owner.pid());
        ASSERT_GE(named, 0);
        ASSERT_EQ(send(named, frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
        EXPECT_TRUE(closedByPeer(named, 3000)) << frame.size();
        close(named);
    }
    // A client that connects and says nothing is dropped after the owner's time-out.
    int silent = rawConnect(owner.pid());
    ASSERT_GE(silent, 0);
    auto start = Clock::now();
    kep::RpcPara set;
    qxrpcAddInt(set.get(), "n", 5);
    EXPECT_EQ(qxImiExecute(owner.pid(), "echoCb", 0, 0, set.get()), 0);
    EXPECT_LT(msSince(start), 1500);
    EXPECT_EQ(getText(set.get(), "result"), R"({"n":5})");
    close(silent);
    EXPECT_EQ(owner.calls().size(), 1u);
}

TEST(ImiRemote, RequestArrivingInPiecesIsAnswered) {
    OwnerProcess owner({{"echoCb", kep_test::echoMembers()}});
    ASSERT_TRUE(owner.ready());
    // Member "a" = "x", by the latest deadline a request may carry (2^62 ms); the header
    // is split, the body follows a byte at a time.
    const std::string frame = std::string("KIM2\0\0\0\x19\x01\x40", 10) + std::string(7, '\0') +
                              std::string(
                                  "\x06"
                                  "echoCb\x01\x01\x01"
                                  "a\0\0\0\x01"
                                  "x",
                                  16);
    int fd = rawConnect(owner.pid());
    ASSERT_GE(fd, 0);
    std::vector<std::pair<size_t, size_t>> pieces = {{0, 5}, {5, 3}};
    for (size_t at = 8; at < frame.size(); at++) pieces.emplace_back(at, 1);
    for (auto [at, n] : pieces) {
        ASSERT_EQ(send(fd, frame.data() + at, n, MSG_NOSIGNAL), static_cast<ssize_t>(n));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    // The connection stays open for the next request: read until the reply is whole.
    timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    std::string reply;
    char buf[256];
    for (ssize_t n;
         reply.find(R"({"a":"x"})") == std::string::npos && (n = recv(fd, buf, sizeof buf, 0)) > 0;) {
        reply.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    EXPECT_NE(reply.find(R"({"a":"x"})"), std::string::npos);
}

namespace {

// A callee that answers every request with the bytes of reply and hangs up, pauseMs
// later: a peer whose replies arrive damaged. A process of its own, as the caller
// talks only to the process a socket is named after.
class RawCallee {
public:
    explicit RawCallee(const std::string &reply, int pauseMs = 0) {
        int ready[2];
        if (pipe(ready) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            // It would wait in accept() for ever once a test aborts before the kill.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const std::string path = kep_test::imiSocketPath(getpid());
            sockaddr_un addr{};
            addr.sun_family = AF_UNIX;
            snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
            const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            // A file under this pid was left by a dead process that had the pid before.
            unlink(path.c_str());
            if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 8) != 0 ||
                write(ready[1], "r", 1) != 1)
                _exit(1);
            for (;;) {
                const int c = accept(fd, nullptr, nullptr);
                char request[4096];
                if (c < 0 || recv(c, request, sizeof request, 0) <= 0) continue;
                send(c, reply.data(), reply.size(), MSG_NOSIGNAL);
                if (pauseMs) usleep(static_cast<useconds_t>(pauseMs) * 1000);
                close(c);
            }
        }
        close(ready[1]);
        char c;
        ready_ = pid_ > 0 && read(ready[0], &c, 1) == 1;
        close(ready[0]);
    }
    ~RawCallee() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        unlink(kep_test::imiSocketPath(pid_).c_str());
    }
    pid_t pid() const { return pid_; }
    bool ready() const { return ready_; }

private:
    pid_t pid_ = -1;
    bool ready_ = false;
};

// A frame around body: magic and big-endian length.
std::string frame(const std::string &body, const char *magic = "KIM2") {
    const uint32_t n = static_cast<uint32_t>(body.size());
    const char length[] = {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                           static_cast<char>(n)};
    return std::string(magic, 4) + std::string(length, 4) + body;
}

// A request for cb with no deadline and one integer member "n".
std::string requestFrame(const std::string &cb, int n) {
    const char value[] = {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                          static_cast<char>(n)};
    return frame(std::string("\x01", 1) + std::string(8, '\0') + static_cast<char>(cb.size()) + cb +
                 std::string("\x01\x00\x01n", 4) + std::string(value, 4));
}

// Reads a whole reply frame from fd; false when none comes.
bool readReply(int fd) {
    timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    std::string reply;
    auto whole = [&reply] {
        uint32_t body = 0;
        if (reply.size() >= 8) memcpy(&body, &reply[4], 4);
        return reply.size() >= 8 && reply.size() >= 8 + ntohl(body);
    };
    char buf[4096];
    for (ssize_t n; !whole();) {
        if ((n = recv(fd, buf, sizeof buf, 0)) <= 0) return false;
        reply.append(buf, static_cast<size_t>(n));
    }
    return true;
}

bool sendRequest(int fd, const std::string &request) {
    return send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size());
}

// Sends request on fd and reads the whole reply frame; false when none comes.
bool roundTrip(int fd, const std::string &request) {
    return sendRequest(fd, request) && readReply(fd);
}

}  // namespace

// A reply is taken only whole and well-formed; anything else fails the call with
// QXRPC_ERR_IO (a callee's own nonzero status is passed on) and leaves the set as it was.
TEST(ImiRemote, DamagedRepliesFailTheCall) {
    const std::string ok = std::string("\x02\0\0\0\0\x01\x01\x06result\0\0\0\x02ok", 20);
    const struct {
        std::string reply;
        int rc;
    } cases[] = {
        {frame(ok), 0},
        {frame(ok) + "trailing", 0},  // bytes past the frame are dropped
        {frame(std::string("\x02\xff\xff\xff\xf7\0", 6)), -9},
        {frame(std::string("\x02\0\0\0\x01\0", 6)), 1},
        {frame(std::string("\x02\0\0\0\0\0", 6), "KIM1"), QXRPC_ERR_IO},
        {frame(std::string("\x01\0\0\0\0\0", 6)), QXRPC_ERR_IO},       // a request's kind
        {frame(std::string("\x02\0\0\0\0", 5)), QXRPC_ERR_IO},         // no member count
        {frame(std::string("\x02\0\0\0\x07", 5)), QXRPC_ERR_IO},       // a status, but no member count
        {frame(ok).substr(0, 20), QXRPC_ERR_IO},                       // cut short
        {frame(std::string(ok).replace(5, 1, "\x02")), QXRPC_ERR_IO},  // more members than sent
        {frame(std::string(ok).replace(18, 1, std::string(1, '\0'))), QXRPC_ERR_IO},  // NUL in a text
        {frame(ok + "x"), QXRPC_ERR_IO},  // a byte after the members
        // A member name with no room for its terminator.
        {frame(std::string(ok).replace(7, 7, std::string("\x20", 1) + std::string(32, 'r'))), QXRPC_ERR_IO},
        {frame(""), QXRPC_ERR_IO},
        {"", QXRPC_ERR_IO},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.reply));
        RawCallee callee(c.reply);
        ASSERT_TRUE(callee.ready());
        kep::RpcPara set;
        qxrpcAddStringPtr(set.get(), "table", "t");
        EXPECT_EQ(qxImiExecute(callee.pid(), "cb", 0, 0, set.get()), c.rc);
        EXPECT_EQ(getText(set.get(), c.rc == 0 ? "result" : "table"), c.rc == 0 ? "ok" : "t");
        EXPECT_EQ(set.get()->count, 1);
    }
    // Cut short after a pause: the caller is waiting for the rest when the end comes.
    RawCallee slow(frame(ok).substr(0, 20), 50);
    ASSERT_TRUE(slow.ready());
    kep::RpcPara set;
    qxrpcAddStringPtr(set.get(), "table", "t");
    EXPECT_EQ(qxImiExecute(slow.pid(), "cb", 0, 0, set.get()), QXRPC_ERR_IO);
}

namespace {

// This process's descriptors connected to pid's socket.
std::vector<int> connectionsTo(pid_t pid) {
    const std::string path = kep_test::imiSocketPath(pid);
    std::vector<int> fds;
    for (const auto &e : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(e.path().filename().string());
        sockaddr_un peer{};
        socklen_t len = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &len) == 0 && peer.sun_family == AF_UNIX &&
            path == peer.sun_path) {
            fds.push_back(fd);
        }
    }
    return fds;
}

}  // namespace

// A thread's calls to one callee share one connection; a callee that closes it (here:
// more callers than it keeps connections for) costs its caller a reconnect, not an
// error; a forked child never writes on its parent's connections; a thread keeps
// connections to four callees at most.
TEST(ImiRemote, KeptConnections) {
    OwnerProcess owner({{"echoCb", kep_test::echoMembers()}});
    ASSERT_TRUE(owner.ready());
    auto callAt = [](pid_t pid, int n) {
        kep::RpcPara set;
        qxrpcAddInt(set.get(), "n", n);
        return qxImiExecute(pid, "echoCb", 0, 0, set.get()) == 0 &&
               getText(set.get(), "result") == "{\"n\":" + std::to_string(n) + "}";
    };
    auto call = [&](int n) { return callAt(owner.pid(), n); };
    ASSERT_TRUE(call(1));
    const std::vector<int> kept = connectionsTo(owner.pid());
    ASSERT_EQ(kept.size(), 1u);
    for (int i = 0; i < 5; i++) ASSERT_TRUE(call(i));
    EXPECT_EQ(connectionsTo(owner.pid()), kept);

    // The 70 callers queue at one owner; under valgrind the last of them can wait longer
    // than the default time-out, which is not what this checks.
    TimeoutGuard patient(60000);
    std::atomic<int> called{0}, failed{0};
    std::atomic<bool> again{false};
    std::vector<std::thread> callers;
    for (int t = 0; t < 70; t++) {
        callers.emplace_back([&, t] {
            if (!call(t)) failed++;
            called++;
            while (!again) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (!call(t)) failed++;
        });
    }
    while (called < 70) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(call(100));  // this thread's connection was dropped first
    again = true;
    for (std::thread &t : callers) t.join();
    EXPECT_EQ(failed, 0);

    // The child holds none of the parent's connections (checked by peer, not by the
    // descriptor number, which the parent may have reused since). Without standard input
    // its own connection is descriptor 0, kept all the same, also beside another.
    std::list<OwnerProcess> more;
    for (int i = 0; i < 4; i++) {
        more.emplace_back(kep_test::OwnerHandlers{{"echoCb", kep_test::echoMembers()}});
        ASSERT_TRUE(more.back().ready());
    }
    EXPECT_EQ(kep_test::inChild([&] {
                  const bool none = connectionsTo(owner.pid()).empty();
                  close(0);
                  return none && call(7) && callAt(more.front().pid(), 7) && call(8) &&
                                 connectionsTo(owner.pid()) == std::vector<int>{0}
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_TRUE(call(9));

    // Four callees at most: a fifth takes the place of one of them.
    int n = 0;
    for (const OwnerProcess &o : more) EXPECT_TRUE(callAt(o.pid(), n++));
    size_t held = connectionsTo(owner.pid()).size();
    for (const OwnerProcess &o : more) held += connectionsTo(o.pid()).size();
    EXPECT_EQ(held, 4u);
}

namespace {

int selfHandler(QxRpcPara *set, void *user) {
    ++*static_cast<std::atomic<int> *>(user);
    int n = 0;
    if (qxrpcGetInt(set, "n", &n) != 0) return 7;
    qxrpcAddInt(set, "errorCode", 0);
    return qxrpcAddStringPtr(set, "result", std::to_string(n * 2).c_str());
}

}  // namespace

TEST(ImiLocal, ParameterSetsHoldNamedMembers) {
    kep::RpcPara set;
    const std::string longest(QXRPC_NAME_MAX - 1, 'n');
    EXPECT_EQ(qxrpcAddInt(set.get(), "i", -3), 0);
    EXPECT_EQ(qxrpcAddStringPtr(set.get(), longest.c_str(), "t"), 0);
    EXPECT_EQ(qxrpcAddInt(set.get(), (longest + "n").c_str(), 1), QXRPC_ERR_ARG);
    EXPECT_EQ(qxrpcAddInt(set.get(), "", 1), QXRPC_ERR_ARG);
    EXPECT_EQ(qxrpcAddInt(set.get(), nullptr, 1), QXRPC_ERR_ARG);
    EXPECT_EQ(qxrpcAddStringPtr(set.get(), "s", nullptr), QXRPC_ERR_ARG);
    EXPECT_EQ(qxrpcAddInt(nullptr, "i", 1), QXRPC_ERR_ARG);
    EXPECT_EQ(qxrpcAddStringPtr(nullptr, "s", "t"), QXRPC_ERR_ARG);

    int v = 0;
    char *text = nullptr;
    EXPECT_EQ(qxrpcGetInt(set.get(), "i", &v), 0);
    EXPECT_EQ(v, -3);
    EXPECT_EQ(qxrpcGetStringPtr(set.get(), longest.c_str(), &text), 0);
    EXPECT_STREQ(text, "t");
    // A member of the other type, or none, is absent and nothing is stored.
    EXPECT_EQ(qxrpcGetInt(set.get(), longest.c_str(), &v), QXRPC_ERR_ABSENT);
    EXPECT_EQ(qxrpcGetStringPtr(set.get(), "i", &text), QXRPC_ERR_ABSENT);
    EXPECT_EQ(qxrpcGetInt(set.get(), "x", &v), QXRPC_ERR_ABSENT);
    EXPECT_EQ(qxrpcGetInt(set.get(), "i", nullptr), QXRPC_ERR_ABSENT);
    EXPECT_EQ(qxrpcGetStringPtr(set.get(), longest.c_str(), nullptr), QXRPC_ERR_ABSENT);
    EXPECT_EQ(qxrpcGetInt(nullptr, "i", &v), QXRPC_ERR_ABSENT);
    EXPECT_EQ(qxrpcGetInt(set.get(), nullptr, &v), QXRPC_ERR_ABSENT);
    // No member has an empty name, not even the unused slots past the last one.
    EXPECT_EQ(qxrpcGetInt(set.get(), "", &v), QXRPC_ERR_ABSENT);
    EXPECT_EQ(v, -3);
    EXPECT_STREQ(text, "t");

    // Full at QXRPC_MAX_MEMBERS; of two members of one name the first is read.
    for (int i = 2; i < QXRPC_MAX_MEMBERS; i++) EXPECT_EQ(qxrpcAddInt(set.get(), "i", i), 0);
    EXPECT_EQ(qxrpcAddInt(set.get(), "j", 1), QXRPC_ERR_FULL);
    EXPECT_EQ(qxrpcAddStringPtr(set.get(), "j", "x"), QXRPC_ERR_FULL);
    EXPECT_EQ(set.get()->count, QXRPC_MAX_MEMBERS);
    EXPECT_EQ(qxrpcGetInt(set.get(), "i", &v), 0);
    EXPECT_EQ(v, -3);
    qxrpcParaFree(set.get());
    EXPECT_EQ(set.get()->count, 0);
    EXPECT_EQ(qxrpcGetInt(set.get(), "i", &v), QXRPC_ERR_ABSENT);
    qxrpcParaFree(nullptr);
    qxrpcParaInit(nullptr);
}

TEST(ImiLocal, SelfCallRunsTheHandlerDirectly) {
    std::atomic<int> calls{0};
    ASSERT_EQ(qxImiRegister("selfCb", selfHandler, &calls), 0);
    kep::RpcPara set;
    qxrpcAddInt(set.get(), "n", 21);
    EXPECT_EQ(qxImiExecute(getpid(), "selfCb", 0, 0, set.get()), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(set.get()->count, 2);
    EXPECT_EQ(getText(set.get(), "result"), "42");

    kep::RpcPara noInput;
    qxrpcAddStringPtr(noInput.get(), "table", "t");
    EXPECT_EQ(qxImiExecute(getpid(), "selfCb", 0, 0, noInput.get()), 7);
    EXPECT_EQ(getText(noInput.get(), "table"), "t");

    EXPECT_EQ(qxImiUnregister("selfCb"), 0);
    EXPECT_EQ(qxImiExecute(getpid(), "selfCb", 0, 0, set.get()), QXRPC_ERR_NO_HANDLER);
    EXPECT_EQ(qxImiUnregister("selfCb"), QXRPC_ERR_NO_HANDLER);

    // The registry is bounded; a name registered again keeps its one place, and a place
    // given up is taken again.
    std::vector<std::string> names;
    while (names.size() < 100 &&
           qxImiRegister(("cb" + std::to_string(names.size())).c_str(), selfHandler, &calls) == 0)
        names.push_back("cb" + std::to_string(names.size()));
    EXPECT_EQ(names.size(), 64u);
    ASSERT_GE(names.size(), 2u);
    EXPECT_EQ(qxImiUnregister(names.front().c_str()), 0);
    EXPECT_EQ(qxImiRegister(names.back().c_str(), selfHandler, &calls), 0);
    EXPECT_EQ(qxImiRegister("another", selfHandler, &calls), 0);
    EXPECT_EQ(qxImiRegister("tooMany", selfHandler, &calls), QXRPC_ERR_FULL);
    for (const std::string &name : names) qxImiUnregister(name.c_str());
    qxImiUnregister("another");
    // A name over 127 characters is no name, for the registry as for a call.
    const std::string tooLong(128, 'c');
    EXPECT_EQ(qxImiRegister(tooLong.c_str(), selfHandler, &calls), QXRPC_ERR_ARG);
    EXPECT_EQ(qxImiUnregister(tooLong.c_str()), QXRPC_ERR_ARG);
}

// qxImiServeOnce tells whether it answered a request: one whose caller hung up before
// it was served is dropped unrun and counts for nothing; garbage is refused, and counts.
TEST(ImiLocal, ServeOnceCountsOnlyWhatItAnswered) {
    std::atomic<int> calls{0};
    ASSERT_EQ(qxImiRegister("selfCb", selfHandler, &calls), 0);
    ASSERT_GE(qxImiListen(), 0);
    const std::string request = requestFrame("selfCb", 4);
    int fd = rawConnect(getpid());
    ASSERT_EQ(send(fd, request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
    close(fd);
    EXPECT_EQ(qxImiServeOnce(200), 0);
    EXPECT_EQ(calls, 0);

    // A signal that cuts the wait short is no failure.
    struct sigaction poked {
    }, was{};
    poked.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &poked, &was), 0);
    const pthread_t server = pthread_self();
    std::thread poke([server] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        pthread_kill(server, SIGUSR1);
    });
    EXPECT_EQ(qxImiServeOnce(300), 0);
    poke.join();
    sigaction(SIGUSR1, &was, nullptr);

    // Without standard input the connection accepted is descriptor 0, served all the same.
    fd = rawConnect(getpid());
    close(0);
    std::thread caller([&] { EXPECT_TRUE(roundTrip(fd, request)); });
    EXPECT_EQ(qxImiServeOnce(3000), 1);
    caller.join();
    close(fd);
    EXPECT_EQ(calls, 1);

    fd = rawConnect(getpid());
    ASSERT_EQ(send(fd, "GET / HTTP/1.0\r\n\r\n", 18, MSG_NOSIGNAL), 18);
    EXPECT_EQ(qxImiServeOnce(3000), 1);
    EXPECT_TRUE(closedByPeer(fd, 1000));
    close(fd);
    // A header that is no frame's is refused as soon as it is in, not waited on for a body.
    fd = rawConnect(getpid());
    ASSERT_EQ(send(fd, "GET / HT", 8, MSG_NOSIGNAL), 8);
    EXPECT_EQ(qxImiServeOnce(3000), 1);
    EXPECT_TRUE(closedByPeer(fd, 1000));
    close(fd);
    // A caller the peer check turns away is answered with the refusal: that counts too.
    qxImiSetPeerCheck([](const QxImiCaller *, void *) { return 0; }, nullptr);
    fd = rawConnect(getpid());
    EXPECT_EQ(qxImiServeOnce(3000), 1);
    close(fd);
    qxImiSetPeerCheck(nullptr, nullptr);
    qxImiStopServer();
    qxImiUnregister("selfCb");
}

TEST(ImiLocal, BackgroundServerAnswersOtherProcesses) {
    // Standard input is open, and no closed connection's place takes it for its own.
    if (fcntl(0, F_GETFD) == -1) {
        ASSERT_EQ(open("/dev/null", O_RDONLY), 0);
    }
    // A child of a process that has never listened keeps it too.
    EXPECT_EQ(kep_test::inChild([] { return fcntl(0, F_GETFD) != -1 ? 0 : 1; }), 0);
    std::atomic<int> calls{0};
    ASSERT_EQ(qxImiRegister("selfCb", selfHandler, &calls), 0);
    const pid_t server = getpid();
    // Served, stopped (the socket goes), and served again.
    for (int round = 1; round <= 2; round++) {
        ASSERT_EQ(qxImiStartServer(), 0);
        EXPECT_EQ(kep_test::inChild([&] {
                      kep::RpcPara set;
                      qxrpcAddInt(set.get(), "n", 4);
                      const int rc = qxImiExecute(server, "selfCb", 0, 0, set.get());
                      return rc == 0 && getText(set.get(), "result") == "8" ? 0 : 1;
                  }),
                  0);
        EXPECT_EQ(calls, round);
        qxImiStopServer();
        struct stat st;
        EXPECT_NE(stat(kep_test::imiSocketPath(server).c_str(), &st), 0);
        EXPECT_NE(fcntl(0, F_GETFD), -1) << "the server closed descriptor 0";
    }
    // Background serving ended with the stop: serving in the foreground afterwards
    // answers on this thread and starts none.
    auto threads = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
    // The stopped server's thread may still be on its way out.
    for (int i = 0; i < 200 && threads() > 1; i++) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const auto before = threads();
    const pid_t child = fork();
    if (child == 0) {
        kep::RpcPara set;
        qxrpcAddInt(set.get(), "n", 1);
        _exit(qxImiExecute(server, "selfCb", 0, 0, set.get()) == 0 ? 0 : 1);
    }
    EXPECT_EQ(qxImiServeOnce(5000), 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(threads(), before);
    qxImiStopServer();
    qxImiUnregister("selfCb");
}

// A handler may stop the server it runs in: its caller is still answered, listening
// again is refused until the last serving thread is out, and then the socket goes. A
// stop from another thread meanwhile returns at once, leaving it to that thread too.
TEST(ImiLocal, AHandlerStopsItsOwnServer) {
    static std::atomic<int> listened{0};
    static std::atomic<bool> stopping{false}, stoppedOutside{false};
    ASSERT_EQ(qxImiRegister(
                  "stopCb",
                  [](QxRpcPara *set, void *) {
                      qxImiStopServer();
                      listened = qxImiListen();
                      stopping = true;
                      for (int i = 0; i < 2000 && !stoppedOutside; i++)
                          std::this_thread::sleep_for(std::chrono::milliseconds(1));
                      return stoppedOutside ? qxrpcAddInt(set, "errorCode", 0) : 5;
                  },
                  nullptr),
              0);
    EXPECT_EQ(qxImiStartServerThreads(0), -1);
    ASSERT_EQ(qxImiStartServerThreads(2), 0);
    const pid_t server = getpid();
    const pid_t child = fork();
    if (child == 0) {
        kep::RpcPara set;
        _exit(qxImiExecute(server, "stopCb", 0, 0, set.get()) == 0 ? 0 : 1);
    }
    for (int i = 0; i < 5000 && !stopping; i++) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    qxImiStopServer();
    stoppedOutside = true;
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(listened, -1);
    struct stat st;
    const auto start = Clock::now();
    while (stat(kep_test::imiSocketPath(server).c_str(), &st) == 0 && msSince(start) < 3000)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_NE(stat(kep_test::imiSocketPath(server).c_str(), &st), 0);
    qxImiUnregister("stopCb");
}

// A server without standard input listens on descriptor 0; stopping still closes it
// and takes its socket away. One without a descriptor left to listen on says so.
TEST(ImiLocal, AServerOnDescriptorZeroOpensAndRemovesItsSocket) {
    // Out of descriptors for the socket, the epoll set or the wake-up descriptor.
    for (size_t spare : {0, 1, 2}) {
        EXPECT_EQ(kep_test::inChild([spare] {
                      // Only the soft limit is lowered: valgrind keeps the hard one to itself.
                      rlimit few{};
                      getrlimit(RLIMIT_NOFILE, &few);
                      few.rlim_cur = 32;
                      std::vector<int> held;
                      for (int fd = 0;
                           setrlimit(RLIMIT_NOFILE, &few) == 0 && held.size() < 64 && (fd = dup(2)) >= 0;)
                          held.push_back(fd);
                      for (size_t i = 0; i < spare && !held.empty(); i++) {
                          close(held.back());
                          held.pop_back();
                      }
                      const bool refused = qxImiListen() < 0;
                      for (int fd : held) close(fd);
                      return refused ? 0 : 1;
                  }),
                  0)
            << spare << " spare";
    }
    EXPECT_EQ(kep_test::inChild([] {
                  close(0);
                  const std::string path = kep_test::imiSocketPath(getpid());
                  struct stat st, zero;
                  const bool listening = qxImiListen() >= 0 && stat(path.c_str(), &st) == 0 &&
                                         fstat(0, &zero) == 0 && S_ISSOCK(zero.st_mode);
                  // A peer check opens the socket to all, there as anywhere.
                  qxImiSetPeerCheck([](const QxImiCaller *, void *) { return 1; }, nullptr);
                  const bool opened = stat(path.c_str(), &st) == 0 && (st.st_mode & 0777) == 0666;
                  qxImiSetPeerCheck(nullptr, nullptr);
                  qxImiStopServer();
                  if (!opened) return 2;
                  return listening && stat(path.c_str(), &st) != 0 && fcntl(0, F_GETFD) == -1 ? 0 : 1;
              }),
              0);
    // One that exits while it listens there takes its socket away too (exit, not
    // inChild's _exit, so that the exit handlers run).
    const pid_t child = fork();
    if (child == 0) {
        close(0);
        exit(qxImiListen() >= 0 && fcntl(0, F_GETFD) != -1 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    struct stat st;
    EXPECT_NE(stat(kep_test::imiSocketPath(child).c_str(), &st), 0);
}

// Serving stopped while a caller keeps its connection: the caller's next call finds
// nobody at once instead of waiting out its time-out.
TEST(ImiLocal, StoppedServingClosesKeptConnections) {
    std::atomic<int> calls{0};
    ASSERT_EQ(qxImiRegister("selfCb", selfHandler, &calls), 0);
    ASSERT_GE(qxImiListen(), 0);
    const pid_t server = getpid();
    int go[2], done[2];
    ASSERT_EQ(pipe(go), 0);
    ASSERT_EQ(pipe(done), 0);
    pid_t child = fork();
    if (child == 0) {
        auto call = [&] {
            kep::RpcPara set;
            qxrpcAddInt(set.get(), "n", 1);
            return qxImiExecute(server, "selfCb", 0, 0, set.get());
        };
        char c = call() == 0 ? 'y' : 'n';
        if (write(done[1], &c, 1) != 1 || read(go[0], &c, 1) != 1) _exit(2);
        // Waiting on a connection nobody serves would end in a time-out instead.
        qxImiSetTimeout(3000);
        _exit(call() == QXRPC_ERR_NO_PEER ? 0 : 1);
    }
    // Started after the fork, so that the child has no thread object to lose.
    std::atomic<bool> serving{true};
    std::thread loop([&] {
        while (serving) qxImiServeOnce(20);
    });
    char c = 0;
    ASSERT_EQ(read(done[0], &c, 1), 1);
    EXPECT_EQ(c, 'y');
    serving = false;
    loop.join();
    qxImiStopServer();
    ASSERT_EQ(write(go[1], "x", 1), 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int fd : {go[0], go[1], done[0], done[1]}) close(fd);
    qxImiUnregister("selfCb");
}

// The runtime folder is refused, never followed or repaired, when it is a link, when
// another user made it first, or when others may write to it (unless it is root's and
// sticky).
TEST(ImiLocal, RefusesAnUnsafeRuntimeFolder) {
    char base[] = "/tmp/kep-rt-XXXXXX";
    ASSERT_NE(mkdtemp(base), nullptr);
    const std::string target = std::string(base) + "/target", link = std::string(base) + "/link";
    const std::string open = std::string(base) + "/open", foreign = std::string(base) + "/foreign";
    ASSERT_EQ(mkdir(target.c_str(), 0700), 0);
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    ASSERT_EQ(mkdir(open.c_str(), 0700), 0);
    ASSERT_EQ(chmod(open.c_str(), 0777), 0);
    ASSERT_EQ(mkdir(foreign.c_str(), 0700), 0);
    const bool root = geteuid() == 0;
    // The runtime folder of a session (XDG_RUNTIME_DIR), here of user 1 when run as root.
    const std::string xdg = std::string(base) + "/xdg";
    ASSERT_EQ(mkdir(xdg.c_str(), 0700), 0);
    if (root) {
        ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
        ASSERT_EQ(chown(xdg.c_str(), 1, 1), 0);
        ASSERT_EQ(chmod(base, 0711), 0);
    }
    EXPECT_EQ(kep_test::inChild([&] {
                  char named[256];
                  int bad = 0;
                  for (const std::string &dir : {link, open, foreign}) {
                      if (dir == foreign && !root) continue;
                      setenv("KEP_RUNTIME_DIR", dir.c_str(), 1);
                      if (qxImiRuntimeDir(named, sizeof named) != QXRPC_ERR_DIR || dir != named ||
                          qxImiListen() >= 0)
                          bad++;
                  }
                  // The parents of a folder named in the environment are made, each open to this
                  // user alone.
                  const std::string deep = std::string(base) + "/made/for/run";
                  setenv("KEP_RUNTIME_DIR", deep.c_str(), 1);
                  struct stat made;
                  if (qxImiRuntimeDir(named, sizeof named) != 0 || deep != named ||
                      stat((std::string(base) + "/made/for").c_str(), &made) != 0 ||
                      (made.st_mode & 0777) != 0700)
                      bad++;
                  // A folder in which no socket can be made.
                  setenv("KEP_RUNTIME_DIR", "/proc", 1);
                  if (qxImiListen() != -1) bad++;
                  // A name that does not fit a socket's path, and none at all.
                  setenv("KEP_RUNTIME_DIR",
                         (std::string(base) + "/" + std::string(107 - strlen(base), 'd')).c_str(), 1);
                  if (qxImiRuntimeDir(named, sizeof named) != QXRPC_ERR_ARG) bad++;
                  // A caller makes no folder: a missing one means nobody serves, also under a
                  // name that would leave no room for a socket's.
                  const std::string missing = std::string(base) + "/" + std::string(100 - strlen(base), 'm');
                  setenv("KEP_RUNTIME_DIR", missing.c_str(), 1);
                  kep::RpcPara none;
                  {
                      kep_test::LogCapture log;  // nor is it worth a line
                      if (qxImiExecute(getppid(), "cb", 0, 0, none.get()) != QXRPC_ERR_NO_PEER ||
                          access(missing.c_str(), F_OK) == 0 || log.contains("runtime folder"))
                          bad++;
                  }
                  // Made, it still leaves no room for one.
                  if (mkdir(missing.c_str(), 0700) != 0 || qxImiListen() != -1) bad++;
                  if (qxImiRuntimeDir(nullptr, sizeof named) != QXRPC_ERR_ARG ||
                      qxImiRuntimeDir(named, 0) != QXRPC_ERR_ARG)
                      bad++;
                  // Root's sticky folder is safe to share: nobody can take another's name in it.
                  setenv("KEP_RUNTIME_DIR", "/tmp", 1);
                  if (qxImiRuntimeDir(named, sizeof named) != 0) bad++;
                  chmod(open.c_str(), 0700);
                  setenv("KEP_RUNTIME_DIR", open.c_str(), 1);
                  int accepted = qxImiListen() >= 0;
                  qxImiStopServer();
                  // Root's own folder, when nobody names one, is open for reading whatever the
                  // umask (the sockets say who may connect). Tried only where it is missing:
                  // under an empty /run of this child's own where the kernel allows one.
                  unsetenv("KEP_RUNTIME_DIR");
                  if (root && unshare(CLONE_NEWNS) == 0 &&
                      mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0)
                      mount("kep-test", "/run", "tmpfs", 0, "mode=0755");
                  struct stat run;
                  if (root && stat("/run", &run) == 0 && stat("/run/kep", &run) != 0) {
                      const mode_t was = umask(0);
                      if (qxImiRuntimeDir(named, sizeof named) != 0 || strcmp(named, "/run/kep") != 0 ||
                          stat(named, &run) != 0 || (run.st_mode & 07777) != 0755)
                          bad++;
                      rmdir("/run/kep");
                      umask(was);
                  }
                  // Named by nobody, a user's folder is made in its session's, open to it alone.
                  setenv("XDG_RUNTIME_DIR", xdg.c_str(), 1);
                  umask(022);
                  if ((root && setuid(1) != 0) || qxImiRuntimeDir(named, sizeof named) != 0 ||
                      xdg + "/kep" != named || stat(named, &made) != 0 || (made.st_mode & 0777) != 0700)
                      bad++;
                  return bad == 0 && accepted ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(std::filesystem::is_empty(target)) << "nothing is made through the link";
    std::filesystem::remove_all(base);
}

// KEP_RPC_GROUP, read once, checked in fresh runs of this program: the group's members
// may enter the runtime folder (0750) and connect (0660); a member of another user is
// admitted by its supplementary groups, one outside the group is refused also when it
// reaches the socket. A name that is no group leaves both private.
TEST(ImiLocal, AGroupFromTheEnvironmentMayCall) {
    if (const char *want = getenv("KEP_TEST_GROUP")) {
        const int gid = atoi(want);
        char dir[256];
        ASSERT_GE(qxImiListen(), 0);  // which makes the folder
        ASSERT_EQ(qxImiRuntimeDir(dir, sizeof dir), 0);
        struct stat folder, socket;
        ASSERT_EQ(stat(dir, &folder), 0);
        ASSERT_EQ(stat(kep_test::imiSocketPath(getpid()).c_str(), &socket), 0);
        EXPECT_EQ(folder.st_mode & 0777, gid >= 0 ? 0750u : 0700u);
        EXPECT_EQ(socket.st_mode & 0777, gid >= 0 ? 0660u : 0600u);
        EXPECT_EQ(socket.st_uid, geteuid());
        if (gid >= 0) {
            EXPECT_EQ(folder.st_gid, static_cast<gid_t>(gid));
            EXPECT_EQ(socket.st_gid, static_cast<gid_t>(gid));
        }
        if (gid >= 0 && geteuid() == 0) {
            std::atomic<int> calls{0};
            ASSERT_EQ(qxImiRegister("selfCb", selfHandler, &calls), 0);
            ASSERT_EQ(qxImiStartServer(), 0);
            const pid_t server = getpid();
            // The answer to a call of user 65534 with these supplementary groups. Its
            // file-system group is the configured one: the server, not the folder's
            // mode, must tell a member from another.
            auto callAs = [&](std::vector<gid_t> groups) {
                const int code = kep_test::inChild([&] {
                    kep::RpcPara set;
                    qxrpcAddInt(set.get(), "n", 1);
                    if (setgroups(groups.size(), groups.data()) != 0 || setresgid(65533, 65533, gid) != 0 ||
                        setuid(65534) != 0)
                        return 100;
                    setfsgid(gid);
                    const int rc = qxImiExecute(server, "selfCb", 0, 0, set.get());
                    return rc == 0 ? 0 : rc == QXRPC_ERR_DENIED ? 1 : 2;
                });
                return std::string(code == 0 ? "served" : code == 1 ? "denied" : "failed");
            };
            EXPECT_EQ(callAs({100, static_cast<gid_t>(gid)}), "served");
            EXPECT_EQ(callAs({100}), "denied") << "a user outside the group";
            EXPECT_EQ(calls, 1);
            qxImiStopServer();
        }
        if (gid == 65534 && geteuid() == 0) {
            // A server that is not root may give its folder and socket their group, never
            // their owner: user 65534 of group 65533, with the configured one beside it.
            const std::string home = std::string(dir) + "-user", own = home + "/run";
            ASSERT_EQ(
                mkdir(home.c_str(), 0755) || chown(home.c_str(), 65534, 65533) || chmod(home.c_str(), 0755),
                0);
            EXPECT_EQ(kep_test::inChild([&] {
                          const gid_t groups[] = {65534};
                          if (setgroups(1, groups) != 0 || setgid(65533) != 0 || setuid(65534) != 0)
                              return 100;
                          setenv("KEP_RUNTIME_DIR", own.c_str(), 1);
                          if (qxImiListen() < 0) return 1;
                          struct stat mine, its;
                          const bool grouped = stat(own.c_str(), &mine) == 0 && mine.st_gid == 65534 &&
                                               stat(kep_test::imiSocketPath(getpid()).c_str(), &its) == 0 &&
                                               its.st_gid == 65534 && its.st_uid == 65534;
                          qxImiStopServer();
                          return grouped ? 0 : 2;
                      }),
                      0);
        }
        return;
    }
    char base[] = "/tmp/kep-grp-XXXXXX";
    ASSERT_NE(mkdtemp(base), nullptr);
    ASSERT_EQ(chmod(base, 0755), 0);
    // Folders made in base start with its group, so that root's own group must be set too.
    if (geteuid() == 0) {
        ASSERT_EQ(chown(base, static_cast<uid_t>(-1), 65534) || chmod(base, 02755), 0);
    }
    // As root any group, and root's own; else a supplementary group, if there is one.
    std::vector<std::pair<std::string, int>> cases = {{"kep-no-such-group", -1}};
    if (geteuid() == 0) {
        cases.insert(cases.end(), {{"65534", 65534}, {"0", 0}});
        if (const struct group *g = getgrgid(65534)) cases.emplace_back(g->gr_name, 65534);
    } else {
        gid_t groups[64];
        const int n = getgroups(64, groups);
        for (int i = 0; i < n && cases.size() == 1; i++)
            if (groups[i] != getegid())
                cases.emplace_back(std::to_string(groups[i]), static_cast<int>(groups[i]));
    }
    int run = 0;
    for (const auto &[name, gid] : cases) {
        const std::string dir = std::string(base) + "/run" + std::to_string(run++),
                          want = std::to_string(gid);
        EXPECT_EQ(kep_test::rerunAlone("ImiLocal.AGroupFromTheEnvironmentMayCall",
                                       {{"KEP_RPC_GROUP", name.c_str()},
                                        {"KEP_RUNTIME_DIR", dir.c_str()},
                                        {"KEP_TEST_GROUP", want.c_str()}}),
                  0)
            << name;
    }
    std::filesystem::remove_all(base);
}

// ---- no caller waits on another ----

namespace {

// A raw connection that sends the start of a request and then stalls.
int stalledClient(pid_t pid, size_t bytes) {
    int fd = rawConnect(pid);
    const std::string start = std::string("KIM2\0\0\0\x64\x01", 9) + std::string(8, '\0') +
                              "\x06"
                              "echoCb";
    if (fd >= 0) send(fd, start.data(), bytes < start.size() ? bytes : start.size(), MSG_NOSIGNAL);
    return fd;
}

int64_t monotonicMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

// Callers that stop half-way through a request, or after one byte, hold no serving
// thread: others are answered meanwhile, and the stalled ones are dropped once the
// callee's time-out has passed.
TEST(ImiServe, StalledCallersCostOnlyTheirOwnConnection) {
    kep_test::OwnerOptions options;
    options.setup = [] { qxImiSetTimeout(400); };
    OwnerProcess owner({{"echoCb", kep_test::echoMembers()}}, options);
    ASSERT_TRUE(owner.ready());
    std::vector<int> stalled;
    for (size_t bytes : {1, 5, 12, 20}) stalled.push_back(stalledClient(owner.pid(), bytes));
    auto start = Clock::now();
    long slowest = 0;
    for (int i = 0; i < 20; i++) {
        auto t = Clock::now();
        kep::RpcPara set;
        qxrpcAddInt(set.get(), "n", i);
        ASSERT_EQ(qxImiExecute(owner.pid(), "echoCb", 0, 0, set.get()), 0);
        EXPECT_EQ(getText(set.get(), "result"), "{\"n\":" + std::to_string(i) + "}");
        slowest = std::max(slowest, msSince(t));
    }
    EXPECT_LT(slowest, 300) << "a call waited for a stalled caller";
    for (int fd : stalled) {
        EXPECT_TRUE(closedByPeer(fd, 3000)) << "a stalled caller is dropped after the time-out";
        close(fd);
    }
    EXPECT_GE(msSince(start), 300);
    EXPECT_EQ(owner.calls().size(), 20u);

    // Also when nothing else happens meanwhile.
    OwnerProcess quiet({{"echoCb", kep_test::echoMembers()}}, options);
    ASSERT_TRUE(quiet.ready());
    const int lone = stalledClient(quiet.pid(), 12);
    EXPECT_TRUE(closedByPeer(lone, 3000)) << "a lone stalled caller is dropped after the time-out";
    close(lone);
}

// Requests still being received hold 64 MiB at most, all callers together: a caller
// whose request would take more is dropped, the others keep theirs. Here two callers
// each stop one byte short of the largest body a frame may have, and a third short of
// the body that fills the 64 MiB exactly. A connection kept idle after a request just
// over 64 KiB has given its buffer back, or the third would not fit.
TEST(ImiServe, HalfReceivedRequestsHoldBoundedMemory) {
    kep_test::OwnerOptions options;
    options.setup = [] { qxImiSetTimeout(10000); };
    OwnerProcess owner({{"echoCb", kep_test::echoMembers()}}, options);
    ASSERT_TRUE(owner.ready());
    const std::string body(32u << 20, 'x');
    const std::string almost = frame(body).substr(0, 8 + body.size() - 1);
    auto sendAll = [](int fd, const std::string &data) {
        for (size_t at = 0; at < data.size();) {
            const ssize_t n = send(fd, data.data() + at, data.size() - at, MSG_NOSIGNAL);
            if (n <= 0) return false;
            at += static_cast<size_t>(n);
        }
        return true;
    };
    kep::RpcPara justOver;
    ASSERT_EQ(qxrpcAddStringPtr(justOver.get(), "s", std::string(64 * 1024 + 300, 's').c_str()), 0);
    ASSERT_EQ(qxImiExecute(owner.pid(), "echoCb", 0, 0, justOver.get()), 0);
    const int first = rawConnect(owner.pid()), second = rawConnect(owner.pid());
    ASSERT_TRUE(first >= 0 && second >= 0);
    EXPECT_TRUE(sendAll(first, almost));
    EXPECT_FALSE(sendAll(second, almost));
    EXPECT_TRUE(closedByPeer(second, 3000));
    EXPECT_FALSE(closedByPeer(first, 0));
    // One that takes exactly the rest keeps it, until it hangs up (the owner serves in
    // one thread, so the hang-up is handled before the call after it).
    const int rest = rawConnect(owner.pid());
    const std::string fill = frame(std::string((32u << 20) - 16, 'x'));
    EXPECT_TRUE(sendAll(rest, fill.substr(0, fill.size() - 1)));
    close(rest);
    kep::RpcPara set;
    qxrpcAddInt(set.get(), "n", 3);
    EXPECT_EQ(qxImiExecute(owner.pid(), "echoCb", 0, 0, set.get()), 0);
    close(first);
    close(second);
}

// With every place taken by idle callers a new caller is still served: the idle
// connection used least recently makes room. A request already waiting in it is
// answered first, and counts as served; then its caller is hung up on. Served by
// qxImiServeOnce, so that all of it has arrived before the server looks.
TEST(ImiServe, IdleCallersMakeRoomForNewOnes) {
    std::atomic<int> calls{0};
    ASSERT_EQ(qxImiRegister("selfCb", selfHandler, &calls), 0);
    ASSERT_EQ(qxImiRegister(
                  "bigCb",
                  [](QxRpcPara *set, void *) {
                      static const std::string big(1u << 20, 'y');
                      qxrpcAddInt(set, "errorCode", 0);
                      return qxrpcAddStringPtr(set, "result", big.c_str());
                  },
                  nullptr),
              0);
    ASSERT_GE(qxImiListen(), 0);
    constexpr int kPlaces = 256;
    std::vector<int> idle;
    for (int i = 0; i < kPlaces; i++) {
        idle.push_back(rawConnect(getpid()));
        ASSERT_TRUE(sendRequest(idle.back(), requestFrame("selfCb", i)));
        ASSERT_EQ(qxImiServeOnce(3000), 1) << i;
        ASSERT_TRUE(readReply(idle.back())) << i;
        if (i < 5) std::this_thread::sleep_for(std::chrono::milliseconds(3));  // the oldest, in order
    }
    // The newcomer connects before the oldest caller's next request arrives.
    const int first = rawConnect(getpid());
    ASSERT_TRUE(sendRequest(idle[0], requestFrame("selfCb", 1)));
    EXPECT_EQ(qxImiServeOnce(3000), 1);
    EXPECT_TRUE(readReply(idle[0]));
    EXPECT_TRUE(closedByPeer(idle[0], 1000));
    for (int i = 1; i < kPlaces; i++) EXPECT_FALSE(closedByPeer(idle[i], 0)) << i;
    ASSERT_TRUE(sendRequest(first, requestFrame("selfCb", 2)));
    EXPECT_EQ(qxImiServeOnce(3000), 1);
    EXPECT_TRUE(readReply(first));

    // Replies too large to send at once keep their places taken until they are out:
    // after four such tries the newcomer is hung up on, and each reply arrives whole.
    // (Under valgrind reading them takes longer than the default time-out for a reply.)
    TimeoutGuard patient(60000);
    const int second = rawConnect(getpid());
    for (int i = 1; i <= 4; i++) ASSERT_TRUE(sendRequest(idle[i], requestFrame("bigCb", i)));
    EXPECT_EQ(qxImiServeOnce(3000), 1);
    EXPECT_TRUE(closedByPeer(second, 1000));
    std::atomic<bool> serving{true};
    std::thread loop([&] {
        while (serving) qxImiServeOnce(20);
    });
    for (int i = 1; i <= 4; i++) {
        EXPECT_TRUE(readReply(idle[i])) << i;
        EXPECT_TRUE(closedByPeer(idle[i], 2000)) << i;
    }
    serving = false;
    loop.join();

    // A caller that hangs up while its reply is going out gives its place up at once,
    // not when the reply's time runs out.
    auto ownSockets = [] {
        const std::string path = kep_test::imiSocketPath(getpid());
        size_t n = 0;
        for (const auto &e : std::filesystem::directory_iterator("/proc/self/fd")) {
            sockaddr_un name{};
            socklen_t len = sizeof name;
            n += getsockname(std::stoi(e.path().filename().string()), reinterpret_cast<sockaddr *>(&name),
                             &len) == 0 &&
                 name.sun_family == AF_UNIX && path == name.sun_path;
        }
        return n;
    };
    const int quitter = rawConnect(getpid());
    ASSERT_TRUE(sendRequest(quitter, requestFrame("bigCb", 5)));
    EXPECT_EQ(qxImiServeOnce(3000), 1);
    const size_t before = ownSockets();
    close(quitter);
    EXPECT_EQ(qxImiServeOnce(200), 0);
    EXPECT_EQ(ownSockets(), before - 1);

    // Once every place holds a request still arriving, no connection can make room: a
    // newcomer is hung up on at once, and none of the others is.
    std::vector<int> held(idle.begin() + 5, idle.end());
    held.push_back(first);
    while (held.size() < kPlaces) held.push_back(rawConnect(getpid()));
    for (int fd : held) ASSERT_EQ(send(fd, "K", 1, MSG_NOSIGNAL), 1);
    EXPECT_EQ(qxImiServeOnce(300), 0);
    const int late = rawConnect(getpid());
    EXPECT_EQ(qxImiServeOnce(100), 0);
    EXPECT_TRUE(closedByPeer(late, 1000));
    for (int fd : held) EXPECT_FALSE(closedByPeer(fd, 0));
    close(late);
    for (size_t i = kPlaces - 4; i < held.size(); i++) close(held[i]);
    for (int fd : idle) close(fd);
    close(first);
    close(second);
    qxImiStopServer();
    qxImiUnregister("selfCb");
    qxImiUnregister("bigCb");
}

// With several serving threads, a handler that takes long holds up nobody else.
TEST(ImiServe, SlowHandlersDoNotHoldUpOthers) {
    kep_test::OwnerOptions options;
    options.threads = 4;
    OwnerProcess owner({{"slow",
                         [](QxRpcPara *set) {
                             std::this_thread::sleep_for(std::chrono::milliseconds(1500));
                             return qxrpcAddInt(set, "errorCode", 0);
                         }},
                        {"echoCb", kep_test::echoMembers()}},
                       options);
    ASSERT_TRUE(owner.ready());
    std::atomic<int> slowDone{0};
    std::vector<std::thread> slow;
    for (int i = 0; i < 3; i++) {
        slow.emplace_back([&] {
            kep::RpcPara set;
            if (qxImiExecute(owner.pid(), "slow", 0, 0, set.get()) == 0) slowDone++;
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    long slowest = 0;
    for (int i = 0; i < 10; i++) {
        auto t = Clock::now();
        kep::RpcPara set;
        qxrpcAddInt(set.get(), "n", i);
        ASSERT_EQ(qxImiExecute(owner.pid(), "echoCb", 0, 0, set.get()), 0);
        slowest = std::max(slowest, msSince(t));
    }
    EXPECT_EQ(slowDone, 0) << "the slow calls were still running";
    EXPECT_LT(slowest, 500);
    for (std::thread &t : slow) t.join();
    EXPECT_EQ(slowDone, 3);
}

// A handler learns its caller from the kernel, whatever the request's members say.
TEST(ImiServe, HandlersSeeTheCallersCredentials) {
    auto who = [](QxRpcPara *set) {
        QxImiCaller c;
        if (qxImiCaller(&c) != 0) return qxrpcAddInt(set, "errorCode", -1);
        const std::string text = std::to_string(c.pid) + "/" + std::to_string(c.uid);
        qxrpcAddInt(set, "errorCode", 0);
        return qxrpcAddStringPtr(set, "result", text.c_str());
    };
    OwnerProcess owner({{"who", who}});
    ASSERT_TRUE(owner.ready());
    const std::string me = std::to_string(getpid()) + "/" + std::to_string(geteuid());
    kep::RpcPara set;
    qxrpcAddInt(set.get(), "pid", 1);
    ASSERT_EQ(qxImiExecute(owner.pid(), "who", 0, 0, set.get()), 0);
    EXPECT_EQ(getText(set.get(), "result"), me);

    QxImiCaller outside;
    EXPECT_EQ(qxImiCaller(&outside), -1);
    static auto selfWho = who;
    ASSERT_EQ(qxImiRegister(
                  "selfWho", [](QxRpcPara *s, void *) { return selfWho(s); }, nullptr),
              0);
    kep::RpcPara self;
    ASSERT_EQ(qxImiExecute(getpid(), "selfWho", 0, 0, self.get()), 0);
    EXPECT_EQ(getText(self.get(), "result"), me);
    qxImiUnregister("selfWho");

    // A caller the peer check refuses is told so at once, also when the callee hangs up
    // while a large request is still being sent.
    kep_test::OwnerOptions closed;
    closed.setup = [] { qxImiSetPeerCheck([](const QxImiCaller *, void *) { return 0; }, nullptr); };
    OwnerProcess refusing({{"who", who}}, closed);
    ASSERT_TRUE(refusing.ready());
    for (size_t size : {size_t{1}, size_t{4} << 20}) {
        kep::RpcPara big;
        qxrpcAddStringPtr(big.get(), "text", std::string(size, 'x').c_str());
        const auto start = Clock::now();
        EXPECT_EQ(qxImiExecute(refusing.pid(), "who", 0, 0, big.get()), QXRPC_ERR_DENIED) << size;
        EXPECT_LT(msSince(start), 1000) << size;
    }
    EXPECT_TRUE(refusing.calls().empty());
}

// A caller that gave up was told the call failed: the callee must not run it later,
// whether the caller hung up or its deadline passed with the connection still open.
TEST(ImiServe, RequestsOfCallersThatGaveUpAreNotRun) {
    OwnerProcess owner({{"echoCb", kep_test::echoMembers()}});
    ASSERT_TRUE(owner.ready());
    {
        TimeoutGuard impatient(200);
        ASSERT_EQ(kill(owner.pid(), SIGSTOP), 0);
        for (int i = 0; i < 3; i++) {
            kep::RpcPara set;
            qxrpcAddInt(set.get(), "n", i);
            EXPECT_EQ(qxImiExecute(owner.pid(), "echoCb", 0, 0, set.get()), QXRPC_ERR_TIMEOUT);
        }
        ASSERT_EQ(kill(owner.pid(), SIGCONT), 0);
    }
    // The deadline in the request: already passed (a moment ago, and the earliest there
    // is), with the caller still connected.
    for (const uint64_t past : {static_cast<uint64_t>(monotonicMs() - 1), uint64_t{1}}) {
        int fd = rawConnect(owner.pid());
        ASSERT_GE(fd, 0);
        std::string body = "\x01";
        for (int shift = 56; shift >= 0; shift -= 8) body += static_cast<char>(past >> shift);
        body += std::string(
            "\x06"
            "echoCb\x00",
            8);
        const std::string frame = std::string("KIM2\0\0\0", 7) + static_cast<char>(body.size()) + body;
        ASSERT_EQ(send(fd, frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
        EXPECT_TRUE(closedByPeer(fd, 3000)) << past;
        close(fd);
    }

    kep::RpcPara set;
    qxrpcAddInt(set.get(), "n", 9);
    ASSERT_EQ(qxImiExecute(owner.pid(), "echoCb", 0, 0, set.get()), 0);
    const auto calls = owner.calls();
    ASSERT_EQ(calls.size(), 1u) << "a request its caller had given up on was run";
    EXPECT_EQ(calls[0].find("n")->value, 9);
}

// A handler's own calls end before its caller's deadline, so that it can still
// answer: here with the code its hung callee gave. With no time left, a further call
// fails at once, without looking for its callee. A handler called in-process from
// outside any handler has no caller's deadline to keep.
TEST(ImiServe, NestedCallsEndBeforeTheCallersDeadline) {
    OwnerProcess hung({{"cb", kep_test::hang()}});
    ASSERT_TRUE(hung.ready());
    const int hungPid = hung.pid();
    OwnerProcess relay({{"relay",
                         [hungPid](QxRpcPara *set) {
                             kep::RpcPara inner;
                             const int rc = qxImiExecute(hungPid, "cb", 0, 0, inner.get());
                             const int late = qxImiExecute(999999999, "cb", 0, 0, inner.get());
                             qxrpcAddInt(set, "errorCode", 0);
                             return qxrpcAddStringPtr(
                                 set, "result", (std::to_string(rc) + " " + std::to_string(late)).c_str());
                         }},
                        {"echoCb", kep_test::echoMembers()}});
    ASSERT_TRUE(relay.ready());
    TimeoutGuard timeout(800);  // the relay's own time-out stays the default 5 s
    kep::RpcPara set;
    auto start = Clock::now();
    ASSERT_EQ(qxImiExecute(relay.pid(), "relay", 0, 0, set.get()), 0);
    const std::string timedOut = std::to_string(QXRPC_ERR_TIMEOUT);
    EXPECT_EQ(getText(set.get(), "result"), timedOut + " " + timedOut);
    EXPECT_LT(msSince(start), 800);

    static pid_t relayPid;
    relayPid = relay.pid();
    ASSERT_EQ(qxImiRegister(
                  "selfRelay",
                  [](QxRpcPara *, void *) {
                      kep::RpcPara inner;
                      return qxImiExecute(relayPid, "echoCb", 0, 0, inner.get());
                  },
                  nullptr),
              0);
    kep::RpcPara self;
    EXPECT_EQ(qxImiExecute(getpid(), "selfRelay", 0, 0, self.get()), 0);
    qxImiUnregister("selfRelay");
}

// Only the process a socket is named after is talked to: a socket planted under a
// live process's name by another is never sent a request.
TEST(ImiServe, ASocketUnderAnotherProcesssNameIsNotUsed) {
    kep_test::OwnerOptions silent;
    silent.serve = false;
    OwnerProcess victim({{"cb", kep_test::answer(0)}}, silent);
    ASSERT_TRUE(victim.ready());
    const std::string path = kep_test::imiSocketPath(victim.pid());
    ASSERT_EQ(unlink(path.c_str()), 0);
    int squatter = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    ASSERT_EQ(bind(squatter, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(squatter, 4), 0);
    kep::RpcPara set;
    qxrpcAddStringPtr(set.get(), "secret", "s3cret");
    EXPECT_EQ(qxImiExecute(victim.pid(), "cb", 0, 0, set.get()), QXRPC_ERR_NO_PEER);
    int conn = accept4(squatter, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    char c;
    EXPECT_TRUE(conn < 0 || recv(conn, &c, 1, 0) <= 0) << "the request reached the squatter";
    if (conn >= 0) close(conn);
    close(squatter);
    unlink(path.c_str());
}

namespace {

// Context switches and CPU time of threads of this process.
struct Usage {
    long wakes = 0;
    long cpuMs = 0;
};

std::vector<int> threadIds() {
    std::vector<int> ids;
    for (const auto &e : std::filesystem::directory_iterator("/proc/self/task"))
        ids.push_back(std::stoi(e.path().filename()));
    return ids;
}

// Per thread, for the threads not in old: the sanitizers' and an emulator's own
// threads, and the test's, keep their clocks out of it.
std::vector<std::pair<int, Usage>> usageOfThreadsSince(const std::vector<int> &old) {
    std::vector<std::pair<int, Usage>> out;
    for (int id : threadIds()) {
        if (std::find(old.begin(), old.end(), id) != old.end()) continue;
        const std::string dir = "/proc/self/task/" + std::to_string(id);
        Usage u;
        std::ifstream status(dir + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0 ||
                line.rfind("nonvoluntary_ctxt_switches:", 0) == 0)
                u.wakes += std::stol(line.substr(line.find(':') + 1));
        }
        std::ifstream statFile(dir + "/stat");
        std::string stat((std::istreambuf_iterator<char>(statFile)), std::istreambuf_iterator<char>());
        std::istringstream fields(stat.substr(stat.rfind(')') + 2));
        std::string field;
        long ticks = 0;
        for (int i = 3; i <= 15 && fields >> field; i++) {
            if (i >= 14) ticks += std::stol(field);  // utime, stime
        }
        u.cpuMs = ticks * 1000 / sysconf(_SC_CLK_TCK);
        out.emplace_back(id, u);
    }
    return out;
}

// What the threads started since old did while this one slept for half a second.
Usage newThreadsWhileAsleep(const std::vector<int> &old) {
    const auto before = usageOfThreadsSince(old);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    Usage sum;
    for (const auto &[id, now] : usageOfThreadsSince(old)) {
        for (const auto &[was, then] : before) {
            if (was != id) continue;
            sum.wakes += now.wakes - then.wakes;
            sum.cpuMs += now.cpuMs - then.cpuMs;
        }
    }
    return sum;
}

}  // namespace

// A device's processes serve all day and are called now and then: serving threads
// with nothing to do sleep in the kernel, without connections, with an idle one kept
// open, and in a caller's own serving loop; neither polls nor wakes on a timer.
TEST(ImiServe, AnIdleServerSleeps) {
    std::atomic<int> calls{0};
    ASSERT_EQ(qxImiRegister("selfCb", selfHandler, &calls), 0);
    const pid_t server = getpid();
    // The first thread a process starts may bring a sanitizer's own along.
    std::thread([] {}).join();
    const std::vector<int> old = threadIds();
    auto callFromChild = [&] {
        return kep_test::inChild([&] {
            kep::RpcPara set;
            qxrpcAddInt(set.get(), "n", 2);
            return qxImiExecute(server, "selfCb", 0, 0, set.get()) == 0 ? 0 : 1;
        });
    };
    // One background thread, and several (a call makes a second one start).
    for (int threads : {1, 4}) {
        ASSERT_EQ(qxImiStartServerThreads(threads), 0);
        EXPECT_EQ(callFromChild(), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        Usage idle = newThreadsWhileAsleep(old);
        EXPECT_LE(idle.wakes, 2) << threads << " threads, no connection";
        EXPECT_LT(idle.cpuMs, 50) << threads << " threads, no connection";
        // Kept open after a request that came in two pieces: the time-out the first piece
        // was given goes with the request.
        const int kept = rawConnect(server);
        ASSERT_GE(kept, 0);
        const std::string request = requestFrame("selfCb", 2);
        ASSERT_EQ(send(kept, request.data(), 5, MSG_NOSIGNAL), 5);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_TRUE(roundTrip(kept, request.substr(5)));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        idle = newThreadsWhileAsleep(old);
        EXPECT_LE(idle.wakes, 2) << threads << " threads, an idle connection";
        EXPECT_LT(idle.cpuMs, 50) << threads << " threads, an idle connection";
        close(kept);
        qxImiStopServer();
    }

    // A serving loop of the caller's own, without a time limit (ended by a stop: a
    // child forked now would lose the loop's thread, which valgrind counts as a leak
    // of the child), then with one.
    std::atomic<int> served{-1};
    std::thread loop([&] { served = qxImiServeOnce(-1); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const Usage idle = newThreadsWhileAsleep(old);
    EXPECT_LE(idle.wakes, 2) << "qxImiServeOnce(-1)";
    EXPECT_LT(idle.cpuMs, 50) << "qxImiServeOnce(-1)";
    EXPECT_EQ(served, -1) << "qxImiServeOnce(-1) returned before the stop";
    qxImiStopServer();
    loop.join();
    EXPECT_EQ(served, 0);
    rusage before{}, after{};
    getrusage(RUSAGE_THREAD, &before);
    EXPECT_EQ(qxImiServeOnce(300), 0);
    EXPECT_EQ(qxImiServeOnce(0), 0);  // nothing waiting: back at once
    getrusage(RUSAGE_THREAD, &after);
    EXPECT_LE(after.ru_nvcsw - before.ru_nvcsw, 3) << "qxImiServeOnce(300), qxImiServeOnce(0)";
    qxImiStopServer();
    qxImiUnregister("selfCb");
}
