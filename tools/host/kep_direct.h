/*
 * The direct route: a long-lived client (a gateway, an agent, a C program) takes the
 * host's tree with all its registrations into its own process once, then serves each
 * request itself, with standardKepReqHandle, calling the owners in one hop instead of
 * two. Answers, error codes and the callbacks called are those of the host.
 *
 * Staying in step: before each request the client reads the host's state file (two
 * loads from a shared page); when the host restarted or any registration changed
 * since the copy was taken, the copy is taken again first. A request whose one call
 * found nobody serving the owner's pid (nothing ran) is tried once more after taking
 * the copy again; a request that may have changed anything is never repeated. When
 * the host's model differs from the copy (a host restarted with other descriptions)
 * or the copy cannot be taken, requests go through the host instead.
 *
 * While anybody watches the host's traffic (kepctl monitor), requests go through the
 * host, so that the watchers see them too; so they do while a change set lives, whose
 * modules the host keeps from other writes. Each check is one load from the state file.
 *
 * This process's own tree (getModulerRoot) holds the copy: a process that uses the
 * direct route must not build or register a tree of its own. Thread-safe: requests
 * may run on several threads at once; taking a new copy waits for those running.
 * The caller must be allowed to call the owners directly (by default: the owners'
 * own user, or root; an owner built on the kit admits the members of its RPC group
 * to its reads only).
 */
#ifndef KEP_DIRECT_H
#define KEP_DIRECT_H

#ifdef __cplusplus
extern "C" {
#endif

/* Takes the host's tree. 0, or the host's or RPC's nonzero code (no host, refused). */
int kepDirectOpen(void);
/* Serves one request as kepHostRequest would; *response: malloc'd response text. */
int kepDirectRequest(const char *request, char **response);
/* The same for a process that relays other people's requests: user names whom this
 * one is for, shown to the host's watchers when the request goes through the host
 * (see kepHostRequestFor). */
int kepDirectRequestFor(const char *user, const char *request, char **response);
/* How many times the copy has been taken since kepDirectOpen (for tests and tools). */
unsigned kepDirectRefreshes(void);
/* Stops using the direct route; later requests go through the host. */
void kepDirectClose(void);

#ifdef __cplusplus
}
#endif

#endif
