/*
 * Platform JSON object layer: a thin layer over json-c values.
 *
 * Ownership: an object belongs to whoever created it until it is added to a
 * container, which then owns it. Getters return borrowed values and texts owned by
 * the object they came from. Results of int type are 0 on success, nonzero on failure.
 */
#ifndef KEP_PF_JSON_H
#define KEP_PF_JSON_H

#include <json-c/json_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A position while walking an object's members (json-c's hash entry). */
typedef struct lh_entry JsonObjCursor;

json_object *jsonObjectNewObject(void); /* NULL when memory is exhausted */
json_object *jsonObjectNewArray(void);
json_object *jsonObjectFromString(const char *text); /* new value, or NULL for null/non-JSON text */
/* NULL for a missing or unparsable file, and for one larger than the file limit. */
json_object *jsonObjectFromFile(const char *path);
/*
 * The file limit: the largest file, in bytes, that jsonObjectFromFile reads (a bound
 * on what one read allocates) and that the stores write (a larger text is refused,
 * nonzero, rather than stored as a file the next read cannot take). 64 MiB unless the
 * environment variable KEP_JSON_FILE_LIMIT, read once, gives another byte count; this
 * call overrides both. A larger file is unreadable like a broken one: the start-up
 * repair keeps it aside (see jsonObjectToFileMem). 0, or -1 for bytes below 1.
 */
int jsonObjectSetFileLimit(long bytes);
/*
 * Replace the file atomically: a temporary file in the same folder is written,
 * flushed to disk and renamed over the old one. Nonzero on any failure, with the
 * old file left intact. ToFileMem serialises into memory first, then stores it the
 * same way; it is the store of resets, and keeps a file it replaces that cannot be
 * read as "<path>.unreadable-<UTC time, e.g. 20261124T101530Z>[-N]" (a hard link),
 * one for every such store, logged on debug module 113.
 *
 * File modes: a stored file is 0600, or 0640 and of the configured group when there
 * is one (below). A store never widens what the replaced file allowed: its mode is
 * narrowed to that file's, owner read and write always kept, and never copied wider.
 */
int jsonObjectToFile(const char *path, json_object *obj);
int jsonObjectToFileMem(const char *path, json_object *obj);
/*
 * The group that may read the configuration files: gid, or -1 for none. Without this
 * call, the environment variable KEP_CONFIG_GROUP (a group name or number, read once)
 * gives it. A store that cannot give its file the group (the process is neither root
 * nor a member) writes it 0600. 0, or -1 for gid below -1.
 */
int jsonObjectSetFileGroup(int gid);
/* *text: malloc'd copy of the JSON text, released with free(); 0, or -1 and NULL on
 * failure (also when json-c, short of memory, wrote a text that does not match the
 * object). */
int jsonObjectToMallocString(json_object *obj, char **text);

json_object *jsonObjectObjectGet(json_object *obj, const char *key); /* borrowed, or NULL */
/* The container takes value (which may be NULL for a JSON null); on failure value is released. */
int jsonObjectObjectAdd(json_object *obj, const char *key, json_object *value);
/* Removes and releases the member; nonzero when there is none. */
int jsonObjectObjectDel(json_object *obj, const char *key);
/* Releases an object and all that it owns; NULL is ignored. */
void jsonObjectObjectDelete(json_object *obj);
/* Detaches the member and hands it to the caller, or NULL when absent. */
json_object *jsonGetObjFromObj(json_object *obj, const char *key);
/*
 * Walks an object's members in order: a NULL cursor gives the first member, NULL is
 * returned after the last (and for a value that is not an object). *key receives the
 * member's name; jsonObjectCursorValue gives its value.
 */
JsonObjCursor *jsonObjectNextSubObject(json_object *obj, JsonObjCursor *cursor, const char **key);
json_object *jsonObjectCursorValue(JsonObjCursor *cursor);

int jsonObjectAddInt(json_object *obj, const char *key, int value);
/* Adds an integer member given as decimal text; nonzero when the text is no integer. */
int jsonObjectAddIntByStr(json_object *obj, const char *key, const char *text);
int jsonObjectAddString(json_object *obj, const char *key, const char *text); /* text copied */

/* The member's text (JSON text for a value that is not a string), or NULL when absent. */
const char *jsonObjectGetString(json_object *obj, const char *key);
/* 0 when an integer (or boolean) member was read into *value; -1 otherwise, nothing stored. */
int jsonObjectGetInt(json_object *obj, const char *key, int *value);
/* The same for a value itself. */
int jsonObjectGetIntSelf(json_object *value, int *out);
/* Text of a string value, or NULL for any other type. */
const char *jsonGetObjectString(json_object *value);
/* JSON text of any value ("null" for NULL). */
const char *jsonGetObjectStringOrigin(json_object *value);

/* 1 when the value is of that type, else 0. */
int jsonObjectIsObject(json_object *value);
int jsonObjectIsArray(json_object *value);
int jsonObectIsBool(json_object *value);
int jsonObectIsInt(json_object *value);
int jsonObectIsString(json_object *value);

/* The array takes value; on failure value is released. */
int jsonObjectArrayAdd(json_object *array, json_object *value);
/* Removes (and releases) that element of the array; nonzero when it is not there. */
int jsonObjectArrayDel(json_object *array, json_object *element);
json_object *jsonObjectArrayGetIdx(json_object *array, unsigned int index); /* borrowed, or NULL */
int jsonObjectArrayLength(json_object *array); /* 0 for a value that is not an array */

#ifdef __cplusplus
}
#endif

#endif
