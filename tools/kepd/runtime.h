/*
 * The host's runtime files: the pid file, locked for as long as the host runs, and
 * the state file beside it ("kepd.state"), through which clients see the host's pid
 * and a counter that changes with every registration, without asking the host.
 */
#ifndef KEPD_RUNTIME_H
#define KEPD_RUNTIME_H

/* Opens and locks the pid file. 0, or -1 after saying why: another host holds it
 * (naming its pid), or the path is a link, another user's file or has other names. */
int runtimeLock(const char *pidFile);
/* Writes this process's pid into the locked file; 0 or -1. */
int runtimeWritePid(void);
/* Opens the state file beside the pid file and publishes this host in it; 0 or -1. */
int runtimeStateOpen(const char *pidFile);
/* A registration changed: the counter moves on. Thread-safe. */
void runtimeBump(void);
/* Publishes how many watch the host's traffic. */
void runtimeWatchers(int count);
/* Publishes whether a change set lives (see KepHostState). */
void runtimeChangeset(int on);
/* The counter's current value. */
unsigned runtimeGeneration(void);
/* At exit: the state file says no host runs, the pid file goes. */
void runtimeClose(void);

#endif
