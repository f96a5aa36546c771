// Model-operation and method-handler tests: a hand-built tree whose callbacks are
// served in this process by callees that record their inputs and answer as told.
#pragma once

#include <unistd.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kep_pf_rpc.h"
#include "tree_builder.h"

namespace kep_test {

using Members = std::vector<std::pair<std::string, std::string>>;  // input members, in order

struct Callee {
    std::vector<Members> calls;
    std::optional<int> errorCode = 0;   // nullopt: no "errorCode" in the answer
    std::optional<std::string> result;  // nullopt: no "result" in the answer

    static int serve(QxRpcPara *set, void *user) {
        auto *self = static_cast<Callee *>(user);
        Members in;
        for (int i = 0; i < set->count; i++)
            in.emplace_back(set->member[i].name, set->member[i].text ? set->member[i].text : "");
        self->calls.push_back(in);
        if (self->errorCode) qxrpcAddInt(set, "errorCode", *self->errorCode);
        if (self->result) qxrpcAddStringPtr(set, "result", self->result->c_str());
        return 0;
    }
};

class OpsFixture : public FreshTree {
protected:
    void TearDown() override {
        for (auto &c : callees_) qxImiUnregister(c.first.c_str());
        FreshTree::TearDown();
    }
    // The callee named cb, now answering errorCode 0 and result.
    Callee &callee(const std::string &cb, std::optional<std::string> result = std::string("{}")) {
        std::unique_ptr<Callee> &c = callees_[cb];
        if (!c) {
            c = std::make_unique<Callee>();
            qxImiRegister(cb.c_str(), &Callee::serve, c.get());
        }
        c->result = std::move(result);
        return *c;
    }
    size_t calls(const std::string &cb) { return callees_.count(cb) ? callees_[cb]->calls.size() : 0; }
    Members last(const std::string &cb) { return calls(cb) ? callees_[cb]->calls.back() : Members{}; }
    static int self() { return static_cast<int>(getpid()); }

    // A callback of this process in a method slot, or in a notify list.
    template <typename Node>
    static Node *served(const char *cb) {
        auto *n = static_cast<Node *>(kep::newCbNode());
        n->pid = self();
        kep::copyName(n->cb, cb, sizeof n->cb);
        return n;
    }
    static void slot(MethodCbNode *&slot, const char *cb) { slot = served<MethodCbNode>(cb); }
    static void action(DataModule *m, const char *name, const char *cb, int pid) {
        ActionNode *a = addAction(m, name);
        kep::copyName(a->cb, cb, sizeof a->cb);
        a->pid = pid;
    }

    std::map<std::string, std::unique_ptr<Callee>> callees_;
};

}  // namespace kep_test
