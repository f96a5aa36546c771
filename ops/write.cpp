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
#include "kep_request.h"
#include "ops/resolve.h"
#include "tree/tree_internal.h"

using kep::JsonPtr;
using kep::Miss;
using kep::ModelReqParams;
using kep::Op;
using kep::Target;

namespace kep {
namespace {

// Edits list-table sections selected by exactly one of filter and section name,
// through the table's set callback.
int editTable(DataModule *module, DataTable *table, json_object *para, json_object *filter,
              const char *secName) {
    KEP_LOG("begin editTable.\n");
    if (!module || !table || !para) return missCode(Op::SetTable, Miss::Argument, nullptr, nullptr);
    if (!isListTable(*table)) return missCode(Op::SetTable, Miss::NotList, nullptr, nullptr);
    KEP_LOG("begin paraStr:%s.\n", logJson(para));
    if ((filter != nullptr) == (secName != nullptr))
        return missCode(Op::SetTable, Miss::Argument, nullptr, nullptr);

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
    const Miss miss = resolveSlot(Op::SetTable, Target{module, table, nullptr, nullptr}, params);
    if (miss != Miss::Ready) return missCode(Op::SetTable, miss, nullptr, nullptr);
    KEP_LOG("  params->pid:%d params->cb:%s", params.pid, params.cb);
    params.module = module->name;
    params.target = secName ? secName : table->name;
    return invokeCallback(params);
}

// A section node: a list table's sections share the table's set callback, the
// sections of a private table have their own.
int editSectionNode(const Target &target, json_object *para, json_object *request) {
    KEP_LOG("begin  pDataObj:%s .\n", logJson(request));
    if (isListTable(*target.table)) KEP_LOG("begin editListSection.\n");
    ModelReqParams params{};
    const Miss miss = resolveSlot(Op::SetSection, target, params);
    if (miss != Miss::Ready) return missCode(Op::SetSection, miss, nullptr, nullptr);
    params.secname = target.section->name;
    params.paraBuf = jsonGetObjectStringOrigin(para);
    params.module = target.module->name;
    KEP_LOG("  params->pid:%d params->cb:%s", params.pid, params.cb);
    return invokeCallback(params);
}

}  // namespace
}  // namespace kep

KEP_API int editTableByObjJson(const char *module, const char *table, json_object *request) {
    constexpr Op op = Op::SetTable;
    Target target;
    const Miss miss = request ? kep::resolveTarget(op, module, table, __func__, &target) : Miss::Argument;
    if (miss != Miss::Ready) return kep::missCode(op, miss, module, table);
    json_object *filter = jsonObjectObjectGet(request, "filter");
    json_object *para = jsonObjectObjectGet(request, "para");
    KEP_LOG("begin  pDataObj:%s\n filter:%s \n para:%s.\n", kep::logJson(request), kep::logJson(filter),
            kep::logJson(para));
    return kep::editTable(target.module, target.table, para, filter, nullptr);
}

KEP_API int editSectionByObjJson(const char *module, const char *section, json_object *params,
                                 json_object *request) {
    constexpr Op op = Op::SetSection;
    Target target;
    const Miss miss = params ? kep::resolveTarget(op, module, section, __func__, &target) : Miss::Argument;
    if (miss != Miss::Ready) return kep::missCode(op, miss, module, section);
    if (target.section) return kep::editSectionNode(target, params, request);
    KEP_LOG("begin  pDataObj:%s .\n", kep::logJson(request));
    return kep::editTable(target.module, target.table, params, nullptr, section);
}

KEP_API int addSectionByObjJson(const char *module, const char *table, const char *section,
                                json_object *params, json_object *result) {
    constexpr Op op = Op::AddRow;
    Target target;
    Miss miss = params ? kep::resolveTarget(op, module, table, __func__, &target) : Miss::Argument;
    if (miss != Miss::Ready) return kep::missCode(op, miss, module, table);

    ModelReqParams req{};
    req.secname = section;
    req.table = target.table->name;
    req.paraBuf = jsonGetObjectStringOrigin(params);
    req.module = module;
    KEP_LOG("params.paraBuf:%s secVal:%s params.secname:%s\n", req.paraBuf, kep::orNull(section),
            kep::orNull(req.secname));
    // Unserved: refused unsent.
    if ((miss = kep::resolveSlot(op, target, req)) != Miss::Ready)
        return kep::missCode(op, miss, module, table);

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
    // A failed allocation is answered like a refused add: the owner has added the
    // section, but nothing here can say under which name.
    if (!buf) return KEP_ERR_NOT_REGISTERED;
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
    return KEP_OK;
}

KEP_API int deleteDataTable(const char *module, const char *table, json_object *filter) {
    constexpr Op op = Op::DeleteTable;
    Target target;
    ModelReqParams params{};
    Miss miss = kep::resolveTarget(op, module, table, __func__, &target);
    if (miss == Miss::Ready) {
        if (filter) params.filterBuf = jsonGetObjectStringOrigin(filter);
        miss = kep::resolveSlot(op, target, params);  // unserved: refused unsent
    }
    if (miss != Miss::Ready) return kep::missCode(op, miss, module, table);
    params.module = module;
    params.target = target.table->name;
    return kep::invokeCallback(params);
}

KEP_API int deleteDataSection(const char *module, const char *section) {
    constexpr Op op = Op::DeleteSection;
    Target target;
    ModelReqParams params{};
    Miss miss = kep::resolveTarget(op, module, section, __func__, &target);
    if (miss == Miss::Ready) {
        if (target.section && kep::isListTable(*target.table)) KEP_LOG("secName:%s .\n", section);
        miss = kep::resolveSlot(op, target, params);
    }
    if (miss != Miss::Ready) return kep::missCode(op, miss, module, section);
    params.secname = section;
    params.module = target.module->name;
    return kep::invokeCallback(params);
}

KEP_API void notifySecdataChanged(const char *path) {
    Target target;
    if (kep::resolveTarget(Op::Notify, nullptr, path, __func__, &target) != Miss::Ready) return;
    DataSection *section = target.section;
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
