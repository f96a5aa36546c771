/*
 * The data module tree: modules, their tables and sections, and who serves them.
 *
 * Each process has its own tree; it lives until the process ends and has no lock,
 * so a process that uses it from several threads serialises the calls that change it.
 * Registration copies the caller's records and names. Names hold at most 31
 * characters, callback names at most 64; comparisons are exact.
 *
 * Paths have the form "/module/table" or "/module/table/section".
 * Results: 0 on success, -1 on failure, unless stated otherwise.
 */
#ifndef KEP_TREE_H
#define KEP_TREE_H

#include <json-c/json_types.h>

#include "kep_list.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Field sizes of the records below; the binary layout depends on them. */
enum {
    KEP_NAME_SIZE = 32,     /* names: 31 characters and the terminator */
    KEP_CALLBACK_SIZE = 68, /* callback names: at most 64 characters are kept */
    KEP_METHOD_SLOTS = 4    /* methodCb: one slot per method index below KEP_METHOD_ACTION */
};

/* Method index of the methodCb slots and of registerMethodCb. */
enum {
    KEP_METHOD_ADD = 0,
    KEP_METHOD_SET = 1,
    KEP_METHOD_DELETE = 2,
    KEP_METHOD_GET = 3,
    KEP_METHOD_ACTION = 4
};
/* Verify/notify selector: 1 verify, anything else notify. */
enum { KEP_SELECT_NOTIFY = 0, KEP_SELECT_VERIFY = 1 };

/* Slot conventions of an operation interface: the table's kind (isDynamic) selects the member.
 * A JsonToBinFn only reads the value it is lent: the value belongs to the module's document,
 * which the library keeps between calls, so it must neither be changed nor kept. */
typedef int (*ResetConfigFn)(const char *name, json_object **value); /* configuration kind */
typedef int (*ResetDynamicFn)(const char *name);                     /* dynamic kind; result ignored */
typedef int (*BinToJsonFn)(const char *name, json_object **value, const void *record,
                           int size);                                                  /* record -> JSON */
typedef int (*DynReadFn)(const char *name, void *buf, int size);                       /* dynamic reader */
typedef int (*JsonToBinFn)(const char *name, json_object *value, void *buf, int size); /* JSON -> record */
typedef int (*DynWriteFn)(const char *name, const void *record, int size);             /* dynamic writer */

typedef struct OprInterface {
    union {
        ResetConfigFn config;
        ResetDynamicFn dynamic;
    } resetConfig; /* slot 0 */
    union {
        BinToJsonFn config;
        DynReadFn dynamic;
    } binToJson; /* slot 1 */
    union {
        JsonToBinFn config;
        DynWriteFn dynamic;
    } jsonToBin; /* slot 2 */
    int configPid;
    int pid; /* owner of the remote callback; 0 until registered */
    char cb[KEP_CALLBACK_SIZE];
} OprInterface;

/* In-process check run before a list entry is stored; existed is 1 for an update. */
typedef int (*VerifyFn)(const char *name, json_object *value, void *reserved, int existed);

typedef struct MethodCbNode {
    LstNode link;
    int pid;
    char cb[KEP_CALLBACK_SIZE];
} MethodCbNode;
typedef struct VerNotifyNode {
    LstNode link;
    VerifyFn verifyFn;
    int pid;
    char cb[KEP_CALLBACK_SIZE];
} VerNotifyNode;
typedef struct ActionNode {
    LstNode link;
    char name[KEP_NAME_SIZE];
    int pid;
    char cb[KEP_CALLBACK_SIZE];
} ActionNode;
typedef struct DataOption {
    char name[KEP_NAME_SIZE];
} DataOption;

/* The four-word application record: init runs inside registerAppModule; the rest is the caller's. */
typedef struct AppOps {
    int (*init)(void);
    void *reserved[3];
} AppOps;

typedef struct DataSection {
    LstNode link;
    char name[KEP_NAME_SIZE];
    LstList verList;
    LstList notList;
    OprInterface opr;
    MethodCbNode *methodCb[KEP_METHOD_SLOTS];
} DataSection;

typedef struct DataTable {
    LstNode link;
    char name[KEP_NAME_SIZE];
    int isDynamic; /* 0: data in the module's configuration file; 1: produced by the owner */
    LstList sections;
    LstList verList;
    LstList notList;
    OprInterface opr;
    int optionPublic; /* 1: list table stored as an array; 0: named sections */
    int noCheck;
    int count;
    int optionCount;
    DataOption *options;
    MethodCbNode *methodCb[KEP_METHOD_SLOTS];
} DataTable;

typedef struct DataModule {
    LstNode link;
    char name[KEP_NAME_SIZE];
    char configFile[KEP_NAME_SIZE];
    LstList tables;
    LstList actions;
    AppOps appOps;
} DataModule;

/* Lookups: they return a node or null and never change the tree. */
DataModule *getModulerRoot(void);
int getModuleSize(void);
DataModule *getDataModuler(const char *name);
/* A null module searches every module in order. */
DataTable *getDataTable(DataModule *module, const char *name);
DataTable *getTableByFullName(const char *path);
/* 1 with *out set when found, 0 when not, -1 for a null name or unknown module. */
int findSectionInModule(const char *module, const char *section, DataSection **out);

/* Removal: module and table nodes themselves always stay in the tree. */
void delDataTable(DataTable *table);
void delDataModule(const char *name, int dropListSections);
int unregisterTable(const char *path);
int deletePluginTable(const char *module, const char *table);

/* Registration. */
int registerAppModule(const char *name, const AppOps *ops);
int regOprInterface(const char *path, const OprInterface *opr);
int registerMethodCb(const char *path, int method, const char *cb, int pid);
int unRegisterMethodCb(const char *path, int method, const char *cb, int pid);
int registerVerNotify(const char *path, int selector, const char *cb, int pid);
int unRegisterVerNotify(const char *path, int selector, const char *cb, int pid);
int registerAction(const char *module, const char *action, const char *cb, int pid);

/* Writes the whole tree to the debug log; nothing while the debug switch is off. */
void printDataModuleTree(void);

#ifdef __cplusplus
}
#endif

#endif
