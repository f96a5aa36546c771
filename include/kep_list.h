/*
 * Intrusive doubly linked list used by every collection of the data module tree.
 *
 * A listed record begins with an LstNode, so a pointer to the record and a pointer
 * to its link are the same pointer. The list never allocates or releases memory and
 * checks no argument: a null list or node, or a node linked twice, is a caller error.
 */
#ifndef KEP_LIST_H
#define KEP_LIST_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct LstNode {
    struct LstNode *next;     /* null at the tail */
    struct LstNode *previous; /* null at the head */
} LstNode;

typedef struct LstList {
    LstNode *head;
    LstNode *tail;
    int count;
} LstList;

void lstInit(LstList *list);
/* Links node right after previous; a null previous puts it at the head. */
void lstInsert(LstList *list, LstNode *previous, LstNode *node);
void lstAdd(LstList *list, LstNode *node);
int lstCount(LstList *list);
/* Unlinks node; its own links are left as they were. */
void lstDelete(LstList *list, LstNode *node);
LstNode *lstFirst(LstList *list);
/* Unlinks and returns the head, or null for an empty list. */
LstNode *lstGet(LstList *list);
LstNode *lstNext(LstNode *node);
/* Unlinks every node; the nodes themselves are not released. */
void lstFree(LstList *list);

/*
 * Walks list (an LstList *) in order with var, a pointer to type, naming each record
 * in turn; type is a record that begins with its LstNode. The body may stop the walk
 * with break, or unlink var and leave it at once; to take records off and go on,
 * use lstGet.
 */
#define LST_FOR_EACH(type, var, list) \
    for (type *var = (type *)lstFirst(list); var; var = (type *)lstNext((LstNode *)(var)))

#ifdef __cplusplus
}
#endif

#endif
