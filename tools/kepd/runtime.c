/* The host's pid file and state file. */
#define _GNU_SOURCE
#include "runtime.h"

#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kep_host.h"
#include "kepd.h"

static int gPidFd = -1;
static char gPidPath[PATH_MAX];
static KepHostState *gState;

/* Opens path for this process alone to write: never through a link, never a file of
 * another user or one with other names (a hard link planted to a file elsewhere). */
static int openOwnFile(const char *path, int flags) {
    struct stat st;
    int fd = open(path, flags | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        kepdLog("%s: %s%s", path, strerror(errno), errno == ELOOP ? " (a symbolic link: refused)" : "");
        return -1;
    }
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid() || st.st_nlink != 1) {
        kepdLog("%s: not a plain file of this user with one name: refused", path);
        close(fd);
        return -1;
    }
    return fd;
}

int runtimeLock(const char *pidFile) {
    struct flock lk;
    if (snprintf(gPidPath, sizeof gPidPath, "%s", pidFile) >= (int)sizeof gPidPath) return -1;
    gPidFd = openOwnFile(pidFile, O_RDWR);
    if (gPidFd < 0) return -1;
    /* A record lock, not flock: clients test it with F_GETLK without taking it, so
     * that a client looking for the host can never make a starting host fail. */
    memset(&lk, 0, sizeof lk);
    lk.l_type = F_WRLCK;
    lk.l_whence = SEEK_SET;
    if (fcntl(gPidFd, F_SETLK, &lk) != 0) {
        struct flock held;
        memset(&held, 0, sizeof held);
        held.l_type = F_WRLCK;
        held.l_whence = SEEK_SET;
        if (fcntl(gPidFd, F_GETLK, &held) == 0 && held.l_type != F_UNLCK)
            kepdLog("another kepd (pid %d) holds %s", (int)held.l_pid, pidFile);
        else
            kepdLog("%s: cannot lock: %s", pidFile, strerror(errno));
        close(gPidFd);
        gPidFd = -1;
        return -1;
    }
    return 0;
}

int runtimeWritePid(void) {
    char text[32];
    int n = snprintf(text, sizeof text, "%d\n", (int)getpid());
    if (gPidFd < 0 || ftruncate(gPidFd, 0) != 0 || pwrite(gPidFd, text, (size_t)n, 0) != n) return -1;
    return 0;
}

int runtimeStateOpen(const char *pidFile) {
    char copy[PATH_MAX], path[PATH_MAX];
    int fd;
    struct stat st;
    unsigned last = 0;
    snprintf(copy, sizeof copy, "%s", pidFile);
    if (snprintf(path, sizeof path, "%s/%s", dirname(copy), KEP_HOST_STATE_FILE) >= (int)sizeof path)
        return -1;
    fd = openOwnFile(path, O_RDWR);
    if (fd < 0) return -1;
    /* Written in place, never replaced: clients keep it mapped across host restarts. */
    if (fstat(fd, &st) != 0 || (st.st_size != (off_t)sizeof *gState && ftruncate(fd, sizeof *gState) != 0)) {
        close(fd);
        return -1;
    }
    KepHostState *mapped = mmap(NULL, sizeof *mapped, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (mapped == MAP_FAILED) return -1;
    /* The counter goes on from the last host's, so a client never sees a value again. */
    if (memcmp(mapped->magic, KEP_HOST_STATE_MAGIC, sizeof mapped->magic) == 0)
        last = __atomic_load_n(&mapped->generation, __ATOMIC_RELAXED);
    memcpy(mapped->magic, KEP_HOST_STATE_MAGIC, sizeof mapped->magic);
    __atomic_store_n(&mapped->watchers, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&mapped->changeset, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&mapped->generation, last + 1, __ATOMIC_RELEASE);
    __atomic_store_n(&mapped->pid, (unsigned)getpid(), __ATOMIC_RELEASE);
    /* Published last: the serving threads may already look for it. */
    __atomic_store_n(&gState, mapped, __ATOMIC_RELEASE);
    return 0;
}

/* The state file once it is open, else NULL; the serving threads start before it is. */
static KepHostState *state(void) {
    return __atomic_load_n(&gState, __ATOMIC_ACQUIRE);
}

void runtimeBump(void) {
    KepHostState *s = state();
    if (s) __atomic_add_fetch(&s->generation, 1, __ATOMIC_ACQ_REL);
}

void runtimeWatchers(int count) {
    KepHostState *s = state();
    if (s) __atomic_store_n(&s->watchers, (unsigned)count, __ATOMIC_RELEASE);
}

void runtimeChangeset(int on) {
    KepHostState *s = state();
    if (s) __atomic_store_n(&s->changeset, on ? 1u : 0u, __ATOMIC_RELEASE);
}

unsigned runtimeGeneration(void) {
    KepHostState *s = state();
    return s ? __atomic_load_n(&s->generation, __ATOMIC_ACQUIRE) : 0;
}

void runtimeClose(void) {
    KepHostState *s = state();
    if (s) {
        __atomic_store_n(&s->pid, 0, __ATOMIC_RELEASE);
        __atomic_store_n(&s->watchers, 0, __ATOMIC_RELEASE);
        __atomic_store_n(&s->changeset, 0, __ATOMIC_RELEASE);
        __atomic_add_fetch(&s->generation, 1, __ATOMIC_ACQ_REL);
        __atomic_store_n(&gState, NULL, __ATOMIC_RELEASE);
        munmap(s, sizeof *s);
    }
    if (gPidFd >= 0) {
        /* Removed while still locked, so that no starting host takes a file that is
         * about to disappear. */
        unlink(gPidPath);
        close(gPidFd);
        gPidFd = -1;
    }
}
