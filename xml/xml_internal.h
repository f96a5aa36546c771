// Internal interface of the pooled XML parser, shared with the model description
// loader and the tests.
#pragma once

#include <stddef.h>
#include <string.h>

#include <utility>

#include "kep_xml.h"

namespace kep {

// Element and attribute records of one document. Both blocks are allocated before
// the parse starts and records are never freed one by one. A record given back goes
// onto its free list and is taken again first; after those, records are taken in
// address order from the part of the block never handed out. That part is not
// written to before it is used, so the pages of records a document does not need
// (most of the three attributes per element) never become resident. A large block
// is faulted in one chunk at a time as its records come into use: one system call
// where every fresh page would otherwise trap on its first write.
struct XmlMemPool {
    XmlNode *freeNodes;  // given back, chained through XmlNode::next
    XmlNode *nodeBlock;  // room records, the pool's nodeCount of them in use
    XmlAttr *freeAttrs;  // given back, chained through XmlAttr::next
    XmlAttr *attrBlock;  // 3 room records, 3 nodeCount in use
    int nodeCount;
    int room;
    int nodesFresh;  // nodeBlock[nodesFresh..] were never handed out
    int attrsFresh;  // attrBlock[attrsFresh..] likewise
};

struct XmlParseCtx;

// Next input byte as a signed value (so 0xFF reads as -1), or -1 at the end.
using XmlReadCharFn = int (*)(void *input);

// One parse context and, once a parse has succeeded, the document: the handle that
// strXmlParse and fdXmlParse return is &top.
struct XmlParseCtx {
    void *input;         // reader state: &cursor for text, &fd for a descriptor
    const char *cursor;  // next byte of the text
    int fd;
    int count;  // elements created by the current attempt
    XmlMemPool pool;
    XmlNode *top;
    XmlReadCharFn readChar;
    int keepAll;  // 0: only the elements of the device-description name table
    XmlNode *(*onStartElement)(XmlNode *parent, const char *name, XmlParseCtx *ctx);
    void (*onText)(XmlNode *element, const char *text);
    XmlAttr *(*onAttribute)(XmlNode *element, const char *name, const char *value, XmlParseCtx *ctx);
};

constexpr int kXmlPoolSizes[] = {100, 250, 400, 550, 700, 850};
constexpr int kXmlPoolAttempts = static_cast<int>(sizeof kXmlPoolSizes / sizeof kXmlPoolSizes[0]);
constexpr int kXmlMaxNodes = 900;
constexpr int kXmlAttrsPerNode = 3;

// Predefined entities, shared by the entity reader and mxmlEncodeEleNode.
struct XmlEntity {
    const char *name;
    char ch;
};
inline constexpr XmlEntity kXmlEntities[] = {
    {"amp", '&'}, {"apos", '\''}, {"gt", '>'}, {"lt", '<'}, {"quot", '"'},
};

// Allocator of the context and the pool blocks (malloc), and the reallocation that
// grows the blocks during a parse of text (realloc). Tests replace them to make a
// chosen allocation fail; nothing else touches them.
extern void *(*xmlAlloc)(size_t size);
extern void *(*xmlRealloc)(void *block, size_t size);

// Copies src into dst of size bytes, cut to fit and terminated.
inline void xmlCopyText(char *dst, const char *src, size_t size) {
    size_t n = strnlen(src, size - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
}

// Allocates pool blocks with room for room elements (three attributes each) and gives
// the pool n of them. When logFailure, a failed block is logged with its byte size.
// Nothing stays allocated on failure.
bool allocPool(XmlMemPool &pool, int n, int room, bool logFailure);
// Whether the pool can still hand out an element, an attribute.
bool xmlPoolNodesLeft(const XmlMemPool &pool);
bool xmlPoolAttrsLeft(const XmlMemPool &pool);

// Fills pool with n elements and 3n attributes; 0, or -1 (null pool, negative n, no
// memory: nothing stays allocated).
int xmlMemPoolInit(XmlMemPool *pool, int n);

// A cleared element named name (cut to 31 characters) appended as parent's last child
// (parent may be null). Null for a null context, a null or empty name, the 900th
// element of an attempt or an empty pool.
XmlNode *mxmlParseStartElt(XmlNode *parent, const char *name, XmlParseCtx *ctx);

// An attribute (name cut to 15, value to 31 characters) pushed at the head of
// element's list; null for null arguments or an empty pool.
XmlAttr *mxmlAddAttrib(XmlNode *element, const char *name, const char *value, XmlParseCtx *ctx);

// Replaces a blank value by text, else appends to it; the value is cut at 63.
void xmlNodeAppendText(XmlNode *element, const char *text);

// Reads an entity reference after "&" up to its ";": the character (0..255), or -1.
int xmlReadEntity(XmlParseCtx *ctx);

// Document-order successor of element within top's subtree, or null.
XmlNode *xmlNextNode(XmlNode *element, XmlNode *top);

// Unlinks element and returns it, its descendants and their attributes to the pool.
// Iterative, so the depth of the tree does not matter.
void xmlNodeRelease(XmlMemPool *pool, XmlNode *element);

// Releases the tree from top and frees the pool blocks; ctx itself stays.
void xmlDocRelease(XmlParseCtx *ctx, XmlNode *top);

void printfXmlNode(XmlNode *element);

int xmlStrReadChar(void *input);
int xmlFdReadChar(void *input);

// Owns a parsed document; releases it with mxmlTreeDelete.
class XmlDoc {
public:
    XmlDoc() = default;
    explicit XmlDoc(XmlNode **doc) : doc_(doc) {}
    XmlDoc(const XmlDoc &) = delete;
    XmlDoc &operator=(const XmlDoc &) = delete;
    XmlDoc(XmlDoc &&other) noexcept : doc_(other.release()) {}
    XmlDoc &operator=(XmlDoc &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~XmlDoc() { reset(); }

    explicit operator bool() const { return doc_ != nullptr; }
    XmlNode **get() const { return doc_; }
    // The top element, or null when there is no document.
    XmlNode *root() const { return doc_ ? *doc_ : nullptr; }
    XmlNode **release() { return std::exchange(doc_, nullptr); }
    void reset(XmlNode **doc = nullptr) {
        XmlNode **old = std::exchange(doc_, doc);
        if (old) mxmlTreeDelete(old);
    }

private:
    XmlNode **doc_ = nullptr;
};

}  // namespace kep
