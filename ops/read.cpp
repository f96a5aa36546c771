// Reading tables and sections through the owners' get callbacks.
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
using kep::ModelReqParams;

KEP_API int getTableObjJson(const char *module, const char *table, json_object *request, json_object **out) {
    KEP_LOG("begin to model:%s get method handle tableName:%s.\n", kep::orNull(module), kep::orNull(table));
    constexpr kep::Op op = kep::Op::GetTable;
    kep::Target target;
    kep::Miss miss = out ? kep::resolveTarget(op, module, table, __func__, &target) : kep::Miss::Argument;
    if (miss != kep::Miss::Ready) return kep::missCode(op, miss, module, table);

    json_object *filter = jsonObjectObjectGet(request, "filter");
    json_object *para = jsonObjectObjectGet(request, "para");
    KEP_LOG("begin  pDataObj:%s \n filter:%s \n para:%s .\n", kep::logJson(request), kep::logJson(filter),
            kep::logJson(para));

    ModelReqParams params{};
    if ((miss = kep::resolveSlot(op, target, params)) != kep::Miss::Ready) {
        return kep::missCode(op, miss, module, table);
    }
    params.module = target.module->name;
    if (filter) params.filterBuf = jsonGetObjectStringOrigin(filter);
    if (para) params.paraBuf = jsonGetObjectStringOrigin(para);
    params.table = target.table->name;

    JsonPtr data;
    int rc = kep::invokeForJson(params, data);
    if (rc != 0) return rc;
    if (!data) {
        KEP_LOG("jsonParseStr error\n");
        *out = nullptr;
        return KEP_ERR_BAD_JSON;
    }
    *out = data.release();
    return KEP_OK;
}

KEP_API int getSectionObjJson(const char *module, const char *section, json_object **out) {
    constexpr kep::Op op = kep::Op::GetSection;
    kep::Target target;
    kep::Miss miss = out ? kep::resolveTarget(op, module, section, __func__, &target) : kep::Miss::Argument;
    ModelReqParams params{};
    if (miss == kep::Miss::Ready) miss = kep::resolveSlot(op, target, params);
    if (miss != kep::Miss::Ready) return kep::missCode(op, miss, module, section);
    params.secname = section;
    params.module = target.module->name;

    JsonPtr data;
    int rc = kep::invokeForJson(params, data);
    if (rc != 0) return rc;
    if (!data) {
        KEP_LOG("jsonParseStr error\n");
        *out = nullptr;
        return KEP_ERR_BAD_JSON;
    }
    KEP_LOG("jsonParseStr %s\n", kep::logJson(data.get()));
    *out = data.release();
    return KEP_OK;
}

KEP_API int transferJsonTable(json_object **value) {
    if (!value || !*value) return KEP_ERR_GENERIC;
    if (jsonObjectIsArray(*value) == 1) return 0;
    JsonPtr source(*value);
    *value = nullptr;
    JsonPtr rows(jsonObjectNewArray());
    if (!rows) return KEP_ERR_GENERIC;

    const char *key = nullptr;
    while (jsonObjectNextSubObject(source.get(), nullptr, &key)) {
        json_object *row = jsonObjectNewObject();
        if (!row || jsonObjectArrayAdd(rows.get(), row) != 0) return KEP_ERR_GENERIC;
        char name[KEP_NAME_SIZE];
        kep::copyName(name, key, sizeof name);
        // Detaching the member makes the next pass find the following one first.
        json_object *member = jsonGetObjFromObj(source.get(), key);
        if (!member || jsonObjectObjectAdd(row, name, member) != 0) return KEP_ERR_GENERIC;
    }
    *value = rows.release();
    return 0;
}
