/*
 * The owner's kit: everything a process needs to own modules of the data model.
 *
 * An owner describes its stored data (a C struct per record and the JSON form of its
 * fields), its dynamic tables and its actions, then runs. The kit
 *   - merges the model description into this process's tree and attaches the
 *     conversion functions;
 *   - loads the module's configuration file, writing the defaults of whatever is
 *     missing (a missing or unreadable file, a table or section the file lacks);
 *   - serves get, set, add and delete of the described tables and sections from that
 *     file, names new list sections, runs the owner's checks, sends change
 *     notifications, applies a factory reset completely;
 *   - registers everything with the host (kepd) whenever a host runs, also one that
 *     starts after the owner or restarts, and unregisters at the end.
 * Only the process that owns a module writes its file.
 *
 * A minimal owner:
 *
 *   typedef struct Settings { int enabled; char zone[32]; } Settings;
 *   static const KepField kSettings[] = { KEP_BOOL(Settings, enabled), KEP_TEXT(Settings, zone, NULL) };
 *   static const Settings kDefaults = {1, "UTC"};
 *   ...
 *   KepOwnerData data = KEP_OWNER_SECTION("/ntp/main/settings", Settings, kSettings, &kDefaults);
 *   if (kepOwnerInit("ntp.xml") || kepOwnerAdd(&data)) return 1;
 *   return kepOwnerRun("ntpd");
 *
 * Threads: the kit serves requests on one thread of its own; the owner's callbacks
 * (conversions, checks, producers, actions, listeners) run there, one at a time.
 * Everything before kepOwnerStart/kepOwnerRun runs on the caller's thread.
 */
#ifndef KEP_OWNER_H
#define KEP_OWNER_H

#include <stddef.h>

#include <json-c/json_types.h>

#include "kep_tree.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- the JSON form of a C struct ---- */

typedef enum { KEP_FIELD_TEXT, KEP_FIELD_INT, KEP_FIELD_BOOL } KepFieldType;

typedef struct KepField {
    const char *key;                /* the member's name in JSON */
    KepFieldType type;              /* TEXT: a char array; INT, BOOL: an int */
    size_t offset;                  /* of the field in the struct */
    size_t size;                    /* TEXT: the array's size, the terminating zero included */
    int (*valid)(const char *text); /* TEXT, optional: 1 when the text is acceptable */
} KepField;

#define KEP_TEXT(T, f, check) \
    { #f, KEP_FIELD_TEXT, offsetof(T, f), sizeof(((T *)0)->f), check }
#define KEP_INT(T, f) \
    { #f, KEP_FIELD_INT, offsetof(T, f), sizeof(int), NULL }
#define KEP_BOOL(T, f) \
    { #f, KEP_FIELD_BOOL, offsetof(T, f), sizeof(int), NULL }
#define KEP_COUNT(a) ((int)(sizeof(a) / sizeof((a)[0])))

/* The record as a new JSON object with every field; 0, or -1 without memory. */
int kepFieldsToJson(const KepField *fields, int n, const void *record, json_object **out);
/* Lays the members of value over record; members it lacks keep their values. 0, or -1
 * (record unchanged) for a value that is no object, an unknown member, a wrong type,
 * a text too long for its field or one its check refuses. */
int kepFieldsFromJson(const KepField *fields, int n, json_object *value, void *record);

int kepValidIpv4(const char *text); /* dotted quad */
int kepValidMac(const char *text);  /* six hex pairs separated by ':' */

/* ---- stored data ---- */

/* May refuse a change before it is stored: path is the section's ("/dhcp/host/host_2"),
 * record the new record (NULL when the section is being deleted), old the stored one
 * (NULL when it is being added). 0 accepts; any other value refuses, and the client
 * receives it as the request's "error_code". */
typedef int (*KepCheckFn)(const char *path, const void *record, const void *old, void *user);
/* Told after a change was stored (record NULL: deleted), to apply it to the system. */
typedef void (*KepChangedFn)(const char *path, const void *record, void *user);

typedef struct KepOwnerData {
    /* "/module/table" for a list table (sections added and deleted at run time, stored
     * as an array), "/module/table/section" for a named section the model declares. */
    const char *path;
    size_t recordSize; /* sizeof the record's struct */

    /* The record's fields. With them the kit converts and produces defaults itself;
     * without them (NULL) the conversion functions of opr are used as they stand. */
    const KepField *fields;
    int fieldCount;
    /* Defaults with fields: a named section's record (NULL: all zero); a list table's
     * records, defaultCount of them, named as new sections are. */
    const void *defaults;
    int defaultCount;
    OprInterface opr; /* without fields: resetConfig, binToJson and jsonToBin */

    /* A list table's new sections are called prefix and a number, the next after the
     * highest in use (NULL: the table's name and "_", as in "host_3"). A name a client
     * gives must start with the prefix too. */
    const char *prefix;
    KepCheckFn check;     /* optional */
    KepChangedFn changed; /* optional */
    void *user;           /* handed to check and changed */
    int notify;           /* 1: the host tells this section's listeners of each change */
} KepOwnerData;

/* Descriptions with a field table: a named section with its default record (NULL: all
 * zero), a list table with an array of nd default records. The other members are
 * zero, to be set as needed. */
#define KEP_OWNER_SECTION(p, T, f, d)                                                                     \
    {                                                                                                     \
        .path = (p), .recordSize = sizeof(T), .fields = (f), .fieldCount = KEP_COUNT(f), .defaults = (d), \
        .defaultCount = 1                                                                                 \
    }
#define KEP_OWNER_LIST(p, T, f, d, nd)                                                                    \
    {                                                                                                     \
        .path = (p), .recordSize = sizeof(T), .fields = (f), .fieldCount = KEP_COUNT(f), .defaults = (d), \
        .defaultCount = (nd)                                                                              \
    }

/* ---- dynamic tables, actions, listeners ---- */

/* Produces a dynamic table when it is read: *rows is an array of one-member objects
 * ({"client_1": {...}}) or an object of sections, handed over to the kit. para and
 * filter are the request's (NULL when absent). 0, or the owner's error code. */
typedef int (*KepProduceFn)(json_object *para, json_object *filter, json_object **rows, void *user);
/* Runs an action: *result is handed over to the kit (NULL answers {}). 0, or the
 * owner's error code. */
typedef int (*KepActionFn)(json_object *para, json_object **result, void *user);
/* Told that another module's section changed (path as registered). */
typedef void (*KepListenFn)(const char *path, void *user);

/* ---- the owner's life ---- */

/* Merges the model description into this process's tree; 0, or -1 with the reason on
 * standard error. Call once per description file, before kepOwnerAdd. */
int kepOwnerInit(const char *modelFile);
/* Describes stored data (the description is copied, the field table, defaults and
 * prefix are not: they must stay). 0, or -1 with the reason on standard error. */
int kepOwnerAdd(const KepOwnerData *data);
/* A dynamic table, "/module/table". */
int kepOwnerAddDynamic(const char *path, KepProduceFn produce, void *user);
/* An action of the module, "/module/action". */
int kepOwnerAddAction(const char *path, KepActionFn run, void *user);
/* Listens to changes of another owner's section, "/module/table/section". */
int kepOwnerListen(const char *path, KepListenFn listen, void *user);

/* Loads (and completes) the owned modules' files and starts serving; registers with
 * the host when one runs. Returns at once: 0, or -1 with the reason on standard error. */
int kepOwnerStart(void);
/* Sends the notifications the served requests asked for and registers with a host
 * that started since; waits at most timeoutMs for something to do. Returns 1 after
 * SIGTERM or SIGINT, else 0. kepOwnerRun calls it in a loop. */
int kepOwnerPoll(int timeoutMs);
/* Also answers for the owned modules in this process: registers the callbacks in this
 * process's own tree as the host does in its, so that standardKepReqHandle here calls
 * this process's handlers (over the RPC, served by the kit's thread). For a process that
 * serves its own modules' reads itself; after kepOwnerStart. 0, or -1 with the reason
 * on standard error. */
int kepOwnerServeHere(void);
/* Stops serving and unregisters from the host. */
void kepOwnerStop(void);
/* Start, poll until SIGTERM or SIGINT, stop; name labels the messages. 0, or 1 when
 * the start failed: the value for main to return. */
int kepOwnerRun(const char *name);

/* Reads the stored record of a section ("/module/table/section") into record,
 * recordSize bytes; 0, or -1. For checks that look at other sections. */
int kepOwnerRead(const char *path, void *record, size_t recordSize);
/* Calls fn for every section of a described list table, in order, with its name and
 * record, until fn returns nonzero (which is returned). */
int kepOwnerEach(const char *tablePath, int (*fn)(const char *section, const void *record, void *user),
                 void *user);

/* What the kit itself answers with ("errorCode" of the owner's callbacks). */
enum {
    KEP_OWNER_ERR_INVALID = -31001,   /* a value the record cannot take */
    KEP_OWNER_ERR_NOT_FOUND = -31002, /* no such section or table here */
    KEP_OWNER_ERR_STORE = -31003,     /* the configuration file could not be written */
    KEP_OWNER_ERR_FULL = -31004,      /* no section number left */
    KEP_OWNER_ERR_EXISTS = -31005,    /* a section of that name exists, or it is not the table's */
    KEP_OWNER_ERR_MEMORY = -31006     /* no memory for the answer */
};

#ifdef __cplusplus
}
#endif

#endif
