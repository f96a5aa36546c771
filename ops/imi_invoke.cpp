#include "ops/imi_invoke.h"

#include <stddef.h>

#include "base/api.h"
#include "base/log.h"
#include "kep_diag.h"
#include "kep_request.h"
#include "tree/tree_internal.h"

namespace kep {

namespace {

struct InputMember {
    const char *name;
    const char *ModelReqParams::*field;
};

// The order in which the callee receives its inputs.
constexpr InputMember kInputs[] = {
    {"name", &ModelReqParams::secname},
    {"table", &ModelReqParams::table},
    {"para", &ModelReqParams::paraBuf},
    {"filter", &ModelReqParams::filterBuf},
};

// The failure that ended this thread's last request, kept until read. Written only
// when something fails, so a call that succeeds costs nothing here. In the static TLS
// block: the dynamic model would make the library call the loader (__tls_get_addr)
// and need it at run time; the record is small enough for a library loaded later too.
thread_local KepCallFailure tFailure __attribute__((tls_model("initial-exec")));
thread_local bool tFailed __attribute__((tls_model("initial-exec")));

void record(int code, int pid, const char *cb, const char *module, const char *name) {
    tFailure.code = code;
    tFailure.pid = pid;
    copyName(tFailure.cb, cb, sizeof tFailure.cb);
    copyName(tFailure.module, module, sizeof tFailure.module);
    copyName(tFailure.name, name, sizeof tFailure.name);
    tFailed = true;
}

int failed(const ModelReqParams &p, int code) {
    const char *name = p.target ? p.target : p.secname ? p.secname : p.table;
    record(code, p.pid, p.cb, p.module, name);
    return code;
}

}  // namespace

void recordNoOwner(int code, const char *module, const char *name) {
    record(code, 0, nullptr, module, name);
}

int imiExcuteKepHandle(QxRpcPara *para, ModelReqParams *params) {
    int code = KEP_ERR_GENERIC;
    KEP_LOG("  qxError:%d params->pid:%d params->cb:%s", code, params ? params->pid : 0,
            params && params->cb ? params->cb : "");
    if (!params || params->pid < 0 || !params->cb || params->cb[0] == '\0' || !para) return KEP_ERR_GENERIC;
    KEP_LOG("  qxError:%d", code);

    for (const InputMember &in : kInputs) {
        const char *text = params->*in.field;
        if (!text) continue;
        int rc = qxrpcAddStringPtr(para, in.name, text);
        if (rc != 0) {
            KEP_LOG("  qxError:%d", rc);
            return rc;
        }
    }

    KEP_LOG("  qxError:%d", code);
    int rc = qxImiExecute(params->pid, params->cb, 0, 0, para);
    KEP_LOG("  qxError:%d OK:%d", rc, 0);
    if (rc != 0) return failed(*params, rc);

    if (qxrpcGetInt(para, "errorCode", &code) != 0) {
        KEP_LOG(" Get ret: error\n");
        return failed(*params, KEP_ERR_NO_ERRORCODE);
    }
    KEP_LOG(" Get ret: %d\n", code);
    // The result is read whatever the code: a refusing callee may explain itself in it.
    qxrpcGetStringPtr(para, "result", &params->outBuf);
    if (params->outBuf) KEP_LOG("params->outBuf is not null \n");
    return code != 0 ? failed(*params, code) : 0;
}

}  // namespace kep

KEP_API int kepLastCallFailure(KepCallFailure *out) {
    if (!kep::tFailed) return 0;
    kep::tFailed = false;
    if (out) *out = kep::tFailure;
    return 1;
}
