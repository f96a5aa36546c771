// The owner's kit across real processes: the smallest example owner (ntpd) with the
// host, started in either order, restarted, handed files it did not write, and reset.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include <json-c/json.h>

#include "kep_host.h"
#include "kep_owner.h"
#include "kep_pf_rpc.h"
#include "processes.h"

namespace {

using namespace kep_test;

class Kit : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = systemTestFolder("/tmp/kk");
        ASSERT_FALSE(dir_.empty());
        writeModel("ntpd/ntp.xml.in", dir_, model());
    }

    void TearDown() override {
        stop(&owner_);
        stop(&host_);
        qxImiSetTimeout(0);
        if (HasFailure()) {
            for (const char *log : {"kepd.log", "ntpd.log"})
                printf("---- %s\n%s", log, readText(dir_ + "/" + log).c_str());
        }
        std::filesystem::remove_all(dir_);
    }

    std::string model() const { return dir_ + "/ntp.xml"; }
    std::string file() const { return dir_ + "/ntp.json"; }

    void startHost() { host_ = spawn({KEPD_PATH, "-m", model()}, dir_ + "/kepd.log"); }
    void startOwner() { owner_ = spawn({NTPD_PATH, model()}, dir_ + "/ntpd.log"); }
    static void stop(pid_t *pid, int sig = SIGTERM) {
        if (*pid <= 0) return;
        kill(*pid, sig);
        reap(*pid, 3000);
        *pid = -1;
    }

    std::string request(const std::string &text) { return hostRequest(text); }
    // "error_code" of the response, or the RPC's failure.
    int code(const std::string &text) {
        const std::string response = request(text);
        json_object *rsp = json_tokener_parse(response.c_str()), *c = nullptr;
        int value = json_object_object_get_ex(rsp, "error_code", &c) ? json_object_get_int(c) : -99999;
        json_object_put(rsp);
        return value;
    }

    // The owner serves everything through the host.
    bool waitServed(int ms = 10000) {
        const auto until = Clock::now() + std::chrono::milliseconds(ms * kSlow);
        while (Clock::now() < until) {
            if (code(R"({"method":"do","ntp":{"sync":{}}})") == 0 &&
                code(R"({"method":"get","ntp":{"table":"server","name":"main"}})") == 0)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    std::string dir_;
    pid_t host_ = -1, owner_ = -1;
};

const char kGetAll[] = R"({"method":"get","ntp":{"table":"server","name":"main"}})";
const char kGetServers[] = R"({"method":"get","ntp":{"table":"server"}})";
const char kGetMain[] = R"({"method":"get","ntp":{"name":"main"}})";

TEST_F(Kit, EitherStartOrderEndsWithTheDefaults) {
    for (bool ownerFirst : {true, false}) {
        SCOPED_TRACE(ownerFirst ? "owner first" : "host first");
        std::filesystem::remove(file());
        // The second starts while the first is already at work.
        ownerFirst ? startOwner() : startHost();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ownerFirst ? startHost() : startOwner();
        ASSERT_TRUE(waitServed());
        EXPECT_NE(request(kGetMain).find(R"("main":{"enabled":true,"zone":"UTC","intervalMinutes":60})"),
                  std::string::npos);
        EXPECT_NE(request(kGetServers).find(R"("count":{"server":2})"), std::string::npos);
        EXPECT_NE(readText(file()).find("1.pool.ntp.org"), std::string::npos);
        stop(&owner_);
        stop(&host_);
    }
}

TEST_F(Kit, EveryMethodServedFromTheFile) {
    startHost();
    startOwner();
    ASSERT_TRUE(waitServed());
    // Named section: members laid over the stored ones; what the record cannot take
    // is refused whole.
    EXPECT_EQ(code(R"({"method":"set","ntp":{"main":{"zone":"CET"}}})"), 0);
    EXPECT_EQ(code(R"({"method":"set","ntp":{"main":{"zone":"CET","colour":1}}})"), KEP_OWNER_ERR_INVALID);
    EXPECT_EQ(code(R"({"method":"set","ntp":{"main":{"intervalMinutes":"often"}}})"), KEP_OWNER_ERR_INVALID);
    EXPECT_NE(request(kGetMain).find(R"("zone":"CET","intervalMinutes":60)"), std::string::npos)
        << request(kGetMain);

    // List: named by the kit, or by the client within the table's prefix.
    EXPECT_EQ(request(R"({"method":"add","ntp":{"table":"server","para":{"address":"time.example"}}})"),
              R"({"ntp":{"name":["server_3"]},"error_code":0})");
    EXPECT_EQ(code(R"({"method":"add","ntp":{"table":"server","name":"server_9","para":{"address":"b"}}})"),
              0);
    EXPECT_EQ(code(R"({"method":"add","ntp":{"table":"server","name":"server_9","para":{"address":"c"}}})"),
              KEP_OWNER_ERR_EXISTS);
    EXPECT_EQ(code(R"({"method":"add","ntp":{"table":"server","name":"peer_1","para":{"address":"c"}}})"),
              KEP_OWNER_ERR_EXISTS);
    // The owner's check refuses with its own code.
    EXPECT_EQ(code(R"({"method":"add","ntp":{"table":"server","para":{"prefer":true}}})"), 2001);
    EXPECT_EQ(code(R"({"method":"set","ntp":{"server_3":{"address":""}}})"), 2001);
    EXPECT_EQ(request(R"({"method":"add","ntp":{"table":"server","para":{"address":"d"}}})"),
              R"({"ntp":{"name":["server_10"]},"error_code":0})");

    // A filter selects rows for a read, a change and a delete.
    EXPECT_EQ(
        code(R"({"method":"set","ntp":{"table":"server","filter":{"prefer":false},"para":{"prefer":true}}})"),
        0);
    const std::string rows = request(R"({"method":"get","ntp":{"table":"server","filter":{"prefer":0}}})");
    EXPECT_NE(rows.find(R"("count":{"server":0})"), std::string::npos) << rows;
    EXPECT_EQ(code(R"({"method":"delete","ntp":{"table":"server","filter":{"address":"b"}}})"), 0);
    EXPECT_EQ(code(R"({"method":"delete","ntp":{"name":"server_1"}})"), 0);
    EXPECT_EQ(code(R"({"method":"delete","ntp":{"name":"server_1"}})"), KEP_OWNER_ERR_NOT_FOUND);
    const std::string left = request(kGetServers);
    EXPECT_NE(left.find(R"("count":{"server":3})"), std::string::npos) << left;
    EXPECT_EQ(left.find("server_9"), std::string::npos);

    EXPECT_EQ(request(R"({"method":"do","ntp":{"sync":{}}})"), R"({"synced":true,"error_code":0})");
    // Deleting every row leaves an empty list, not the defaults, after a restart.
    EXPECT_EQ(code(R"({"method":"delete","ntp":{"table":"server"}})"), 0);
    stop(&owner_);
    startOwner();
    ASSERT_TRUE(waitServed());
    EXPECT_NE(request(kGetServers).find(R"("count":{"server":0})"), std::string::npos);
    EXPECT_NE(request(kGetMain).find("CET"), std::string::npos);
}

TEST_F(Kit, RestartsOfEitherSideKeepValuesAndRegistrations) {
    startOwner();
    startHost();
    ASSERT_TRUE(waitServed());
    ASSERT_EQ(code(R"({"method":"set","ntp":{"main":{"intervalMinutes":5}}})"), 0);
    stop(&host_, SIGKILL);
    startHost();
    ASSERT_TRUE(waitServed()) << "the owner registers with the new host";
    stop(&owner_, SIGKILL);
    startOwner();
    ASSERT_TRUE(waitServed()) << "the restarted owner registers again";
    EXPECT_NE(request(kGetMain).find(R"("intervalMinutes":5)"), std::string::npos);
}

TEST_F(Kit, AFileTheOwnerDidNotWriteIsCompleted) {
    // Written by someone else: no tables at all, then a section the record cannot take.
    for (const char *text : {"{}", R"({"settings":{"main":{"zone":5}},"server":[]})"}) {
        SCOPED_TRACE(text);
        writeText(file(), text);
        startOwner();
        startHost();
        ASSERT_TRUE(waitServed());
        EXPECT_NE(request(kGetMain).find(R"("zone":"UTC")"), std::string::npos);
        stop(&owner_);
        stop(&host_);
    }
    EXPECT_NE(readText(dir_ + "/ntpd.log").find("section main unusable"), std::string::npos);
    // The stored empty list stays empty; the missing one got its defaults.
    EXPECT_EQ(readText(file()).find("pool.ntp.org"), std::string::npos);
}

TEST_F(Kit, FactoryResetLeavesNothingStale) {
    startOwner();
    startHost();
    ASSERT_TRUE(waitServed());
    ASSERT_EQ(code(R"({"method":"add","ntp":{"table":"server","para":{"address":"extra"}}})"), 0);
    ASSERT_EQ(code(R"({"method":"delete","ntp":{"name":"server_1"}})"), 0);
    ASSERT_EQ(code(R"({"method":"set","ntp":{"main":{"enabled":false}}})"), 0);
    char *out = nullptr;
    ASSERT_EQ(kepHostFetch("kepd.reset", &out), 0);
    free(out);
    const std::string all = request(kGetAll);
    EXPECT_NE(all.find(R"("count":{"server":2})"), std::string::npos) << all;
    EXPECT_NE(all.find("server_1"), std::string::npos);
    EXPECT_EQ(all.find("extra"), std::string::npos);
    EXPECT_NE(request(kGetMain).find(R"("enabled":true)"), std::string::npos);
    // The owner's memory follows the file: the row added before the reset is gone.
    EXPECT_EQ(code(R"({"method":"set","ntp":{"server_3":{"prefer":true}}})"), KEP_OWNER_ERR_NOT_FOUND);
    EXPECT_EQ(request(R"({"method":"add","ntp":{"table":"server","para":{"address":"again"}}})"),
              R"({"ntp":{"name":["server_3"]},"error_code":0})");
}

}  // namespace
