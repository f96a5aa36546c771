/*
 * Shared by kepctl's commands: exit statuses, the meaning of codes, and reaching the host.
 */
#ifndef KEPCTL_H
#define KEPCTL_H

#include <stddef.h>
#include <stdio.h>

enum { EXIT_CODE = 1, EXIT_USAGE = 2, EXIT_HOST = 3, EXIT_UNKNOWN = 4 };

/* A line of text that says what an "error_code" or an RPC code means. */
const char *kepctlMeaning(int code);

/* Says on standard error why the host could not be asked; EXIT_HOST, or EXIT_UNKNOWN
 * when the request may have reached it. */
int kepctlHostFailed(int rc);

/* Reads a whole stream of at most limit bytes into a NUL-terminated malloc'd text;
 * NULL (after saying why, naming where) when it is larger or cannot be read. */
char *kepctlReadAll(FILE *in, const char *where, size_t limit);

/* A line per request the host serves until interrupted: of the listed modules
 * (comma-separated; NULL for all), with the texts when verbose. */
int kepctlMonitor(const char *modules, int verbose);

/* apply ARGS (the words after "apply"): a change set; -1 for a usage error. */
int kepctlApply(int argc, char **argv, int compact);
/* confirm, cancel or pending. */
int kepctlChangeset(const char *cmd, int compact);

/* Backup and restore of every stored table and section, through the owners. */
int kepctlExport(int compact);
int kepctlImport(const char *path);

#endif
