// The IMI's wire encoding and deadline-bounded socket I/O, shared by the caller and
// the serving side.
//
// A frame is an 8-byte header (magic, body length; big-endian) and a body:
//   request: u8 1, i64 deadline (monotonic ms; 0: none), u8 cbLen, cb, u8 count, members
//   reply:   u8 2, i32 status, u8 count, members (only when status is 0)
//   member:  u8 type (0 int, 1 string), u8 nameLen, name,
//            then i32 value or u32 textLen and the text (no NUL inside)
// Every length is checked against the limits below before anything is allocated.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kep_pf_rpc.h"

namespace kep_pf {

enum : uint32_t {
    kMaxText = 16u << 20,  // one string member
    kMaxCbName = 127,      // callback names, here and in the registry
    kMaxBody = 32u << 20,  // a frame's body: the members of one call together
};
constexpr size_t kFrameHeader = 8;

// Milliseconds of the monotonic clock.
int64_t nowMs();

// 0, or QXRPC_ERR_ARG when a member cannot travel (oversized text, bad name, count,
// more than a frame holds).
int checkMembers(const QxRpcPara *set, int from);

// The body length of a frame whose 8 header bytes are given; 0 for a header no peer
// of ours sends (wrong magic, empty or oversized body).
uint32_t frameBodyLength(const char *header);

// Encoders: *frame is malloc'd (caller frees), *len its size. Members from index
// `from` on are sent. 0 or a QXRPC_ERR_* code.
int encodeRequest(const char *cb, int64_t deadline, const QxRpcPara *set, char **frame, size_t *len);
int encodeReply(int status, const QxRpcPara *set, int from, char **frame, size_t *len);

// Decoders over a received body. Members are appended to out, which the caller owns
// and frees on every path; 0 or QXRPC_ERR_IO for a malformed body.
int decodeRequest(const char *body, size_t len, char *cb, size_t cbSize, int64_t *deadline, QxRpcPara *out);
int decodeReply(const char *body, size_t len, int *status, QxRpcPara *out);

// Socket I/O on a non-blocking descriptor until the absolute deadline (nowMs()
// based): 0, QXRPC_ERR_TIMEOUT or QXRPC_ERR_IO. Never raises SIGPIPE.
int sendAll(int fd, const char *data, size_t len, int64_t deadline);
// Reads one frame; *body is malloc'd (caller frees).
int readFrame(int fd, int64_t deadline, char **body, size_t *len);
// Waits for events on fd; 1 ready, 0 deadline passed (-1: no deadline), <0 error.
int waitFd(int fd, short events, int64_t deadline);

// Moves every member of from (from index `first` on) to the end of to; texts change
// owner, from keeps only its members before `first`.
void moveMembers(QxRpcPara *from, int first, QxRpcPara *to);

}  // namespace kep_pf
