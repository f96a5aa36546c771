// Builds data module trees node by node for tests, through the tree's own allocators,
// so resetTreeForTest releases them like any other node.
#pragma once

#include <gtest/gtest.h>

#include "kep_tree.h"
#include "tree/tree_internal.h"

namespace kep_test {

inline DataModule *addModule(const char *name) {
    DataModule *m = kep::newDataModule();
    kep::copyName(m->name, name, sizeof m->name);
    lstAdd(&kep::moduleRoot(), &m->link);
    return m;
}

inline DataTable *addTable(DataModule *m, const char *name, int optionPublic = 1) {
    DataTable *t = kep::newDataTable();
    kep::copyName(t->name, name, sizeof t->name);
    t->optionPublic = optionPublic;
    lstAdd(&m->tables, &t->link);
    return t;
}

inline DataSection *addSection(DataTable *t, const char *name) {
    DataSection *s = kep::newDataSection();
    kep::copyName(s->name, name, sizeof s->name);
    lstAdd(&t->sections, &s->link);
    return s;
}

inline ActionNode *addAction(DataModule *m, const char *name) {
    ActionNode *a = kep::newActionNode();
    kep::copyName(a->name, name, sizeof a->name);
    lstAdd(&m->actions, &a->link);
    return a;
}

// Every test starts and ends with an empty tree.
class FreshTree : public ::testing::Test {
protected:
    void SetUp() override { kep::resetTreeForTest(); }
    void TearDown() override { kep::resetTreeForTest(); }
};

}  // namespace kep_test
