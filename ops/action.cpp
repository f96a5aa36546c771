// Running a module's named actions through the owners' callbacks.
#include "base/api.h"
#include "base/guard.h"
#include "base/log.h"
#include "kep_model.h"
#include "kep_request.h"
#include "ops/resolve.h"

using kep::JsonPtr;
using kep::ModelReqParams;

KEP_API int doActionToModel(const char *module, const char *action, json_object *params,
                            json_object **result) {
    constexpr kep::Op op = kep::Op::Do;
    kep::Target target;
    ModelReqParams req{};
    kep::Miss miss = kep::resolveTarget(op, module, action, __func__, &target);
    if (miss == kep::Miss::Ready) miss = kep::resolveSlot(op, target, req);
    if (miss != kep::Miss::Ready) return kep::missCode(op, miss, module, action);
    req.paraBuf = jsonGetObjectStringOrigin(params);
    req.module = target.module->name;
    req.target = target.action->name;
    KEP_LOG("requestJsonStr:%s\n", req.paraBuf);

    JsonPtr answer;
    int rc = kep::invokeForJson(req, answer);
    if (rc != 0) return rc;
    if (!answer) {
        KEP_LOG("jsonParseStr error\n");
        if (result) *result = nullptr;
        return KEP_ERR_BAD_JSON;
    }
    KEP_LOG("pJsonRes %s\n", kep::logJson(answer.get()));
    if (result) *result = answer.release();
    return KEP_OK;
}
