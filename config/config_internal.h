// Internal interface of the configuration store, shared by its files and by the
// model operations that read a module's stored document.
#pragma once

#include "kep_config.h"
#include "tree/tree_internal.h"

namespace kep {

struct DocumentSlot;  // a module's kept document (document_cache.cpp)

// A module's configuration document for the length of one operation.
//
// The process keeps each module's parsed file between operations and reads the file
// again only when it changed, so that reading n sections of a table costs one parse.
// An operation checks the kept document out for itself and hands it back when the
// handle goes; an operation that finds it checked out by another thread reads the
// file for itself, as if nothing were kept. So no two threads ever share json-c
// values.
//
// Readers must not change the document. A writer calls changing() before its first
// change; from then on the document is kept only once store() has succeeded, and any
// other outcome (a refused conversion or verify, a failed store, no memory) drops
// it, so that the next operation reads the file again.
class ModuleDocument {
public:
    // Keep: the document is kept for the next operation. IfKept: only a module already
    // kept stays so; others are read for this operation alone (the start-up load and
    // the host's rare writes, so that a host does not hold every module's file).
    enum class Use { Keep, IfKept };
    // What a change does to the positions of list elements.
    enum class Change { Moves, InPlace };

    // A null document (get() and the bool are false) when the module has no file, the
    // file is missing or unparsable, or its top level is not an object.
    explicit ModuleDocument(const DataModule &module, Use use = Use::Keep);
    ~ModuleDocument();
    ModuleDocument(const ModuleDocument &) = delete;
    ModuleDocument &operator=(const ModuleDocument &) = delete;

    json_object *get() const { return doc_; }
    explicit operator bool() const { return doc_ != nullptr; }

    // Before the first change. Moves: elements may be removed or reordered, which
    // drops the list indexes; InPlace: the caller reports what else it does.
    void changing(Change change);
    // An element keyed name was appended to array (a member of this document).
    void appended(json_object *array, const char *name);
    // After an InPlace change of element's member name: keeps the indexes true when
    // the change moved that member from the element's front.
    void replacedMember(json_object *element, const char *name);

    // Stores the document in the module's file with the platform's plain store and
    // returns its result.
    int store();

    // The first element of array (a list table's member of this document) whose first
    // member is keyed name, or null: the element a walk of the array in order finds.
    json_object *findListElement(json_object *array, const char *name);
    // The table's first section node of that name, or null, as findSectionInTable;
    // through an index kept with the module's document while no list changes.
    DataSection *findSection(DataTable &table, const char *name);

private:
    void release();

    const char *path_ = nullptr;
    DocumentSlot *slot_ = nullptr;  // checked out, or null
    json_object *doc_ = nullptr;
    bool changed_ = false;  // changed and not (yet) stored
};

// How a document reaches its file: every write of a section goes through the
// platform's plain store, a reset through its in-memory store.
enum class StoreKind { Write, Reset };

// The one file-store helper of writes that do not go through a ModuleDocument (the
// reset). Both platform stores replace the file atomically: on failure (missing
// folder, full disk, size limit) the previous file is left byte for byte intact and
// the platform's nonzero result is returned.
int storeModuleDocument(const char *path, json_object *doc, StoreKind kind);

// The element of a list table's array whose first member is keyed name, or null:
// a walk of the array in order.
json_object *findListElement(json_object *array, const char *name);

// How many times the store has read a module file (jsonObjectFromFile) in this
// process, for tests.
unsigned long moduleFileReads();
// How many indexes of kept documents (a list's elements, a table's sections) this
// process has built, for tests.
unsigned long indexBuilds();
// Releases every kept document; nothing may be checked out. For tests, through
// resetTreeForTest.
void dropModuleDocuments();

// Writes (record given) or deletes (record null) the list section name of a list
// table and keeps its tree node in step. Returns the store's result or -1; a
// refused write stores nothing.
int modelConfListSecWrite(const char *name, DataModule *module, DataTable *table, const void *record,
                          int size);

}  // namespace kep
