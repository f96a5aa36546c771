// Editing, adding and deleting through the owners' callbacks, and change notification.
// The owner applies every change; nothing here touches the tree or a file, and a
// failure part-way through a request leaves earlier changes in place.
#include <stdlib.h>
#include <string.h>

#include "base/api.h"
#include "base/guard.h"
#include "base/log.h"
#include "kep_json.h"
#include "kep_model.h"
#include "ops/ops_internal.h"
#include "tree/tree_internal.h"

using kep::JsonPtr;
using kep::ModelReqParams;

namespace kep {
namespace {

// Edits list-table sections selected by exactly one of filter and section name,
// through the table's set callback.
int editTable(DataModule *module, DataTable *table, json_object *para, json_object *filter,
              const char *secName) {
    KEP_LOG("begin editTable.\n");
    if (!module || !table || !para || !kep::isListTable(*table)) return -7004;
    KEP_LOG("begin paraStr:%s.\n", logJson(para));
    if ((filter != nullptr) == (secName != nullptr)) return -7004;

    ModelReqParams params{};
    if (filter) {
        params.filterBuf = jsonGetObjectStringOrigin(filter);
        KEP_LOG("begin params.filterBuf:%s.\n", params.filterBuf);
    } else {
        params.secname = secName;
    }
    params.paraBuf = jsonGetObjectStringOrigin(para);
    KEP_LOG("begin params.filterBuf:%s params.secname:%s.\n", orNull(params.filterBuf),
            orNull(params.secname));
    // An unregistered set callback refuses like any other unserved operation.
    if (!takeSlot(table->methodCb[KEP_METHOD_SET], params)) return -7004;
    KEP_LOG("  params->pid:%d params->cb:%s", params.pid, params.cb);
    params.module = module->name;
    params.target = secName ? secName : table->name;
    return invokeCallback(params);
}

// A section node: a list table's sections share the table's set callback, the
// sections of a private table have their own.
int editSectionNode(const DataModule *module, const SectionHit &hit, json_object *para,
                    json_object *request) {
    if (kep::isDynamicTable(*hit.table)) return -7004;
    KEP_LOG("begin  pDataObj:%s .\n", logJson(request));
    ModelReqParams params{};
    const MethodCbNode *slot;
    if (kep::isListTable(*hit.table)) {
        KEP_LOG("begin editListSection.\n");
        slot = hit.table->methodCb[KEP_METHOD_SET];
    } else {
        slot = hit.section->methodCb[KEP_METHOD_SET];
    }
    if (!takeSlot(slot, params)) return -7004;  // unserved, as in editTable
    params.secname = hit.section->name;
    params.paraBuf = jsonGetObjectStringOrigin(para);
    params.module = module->name;
    KEP_LOG("  params->pid:%d params->cb:%s", params.pid, params.cb);
    return invokeCallback(params);
}

// The table, when it may take table-level add and delete requests.
DataTable *listTableForWrite(const char *module, const char *table) {
    DataModule *mod = module ? getDataModuler(module) : nullptr;
    DataTable *tab = mod && table ? getDataTable(mod, table) : nullptr;
    if (!tab || kep::isDynamicTable(*tab) || !kep::isListTable(*tab)) return nullptr;
    return tab;
}

}  // namespace
}  // namespace kep

KEP_API int editTableByObjJson(const char *module, const char *table, json_object *request) {
    DataModule *mod = module && table && request ? getDataModuler(module) : nullptr;
    if (!mod) return -7004;
    KEP_LOG("table:%s module:%s pModule:%p.\n", table, module, static_cast<void *>(mod));
    DataTable *tab = getDataTable(mod, table);
    if (!tab) {
        KEP_LOG("table:%s module:%s.\n", table, module);
        return -4000;
    }
    json_object *filter = jsonObjectObjectGet(request, "filter");
    json_object *para = jsonObjectObjectGet(request, "para");
    KEP_LOG("begin  pDataObj:%s\n filter:%s \n para:%s.\n", kep::logJson(request), kep::logJson(filter),
            kep::logJson(para));
    return kep::editTable(mod, tab, para, filter, nullptr);
}

KEP_API int editSectionByObjJson(const char *module, const char *section, json_object *params,
                                 json_object *request) {
    DataModule *mod = module && section && params ? getDataModuler(module) : nullptr;
    if (!mod) return -7004;
    KEP_LOG("section:%s model:%s.\n", section, module);

    kep::SectionHit hit{};
    if (kep::findSectionNode(mod, section, kep::WalkTrace::Edit, &hit)) {
        return kep::editSectionNode(mod, hit, params, request);
    }

    KEP_LOG("section:%s .\n", section);
    DataTable *tab = kep::listTableOf(mod, section, true);
    if (!tab) return -4000;
    KEP_LOG("secName:%s .\n", section);
    if (kep::isDynamicTable(*tab) || !tab->methodCb[KEP_METHOD_SET]) {
        KEP_LOG("invalid set request!\n");
        return -7004;
    }
    KEP_LOG("begin  pDataObj:%s .\n", kep::logJson(request));
    return kep::editTable(mod, tab, params, nullptr, section);
}

KEP_API int addSectionByObjJson(const char *module, const char *table, const char *section,
                                json_object *params, json_object *result) {
    DataTable *tab = params ? kep::listTableForWrite(module, table) : nullptr;
    if (!tab) return -7004;

    ModelReqParams req{};
    req.secname = section;
    req.table = tab->name;
    req.paraBuf = jsonGetObjectStringOrigin(params);
    req.module = module;
    KEP_LOG("params.paraBuf:%s secVal:%s params.secname:%s\n", req.paraBuf, kep::orNull(section),
            kep::orNull(req.secname));
    if (!kep::takeSlot(tab->methodCb[KEP_METHOD_ADD], req)) return -7004;  // unserved: refused unsent

    kep::RpcPara set;
    int rc = kep::imiExcuteKepHandle(set.get(), &req);
    if (rc != 0) return rc;

    // The owner names what it created with one or more comma-separated JSON values;
    // bracketing them gives the array of names. An owner that answers nothing has
    // still added the section, so the add succeeds with no names rather than
    // inviting a retry that would add it twice.
    const char *answer = req.outBuf ? req.outBuf : "";
    size_t len = strlen(answer);
    char *buf = static_cast<char *>(malloc(len + 3));
    if (!buf) return -7004;
    buf[0] = '[';
    memcpy(buf + 1, answer, len);
    buf[len + 1] = ']';
    buf[len + 2] = '\0';
    json_object *names = jsonParseStr(buf);
    KEP_LOG("params.outBuf:%s buf:%p \r\n retStr:%s \r\n", kep::orNull(req.outBuf), static_cast<void *>(buf),
            kep::logJson(names));
    free(buf);
    jsonObjectObjectAdd(result, "name", names);
    KEP_LOG("pResObj:%s pNameObj:%s.\n", kep::logJson(result), kep::logJson(names));
    return 0;
}

KEP_API int deleteDataTable(const char *module, const char *table, json_object *filter) {
    DataTable *tab = kep::listTableForWrite(module, table);
    if (!tab) return -7004;
    ModelReqParams params{};
    if (filter) params.filterBuf = jsonGetObjectStringOrigin(filter);
    if (!kep::takeSlot(tab->methodCb[KEP_METHOD_DELETE], params)) return -7004;  // unserved: refused unsent
    params.module = module;
    params.target = tab->name;
    return kep::invokeCallback(params);
}

KEP_API int deleteDataSection(const char *module, const char *section) {
    DataModule *mod = module && section ? getDataModuler(module) : nullptr;
    if (!mod) return -7004;

    const MethodCbNode *slot;
    kep::SectionHit hit{};
    if (kep::findSectionNode(mod, section, kep::WalkTrace::Delete, &hit)) {
        if (kep::isDynamicTable(*hit.table)) return -8000;
        KEP_LOG("section:%s .\n", section);
        if (kep::isListTable(*hit.table)) {
            KEP_LOG("secName:%s .\n", section);
            slot = hit.table->methodCb[KEP_METHOD_DELETE];
        } else {
            slot = hit.section->methodCb[KEP_METHOD_DELETE];
        }
    } else {
        KEP_LOG("section:%s .\n", section);
        // A whole name is never taken as a table here: deleting a table goes by "table".
        DataTable *tab = kep::listTableOf(mod, section, false);
        if (!tab) return -4000;
        // Entries of a dynamic list table may go; a dynamic private table keeps its sections.
        if (kep::isDynamicTable(*tab) && !kep::isListTable(*tab)) return -8000;
        KEP_LOG("secName:%s .\n", section);
        slot = tab->methodCb[KEP_METHOD_DELETE];
    }

    ModelReqParams params{};
    if (!kep::takeSlot(slot, params)) return -1;
    params.secname = section;
    params.module = mod->name;
    return kep::invokeCallback(params);
}

KEP_API void notifySecdataChanged(const char *path) {
    if (!path) return;
    kep::TreePath split;
    if (!kep::splitTreePath(path, &split)) return;
    DataTable *table = kep::findPathTable(split, nullptr);
    if (!table || kep::isDynamicTable(*table)) return;
    DataSection *section = kep::findSectionInTable(table, split.section);
    if (!section) return;

    LST_FOR_EACH(const VerNotifyNode, listener, &section->notList) {
        ModelReqParams params{};
        params.pid = listener->pid;
        params.cb = listener->cb;
        params.secname = "section";
        params.paraBuf = section->name;
        // The first listener that refuses ends the round; the caller is not told.
        if (kep::invokeCallback(params) != 0) return;
    }
}
