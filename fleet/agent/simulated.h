/* A simulated device's module, owned inside the agent's process with the owner's kit:
 * the "ntp" module of examples/ntpd (a named section, a list table, an action), which
 * the kit registers with the device's host (kepd) as that owner would, and in this
 * process's own tree, which answers the reads. */
#ifndef KEPAGENT_SIMULATED_H
#define KEPAGENT_SIMULATED_H

#ifdef __cplusplus
extern "C" {
#endif

/* Loads the description and the module's file and starts serving; 0, or -1 with the
 * reason on standard error. */
int simulatedStart(const char *modelFile);
/* Serves a read in this process, as standardKepReqHandle. */
int simulatedRead(const char *request, char **response);
/* Sends the notifications waiting and registers with a host that started since. */
void simulatedPoll(void);
/* 1 once the device's host answers a read of the module, which it does only after the
 * kit has registered it there (on a poll after the host comes up); else 0. */
int simulatedAnswers(void);
void simulatedStop(void);

#ifdef __cplusplus
}
#endif

#endif
