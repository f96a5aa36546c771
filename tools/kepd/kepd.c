/*
 * kepd: the reference host daemon.
 *
 * Holds the data module tree built from the model descriptions, lets owner processes
 * register their callbacks, and serves client requests by handing their text to the
 * library, several at once (see kepd.h for the threading model).
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "access.h"
#include "handlers.h"
#include "kepHandle.h"
#include "kep_host.h"
#include "kep_platform.h"
#include "kepd.h"
#include "registry.h"
#include "runtime.h"
#include "tree.h"

#define DEFAULT_ACCESS_DIR "/etc/kep/access.d"
#define OPTIONS "m:p:r:a:t:n:h"

static const struct option kLongOptions[] = {{"help", no_argument, NULL, 'h'}, {NULL, 0, NULL, 0}};

static int gSignalPipe[2] = {-1, -1};

void kepdLog(const char *format, ...) {
    char line[512];
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(line, sizeof line - 1, format, ap);
    va_end(ap);
    if (n < 0) return;
    if ((size_t)n > sizeof line - 2) n = (int)sizeof line - 2;
    line[n] = '\n';
    line[n + 1] = '\0';
    fprintf(stderr, "kepd: %s", line);
}

static void onSignal(int sig) {
    int saved = errno;
    char c = (char)sig;
    if (write(gSignalPipe[1], &c, 1) < 0) {
        /* The pipe is full: a stop is already on its way. */
    }
    errno = saved;
}

static void usage(FILE *out) {
    fprintf(out,
            "usage: kepd [-m MODEL.xml]... [-p PIDFILE] [-r DIR] [-a DIR] [-t N] [-n N]\n"
            "       kepd -h | --help\n"
            "  Loads the model description compiled into the library, merges every -m file,\n"
            "  reads the modules' configuration files and serves requests until SIGTERM.\n"
            "  -m FILE   merge this model description (repeatable)\n"
            "  -p FILE   pid file (default $KEPD_PIDFILE, else kepd.pid in the runtime folder)\n"
            "  -r DIR    runtime folder (default $KEP_RUNTIME_DIR, /run/kep for root,\n"
            "            $XDG_RUNTIME_DIR/kep, else /tmp/kep-<uid>)\n"
            "  -a DIR    access rules, one JSON file per package (default " DEFAULT_ACCESS_DIR
            " when it exists)\n"
            "  -t N      requests served at once (default %d)\n"
            "  -n N      registrations one owner process may hold (default %d)\n"
            "  Logs on standard error: registrations, refusals, owners that go, and why an owner\n"
            "  call failed a request or a factory reset.\n"
            "  Debug log: KEP_DEBUG=all (or a list of module ids, e.g. 111).\n",
            KEPD_DEFAULT_THREADS, KEPD_DEFAULT_REGISTRATIONS);
}

static int positive(const char *text, int *out) {
    char *end = NULL;
    long v = strtol(text, &end, 10);
    if (!*text || *end || v < 1 || v > 100000) return -1;
    *out = (int)v;
    return 0;
}

/* The list sections of every module whose file can be read. The host only mirrors
 * the files: it never writes one, since the defaults are the owners' to give. */
static void loadListSections(void) {
    for (DataModule *m = getModulerRoot(); m; m = (DataModule *)lstNext(&m->link)) {
        if (!m->configFile[0]) continue;
        json_object *doc = jsonObjectFromFile(m->configFile);
        if (!jsonObjectIsObject(doc)) {
            kepdLog("%s: not read (missing or unreadable); its owner writes it", m->configFile);
            jsonObjectObjectDelete(doc);
            continue;
        }
        LST_FOR_EACH(DataTable, t, &m->tables) {
            json_object *stored = jsonObjectObjectGet(doc, t->name);
            if (stored && t->optionPublic == 1 && !t->isDynamic) loadTableListConfig(t, stored);
        }
        jsonObjectObjectDelete(doc);
    }
}

int main(int argc, char **argv) {
    const char *pidFile = NULL, *accessDir = NULL;
    int threads = KEPD_DEFAULT_THREADS, limit = KEPD_DEFAULT_REGISTRATIONS, opt;
    char runDir[256];

    while ((opt = getopt_long(argc, argv, OPTIONS, kLongOptions, NULL)) != -1) {
        switch (opt) {
            case 'm':
                break;
            case 'p':
                pidFile = optarg;
                break;
            case 'r':
                setenv("KEP_RUNTIME_DIR", optarg, 1);
                break;
            case 'a':
                accessDir = optarg;
                break;
            case 't':
                if (positive(optarg, &threads) != 0) {
                    usage(stderr);
                    return 2;
                }
                break;
            case 'n':
                if (positive(optarg, &limit) != 0) {
                    usage(stderr);
                    return 2;
                }
                break;
            case 'h':
                usage(stdout);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
    }
    if (optind < argc) {
        usage(stderr);
        return 2;
    }
    if (qxImiRuntimeDir(runDir, sizeof runDir) != 0) {
        kepdLog(
            "runtime folder %s cannot be made, or is a link, another user's or open to others: "
            "refused; choose another with -r DIR or KEP_RUNTIME_DIR",
            runDir);
        return 1;
    }
    if (!pidFile) pidFile = kepHostPidFile();
    if (runtimeLock(pidFile) != 0) return 1;
    if (accessLoad(accessDir ? accessDir : DEFAULT_ACCESS_DIR, accessDir != NULL) != 0) return 1;
    registrySetLimit(limit);

    if (dataModuleInit() != 0) kepdLog("no built-in model description, using -m files only");
    for (optind = 1; (opt = getopt_long(argc, argv, OPTIONS, kLongOptions, NULL)) != -1;) {
        if (opt == 'm' && kepMergeModelFile(optarg) != 0) return 1;
    }
    loadListSections();
    if (treeInit() != 0) return 1;

    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = onSignal;
    if (pipe2(gSignalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return 1;
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGINT, &sa, NULL);
    signal(SIGPIPE, SIG_IGN);

    if (accessActive()) qxImiSetPeerCheck(accessAdmits, NULL);
    if (handlersRegister() != 0 || notifierStart() != 0 || qxImiListen() < 0 ||
        qxImiStartServerThreads(threads) != 0) {
        kepdLog("cannot serve the RPC in %s", runDir);
        return 1;
    }
    if (runtimeStateOpen(pidFile) != 0 || runtimeWritePid() != 0) {
        kepdLog("cannot write %s or the state file beside it", pidFile);
        qxImiStopServer();
        return 1;
    }
    kepdLog("serving as pid %d with %d modules, up to %d requests at once", (int)getpid(), getModuleSize(),
            threads);

    /* Owners that exit wake this loop through their process descriptors; the kernels
     * without them are covered by a check every second. */
    for (;;) {
        struct pollfd fds[1 + KEPD_MAX_OWNERS];
        fds[0].fd = gSignalPipe[0];
        fds[0].events = POLLIN;
        fds[0].revents = 0;
        int n = 1 + registryWatchFds(fds + 1, KEPD_MAX_OWNERS);
        int ready = poll(fds, (nfds_t)n, 1000);
        if (ready < 0 && errno != EINTR) break;
        if (fds[0].revents) break;
        registryPrune();
        treeTrimIfWanted();
    }
    qxImiStopServer();
    notifierStop();
    runtimeClose();
    kepdLog("stopped");
    return 0;
}
