// The record pool of a parse: two blocks (elements, attributes) handed out in address
// order as they are needed, records given back reused first, released as a whole.
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "base/log.h"
#include "xml/xml_internal.h"

namespace {

// Blocks of at least this size are faulted in this much at a time, ahead of use.
constexpr size_t kPrefaultBytes = 64 * 1024;

// At each chunk's first record, faults in the pages of that chunk (kPrefaultBytes,
// cut at the block's capacity records). A smaller block is left to fault page by page:
// its few traps cost less than the call. The advice only makes the pages present and
// writable, as the writes would; a kernel without it refuses it and nothing changes.
template <typename T>
void prefaultChunk(T *block, int fresh, int capacity) {
#ifdef MADV_POPULATE_WRITE
    constexpr int chunk = static_cast<int>(kPrefaultBytes / sizeof(T));
    if (fresh % chunk != 0 || static_cast<size_t>(capacity) * sizeof(T) < kPrefaultBytes) return;
    const int to = capacity - fresh > chunk ? fresh + chunk : capacity;
    const uintptr_t page = static_cast<uintptr_t>(getpagesize());
    const uintptr_t start = reinterpret_cast<uintptr_t>(block + fresh) & ~(page - 1);
    madvise(reinterpret_cast<void *>(start), reinterpret_cast<uintptr_t>(block + to) - start,
            MADV_POPULATE_WRITE);
#else
    (void)block, (void)fresh, (void)capacity;
#endif
}

// The next record of a pool block (capacity records): the one given back last, else
// the first never handed out; null when the pool's count is used up. The order is
// that of a free list chained in address order at the start with records given back
// pushed on its head.
template <typename T>
T *takeRecord(T *&freeList, T *block, int &fresh, int count, int capacity) {
    if (T *record = freeList) {
        freeList = record->next;
        return record;
    }
    if (fresh >= count) return nullptr;
    prefaultChunk(block, fresh, capacity);
    return &block[fresh++];
}

}  // namespace

namespace kep {

void *(*xmlAlloc)(size_t size) = malloc;
void *(*xmlRealloc)(void *block, size_t size) = realloc;

// Allocates pool blocks with room for room elements (three attributes each) and gives
// the pool n of them; the records are handed out in address order as they are needed
// (takeRecord) and none is written to before that. When logFailure, a failed block is
// logged with its byte size. Nothing stays allocated on failure.
bool allocPool(XmlMemPool &pool, int n, int room, bool logFailure) {
    const size_t nodeBytes = static_cast<size_t>(room) * sizeof(XmlNode);
    auto *nodes = static_cast<XmlNode *>(xmlAlloc(nodeBytes));
    if (!nodes) {
        if (logFailure)
            KEP_LOG("xmlMemPoolInit malloc element mem size %d failed.\r\n", static_cast<int>(nodeBytes));
        return false;
    }
    const size_t attrBytes = static_cast<size_t>(room) * kXmlAttrsPerNode * sizeof(XmlAttr);
    auto *attrs = static_cast<XmlAttr *>(xmlAlloc(attrBytes));
    if (!attrs) {
        if (logFailure)
            KEP_LOG("xmlMemPoolInit malloc attribute mem size %d failed.\r\n", static_cast<int>(attrBytes));
        free(nodes);
        return false;
    }
    pool.nodeBlock = nodes;
    pool.nodeCount = n;
    pool.room = room;
    pool.attrBlock = attrs;
    return true;
}

bool xmlPoolNodesLeft(const XmlMemPool &pool) {
    return pool.freeNodes || pool.nodesFresh < pool.nodeCount;
}

bool xmlPoolAttrsLeft(const XmlMemPool &pool) {
    return pool.freeAttrs || pool.attrsFresh < pool.nodeCount * kXmlAttrsPerNode;
}

int xmlMemPoolInit(XmlMemPool *pool, int n) {
    if (!pool || n < 0) return -1;
    memset(pool, 0, sizeof *pool);
    if (n == 0) return 0;
    const size_t count = static_cast<size_t>(n);
    if (n > INT_MAX / kXmlAttrsPerNode || count > SIZE_MAX / (sizeof(XmlAttr) * kXmlAttrsPerNode) ||
        count > SIZE_MAX / sizeof(XmlNode)) {
        return -1;
    }
    return allocPool(*pool, n, n, true) ? 0 : -1;
}

XmlNode *mxmlParseStartElt(XmlNode *parent, const char *name, XmlParseCtx *ctx) {
    if (!ctx || !name || !*name) return nullptr;
    if (ctx->count >= kXmlMaxNodes) {
        KEP_LOG("Xml library support max %d nodes.\r\n", kXmlMaxNodes);
        return nullptr;
    }
    XmlMemPool &pool = ctx->pool;
    XmlNode *node = takeRecord(pool.freeNodes, pool.nodeBlock, pool.nodesFresh, pool.nodeCount, pool.room);
    if (!node) {
        KEP_LOG("xml node malloc failed.\r\n");
        return nullptr;
    }
    ctx->count++;
    memset(node, 0, sizeof *node);
    if (parent) {
        node->parent = parent;
        node->prev = parent->lastChild;
        if (parent->lastChild) {
            parent->lastChild->next = node;
        } else {
            parent->firstChild = node;
        }
        parent->lastChild = node;
    }
    xmlCopyText(node->name, name, sizeof node->name);
    return node;
}

XmlAttr *mxmlAddAttrib(XmlNode *element, const char *name, const char *value, XmlParseCtx *ctx) {
    if (!element || !name || !value || !ctx) return nullptr;
    XmlMemPool &pool = ctx->pool;
    XmlAttr *attr = takeRecord(pool.freeAttrs, pool.attrBlock, pool.attrsFresh,
                               pool.nodeCount * kXmlAttrsPerNode, pool.room * kXmlAttrsPerNode);
    if (!attr) {
        KEP_LOG("xml attribute node malloc failed.\r\n");
        return nullptr;
    }
    memset(attr, 0, sizeof *attr);
    xmlCopyText(attr->name, name, sizeof attr->name);
    xmlCopyText(attr->value, value, sizeof attr->value);
    attr->next = element->attrs;
    element->attrs = attr;
    return attr;
}

void xmlNodeRelease(XmlMemPool *pool, XmlNode *element) {
    if (!pool || !element) return;
    if (XmlNode *parent = element->parent) {
        if (parent->firstChild == element) parent->firstChild = element->next;
        if (parent->lastChild == element) parent->lastChild = element->prev;
    }
    if (element->prev) element->prev->next = element->next;
    if (element->next) element->next->prev = element->prev;
    element->parent = element->prev = element->next = nullptr;

    // Post-order without recursion: descend to a leaf, unlink it from its parent
    // (whose first child then moves on) and release it; climb one level; repeat.
    XmlNode *node = element;
    for (;;) {
        while (node->firstChild) node = node->firstChild;
        XmlNode *parent = node == element ? nullptr : node->parent;
        if (parent) {
            parent->firstChild = node->next;
            if (node->next) {
                node->next->prev = nullptr;
            } else {
                parent->lastChild = nullptr;
            }
        }
        XmlAttr *attr = node->attrs;
        while (attr) {
            XmlAttr *nextAttr = attr->next;
            attr->next = pool->freeAttrs;
            pool->freeAttrs = attr;
            attr = nextAttr;
        }
        memset(node, 0, sizeof *node);
        node->next = pool->freeNodes;
        pool->freeNodes = node;
        if (!parent) return;
        node = parent;
    }
}

void xmlDocRelease(XmlParseCtx *ctx, XmlNode *top) {
    if (!ctx) return;
    // Every record of the tree is in the two blocks, which go as a whole: returning
    // the records to the free lists first would only write to memory about to be freed.
    (void)top;
    free(ctx->pool.nodeBlock);
    free(ctx->pool.attrBlock);
    memset(&ctx->pool, 0, sizeof ctx->pool);
}

}  // namespace kep
