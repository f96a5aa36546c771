/*
 * kepctl apply, confirm, cancel and pending: change sets, applied by the host as one
 * (all of their requests hold, or none does), optionally undone unless confirmed.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <json-c/json.h>

#include "kep_host.h"
#include "kep_pf_rpc.h"
#include "kepctl.h"

/* The host takes a change set of up to 16 MiB. */
#define CHANGES_LIMIT ((size_t)16 << 20)
#define DEFAULT_CONFIRM 60
#define LONGEST_CONFIRM 3600

static json_object *member(json_object *obj, const char *key) {
    json_object *v = NULL;
    return json_object_object_get_ex(obj, key, &v) ? v : NULL;
}

/* Prints the host's answer and says what it means; the exit status. */
static int report(int rc, char *answer, int compact) {
    if (rc != 0) {
        free(answer);
        return kepctlHostFailed(rc);
    }
    json_object *a = json_tokener_parse(answer ? answer : "");
    free(answer);
    if (!a) {
        fprintf(stderr, "kepctl: the host answered something that is not JSON\n");
        return EXIT_CODE;
    }
    puts(json_object_to_json_string_ext(
        a, compact ? JSON_C_TO_STRING_PLAIN : JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED));
    fflush(stdout);
    const int code = json_object_get_int(member(a, "error_code"));
    json_object *error = member(a, "error"), *failed = member(a, "failed"), *pending = member(a, "pending");
    if (code != 0) {
        fprintf(stderr, "kepctl: error_code %d: %s\n", code, kepctlMeaning(code));
        if (error) fprintf(stderr, "kepctl: %s\n", json_object_get_string(error));
        if (failed)
            fprintf(stderr, "kepctl: request %d failed; what it changed was undone (\"restored\")\n",
                    json_object_get_int(failed));
    } else if (pending && member(pending, "seconds")) {
        fprintf(stderr, "kepctl: applied; undone in %d s unless 'kepctl confirm'\n",
                json_object_get_int(member(pending, "seconds")));
    }
    json_object_put(a);
    return code == 0 ? 0 : EXIT_CODE;
}

int kepctlApply(int argc, char **argv, int compact) {
    int confirm = 0;
    const char *from = NULL;
    for (int i = 0; i < argc; i++) {
        if (strcmp(argv[i], "--confirm") == 0) {
            char *end = NULL;
            long s = i + 1 < argc ? strtol(argv[i + 1], &end, 10) : 0;
            /* A number, or none: the default window. */
            if (i + 1 < argc && end && *end == '\0' && end != argv[i + 1]) {
                if (s < 1 || s > LONGEST_CONFIRM) {
                    fprintf(stderr, "kepctl: --confirm takes 1 to %d seconds\n", LONGEST_CONFIRM);
                    return EXIT_USAGE;
                }
                confirm = (int)s;
                i++;
            } else {
                confirm = DEFAULT_CONFIRM;
            }
        } else if (!from) {
            from = argv[i];
        } else {
            return -1;
        }
    }
    if (!from) return -1;
    FILE *f = strcmp(from, "-") == 0 ? stdin : fopen(from, "r");
    if (!f) {
        fprintf(stderr, "kepctl: cannot open %s: %s\n", from, strerror(errno));
        return EXIT_USAGE;
    }
    char *text = kepctlReadAll(f, strcmp(from, "-") == 0 ? "standard input" : from, CHANGES_LIMIT);
    if (f != stdin) fclose(f);
    if (!text) return EXIT_USAGE;
    char *answer = NULL;
    int rc = kepHostApply(NULL, text, confirm, &answer);
    free(text);
    return report(rc, answer, compact);
}

int kepctlChangeset(const char *cmd, int compact) {
    char handler[32], *answer = NULL;
    snprintf(handler, sizeof handler, "kepd.%s", cmd);
    const int rc = kepHostChangeset(handler, NULL, &answer);
    return report(rc, answer, compact);
}
