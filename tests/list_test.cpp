#include <gtest/gtest.h>

#include "kep_list.h"

namespace {

struct Item {
    LstNode link;
    int id;
};

LstNode *L(Item &i) {
    return &i.link;
}

// Walks both directions and checks the header against the expected order.
void expectOrder(LstList &list, std::initializer_list<Item *> want) {
    ASSERT_EQ(lstCount(&list), static_cast<int>(want.size()));
    LstNode *n = lstFirst(&list);
    LstNode *prev = nullptr;
    for (Item *w : want) {
        ASSERT_EQ(n, L(*w));
        EXPECT_EQ(n->previous, prev);
        prev = n;
        n = lstNext(n);
    }
    EXPECT_EQ(n, nullptr);
    EXPECT_EQ(list.tail, prev);
}

class ListTest : public ::testing::Test {
protected:
    void SetUp() override { lstInit(&list); }
    LstList list;
    Item a{{}, 1}, b{{}, 2}, c{{}, 3};
};

TEST_F(ListTest, EmptyListGetAndFirstGiveNull) {
    EXPECT_EQ(lstGet(&list), nullptr);
    EXPECT_EQ(lstFirst(&list), nullptr);
    EXPECT_EQ(lstCount(&list), 0);
    EXPECT_EQ(list.head, nullptr);
    EXPECT_EQ(list.tail, nullptr);
}

TEST_F(ListTest, AddKeepsInsertionOrder) {
    lstAdd(&list, L(a));
    lstAdd(&list, L(b));
    lstAdd(&list, L(c));
    expectOrder(list, {&a, &b, &c});
}

TEST_F(ListTest, DeleteMiddleRelinksNeighbours) {
    lstAdd(&list, L(a));
    lstAdd(&list, L(b));
    lstAdd(&list, L(c));
    lstDelete(&list, L(b));
    expectOrder(list, {&a, &c});
    // The removed node keeps its own links.
    EXPECT_EQ(b.link.previous, L(a));
    EXPECT_EQ(b.link.next, L(c));
}

TEST_F(ListTest, DeleteHeadAndTail) {
    lstAdd(&list, L(a));
    lstAdd(&list, L(b));
    lstAdd(&list, L(c));
    lstDelete(&list, L(a));
    expectOrder(list, {&b, &c});
    lstDelete(&list, L(c));
    expectOrder(list, {&b});
    lstDelete(&list, L(b));
    expectOrder(list, {});
    EXPECT_EQ(list.head, nullptr);
}

TEST_F(ListTest, InsertWithNullPreviousBecomesHead) {
    lstAdd(&list, L(a));
    lstInsert(&list, nullptr, L(b));
    expectOrder(list, {&b, &a});
    lstInsert(&list, L(b), L(c));
    expectOrder(list, {&b, &c, &a});
}

TEST_F(ListTest, InsertAfterTailMovesTail) {
    lstInsert(&list, nullptr, L(a));
    lstInsert(&list, L(a), L(b));
    expectOrder(list, {&a, &b});
}

TEST_F(ListTest, GetTakesHeadUntilEmpty) {
    lstAdd(&list, L(a));
    lstAdd(&list, L(b));
    EXPECT_EQ(lstGet(&list), L(a));
    expectOrder(list, {&b});
    EXPECT_EQ(lstGet(&list), L(b));
    expectOrder(list, {});
    EXPECT_EQ(lstGet(&list), nullptr);
    EXPECT_EQ(lstCount(&list), 0);
}

TEST_F(ListTest, FreeUnlinksEverythingAndAllowsReuse) {
    lstAdd(&list, L(a));
    lstAdd(&list, L(b));
    lstAdd(&list, L(c));
    lstFree(&list);
    expectOrder(list, {});
    EXPECT_EQ(a.id + b.id + c.id, 6);  // nodes untouched apart from links
    lstAdd(&list, L(c));
    lstAdd(&list, L(a));
    expectOrder(list, {&c, &a});
}

}  // namespace
