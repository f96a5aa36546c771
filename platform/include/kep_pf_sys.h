/* Platform system services used by the library. */
#ifndef KEP_PF_SYS_H
#define KEP_PF_SYS_H

#ifdef __cplusplus
extern "C" {
#endif

/* Asks for a delayed save of the device configuration; the stand-in counts the requests. */
int ipc_swSysSaveConfigDelay(void);
/* Stand-in only: how many delayed saves were asked for in this process. */
int ipcSaveConfigDelayCount(void);

#ifdef __cplusplus
}
#endif

#endif
