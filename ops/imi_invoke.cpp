#include "ops/imi_invoke.h"

#include <stddef.h>

#include "log.h"

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

}  // namespace

int imiExcuteKepHandle(QxRpcPara *para, ModelReqParams *params) {
    int code = -1;
    KEP_LOG("  qxError:%d params->pid:%d params->cb:%s", code, params ? params->pid : 0,
            params && params->cb ? params->cb : "");
    if (!params || params->pid < 0 || !params->cb || params->cb[0] == '\0' || !para) return -1;
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
    if (rc != 0) return rc;

    if (qxrpcGetInt(para, "errorCode", &code) != 0) {
        KEP_LOG(" Get ret: error\n");
        return -1500;
    }
    KEP_LOG(" Get ret: %d\n", code);
    // The result is read whatever the code: a refusing callee may explain itself in it.
    qxrpcGetStringPtr(para, "result", &params->outBuf);
    if (params->outBuf) KEP_LOG("params->outBuf is not null \n");
    return code;
}

}  // namespace kep
