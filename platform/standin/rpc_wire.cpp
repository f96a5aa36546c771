// IMI frames and deadline-bounded socket I/O.
#include "rpc_wire.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

namespace kep_pf {
namespace {

constexpr uint32_t kMagic = 0x4b494d32;  // "KIM2": requests carry their deadline
constexpr size_t kHeader = kFrameHeader;
constexpr uint8_t kKindRequest = 1, kKindReply = 2;

void put32(char *p, uint32_t v) {
    p[0] = static_cast<char>(v >> 24);
    p[1] = static_cast<char>(v >> 16);
    p[2] = static_cast<char>(v >> 8);
    p[3] = static_cast<char>(v);
}

uint32_t get32(const char *p) {
    const unsigned char *u = reinterpret_cast<const unsigned char *>(p);
    return (uint32_t{u[0]} << 24) | (uint32_t{u[1]} << 16) | (uint32_t{u[2]} << 8) | u[3];
}

// Appends to a buffer whose size was computed beforehand.
struct Writer {
    char *p;
    void u8(uint8_t v) { *p++ = static_cast<char>(v); }
    void u32(uint32_t v) {
        put32(p, v);
        p += 4;
    }
    void bytes(const char *s, size_t n) {
        memcpy(p, s, n);
        p += n;
    }
};

// Reads from a received body; any read past its end makes it fail for good.
struct Reader {
    const char *p;
    size_t left;
    bool ok = true;
    bool take(size_t n) {
        if (!ok || left < n) return ok = false;
        left -= n;
        return true;
    }
    uint8_t u8() { return take(1) ? static_cast<uint8_t>(*p++) : 0; }
    uint32_t u32() {
        if (!take(4)) return 0;
        uint32_t v = get32(p);
        p += 4;
        return v;
    }
    const char *bytes(size_t n) {
        if (!take(n)) return nullptr;
        const char *s = p;
        p += n;
        return s;
    }
};

size_t membersSize(const QxRpcPara *set, int from) {
    size_t n = 1;
    for (int i = from; i < set->count; i++) {
        const QxRpcMember &m = set->member[i];
        n += 2 + strlen(m.name) + 4 + (m.isString ? strlen(m.text) : 0);
    }
    return n;
}

void putMembers(Writer &w, const QxRpcPara *set, int from) {
    w.u8(static_cast<uint8_t>(set->count - from));
    for (int i = from; i < set->count; i++) {
        const QxRpcMember &m = set->member[i];
        size_t nameLen = strlen(m.name);
        w.u8(m.isString ? 1 : 0);
        w.u8(static_cast<uint8_t>(nameLen));
        w.bytes(m.name, nameLen);
        if (m.isString) {
            size_t textLen = strlen(m.text);
            w.u32(static_cast<uint32_t>(textLen));
            w.bytes(m.text, textLen);
        } else {
            w.u32(static_cast<uint32_t>(m.value));
        }
    }
}

// Starts a frame of the given body size; the caller fills the body.
char *newFrame(size_t body, size_t *len) {
    char *frame = static_cast<char *>(malloc(kHeader + body));
    if (!frame) return nullptr;
    put32(frame, kMagic);
    put32(frame + 4, static_cast<uint32_t>(body));
    *len = kHeader + body;
    return frame;
}

int getMembers(Reader &r, QxRpcPara *out) {
    unsigned count = r.u8();
    if (!r.ok || count > QXRPC_MAX_MEMBERS - static_cast<unsigned>(out->count)) return QXRPC_ERR_IO;
    for (unsigned i = 0; i < count; i++) {
        uint8_t type = r.u8();
        uint8_t nameLen = r.u8();
        const char *name = r.bytes(nameLen);
        if (!r.ok || type > 1 || nameLen == 0 || nameLen >= QXRPC_NAME_MAX || memchr(name, 0, nameLen)) {
            return QXRPC_ERR_IO;
        }
        QxRpcMember &m = out->member[out->count];
        memset(&m, 0, sizeof m);
        memcpy(m.name, name, nameLen);
        if (type == 0) {
            m.value = static_cast<int>(r.u32());
            if (!r.ok) return QXRPC_ERR_IO;
        } else {
            uint32_t textLen = r.u32();
            const char *text = textLen <= kMaxText ? r.bytes(textLen) : nullptr;
            if (!text || memchr(text, 0, textLen)) return QXRPC_ERR_IO;
            m.text = static_cast<char *>(malloc(textLen + 1));
            if (!m.text) return QXRPC_ERR_NOMEM;
            memcpy(m.text, text, textLen);
            m.text[textLen] = '\0';
            m.isString = 1;
        }
        out->count++;
    }
    return r.left == 0 ? 0 : QXRPC_ERR_IO;
}

}  // namespace

int64_t nowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int checkMembers(const QxRpcPara *set, int from) {
    if (set->count < 0 || set->count > QXRPC_MAX_MEMBERS || from < 0 || from > set->count)
        return QXRPC_ERR_ARG;
    size_t total = 0;
    for (int i = from; i < set->count; i++) {
        const QxRpcMember &m = set->member[i];
        size_t nameLen = strnlen(m.name, QXRPC_NAME_MAX);
        if (nameLen == 0 || nameLen >= QXRPC_NAME_MAX) return QXRPC_ERR_ARG;
        size_t textLen = m.isString && m.text ? strnlen(m.text, kMaxText + 1) : 0;
        if (m.isString && (!m.text || textLen > kMaxText)) return QXRPC_ERR_ARG;
        total += 2 + nameLen + 4 + textLen;
    }
    // Room for the kind, status or deadline and callback name of the frame around them.
    return total + 256 <= kMaxBody ? 0 : QXRPC_ERR_ARG;
}

uint32_t frameBodyLength(const char *header) {
    uint32_t size = get32(header + 4);
    return get32(header) == kMagic && size > 0 && size <= kMaxBody ? size : 0;
}

int encodeRequest(const char *cb, int64_t deadline, const QxRpcPara *set, char **frame, size_t *len) {
    size_t cbLen = strlen(cb);
    int rc = checkMembers(set, 0);
    if (rc) return rc;
    if (cbLen == 0 || cbLen > kMaxCbName) return QXRPC_ERR_ARG;
    char *f = newFrame(2 + 8 + cbLen + membersSize(set, 0), len);
    if (!f) return QXRPC_ERR_NOMEM;
    Writer w{f + kHeader};
    w.u8(kKindRequest);
    const uint64_t d = deadline > 0 ? static_cast<uint64_t>(deadline) : 0;
    w.u32(static_cast<uint32_t>(d >> 32));
    w.u32(static_cast<uint32_t>(d));
    w.u8(static_cast<uint8_t>(cbLen));
    w.bytes(cb, cbLen);
    putMembers(w, set, 0);
    *frame = f;
    return 0;
}

int encodeReply(int status, const QxRpcPara *set, int from, char **frame, size_t *len) {
    if (status == 0) status = checkMembers(set, from);
    size_t body = 1 + 4 + (status == 0 ? membersSize(set, from) : 1);
    char *f = newFrame(body, len);
    if (!f) return QXRPC_ERR_NOMEM;
    Writer w{f + kHeader};
    w.u8(kKindReply);
    w.u32(static_cast<uint32_t>(status));
    if (status == 0) {
        putMembers(w, set, from);
    } else {
        w.u8(0);
    }
    *frame = f;
    return 0;
}

int decodeRequest(const char *body, size_t len, char *cb, size_t cbSize, int64_t *deadline, QxRpcPara *out) {
    Reader r{body, len};
    if (r.u8() != kKindRequest) return QXRPC_ERR_IO;
    const uint64_t high = r.u32();
    const uint64_t d = high << 32 | r.u32();
    // Beyond any clock reading this side will see: garbage, not a deadline.
    if (d > (uint64_t{1} << 62)) return QXRPC_ERR_IO;
    *deadline = static_cast<int64_t>(d);
    uint8_t cbLen = r.u8();
    const char *name = r.bytes(cbLen);
    if (!r.ok || cbLen == 0 || cbLen >= cbSize || memchr(name, 0, cbLen)) return QXRPC_ERR_IO;
    memcpy(cb, name, cbLen);
    cb[cbLen] = '\0';
    return getMembers(r, out);
}

int decodeReply(const char *body, size_t len, int *status, QxRpcPara *out) {
    Reader r{body, len};
    if (r.u8() != kKindReply) return QXRPC_ERR_IO;
    *status = static_cast<int>(r.u32());
    return r.ok ? getMembers(r, out) : QXRPC_ERR_IO;
}

int waitFd(int fd, short events, int64_t deadline) {
    for (;;) {
        int timeout = -1;
        if (deadline >= 0) {
            int64_t left = deadline - nowMs();
            if (left <= 0) return 0;
            timeout = left > 60000 ? 60000 : static_cast<int>(left);
        }
        struct pollfd p = {fd, events, 0};
        int n = poll(&p, 1, timeout);
        if (n > 0) return 1;
        if (n < 0 && errno != EINTR) return -1;
    }
}

int sendAll(int fd, const char *data, size_t len, int64_t deadline) {
    while (len > 0) {
        ssize_t n = send(fd, data, len, MSG_NOSIGNAL);
        if (n > 0) {
            data += n;
            len -= static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            int w = waitFd(fd, POLLOUT, deadline);
            if (w == 0) return QXRPC_ERR_TIMEOUT;
            if (w < 0) return QXRPC_ERR_IO;
            continue;
        }
        return QXRPC_ERR_IO;
    }
    return 0;
}

namespace {

// Reads at least min and at most cap bytes; *got receives the count.
int recvAtLeast(int fd, char *data, size_t cap, size_t min, int64_t deadline, size_t *got) {
    size_t have = 0;
    while (have < min) {
        ssize_t n = recv(fd, data + have, cap - have, 0);
        if (n > 0) {
            have += static_cast<size_t>(n);
            continue;
        }
        if (n == 0) return QXRPC_ERR_IO;
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            int w = waitFd(fd, POLLIN, deadline);
            if (w == 0) return QXRPC_ERR_TIMEOUT;
            if (w < 0) return QXRPC_ERR_IO;
            continue;
        }
        return QXRPC_ERR_IO;
    }
    *got = have;
    return 0;
}

int recvAll(int fd, char *data, size_t len, int64_t deadline) {
    size_t got = 0;
    return recvAtLeast(fd, data, len, len, deadline, &got);
}

}  // namespace

int readFrame(int fd, int64_t deadline, char **body, size_t *len) {
    // A connection carries one frame each way, so the first read takes whatever has
    // arrived: for most frames the header and the whole body, one call instead of two.
    char first[4096];
    size_t got = 0;
    int rc = recvAtLeast(fd, first, sizeof first, kHeader, deadline, &got);
    if (rc) return rc;
    const uint32_t size = frameBodyLength(first);
    if (size == 0) return QXRPC_ERR_IO;
    char *buf = static_cast<char *>(malloc(size));
    if (!buf) return QXRPC_ERR_NOMEM;
    size_t early = got - kHeader < size ? got - kHeader : size;  // bytes past the frame are dropped
    memcpy(buf, first + kHeader, early);
    rc = recvAll(fd, buf + early, size - early, deadline);
    if (rc) {
        free(buf);
        return rc;
    }
    *body = buf;
    *len = size;
    return 0;
}

void moveMembers(QxRpcPara *from, int first, QxRpcPara *to) {
    for (int i = first; i < from->count && to->count < QXRPC_MAX_MEMBERS; i++) {
        to->member[to->count++] = from->member[i];
        memset(&from->member[i], 0, sizeof from->member[i]);
    }
    for (int i = first; i < from->count; i++) free(from->member[i].text);
    if (first < from->count) from->count = first;
}

}  // namespace kep_pf
