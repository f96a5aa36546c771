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
#include <syslog.h>
#include <unistd.h>

#include "access.h"
#include "changeset.h"
#include "handlers.h"
#include "kepHandle.h"
#include "kep_host.h"
#include "kep_platform.h"
#include "kepd.h"
#include "registry.h"
#include "runtime.h"
#include "service.h"
#include "tree.h"

#define DEFAULT_ACCESS_DIR "/etc/kep/access.d"
#define OPTIONS "m:p:r:a:s:t:n:fh"

static const struct option kLongOptions[] = {{"help", no_argument, NULL, 'h'}, {NULL, 0, NULL, 0}};

static int gSignalPipe[2] = {-1, -1};

/* One line at priority, prefixed "kepd: ", where serviceLogOpen chose. */
static void logAt(int priority, const char *format, va_list ap) {
    char line[512];
    const int prefix = snprintf(line, sizeof line, "kepd: ");
    int n = vsnprintf(line + prefix, sizeof line - (size_t)prefix - 1, format, ap);
    if (n < 0) return;
    n += prefix;
    if ((size_t)n > sizeof line - 2) n = (int)sizeof line - 2;
    line[n] = '\n';
    line[n + 1] = '\0';
    serviceLogLine(priority, line);
}

void kepdLog(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    logAt(LOG_NOTICE, format, ap);
    va_end(ap);
}

/* A start that failed: the lines before say why, and the exit status says that it
 * failed; a syslog reader sees no exit status, so it is told there. */
static int notStarted(const char *format, ...) __attribute__((format(printf, 1, 2)));
static int notStarted(const char *format, ...) {
    if (serviceLogsToSyslog()) {
        va_list ap;
        va_start(ap, format);
        logAt(LOG_ERR, format, ap);
        va_end(ap);
    }
    return 1;
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
            "usage: kepd [-m MODEL.xml]... [-p PIDFILE] [-r DIR] [-a DIR] [-s DIR] [-t N] [-n N] [-f]\n"
            "       kepd -h | --help\n"
            "  Loads the model description compiled into the library, merges every -m file,\n"
            "  reads the modules' configuration files and serves requests until SIGTERM.\n"
            "  -m FILE   merge this model description (repeatable)\n"
            "  -p FILE   pid file (default $KEPD_PIDFILE, else kepd.pid in the runtime folder)\n"
            "  -r DIR    runtime folder (default $KEP_RUNTIME_DIR, /run/kep for root,\n"
            "            $XDG_RUNTIME_DIR/kep, else /tmp/kep-<uid>)\n"
            "  -a DIR    access rules, one JSON file per package (default " DEFAULT_ACCESS_DIR
            " when it exists)\n"
            "  -s DIR    where a change set's record is kept until it is finished (persistent\n"
            "            storage; default: the folder of the first module's configuration file)\n"
            "  -t N      requests served at once (default %d)\n"
            "  -n N      registrations one owner process may hold (default %d)\n"
            "  -f        log on standard error whatever it is\n"
            "  Logs registrations, refusals, owners that go, and why an owner call failed a\n"
            "  request or a factory reset: on standard error, or to syslog (daemon) when\n"
            "  standard error is closed, /dev/null or the journal, as a service manager or an\n"
            "  init script starting kepd in the background leaves it, unless -f.\n"
            "  Tells its readiness to the service manager that sets $NOTIFY_SOCKET.\n"
            "  Debug log: KEP_DEBUG=all (or a list of module ids, e.g. 111), where the log goes.\n",
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
    const char *pidFile = NULL, *accessDir = NULL, *stateDir = NULL;
    int threads = KEPD_DEFAULT_THREADS, limit = KEPD_DEFAULT_REGISTRATIONS, foreground = 0, opt;
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
            case 's':
                stateDir = optarg;
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
            case 'f':
                foreground = 1;
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
    serviceLogOpen(foreground);
    if (qxImiRuntimeDir(runDir, sizeof runDir) != 0) {
        kepdLog(
            "runtime folder %s cannot be made, or is a link, another user's or open to others: "
            "refused; choose another with -r DIR or KEP_RUNTIME_DIR",
            runDir);
        return notStarted("not started: no runtime folder");
    }
    if (!pidFile) pidFile = kepHostPidFile();
    if (runtimeLock(pidFile) != 0) return notStarted("not started: the pid file %s", pidFile);
    if (accessLoad(accessDir ? accessDir : DEFAULT_ACCESS_DIR, accessDir != NULL) != 0)
        return notStarted("not started: the access rules");
    registrySetLimit(limit);

    if (dataModuleInit() != 0) kepdLog("no built-in model description, using -m files only");
    for (optind = 1; (opt = getopt_long(argc, argv, OPTIONS, kLongOptions, NULL)) != -1;) {
        if (opt == 'm' && kepMergeModelFile(optarg) != 0)
            return notStarted("not started: model description %s not merged (kepcheck says why)", optarg);
    }
    loadListSections();
    if (treeInit() != 0) return notStarted("not started: no memory for the tree");
    /* Before anything is served: a change set a stopped host left keeps its modules
     * from other writes until it is undone. */
    if (changesetInit(stateDir) != 0) return notStarted("not started: the change sets' folder");

    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = onSignal;
    if (pipe2(gSignalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return notStarted("not started: no pipe for signals");
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGINT, &sa, NULL);
    signal(SIGPIPE, SIG_IGN);

    if (accessActive()) qxImiSetPeerCheck(accessAdmits, NULL);
    if (handlersRegister() != 0 || notifierStart() != 0 || qxImiListen() < 0 ||
        qxImiStartServerThreads(threads) != 0) {
        kepdLog("cannot serve the RPC in %s", runDir);
        return notStarted("not started");
    }
    if (runtimeStateOpen(pidFile) != 0 || runtimeWritePid() != 0) {
        kepdLog("cannot write %s or the state file beside it", pidFile);
        qxImiStopServer();
        return notStarted("not started");
    }
    runtimeChangeset(changesetLives());
    kepdLog("serving as pid %d with %d modules, up to %d requests at once", (int)getpid(), getModuleSize(),
            threads);
    /* Clients reach the host from here on: the socket listens and the pid file names it. */
    char status[96];
    snprintf(status, sizeof status, "READY=1\nSTATUS=serving %d module%s", getModuleSize(),
             getModuleSize() == 1 ? "" : "s");
    if (serviceNotify(status) != 0) kepdLog("cannot tell the service manager that kepd serves");

    /* Owners that exit wake this loop through their process descriptors; the kernels
     * without them are covered by a check every second. */
    for (;;) {
        struct pollfd fds[1 + KEPD_MAX_OWNERS];
        fds[0].fd = gSignalPipe[0];
        fds[0].events = POLLIN;
        fds[0].revents = 0;
        int n = 1 + registryWatchFds(fds + 1, KEPD_MAX_OWNERS);
        int wait = changesetTick();
        int ready = poll(fds, (nfds_t)n, wait >= 0 && wait < 1000 ? wait : 1000);
        if (ready < 0 && errno != EINTR) break;
        if (fds[0].revents) break;
        registryPrune();
        treeTrimIfWanted();
    }
    serviceNotify("STOPPING=1");
    qxImiStopServer();
    notifierStop();
    runtimeClose();
    kepdLog("stopped");
    return 0;
}
