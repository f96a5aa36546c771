// Decodes arbitrary bytes as IMI request and reply bodies, as a serving process and a
// caller do with what arrives on their sockets. Whatever decodes must encode again
// to the same body. The wire code is compiled in here: its functions are internal to
// the platform library.
#include <stdlib.h>
#include <string.h>

#include "../platform/standin/rpc_wire.cpp"

namespace {

void check(bool ok) {
    if (!ok) abort();
}

void release(QxRpcPara *set) {
    for (int i = 0; i < set->count; i++) free(set->member[i].text);
    memset(set, 0, sizeof *set);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const char *body = reinterpret_cast<const char *>(data);
    char *frame = nullptr;
    size_t len = 0;

    QxRpcPara set;
    memset(&set, 0, sizeof set);
    char cb[kep_pf::kMaxCbName + 1];
    int64_t deadline = 0;
    if (kep_pf::decodeRequest(body, size, cb, sizeof cb, &deadline, &set) == 0) {
        check(kep_pf::encodeRequest(cb, deadline, &set, &frame, &len) == 0);
        check(len == size + 8 && memcmp(frame + 8, body, size) == 0);
        free(frame);
    }
    release(&set);

    int status = 0;
    if (kep_pf::decodeReply(body, size, &status, &set) == 0) {
        check(kep_pf::encodeReply(status, &set, 0, &frame, &len) == 0);
        // A failed call carries no members; its encoding is canonical only then.
        if (status == 0 || set.count == 0) check(len == size + 8 && memcmp(frame + 8, body, size) == 0);
        free(frame);
    }
    release(&set);
    return 0;
}
