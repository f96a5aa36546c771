// What the IMI's files share: the handler registry, the runtime folder and socket
// paths, the credentials of a peer, and the serving context of the calling thread.
#pragma once

#include <stdint.h>
#include <sys/un.h>

#include "kep_pf_rpc.h"
#include "pf_api.h"
#include "rpc_wire.h"

namespace kep_pf {

constexpr int kImiLogMid = 112;  // the stand-in RPC's own debug module ("imi")

// ---- handler registry (rpc_registry.cpp) ----

struct Handler {
    char name[kMaxCbName + 1];
    QxImiHandler fn;
    void *user;
};

bool validCb(const char *cb);
// Copies the handler out, so that it runs without the registry's lock held.
bool findHandler(const char *cb, Handler *out);
void resetRegistryInChild();

// ---- runtime folder, sockets, peers (rpc_paths.cpp) ----

// The checked runtime folder in dir (named there also on failure); create makes it
// when missing. 0, QXRPC_ERR_DIR or QXRPC_ERR_ARG.
int runtimeDir(char *dir, size_t size, bool create);
// Fills addr with the socket of pid in the runtime folder. 0 or a QXRPC_ERR_* code.
int socketAddress(int pid, bool create, sockaddr_un *addr);
// Removes the socket file at addr when nobody listens on it and pid is gone.
void removeIfStale(int pid, const sockaddr_un &addr);
// The kernel's credentials of fd's peer (for a connecting socket: the process that
// listened). False when they cannot be read.
bool peerCredentials(int fd, QxImiCaller *out);
// The group named by KEP_RPC_GROUP (a name or a number), whose members may call this
// process besides its own user and root; -1 for none.
int rpcGroup();
// Whether the calling process is a member of group gid, as the kernel lists it now.
bool peerInGroup(const QxImiCaller &peer, int gid);

// ---- serving context (rpc_serve.cpp) ----

// Set on a thread while it runs a handler: who called, and by when the caller needs
// the answer (0: no deadline), from when it was received.
struct ServingContext {
    QxImiCaller caller;
    int64_t deadline;
    int64_t received;
};
const ServingContext *currentServing();
// Runs fn with ctx as the thread's serving context, restoring the previous one.
int runHandler(const Handler &h, QxRpcPara *set, const ServingContext &ctx);
// This process's pid, kept so that a call to ourselves costs no system call.
int selfPid();

// ---- calling (rpc_call.cpp) ----

void resetCallsInChild();

}  // namespace kep_pf
