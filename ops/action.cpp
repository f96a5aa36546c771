// Running a module's named actions through the owners' callbacks.
#include <string.h>

#include "base/api.h"
#include "base/guard.h"
#include "base/log.h"
#include "kep_model.h"
#include "ops/ops_internal.h"

using kep::JsonPtr;
using kep::ModelReqParams;

namespace {

// The first action of that name that a process has claimed: a declared action
// nobody serves yet has no callback and is passed over.
const ActionNode *usableAction(DataModule *module, const char *name) {
    LST_FOR_EACH(const ActionNode, action, &module->actions) {
        if (strcmp(action->name, name) == 0 && action->pid >= 0 && action->cb[0] != '\0') return action;
    }
    return nullptr;
}

}  // namespace

KEP_API int doActionToModel(const char *module, const char *action, json_object *params,
                            json_object **result) {
    DataModule *mod = module && action ? getDataModuler(module) : nullptr;
    if (!mod) {
        KEP_LOG("Get data moduler %s failed.\r\n", kep::orNull(module));
        return -7004;
    }
    KEP_LOG("Do action %s to module %s.\r\n", action, module);
    const ActionNode *node = usableAction(mod, action);
    if (!node) return -7004;

    ModelReqParams req{};
    req.pid = node->pid;
    req.cb = node->cb;
    req.paraBuf = jsonGetObjectStringOrigin(params);
    req.module = mod->name;
    req.target = node->name;
    KEP_LOG("requestJsonStr:%s\n", req.paraBuf);

    JsonPtr answer;
    int rc = kep::invokeForJson(req, answer);
    if (rc != 0) return rc;
    if (!answer) {
        KEP_LOG("jsonParseStr error\n");
        if (result) *result = nullptr;
        return -10100;
    }
    KEP_LOG("pJsonRes %s\n", kep::logJson(answer.get()));
    if (result) {
        *result = answer.release();
    }
    return 0;
}
