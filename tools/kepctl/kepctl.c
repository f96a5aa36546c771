/*
 * kepctl: command-line client of the host daemon. Builds a request, hands it to kepd
 * and prints the response; the exit status tells whether "error_code" was 0.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <errno.h>

#include <json-c/json.h>

#include "kep_error_meanings.h"
#include "kep_host.h"
#include "kep_owner.h"
#include "kep_pf_rpc.h"
#include "kepctl.h"

/* How long apply and cancel wait for the host unless -w says: a change set's reads,
 * writes and undo take many owner calls. */
#define APPLY_WAIT_MS 120000

/* The host takes a request text of up to 16 MiB: reading less would refuse what it serves. */
#define REQUEST_LIMIT ((size_t)16 << 20)

static int gCompact;
static int gVerbose;

static const char *const kHelp[][2] = {
    {"get",
     "kepctl get MODULE TABLE...            read tables (rows and counts)\n"
     "kepctl get MODULE --name SECTION...   read sections\n"
     "  --filter JSON, --para JSON          passed with a table read\n"},
    {"set",
     "kepctl set MODULE SECTION JSON [SECTION JSON]...   change sections\n"
     "kepctl set MODULE --table TABLE --filter JSON JSON  change the rows a filter selects\n"},
    {"add", "kepctl add MODULE TABLE JSON [--name NAME]   add a section to a list table (named NAME)\n"},
    {"delete",
     "kepctl delete MODULE SECTION...                 delete sections\n"
     "kepctl delete MODULE --table TABLE [--filter JSON]  delete the rows a filter selects\n"},
    {"do", "kepctl do MODULE ACTION [JSON]   run an action with its parameters (default {})\n"},
    {"call",
     "kepctl call 'REQUEST-JSON'   send any request as it stands\n"
     "kepctl call -                the request from standard input\n"
     "kepctl call @FILE            the request from FILE\n"},
    {"batch",
     "kepctl batch   one request per line of standard input, one compact response per line\n"
     "               of standard output, in order; exit status of the worst\n"},
    {"export", "kepctl export        every stored table and section of every module, as one document\n"},
    {"import",
     "kepctl import FILE   check FILE against the model, then restore each module through its\n"
     "                     owner; a module that cannot be restored is put back as it was\n"},
    {"monitor",
     "kepctl [-v] monitor [MODULE,...]   a line per request the host serves: time, caller pid and\n"
     "                                   uid, method, modules, error_code, time taken; with -v the\n"
     "                                   request and response texts too; Ctrl-C ends\n"},
    {"apply",
     "kepctl apply [--confirm [SECONDS]] FILE|-   apply a change set (a request, or a JSON array of\n"
     "                     them) as one: when a request fails, what the others changed is undone;\n"
     "                     with --confirm (60 s by default) it is undone unless confirmed in time\n"},
    {"confirm", "kepctl confirm   keep the change set this user applied with --confirm\n"},
    {"cancel", "kepctl cancel    undo the change set this user applied with --confirm, now\n"},
    {"pending",
     "kepctl pending   the change set that waits for a confirm, if any: whose, on what, until when\n"},
    {"dump", "kepctl dump    print the host's data module tree\n"},
    {"reset", "kepctl reset   factory reset: every module's configuration back to defaults\n"},
};

static void usage(FILE *out) {
    fprintf(out,
            "usage: kepctl [-c] [-v] [-w SECONDS] COMMAND ARGS...\n"
            "  -c  compact JSON output\n"
            "  -v  print the request, and why a request failed, on standard error\n"
            "  -w  how long to wait for the host's answer (default: twice the RPC time-out\n"
            "      KEP_IMI_TIMEOUT_MS, 5 s, plus one second, so that the host answers first)\n"
            "  COMMAND --help  for one command\n\n");
    for (size_t i = 0; i < sizeof kHelp / sizeof kHelp[0]; i++) fputs(kHelp[i][1], out);
    fputs(
        "\nExit status: 0 when \"error_code\" is 0, 1 when it is not or an owner failed (its meaning\n"
        "on standard error), 2 for a usage error, 3 when the host (kepd) cannot be reached or refuses\n"
        "this user (nothing was done), 4 when the host did not answer in time: whether a change was\n"
        "made is unknown.\n",
        out);
}

/* The help text of a command, or NULL for an unknown one. */
static const char *helpOf(const char *cmd) {
    for (size_t i = 0; i < sizeof kHelp / sizeof kHelp[0]; i++) {
        if (strcmp(kHelp[i][0], cmd) == 0) return kHelp[i][1];
    }
    return NULL;
}

/* A usage error named in one line, and where to look: EXIT_USAGE. */
static int misused(const char *what, const char *word) {
    fprintf(stderr, "kepctl: %s '%s'\nTry 'kepctl --help' for the commands and options.\n", what, word);
    return EXIT_USAGE;
}

const char *kepctlMeaning(int code) {
    switch (code) {
#define MEANING_CASE(code, text) \
    case code:                   \
        return text;
        KEP_ERROR_MEANINGS(MEANING_CASE)
#undef MEANING_CASE
        default:
            return KEP_ERROR_MEANING_OTHER;
    }
}

char *kepctlReadAll(FILE *in, const char *where, size_t limit) {
    size_t size = 0, cap = 4096;
    char *text = malloc(cap);
    while (text) {
        if (size + 1 == cap) {
            char *bigger = cap > limit ? NULL : realloc(text, cap * 2);
            if (!bigger) break;
            text = bigger;
            cap *= 2;
        }
        size_t got = fread(text + size, 1, cap - 1 - size, in);
        size += got;
        if (got == 0) {
            if (ferror(in)) break;
            text[size] = '\0';
            if (size <= limit) return text;
            break;
        }
    }
    if (ferror(in))
        fprintf(stderr, "kepctl: cannot read %s: %s\n", where, strerror(errno));
    else
        fprintf(stderr, "kepctl: %s is larger than the host takes (%zu bytes)\n", where, limit);
    free(text);
    return NULL;
}

/* The text of "call": as it stands, from standard input ("-") or from a file ("@FILE"). */
static char *callText(const char *arg) {
    if (strcmp(arg, "-") == 0) return kepctlReadAll(stdin, "standard input", REQUEST_LIMIT);
    if (arg[0] != '@') return strdup(arg);
    FILE *f = fopen(arg + 1, "r");
    if (!f) {
        fprintf(stderr, "kepctl: cannot open %s: %s\n", arg + 1, strerror(errno));
        return NULL;
    }
    char *text = kepctlReadAll(f, arg + 1, REQUEST_LIMIT);
    fclose(f);
    return text;
}

static json_object *parseArg(const char *text) {
    json_object *v = json_tokener_parse(text);
    if (!v && strcmp(text, "null") != 0) fprintf(stderr, "kepctl: not JSON: %s\n", text);
    return v;
}

/* Collects "--flag VALUE" options and positional words. */
typedef struct Args {
    const char *filter, *para, *name, *table;
    int names; /* --name given: the words are section names */
    const char *word[64];
    int count;
} Args;

/* "--name" takes the new section's name after add; elsewhere it says that the words
 * are section names. */
static int parseArgs(const char *cmd, int argc, char **argv, Args *a) {
    memset(a, 0, sizeof *a);
    for (int i = 0; i < argc; i++) {
        const char **slot = NULL;
        if (strcmp(argv[i], "--filter") == 0)
            slot = &a->filter;
        else if (strcmp(argv[i], "--para") == 0)
            slot = &a->para;
        else if (strcmp(argv[i], "--table") == 0)
            slot = &a->table;
        else if (strcmp(argv[i], "--name") == 0 && strcmp(cmd, "add") == 0)
            slot = &a->name;
        else if (strcmp(argv[i], "--name") == 0) {
            a->names = 1;
            continue;
        }
        if (slot) {
            if (++i >= argc) return -1;
            *slot = argv[i];
        } else if (a->count < 64) {
            a->word[a->count++] = argv[i];
        } else {
            return -1;
        }
    }
    return 0;
}

static json_object *stringList(const char *const *words, int n) {
    if (n == 1) return json_object_new_string(words[0]);
    json_object *arr = json_object_new_array();
    for (int i = 0; i < n; i++) json_object_array_add(arr, json_object_new_string(words[i]));
    return arr;
}

/* Builds the request of one command; NULL after printing why on a usage error. */
static json_object *buildRequest(const char *cmd, int argc, char **argv) {
    Args a;
    json_object *req, *mod;
    if (strcmp(cmd, "call") == 0) {
        if (argc != 1) return NULL;
        char *text = callText(argv[0]);
        json_object *req = text ? parseArg(text) : NULL;
        free(text);
        return req;
    }
    if (parseArgs(cmd, argc, argv, &a) != 0 || a.count < 1) return NULL;
    req = json_object_new_object();
    mod = json_object_new_object();
    json_object_object_add(req, "method",
                           json_object_new_string(strcmp(cmd, "delete") == 0 ? "delete" : cmd));
    json_object_object_add(req, a.word[0], mod);
    const char *const *w = a.word + 1;
    int n = a.count - 1;
    int ok = 1;

    if (strcmp(cmd, "get") == 0) {
        ok = n > 0;
        if (ok) json_object_object_add(mod, a.names ? "name" : "table", stringList(w, n));
        if (ok && a.filter) json_object_object_add(mod, "filter", parseArg(a.filter));
        if (ok && a.para) json_object_object_add(mod, "para", parseArg(a.para));
    } else if (strcmp(cmd, "set") == 0) {
        if (a.table) {
            ok = n == 1 && a.filter;
            if (ok) {
                json_object_object_add(mod, "table", json_object_new_string(a.table));
                json_object_object_add(mod, "filter", parseArg(a.filter));
                json_object_object_add(mod, "para", parseArg(w[0]));
            }
        } else {
            ok = n >= 2 && n % 2 == 0;
            for (int i = 0; ok && i < n; i += 2) {
                json_object *v = parseArg(w[i + 1]);
                ok = v != NULL;
                json_object_object_add(mod, w[i], v);
            }
        }
    } else if (strcmp(cmd, "add") == 0) {
        json_object *para = n == 2 ? parseArg(w[1]) : NULL;
        ok = para != NULL;
        if (ok) {
            json_object_object_add(mod, "table", json_object_new_string(w[0]));
            if (a.name) json_object_object_add(mod, "name", json_object_new_string(a.name));
            json_object_object_add(mod, "para", para);
        }
    } else if (strcmp(cmd, "delete") == 0) {
        if (a.table) {
            ok = n == 0;
            json_object_object_add(mod, "table", json_object_new_string(a.table));
            if (a.filter) json_object_object_add(mod, "filter", parseArg(a.filter));
        } else {
            ok = n > 0;
            if (ok) json_object_object_add(mod, "name", stringList(w, n));
        }
    } else if (strcmp(cmd, "do") == 0) {
        json_object *para = n == 2 ? parseArg(w[1]) : json_object_new_object();
        ok = (n == 1 || n == 2) && para;
        if (ok) json_object_object_add(mod, w[0], para);
    } else {
        ok = 0;
    }
    if (!ok) {
        json_object_put(req);
        return NULL;
    }
    return req;
}

/* The "error_code" of a response text as the library writes it: its last member, found
 * without parsing the text. 1 with *code, or 0 when there is none. */
static int lastErrorCode(const char *text, int *code) {
    const char *key = "\"error_code\":", *at = NULL;
    size_t n = strlen(text);
    while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == ' ')) n--;
    if (text[0] != '{' || n == 0 || text[n - 1] != '}') return 0;
    for (const char *p = text; (p = strstr(p, key)) != NULL; p++) at = p;
    if (!at) return 0;
    char *end = NULL;
    long v = strtol(at + strlen(key), &end, 10);
    while (end && *end == ' ') end++;
    if (!end || end == at + strlen(key) || *end != '}' || end != text + n - 1) return 0;
    *code = (int)v;
    return 1;
}

static int printResponse(const char *text) {
    int c;
    /* Compact output is the host's text as it stands: a boot script calling kepctl
     * hundreds of times pays for no parse and no second serialisation. */
    if (gCompact && lastErrorCode(text, &c)) {
        puts(text);
        fflush(stdout);
        if (c != 0) fprintf(stderr, "kepctl: error_code %d: %s\n", c, kepctlMeaning(c));
        return c == 0 ? 0 : EXIT_CODE;
    }
    json_object *rsp = json_tokener_parse(text);
    json_object *code = NULL;
    if (!rsp) {
        fprintf(stderr, "kepctl: the host answered something that is not JSON: %s\n", text);
        return EXIT_CODE;
    }
    puts(json_object_to_json_string_ext(rsp, gCompact ? JSON_C_TO_STRING_PLAIN : JSON_C_TO_STRING_PRETTY));
    fflush(stdout); /* before what follows on standard error, where both go to one place */
    if (!json_object_object_get_ex(rsp, "error_code", &code)) {
        fprintf(stderr, "kepctl: the response has no \"error_code\"\n");
        json_object_put(rsp);
        return EXIT_CODE;
    }
    c = json_object_get_int(code);
    json_object_put(rsp);
    if (c != 0) fprintf(stderr, "kepctl: error_code %d: %s\n", c, kepctlMeaning(c));
    return c == 0 ? 0 : EXIT_CODE;
}

static int gWaitMs;

/* The RPC to the host failed, or the host refused this user: EXIT_HOST, or
 * EXIT_UNKNOWN when the request may have reached it. */
int kepctlHostFailed(int rc) {
    const char *why = qxImiStrError(rc);
    if (rc == QXRPC_ERR_TIMEOUT || rc == QXRPC_ERR_IO) {
        fprintf(stderr,
                "kepctl: no answer from the host within %d ms (%d: %s): whether the request was applied is "
                "unknown\n",
                gWaitMs, rc, why);
        return EXIT_UNKNOWN;
    }
    if (rc == KEP_HOST_ERR_DENIED) {
        fprintf(stderr, "kepctl: the host refused: %s\n", kepctlMeaning(rc));
        return EXIT_HOST;
    }
    fprintf(stderr, "kepctl: the host cannot be reached (%d: %s); is kepd running? (pid file %s)\n", rc,
            why ? why : kepctlMeaning(rc), kepHostPidFile());
    return EXIT_HOST;
}

/* One request per line, one compact response per line, so that a script can pair them
 * up: a request the host cannot be asked about gets {"error_code": RPC code}. Blank
 * lines are skipped. The exit status is the worst of the lines'. */
static int batch(void) {
    char *line = NULL;
    size_t cap = 0;
    ssize_t len;
    int status = 0;
    while ((len = getline(&line, &cap, stdin)) != -1) {
        while (len > 0 && (line[len - 1] == '\n' || line[len - 1] == '\r')) line[--len] = '\0';
        if (strspn(line, " \t") == (size_t)len) continue;
        char *response = NULL;
        int rc = (size_t)len > REQUEST_LIMIT ? QXRPC_ERR_ARG : kepHostRequest(line, &response);
        json_object *rsp = rc == 0 ? json_tokener_parse(response) : NULL;
        json_object *code = NULL;
        int c = rc;
        if (rsp && json_object_object_get_ex(rsp, "error_code", &code)) c = json_object_get_int(code);
        if (rsp) {
            puts(json_object_to_json_string_ext(rsp, JSON_C_TO_STRING_PLAIN));
        } else {
            if (rc == 0) c = -10100; /* the host's answer was not JSON: as for a request that is not */
            printf("{\"error_code\":%d}\n", c);
        }
        fflush(stdout);
        int lineStatus = c == 0 ? 0 : EXIT_CODE;
        if (rc == QXRPC_ERR_TIMEOUT || rc == QXRPC_ERR_IO)
            lineStatus = EXIT_UNKNOWN;
        else if (rc != 0 && rc != QXRPC_ERR_ARG)
            lineStatus = EXIT_HOST;
        if (lineStatus > status) status = lineStatus;
        json_object_put(rsp);
        free(response);
    }
    free(line);
    return status;
}

/* dump and reset: handlers of the host without inputs. The host answering a nonzero
 * code of its own is not the host failing: a reset answers its first owner's failure. */
static int fetch(const char *cmd) {
    char *text = NULL, *cause = NULL;
    int answered = 0;
    int reset = strcmp(cmd, "reset") == 0;
    int rc = kepHostFetchEx(reset ? "kepd.reset" : "kepd.dump", &text, &cause, &answered);
    int status = 0;
    if (!answered || rc == KEP_HOST_ERR_DENIED) {
        status = kepctlHostFailed(rc);
    } else if (rc != 0) {
        fprintf(stderr, "kepctl: %s failed: %d: %s\n", cmd, rc, kepctlMeaning(rc));
        if (cause) fprintf(stderr, "kepctl: %s\n", cause);
        status = EXIT_CODE;
    } else {
        if (text && *text) fputs(text, stdout);
        if (reset) puts("factory reset done");
    }
    free(text);
    free(cause);
    return status;
}

int main(int argc, char **argv) {
    int i = 1, waitGiven = 0;
    /* The host gives up on a silent owner after its own time-out (the same setting);
     * waiting well beyond it lets the host answer first, with the owner's failure,
     * rather than this client giving up on a request whose outcome the host knows.
     * The calls the host makes for a request also end before this client's deadline. */
    gWaitMs = 2 * qxImiGetTimeout() + 1000;
    for (; i < argc && argv[i][0] == '-'; i++) {
        if (strcmp(argv[i], "-c") == 0) {
            gCompact = 1;
        } else if (strcmp(argv[i], "-v") == 0) {
            gVerbose = 1;
        } else if (strcmp(argv[i], "-w") == 0) {
            double seconds = i + 1 < argc ? atof(argv[i + 1]) : 0;
            if (!(seconds > 0 && seconds <= 3600)) {
                fprintf(stderr, "kepctl: -w takes SECONDS, more than 0 and at most 3600\n");
                return EXIT_USAGE;
            }
            gWaitMs = seconds * 1000 < 1 ? 1 : (int)(seconds * 1000);
            waitGiven = 1;
            i++;
        } else if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
            usage(stdout);
            return 0;
        } else {
            return misused("unknown option", argv[i]);
        }
    }
    if (i >= argc) {
        usage(stderr);
        return EXIT_USAGE;
    }
    const char *cmd = argv[i++];
    const char *help = helpOf(cmd);
    if (!help) return misused("unknown command", cmd);
    qxImiSetTimeout(gWaitMs);
    if (i < argc && (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0)) {
        fputs(help, stdout);
        return 0;
    }
    if (strcmp(cmd, "dump") == 0 || strcmp(cmd, "reset") == 0) return fetch(cmd);
    if (strcmp(cmd, "batch") == 0 || strcmp(cmd, "export") == 0) {
        if (i != argc) {
            fputs(help, stderr);
            return EXIT_USAGE;
        }
        return cmd[0] == 'b' ? batch() : kepctlExport(gCompact);
    }
    if (strcmp(cmd, "monitor") == 0) {
        if (i + 1 < argc) {
            fputs(help, stderr);
            return EXIT_USAGE;
        }
        return kepctlMonitor(i < argc ? argv[i] : NULL, gVerbose);
    }
    if (strcmp(cmd, "apply") == 0) {
        /* A change set may run long (its reads, writes and undo): it finishes in the host
         * whether or not this client still waits. */
        if (!waitGiven && gWaitMs < APPLY_WAIT_MS) qxImiSetTimeout(gWaitMs = APPLY_WAIT_MS);
        int status = kepctlApply(argc - i, argv + i, gCompact);
        if (status < 0) {
            fputs(help, stderr);
            return EXIT_USAGE;
        }
        return status;
    }
    if (strcmp(cmd, "confirm") == 0 || strcmp(cmd, "cancel") == 0 || strcmp(cmd, "pending") == 0) {
        if (i != argc) {
            fputs(help, stderr);
            return EXIT_USAGE;
        }
        if (cmd[1] == 'a' && !waitGiven && gWaitMs < APPLY_WAIT_MS) qxImiSetTimeout(gWaitMs = APPLY_WAIT_MS);
        return kepctlChangeset(cmd, gCompact);
    }
    if (strcmp(cmd, "import") == 0) {
        if (i + 1 != argc) {
            fputs(help, stderr);
            return EXIT_USAGE;
        }
        return kepctlImport(argv[i]);
    }

    json_object *req = buildRequest(cmd, argc - i, argv + i);
    if (!req) {
        fputs(help, stderr);
        return EXIT_USAGE;
    }
    /* Everything but the response goes to standard error, so that the response can be
     * piped on as it stands. */
    const char *text = json_object_to_json_string_ext(req, JSON_C_TO_STRING_PLAIN);
    if (gVerbose) fprintf(stderr, "request:  %s\n", text);
    char *response = NULL, *cause = NULL;
    int rc = kepHostRequestEx(text, &response, gVerbose ? &cause : NULL);
    json_object_put(req);
    if (rc != 0) return kepctlHostFailed(rc);
    if (gVerbose) fputs("response: (standard output)\n", stderr);
    rc = printResponse(response);
    if (cause) fprintf(stderr, "cause:    %s\n", cause);
    free(response);
    free(cause);
    return rc;
}
