/*
 * Stored tables read and restored through requests: the engine of kepctl's export and
 * import and of the host's change sets. Nothing here touches a file: a table is read
 * with a get and restored with sets, adds and deletes, so that the owners' checks and
 * notifications run. The caller sends the requests (to the host, or in the host).
 *
 * The document form of a module's stored part: {TABLE: [{ROW: {...}}, ...]} for a list
 * table (its rows in order), {TABLE: {SECTION: {...}}} for a table of named sections.
 * The host's tree is the JSON of "kepd.tree": {"modules": [{"name", "tables": [{"name",
 * "dynamic", "list", "sections": [{"name"}]}]}]}.
 *
 * Needs json-c only, so that kepctl loads neither the library nor the kit.
 */
#ifndef KEP_BACKUP_H
#define KEP_BACKUP_H

#include <stddef.h>

#include <json-c/json.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KEP_BACKUP_FORMAT 1

typedef struct KepBackupIo {
    /* Sends one request text; 0 with the malloc'd response in *response, or the RPC's
     * nonzero code. */
    int (*send)(const char *request, char **response, void *ctx);
    /* Told of a request that failed (may be NULL): the module, what it was for ("get",
     * "set", "add", "delete"), the table, row or section, and the code. */
    void (*failed)(const char *module, const char *what, const char *name, int code, void *ctx);
    void *ctx;
} KepBackupIo;

/* Sends request (not taken); the parsed response, or NULL with *rc the RPC's code or
 * the response's nonzero "error_code" (-10100 when it has none). */
json_object *kepBackupAsk(json_object *request, const KepBackupIo *io, int *rc);

/* {"method": method, module: {}}, with the module's (empty) object in *body. */
json_object *kepBackupRequest(const char *method, const char *module, json_object **body);

/* The element of a tree array whose "name" is name, or NULL. */
json_object *kepBackupFind(json_object *array, const char *name);

/* The section a factory reset keeps (the unit's cloud binding): never exported nor
 * imported, since a backup may come from another unit. */
int kepBackupKeptByReset(const char *module, const char *table, const char *section);

/* One stored table of a module (tree objects) in document form; NULL with *rc on a
 * failed read. keepBinding: leave the cloud binding out. */
json_object *kepBackupReadTable(const char *module, json_object *table, int keepBinding,
                                const KepBackupIo *io, int *rc);
/* Every stored table of a module, as kepBackupReadTable gives them (the binding left
 * out); a module without stored tables is an empty object. NULL with *rc on a failure. */
json_object *kepBackupReadModule(json_object *module, const KepBackupIo *io, int *rc);

/* Brings the module's tables that want names to want, given what they hold now (same
 * form): sections set, rows set or added under their names, rows want lacks deleted.
 * keepBinding: the cloud binding is not set. 0, or the first failing code. */
int kepBackupConverge(const char *module, json_object *want, json_object *now, int keepBinding,
                      const KepBackupIo *io);

/* A backup document ({"format", "modules", "config"}) against the host's tree, before
 * anything is changed: 0, or -1 with the first misfit, its place named, in why. */
int kepBackupCheck(json_object *doc, json_object *tree, char *why, size_t size);

#ifdef __cplusplus
}
#endif

#endif
