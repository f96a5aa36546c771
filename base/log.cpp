#include "base/log.h"

#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>

namespace kep {

void logPrepare(LogPrefix &p, int mid, const char *msg) {
    memset(p.thread, 0, sizeof p.thread);
    prctl(PR_GET_NAME, p.thread, 0, 0, 0);
    snprintf(p.format, sizeof p.format, "%s %s%s", "[<%s/%s>:<%s/%s()/%d>]", msg, "\r\n");
    p.process = pidNameGet(pidGetCurrent());
    p.module = midNameGet(mid);
}

}  // namespace kep
