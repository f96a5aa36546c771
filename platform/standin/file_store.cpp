// Atomic replacement of a file, and the removal of what cut-short stores left behind.
//
// A store holds an exclusive flock on its temporary file from the moment it has
// created it until the file has been renamed into place or removed. The lock goes
// with the open file, so a writer that is killed, or stopped by a power cut, gives it
// up with its life: a temporary file that nobody holds locked belongs to a store that
// will never finish, and the next store of the same path removes it. Without that, a
// device that loses power during stores would fill its flash with them over the years.
#include "file_store.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../guard.h"

namespace kep_pf {
namespace {

constexpr char kTempMark[] = ".tmp";
constexpr size_t kTempMarkLen = sizeof kTempMark - 1;
constexpr size_t kTempUnique = 6;  // the characters mkostemp fills in

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

bool sameFile(const struct stat &a, const struct stat &b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// Whether name is base followed by ".tmp" and six letters or digits.
bool isTempOf(const char *name, const char *base, size_t baseLen) {
    if (strncmp(name, base, baseLen) != 0 || memcmp(name + baseLen, kTempMark, kTempMarkLen) != 0) return false;
    const char *unique = name + baseLen + kTempMarkLen;
    for (size_t i = 0; i < kTempUnique; ++i) {
        if (!isalnum(static_cast<unsigned char>(unique[i]))) return false;
    }
    return unique[kTempUnique] == '\0';
}

// Removes base's temporary files in folder dfd that no store holds. A file is removed
// only while this store holds its lock and it is still the file under that name.
// The folder is read straight into a small buffer on the stack: no allocation, so the
// sweep works when memory is short too, and two system calls for a small folder.
void removeLeftovers(int dfd, const char *base) {
    const size_t baseLen = strlen(base);
    alignas(struct dirent64) char buf[2048];
    ssize_t n;
    while ((n = getdents64(dfd, buf, sizeof buf)) > 0) {
        for (ssize_t at = 0; at < n;) {
            const auto *e = reinterpret_cast<const struct dirent64 *>(buf + at);
            at += e->d_reclen;
            if (!isTempOf(e->d_name, base, baseLen)) continue;
            int fd = openat(dfd, e->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
            if (fd < 0) continue;
            struct stat held, named;
            if (fstat(fd, &held) == 0 && S_ISREG(held.st_mode) && flock(fd, LOCK_EX | LOCK_NB) == 0 &&
                fstatat(dfd, e->d_name, &named, AT_SYMLINK_NOFOLLOW) == 0 && sameFile(held, named)) {
                unlinkat(dfd, e->d_name, 0);
            }
            close(fd);
        }
    }
}

// Creates path's temporary file in tmp, locked: its descriptor, or -1.
int createTemp(char *tmp, size_t size, const char *path) {
    for (int attempt = 0; attempt < 8; ++attempt) {
        snprintf(tmp, size, "%s%sXXXXXX", path, kTempMark);
        int fd = mkostemp(tmp, O_CLOEXEC);
        if (fd < 0) return -1;
        // Between its creation and the lock, another store's sweep can take the file
        // for a leftover: it then holds the lock, or has removed the file already.
        // A file system without flock sweeps nothing, so the file is safe there.
        struct stat st;
        if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK) return fd;
        } else if (fstat(fd, &st) == 0 && st.st_nlink > 0) {
            return fd;
        }
        close(fd);
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

    // The folder is read for leftovers now and flushed once the file is in place; a
    // folder that cannot be opened is neither.
    const kep::Fd folder(open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.valid()) removeLeftovers(folder.get(), base);
    struct stat old;
    const mode_t mode = stat(path, &old) == 0 && S_ISREG(old.st_mode) ? (old.st_mode & 07777) : 0644;
    char tmp[PATH_MAX];
    int fd = createTemp(tmp, sizeof tmp, path);
    if (fd < 0) return -1;
    // Renamed or removed before the lock goes with the descriptor, so that no sweep
    // can take the file while it is still to be put in place.
    const bool ok = writeAll(fd, text, len) && fchmod(fd, mode) == 0 && fsync(fd) == 0 && rename(tmp, path) == 0;
    if (!ok) unlink(tmp);
    close(fd);
    if (!ok) return -1;
    if (folder.valid()) fsync(folder.get());
    return 0;
}

}  // namespace kep_pf
