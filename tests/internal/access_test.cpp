// Access control of the RPC: a process of another user can neither reach an owner's
// socket through the stand-in nor, with the folder opened up, get a call served by
// talking to the socket directly (it is told it is refused); the owner's own user is
// served.
#include <arpa/inet.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "child.h"
#include "kep_pf_rpc.h"
#include "owner_process.h"

namespace {

constexpr uid_t kNobody = 65534;

// Runs fn in a child that has dropped to user (and group) id; its exit status, or -1.
template <typename Fn>
int asUser(uid_t id, Fn fn) {
    return kep_test::inChild([&] {
        const bool dropped =
            setgroups(0, nullptr) == 0 && setgid(id) == 0 && setuid(id) == 0 && geteuid() == id;
        return dropped ? fn() : 100;
    });
}

template <typename Fn>
int asNobody(Fn fn) {
    return asUser(kNobody, fn);
}

// A well-formed request frame for callback cb without members.
std::string requestFrame(const std::string &cb) {
    std::string body;
    body += '\x01';
    body.append(8, '\0');  // no deadline
    body += static_cast<char>(cb.size());
    body += cb;
    body += '\x00';
    uint32_t header[2] = {htonl(0x4b494d32u), htonl(static_cast<uint32_t>(body.size()))};
    return std::string(reinterpret_cast<const char *>(header), sizeof header) + body;
}

// Sends frame straight to the socket: 0 when the peer hung up without a reply, 1 when
// it replied, 2 when the connection failed, 3 when nothing happened in time.
int rawCall(const std::string &socketPath, const std::string &frame) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socketPath.c_str());
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) return 2;
    // A callee that refuses may have answered and hung up before the frame is sent: the
    // send then fails, and the answer is still there to read.
    ssize_t sent = send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
    (void)sent;
    pollfd p = {fd, POLLIN, 0};
    char byte;
    int rc = poll(&p, 1, 3000) != 1 ? 3 : recv(fd, &byte, 1, 0) > 0 ? 1 : 0;
    close(fd);
    return rc;
}

class Access : public ::testing::Test {
protected:
    // Each test opens its own runtime folder to the other user: tests run in parallel,
    // and one restoring a shared folder's mode would close it under another.
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root to run a child as another user";
        const char *shared = getenv("KEP_RUNTIME_DIR");
        if (shared) savedDir_ = shared;
        std::string tmpl =
            (shared && *shared ? std::string(shared) : std::string("/tmp/kep-access")) + ".XXXXXX";
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        ownDir_ = tmpl;
        setenv("KEP_RUNTIME_DIR", ownDir_.c_str(), 1);
    }
    void TearDown() override {
        if (ownDir_.empty()) return;
        std::error_code ignored;
        std::filesystem::remove_all(ownDir_, ignored);
        if (savedDir_.empty())
            unsetenv("KEP_RUNTIME_DIR");
        else
            setenv("KEP_RUNTIME_DIR", savedDir_.c_str(), 1);
    }
    static int callOwner(pid_t owner, std::string *result = nullptr) {
        QxRpcPara set;
        qxrpcParaInit(&set);
        int rc = qxImiExecute(static_cast<int>(owner), "whoCb", 0, 0, &set);
        char *text = nullptr;
        if (rc == 0 && result && qxrpcGetStringPtr(&set, "result", &text) == 0) *result = text;
        qxrpcParaFree(&set);
        return rc;
    }

private:
    std::string savedDir_;
    std::string ownDir_;
};

TEST_F(Access, AnotherUserIsRefusedWhileTheOwnersUserIsServed) {
    kep_test::OwnerProcess owner({{"whoCb", kep_test::answer(0, "\"served\"")}});
    ASSERT_TRUE(owner.ready());

    std::string result;
    ASSERT_EQ(callOwner(owner.pid(), &result), 0);
    EXPECT_EQ(result, "\"served\"");

    // Through the stand-in: the folder is closed to the other user, who does not even
    // trust a folder it does not own.
    EXPECT_EQ(asNobody([&] { return callOwner(owner.pid()) == QXRPC_ERR_NO_PEER ? 0 : 1; }), 0);

    // Straight to the socket with the folder and the socket opened up: the owner
    // checks the peer's credentials and hangs up without serving the call.
    const std::string socket = kep_test::imiSocketPath(owner.pid());
    const std::string dir = std::filesystem::path(socket).parent_path();
    struct stat dirStat;
    ASSERT_EQ(stat(dir.c_str(), &dirStat), 0);
    ASSERT_EQ(chmod(dir.c_str(), 0711), 0);
    ASSERT_EQ(chmod(socket.c_str(), 0777), 0);
    const std::string frame = requestFrame("whoCb");
    ASSERT_EQ(rawCall(socket, frame), 1);  // the frame is one the owner serves
    owner.clearCalls();
    int direct = asNobody([&] { return rawCall(socket, frame); });
    // Through the stand-in the refusal comes back as such, without a wait.
    auto start = std::chrono::steady_clock::now();
    int refused = asNobody([&] { return callOwner(owner.pid()) == QXRPC_ERR_DENIED ? 0 : 1; });
    const auto took = std::chrono::steady_clock::now() - start;
    // Root's calls are let in, not those of the user numbered 1.
    const int daemonRefused = asUser(1, [&] { return callOwner(owner.pid()) == QXRPC_ERR_DENIED ? 0 : 1; });
    chmod(dir.c_str(), dirStat.st_mode & 07777);
    EXPECT_EQ(direct, 1) << "the owner answers a refusal";
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(daemonRefused, 0);
    EXPECT_LT(took, std::chrono::seconds(1));
    EXPECT_TRUE(owner.calls().empty());

    // The owner serves its own user as before.
    result.clear();
    EXPECT_EQ(callOwner(owner.pid(), &result), 0);
    EXPECT_EQ(result, "\"served\"");
}

// A peer check lets the owner admit another user: the socket becomes connectable, and
// the check, not the file's mode, decides.
TEST_F(Access, APeerCheckAdmitsTheUsersItNames) {
    kep_test::OwnerOptions options;
    options.setup = [] {
        qxImiSetPeerCheck(
            [](const QxImiCaller *peer, void *) -> int { return peer->uid == 0 || peer->uid == 65534; },
            nullptr);
    };
    kep_test::OwnerProcess owner({{"whoCb", kep_test::answer(0, "\"served\"")}}, options);
    ASSERT_TRUE(owner.ready());
    const std::string socket = kep_test::imiSocketPath(owner.pid());
    struct stat st;
    ASSERT_EQ(stat(socket.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    const std::string dir = std::filesystem::path(socket).parent_path();
    ASSERT_EQ(stat(dir.c_str(), &st), 0);
    ASSERT_EQ(chmod(dir.c_str(), 0711), 0);
    int admitted = asNobody([&] { return callOwner(owner.pid()) == 0 ? 0 : 1; });
    chmod(dir.c_str(), st.st_mode & 07777);
    EXPECT_EQ(admitted, 0);
    EXPECT_EQ(owner.calls().size(), 1u);
}

}  // namespace
