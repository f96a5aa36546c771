/* Access rules of the host: read once at start, then only looked up. */
#define _GNU_SOURCE
#include "access.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <json-c/json.h>

#include "kepd.h"

enum {
    MAX_RULES = 256,        /* all files together */
    MAX_FILE_BYTES = 65536, /* one file */
    MAX_FILES = 128,
    MAX_OWN = 64,     /* modules one rule may name */
    NAME_MAX_LEN = 31 /* a module name, as the tree holds it */
};

typedef struct Rule {
    int isGroup;
    unsigned id; /* uid or gid */
    int send, reset, ownAll;
    int ownCount;
    char own[MAX_OWN][NAME_MAX_LEN + 1];
} Rule;

static Rule *gRules;
static int gRuleCount;

/* ---- reading ---- */

/* A folder or file that only root or this user may change. */
static int trusted(const struct stat *st, const char *path, int wantDir) {
    const char *why = NULL;
    if (wantDir ? !S_ISDIR(st->st_mode) : !S_ISREG(st->st_mode))
        why = wantDir ? "not a folder" : "not a plain file";
    else if (st->st_uid != 0 && st->st_uid != geteuid())
        why = "owned by another user";
    else if (st->st_mode & 022)
        why = "writable by other users";
    if (why) kepdLog("access rules: %s: %s: refused", path, why);
    return why == NULL;
}

static int lineAt(const char *text, size_t offset) {
    int line = 1;
    for (size_t i = 0; i < offset && text[i]; i++) line += text[i] == '\n';
    return line;
}

/* Offset of rule k's opening brace: the k-th object of the top-level array, or the
 * top-level object itself. The text has been parsed strictly (no comments), so
 * brackets outside strings are structure. */
static size_t ruleOffset(const char *t, int k, int inArray) {
    int depth = 0, inString = 0, seen = -1;
    for (size_t i = 0; t[i]; i++) {
        char c = t[i];
        if (inString) {
            if (c == '\\' && t[i + 1])
                i++;
            else if (c == '"')
                inString = 0;
            continue;
        }
        if (c == '"') {
            inString = 1;
        } else if (c == '{' || c == '[') {
            depth++;
            if (c == '{' && depth == (inArray ? 2 : 1) && ++seen == k) return i;
        } else if (c == '}' || c == ']') {
            depth--;
        }
    }
    return 0;
}

/* Offset of member key of the object at o (o itself when there is none). */
static size_t memberOffset(const char *t, size_t o, const char *key) {
    int depth = 0;
    size_t klen = strlen(key);
    for (size_t i = o; t[i]; i++) {
        char c = t[i];
        if (c == '"') {
            size_t start = i++;
            while (t[i] && t[i] != '"') i += t[i] == '\\' && t[i + 1] ? 2 : 1;
            if (depth == 1 && i - start - 1 == klen && strncmp(t + start + 1, key, klen) == 0) return start;
        } else if (c == '{' || c == '[') {
            depth++;
        } else if (c == '}' || c == ']') {
            if (--depth == 0) break;
        }
    }
    return o;
}

typedef struct Source {
    const char *path, *text;
    int index, inArray;
} Source;

/* Says what is wrong with a member of a rule, at its line; returns -1. */
static int refuse(const Source *src, const char *member, const char *why) {
    size_t at = ruleOffset(src->text, src->index, src->inArray);
    if (member) at = memberOffset(src->text, at, member);
    kepdLog("access rules: %s:%d: %s", src->path, lineAt(src->text, at), why);
    return -1;
}

static int idOf(const Source *src, json_object *v, int isGroup, unsigned *id) {
    const char *member = isGroup ? "group" : "user";
    if (json_object_is_type(v, json_type_int)) {
        int64_t n = json_object_get_int64(v);
        if (n < 0 || n > 0x7fffffff) return refuse(src, member, "not a user or group number");
        *id = (unsigned)n;
        return 0;
    }
    if (!json_object_is_type(v, json_type_string)) return refuse(src, member, "must be a name or a number");
    const char *name = json_object_get_string(v);
    char buf[4096];
    if (isGroup) {
        struct group g, *found = NULL;
        if (getgrnam_r(name, &g, buf, sizeof buf, &found) != 0 || !found)
            return refuse(src, member, "no such group");
        *id = (unsigned)found->gr_gid;
    } else {
        struct passwd p, *found = NULL;
        if (getpwnam_r(name, &p, buf, sizeof buf, &found) != 0 || !found)
            return refuse(src, member, "no such user");
        *id = (unsigned)found->pw_uid;
    }
    return 0;
}

static int readRule(const Source *src, json_object *obj, Rule *r) {
    int principals = 0;
    memset(r, 0, sizeof *r);
    if (!json_object_is_type(obj, json_type_object)) return refuse(src, NULL, "a rule must be an object");
    json_object_object_foreach(obj, key, v) {
        if (strcmp(key, "user") == 0 || strcmp(key, "group") == 0) {
            r->isGroup = key[0] == 'g';
            principals++;
            if (idOf(src, v, r->isGroup, &r->id) != 0) return -1;
        } else if (strcmp(key, "send") == 0 || strcmp(key, "reset") == 0) {
            if (!json_object_is_type(v, json_type_boolean)) return refuse(src, key, "must be true or false");
            *(key[0] == 's' ? &r->send : &r->reset) = json_object_get_boolean(v);
        } else if (strcmp(key, "own") == 0) {
            size_t n = json_object_is_type(v, json_type_array) ? json_object_array_length(v) : 0;
            if (!json_object_is_type(v, json_type_array))
                return refuse(src, key, "must be an array of module names");
            if (n > MAX_OWN) return refuse(src, key, "names too many modules");
            for (size_t i = 0; i < n; i++) {
                json_object *m = json_object_array_get_idx(v, i);
                const char *name = json_object_get_string(m);
                if (!json_object_is_type(m, json_type_string) || !*name || strlen(name) > NAME_MAX_LEN)
                    return refuse(src, key, "a module name is a text of 1 to 31 characters");
                if (strcmp(name, "*") == 0)
                    r->ownAll = 1;
                else
                    snprintf(r->own[r->ownCount++], sizeof r->own[0], "%s", name);
            }
        } else {
            char why[96];
            snprintf(why, sizeof why, "unknown member \"%.40s\"", key);
            return refuse(src, key, why);
        }
    }
    if (principals != 1) return refuse(src, NULL, "a rule names exactly one \"user\" or \"group\"");
    return 0;
}

static int readFile(const char *path) {
    struct stat st;
    char *text;
    int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        kepdLog("access rules: %s: %s", path, strerror(errno));
        return -1;
    }
    if (fstat(fd, &st) != 0 || !trusted(&st, path, 0)) {
        close(fd);
        return -1;
    }
    if (st.st_size > MAX_FILE_BYTES) {
        kepdLog("access rules: %s: larger than %d bytes", path, MAX_FILE_BYTES);
        close(fd);
        return -1;
    }
    text = calloc(1, (size_t)st.st_size + 1);
    ssize_t got = text ? read(fd, text, (size_t)st.st_size) : -1;
    close(fd);
    if (got != st.st_size || memchr(text, 0, (size_t)got)) {
        kepdLog("access rules: %s: cannot be read as text", path);
        free(text);
        return -1;
    }
    json_tokener *tok = json_tokener_new();
    json_object *doc = NULL;
    int rc = -1;
    if (tok) {
        json_tokener_set_flags(tok, JSON_TOKENER_STRICT);
        doc = json_tokener_parse_ex(tok, text, (int)got);
        size_t end = json_tokener_get_parse_end(tok);
        if (!doc || json_tokener_get_error(tok) != json_tokener_success ||
            text[end + strspn(text + end, " \t\r\n")]) {
            kepdLog("access rules: %s:%d: not valid JSON (%s)", path, lineAt(text, end),
                    doc ? "text after the value" : json_tokener_error_desc(json_tokener_get_error(tok)));
        } else {
            Source src = {path, text, 0, json_object_is_type(doc, json_type_array)};
            size_t n = src.inArray ? json_object_array_length(doc) : 1;
            rc = 0;
            for (size_t i = 0; rc == 0 && i < n; i++) {
                src.index = (int)i;
                if (gRuleCount >= MAX_RULES) {
                    kepdLog("access rules: more than %d rules", MAX_RULES);
                    rc = -1;
                } else {
                    rc = readRule(&src, src.inArray ? json_object_array_get_idx(doc, i) : doc,
                                  &gRules[gRuleCount]);
                    if (rc == 0) gRuleCount++;
                }
            }
        }
        json_object_put(doc);
        json_tokener_free(tok);
    }
    free(text);
    return rc;
}

static int byName(const void *a, const void *b) {
    return strcmp(*(char *const *)a, *(char *const *)b);
}

int accessLoad(const char *dir, int required) {
    struct stat st;
    if (lstat(dir, &st) != 0) {
        if (!required && errno == ENOENT) return 0;
        kepdLog("access rules: %s: %s", dir, strerror(errno));
        return -1;
    }
    if (!trusted(&st, dir, 1)) return -1;
    DIR *d = opendir(dir);
    if (!d) {
        kepdLog("access rules: %s: %s", dir, strerror(errno));
        return -1;
    }
    char *names[MAX_FILES];
    int count = 0, rc = 0;
    for (struct dirent *e; (e = readdir(d));) {
        size_t len = strlen(e->d_name);
        if (e->d_name[0] == '.' || len < 6 || strcmp(e->d_name + len - 5, ".json") != 0) continue;
        if (count == MAX_FILES) {
            kepdLog("access rules: %s holds more than %d files", dir, MAX_FILES);
            rc = -1;
            break;
        }
        if (!(names[count] = strdup(e->d_name)))
            rc = -1;
        else
            count++;
    }
    closedir(d);
    qsort(names, (size_t)count, sizeof names[0], byName);
    gRules = rc == 0 ? calloc(MAX_RULES, sizeof *gRules) : NULL;
    if (!gRules) rc = -1;
    for (int i = 0; rc == 0 && i < count; i++) {
        char path[PATH_MAX];
        snprintf(path, sizeof path, "%s/%s", dir, names[i]);
        rc = readFile(path);
    }
    for (int i = 0; i < count; i++) free(names[i]);
    if (rc == 0) kepdLog("access rules: %d from %d files in %s", gRuleCount, count, dir);
    return rc;
}

int accessActive(void) {
    return gRules != NULL;
}

/* ---- looking up ---- */

static int isFull(const QxImiCaller *peer) {
    return peer->uid == 0 || (unsigned)peer->uid == geteuid();
}

/* Whether the process is in group gid: its own group, or one of its supplementary
 * groups as the kernel lists them now. */
static int inGroup(const QxImiCaller *peer, unsigned gid) {
    char path[64], line[4096];
    int found = 0;
    if ((unsigned)peer->gid == gid) return 1;
    snprintf(path, sizeof path, "/proc/%d/status", peer->pid);
    FILE *f = fopen(path, "re");
    while (f && !found && fgets(line, sizeof line, f)) {
        if (strncmp(line, "Groups:", 7) != 0) continue;
        for (char *p = line + 7, *end; *p && !found; p = end) {
            unsigned long g = strtoul(p, &end, 10);
            if (end == p) break;
            found = g == gid;
        }
        break;
    }
    if (f) fclose(f);
    return found;
}

static int matches(const Rule *r, const QxImiCaller *peer) {
    return r->isGroup ? inGroup(peer, r->id) : (unsigned)peer->uid == r->id;
}

int accessAdmits(const QxImiCaller *peer, void *user) {
    (void)user;
    if (isFull(peer)) return 1;
    for (int i = 0; i < gRuleCount; i++) {
        if (matches(&gRules[i], peer)) return 1;
    }
    kepdLog("refused a connection of pid %d (uid %d, gid %d): no access rule names it", peer->pid, peer->uid,
            peer->gid);
    return 0;
}

int accessMayOwn(const QxImiCaller *peer, const char *module) {
    if (isFull(peer)) return 1;
    for (int i = 0; i < gRuleCount; i++) {
        const Rule *r = &gRules[i];
        if (!matches(r, peer)) continue;
        if (r->ownAll) return 1;
        for (int k = 0; k < r->ownCount; k++) {
            if (module && strcmp(r->own[k], module) == 0) return 1;
        }
    }
    return 0;
}

int accessOwnsAny(const QxImiCaller *peer) {
    if (isFull(peer)) return 1;
    for (int i = 0; i < gRuleCount; i++) {
        if ((gRules[i].ownAll || gRules[i].ownCount) && matches(&gRules[i], peer)) return 1;
    }
    return 0;
}

int accessMaySend(const QxImiCaller *peer) {
    if (isFull(peer)) return 1;
    for (int i = 0; i < gRuleCount; i++) {
        if (gRules[i].send && matches(&gRules[i], peer)) return 1;
    }
    return 0;
}

int accessMayReset(const QxImiCaller *peer) {
    if (isFull(peer)) return 1;
    for (int i = 0; i < gRuleCount; i++) {
        if (gRules[i].reset && matches(&gRules[i], peer)) return 1;
    }
    return 0;
}
