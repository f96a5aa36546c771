/*
 * kepctl monitor: a live line per request the host serves. The host connects to a
 * socket of this process (it checks that it is this very process's) and sends each
 * line as one packet; lines it could not send while this process was behind are
 * counted on the next one.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "kep_host.h"
#include "kep_pf_rpc.h"
#include "kepctl.h"

static volatile sig_atomic_t gStop;

static void onSignal(int sig) {
    (void)sig;
    gStop = 1;
}

static int listenAt(struct sockaddr_un *addr) {
    char dir[sizeof addr->sun_path];
    if (qxImiRuntimeDir(dir, sizeof dir) != 0) return -1;
    addr->sun_family = AF_UNIX;
    if (snprintf(addr->sun_path, sizeof addr->sun_path, "%s/monitor-%d.sock", dir, (int)getpid()) >=
        (int)sizeof addr->sun_path)
        return -1;
    unlink(addr->sun_path);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    mode_t old = umask(077);
    int ok = fd >= 0 && bind(fd, (struct sockaddr *)addr, sizeof *addr) == 0 && listen(fd, 1) == 0;
    umask(old);
    if (!ok && fd >= 0) close(fd);
    return ok ? fd : -1;
}

/* Asks the host to connect; 0, or the host's or the RPC's code. */
static int askWatch(const char *path, const char *modules, int verbose) {
    int host = kepHostPid();
    if (host < 0) return QXRPC_ERR_NO_PEER;
    QxRpcPara set;
    memset(&set, 0, sizeof set);
    qxrpcParaInit(&set);
    int code = QXRPC_ERR_NOMEM;
    if (qxrpcAddStringPtr(&set, "path", path) == 0 && qxrpcAddInt(&set, "verbose", verbose) == 0 &&
        (!modules || qxrpcAddStringPtr(&set, "modules", modules) == 0)) {
        code = qxImiExecute(host, "kepd.watch", 0, 0, &set);
        if (code == 0 && qxrpcGetInt(&set, "errorCode", &code) != 0) code = QXRPC_ERR_IO;
    }
    qxrpcParaFree(&set);
    return code;
}

int kepctlMonitor(const char *modules, int verbose) {
    struct sockaddr_un addr;
    int listener = listenAt(&addr);
    if (listener < 0) {
        fprintf(stderr, "kepctl: cannot listen in the runtime folder: %s\n", strerror(errno));
        return EXIT_HOST;
    }
    struct sigaction sa = {.sa_handler = onSignal};
    sigaction(SIGINT, &sa, NULL);
    sigaction(SIGTERM, &sa, NULL);
    signal(SIGPIPE, SIG_IGN);

    int status = 0, fd = -1;
    int rc = askWatch(addr.sun_path, modules, verbose);
    if (rc == KEP_HOST_ERR_DENIED || rc == KEP_HOST_ERR_LIMIT) {
        fprintf(stderr, "kepctl: the host refused to be watched: %s\n",
                rc == KEP_HOST_ERR_LIMIT ? "it has as many watchers as it takes" : kepctlMeaning(rc));
        status = EXIT_HOST;
    } else if (rc != 0) {
        status = kepctlHostFailed(rc);
    } else {
        fd = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
    }
    close(listener);
    unlink(addr.sun_path);
    if (status) return status;
    if (fd < 0) {
        fprintf(stderr, "kepctl: the host did not connect: %s\n", strerror(errno));
        return EXIT_HOST;
    }
    fprintf(stderr, "kepctl: watching%s%s; Ctrl-C ends\n", modules ? " " : "", modules ? modules : "");
    static char line[65536 + 1];
    while (!gStop) {
        struct pollfd p = {.fd = fd, .events = POLLIN};
        if (poll(&p, 1, -1) < 0) continue; /* a signal: gStop says whether to end */
        ssize_t got = recv(fd, line, sizeof line - 1, 0);
        if (got <= 0) {
            if (got < 0 && errno == EINTR) continue;
            fprintf(stderr, "kepctl: the host stopped\n");
            status = EXIT_HOST;
            break;
        }
        line[got] = '\0';
        puts(line);
        fflush(stdout);
    }
    close(fd);
    return status;
}
