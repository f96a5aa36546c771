// The stand-in's delayed configuration save: the device schedules a flash write; here
// the requests are counted so that tests can see them.
#include "kep_pf_debug.h"
#include "kep_pf_sys.h"
#include "pf_api.h"

namespace {
int gSaveRequests;
}

PF_API int ipc_swSysSaveConfigDelay(void) {
    __atomic_add_fetch(&gSaveRequests, 1, __ATOMIC_RELAXED);
    if (debugFlagGet(111) == 1) debugPrintf(111, "[platform] delayed configuration save requested\r\n");
    return 0;
}

PF_API int ipcSaveConfigDelayCount(void) {
    return __atomic_load_n(&gSaveRequests, __ATOMIC_RELAXED);
}
