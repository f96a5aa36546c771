// The IMI's runtime folder, socket paths and peers' credentials.
//
// Every socket lives in one folder that nobody else may write to: whoever could
// place a file there could squat on a process's name. The folder is checked before
// each use and refused, never followed or repaired, when it is not what it must be.
#include <errno.h>
#include <grp.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "env_group.h"
#include "kep_pf_debug.h"
#include "rpc_internal.h"

namespace kep_pf {
namespace {

// The folder to use: from the environment, else the user's runtime folder.
// explicitPath tells whether it was named by the environment (and so may need its
// parents made).
int chooseDir(char *dir, size_t size, bool *explicitPath) {
    const char *env = getenv("KEP_RUNTIME_DIR");
    int n;
    *explicitPath = env && *env;
    if (*explicitPath) {
        n = snprintf(dir, size, "%s", env);
    } else if (geteuid() == 0) {
        n = snprintf(dir, size, "/run/kep");
    } else {
        const char *xdg = getenv("XDG_RUNTIME_DIR");
        struct stat st;
        // The user's own runtime folder when the session has one; /tmp only as the
        // last resort, where anyone could have made the name first.
        if (xdg && xdg[0] == '/' && stat(xdg, &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == geteuid()) {
            n = snprintf(dir, size, "%s/kep", xdg);
        } else {
            n = snprintf(dir, size, "/tmp/kep-%u", static_cast<unsigned>(geteuid()));
        }
    }
    return n > 0 && static_cast<size_t>(n) < size ? 0 : QXRPC_ERR_ARG;
}

// Creates missing folders along an explicit path, each open to its user only.
void makeParents(const char *dir) {
    char path[sizeof(sockaddr_un::sun_path)];
    snprintf(path, sizeof path, "%s", dir);
    for (char *p = path + 1; *p; p++) {
        if (*p != '/') continue;
        *p = '\0';
        mkdir(path, 0700);
        *p = '/';
    }
}

// A real folder (lstat: a link is refused, not followed), ours or root's, that no
// one else may write to, unless it is root's and sticky (a shared folder in which
// nobody can remove or rename another's socket).
bool safeDir(const char *dir, const char **why) {
    struct stat st;
    if (lstat(dir, &st) != 0) {
        *why = "missing";
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        *why = S_ISLNK(st.st_mode) ? "a symbolic link" : "not a folder";
        return false;
    }
    if (st.st_uid != geteuid() && st.st_uid != 0) {
        *why = "owned by another user";
        return false;
    }
    if ((st.st_mode & 022) && !((st.st_mode & S_ISVTX) && st.st_uid == 0)) {
        *why = "writable by other users";
        return false;
    }
    return true;
}

// The configured group: -2 until the environment has been read, -1 for none.
int gGroup = -2;
pthread_once_t gGroupOnce = PTHREAD_ONCE_INIT;

void readGroupFromEnvironment() {
    int gid = groupNamedBy("KEP_RPC_GROUP");
    if (gid == kNoSuchGroup) {
        if (debugFlagGet(kImiLogMid))
            debugPrintf(kImiLogMid, "KEP_RPC_GROUP \"%s\" names no group: only this user and root may call\n",
                        getenv("KEP_RPC_GROUP"));
        gid = -1;
    }
    __atomic_store_n(&gGroup, gid, __ATOMIC_RELEASE);
}

}  // namespace

int rpcGroup() {
    pthread_once(&gGroupOnce, readGroupFromEnvironment);
    return __atomic_load_n(&gGroup, __ATOMIC_ACQUIRE);
}

bool peerInGroup(const QxImiCaller &peer, int gid) {
    if (gid < 0) return false;
    if (peer.gid == gid) return true;
    char path[64], line[4096];
    bool found = false;
    snprintf(path, sizeof path, "/proc/%d/status", peer.pid);
    FILE *f = fopen(path, "re");
    while (f && fgets(line, sizeof line, f)) {
        if (strncmp(line, "Groups:", 7) != 0) continue;
        for (char *p = line + 7, *end; *p && !found; p = end) {
            const unsigned long g = strtoul(p, &end, 10);
            if (end == p) break;
            found = g == static_cast<unsigned long>(gid);
        }
        break;
    }
    if (f) fclose(f);
    return found;
}

int runtimeDir(char *dir, size_t size, bool create) {
    bool explicitPath = false;
    int rc = chooseDir(dir, size, &explicitPath);
    if (rc) return rc;
    if (create) {
        if (explicitPath) makeParents(dir);
        // Root's folder is open for reading, so that users the host admits reach its
        // socket; the sockets themselves say who may connect.
        // With a configured group, its members may enter the folder and nobody else.
        const bool shared = !explicitPath && geteuid() == 0;
        const int group = rpcGroup();
        if (mkdir(dir, group >= 0 ? 0750 : shared ? 0755 : 0700) == 0) {
            if (group >= 0 && chown(dir, static_cast<uid_t>(-1), static_cast<gid_t>(group)) != 0 &&
                debugFlagGet(kImiLogMid))
                debugPrintf(kImiLogMid, "runtime folder %s: group %d not set: %s\n", dir, group,
                            strerror(errno));
        } else if (errno != EEXIST) {
            if (debugFlagGet(kImiLogMid))
                debugPrintf(kImiLogMid, "runtime folder %s cannot be made: %s\n", dir, strerror(errno));
            return QXRPC_ERR_DIR;
        }
    }
    const char *why = nullptr;
    if (!safeDir(dir, &why)) {
        // A folder that is missing while nobody creates it just means nobody serves.
        if (create && debugFlagGet(kImiLogMid))
            debugPrintf(kImiLogMid, "runtime folder %s refused: %s\n", dir, why);
        return QXRPC_ERR_DIR;
    }
    return 0;
}

int socketAddress(int pid, bool create, sockaddr_un *addr) {
    char dir[sizeof addr->sun_path];
    int rc = runtimeDir(dir, sizeof dir, create);
    if (rc) return rc;
    memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    int n = snprintf(addr->sun_path, sizeof addr->sun_path, "%s/imi-%d.sock", dir, pid);
    return n > 0 && static_cast<size_t>(n) < sizeof addr->sun_path ? 0 : QXRPC_ERR_ARG;
}

void removeIfStale(int pid, const sockaddr_un &addr) {
    struct stat st;
    // Only a socket file, and only once its process is gone: one that has bound but
    // not yet listened refuses connections too.
    if (lstat(addr.sun_path, &st) != 0 || !S_ISSOCK(st.st_mode)) return;
    if (kill(pid, 0) == 0 || errno != ESRCH) return;
    if (unlink(addr.sun_path) == 0 && debugFlagGet(kImiLogMid))
        debugPrintf(kImiLogMid, "removed the socket of process %d, which is gone\n", pid);
}

bool peerCredentials(int fd, QxImiCaller *out) {
    struct ucred cred;
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof cred || cred.pid <= 0)
        return false;
    out->pid = static_cast<int>(cred.pid);
    out->uid = static_cast<int>(cred.uid);
    out->gid = static_cast<int>(cred.gid);
    return true;
}

}  // namespace kep_pf

using namespace kep_pf;

PF_API int qxImiRuntimeDir(char *path, size_t size) {
    if (!path || size == 0) return QXRPC_ERR_ARG;
    char dir[sizeof(sockaddr_un::sun_path)];
    int rc = runtimeDir(dir, sizeof dir, true);
    if (snprintf(path, size, "%s", dir) >= static_cast<int>(size)) return QXRPC_ERR_ARG;
    return rc;
}
