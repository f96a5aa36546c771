/*
 * Owner processes and what they registered: a registration is tied to the process
 * that sent it (its kernel credentials, never a "pid" member), a slot served by a
 * live owner cannot be taken by another process, and each owner holds a bounded
 * number of registrations. Everything an owner held goes when it unregisters or dies.
 */
#ifndef KEPD_REGISTRY_H
#define KEPD_REGISTRY_H

#include <poll.h>
#include <stddef.h>

#include "kep_pf_rpc.h"

/* Registrations one owner may hold (default KEPD_DEFAULT_REGISTRATIONS). */
void registrySetLimit(int perOwner);
/* One registration of the caller (ops of kep_host.h's "kepd.register"). 0, -1 (a
 * path or argument the tree refuses), or a KEP_HOST_ERR_* code, logged with the
 * caller's pid, uid and the rule. */
int registryApply(const QxImiCaller *caller, const char *op, const char *path, int index, const char *cb);
/* Drops every registration of pid. */
void registryDrop(int pid);
/* Drops the registrations of owners that are gone; returns how many were. */
int registryPrune(void);
/* Fills fds with one descriptor per owner that becomes readable when it exits (where
 * the kernel offers them); returns how many. */
int registryWatchFds(struct pollfd *fds, int max);
/* The modules pid holds anything in, comma-separated, into out ("" for none). */
void registryModulesOf(int pid, char *out, size_t size);
/* Copies out the owners' factory-reset callbacks; returns how many. */
int registryResetters(int *pids, char (*cbs)[68], int max);

#endif
