// The pooled parser: pool, readers, the parse loop and the retrying entry points.
#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "base/api.h"
#include "base/log.h"
#include "xml/xml_internal.h"

namespace {

using kep::XmlParseCtx;

constexpr int kEof = -1;
constexpr int kNoEnd = -2;    // a tag name that stopped after a marker, not at a delimiter
constexpr int kBufSize = 64;  // working buffer: 63 characters and the zero
constexpr int kEntityNameMax = 31;
constexpr size_t kElementKeyLen = 8;
constexpr unsigned long kInputResetRequest = 7;  // sent before each attempt; no effect on ordinary files

// Element names kept when keepAll is 0: those of a device description.
constexpr const char *kDeviceElements[] = {
    "root",    "URLBase",     "device",    "deviceList", "deviceType",  "presentationURL", "serviceList",
    "service", "serviceType", "serviceId", "controlURL", "eventSubURL", "SCPDURL",
};

bool isSpace(int c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
bool isQuote(int c) {
    return c == '"' || c == '\'';
}

bool isDeviceElement(const char *name) {
    for (const char *known : kDeviceElements) {
        if (strncmp(name, known, kElementKeyLen) == 0) return true;
    }
    return false;
}

// At most 63 characters; a 64th does not fit. The text is terminated only when it is
// handed on (str()), not after every byte.
struct Buf {
    char text[kBufSize];
    int len;

    void clear() { len = 0; }
    bool push(int c) {
        if (len >= kBufSize - 1) return false;
        text[len++] = static_cast<char>(c);
        return true;
    }
    const char *str() {
        text[len] = '\0';
        return text;
    }
    bool endsWithTwo(char c) const { return len >= 2 && text[len - 1] == c && text[len - 2] == c; }
    template <size_t N>
    bool is(const char (&s)[N]) const {
        return len == static_cast<int>(N - 1) && memcmp(text, s, N - 1) == 0;
    }
};

// Reallocates a pool block of records and re-aims pointers that pointed into its old
// place. Only the old address is used once the block has moved: it is gone.
template <typename T>
class BlockMove {
public:
    // False when there is no memory; block is then unchanged.
    bool grow(T *&block, int oldCount, int count) {
        old_ = reinterpret_cast<uintptr_t>(block);
        oldBytes_ = static_cast<size_t>(oldCount) * sizeof(T);
        auto *grown = static_cast<T *>(kep::xmlRealloc(block, static_cast<size_t>(count) * sizeof(T)));
        if (!grown) return false;
        block = now_ = grown;
        return true;
    }
    bool moved() const { return reinterpret_cast<uintptr_t>(now_) != old_; }
    void reaim(T *&p) const {
        const uintptr_t v = reinterpret_cast<uintptr_t>(p);
        if (v - old_ < oldBytes_) p = now_ + (v - old_) / sizeof(T);
    }

private:
    uintptr_t old_ = 0;
    size_t oldBytes_ = 0;
    T *now_ = nullptr;
};

// One parse attempt. The document is built only from ctx's pool; the walk keeps a
// pointer to the open element instead of recursing, so depth costs nothing.
//
// Over text, a parse can also stand for the whole retry schedule (growing): an attempt
// with a larger pool would read the same text, create the same records in the same
// order and fail at the same place up to where the smaller pool ran out, so instead of
// starting again the pool grows to the next size of the schedule and the parse goes on.
// The result, the records' order and the log lines are those of the attempts it
// replaces; a failure for any other cause would repeat in every later attempt.
class Parser {
public:
    // growing: attempt is the schedule's index of the pool ctx holds.
    Parser(XmlParseCtx &ctx, bool growing, int attempt)
        : ctx_(ctx), text_(ctx.readChar == kep::xmlStrReadChar), growing_(growing), attempt_(attempt) {
        buf_.clear();
    }

    int restartAt() const { return restartAt_; }

    XmlNode *run() {
        for (;;) {
            int c = next();
            if (c == kEof) {
                // Text after the last tag is dropped; an element left open at the end
                // is accepted only when nothing was opened or closed after it.
                if (first_ && first_ == last_) return first_;
                return fail();
            }
            if (c != '<') {
                if (!decode(c) || !buf_.push(c)) return fail();
                continue;
            }
            if (buf_.len > 0) ctx_.onText(current_, buf_.str());
            int end;
            if (!readTagName(end) || !dispatchTag(end)) return fail();
            buf_.clear();
        }
    }

private:
    // Text is read in place (the same bytes xmlStrReadChar gives), without a call per
    // character; the entity reader shares the cursor.
    int next() {
        if (!text_) return ctx_.readChar(ctx_.input);
        const unsigned char b = static_cast<unsigned char>(*ctx_.cursor);
        if (b == 0) return kEof;
        ++ctx_.cursor;
        return static_cast<signed char>(b);
    }

    // The pool ran out (the handler has logged it): goes on as the attempt with the
    // next size of the schedule would, in the room the blocks already have or with
    // the blocks grown (in place when the allocator can). False when there is no
    // larger size, or when growing fails for want of memory (restartAt() then names
    // the attempt to run from the start, which needs no more memory than the schedule
    // itself).
    bool nextAttempt() {
        if (!growing_ || attempt_ + 1 >= kep::kXmlPoolAttempts) return false;
        const int size = kep::kXmlPoolSizes[attempt_ + 1];
        if (!growPool(size)) {
            restartAt_ = attempt_ + 1;
            return false;
        }
        attempt_++;
        return true;
    }

    // Grows the pool to size elements (3 size attributes). Beyond the blocks' room,
    // both are reallocated, and every pointer into a block that moved is re-aimed
    // (links, attribute lists, free lists, the parser's own); only records handed out
    // hold pointers. On failure the pool keeps its size (the element block may already
    // be larger) and fail() can release it.
    bool growPool(int size) {
        kep::XmlMemPool &pool = ctx_.pool;
        if (size > pool.room) {
            BlockMove<XmlNode> nodes;
            if (!nodes.grow(pool.nodeBlock, pool.room, size)) return false;
            if (nodes.moved()) {
                for (XmlNode *r = pool.nodeBlock; r < pool.nodeBlock + pool.nodesFresh; r++) {
                    nodes.reaim(r->next);
                    nodes.reaim(r->prev);
                    nodes.reaim(r->parent);
                    nodes.reaim(r->firstChild);
                    nodes.reaim(r->lastChild);
                }
                nodes.reaim(pool.freeNodes);
                nodes.reaim(current_);
                nodes.reaim(first_);
                nodes.reaim(last_);
            }
            BlockMove<XmlAttr> attrs;
            const int attrRoom = pool.room * kep::kXmlAttrsPerNode;
            if (!attrs.grow(pool.attrBlock, attrRoom, size * kep::kXmlAttrsPerNode)) {
                return false;
            }
            if (attrs.moved()) {
                for (int i = 0; i < pool.nodesFresh; i++) attrs.reaim(pool.nodeBlock[i].attrs);
                for (int i = 0; i < pool.attrsFresh; i++) attrs.reaim(pool.attrBlock[i].next);
                attrs.reaim(pool.freeAttrs);
            }
            pool.room = size;
        }
        pool.nodeCount = size;
        return true;
    }

    // Replaces c by the character of the reference that "&" starts.
    bool decode(int &c) {
        if (c != '&') return true;
        c = kep::xmlReadEntity(&ctx_);
        return c >= 0;
    }

    XmlNode *fail() {
        kep::xmlDocRelease(&ctx_, first_);
        return nullptr;
    }

    // Reads the name after "<" into the buffer; end receives the delimiter that
    // stopped it (consumed), kEof, or kNoEnd after "?", "!--" or "![CDATA[".
    bool readTagName(int &end) {
        buf_.clear();
        for (;;) {
            int c = next();
            if (c == kEof || isSpace(c) || c == '>' || (c == '/' && buf_.len > 0)) {
                end = c;
                return true;
            }
            if (c == '<' || !decode(c) || !buf_.push(c)) return false;
            if (buf_.is("?") || buf_.is("!--") || buf_.is("![CDATA[")) {
                end = kNoEnd;
                return true;
            }
        }
    }

    bool dispatchTag(int end) {
        buf_.str();  // an empty name reads as "", not as a stale byte
        if (buf_.is("!--")) return comment();
        if (buf_.is("![CDATA[")) return cdata();
        if (buf_.is("?")) return declaration();
        if (buf_.text[0] == '!') return skipTag(end);
        if (buf_.text[0] == '/') return closeTag(end);
        return startTag(end);
    }

    // Reads on until ">" comes after two stored '-'; the marker counts, so "<!-->" is
    // a whole comment.
    bool comment() {
        for (;;) {
            int c = next();
            if (c == kEof) return false;
            if (c == '>' && buf_.endsWithTwo('-')) return true;
            if (!buf_.push(c)) return false;
        }
    }

    bool cdata() {
        buf_.clear();
        for (;;) {
            int c = next();
            if (c == kEof) return false;
            if (c == '>' && buf_.endsWithTwo(']')) {
                buf_.len -= 2;
                ctx_.onText(current_, buf_.str());
                return true;
            }
            if (!buf_.push(c)) return false;
        }
    }

    bool declaration() {
        for (;;) {
            int c = next();
            if (c == kEof) return false;
            if (c == '>' && buf_.text[buf_.len - 1] == '?') return true;
            if (!buf_.push(c)) return false;
        }
    }

    // Consumes the rest of a tag whose name stopped at end.
    bool skipTag(int end) {
        if (end == '>') return true;
        if (end == kEof) return false;
        for (;;) {
            int c = next();
            if (c == '>') return true;
            if (c == kEof) return false;
        }
    }

    bool closeTag(int end) {
        // Only the closing name's length is compared: "</>" closes any element, and
        // "</a>" closes "ab".
        const char *name = buf_.text + 1;
        if (!current_ || strncmp(current_->name, name, strlen(name)) != 0) return false;
        if (!skipTag(end)) return false;
        last_ = current_;
        current_ = current_->parent;
        return true;
    }

    // Skips an element outside the name table: on until its name shows up as
    // consecutive characters (the closing tag), then past the next ">".
    bool skipElement() {
        const char *name = buf_.text;
        int matched = 0;
        while (matched < buf_.len) {
            int c = next();
            if (c == kEof) return false;
            if (c == static_cast<signed char>(name[matched])) {
                matched++;
            } else {
                matched = c == static_cast<signed char>(name[0]) ? 1 : 0;
            }
        }
        return skipTag(kNoEnd);
    }

    bool startTag(int end) {
        if ((!current_ && first_) || end == kEof) return false;
        if (!ctx_.keepAll && !isDeviceElement(buf_.text)) return skipElement();
        XmlNode *element = ctx_.onStartElement(current_, buf_.text, &ctx_);
        if (!element && !kep::xmlPoolNodesLeft(ctx_.pool) && nextAttempt()) {
            element = ctx_.onStartElement(current_, buf_.text, &ctx_);
        }
        if (!element) return false;
        last_ = element;
        if (!first_) first_ = element;
        if (isSpace(end) && !readAttributes(end)) return false;
        element = last_;  // the pool may have moved
        if (end == '/' || end == '?') {
            if (next() != '>') return false;
            if (end == '/') return true;  // empty element: the open one stays current
        }
        current_ = element;
        return true;
    }

    // Reads attributes until the tag ends; end receives "/", "?" or ">".
    // The element is last_.
    bool readAttributes(int &end) {
        Buf name, value;
        int c = next();
        for (;;) {
            while (isSpace(c)) c = next();
            if (c == '/' || c == '?' || c == '>') {
                end = c;
                return true;
            }
            if (c == '<' || c == kEof) return false;

            name.clear();
            if (isQuote(c)) {
                // The opening quote is dropped and the closing one kept.
                const int quote = c;
                do {
                    c = next();
                    if (c == kEof) return false;
                    const int raw = c;
                    if (!decode(c) || !name.push(c)) return false;
                    c = raw;
                } while (c != quote);
                c = next();
            } else {
                while (c != kEof && !isSpace(c) && c != '=' && c != '/' && c != '>' && c != '?') {
                    if (!decode(c) || !name.push(c)) return false;
                    c = next();
                }
            }
            while (isSpace(c)) c = next();
            if (c != '=') return false;  // every attribute has a value
            c = next();
            while (isSpace(c)) c = next();

            value.clear();
            if (isQuote(c)) {
                const int quote = c;
                for (c = next(); c != quote; c = next()) {
                    if (c == kEof || !decode(c) || !value.push(c)) return false;
                }
                c = next();
            } else {
                while (c != kEof && !isSpace(c) && c != '=' && c != '/' && c != '>') {
                    if (!decode(c) || !value.push(c)) return false;
                    c = next();
                }
                if (c == kEof) return false;
                if (isSpace(c) || c == '=') c = next();
            }
            XmlAttr *attr = ctx_.onAttribute(last_, name.str(), value.str(), &ctx_);
            if (!attr && !kep::xmlPoolAttrsLeft(ctx_.pool) && nextAttempt()) {
                attr = ctx_.onAttribute(last_, name.text, value.text, &ctx_);
            }
            if (!attr) return false;
        }
    }

    XmlParseCtx &ctx_;
    const bool text_;     // reading ctx_.cursor in place
    const bool growing_;  // standing for the whole schedule
    int attempt_;         // the attempt of the schedule this parse is at
    int restartAt_ = -1;  // growing ran out of memory: the attempt to run afresh
    Buf buf_;
    XmlNode *current_ = nullptr;
    XmlNode *first_ = nullptr;
    XmlNode *last_ = nullptr;  // the element created or closed last
};

// The schedule's smallest pool that holds every element text can start: one per "<"
// not followed by "/" (comments and declarations count too; closing tags do not).
// Counting stops past the largest pool.
int elementRoom(const char *text) {
    constexpr int largest = kep::kXmlPoolSizes[kep::kXmlPoolAttempts - 1];
    int starts = 0;
    for (const char *p = strchr(text, '<'); p && starts <= largest; p = strchr(p + 1, '<')) {
        if (p[1] != '/') starts++;
    }
    for (int size : kep::kXmlPoolSizes) {
        if (starts <= size) return size;
    }
    return largest;
}

// Runs the attempts with growing pools; text null reads fd. *allFailed is set when
// all six attempts ran and failed (not when memory ran out first). Text is parsed
// once, the pool growing through the schedule as it runs out; a descriptor is read
// again from its start for every attempt.
XmlNode **parseDocument(const char *text, int fd, int keepAll, bool *allFailed) {
    *allFailed = false;
    auto *ctx = static_cast<XmlParseCtx *>(kep::xmlAlloc(sizeof(XmlParseCtx)));
    if (!ctx) return nullptr;
    int room = text ? elementRoom(text) : 0;
    for (int i = 0; i < kep::kXmlPoolAttempts; i++) {
        memset(ctx, 0, sizeof *ctx);
        // The first attempt over text gets blocks with room for the schedule's pool that
        // the text's start tags need, so growing through the sizes moves nothing. Without
        // memory for that (nothing logged), it takes its own size and grows as it goes.
        const int size = kep::kXmlPoolSizes[i];
        if (room <= size || !kep::allocPool(ctx->pool, size, room, false)) {
            if (kep::xmlMemPoolInit(&ctx->pool, size) != 0) {
                free(ctx);
                return nullptr;
            }
            room = size;
        }
        if (text) {
            ctx->cursor = text;
            ctx->input = &ctx->cursor;
            ctx->readChar = kep::xmlStrReadChar;
        } else {
            // Every attempt reads the input from its beginning; a pipe cannot rewind,
            // so only its first attempt sees the document.
            ioctl(fd, kInputResetRequest, 0);
            lseek(fd, 0, SEEK_SET);
            ctx->fd = fd;
            ctx->input = &ctx->fd;
            ctx->readChar = kep::xmlFdReadChar;
        }
        ctx->keepAll = keepAll ? 1 : 0;
        ctx->onStartElement = kep::mxmlParseStartElt;
        ctx->onText = kep::xmlNodeAppendText;
        ctx->onAttribute = kep::mxmlAddAttrib;
        Parser parser(*ctx, text != nullptr, i);
        XmlNode *top = parser.run();
        if (top) {
            ctx->top = top;
            return &ctx->top;
        }
        if (text) {
            if (parser.restartAt() < 0) break;  // every later attempt fails the same way
            i = parser.restartAt() - 1;
        }
    }
    free(ctx);
    *allFailed = true;
    return nullptr;
}

XmlParseCtx *contextOf(XmlNode **doc) {
    return reinterpret_cast<XmlParseCtx *>(reinterpret_cast<char *>(doc) - offsetof(XmlParseCtx, top));
}

}  // namespace

namespace kep {

void xmlNodeAppendText(XmlNode *element, const char *text) {
    if (!element || !text) return;
    size_t have = strlen(element->value);
    bool blank = true;
    for (size_t i = 0; i < have && blank; i++) blank = isSpace(element->value[i]);
    if (blank) have = 0;
    xmlCopyText(element->value + have, text, sizeof element->value - have);
}

int xmlReadEntity(XmlParseCtx *ctx) {
    char name[kEntityNameMax + 1];
    int len = 0;
    for (;;) {
        const int c = ctx->readChar(ctx->input);
        if (c == ';') break;
        const bool nameChar =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '#';
        if (!nameChar || len == kEntityNameMax) return -1;
        name[len++] = static_cast<char>(c);
    }
    name[len] = '\0';
    if (name[0] == '#') {
        // Leading digits only; none give 0. Unsigned arithmetic keeps the low bits
        // of any length of digits.
        const bool hex = name[1] == 'x';
        uint32_t code = 0;
        for (const char *p = name + (hex ? 2 : 1);; p++) {
            int digit;
            if (*p >= '0' && *p <= '9') {
                digit = *p - '0';
            } else if (hex && *p >= 'a' && *p <= 'f') {
                digit = *p - 'a' + 10;
            } else if (hex && *p >= 'A' && *p <= 'F') {
                digit = *p - 'A' + 10;
            } else {
                break;
            }
            code = code * (hex ? 16u : 10u) + static_cast<uint32_t>(digit);
        }
        return static_cast<int>(code & 0xFFu);
    }
    for (const XmlEntity &e : kXmlEntities) {
        if (strncmp(name, e.name, strlen(e.name)) == 0) return static_cast<unsigned char>(e.ch);
    }
    return -1;
}

int xmlStrReadChar(void *input) {
    auto *cursor = static_cast<const char **>(input);
    const unsigned char b = static_cast<unsigned char>(**cursor);
    if (b == 0) return -1;
    ++*cursor;
    return static_cast<signed char>(b);
}

int xmlFdReadChar(void *input) {
    const int fd = *static_cast<int *>(input);
    unsigned char b;
    ssize_t got;
    do {
        got = read(fd, &b, 1);
    } while (got < 0 && errno == EINTR);
    if (got != 1) return -1;
    return static_cast<signed char>(b);
}

}  // namespace kep

KEP_API XmlNode **strXmlParse(const char *text, int keepAll) {
    if (!text) return nullptr;
    bool allFailed;
    return parseDocument(text, -1, keepAll, &allFailed);
}

KEP_API XmlNode **fdXmlParse(int fd, int keepAll) {
    if (fd < 0) return nullptr;
    bool allFailed;
    XmlNode **doc = parseDocument(nullptr, fd, keepAll, &allFailed);
    if (allFailed) KEP_LOG("parse xml file failed.\r\n");
    return doc;
}

KEP_API void mxmlTreeDelete(XmlNode **doc) {
    if (!doc) return;
    XmlParseCtx *ctx = contextOf(doc);
    kep::xmlDocRelease(ctx, *doc);
    free(ctx);
}
