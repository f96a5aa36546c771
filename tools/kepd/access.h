/*
 * Who may do what with the host, beyond its own user and root (who may do all).
 *
 * Rules come from a folder of JSON files, one per package (default
 * /etc/kep/access.d, flag -a), read once at start. A file holds one rule or an
 * array of rules:
 *   {"user": "dhcp", "own": ["dhcp"], "send": true}
 *   {"group": "kepweb", "send": true}
 * "user" or "group" (a name or a number; exactly one) says whom the rule is for;
 * "own" lists the modules whose tables, sections and actions it may register
 * callbacks for ("*": any); "send" lets it send requests (and read the tree);
 * "reset" lets it start a factory reset. Everything not granted is refused.
 * The folder and its files must belong to root (or the host's user) and be writable
 * by nobody else; a malformed file stops the host at start, with its line and why.
 * Without the folder, only the host's own user and root may connect.
 */
#ifndef KEPD_ACCESS_H
#define KEPD_ACCESS_H

#include "kep_pf_rpc.h"

/* Reads the rules of dir. required: dir was named on the command line, so a missing
 * folder is an error. 0, or -1 after saying why. */
int accessLoad(const char *dir, int required);
/* Whether any rules were read (then other users may connect). */
int accessActive(void);
/* The RPC's peer check: this user, root, or someone a rule names. */
int accessAdmits(const QxImiCaller *peer, void *user);
/* What the peer may do; each is 1 or 0. */
int accessMayOwn(const QxImiCaller *peer, const char *module);
int accessOwnsAny(const QxImiCaller *peer);
int accessMaySend(const QxImiCaller *peer);
int accessMayReset(const QxImiCaller *peer);

#endif
