// Shared fixture of the model-operation and method-handler tests: a hand-built tree
// and in-process callees that record what they receive and answer as told.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kep_pf_rpc.h"
#include "kep_tree.h"
#include "tree/tree_internal.h"

namespace kep_test {

using Members = std::vector<std::pair<std::string, std::string>>;  // input members, in order

// One callback name served in this process.
struct Callee {
    std::string name;
    std::vector<Members> calls;
    std::optional<int> errorCode = 0;  // nullopt: answer without "errorCode"
    std::optional<std::string> result;  // nullopt: answer without "result"

    static int serve(QxRpcPara *set, void *user) {
        auto *self = static_cast<Callee *>(user);
        Members in;
        for (int i = 0; i < set->count; i++) {
            const QxRpcMember &m = set->member[i];
            in.emplace_back(m.name, m.isString && m.text ? m.text : std::to_string(m.value));
        }
        self->calls.push_back(in);
        if (self->errorCode) qxrpcAddInt(set, "errorCode", *self->errorCode);
        if (self->result) qxrpcAddStringPtr(set, "result", self->result->c_str());
        return 0;
    }
};

class OpsFixture : public ::testing::Test {
protected:
    void SetUp() override { kep::resetTreeForTest(); }
    void TearDown() override {
        for (auto &c : callees_) qxImiUnregister(c.first.c_str());
        kep::resetTreeForTest();
    }

    // A callee named cb of this process, answering errorCode 0 and result.
    Callee &callee(const std::string &cb, std::optional<std::string> result = std::string("{}")) {
        auto &c = callees_[cb];
        if (!c) {
            c = std::make_unique<Callee>();
            c->name = cb;
            qxImiRegister(cb.c_str(), &Callee::serve, c.get());
        }
        c->result = std::move(result);
        return *c;
    }
    int calls(const std::string &cb) { return callees_.count(cb) ? static_cast<int>(callees_[cb]->calls.size()) : 0; }

    static int self() { return static_cast<int>(getpid()); }

    DataModule *module(const char *name) {
        DataModule *m = kep::newDataModule();
        kep::copyName(m->name, name, sizeof m->name);
        lstAdd(&kep::moduleRoot(), &m->link);
        return m;
    }
    DataTable *table(DataModule *m, const char *name, int optionPublic = 1, int isDynamic = 0) {
        DataTable *t = kep::newDataTable();
        kep::copyName(t->name, name, sizeof t->name);
        t->optionPublic = optionPublic;
        t->isDynamic = isDynamic;
        lstAdd(&m->tables, &t->link);
        return t;
    }
    DataSection *section(DataTable *t, const char *name) {
        DataSection *s = kep::newDataSection();
        kep::copyName(s->name, name, sizeof s->name);
        lstAdd(&t->sections, &s->link);
        return s;
    }
    // Puts a callback of this process into a method slot.
    void slot(MethodCbNode *&slot, const char *cb) {
        auto *n = static_cast<MethodCbNode *>(kep::newCbNode());
        n->pid = self();
        kep::copyName(n->cb, cb, sizeof n->cb);
        slot = n;
    }
    void listener(DataSection *s, const char *cb) {
        auto *n = static_cast<VerNotifyNode *>(kep::newCbNode());
        n->pid = self();
        kep::copyName(n->cb, cb, sizeof n->cb);
        lstAdd(&s->notList, &n->link);
    }
    void action(DataModule *m, const char *name, const char *cb, int pid) {
        ActionNode *a = kep::newActionNode();
        kep::copyName(a->name, name, sizeof a->name);
        kep::copyName(a->cb, cb, sizeof a->cb);
        a->pid = pid;
        lstAdd(&m->actions, &a->link);
    }

    std::map<std::string, std::unique_ptr<Callee>> callees_;
};

}  // namespace kep_test
