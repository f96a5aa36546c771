/*
 * kepctl export and import: a backup of every stored table and section, restored on
 * this unit or another of the same model. Both go through the host and the owners
 * like any request, so the owners' checks and notifications run; nothing here reads
 * or writes a configuration file.
 *
 * The document: {"format": 1, "modules": [every module of the model],
 *                "config": {MODULE: {TABLE: [{ROW: {...}}, ...] | {SECTION: {...}}}}}
 * A list table is its rows in order, a table of named sections an object of them.
 * Dynamic tables are left out: their data is produced by the owner, not stored.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

#include "kep_backup.h"
#include "kep_host.h"
#include "kep_pf_rpc.h"
#include "kepctl.h"

#define DOCUMENT_LIMIT ((size_t)64 << 20)

static json_object *member(json_object *obj, const char *key) {
    json_object *v = NULL;
    return json_object_object_get_ex(obj, key, &v) ? v : NULL;
}

static int sendToHost(const char *request, char **response, void *ctx) {
    (void)ctx;
    return kepHostRequest(request, response);
}

static void sayFailed(const char *module, const char *what, const char *name, int code, void *ctx) {
    (void)ctx;
    if (strcmp(what, "get") == 0)
        fprintf(stderr, "kepctl: reading %s/%s failed: %d: %s\n", module, name, code, kepctlMeaning(code));
    else
        fprintf(stderr, "kepctl: %s: %s %s: %d: %s\n", module, what, name, code, kepctlMeaning(code));
}

static const KepBackupIo kHost = {sendToHost, sayFailed, NULL};

/* The host's tree (modules, tables with their kinds and sections); NULL after saying why. */
static json_object *fetchTree(int *status) {
    char *text = NULL;
    int rc = kepHostFetch("kepd.tree", &text);
    json_object *tree = rc == 0 && text ? json_tokener_parse(text) : NULL;
    free(text);
    if (rc != 0) {
        *status = kepctlHostFailed(rc);
    } else if (!tree || !json_object_is_type(member(tree, "modules"), json_type_array)) {
        fprintf(stderr, "kepctl: the host's tree is not readable\n");
        *status = EXIT_CODE;
    }
    if (*status) {
        json_object_put(tree);
        return NULL;
    }
    return tree;
}

int kepctlExport(int compact) {
    int status = 0;
    json_object *tree = fetchTree(&status);
    if (!tree) return status;
    json_object *doc = json_object_new_object(), *names = json_object_new_array(),
                *config = json_object_new_object();
    json_object_object_add(doc, "format", json_object_new_int(KEP_BACKUP_FORMAT));
    json_object_object_add(doc, "modules", names);
    json_object_object_add(doc, "config", config);
    json_object *modules = member(tree, "modules");
    for (size_t i = 0; status == 0 && i < json_object_array_length(modules); i++) {
        json_object *mod = json_object_array_get_idx(modules, i);
        const char *name = json_object_get_string(member(mod, "name"));
        json_object_array_add(names, json_object_new_string(name));
        int rc;
        json_object *stored = kepBackupReadModule(mod, &kHost, &rc);
        if (!stored) {
            /* A backup without a module would restore to less than was there. */
            status = rc == QXRPC_ERR_TIMEOUT || rc == QXRPC_ERR_IO ? EXIT_UNKNOWN : EXIT_CODE;
        } else if (json_object_object_length(stored) == 0) {
            json_object_put(stored);
        } else {
            json_object_object_add(config, name, stored);
        }
    }
    if (status == 0)
        puts(json_object_to_json_string_ext(
            doc, compact ? JSON_C_TO_STRING_PLAIN : JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED));
    json_object_put(doc);
    json_object_put(tree);
    return status;
}

/* ---- import ---- */

static int refuse(const char *why) {
    fprintf(stderr, "kepctl: import refused, nothing changed: %s\n", why);
    return EXIT_CODE;
}

int kepctlImport(const char *path) {
    FILE *f = strcmp(path, "-") == 0 ? stdin : fopen(path, "r");
    if (!f) {
        fprintf(stderr, "kepctl: cannot open %s: %s\n", path, strerror(errno));
        return EXIT_USAGE;
    }
    char *text = kepctlReadAll(f, path, DOCUMENT_LIMIT);
    if (f != stdin) fclose(f);
    if (!text) return EXIT_USAGE;
    json_object *doc = json_tokener_parse(text);
    free(text);
    int status = 0;
    char why[512];
    json_object *tree = doc ? fetchTree(&status) : NULL;
    if (!doc) {
        snprintf(why, sizeof why, "%s is not JSON", path);
        status = refuse(why);
    }
    if (status == 0 && kepBackupCheck(doc, tree, why, sizeof why) != 0) status = refuse(why);

    /* Module by module: what it holds now is read first, so that a module whose
     * restore fails part-way can be put back as it was. */
    json_object *config = status == 0 ? member(doc, "config") : NULL;
    int restored = 0, failed = 0;
    if (config) {
        json_object_object_foreach(config, module, want) {
            json_object *mod = kepBackupFind(member(tree, "modules"), module);
            int rc;
            json_object *before = kepBackupReadModule(mod, &kHost, &rc);
            if (!before) {
                fprintf(stderr, "%s: not restored: its configuration could not be read first\n", module);
                failed++;
                continue;
            }
            rc = kepBackupConverge(module, want, before, 1, &kHost);
            if (rc == 0) {
                printf("%s: restored\n", module);
                restored++;
            } else {
                json_object *partial = kepBackupReadModule(mod, &kHost, &rc);
                int back = partial ? kepBackupConverge(module, before, partial, 1, &kHost) : -1;
                json_object_put(partial);
                printf("%s: not restored; %s\n", module,
                       back == 0 ? "left as it was" : "putting it back failed too: check it by hand");
                failed++;
            }
            json_object_put(before);
        }
        fflush(stdout);
        if (failed) status = EXIT_CODE;
        fprintf(stderr, "kepctl: %d module%s restored, %d not\n", restored, restored == 1 ? "" : "s", failed);
    }
    json_object_put(tree);
    json_object_put(doc);
    return status;
}
