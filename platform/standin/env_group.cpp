#include "env_group.h"

#include <errno.h>
#include <grp.h>
#include <limits.h>
#include <stdlib.h>

namespace kep_pf {

int groupNamedBy(const char *variable) {
    const char *env = getenv(variable);
    if (!env || !*env) return -1;
    char *end = nullptr;
    errno = 0;
    const long n = strtol(env, &end, 10);
    if (errno == 0 && *end == '\0' && n >= 0 && n <= INT_MAX) return static_cast<int>(n);
    struct group entry, *found = nullptr;
    char buf[4096];
    if (getgrnam_r(env, &entry, buf, sizeof buf, &found) == 0 && found &&
        found->gr_gid <= static_cast<gid_t>(INT_MAX))
        return static_cast<int>(found->gr_gid);
    return kNoSuchGroup;
}

}  // namespace kep_pf
