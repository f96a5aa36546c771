/*
 * The host's tree under its locks: one reader-writer lock per module. The module
 * list itself never changes once the host serves, so finding a module needs none.
 */
#ifndef KEPD_TREE_H
#define KEPD_TREE_H

#include "kepHandle.h"

/* After the model descriptions are merged and the files loaded; 0 or -1. */
int treeInit(void);
int treeModuleCount(void);
/* The module's place in the list, or -1. */
int treeModuleIndex(const char *name);
DataModule *treeModule(int index);

/* Serves a request with the modules it names read-locked; *response as
 * standardKepReqHandle gives it. */
int treeRequest(const char *request, char **response);
void treeReadLock(int index);
void treeWriteLock(int index);
void treeUnlock(int index);
void treeReadLockAll(void);
void treeUnlockAll(void);

/* Gives the memory of large answers back to the system; called by the main thread. */
void treeTrimIfWanted(void);

/* The module, table and (with a section component) section a path names; null
 * pointers for what does not exist. The module's index, or -1. */
int treeFind(const char *path, DataTable **table, DataSection **section);

/* The whole tree with every registration as JSON text (the direct route's snapshot),
 * malloc'd; NULL when memory runs out. Takes the read locks itself. */
char *treeSnapshot(unsigned generationNow(void));

#endif
