// The module documents a process keeps between operations, and the indexes of their
// list tables.
//
// Memory: one parsed document per module file that the process reads or writes
// through modelRead/modelWrite. json-c holds a parsed document at about 18 to 20
// times its text (measured on x86-64 with sections of five short strings: 218,928
// bytes of heap for 11,183 bytes of text, 108 MB for 6.0 MB; every object carries a
// hash table of 16 entries), and a stored document also keeps the text json-c last
// wrote for it. That is the price of reading a table of n sections with one parse
// instead of n. The start-up load and the host's rare writes use the kept document
// only when there already is one, so a host that loads every module keeps none.
//
// Validity: a kept document is used only while the file has the identity it had
// when it was read (device, inode, size, modification and change times); any
// difference reads it again. File times come from a coarse clock (one tick, at most
// 10 ms), so a file changed in place within a tick of an earlier change can keep its
// identity; a document read from a file whose modification time is not clearly older
// than the moment of reading is therefore used for that operation and read again next
// time ("racily clean"). A file this process has just stored itself (an atomic
// replace, a new inode) is trusted with the identity it has after the store.
//
// Concurrency without locks: a slot is checked out with a compare-and-swap and handed
// back with a store; a thread that finds it checked out reads the file for itself.
// Slots are pushed on a list that only grows (two threads making the first slot of one
// file at once may both push one; either serves, as both are checked against the file).
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include "config/config_internal.h"
#include "kep_pf_json.h"

namespace kep {

namespace {

// Margin beyond which a modification time is clearly older than a reading: two ticks
// of the coarsest kernel clock (HZ 100). A time of whole seconds (nanoseconds 0) comes
// from a file system that keeps seconds only, and needs two seconds.
constexpr long long kRacyNs = 20 * 1000 * 1000;
constexpr long long kRacyWholeSecondsNs = 2 * 1000 * 1000 * 1000LL;

struct FileId {
    dev_t dev;
    ino_t ino;
    off_t size;
    struct timespec mtime;
    struct timespec ctime;
};

FileId idOf(const struct stat &st) {
    return {st.st_dev, st.st_ino, st.st_size, st.st_mtim, st.st_ctim};
}

bool sameTime(const struct timespec &a, const struct timespec &b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool sameId(const FileId &a, const FileId &b) {
    return a.dev == b.dev && a.ino == b.ino && a.size == b.size && sameTime(a.mtime, b.mtime) &&
           sameTime(a.ctime, b.ctime);
}

bool clearlyOlder(const struct timespec &mtime, const struct timespec &now) {
    const long long margin = mtime.tv_nsec == 0 ? kRacyWholeSecondsNs : kRacyNs;
    const long long age =
        (static_cast<long long>(now.tv_sec) - mtime.tv_sec) * 1000000000LL + (now.tv_nsec - mtime.tv_nsec);
    return age > margin;
}

unsigned long gIndexBuilds;  // list and section indexes, for tests

// ---- list indexes: name -> position of the first element with that key ----

struct IndexSlot {
    uint32_t hash;
    int32_t pos;  // -1: empty
};

// An open-addressing table over one array of the kept document, in one block.
struct ListIndex {
    ListIndex *next;
    json_object *array;
    uint32_t mask;  // slots - 1, a power of two less one
    uint32_t used;
    IndexSlot *slots() { return reinterpret_cast<IndexSlot *>(this + 1); }
};
static_assert(sizeof(ListIndex) % alignof(IndexSlot) == 0, "slots follow the header");

uint32_t hashName(const char *name) {
    uint32_t h = 2166136261u;  // FNV-1a
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(name); *p; ++p)
        h = (h ^ *p) * 16777619u;
    return h;
}

// The key of an element's first member, or null (not an object, or none).
const char *firstKey(json_object *element) {
    const char *key = nullptr;
    return jsonObjectNextSubObject(element, nullptr, &key) ? key : nullptr;
}

bool keyAt(json_object *array, int32_t pos, const char *name) {
    const char *key = firstKey(jsonObjectArrayGetIdx(array, static_cast<unsigned>(pos)));
    return key && strcmp(key, name) == 0;
}

// The slot of name, or the empty slot where it would go.
IndexSlot *probe(ListIndex &index, const char *name, uint32_t hash) {
    IndexSlot *slots = index.slots();
    for (uint32_t i = hash & index.mask;; i = (i + 1) & index.mask) {
        IndexSlot &slot = slots[i];
        if (slot.pos < 0 || (slot.hash == hash && keyAt(index.array, slot.pos, name))) return &slot;
    }
}

// Records pos for name unless an earlier element holds it. False when full.
bool insertFirst(ListIndex &index, const char *name, int32_t pos) {
    const uint32_t hash = hashName(name);
    IndexSlot *slot = probe(index, name, hash);
    if (slot->pos >= 0) return true;
    if ((index.used + 1) * 2 > index.mask + 1) return false;
    *slot = {hash, pos};
    index.used++;
    return true;
}

// An index of every element of array, at most half full. Null when memory is short
// or the array is too long to count in the slots.
ListIndex *buildIndex(json_object *array) {
    const int length = jsonObjectArrayLength(array);
    if (length > (INT32_MAX >> 2)) return nullptr;
    uint32_t capacity = 8;
    while (capacity < 2u * static_cast<uint32_t>(length) + 2u) capacity <<= 1;
    if (static_cast<size_t>(capacity) > (SIZE_MAX - sizeof(ListIndex)) / sizeof(IndexSlot)) return nullptr;
    auto *index = static_cast<ListIndex *>(malloc(sizeof(ListIndex) + capacity * sizeof(IndexSlot)));
    if (!index) return nullptr;
    __atomic_add_fetch(&gIndexBuilds, 1, __ATOMIC_RELAXED);
    *index = {nullptr, array, capacity - 1, 0};
    IndexSlot *slots = index->slots();
    for (uint32_t i = 0; i < capacity; i++) slots[i] = {0, -1};
    for (int i = 0; i < length; i++) {
        const char *key = firstKey(jsonObjectArrayGetIdx(array, static_cast<unsigned>(i)));
        if (key) insertFirst(*index, key, i);  // never full: twice the elements
    }
    return index;
}

// ---- section indexes: name -> the first section node of a table with that name ----

struct NodeSlot {
    uint32_t hash;
    DataSection *node;  // null: empty
};

// An open-addressing table over one table's section nodes as the lists were at
// generation, in one block.
struct NodeIndex {
    NodeIndex *next;
    const DataTable *table;
    unsigned long generation;
    uint32_t mask;
    NodeSlot *slots() { return reinterpret_cast<NodeSlot *>(this + 1); }
};
static_assert(sizeof(NodeIndex) % alignof(NodeSlot) == 0, "slots follow the header");

NodeSlot *probeNode(NodeIndex &index, const char *name, uint32_t hash) {
    NodeSlot *slots = index.slots();
    for (uint32_t i = hash & index.mask;; i = (i + 1) & index.mask) {
        NodeSlot &slot = slots[i];
        if (!slot.node || (slot.hash == hash && strcmp(slot.node->name, name) == 0)) return &slot;
    }
}

// An index of the table's sections, at most half full; null when memory is short.
NodeIndex *buildNodeIndex(DataTable &table) {
    uint32_t count = 0;
    LST_FOR_EACH(DataSection, s, &table.sections)
    if (++count > (UINT32_MAX >> 3)) return nullptr;
    uint32_t capacity = 8;
    while (capacity < 2u * count + 2u) capacity <<= 1;
    if (static_cast<size_t>(capacity) > (SIZE_MAX - sizeof(NodeIndex)) / sizeof(NodeSlot)) return nullptr;
    auto *index = static_cast<NodeIndex *>(malloc(sizeof(NodeIndex) + capacity * sizeof(NodeSlot)));
    if (!index) return nullptr;
    __atomic_add_fetch(&gIndexBuilds, 1, __ATOMIC_RELAXED);
    *index = {nullptr, &table, listGeneration(), capacity - 1};
    NodeSlot *slots = index->slots();
    for (uint32_t i = 0; i < capacity; i++) slots[i] = {0, nullptr};
    LST_FOR_EACH(DataSection, s, &table.sections) {
        const uint32_t hash = hashName(s->name);
        NodeSlot *slot = probeNode(*index, s->name, hash);
        if (!slot->node) *slot = {hash, s};  // an earlier node of that name stays
    }
    return index;
}

}  // namespace

// One module file's kept document. path and next never change once the slot is on
// the list; busy is taken with a compare-and-swap, and everything else belongs to
// whoever holds it. foreignActive and foreignDone count stores of the file made
// while the slot was not theirs, so that a holder never takes the identity such a
// store gave the file for that of its own.
struct DocumentSlot {
    DocumentSlot *next;
    char path[sizeof(DataModule::configFile)];
    int busy;
    int foreignActive;
    unsigned foreignDone;
    json_object *doc;
    FileId id;
    ListIndex *indexes;
    NodeIndex *nodes;  // of the module's list tables, whatever the document
};

namespace {

DocumentSlot *gSlots;
unsigned long gFileReads;

void dropIndexes(DocumentSlot &slot) {
    while (ListIndex *index = slot.indexes) {
        slot.indexes = index->next;
        free(index);
    }
}

void dropDocument(DocumentSlot &slot) {
    dropIndexes(slot);
    if (slot.doc) jsonObjectObjectDelete(slot.doc);
    slot.doc = nullptr;
}

DocumentSlot *firstSlot() {
    return __atomic_load_n(&gSlots, __ATOMIC_ACQUIRE);
}

// The slot of path checked out, or null: checked out by another thread, or none and
// create false, or no memory for one.
DocumentSlot *checkOut(const char *path, bool create) {
    for (DocumentSlot *slot = firstSlot(); slot; slot = slot->next) {
        if (strcmp(slot->path, path) != 0) continue;
        int idle = 0;
        return __atomic_compare_exchange_n(&slot->busy, &idle, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)
                   ? slot
                   : nullptr;
    }
    // A path longer than a slot holds would never be found again.
    if (!create || strlen(path) >= sizeof(DocumentSlot::path)) return nullptr;
    auto *slot = static_cast<DocumentSlot *>(calloc(1, sizeof(DocumentSlot)));
    if (!slot) return nullptr;
    memcpy(slot->path, path, strlen(path));
    slot->busy = 1;
    slot->next = firstSlot();
    while (
        !__atomic_compare_exchange_n(&gSlots, &slot->next, slot, true, __ATOMIC_RELEASE, __ATOMIC_RELAXED)) {
    }
    return slot;
}

void checkIn(DocumentSlot *slot) {
    __atomic_store_n(&slot->busy, 0, __ATOMIC_RELEASE);
}

// Marks a store of path made without holding its slot, for as long as it lasts.
void foreignStore(const char *path, int delta) {
    for (DocumentSlot *slot = firstSlot(); slot; slot = slot->next) {
        if (strcmp(slot->path, path) != 0) continue;
        if (delta < 0) __atomic_add_fetch(&slot->foreignDone, 1, __ATOMIC_SEQ_CST);
        __atomic_add_fetch(&slot->foreignActive, delta, __ATOMIC_SEQ_CST);
    }
}

json_object *readModuleFile(const char *path) {
    __atomic_add_fetch(&gFileReads, 1, __ATOMIC_RELAXED);
    json_object *doc = jsonObjectFromFile(path);
    // Every reader and writer expects one member per table; a file holding any other
    // value counts as unreadable, so that a load repairs it.
    if (jsonObjectIsObject(doc)) return doc;
    jsonObjectObjectDelete(doc);
    return nullptr;
}

ListIndex *findIndex(DocumentSlot &slot, json_object *array) {
    for (ListIndex *index = slot.indexes; index; index = index->next)
        if (index->array == array) return index;
    return nullptr;
}

void dropIndex(DocumentSlot &slot, ListIndex *index) {
    for (ListIndex **at = &slot.indexes; *at; at = &(*at)->next) {
        if (*at == index) {
            *at = index->next;
            free(index);
            return;
        }
    }
}

}  // namespace

ModuleDocument::ModuleDocument(const DataModule &module, Use use) {
    if (module.configFile[0] == '\0') return;
    path_ = module.configFile;
    slot_ = checkOut(path_, use == Use::Keep);
    struct timespec now;
    struct stat before;
    clock_gettime(CLOCK_REALTIME, &now);
    const bool known = stat(path_, &before) == 0;
    if (slot_ && slot_->doc && known && sameId(slot_->id, idOf(before))) {
        doc_ = slot_->doc;
        return;
    }
    if (slot_) dropDocument(*slot_);
    doc_ = readModuleFile(path_);
    struct stat after;
    if (!doc_ || !slot_ || !known || stat(path_, &after) != 0 || !sameId(idOf(before), idOf(after)) ||
        !clearlyOlder(after.st_mtim, now))
        return;
    slot_->doc = doc_;
    slot_->id = idOf(after);
}

ModuleDocument::~ModuleDocument() {
    release();
}

void ModuleDocument::release() {
    const bool kept = slot_ && doc_ && slot_->doc == doc_;
    if (kept && changed_) {
        dropDocument(*slot_);  // releases doc_
    } else if (!kept && doc_) {
        jsonObjectObjectDelete(doc_);
    }
    doc_ = nullptr;
    if (slot_) checkIn(slot_);
    slot_ = nullptr;
}

void ModuleDocument::changing(Change change) {
    changed_ = true;
    if (change == Change::Moves && slot_ && slot_->doc == doc_) dropIndexes(*slot_);
}

void ModuleDocument::appended(json_object *array, const char *name) {
    if (!slot_ || slot_->doc != doc_) return;
    ListIndex *index = findIndex(*slot_, array);
    const int length = jsonObjectArrayLength(array);
    // A full index is built again, larger, at the next lookup.
    if (index && (length < 1 || !insertFirst(*index, name, length - 1))) dropIndex(*slot_, index);
}

void ModuleDocument::replacedMember(json_object *element, const char *name) {
    if (!slot_ || slot_->doc != doc_) return;
    const char *key = firstKey(element);
    if (!key || strcmp(key, name) != 0) dropIndexes(*slot_);
}

int ModuleDocument::store() {
    if (!doc_) return -1;
    if (!slot_) {
        foreignStore(path_, 1);
        const int result = jsonObjectToFile(path_, doc_);
        foreignStore(path_, -1);
        return result;
    }
    const unsigned done = __atomic_load_n(&slot_->foreignDone, __ATOMIC_SEQ_CST);
    const int result = jsonObjectToFile(path_, doc_);
    struct stat st;
    if (result != 0 || stat(path_, &st) != 0 ||
        __atomic_load_n(&slot_->foreignActive, __ATOMIC_SEQ_CST) != 0 ||
        __atomic_load_n(&slot_->foreignDone, __ATOMIC_SEQ_CST) != done) {
        // Failed, or another store of the file may have landed after this one: the
        // next operation reads the file.
        changed_ = true;
        return result;
    }
    if (slot_->doc != doc_) {
        dropDocument(*slot_);
        slot_->doc = doc_;
    }
    slot_->id = idOf(st);
    changed_ = false;
    return result;
}

json_object *ModuleDocument::findListElement(json_object *array, const char *name) {
    if (!name || !slot_ || !doc_ || slot_->doc != doc_ || !jsonObjectIsArray(array))
        return kep::findListElement(array, name);
    ListIndex *index = findIndex(*slot_, array);
    if (!index) {
        index = buildIndex(array);
        if (!index) return kep::findListElement(array, name);
        index->next = slot_->indexes;
        slot_->indexes = index;
    }
    const IndexSlot *slot = probe(*index, name, hashName(name));
    return slot->pos < 0 ? nullptr : jsonObjectArrayGetIdx(array, static_cast<unsigned>(slot->pos));
}

DataSection *ModuleDocument::findSection(DataTable &table, const char *name) {
    if (!slot_ || !name) return findSectionInTable(&table, name);
    const unsigned long generation = listGeneration();
    NodeIndex **at = &slot_->nodes;
    while (*at && (*at)->table != &table) at = &(*at)->next;
    if (*at && (*at)->generation != generation) {
        NodeIndex *stale = *at;
        *at = stale->next;
        free(stale);
    }
    if (!*at) {
        NodeIndex *index = buildNodeIndex(table);
        if (!index) return findSectionInTable(&table, name);
        index->next = slot_->nodes;
        slot_->nodes = index;
        at = &slot_->nodes;
    }
    return probeNode(**at, name, hashName(name))->node;
}

int storeModuleDocument(const char *path, json_object *doc, StoreKind kind) {
    if (!path || path[0] == '\0' || !doc) return -1;
    foreignStore(path, 1);
    const int result =
        kind == StoreKind::Reset ? jsonObjectToFileMem(path, doc) : jsonObjectToFile(path, doc);
    foreignStore(path, -1);
    return result;
}

json_object *findListElement(json_object *array, const char *name) {
    int length = jsonObjectArrayLength(array);
    for (int i = 0; i < length; i++) {
        json_object *element = jsonObjectArrayGetIdx(array, static_cast<unsigned>(i));
        const char *key = firstKey(element);
        if (key && strcmp(key, name) == 0) return element;
    }
    return nullptr;
}

unsigned long moduleFileReads() {
    return __atomic_load_n(&gFileReads, __ATOMIC_RELAXED);
}

unsigned long indexBuilds() {
    return __atomic_load_n(&gIndexBuilds, __ATOMIC_RELAXED);
}

void dropModuleDocuments() {
    DocumentSlot *slot = __atomic_exchange_n(&gSlots, nullptr, __ATOMIC_ACQ_REL);
    while (slot) {
        DocumentSlot *next = slot->next;
        dropDocument(*slot);
        while (NodeIndex *index = slot->nodes) {
            slot->nodes = index->next;
            free(index);
        }
        free(slot);
        slot = next;
    }
}

void resetTreeForTest() {
    dropModuleDocuments();
    releaseTreeNodes();
}

}  // namespace kep
