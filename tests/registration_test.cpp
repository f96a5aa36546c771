#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "kep_tree.h"
#include "log_capture.h"
#include "tree/tree_internal.h"
#include "tree_builder.h"

namespace {

using kep_test::addAction;
using kep_test::addModule;
using kep_test::addSection;
using kep_test::addTable;

int gInitCalls;
int countingInit() {
    return ++gInitCalls;
}

// Module "m" with a public table "t" (three list entries), a private table "p"
// (one named section) and a declared service "restart".
class RegistrationTest : public kep_test::FreshTree {
protected:
    void SetUp() override {
        FreshTree::SetUp();
        gInitCalls = 0;
        m = addModule("m");
        t = addTable(m, "t", 1);
        for (const char *n : {"t_1", "t_2", "t_3"}) addSection(t, n);
        p = addTable(m, "p", 0);
        ps = addSection(p, "s");
        service = addAction(m, "restart");
    }
    static OprInterface opr(int pid, const char *cb) {
        OprInterface o;
        memset(&o, 0, sizeof o);
        o.pid = pid;
        strcpy(o.cb, cb);
        return o;
    }
    DataSection *section(DataTable *table, int index) {
        LstNode *n = lstFirst(&table->sections);
        while (index--) n = lstNext(n);
        return reinterpret_cast<DataSection *>(n);
    }
    DataModule *m = nullptr;
    DataTable *t = nullptr, *p = nullptr;
    DataSection *ps = nullptr;
    ActionNode *service = nullptr;
};

TEST_F(RegistrationTest, AppModuleStoresRecordAndRunsInit) {
    kep_test::LogCapture log;
    AppOps ops{countingInit, {&gInitCalls, nullptr, nullptr}};
    EXPECT_EQ(registerAppModule("m", &ops), 0);
    EXPECT_EQ(gInitCalls, 1);
    EXPECT_EQ(m->appOps.reserved[0], &gInitCalls);
    EXPECT_TRUE(log.contains("register moduler m successed.\r\n"));

    AppOps second{countingInit, {nullptr, &ops, nullptr}};
    EXPECT_EQ(registerAppModule("m", &second), 0);
    EXPECT_EQ(gInitCalls, 2);
    EXPECT_EQ(m->appOps.reserved[0], nullptr);
    EXPECT_EQ(m->appOps.reserved[1], &ops);

    AppOps noInit{nullptr, {&ops, nullptr, nullptr}};
    EXPECT_EQ(registerAppModule("m", &noInit), 0);
    EXPECT_EQ(m->appOps.reserved[0], &ops);
}

TEST_F(RegistrationTest, AppModuleRefusals) {
    AppOps ops{countingInit, {}};
    kep_test::LogCapture log;
    EXPECT_EQ(registerAppModule("undeclared", &ops), -1);
    EXPECT_EQ(registerAppModule(nullptr, &ops), -1);
    EXPECT_EQ(registerAppModule("m", nullptr), -1);
    EXPECT_EQ(gInitCalls, 0);
    EXPECT_TRUE(log.messages().empty());
    kep::resetTreeForTest();
    EXPECT_EQ(registerAppModule("m", &ops), -1);
}

TEST_F(RegistrationTest, TableInterfaceCopiedIntoPublicEntries) {
    OprInterface o = opr(42, "owner_cb");
    EXPECT_EQ(regOprInterface("/m/t", &o), 0);
    EXPECT_EQ(t->opr.pid, 42);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(section(t, i)->opr.pid, 42);
        EXPECT_STREQ(section(t, i)->opr.cb, "owner_cb");
    }
    // The caller keeps its record: the tree holds a copy.
    o.pid = 7;
    EXPECT_EQ(t->opr.pid, 42);

    EXPECT_EQ(regOprInterface("/m/p", &o), 0);
    EXPECT_EQ(p->opr.pid, 7);
    EXPECT_EQ(ps->opr.pid, 0);
}

TEST_F(RegistrationTest, SectionInterfaceTouchesOnlyThatSection) {
    OprInterface o = opr(9, "one");
    EXPECT_EQ(regOprInterface("/m/t/t_2", &o), 0);
    EXPECT_EQ(section(t, 1)->opr.pid, 9);
    EXPECT_EQ(section(t, 0)->opr.pid, 0);
    EXPECT_EQ(t->opr.pid, 0);
    EXPECT_EQ(t->optionPublic, 1);
    // Last registration wins.
    OprInterface o2 = opr(10, "two");
    EXPECT_EQ(regOprInterface("/m/t/t_2", &o2), 0);
    EXPECT_STREQ(section(t, 1)->opr.cb, "two");
}

TEST_F(RegistrationTest, InterfaceFailures) {
    OprInterface o = opr(1, "cb");
    kep_test::LogCapture log;
    EXPECT_EQ(regOprInterface("/m", &o), -1);
    EXPECT_EQ(log.messages().size(), 1u);  // only the opening trace
    EXPECT_EQ(log.messages()[0], "path:/m \n cbcb \n pid:1  \r\n");
    EXPECT_EQ(regOprInterface("/m/t/nope", &o), -1);
    EXPECT_TRUE(log.contains("regTableInterface table [t] don't have section [nope].\r\n"));
    EXPECT_EQ(regOprInterface("/m/zz", &o), -1);
    EXPECT_TRUE(log.contains("regOprInterface: path /m/zz can't find.\r\n"));
    log.clear();
    EXPECT_EQ(regOprInterface("m/t", &o), -1);
    EXPECT_EQ(regOprInterface(nullptr, &o), -1);
    EXPECT_EQ(regOprInterface("/m/t", nullptr), -1);
    EXPECT_TRUE(log.messages().empty());
    EXPECT_EQ(t->opr.pid, 0);
}

TEST_F(RegistrationTest, InterfaceFindsTableInLaterModuleOfSameName) {
    DataTable *later = addTable(addModule("m"), "late");
    OprInterface o = opr(3, "x");
    EXPECT_EQ(regOprInterface("/m/late", &o), 0);
    EXPECT_EQ(later->opr.pid, 3);
}

TEST_F(RegistrationTest, MethodSlotsAreReplaced) {
    EXPECT_EQ(registerMethodCb("/m/t", KEP_METHOD_GET, "first", 1), 0);
    EXPECT_EQ(registerMethodCb("/m/t", KEP_METHOD_GET, "second", 2), 0);
    ASSERT_NE(t->methodCb[3], nullptr);
    EXPECT_EQ(t->methodCb[3]->pid, 2);
    EXPECT_STREQ(t->methodCb[3]->cb, "second");
    EXPECT_EQ(t->optionPublic, 1);
    EXPECT_EQ(t->methodCb[0], nullptr);
}

TEST_F(RegistrationTest, MethodRefusals) {
    kep_test::LogCapture log;
    EXPECT_EQ(registerMethodCb("/m/t", 5, "cb", 1), -1);
    EXPECT_EQ(registerMethodCb("/m/t", -1, "cb", 1), -1);
    EXPECT_EQ(registerMethodCb("/m/t", 0, "cb", -1), -1);
    EXPECT_EQ(registerMethodCb("/m/t", 0, nullptr, 1), -1);
    EXPECT_EQ(registerMethodCb("m/t", 0, "cb", 1), -1);
    EXPECT_TRUE(log.messages().empty());
    EXPECT_EQ(registerMethodCb("/m", 0, "cb", 1), -1);
    EXPECT_EQ(log.messages(), std::vector<std::string>{"path:/m\r\n\r\n"});
    log.clear();
    EXPECT_EQ(registerMethodCb("/m/zz", 0, "cb", 1), -1);
    EXPECT_EQ(registerMethodCb("/zz/t", 0, "cb", 1), -1);
    for (const std::string &msg : log.messages()) EXPECT_EQ(msg.find("callback"), std::string::npos) << msg;
    kep::resetTreeForTest();
    EXPECT_EQ(registerMethodCb("/m/t", 0, "cb", 1), -1);
}

TEST_F(RegistrationTest, MethodTracesComponentsAndStoredName) {
    kep_test::LogCapture log;
    EXPECT_EQ(registerMethodCb("/m/p/s", KEP_METHOD_SET, "setter", 4), 0);
    std::vector<std::string> want = {
        "moduleName:m\r\n\r\n",
        "tableName:p\r\n\r\n",
        "moduleName:m tableName:p\r\n\r\n",
        "pTable->name:t\r\n\r\n",
        "pTable->name:p\r\n\r\n",
        "pTable->name:p pTmpPath:s pCbNode->cb:setter\r\n\r\n",
        "callback setter .\r\n\r\n",
    };
    EXPECT_EQ(log.messages(), want);
}

TEST_F(RegistrationTest, SectionMethodMakesTablePrivateEvenOnFailure) {
    kep_test::LogCapture log;
    EXPECT_EQ(registerMethodCb("/m/t/nope", KEP_METHOD_ADD, "cb", 1), -1);
    EXPECT_EQ(t->optionPublic, 0);
    EXPECT_TRUE(log.contains("regTableVerNotify nope failed.\r\n"));
    for (int i = 0; i < 3; i++) EXPECT_EQ(section(t, i)->methodCb[0], nullptr);

    EXPECT_EQ(registerMethodCb("/m/t/t_1", KEP_METHOD_DELETE, "del", 3), 0);
    ASSERT_NE(section(t, 0)->methodCb[2], nullptr);
    EXPECT_EQ(section(t, 0)->methodCb[2]->pid, 3);
    EXPECT_EQ(t->methodCb[2], nullptr);
}

TEST_F(RegistrationTest, CallbackNamesKeep64Characters) {
    std::string longName(70, 'c');
    EXPECT_EQ(registerMethodCb("/m/t", KEP_METHOD_GET, longName.c_str(), 1), 0);
    EXPECT_EQ(std::string(t->methodCb[3]->cb), longName.substr(0, 64));
    EXPECT_EQ(registerVerNotify("/m/t", KEP_SELECT_VERIFY, longName.c_str(), 1), 0);
    auto *v = reinterpret_cast<VerNotifyNode *>(lstFirst(&t->verList));
    EXPECT_EQ(std::string(v->cb), longName.substr(0, 64));
    EXPECT_EQ(registerAction("m", "act", longName.c_str(), 1), 0);
    auto *a = reinterpret_cast<ActionNode *>(m->actions.tail);
    EXPECT_EQ(std::string(a->cb), longName.substr(0, 64));
}

TEST_F(RegistrationTest, ActionMethodFillsDeclaredService) {
    EXPECT_EQ(registerMethodCb("/m/restart/ignored", KEP_METHOD_ACTION, "do_restart", 77), 0);
    EXPECT_EQ(service->pid, 77);
    EXPECT_STREQ(service->cb, "do_restart");
    // A shorter name replaces the whole stored one.
    EXPECT_EQ(registerMethodCb("/m/restart", KEP_METHOD_ACTION, "r", 78), 0);
    EXPECT_STREQ(service->cb, "r");
    EXPECT_EQ(0, memcmp(service->cb + 1, std::string(67, '\0').data(), 67));
    EXPECT_EQ(registerMethodCb("/m/nothing", KEP_METHOD_ACTION, "x", 1), -1);
    EXPECT_EQ(registerMethodCb("/zz/restart", KEP_METHOD_ACTION, "x", 1), -1);
}

TEST_F(RegistrationTest, UnregisterMethod) {
    ASSERT_EQ(registerMethodCb("/m/t", KEP_METHOD_SET, "a", 1), 0);
    EXPECT_EQ(unRegisterMethodCb("/m/t", KEP_METHOD_SET, "other", 99), 0);  // name and pid not compared
    EXPECT_EQ(t->methodCb[1], nullptr);
    EXPECT_EQ(unRegisterMethodCb("/m/t", KEP_METHOD_SET, "a", 1), -1);

    ASSERT_EQ(registerMethodCb("/m/p/s", KEP_METHOD_GET, "g", 1), 0);
    EXPECT_EQ(unRegisterMethodCb("/m/p/x", KEP_METHOD_GET, "g", 1), -1);
    EXPECT_EQ(unRegisterMethodCb("/m/p/s", KEP_METHOD_GET, "g", 1), 0);
    EXPECT_EQ(ps->methodCb[3], nullptr);

    EXPECT_EQ(unRegisterMethodCb("/m/t", KEP_METHOD_ACTION, "a", 1), -1);
    EXPECT_EQ(unRegisterMethodCb("/m/t", 0, "a", -1), -1);
    EXPECT_EQ(unRegisterMethodCb("/m", 0, "a", 1), -1);
    kep_test::LogCapture log;
    EXPECT_EQ(unRegisterMethodCb("/m/zz", 0, "a", 1), -1);
    EXPECT_EQ(log.messages(), std::vector<std::string>{"path /m/zz can't find.\r\n\r\n"});
}

TEST_F(RegistrationTest, VerifyAndNotifyLists) {
    EXPECT_EQ(registerVerNotify("/m/t", KEP_SELECT_NOTIFY, "n", 5), 0);
    EXPECT_EQ(registerVerNotify("/m/t", 7, "n", 5), 0);  // any selector but 1 is notify
    EXPECT_EQ(registerVerNotify("/m/t", KEP_SELECT_VERIFY, "v", 5), 0);
    EXPECT_EQ(lstCount(&t->notList), 2);
    EXPECT_EQ(lstCount(&t->verList), 1);
    EXPECT_EQ(reinterpret_cast<VerNotifyNode *>(lstFirst(&t->verList))->verifyFn, nullptr);

    kep_test::LogCapture log;
    EXPECT_EQ(unRegisterVerNotify("/m/t", KEP_SELECT_VERIFY, "n", 5), -1);
    EXPECT_TRUE(log.contains("unregister verify notifyn for t failed.\r\n"));
    EXPECT_EQ(unRegisterVerNotify("/m/t", KEP_SELECT_NOTIFY, "n", 6), -1);
    EXPECT_EQ(unRegisterVerNotify("/m/t", KEP_SELECT_NOTIFY, "n", 5), 0);
    EXPECT_EQ(lstCount(&t->notList), 1);
    EXPECT_EQ(unRegisterVerNotify("/m/t", KEP_SELECT_NOTIFY, "n", 5), 0);
    EXPECT_EQ(lstCount(&t->notList), 0);
    EXPECT_EQ(unRegisterVerNotify("/m/t", KEP_SELECT_VERIFY, "v", 5), 0);
    EXPECT_EQ(lstCount(&t->verList), 0);
}

TEST_F(RegistrationTest, SectionVerifyAndNotify) {
    kep_test::LogCapture log;
    EXPECT_EQ(registerVerNotify("/m/p/s", KEP_SELECT_VERIFY, "v", 1), 0);
    EXPECT_EQ(lstCount(&ps->verList), 1);
    EXPECT_EQ(lstCount(&p->verList), 0);
    EXPECT_TRUE(log.contains("pTable->name:p pTmpPath:s pVerNew->cb:v\r\n"));
    EXPECT_TRUE(log.contains("regTableVerNotify v .\r\n"));
    EXPECT_EQ(registerVerNotify("/m/p/x", KEP_SELECT_VERIFY, "v", 1), -1);
    EXPECT_TRUE(log.contains("regTableVerNotify x failed.\r\n"));
    EXPECT_EQ(p->optionPublic, 0);
    EXPECT_EQ(registerVerNotify("/m/t/nope", KEP_SELECT_VERIFY, "v", 1), -1);
    EXPECT_EQ(t->optionPublic, 1);  // only method registration flips the kind

    EXPECT_EQ(unRegisterVerNotify("/m/p/x", KEP_SELECT_NOTIFY, "v", 1), -1);
    EXPECT_TRUE(log.contains("unregister notify notifyv for x failed.\r\n"));
    EXPECT_EQ(unRegisterVerNotify("/m/p/s", KEP_SELECT_VERIFY, "v", 1), 0);
    EXPECT_EQ(lstCount(&ps->verList), 0);
}

TEST_F(RegistrationTest, VerNotifyFailures) {
    kep_test::LogCapture log;
    EXPECT_EQ(registerVerNotify("/m/zz", 1, "v", 1), -1);
    EXPECT_TRUE(log.contains("registerVerNotify: path /m/zz can't find.\r\n"));
    EXPECT_EQ(unRegisterVerNotify("/m/zz", 1, "v", 1), -1);
    EXPECT_TRUE(log.contains("path /m/zz can't find.\r\n"));
    log.clear();
    EXPECT_EQ(registerVerNotify("/m", 1, "v", 1), -1);
    EXPECT_EQ(log.messages(), std::vector<std::string>{"path:/m\r\n\r\n"});
    log.clear();
    EXPECT_EQ(registerVerNotify("/m/t", 1, nullptr, 1), -1);
    EXPECT_EQ(registerVerNotify("/m/t", 1, "v", -1), -1);
    EXPECT_EQ(unRegisterVerNotify("/m/t", 1, nullptr, 1), -1);
    EXPECT_EQ(unRegisterVerNotify("/m", 1, "v", 1), -1);
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(RegistrationTest, Actions) {
    EXPECT_EQ(registerAction("m", "restart", "cb", 1), -1);  // declared service
    EXPECT_EQ(registerAction("m", std::string(32, 'a').c_str(), "cb", 1), -1);
    EXPECT_EQ(registerAction("m", std::string(31, 'a').c_str(), "cb", 1), 0);
    EXPECT_EQ(registerAction("m", std::string(31, 'a').c_str(), "cb", 1), -1);
    EXPECT_EQ(registerAction("zz", "x", "cb", 1), -1);
    EXPECT_EQ(registerAction("m", "x", "cb", -1), -1);
    EXPECT_EQ(registerAction("m", "x", nullptr, 1), -1);
    EXPECT_EQ(registerAction(nullptr, "x", "cb", 1), -1);
    EXPECT_EQ(registerAction("m", nullptr, "cb", 1), -1);
    EXPECT_EQ(lstCount(&m->actions), 2);
    auto *a = reinterpret_cast<ActionNode *>(m->actions.tail);
    EXPECT_EQ(std::string(a->name), std::string(31, 'a'));
    EXPECT_EQ(a->pid, 1);
}

TEST_F(RegistrationTest, UnregisterTableAfterRegistrations) {
    OprInterface o = opr(4, "c");
    ASSERT_EQ(regOprInterface("/m/p/s", &o), 0);
    ASSERT_EQ(registerMethodCb("/m/p/s", 0, "a", 4), 0);
    ASSERT_EQ(registerMethodCb("/m/p", 1, "b", 4), 0);
    ASSERT_EQ(registerVerNotify("/m/p/s", 0, "n", 4), 0);
    ASSERT_EQ(registerVerNotify("/m/p", 1, "v", 4), 0);
    EXPECT_EQ(unregisterTable("/m/p"), 0);
    EXPECT_EQ(ps->methodCb[0], nullptr);
    EXPECT_EQ(ps->opr.pid, 0);
    EXPECT_EQ(lstCount(&ps->notList), 0);
    EXPECT_EQ(p->methodCb[1], nullptr);
    EXPECT_EQ(lstCount(&p->verList), 0);
}

void *noMemory(size_t, size_t) {
    return nullptr;
}

TEST_F(RegistrationTest, ExhaustedMemoryLeavesTreeAsItWas) {
    ASSERT_EQ(registerMethodCb("/m/t", KEP_METHOD_GET, "old", 1), 0);
    kep::treeCalloc = noMemory;
    EXPECT_EQ(registerMethodCb("/m/t", KEP_METHOD_GET, "new", 2), -1);
    EXPECT_EQ(registerMethodCb("/m/t/t_1", KEP_METHOD_GET, "new", 2), -1);
    EXPECT_EQ(registerVerNotify("/m/t", KEP_SELECT_VERIFY, "v", 2), -1);
    EXPECT_EQ(registerVerNotify("/m/p/s", KEP_SELECT_NOTIFY, "n", 2), -1);
    EXPECT_EQ(registerAction("m", "act", "cb", 2), -1);
    kep::treeCalloc = calloc;
    EXPECT_STREQ(t->methodCb[3]->cb, "old");
    EXPECT_EQ(t->optionPublic, 1);
    EXPECT_EQ(lstCount(&t->verList) + lstCount(&ps->notList), 0);
    EXPECT_EQ(lstCount(&m->actions), 1);
}

}  // namespace
