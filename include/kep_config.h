/*
 * Configuration store: each module keeps its configuration in one JSON file.
 *
 * Owners hand binary records (a buffer and its size) that the library converts
 * through the OprInterface functions of the table or section. Every file store is
 * atomic: a failed store leaves the previous file intact.
 * Results: 0 on success, -1 or the store's own nonzero result on failure.
 */
#ifndef KEP_CONFIG_H
#define KEP_CONFIG_H

#include <json-c/json_types.h>

#include "kep_tree.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Path "/module/table/section". */
int modelRead(const char *path, void *buf, int size);
int modelWrite(const char *path, const void *record, int size);
int loadTableListConfig(DataTable *table, json_object *array);
int tableResetConfig(DataTable *table, json_object **value);
int modelResetConfigFile(DataModule *module);
int systemLoadConfigFile(void);
int systemResetConfigFile(void);

/* Kept for processes built against earlier releases: the library takes no lock, but
 * still brackets every call into a dynamic table's reader or writer with these
 * (modelLock returns 0, modelUnlock does nothing). */
int modelLock(void);
void modelUnlock(int token);

#ifdef __cplusplus
}
#endif

#endif
