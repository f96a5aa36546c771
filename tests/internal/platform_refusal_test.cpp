// The stand-in's RPC and the kernel's resources: the extra serving threads the server
// starts under load and lets go once idle, what it does when the kernel refuses it a
// thread or a watch on a new connection (a device out of memory or at a limit), and
// descriptor 0 in a process that closed its standard input, and sends and receives
// that a signal cuts short or the kernel takes a byte at a time. This program's own
// pthread_create, epoll_ctl, epoll_create1, eventfd, send and recv, which the platform
// library's calls reach first, count the threads, refuse the next call when told to,
// free descriptor 0 for it, or cut the call short.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
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
std::atomic<bool> gEpollAtZero{false};
std::atomic<bool> gWakeAtZero{false};
std::atomic<bool> gTrickle{false};
thread_local bool tSendCut;
thread_local bool tRecvCut;

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

// When told to, the next epoll set or wake-up is made as descriptor 0.
extern "C" int epoll_create1(int flags) {
    static const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "epoll_create1"));
    if (gEpollAtZero.exchange(false)) close(0);
    return real(flags);
}

extern "C" int eventfd(unsigned int count, int flags) {
    static const auto real = reinterpret_cast<int (*)(unsigned int, int)>(dlsym(RTLD_NEXT, "eventfd"));
    if (gWakeAtZero.exchange(false)) close(0);
    return real(count, flags);
}

// When told to, every other send or receive of a thread fails with EINTR, as a signal
// makes it, and the others move one byte at most, as a socket nearly full or nearly
// empty does.
extern "C" ssize_t send(int fd, const void *data, size_t len, int flags) {
    static const auto real =
        reinterpret_cast<ssize_t (*)(int, const void *, size_t, int)>(dlsym(RTLD_NEXT, "send"));
    if (gTrickle) {
        if ((tSendCut = !tSendCut)) {
            errno = EINTR;
            return -1;
        }
        if (len > 1) len = 1;
    }
    return real(fd, data, len, flags);
}

extern "C" ssize_t recv(int fd, void *data, size_t len, int flags) {
    static const auto real =
        reinterpret_cast<ssize_t (*)(int, void *, size_t, int)>(dlsym(RTLD_NEXT, "recv"));
    if (gTrickle && !(flags & MSG_PEEK)) {
        if ((tRecvCut = !tRecvCut)) {
            errno = EINTR;
            return -1;
        }
        if (len > 1) len = 1;
    }
    return real(fd, data, len, flags);
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

// Calls of "answerCb" from count children at once, all forked before any of them calls
// (a fork from a thread while others allocate would leave the child's allocator
// locked): how many children's call (answered, or another body) came out true.
int callsFromChildren(int count, bool (*call)(pid_t server) = answered) {
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
            _exit(call(server) ? 0 : 1);
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
        gEpollAtZero = gWakeAtZero = gTrickle = false;
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
    EXPECT_EQ(callsFromChildren(1), 1);
}

// Calls one at a time keep one thread waiting beside the one that serves, not one more
// for each call: a waiting thread counts as idle.
TEST_F(ImiRefusal, CallsOneAtATimeKeepOneThreadSpare) {
    const int before = gRunning;
    ASSERT_EQ(qxImiStartServerThreads(5), 0);
    for (int i = 0; i < 4; i++) EXPECT_EQ(callsFromChildren(1), 1);
    // 2, or 3 when a call came before the spare thread had begun to wait.
    EXPECT_LT(gRunning - before, 4);
}

// A server that could not start its thread says so, and starts when asked again.
TEST_F(ImiRefusal, AServingThreadTheKernelRefusesIsReported) {
    gRefuseThreads = 1;
    EXPECT_EQ(qxImiStartServerThreads(2), -1);
    EXPECT_EQ(gRefuseThreads, 0) << "no thread was asked for";
    EXPECT_EQ(qxImiStartServerThreads(2), 0);
    EXPECT_EQ(callsFromChildren(1), 1);
}

// A connection the kernel will not watch is closed rather than left holding its
// place unserved: the caller is not kept waiting, and the server goes on serving.
TEST_F(ImiRefusal, AConnectionTheKernelWillNotWatchIsClosed) {
    ASSERT_EQ(qxImiStartServerThreads(1), 0);
    EXPECT_EQ(callsFromChildren(1), 1);
    gRefuseWatches = 1;
    const auto start = std::chrono::steady_clock::now();
    callsFromChildren(1);  // answered on the caller's second connection, or not at all
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(gRefuseWatches, 0) << "no connection was watched";
    for (int i = 0; i < 3; i++) EXPECT_EQ(callsFromChildren(1), 1) << i;
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// The descriptor the next open takes.
int lowestFree() {
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(fd);
    return fd;
}

// Standard input closed, as a daemon has it, for the guard's life.
class NoStdin {
public:
    NoStdin() : saved_(dup(0)) { close(0); }
    ~NoStdin() {
        dup2(saved_, 0);
        close(saved_);
    }
    NoStdin(const NoStdin &) = delete;
    NoStdin &operator=(const NoStdin &) = delete;

private:
    int saved_;
};

// Whether a process forked now finds descriptor 0 closed.
bool forkHasNoZero() {
    return kep_test::inChild([] { return isOpen(0) ? 1 : 0; }) == 0;
}

// A child's body: the fork left it none of the server's descriptors, so its own
// connection takes descriptor 0, and is answered.
bool answeredOnZero(pid_t server) {
    return !isOpen(0) && answered(server) && isOpen(0);
}

// A child's body: its calls keep one connection on descriptor 0 between them, and a
// process it forks has none of it. (No thread is started here: qemu's user mode fails
// to start one in a child of a process that has threads.)
bool keptOnZero(pid_t server) {
    close(0);
    const bool first = answered(server);
    const int free = lowestFree();
    const bool kept = first && isOpen(0) && answered(server) && answered(server) && lowestFree() == free;
    return kept && forkHasNoZero();
}

// Whatever a process opens once its standard input is closed may be descriptor 0: the
// listening socket, a connection on either side, the epoll set, the wake-up. Each serves
// and is closed like any other, and a fork keeps none of them.
TEST_F(ImiRefusal, DescriptorZeroIsLikeAnyOther) {
    {
        NoStdin none;
        ASSERT_EQ(qxImiStartServerThreads(1), 0);
        EXPECT_TRUE(isOpen(0)) << "the listening socket";
        EXPECT_EQ(callsFromChildren(2, answeredOnZero), 2);
        EXPECT_EQ(callsFromChildren(1, keptOnZero), 1);
        qxImiStopServer();
    }

    // A connection on descriptor 0, still held by its caller when the server stops.
    ASSERT_EQ(qxImiStartServerThreads(1), 0);
    int result[2], release[2];
    ASSERT_EQ(pipe(result), 0);
    ASSERT_EQ(pipe(release), 0);
    {
        NoStdin none;
        const pid_t server = getpid();
        const pid_t pid = fork();
        if (pid == 0) {
            close(release[1]);
            const char ok = answered(server) ? 'y' : 'n';
            char c;
            if (write(result[1], &ok, 1) != 1 || read(release[0], &c, 1) < 0) _exit(1);
            _exit(0);
        }
        ASSERT_GT(pid, 0);
        char ok = 0;
        EXPECT_EQ(read(result[0], &ok, 1), 1);
        EXPECT_EQ(ok, 'y');
        EXPECT_TRUE(isOpen(0)) << "the caller's connection";
        EXPECT_TRUE(forkHasNoZero()) << "a fork keeps no connection";
        qxImiStopServer();
        EXPECT_FALSE(isOpen(0));
        close(release[1]);
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
    }
    for (int fd : {result[0], result[1], release[0]}) close(fd);

    for (std::atomic<bool> *atZero : {&gEpollAtZero, &gWakeAtZero}) {
        const int saved = dup(0);
        *atZero = true;
        ASSERT_EQ(qxImiStartServerThreads(1), 0);
        EXPECT_FALSE(*atZero) << "made without descriptor 0";
        if (atZero == &gEpollAtZero) {
            EXPECT_EQ(qxImiListen(), 0) << "the set is made once";
        }
        EXPECT_EQ(callsFromChildren(1), 1);
        qxImiStopServer();
        EXPECT_FALSE(isOpen(0));
        dup2(saved, 0);
        close(saved);
    }
}

// Requests and replies sent a byte at a time, each send and receive cut short by a
// signal before it goes through, still arrive whole.
TEST_F(ImiRefusal, SendsAByteAtATimeAndSignalsLoseNothing) {
    ASSERT_EQ(qxImiStartServerThreads(2), 0);
    gTrickle = true;
    EXPECT_EQ(callsFromChildren(3), 3);
}

}  // namespace
