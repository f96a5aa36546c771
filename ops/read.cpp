// Reading tables and sections through the owners' get callbacks.
#include <string.h>

#include "base/api.h"
#include "base/guard.h"
#include "base/log.h"
#include "kep_json.h"
#include "kep_model.h"
#include "kep_request.h"
#include "ops/ops_internal.h"
#include "tree/tree_internal.h"

using kep::JsonPtr;
using kep::ModelReqParams;

KEP_API int getTableObjJson(const char *module, const char *table, json_object *request, json_object **out) {
    KEP_LOG("begin to model:%s get method handle tableName:%s.\n", kep::orNull(module), kep::orNull(table));
    if (!module || !table || !out) return -1;
    DataModule *mod = getDataModuler(module);
    KEP_LOG("begin to model:%s get method handle tableName:%s.\n", module, table);
    DataTable *tab = mod ? getDataTable(mod, table) : nullptr;
    KEP_LOG("begin to model:%s get method handle tableName:%s.\n", module, table);
    if (!tab) {
        kep::recordNoOwner(KEP_ERR_NO_TABLE, module, table);
        return -1;
    }

    json_object *filter = jsonObjectObjectGet(request, "filter");
    json_object *para = jsonObjectObjectGet(request, "para");
    KEP_LOG("begin  pDataObj:%s \n filter:%s \n para:%s .\n", kep::logJson(request), kep::logJson(filter),
            kep::logJson(para));

    ModelReqParams params{};
    if (!kep::takeSlot(tab->methodCb[KEP_METHOD_GET], params)) {
        kep::recordNoOwner(KEP_ERR_NOT_REGISTERED, module, table);
        return -1;
    }
    params.module = mod->name;
    if (filter) params.filterBuf = jsonGetObjectStringOrigin(filter);
    if (para) params.paraBuf = jsonGetObjectStringOrigin(para);
    params.table = tab->name;

    JsonPtr data;
    int rc = kep::invokeForJson(params, data);
    if (rc != 0) return rc;
    if (!data) {
        KEP_LOG("jsonParseStr error\n");
        *out = nullptr;
        return -10100;
    }
    *out = data.release();
    return 0;
}

KEP_API int getSectionObjJson(const char *module, const char *section, json_object **out) {
    if (!module || !section || !out) return -1;
    DataModule *mod = getDataModuler(module);
    if (!mod) {
        kep::recordNoOwner(KEP_ERR_NO_TABLE, module, section);
        return -1;
    }
    KEP_LOG("secName:%s modelName:%s\n", section, module);

    ModelReqParams params{};
    DataSection *node = nullptr;
    bool served;
    if (findSectionInModule(module, section, &node) == 1 && node) {
        // A section node answers for itself, even inside a list table.
        served = kep::takeSlot(node->methodCb[KEP_METHOD_GET], params);
    } else {
        KEP_LOG("secName:%s .\n", section);
        DataTable *tab = kep::listTableOf(mod, section, true);
        if (!tab) {
            kep::recordNoOwner(KEP_ERR_NO_TABLE, module, section);
            return -1;
        }
        KEP_LOG("secName:%s .\n", section);
        if (!kep::isDynamicTable(*tab)) {
            served = kep::takeSlot(tab->methodCb[KEP_METHOD_GET], params);
        } else {
            // The entries of a dynamic table exist only in its owner, which registered
            // the table's operation interface: that callback serves them.
            served = tab->opr.pid >= 0 && tab->opr.cb[0] != '\0';
            params.pid = tab->opr.pid;
            params.cb = tab->opr.cb;
        }
    }
    if (!served) {
        kep::recordNoOwner(KEP_ERR_NOT_REGISTERED, module, section);
        return -1;
    }
    params.secname = section;
    params.module = mod->name;

    JsonPtr data;
    int rc = kep::invokeForJson(params, data);
    if (rc != 0) return rc;
    if (!data) {
        KEP_LOG("jsonParseStr error\n");
        *out = nullptr;
        return -10100;
    }
    KEP_LOG("jsonParseStr %s\n", kep::logJson(data.get()));
    *out = data.release();
    return 0;
}

KEP_API int transferJsonTable(json_object **value) {
    if (!value || !*value) return -1;
    if (jsonObjectIsArray(*value) == 1) return 0;
    JsonPtr source(*value);
    *value = nullptr;
    JsonPtr rows(jsonObjectNewArray());
    if (!rows) return -1;

    const char *key = nullptr;
    while (jsonObjectNextSubObject(source.get(), nullptr, &key)) {
        json_object *row = jsonObjectNewObject();
        if (!row || jsonObjectArrayAdd(rows.get(), row) != 0) return -1;
        char name[KEP_NAME_SIZE];
        kep::copyName(name, key, sizeof name);
        // Detaching the member makes the next pass find the following one first.
        json_object *member = jsonGetObjFromObj(source.get(), key);
        if (!member || jsonObjectObjectAdd(row, name, member) != 0) return -1;
    }
    *value = rows.release();
    return 0;
}
