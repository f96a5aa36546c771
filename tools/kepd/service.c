/* kepd's log destination and its readiness notification. */
#define _GNU_SOURCE
#include "service.h"

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

static int gSyslog;

/* Whether standard error is somewhere a person or a file keeps what is written. */
static int stderrKept(void) {
    struct stat st, null;
    if (fstat(STDERR_FILENO, &st) != 0) return 0; /* closed */
    if (S_ISCHR(st.st_mode) && stat("/dev/null", &null) == 0 && S_ISCHR(null.st_mode) &&
        st.st_rdev == null.st_rdev)
        return 0;
    /* The journal names its stream "device:inode"; the priority of each line is lost
     * there, which syslog keeps. */
    const char *journal = getenv("JOURNAL_STREAM");
    unsigned long long dev, ino;
    if (journal && sscanf(journal, "%llu:%llu", &dev, &ino) == 2 && dev == (unsigned long long)st.st_dev &&
        ino == (unsigned long long)st.st_ino)
        return 0;
    return 1;
}

void serviceLogOpen(int foreground) {
    gSyslog = !foreground && !stderrKept();
    if (!gSyslog) return;
    openlog("kepd", LOG_PID, LOG_DAEMON);
    /* The platform's debug log follows, unless told otherwise; it reads this before
     * its first line. */
    setenv("KEP_DEBUG_SYSLOG", "1", 0);
}

int serviceLogsToSyslog(void) {
    return gSyslog;
}

void serviceLogLine(int priority, const char *line) {
    if (!gSyslog) {
        fputs(line, stderr);
        return;
    }
    /* syslog adds its own tag and takes no line feed. */
    const char *text = strncmp(line, "kepd: ", 6) == 0 ? line + 6 : line;
    syslog(priority, "%.*s", (int)strcspn(text, "\n"), text);
}

/* The datagram protocol of $NOTIFY_SOCKET, written out rather than taken from
 * libsystemd: kepd builds for devices that have no libsystemd, and the protocol is
 * one datagram to a path or an abstract ("@") socket name. */
int serviceNotify(const char *state) {
    const char *name = getenv("NOTIFY_SOCKET");
    if (!name || (name[0] != '/' && name[0] != '@')) return 0;
    struct sockaddr_un addr;
    size_t len = strlen(name);
    if (len < 2 || len >= sizeof addr.sun_path) return -1;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, name, len);
    if (name[0] == '@') addr.sun_path[0] = '\0';
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    /* An abstract name is exactly its bytes: the length may not count a terminator. */
    socklen_t size = (socklen_t)(offsetof(struct sockaddr_un, sun_path) + len);
    ssize_t sent = sendto(fd, state, strlen(state), MSG_NOSIGNAL, (struct sockaddr *)&addr, size);
    close(fd);
    return sent == (ssize_t)strlen(state) ? 0 : -1;
}
