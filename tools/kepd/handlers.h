/* The host's RPC handlers (see kep_host.h for what each takes and answers). */
#ifndef KEPD_HANDLERS_H
#define KEPD_HANDLERS_H

/* Registers every handler with the RPC; 0 or -1. */
int handlersRegister(void);
/* Starts and stops the thread that runs the notifications owners ask for. */
int notifierStart(void);
void notifierStop(void);

#endif
