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
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

#include "kep_host.h"
#include "kep_pf_rpc.h"
#include "kepctl.h"

#define FORMAT 1
#define NAME_MAX_LEN 31
#define DOCUMENT_LIMIT ((size_t)64 << 20)

/* A factory reset keeps the unit's cloud binding; a backup from another unit must not
 * carry its binding over either, so the record is neither exported nor imported. */
static int keptByReset(const char *module, const char *table, const char *section) {
    return strcmp(module, "cloud_config") == 0 && strcmp(table, "router_post") == 0 &&
           strcmp(section, "bind") == 0;
}

static json_object *member(json_object *obj, const char *key) {
    json_object *v = NULL;
    return json_object_object_get_ex(obj, key, &v) ? v : NULL;
}

static int isObject(json_object *v) {
    return json_object_is_type(v, json_type_object);
}

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

static json_object *findNamed(json_object *array, const char *name) {
    size_t n = json_object_array_length(array);
    for (size_t i = 0; i < n; i++) {
        json_object *e = json_object_array_get_idx(array, i);
        const char *have = json_object_get_string(member(e, "name"));
        if (have && strcmp(have, name) == 0) return e;
    }
    return NULL;
}

/* One request through the host: the parsed response, or NULL with *rc the RPC's code
 * or the response's nonzero "error_code" (the response is then dropped). */
static json_object *ask(json_object *request, int *rc) {
    char *text = NULL;
    *rc = kepHostRequest(json_object_to_json_string_ext(request, JSON_C_TO_STRING_PLAIN), &text);
    json_object *rsp = *rc == 0 && text ? json_tokener_parse(text) : NULL;
    free(text);
    if (*rc != 0) return NULL;
    json_object *code = member(rsp, "error_code");
    *rc = code ? json_object_get_int(code) : -10100;
    if (*rc != 0) {
        json_object_put(rsp);
        return NULL;
    }
    return rsp;
}

static json_object *newRequest(const char *method, const char *module, json_object **body) {
    json_object *req = json_object_new_object();
    *body = json_object_new_object();
    json_object_object_add(req, "method", json_object_new_string(method));
    json_object_object_add(req, module, *body);
    return req;
}

/* The stored part of one module as the document holds it; NULL with *rc on a failed read. */
static json_object *readModule(json_object *mod, int *rc) {
    const char *name = json_object_get_string(member(mod, "name"));
    json_object *tables = member(mod, "tables"), *out = json_object_new_object();
    *rc = 0;
    for (size_t i = 0; *rc == 0 && i < json_object_array_length(tables); i++) {
        json_object *t = json_object_array_get_idx(tables, i), *body, *rsp = NULL;
        const char *table = json_object_get_string(member(t, "name"));
        if (json_object_get_int(member(t, "dynamic")) != 0) continue;
        json_object *req = newRequest("get", name, &body);
        if (json_object_get_int(member(t, "list")) == 1) {
            json_object_object_add(body, "table", json_object_new_string(table));
            if ((rsp = ask(req, rc)) != NULL) {
                json_object *rows = member(member(rsp, name), table);
                json_object_object_add(out, table, rows ? json_object_get(rows) : json_object_new_array());
            }
        } else {
            json_object *sections = member(t, "sections"), *names = json_object_new_array();
            for (size_t k = 0; k < json_object_array_length(sections); k++) {
                const char *s =
                    json_object_get_string(member(json_object_array_get_idx(sections, k), "name"));
                if (!keptByReset(name, table, s)) json_object_array_add(names, json_object_new_string(s));
            }
            if (json_object_array_length(names) == 0) {
                json_object_put(names);
                json_object_put(req);
                continue;
            }
            json_object_object_add(body, "name", names);
            if ((rsp = ask(req, rc)) != NULL) {
                json_object *values = json_object_new_object(), *got = member(rsp, name);
                for (size_t k = 0; k < json_object_array_length(names); k++) {
                    const char *s = json_object_get_string(json_object_array_get_idx(names, k));
                    json_object *v = member(got, s);
                    json_object_object_add(values, s, v ? json_object_get(v) : json_object_new_object());
                }
                json_object_object_add(out, table, values);
            }
        }
        if (*rc != 0)
            fprintf(stderr, "kepctl: reading %s/%s failed: %d: %s\n", name, table, *rc, kepctlMeaning(*rc));
        json_object_put(rsp);
        json_object_put(req);
    }
    if (*rc != 0) {
        json_object_put(out);
        return NULL;
    }
    return out;
}

int kepctlExport(int compact) {
    int status = 0;
    json_object *tree = fetchTree(&status);
    if (!tree) return status;
    json_object *doc = json_object_new_object(), *names = json_object_new_array(),
                *config = json_object_new_object();
    json_object_object_add(doc, "format", json_object_new_int(FORMAT));
    json_object_object_add(doc, "modules", names);
    json_object_object_add(doc, "config", config);
    json_object *modules = member(tree, "modules");
    for (size_t i = 0; status == 0 && i < json_object_array_length(modules); i++) {
        json_object *mod = json_object_array_get_idx(modules, i);
        const char *name = json_object_get_string(member(mod, "name"));
        json_object_array_add(names, json_object_new_string(name));
        int rc;
        json_object *stored = readModule(mod, &rc);
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

static int refuse(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("kepctl: import refused, nothing changed: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    return EXIT_CODE;
}

/* A section's name and value: an object with one member whose value is an object. */
static int oneRow(json_object *row, const char **name, json_object **value) {
    if (!isObject(row) || json_object_object_length(row) != 1) return 0;
    json_object_object_foreach(row, key, v) {
        *name = key;
        *value = v;
    }
    return isObject(*value) && strlen(*name) <= NAME_MAX_LEN && (*name)[0];
}

/* The whole document against the host's model, before anything is changed. */
static int checkDocument(json_object *doc, json_object *tree) {
    json_object *format = member(doc, "format"), *config = member(doc, "config");
    if (!isObject(doc)) return refuse("the document is not a JSON object");
    if (!format || json_object_get_int(format) != FORMAT || !json_object_is_type(format, json_type_int))
        return refuse("\"format\": only format %d is known", FORMAT);
    if (!isObject(config)) return refuse("\"config\": not an object");
    json_object_object_foreach(config, module, tables) {
        json_object *mod = findNamed(member(tree, "modules"), module);
        if (!mod) return refuse("config.%s: no such module in this model", module);
        if (!isObject(tables)) return refuse("config.%s: not an object", module);
        json_object_object_foreach(tables, table, value) {
            json_object *t = findNamed(member(mod, "tables"), table);
            if (!t) return refuse("config.%s.%s: no such table", module, table);
            if (json_object_get_int(member(t, "dynamic")) != 0)
                return refuse("config.%s.%s: a dynamic table is not stored", module, table);
            if (json_object_get_int(member(t, "list")) == 1) {
                if (!json_object_is_type(value, json_type_array))
                    return refuse("config.%s.%s: a list table is an array of rows", module, table);
                json_object *seen = json_object_new_object();
                for (size_t i = 0; i < json_object_array_length(value); i++) {
                    const char *name;
                    json_object *v;
                    int bad = !oneRow(json_object_array_get_idx(value, i), &name, &v);
                    if (bad) refuse("config.%s.%s[%zu]: a row is {\"NAME\": {values}}", module, table, i);
                    if (!bad && (bad = json_object_object_get_ex(seen, name, NULL)))
                        refuse("config.%s.%s[%zu]: a second row named %s", module, table, i, name);
                    if (bad) {
                        json_object_put(seen);
                        return EXIT_CODE;
                    }
                    json_object_object_add(seen, name, NULL);
                }
                json_object_put(seen);
            } else {
                if (!isObject(value)) return refuse("config.%s.%s: not an object of sections", module, table);
                json_object_object_foreach(value, section, v) {
                    if (!findNamed(member(t, "sections"), section))
                        return refuse("config.%s.%s.%s: no such section", module, table, section);
                    if (!isObject(v)) return refuse("config.%s.%s.%s: not an object", module, table, section);
                }
            }
        }
    }
    return 0;
}

/* Sends one request; the first failure is said on standard error, naming what it was for. */
static int sendOne(json_object *req, const char *module, const char *what, const char *name) {
    int rc;
    json_object *rsp = ask(req, &rc);
    json_object_put(rsp);
    json_object_put(req);
    if (rc != 0) fprintf(stderr, "kepctl: %s: %s %s: %d: %s\n", module, what, name, rc, kepctlMeaning(rc));
    return rc;
}

/* The names of a list table's rows as the keys of an object: looked up without a walk,
 * so that restoring a large table costs in proportion to its rows. */
static json_object *rowNames(json_object *rows) {
    json_object *names = json_object_new_object();
    for (size_t i = 0; rows && i < json_object_array_length(rows); i++) {
        const char *name;
        json_object *v;
        if (oneRow(json_object_array_get_idx(rows, i), &name, &v)) json_object_object_add(names, name, NULL);
    }
    return names;
}

static int listed(json_object *names, const char *name) {
    return json_object_object_get_ex(names, name, NULL);
}

/* Brings a module's stored tables to want (the document's part for it), given what it
 * holds now: sections are set, rows set or added under their names, rows that want
 * lacks deleted. 0, or the first failing code. */
static int converge(const char *module, json_object *want, json_object *now) {
    int rc = 0;
    json_object *body, *sections = NULL;
    json_object *setAll = newRequest("set", module, &sections);
    json_object_object_foreach(want, table, value) {
        if (rc != 0) break;
        if (!json_object_is_type(value, json_type_array)) {
            json_object_object_foreach(value, section, v) {
                if (!keptByReset(module, table, section))
                    json_object_object_add(sections, section, json_object_get(v));
            }
            continue;
        }
        json_object *have = member(now, table);
        json_object *haveNames = rowNames(have), *wantNames = rowNames(value);
        for (size_t i = 0; rc == 0 && i < json_object_array_length(value); i++) {
            const char *name;
            json_object *v;
            oneRow(json_object_array_get_idx(value, i), &name, &v);
            json_object *req;
            if (listed(haveNames, name)) {
                req = newRequest("set", module, &body);
                json_object_object_add(body, name, json_object_get(v));
                rc = sendOne(req, module, "set", name);
            } else {
                req = newRequest("add", module, &body);
                json_object_object_add(body, "table", json_object_new_string(table));
                json_object_object_add(body, "name", json_object_new_string(name));
                json_object_object_add(body, "para", json_object_get(v));
                rc = sendOne(req, module, "add", name);
            }
        }
        for (size_t i = 0; rc == 0 && have && i < json_object_array_length(have); i++) {
            const char *name;
            json_object *v;
            if (!oneRow(json_object_array_get_idx(have, i), &name, &v) || listed(wantNames, name)) continue;
            json_object *req = newRequest("delete", module, &body);
            json_object_object_add(body, "name", json_object_new_string(name));
            rc = sendOne(req, module, "delete", name);
        }
        json_object_put(haveNames);
        json_object_put(wantNames);
    }
    if (rc == 0 && json_object_object_length(sections) > 0) {
        rc = sendOne(setAll, module, "set", "sections");
    } else {
        json_object_put(setAll);
    }
    return rc;
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
    json_object *tree = doc ? fetchTree(&status) : NULL;
    if (!doc) status = refuse("%s is not JSON", path);
    if (status == 0) status = checkDocument(doc, tree);

    /* Module by module: what it holds now is read first, so that a module whose
     * restore fails part-way can be put back as it was. */
    json_object *config = status == 0 ? member(doc, "config") : NULL;
    int restored = 0, failed = 0;
    if (config) {
        json_object_object_foreach(config, module, want) {
            json_object *mod = findNamed(member(tree, "modules"), module);
            int rc;
            json_object *before = readModule(mod, &rc);
            if (!before) {
                fprintf(stderr, "%s: not restored: its configuration could not be read first\n", module);
                failed++;
                continue;
            }
            rc = converge(module, want, before);
            if (rc == 0) {
                printf("%s: restored\n", module);
                restored++;
            } else {
                json_object *partial = readModule(mod, &rc);
                int back = partial ? converge(module, before, partial) : -1;
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
