#include "ops/ops_internal.h"

#include <string.h>

#include "base/log.h"
#include "kep_json.h"
#include "tree/tree_internal.h"

namespace kep {

int invokeCallback(ModelReqParams &params) {
    RpcPara set;
    return imiExcuteKepHandle(set.get(), &params);
}

int invokeForJson(ModelReqParams &params, JsonPtr &out) {
    RpcPara set;
    int rc = imiExcuteKepHandle(set.get(), &params);
    if (rc != 0) return rc;
    // outBuf dies with the set, so it is parsed here.
    out.reset(jsonParseStr(params.outBuf));
    return 0;
}

bool takeSlot(const MethodCbNode *node, ModelReqParams &params) {
    if (!node) return false;
    params.pid = node->pid;
    params.cb = node->cb;
    return true;
}

bool findSectionNode(DataModule *module, const char *name, WalkTrace trace, SectionHit *hit) {
    const char *func = __func__;
    return searchSection(
        module, name, hit,
        [func, trace, module](DataTable *table) {
            if (trace == WalkTrace::Edit) {
                KEP_LOG_AS(func, "table:%s model:%s.\n", table->name, module->name);
            } else {
                KEP_LOG_AS(func, "table:%s .\n", table->name);
            }
        },
        [func, name](DataSection *section) {
            KEP_LOG_AS(func, "section:%s pSection->name:%s.\n", name, section->name);
        });
}

DataTable *listTableOf(DataModule *module, const char *name, bool wholeNameFirst) {
    if (wholeNameFirst) {
        DataTable *table = getDataTable(module, name);
        if (table) return table;
    }
    // Names hold 31 characters, so one more is enough to tell a match from a miss.
    char tableName[KEP_NAME_SIZE + 1];
    copyName(tableName, name, sizeof tableName);
    int cut = lastIndexOfChar(tableName, '_');
    if (cut <= 0) return nullptr;
    tableName[cut] = '\0';
    KEP_LOG("tableName:%s .\n", tableName);
    KEP_LOG("secName:%s .\n", name);
    return getDataTable(module, tableName);
}

const char *logJson(json_object *value) {
    if (debugFlagGet(kMidHandle) != 1) return "";
    return jsonGetObjectStringOrigin(value);
}

}  // namespace kep
