#include <gtest/gtest.h>

#include <vector>

#include "kep_list.h"

namespace {

// Checks count, both directions of linking and the header against want.
void expectOrder(LstList &list, std::vector<LstNode *> want) {
    ASSERT_EQ(lstCount(&list), static_cast<int>(want.size()));
    LstNode *prev = nullptr, *n = lstFirst(&list);
    for (LstNode *w : want) {
        ASSERT_EQ(n, w);
        EXPECT_EQ(n->previous, prev);
        prev = n;
        n = lstNext(n);
    }
    EXPECT_EQ(n, nullptr);
    EXPECT_EQ(list.tail, prev);
}

TEST(ListTest, LinkAndUnlink) {
    LstList list;
    LstNode a, b, c, d;
    lstInit(&list);
    expectOrder(list, {});
    lstAdd(&list, &a);
    lstAdd(&list, &b);
    lstInsert(&list, nullptr, &c);  // new head
    lstInsert(&list, &b, &d);       // after the tail
    expectOrder(list, {&c, &a, &b, &d});
    lstDelete(&list, &a);
    expectOrder(list, {&c, &b, &d});
    EXPECT_EQ(a.previous, &c);  // the removed node keeps its own links
    EXPECT_EQ(a.next, &b);
    lstDelete(&list, &c);
    lstDelete(&list, &d);
    expectOrder(list, {&b});
    lstDelete(&list, &b);
    expectOrder(list, {});
    EXPECT_EQ(list.head, nullptr);
}

TEST(ListTest, GetAndFree) {
    LstList list;
    LstNode a, b, c;
    lstInit(&list);
    EXPECT_EQ(lstGet(&list), nullptr);
    EXPECT_EQ(lstCount(&list), 0);
    lstAdd(&list, &a);
    lstAdd(&list, &b);
    EXPECT_EQ(lstGet(&list), &a);
    expectOrder(list, {&b});
    EXPECT_EQ(lstGet(&list), &b);
    expectOrder(list, {});
    lstAdd(&list, &a);
    lstAdd(&list, &b);
    lstAdd(&list, &c);
    lstFree(&list);
    expectOrder(list, {});
    lstAdd(&list, &c);  // freed nodes can be linked again
    expectOrder(list, {&c});
}

}  // namespace
