/* Stored tables read and restored through requests (see kep_backup.h). */
#define _POSIX_C_SOURCE 200809L
#include "kep_backup.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define NAME_MAX_LEN 31

static json_object *member(json_object *obj, const char *key) {
    json_object *v = NULL;
    return json_object_object_get_ex(obj, key, &v) ? v : NULL;
}

static int isObject(json_object *v) {
    return json_object_is_type(v, json_type_object);
}

int kepBackupKeptByReset(const char *module, const char *table, const char *section) {
    return strcmp(module, "cloud_config") == 0 && strcmp(table, "router_post") == 0 &&
           strcmp(section, "bind") == 0;
}

json_object *kepBackupFind(json_object *array, const char *name) {
    size_t n = json_object_is_type(array, json_type_array) ? json_object_array_length(array) : 0;
    for (size_t i = 0; i < n; i++) {
        json_object *e = json_object_array_get_idx(array, i);
        const char *have = json_object_get_string(member(e, "name"));
        if (have && strcmp(have, name) == 0) return e;
    }
    return NULL;
}

json_object *kepBackupAsk(json_object *request, const KepBackupIo *io, int *rc) {
    char *text = NULL;
    *rc = io->send(json_object_to_json_string_ext(request, JSON_C_TO_STRING_PLAIN), &text, io->ctx);
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

json_object *kepBackupRequest(const char *method, const char *module, json_object **body) {
    json_object *req = json_object_new_object();
    *body = json_object_new_object();
    json_object_object_add(req, "method", json_object_new_string(method));
    json_object_object_add(req, module, *body);
    return req;
}

static void tell(const KepBackupIo *io, const char *module, const char *what, const char *name, int code) {
    if (io->failed) io->failed(module, what, name, code, io->ctx);
}

json_object *kepBackupReadTable(const char *module, json_object *t, int keepBinding, const KepBackupIo *io,
                                int *rc) {
    const char *table = json_object_get_string(member(t, "name"));
    json_object *body, *rsp = NULL, *out = NULL;
    json_object *req = kepBackupRequest("get", module, &body);
    *rc = 0;
    if (json_object_get_int(member(t, "list")) == 1) {
        json_object_object_add(body, "table", json_object_new_string(table));
        if ((rsp = kepBackupAsk(req, io, rc)) != NULL) {
            json_object *rows = member(member(rsp, module), table);
            out = rows ? json_object_get(rows) : json_object_new_array();
        }
    } else {
        json_object *sections = member(t, "sections"), *names = json_object_new_array();
        for (size_t k = 0; sections && k < json_object_array_length(sections); k++) {
            const char *s = json_object_get_string(member(json_object_array_get_idx(sections, k), "name"));
            if (!keepBinding || !kepBackupKeptByReset(module, table, s))
                json_object_array_add(names, json_object_new_string(s));
        }
        if (json_object_array_length(names) == 0) {
            json_object_put(names);
            json_object_put(req);
            return json_object_new_object();
        }
        json_object_object_add(body, "name", names);
        if ((rsp = kepBackupAsk(req, io, rc)) != NULL) {
            json_object *got = member(rsp, module);
            out = json_object_new_object();
            for (size_t k = 0; k < json_object_array_length(names); k++) {
                const char *s = json_object_get_string(json_object_array_get_idx(names, k));
                json_object *v = member(got, s);
                json_object_object_add(out, s, v ? json_object_get(v) : json_object_new_object());
            }
        }
    }
    if (*rc != 0) tell(io, module, "get", table, *rc);
    json_object_put(rsp);
    json_object_put(req);
    return out;
}

json_object *kepBackupReadModule(json_object *mod, const KepBackupIo *io, int *rc) {
    const char *name = json_object_get_string(member(mod, "name"));
    json_object *tables = member(mod, "tables"), *out = json_object_new_object();
    *rc = 0;
    for (size_t i = 0; *rc == 0 && tables && i < json_object_array_length(tables); i++) {
        json_object *t = json_object_array_get_idx(tables, i);
        if (json_object_get_int(member(t, "dynamic")) != 0) continue;
        json_object *stored = kepBackupReadTable(name, t, 1, io, rc);
        if (!stored) break;
        const int empty = isObject(stored) && json_object_object_length(stored) == 0;
        if (empty && json_object_get_int(member(t, "list")) != 1)
            json_object_put(stored); /* nothing but the binding */
        else
            json_object_object_add(out, json_object_get_string(member(t, "name")), stored);
    }
    if (*rc != 0) {
        json_object_put(out);
        return NULL;
    }
    return out;
}

/* ---- restoring ---- */

/* A row's name and value: an object with one member whose value is an object. */
static int oneRow(json_object *row, const char **name, json_object **value) {
    *name = NULL;
    *value = NULL;
    if (!isObject(row) || json_object_object_length(row) != 1) return 0;
    json_object_object_foreach(row, key, v) {
        *name = key;
        *value = v;
    }
    return *name && isObject(*value) && strlen(*name) <= NAME_MAX_LEN && (*name)[0];
}

/* Sends one request (taken); a failure is told, naming what it was for. */
static int sendOne(json_object *req, const char *module, const char *what, const char *name,
                   const KepBackupIo *io) {
    int rc;
    json_object *rsp = kepBackupAsk(req, io, &rc);
    json_object_put(rsp);
    json_object_put(req);
    if (rc != 0) tell(io, module, what, name, rc);
    return rc;
}

/* A list table's rows by name (an object of name: value): looked up without a walk, so
 * that restoring a large table costs in proportion to its rows. */
static json_object *rowIndex(json_object *rows) {
    json_object *index = json_object_new_object();
    for (size_t i = 0; json_object_is_type(rows, json_type_array) && i < json_object_array_length(rows);
         i++) {
        const char *name = NULL;
        json_object *v = NULL;
        if (oneRow(json_object_array_get_idx(rows, i), &name, &v))
            json_object_object_add(index, name, json_object_get(v));
    }
    return index;
}

static const char *rowName(json_object *rows, size_t i) {
    const char *name = NULL;
    json_object *v = NULL;
    return oneRow(json_object_array_get_idx(rows, i), &name, &v) ? name : NULL;
}

static int deleteRow(const char *module, const char *name, const KepBackupIo *io) {
    json_object *body, *req = kepBackupRequest("delete", module, &body);
    json_object_object_add(body, "name", json_object_new_string(name));
    return sendOne(req, module, "delete", name, io);
}

/* Brings a list table to want, rows and order. An add appends, so the rows that keep
 * their place are the longest run at the front that is in want's order already; the
 * rows after it are deleted and added again in order. Deletes go first, so that a row
 * added back never meets the one it replaces (an owner may refuse two of one address). */
static int convergeList(const char *module, const char *table, json_object *want, json_object *have,
                        const KepBackupIo *io) {
    json_object *body, *haveRows = rowIndex(have), *wantRows = rowIndex(want);
    const size_t wants = json_object_array_length(want);
    const size_t haves = json_object_is_type(have, json_type_array) ? json_object_array_length(have) : 0;
    int rc = 0;
    size_t kept = 0, j = 0;
    /* The front run: have's rows that want keeps, in want's order. */
    for (; kept < wants; kept++, j++) {
        while (j < haves && (!rowName(have, j) || !member(wantRows, rowName(have, j)))) j++;
        if (j >= haves || !rowName(want, kept) || strcmp(rowName(have, j), rowName(want, kept)) != 0) break;
    }
    /* Rows want lacks, and rows after the run that come back in their place. */
    for (size_t i = 0; rc == 0 && i < haves; i++) {
        const char *name = rowName(have, i);
        if (name && (!member(wantRows, name) || i >= j)) rc = deleteRow(module, name, io);
    }
    for (size_t i = 0; rc == 0 && i < wants; i++) {
        const char *name = NULL;
        json_object *v = NULL, *req;
        if (!oneRow(json_object_array_get_idx(want, i), &name, &v)) continue;
        if (i < kept) {
            /* A row that already holds its values needs no write (nor a notification). */
            if (json_object_equal(member(haveRows, name), v)) continue;
            req = kepBackupRequest("set", module, &body);
            json_object_object_add(body, name, json_object_get(v));
            rc = sendOne(req, module, "set", name, io);
        } else {
            req = kepBackupRequest("add", module, &body);
            json_object_object_add(body, "table", json_object_new_string(table));
            json_object_object_add(body, "name", json_object_new_string(name));
            json_object_object_add(body, "para", json_object_get(v));
            rc = sendOne(req, module, "add", name, io);
        }
    }
    json_object_put(haveRows);
    json_object_put(wantRows);
    return rc;
}

int kepBackupConverge(const char *module, json_object *want, json_object *now, int keepBinding,
                      const KepBackupIo *io) {
    int rc = 0;
    json_object *sections = NULL;
    json_object *setAll = kepBackupRequest("set", module, &sections);
    json_object_object_foreach(want, table, value) {
        if (rc != 0) break;
        if (json_object_is_type(value, json_type_array)) {
            rc = convergeList(module, table, value, member(now, table), io);
            continue;
        }
        json_object *have = member(now, table);
        json_object_object_foreach(value, section, v) {
            if (keepBinding && kepBackupKeptByReset(module, table, section)) continue;
            json_object *old = member(have, section);
            if (!old || !json_object_equal(old, v))
                json_object_object_add(sections, section, json_object_get(v));
        }
    }
    if (rc == 0 && json_object_object_length(sections) > 0) {
        rc = sendOne(setAll, module, "set", "sections", io);
    } else {
        json_object_put(setAll);
    }
    return rc;
}

/* ---- checking a document ---- */

static int misfit(char *why, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(why, size, fmt, ap);
    va_end(ap);
    return -1;
}

static int checkList(const char *module, const char *table, json_object *value, char *why, size_t size) {
    if (!json_object_is_type(value, json_type_array))
        return misfit(why, size, "config.%s.%s: a list table is an array of rows", module, table);
    json_object *seen = json_object_new_object();
    int rc = 0;
    for (size_t i = 0; rc == 0 && i < json_object_array_length(value); i++) {
        const char *name = NULL;
        json_object *v = NULL;
        if (!oneRow(json_object_array_get_idx(value, i), &name, &v))
            rc = misfit(why, size, "config.%s.%s[%zu]: a row is {\"NAME\": {values}}", module, table, i);
        else if (json_object_object_get_ex(seen, name, NULL))
            rc = misfit(why, size, "config.%s.%s[%zu]: a second row named %s", module, table, i, name);
        else
            json_object_object_add(seen, name, NULL);
    }
    json_object_put(seen);
    return rc;
}

int kepBackupCheck(json_object *doc, json_object *tree, char *why, size_t size) {
    json_object *format = member(doc, "format"), *config = member(doc, "config");
    if (!isObject(doc)) return misfit(why, size, "the document is not a JSON object");
    if (!format || !json_object_is_type(format, json_type_int) ||
        json_object_get_int(format) != KEP_BACKUP_FORMAT)
        return misfit(why, size, "\"format\": only format %d is known", KEP_BACKUP_FORMAT);
    if (!isObject(config)) return misfit(why, size, "\"config\": not an object");
    json_object_object_foreach(config, module, tables) {
        json_object *mod = kepBackupFind(member(tree, "modules"), module);
        if (!mod) return misfit(why, size, "config.%s: no such module in this model", module);
        if (!isObject(tables)) return misfit(why, size, "config.%s: not an object", module);
        json_object_object_foreach(tables, table, value) {
            json_object *t = kepBackupFind(member(mod, "tables"), table);
            if (!t) return misfit(why, size, "config.%s.%s: no such table", module, table);
            if (json_object_get_int(member(t, "dynamic")) != 0)
                return misfit(why, size, "config.%s.%s: a dynamic table is not stored", module, table);
            if (json_object_get_int(member(t, "list")) == 1) {
                if (checkList(module, table, value, why, size) != 0) return -1;
                continue;
            }
            if (!isObject(value))
                return misfit(why, size, "config.%s.%s: not an object of sections", module, table);
            json_object_object_foreach(value, section, v) {
                if (!kepBackupFind(member(t, "sections"), section))
                    return misfit(why, size, "config.%s.%s.%s: no such section", module, table, section);
                if (!isObject(v))
                    return misfit(why, size, "config.%s.%s.%s: not an object", module, table, section);
            }
        }
    }
    return 0;
}
