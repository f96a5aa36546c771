/* The intrusive list: links in both directions, the header, and nodes that leave it. */
#include <kep_list.h>

#include "check.h"

/* Count, both directions of linking and the header against want (n nodes). */
static void checkOrder(LstList *list, LstNode **want, int n) {
    LstNode *prev = NULL, *node = lstFirst(list);
    int i;
    CHECK_INT(lstCount(list), n);
    for (i = 0; i < n && node; i++) {
        CHECK(node == want[i]);
        CHECK(node->previous == prev);
        prev = node;
        node = lstNext(node);
    }
    CHECK(i == n && node == NULL);
    CHECK(list->tail == prev);
    CHECK(list->head == (n ? want[0] : NULL));
}

static void linkAndUnlink(void) {
    LstList list;
    LstNode a, b, c, d;
    lstInit(&list);
    checkOrder(&list, NULL, 0);
    lstAdd(&list, &a);
    lstAdd(&list, &b);
    lstInsert(&list, NULL, &c); /* new head */
    lstInsert(&list, &b, &d);   /* after the tail */
    {
        LstNode *want[] = {&c, &a, &b, &d};
        checkOrder(&list, want, 4);
    }
    lstDelete(&list, &a);
    {
        LstNode *want[] = {&c, &b, &d};
        checkOrder(&list, want, 3);
    }
    CHECK(a.previous == &c && a.next == &b); /* the removed node keeps its own links */
    lstDelete(&list, &c);
    lstDelete(&list, &d);
    {
        LstNode *want[] = {&b};
        checkOrder(&list, want, 1);
    }
    lstDelete(&list, &b);
    checkOrder(&list, NULL, 0);
}

static void getAndFree(void) {
    LstList list;
    LstNode a, b, c;
    lstInit(&list);
    CHECK(lstGet(&list) == NULL);
    lstAdd(&list, &a);
    lstAdd(&list, &b);
    CHECK(lstGet(&list) == &a);
    {
        LstNode *want[] = {&b};
        checkOrder(&list, want, 1);
    }
    CHECK(lstGet(&list) == &b);
    checkOrder(&list, NULL, 0);
    lstAdd(&list, &a);
    lstAdd(&list, &b);
    lstAdd(&list, &c);
    lstFree(&list);
    checkOrder(&list, NULL, 0);
    lstAdd(&list, &c); /* freed nodes can be linked again */
    {
        LstNode *want[] = {&c};
        checkOrder(&list, want, 1);
    }
}

/* A listed record begins with its link: the record and its link are one pointer. */
struct Record {
    LstNode link;
    int value;
};

static void recordsBeginWithTheirLink(void) {
    LstList list;
    struct Record r[3] = {{{NULL, NULL}, 1}, {{NULL, NULL}, 2}, {{NULL, NULL}, 3}};
    LstNode *n;
    int sum = 0;
    lstInit(&list);
    lstAdd(&list, &r[2].link);
    lstInsert(&list, NULL, &r[0].link);
    lstInsert(&list, &r[0].link, &r[1].link);
    for (n = lstFirst(&list); n; n = lstNext(n)) sum = sum * 10 + ((struct Record *)n)->value;
    CHECK_INT(sum, 123);
}

int main(void) {
    linkAndUnlink();
    getAndFree();
    recordsBeginWithTheirLink();
    return checkSummary("list");
}
