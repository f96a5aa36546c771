/*
 * Helpers shared by the example owner modules.
 *
 * An owner keeps each section of its configuration as a C struct. A field table
 * describes the struct once; the conversion functions an owner registers in its
 * OprInterface are thin wrappers over ownerToJson/ownerFromJson with that table.
 */
#ifndef KEP_EXAMPLE_OWNER_H
#define KEP_EXAMPLE_OWNER_H

#include <stddef.h>

#include <json-c/json_types.h>

#include "kep_pf_rpc.h"

typedef enum { FIELD_TEXT, FIELD_INT, FIELD_BOOL } FieldType;

typedef struct OwnerField {
    const char *key;
    FieldType type;
    size_t offset;
    size_t size;                     /* FIELD_TEXT: the char array's size */
    int (*valid)(const char *text);  /* FIELD_TEXT: optional check, 1 when acceptable */
} OwnerField;

#define OWNER_TEXT(T, f, check) {#f, FIELD_TEXT, offsetof(T, f), sizeof(((T *)0)->f), check}
#define OWNER_INT(T, f) {#f, FIELD_INT, offsetof(T, f), sizeof(int), NULL}
#define OWNER_BOOL(T, f) {#f, FIELD_BOOL, offsetof(T, f), sizeof(int), NULL}

/* Record -> new JSON object; 0 or -1. */
int ownerToJson(const OwnerField *fields, int n, const void *record, json_object **out);
/* Lays the members of value over record (members it lacks stay as they are);
 * 0, or -1 for an unknown member, a wrong type or a value a check refuses. */
int ownerFromJson(const OwnerField *fields, int n, json_object *value, void *record);
/* 1 when every member of filter equals the record's field (a NULL filter matches all). */
int ownerMatches(const OwnerField *fields, int n, const void *record, json_object *filter);

int ownerValidIpv4(const char *text);
int ownerValidMac(const char *text);

/* Reads the input member name as text (NULL when absent). */
const char *ownerMember(QxRpcPara *set, const char *name);
/* Parses the input member name as JSON; NULL when absent or not JSON. */
json_object *ownerJsonMember(QxRpcPara *set, const char *name);
/* Answers the call: "errorCode" and, when not NULL, "result". Returns 0. */
int ownerAnswer(QxRpcPara *set, int code, const char *result);
int ownerAnswerJson(QxRpcPara *set, int code, json_object *result);  /* releases result */

/* An answer written as text member by member, so that a table of many sections never
 * exists as one JSON object as well (it would take about twenty times its text). */
typedef struct OwnerText {
    char *data;
    size_t len, cap;
    int failed; /* memory ran out: the answer is refused */
} OwnerText;
/* Appends "name": value to the object being written and releases value. */
void ownerTextMember(OwnerText *text, const char *name, json_object *value);
/* Answers code and the members written as one object; releases the text. */
int ownerAnswerObjectText(QxRpcPara *set, int code, OwnerText *text);

/* How long an owner waits for the host at start. The host starts after the owners
 * have written their files, and under an emulator on a loaded machine it can take
 * seconds to come up. */
#define OWNER_HOST_WAIT_MS 20000

/* Starts serving this process's handlers on a thread of the RPC, waits for the host,
 * then sends the registrations; 0 or the first failure. Handlers run one at a time. */
typedef struct OwnerRegistration { const char *op; const char *path; int index; const char *cb; } OwnerRegistration;
int ownerRegisterAll(const OwnerRegistration *regs, int n, int waitMs);
/* The factory-reset callback: resets this process's modules to their defaults and
 * brings the list tables' sections in line with the rewritten files. */
int ownerResetHandler(QxRpcPara *set, void *user);
/* Asks the host to notify the section's listeners once the current call is answered. */
void ownerNotifyLater(const char *path);
/* Until SIGTERM/SIGINT: sends the notifications handlers asked for and registers
 * again with a host that restarted. Unregisters at the end. */
int ownerServe(const char *name);

#endif
