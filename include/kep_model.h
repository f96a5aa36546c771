/*
 * Model operations: reading, editing, adding and deleting table and section data,
 * and running actions, by calling the owning process's registered callback.
 *
 * Objects stored through an out-pointer belong to the caller. Results are 0 or an
 * error code of kep_request.h, or a nonzero code passed on from the RPC or from
 * the owner's callback.
 */
#ifndef KEP_MODEL_H
#define KEP_MODEL_H

#include <json-c/json_types.h>

#ifdef __cplusplus
extern "C" {
#endif

int getTableObjJson(const char *module, const char *table, json_object *request, json_object **out);
int getSectionObjJson(const char *module, const char *section, json_object **out);
/* Turns {"a":{..},"b":{..}} into [{"a":{..}},{"b":{..}}] in place; 0 or -1 (value deleted, NULL stored). */
int transferJsonTable(json_object **value);
/* Path "/module/table/section". Return the jsonToBin result (bytes written) or -1. */
int modelReadEx(const char *path, json_object *values, void *buf, int size);
int modelReadFromReqObj(const char *path, json_object *request, void *buf, int size);

int editTableByObjJson(const char *module, const char *table, json_object *request);
int editSectionByObjJson(const char *module, const char *section, json_object *params, json_object *request);
int addSectionByObjJson(const char *module, const char *table, const char *section, json_object *params,
                        json_object *result);
int deleteDataTable(const char *module, const char *table, json_object *filter);
int deleteDataSection(const char *module, const char *section);
void notifySecdataChanged(const char *path);
int doActionToModel(const char *module, const char *action, json_object *params, json_object **result);

#ifdef __cplusplus
}
#endif

#endif
