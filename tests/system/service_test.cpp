// kepd under a service manager: the readiness it tells through $NOTIFY_SOCKET, and
// where its log goes when it runs in the background.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "kep_host.h"
#include "processes.h"

namespace {

using namespace kep_test;

class Service : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = systemTestFolder("/tmp/ks");
        ASSERT_FALSE(dir_.empty());
        writeModel("dhcpd/dhcp.xml.in", dir_, dir_ + "/dhcp.xml");
    }

    void TearDown() override {
        if (kepd_ > 0) {
            kill(kepd_, SIGTERM);
            reap(kepd_, 3000);
        }
        if (fd_ >= 0) close(fd_);
        unsetenv("NOTIFY_SOCKET");
        unsetenv("JOURNAL_STREAM");
        if (HasFailure()) printf("---- kepd.log\n%s", readText(dir_ + "/kepd.log").c_str());
        std::filesystem::remove_all(dir_);
    }

    // A datagram socket as the service manager has one: at a path, or abstract when
    // name starts with "@". Sets NOTIFY_SOCKET for the programs started after.
    void listenAsManager(const std::string &name) {
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(fd_, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        ASSERT_LT(name.size(), sizeof addr.sun_path);
        memcpy(addr.sun_path, name.data(), name.size());
        if (name[0] == '@') addr.sun_path[0] = '\0';
        const socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        ASSERT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&addr), len), 0) << strerror(errno);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }

    // The next datagram, or "" when none came within ms.
    std::string nextMessage(int ms = 10000) {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, ms * kSlow) != 1) return "";
        char buf[512];
        const ssize_t n = recv(fd_, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
    }

    void startHost(std::vector<std::string> extra = {}) {
        std::vector<std::string> argv = {KEPD_PATH, "-m", dir_ + "/dhcp.xml"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        kepd_ = spawn(argv, dir_ + "/kepd.log");
    }

    int stopHost() {
        kill(kepd_, SIGTERM);
        const int status = reap(kepd_, 5000 * kSlow);
        kepd_ = -1;
        return status;
    }

    std::string dir_;
    pid_t kepd_ = -1;
    int fd_ = -1;
};

// READY=1 comes once clients can reach the host, at a path or an abstract name alike,
// and STOPPING=1 when it stops.
TEST_F(Service, TellsTheManagerWhenItServesAndWhenItStops) {
    const std::string abstractName = "@kep-notify-" + std::to_string(getpid());
    for (const std::string &name : {dir_ + "/notify", abstractName}) {
        SCOPED_TRACE(name);
        listenAsManager(name);
        startHost();
        const std::string ready = nextMessage();
        EXPECT_NE(ready.find("READY=1"), std::string::npos) << ready;
        EXPECT_NE(ready.find("STATUS=serving 1 module"), std::string::npos) << ready;
        EXPECT_EQ(kepHostPid(), kepd_);
        EXPECT_EQ(kepHostWait(0), 0) << "READY=1 before the host answers";
        EXPECT_EQ(nextMessage(100), "") << "told twice";
        EXPECT_EQ(stopHost(), 0);
        EXPECT_EQ(nextMessage(), "STOPPING=1");
        close(fd_);
        fd_ = -1;
    }
}

// A manager that asks on a socket nobody listens on does not stop the host.
TEST_F(Service, ServesWhenTheManagerIsGone) {
    setenv("NOTIFY_SOCKET", (dir_ + "/nobody").c_str(), 1);
    startHost();
    EXPECT_EQ(kepHostWait(10000 * kSlow), 0);
    EXPECT_EQ(stopHost(), 0);
    EXPECT_NE(readText(dir_ + "/kepd.log").find("cannot tell the service manager"), std::string::npos);
}

// Standard error that is the journal's stream gets no log (it goes to syslog), unless
// -f keeps it there; a file of its own is written as ever.
TEST_F(Service, LogsToSyslogWhenStandardErrorIsTheJournal) {
    const std::string log = dir_ + "/kepd.log";
    for (const char *mode : {"journal", "journal -f", "file"}) {
        SCOPED_TRACE(mode);
        writeText(log, "");
        struct stat st {};
        ASSERT_EQ(stat(log.c_str(), &st), 0);
        if (std::string(mode) != "file") {
            setenv("JOURNAL_STREAM", (std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino)).c_str(),
                   1);
        } else {
            unsetenv("JOURNAL_STREAM");
        }
        startHost(std::string(mode) == "journal -f" ? std::vector<std::string>{"-f"}
                                                    : std::vector<std::string>{});
        ASSERT_EQ(kepHostWait(10000 * kSlow), 0);
        EXPECT_EQ(stopHost(), 0);
        const std::string text = readText(log);
        if (std::string(mode) == "journal") {
            EXPECT_EQ(text.find("kepd:"), std::string::npos) << text;
        } else {
            EXPECT_NE(text.find("kepd: serving as pid"), std::string::npos) << text;
            EXPECT_NE(text.find("kepd: stopped"), std::string::npos) << text;
        }
    }
}

}  // namespace
