#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "kep_tree.h"
#include "tree/tree_internal.h"
#include "tree_builder.h"

namespace {

int gInitCalls;
int countingInit() {
    return ++gInitCalls;
}

OprInterface opr(int pid, const char *cb) {
    OprInterface o{};
    o.pid = pid;
    strcpy(o.cb, cb);
    return o;
}

// Module "m" with a public table "t" (three list entries), a private table "p"
// (one named section) and a declared service "restart".
class RegistrationTest : public kep_test::FreshTree {
protected:
    void SetUp() override {
        FreshTree::SetUp();
        gInitCalls = 0;
        m = kep_test::addModule("m");
        t = kep_test::addTable(m, "t", 1);
        for (const char *n : {"t_1", "t_2", "t_3"}) entries.push_back(kep_test::addSection(t, n));
        p = kep_test::addTable(m, "p", 0);
        ps = kep_test::addSection(p, "s");
        service = kep_test::addAction(m, "restart");
    }
    DataModule *m = nullptr;
    DataTable *t = nullptr, *p = nullptr;
    std::vector<DataSection *> entries;
    DataSection *ps = nullptr;
    ActionNode *service = nullptr;
};

TEST_F(RegistrationTest, AppModule) {
    AppOps ops{countingInit, {&gInitCalls, nullptr, nullptr}};
    EXPECT_EQ(registerAppModule("undeclared", &ops), -1);
    EXPECT_EQ(registerAppModule(nullptr, &ops), -1);
    EXPECT_EQ(registerAppModule("m", nullptr), -1);
    EXPECT_EQ(gInitCalls, 0);
    EXPECT_EQ(registerAppModule("m", &ops), 0);
    EXPECT_EQ(registerAppModule("m", &ops), 0);
    EXPECT_EQ(gInitCalls, 2);
    EXPECT_EQ(m->appOps.reserved[0], &gInitCalls);
    AppOps noInit{nullptr, {&ops, nullptr, nullptr}};
    EXPECT_EQ(registerAppModule("m", &noInit), 0);
    EXPECT_EQ(m->appOps.reserved[0], &ops);
    kep::resetTreeForTest();
    EXPECT_EQ(registerAppModule("m", &ops), -1);
}

TEST_F(RegistrationTest, Interfaces) {
    OprInterface o = opr(42, "owner");
    EXPECT_EQ(regOprInterface("/m/t", &o), 0);
    EXPECT_EQ(t->opr.pid, 42);
    for (DataSection *e : entries) EXPECT_STREQ(e->opr.cb, "owner");
    EXPECT_EQ(regOprInterface("/m/p", &o), 0);
    EXPECT_EQ(p->opr.pid, 42);
    EXPECT_EQ(ps->opr.pid, 0);  // named sections register on their own

    OprInterface one = opr(9, "one");
    EXPECT_EQ(regOprInterface("/m/t/t_2", &one), 0);
    EXPECT_EQ(entries[1]->opr.pid, 9);
    EXPECT_EQ(entries[0]->opr.pid, 42);
    EXPECT_EQ(t->opr.pid, 42);
    EXPECT_EQ(t->optionPublic, 1);

    DataTable *later = kep_test::addTable(kep_test::addModule("m"), "late");
    EXPECT_EQ(regOprInterface("/m/late", &one), 0);
    EXPECT_EQ(later->opr.pid, 9);
}

TEST_F(RegistrationTest, InterfaceFailures) {
    OprInterface o = opr(1, "cb");
    EXPECT_EQ(regOprInterface("/m", &o), -1);
    EXPECT_EQ(regOprInterface("/m/t/nope", &o), -1);
    EXPECT_EQ(regOprInterface("/m/zz", &o), -1);
    EXPECT_EQ(regOprInterface("m/t", &o), -1);
    EXPECT_EQ(regOprInterface("/m/t", nullptr), -1);
    EXPECT_EQ(t->opr.pid, 0);
}

TEST_F(RegistrationTest, MethodCallbacks) {
    EXPECT_EQ(registerMethodCb("/m/t", KEP_METHOD_GET, "first", 1), 0);
    EXPECT_EQ(registerMethodCb("/m/t", KEP_METHOD_GET, std::string(70, 'c').c_str(), 2), 0);
    EXPECT_EQ(t->methodCb[3]->pid, 2);  // replaced
    EXPECT_EQ(std::string(t->methodCb[3]->cb), std::string(64, 'c'));
    EXPECT_EQ(t->optionPublic, 1);

    EXPECT_EQ(registerMethodCb("/m/t/t_1", KEP_METHOD_DELETE, "del", 3), 0);
    EXPECT_EQ(entries[0]->methodCb[2]->pid, 3);
    EXPECT_EQ(t->optionPublic, 0);
}

TEST_F(RegistrationTest, MethodFailures) {
    for (int method : {5, -1}) EXPECT_EQ(registerMethodCb("/m/t", method, "cb", 1), -1);
    EXPECT_EQ(registerMethodCb("/m/t", 0, "cb", -1), -1);
    EXPECT_EQ(registerMethodCb("/m/t", 0, nullptr, 1), -1);
    EXPECT_EQ(registerMethodCb("m/t", 0, "cb", 1), -1);
    EXPECT_EQ(registerMethodCb("/m", 0, "cb", 1), -1);
    EXPECT_EQ(registerMethodCb("/m/zz", 0, "cb", 1), -1);
    // A section-level registration makes the table private before the lookup fails.
    EXPECT_EQ(registerMethodCb("/m/t/nope", KEP_METHOD_ADD, "cb", 1), -1);
    EXPECT_EQ(t->optionPublic, 0);
}

TEST_F(RegistrationTest, ActionsThroughMethodIndexAndRegisterAction) {
    EXPECT_EQ(registerMethodCb("/m/restart/ignored", KEP_METHOD_ACTION, "do_restart", 77), 0);
    EXPECT_EQ(service->pid, 77);
    EXPECT_EQ(registerMethodCb("/m/restart", KEP_METHOD_ACTION, "r", 78), 0);
    EXPECT_EQ(std::string(service->cb, sizeof service->cb), "r" + std::string(67, '\0'));
    EXPECT_EQ(registerMethodCb("/m/nothing", KEP_METHOD_ACTION, "x", 1), -1);
    EXPECT_EQ(registerMethodCb("/zz/restart", KEP_METHOD_ACTION, "x", 1), -1);

    EXPECT_EQ(registerAction("m", "restart", "cb", 1), -1);  // declared service
    EXPECT_EQ(registerAction("m", std::string(32, 'a').c_str(), "cb", 1), -1);
    EXPECT_EQ(registerAction("m", std::string(31, 'a').c_str(), std::string(70, 'c').c_str(), 1), 0);
    EXPECT_EQ(registerAction("m", std::string(31, 'a').c_str(), "cb", 1), -1);
    EXPECT_EQ(registerAction("zz", "x", "cb", 1), -1);
    EXPECT_EQ(registerAction("m", "x", "cb", -1), -1);
    EXPECT_EQ(registerAction("m", "x", nullptr, 1), -1);
    ASSERT_EQ(lstCount(&m->actions), 2);
    EXPECT_EQ(std::string(reinterpret_cast<ActionNode *>(m->actions.tail)->cb), std::string(64, 'c'));
}

TEST_F(RegistrationTest, UnregisterMethod) {
    ASSERT_EQ(registerMethodCb("/m/t", KEP_METHOD_SET, "a", 1), 0);
    EXPECT_EQ(unRegisterMethodCb("/m/t", KEP_METHOD_SET, "other", 99), 0);  // name and pid not compared
    EXPECT_EQ(unRegisterMethodCb("/m/t", KEP_METHOD_SET, "a", 1), -1);
    ASSERT_EQ(registerMethodCb("/m/p/s", KEP_METHOD_GET, "g", 1), 0);
    EXPECT_EQ(unRegisterMethodCb("/m/p/x", KEP_METHOD_GET, "g", 1), -1);
    EXPECT_EQ(unRegisterMethodCb("/m/p/s", KEP_METHOD_GET, "g", 1), 0);
    EXPECT_EQ(ps->methodCb[3], nullptr);
    EXPECT_EQ(unRegisterMethodCb("/m/t", KEP_METHOD_ACTION, "a", 1), -1);
    EXPECT_EQ(unRegisterMethodCb("/m", 0, "a", 1), -1);
    EXPECT_EQ(unRegisterMethodCb("/m/zz", 0, "a", 1), -1);
}

TEST_F(RegistrationTest, VerifyAndNotify) {
    EXPECT_EQ(registerVerNotify("/m/t", KEP_SELECT_NOTIFY, "n", 5), 0);
    EXPECT_EQ(registerVerNotify("/m/t", 7, "n", 5), 0);  // any selector but 1 is notify
    EXPECT_EQ(registerVerNotify("/m/t", KEP_SELECT_VERIFY, "v", 5), 0);
    EXPECT_EQ(lstCount(&t->notList), 2);
    EXPECT_EQ(lstCount(&t->verList), 1);
    EXPECT_EQ(unRegisterVerNotify("/m/t", KEP_SELECT_VERIFY, "n", 5), -1);
    EXPECT_EQ(unRegisterVerNotify("/m/t", KEP_SELECT_NOTIFY, "n", 6), -1);
    EXPECT_EQ(unRegisterVerNotify("/m/t", KEP_SELECT_NOTIFY, "n", 5), 0);
    EXPECT_EQ(unRegisterVerNotify("/m/t", KEP_SELECT_NOTIFY, "n", 5), 0);
    EXPECT_EQ(lstCount(&t->notList), 0);

    EXPECT_EQ(registerVerNotify("/m/p/s", KEP_SELECT_VERIFY, "v", 1), 0);
    EXPECT_EQ(lstCount(&ps->verList), 1);
    EXPECT_EQ(registerVerNotify("/m/t/nope", KEP_SELECT_VERIFY, "v", 1), -1);
    EXPECT_EQ(t->optionPublic, 1);  // only method registration changes the kind
    EXPECT_EQ(unRegisterVerNotify("/m/p/x", KEP_SELECT_NOTIFY, "v", 1), -1);
    EXPECT_EQ(unRegisterVerNotify("/m/p/s", KEP_SELECT_VERIFY, "v", 1), 0);
    EXPECT_EQ(lstCount(&ps->verList), 0);
}

TEST_F(RegistrationTest, VerifyAndNotifyFailures) {
    EXPECT_EQ(registerVerNotify("/m/zz", 1, "v", 1), -1);
    EXPECT_EQ(unRegisterVerNotify("/m/zz", 1, "v", 1), -1);
    EXPECT_EQ(registerVerNotify("/m", 1, "v", 1), -1);
    EXPECT_EQ(registerVerNotify("/m/t", 1, nullptr, 1), -1);
    EXPECT_EQ(registerVerNotify("/m/t", 1, "v", -1), -1);
    EXPECT_EQ(unRegisterVerNotify("/m", 1, "v", 1), -1);
}

}  // namespace
