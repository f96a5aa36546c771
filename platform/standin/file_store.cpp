// Atomic replacement of a file, and the removal of what cut-short stores left behind.
//
// A store writes "<path>.tmp" and renames it over path. It holds an exclusive flock on
// that temporary file from the moment it has created it until the file has been
// renamed into place or removed. The lock goes with the open file, so a writer that is
// killed, or stopped by a power cut, gives it up with its life: a temporary file that
// nobody holds locked belongs to a store that will never finish, and the next store
// of the same path removes it. Without that, a device that loses power during stores
// would fill its flash with them over the years.
//
// One name per path keeps the common case cheap: a store finds a leftover by trying to
// create it. Only while another store of the same path holds that name does a store
// use a name of its own ("<path>.tmp" and six characters); when a store meets a
// leftover or such a store, it also sweeps the folder for leftovers of those names.
#include "file_store.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/guard.h"
#include "env_group.h"
#include "kep_pf_debug.h"
#include "pf_api.h"

namespace kep_pf {
namespace {

constexpr char kTempMark[] = ".tmp";
constexpr size_t kTempMarkLen = sizeof kTempMark - 1;
constexpr size_t kTempUnique = 6;  // the characters mkostemp fills in

// Configuration files hold secrets (keys, passwords): only their owner, and the
// configured group when there is one, may read them.
constexpr mode_t kOwnerMode = 0600;
constexpr mode_t kGroupMode = 0640;

// The configured group: -2 until the environment has been read, -1 for none.
int gGroup = -2;
pthread_once_t gGroupOnce = PTHREAD_ONCE_INIT;

void readGroupFromEnvironment() {
    int gid = groupNamedBy("KEP_CONFIG_GROUP");
    if (gid == kNoSuchGroup) {
        if (debugFlagGet(kStoreLogMid))
            debugPrintf(kStoreLogMid, "KEP_CONFIG_GROUP \"%s\" names no group: files stay 0600\n",
                        getenv("KEP_CONFIG_GROUP"));
        gid = -1;
    }
    __atomic_store_n(&gGroup, gid, __ATOMIC_RELEASE);
}

int fileGroup() {
    pthread_once(&gGroupOnce, readGroupFromEnvironment);
    return __atomic_load_n(&gGroup, __ATOMIC_ACQUIRE);
}

// Gives the new file fd its group and returns the mode it gets: the group's mode when
// the file could be given it, the owner's otherwise; narrowed to what the file it
// replaces (mode old, or none) allowed, owner read and write always kept.
mode_t newFileMode(int fd, const struct stat *old) {
    const int group = fileGroup();
    mode_t mode = group >= 0 && fchown(fd, static_cast<uid_t>(-1), static_cast<gid_t>(group)) == 0
                      ? kGroupMode
                      : kOwnerMode;
    if (old) mode &= old->st_mode | kOwnerMode;
    return mode;
}

bool writeAll(int fd, const char *data, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, data, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool sameFile(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Whether name is base followed by ".tmp", alone or with six letters or digits.
bool isTempOf(const char *name, const char *base, size_t baseLen) {
    if (strncmp(name, base, baseLen) != 0 || strncmp(name + baseLen, kTempMark, kTempMarkLen) != 0)
        return false;
    const char *unique = name + baseLen + kTempMarkLen;
    if (*unique == '\0') return true;
    for (size_t i = 0; i < kTempUnique; ++i) {
        if (!isalnum(static_cast<unsigned char>(unique[i]))) return false;
    }
    return unique[kTempUnique] == '\0';
}

// Removes the regular file name (relative to folder dfd, or AT_FDCWD) when no store
// holds it: only while this store holds its lock, and only if it is still the file
// under that name (a store that held it may have renamed it into place meanwhile).
bool removeIfLeftover(int dfd, const char *name) {
    const kep::Fd fd(openat(dfd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat held, named;
    return fd.valid() && fstat(fd.get(), &held) == 0 && S_ISREG(held.st_mode) &&
           flock(fd.get(), LOCK_EX | LOCK_NB) == 0 && fstatat(dfd, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           sameFile(held, named) && unlinkat(dfd, name, 0) == 0;
}

// Removes base's temporary files in folder dfd that no store holds. The folder is
// read straight into a small buffer on the stack: no allocation, so the sweep works
// when memory is short too.
void removeLeftovers(int dfd, const char *base) {
    const size_t baseLen = strlen(base);
    alignas(struct dirent64) char buf[2048];
    ssize_t n;
    while ((n = getdents64(dfd, buf, sizeof buf)) > 0) {
        for (ssize_t at = 0; at < n;) {
            const auto *e = reinterpret_cast<const struct dirent64 *>(buf + at);
            at += e->d_reclen;
            if (isTempOf(e->d_name, base, baseLen)) removeIfLeftover(dfd, e->d_name);
        }
    }
}

// Locks a temporary file this store has just created. Before the lock, another store
// can take the file for a leftover: it then holds the lock, or has removed the file
// already, and false is returned with fd closed. A file system without flock takes
// nothing for a leftover, so the file is safe there unlocked.
bool lockCreated(int fd) {
    struct stat st;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) return true;
    } else if (fstat(fd, &st) == 0 && st.st_nlink > 0) {
        return true;
    }
    close(fd);
    return false;
}

// Creates path's temporary file in tmp, locked: its descriptor, or -1. *sweep is set
// when the folder may hold leftovers under names of their own.
int createTemp(char *tmp, size_t size, const char *path, bool *sweep) {
    for (int attempt = 0; attempt < 8; ++attempt) {
        snprintf(tmp, size, "%s%s", path, kTempMark);
        int fd = open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            if (lockCreated(fd)) return fd;
            continue;
        }
        if (errno != EEXIST) return -1;
        // A store cut short left it, or another store is writing it.
        *sweep = true;
        if (removeIfLeftover(AT_FDCWD, tmp)) continue;
        snprintf(tmp, size, "%s%sXXXXXX", path, kTempMark);
        fd = mkostemp(tmp, O_CLOEXEC);
        if (fd < 0) return -1;
        if (lockCreated(fd)) return fd;
    }
    return -1;
}

}  // namespace

int storeAtomically(const char *path, const char *text, size_t len) {
    if (!path || !*path || !text) return -1;
    const size_t plen = strlen(path);
    if (plen + kTempMarkLen + kTempUnique >= PATH_MAX) return -1;
    char dir[PATH_MAX];
    memcpy(dir, path, plen + 1);
    const char *base = path;
    if (char *slash = strrchr(dir, '/')) {
        base = path + (slash - dir) + 1;
        slash[slash == dir ? 1 : 0] = '\0';
    } else {
        strcpy(dir, ".");
    }
    if (!*base) return -1;  // a folder's path

    // Opened first, so that the folder is flushed once the file is in place and can
    // be swept; a folder that cannot be opened is neither.
    const kep::Fd folder(open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat old;
    const bool replaces = stat(path, &old) == 0 && S_ISREG(old.st_mode);
    char tmp[PATH_MAX];
    bool sweep = false;
    int fd = createTemp(tmp, sizeof tmp, path, &sweep);
    if (fd < 0) return -1;
    // This store's own file is locked by now, so the sweep leaves it alone.
    if (sweep && folder.valid()) removeLeftovers(folder.get(), base);
    // Renamed or removed before the lock goes with the descriptor, so that no sweep
    // can take the file while it is still to be put in place.
    const bool ok = fchmod(fd, newFileMode(fd, replaces ? &old : nullptr)) == 0 && writeAll(fd, text, len) &&
                    fsync(fd) == 0 && rename(tmp, path) == 0;
    if (!ok) unlink(tmp);
    close(fd);
    if (!ok) return -1;
    if (folder.valid()) fsync(folder.get());
    return 0;
}

}  // namespace kep_pf

PF_API int jsonObjectSetFileGroup(int gid) {
    if (gid < -1) return -1;
    pthread_once(&kep_pf::gGroupOnce, kep_pf::readGroupFromEnvironment);
    __atomic_store_n(&kep_pf::gGroup, gid, __ATOMIC_RELEASE);
    return 0;
}
