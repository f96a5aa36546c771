// The stand-in's RPC server and the kernel's resources: the extra serving threads it
// starts under load and lets go once idle, and what it does when the kernel refuses it
// a thread or a watch on a new connection (a device out of memory or at a limit). This
// program's own pthread_create and epoll_ctl, which the platform library's calls reach
// first, count the threads and refuse the next call when told to.
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "base/guard.h"
#include "child.h"
#include "kep_pf_rpc.h"

namespace {

std::atomic<int> gRefuseThreads{0};
std::atomic<int> gRefuseWatches{0};
std::atomic<int> gRunning{0};  // threads started here and not yet returned

// What a counted thread runs, in slots taken in turn rather than on the heap: a child
// forked before a new thread has read its slot must not inherit a block it never frees.
struct Start {
    void *(*fn)(void *);
    void *arg;
};
Start gStarts[256];
std::atomic<unsigned> gNextStart{0};

void *counted(void *p) {
    const Start start = *static_cast<Start *>(p);
    void *result = start.fn(start.arg);
    gRunning--;
    return result;
}

// Takes one refusal from counter; true when there was one.
bool refuseOne(std::atomic<int> &counter) {
    int left = counter.load();
    while (left > 0 && !counter.compare_exchange_weak(left, left - 1)) {
    }
    return left > 0;
}

}  // namespace

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*start)(void *),
                              void *arg) {
    using Real = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "pthread_create"));
    if (refuseOne(gRefuseThreads)) return EAGAIN;
    Start *slot = &gStarts[gNextStart++ % (sizeof gStarts / sizeof gStarts[0])];
    *slot = {start, arg};
    gRunning++;
    const int rc = real(thread, attr, counted, slot);
    if (rc != 0) gRunning--;
    return rc;
}

extern "C" int epoll_ctl(int epfd, int op, int fd, struct epoll_event *event) {
    using Real = int (*)(int, int, int, struct epoll_event *);
    static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "epoll_ctl"));
    if (op == EPOLL_CTL_ADD && refuseOne(gRefuseWatches)) {
        errno = ENOMEM;
        return -1;
    }
    return real(epfd, op, fd, event);
}

namespace {

// When set, a handler waits (3 s at most) until this many are running at once: the
// server must have started that many threads, however slowly the callers come.
std::atomic<int> gTogether{0};
std::atomic<int> gRunningHandlers{0};

int answer(QxRpcPara *set, void *) {
    gRunningHandlers++;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (gRunningHandlers < gTogether && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return qxrpcAddInt(set, "answer", 42);
}

// Whether a call of server's "answerCb" is answered with 42.
bool answered(pid_t server) {
    kep::RpcPara set;
    int value = 0;
    return qxImiExecute(server, "answerCb", 0, 0, set.get()) == 0 &&
           qxrpcGetInt(set.get(), "answer", &value) == 0 && value == 42;
}

// The same from a forked child, which has connections of its own: 0 when answered.
int callFromChild() {
    const pid_t server = getpid();
    return kep_test::inChild([server] { return answered(server) ? 0 : 1; });
}

// Calls of "answerCb" from count children at once, all forked before any of them calls
// (a fork from a thread while others allocate would leave the child's allocator
// locked): how many were answered with 42.
int callsFromChildren(int count) {
    int go[2];
    if (pipe(go) != 0) return -1;
    const pid_t server = getpid();
    std::vector<pid_t> children;
    for (int i = 0; i < count; i++) {
        const pid_t pid = fork();
        if (pid == 0) {
            char c;
            close(go[1]);
            while (read(go[0], &c, 1) < 0 && errno == EINTR) {
            }
            _exit(answered(server) ? 0 : 1);
        }
        if (pid > 0) children.push_back(pid);
    }
    // Closing the pipe releases them all at once.
    close(go[0]);
    close(go[1]);
    int answered = 0;
    for (const pid_t pid : children) {
        int status = 0;
        answered += waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    return answered;
}

class ImiRefusal : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(qxImiRegister("answerCb", answer, nullptr), 0); }
    void TearDown() override {
        gTogether = 0;
        gRefuseThreads = 0;
        gRefuseWatches = 0;
        qxImiStopServer();
        qxImiUnregister("answerCb");
    }
};

// Calls that wait on each other start extra serving threads, up to the limit; once
// none of them has been needed for 5 s they end, all but one, which serves on.
TEST_F(ImiRefusal, ExtraServingThreadsEndOnceIdle) {
    const int before = gRunning;
    ASSERT_EQ(qxImiStartServerThreads(3), 0);
    gRunningHandlers = 0;
    gTogether = 3;
    EXPECT_EQ(callsFromChildren(4), 4);
    const auto loaded = std::chrono::steady_clock::now();
    gTogether = 0;
    EXPECT_EQ(gRunning - before, 3) << "serving threads under load";
    while (gRunning - before > 1 && std::chrono::steady_clock::now() < loaded + std::chrono::seconds(8))
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(gRunning - before, 1) << "serving threads 8 s after the load";
    // Every thread's 5-second wait has ended by now: the one left waits for work without
    // a limit, even when it had been an extra one itself.
    std::this_thread::sleep_until(loaded + std::chrono::milliseconds(5800));
    EXPECT_EQ(gRunning - before, 1);
    EXPECT_EQ(callFromChild(), 0);
}

// A server that could not start its thread says so, serves nothing meanwhile, and
// starts when asked again.
TEST_F(ImiRefusal, AServingThreadTheKernelRefusesIsReported) {
    gRefuseThreads = 1;
    EXPECT_EQ(qxImiStartServerThreads(2), -1);
    EXPECT_EQ(gRefuseThreads, 0) << "no thread was asked for";
    EXPECT_EQ(qxImiStartServerThreads(2), 0);
    EXPECT_EQ(callFromChild(), 0);
}

// A connection the kernel will not watch is closed rather than left holding its
// place unserved: the caller is not kept waiting, and the server goes on serving.
TEST_F(ImiRefusal, AConnectionTheKernelWillNotWatchIsClosed) {
    ASSERT_EQ(qxImiStartServerThreads(1), 0);
    EXPECT_EQ(callFromChild(), 0);
    gRefuseWatches = 1;
    const auto start = std::chrono::steady_clock::now();
    callFromChild();  // answered on the caller's second connection, or not at all
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(gRefuseWatches, 0) << "no connection was watched";
    for (int i = 0; i < 3; i++) EXPECT_EQ(callFromChild(), 0) << i;
}

}  // namespace
