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
    for (LstNode *t = lstFirst(&module->tables); t; t = lstNext(t)) {
        DataTable *table = reinterpret_cast<DataTable *>(t);
        if (trace == WalkTrace::Edit) {
            KEP_LOG("table:%s model:%s.\n", table->name, module->name);
        } else {
            KEP_LOG("table:%s .\n", table->name);
        }
        for (LstNode *s = lstFirst(&table->sections); s; s = lstNext(s)) {
            DataSection *section = reinterpret_cast<DataSection *>(s);
            KEP_LOG("section:%s pSection->name:%s.\n", name, section->name);
            if (strcmp(section->name, name) == 0) {
                hit->table = table;
                hit->section = section;
                return true;
            }
        }
    }
    return false;
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
