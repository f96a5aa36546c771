/*
 * JSON helpers and response message builders.
 *
 * Readers return texts owned by the object they were read from, valid while that
 * object lives unchanged. The five builders return a newly allocated text (or NULL)
 * that the caller releases with free().
 */
#ifndef KEP_JSON_H
#define KEP_JSON_H

#include <json-c/json_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* New object owned by the caller, or NULL for null or non-JSON text. */
json_object *jsonParseStr(const char *text);
/* The member serialised as JSON text (a string keeps its quotes), or NULL. */
const char *getValueFromJsonObj(json_object *obj, const char *key);
const char *getValueFromArrayJsonObj(json_object *array, unsigned int index, const char *key);
/* 0 after storing 1 or 0 for a boolean member; -1 (nothing stored) otherwise. */
int getBoolFromJsonObj(json_object *obj, const char *key, int *value);
const char *getStringFromJsonObj(json_object *obj, const char *key);
int getIntFromJsonObj(json_object *obj, const char *key, int *value);
/* Drops one reference; NULL is ignored. */
void jsonObjectPut(json_object *obj);

/* Kept for processes built against earlier releases; new code has no use for them.
 * getValueFromJsonObj_kep is getValueFromJsonObj; getNexlSubJsonObj returns obj. */
const char *getValueFromJsonObj_kep(json_object *obj, const char *key);
json_object *getNexlSubJsonObj(json_object *obj);

char *generateErrorJsonMsgForSDK(int code, const char *msg);
char *generateErrorJsonMsg(int code, const char *msg, int id);
char *responseSuccessJsonMsg(void);
char *responseErrorJsonMsg(int code, const char *msg);
char *buildFormatedResponseForSDK(const char *text);

#ifdef __cplusplus
}
#endif

#endif
