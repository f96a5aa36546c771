// One invocation of an owner's registered callback over the inter-module RPC.
#pragma once

#include "kep_pf_rpc.h"

namespace kep {

// The record of one callback invocation; lives on the caller's stack, zero-filled.
// No text is copied or owned: each input must stay valid until the parameter set
// is freed. outBuf points into the parameter set and dies with it.
struct ModelReqParams {
    int pid;                // owner process of the callback
    const char *cb;         // registered callback name, owned by the tree node
    const char *secname;    // input member "name" when not null
    const char *paraBuf;    // input member "para" when not null (JSON text)
    const char *filterBuf;  // input member "filter" when not null (JSON text)
    char *outBuf;           // the callee's "result" text, or null
    const char *table;      // input member "table" when not null
    // For the failure record only (kep_diag.h); never sent.
    const char *module;  // the module the call is for
    const char *target;  // the table, section or action it is for
};

// Sends the record's inputs ("name", "table", "para", "filter", in that order) to
// callback cb of process pid through para, which must be initialised and empty, and
// reads back "errorCode" and "result". Returns the callee's errorCode (outBuf set
// when it sent a result, also for a nonzero code); -1 for a null record or set, a
// negative pid or an empty cb (nothing sent); -1500 when the answer carries no
// errorCode; or the RPC's own nonzero code. Never frees para. A call that was made
// and failed is this thread's failure record (kepLastCallFailure).
int imiExcuteKepHandle(QxRpcPara *para, ModelReqParams *params);

// Records that no owner could be called for module's table or section name: code is
// KEP_ERR_NO_TABLE or KEP_ERR_NOT_REGISTERED.
void recordNoOwner(int code, const char *module, const char *name);

}  // namespace kep
