// Internal interface of the data module tree, shared by the library's other
// subsystems (model description loading, model operations, configuration store).
#pragma once

#include <stddef.h>

#include "kep_tree.h"

namespace kep {

// The two table kinds. Both fields are public and writable, so these are the only
// tests of them: a list table (optionPublic 1) shares its callbacks with its
// sections and stores them as an array; a dynamic table (isDynamic 1) is produced
// by its owner at access time and has nothing stored.
inline bool isListTable(const DataTable &table) {
    return table.optionPublic == 1;
}
inline bool isDynamicTable(const DataTable &table) {
    return table.isDynamic == 1;
}

// A tree path "/module/table[/section]" split into its components. Module and table
// are cut to 31 characters; section points into the caller's path (never null; empty
// when the path has no section component) and stays valid as long as that path.
struct TreePath {
    char module[KEP_NAME_SIZE];
    char table[KEP_NAME_SIZE];
    const char *section;
};

// False for a null path, one not beginning with "/", or one without a second "/".
bool splitTreePath(const char *path, TreePath *out);

// Finds the table of a split path: the first module of that name holding the table,
// going on through the remaining modules of the root list. Null when none; *module
// (when not null) receives the module that holds the table.
DataTable *findPathTable(const TreePath &path, DataModule **module);

// The table's first section of that name, or null.
DataSection *findSectionInTable(DataTable *table, const char *name);

// A count that every change of any list made with the lst* functions advances: a
// node found by walking a list earlier is still there, under the same name, while
// the count stays (a node is named as it is made, never afterwards).
unsigned long listGeneration();

// Index of the last c in text; -1 when absent; 0 for a null or empty text.
int lastIndexOfChar(const char *text, char c);

// Zero-filled nodes, or null when memory is exhausted. Released with free(), except
// sections, which own lists and callback nodes and go through freeDataSection.
DataModule *newDataModule();
DataTable *newDataTable();
DataSection *newDataSection();
void *newCbNode();  // a MethodCbNode or a VerNotifyNode: both fit
ActionNode *newActionNode();
void freeDataSection(DataSection *section);

// The allocator behind the node allocators (calloc). Tests replace it to make a
// chosen allocation fail; nothing else touches it.
extern void *(*treeCalloc)(size_t count, size_t size);

// Copies at most size-1 bytes of src and terminates dst (name and callback fields).
void copyName(char *dst, const char *src, unsigned size);

// The record a node taken off a list belongs to: every tree record begins with its
// link. Walks go through LST_FOR_EACH.
template <typename T>
inline T *nodeAs(LstNode *node) {
    return reinterpret_cast<T *>(node);
}

// The root list itself, for the subsystems that walk or extend it.
LstList &moduleRoot();

// Releases every node and empties the root list.
void releaseTreeNodes();

// Drops the configuration store's kept documents and releases the tree, so that each
// test starts afresh. Not exported; production code never calls it. Defined with the
// store, which the tree itself does not know.
void resetTreeForTest();

}  // namespace kep
