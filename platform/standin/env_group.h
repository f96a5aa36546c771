// A group named in the environment, by number or by name: the group the runtime
// folder and sockets (KEP_RPC_GROUP) or the configuration files (KEP_CONFIG_GROUP)
// are shared with.
#pragma once

namespace kep_pf {

// Set in the environment, but naming no group.
constexpr int kNoSuchGroup = -3;

// The gid variable gives; -1 when it is unset or empty, kNoSuchGroup when it names no
// group (the caller says what that means for it).
int groupNamedBy(const char *variable);

}  // namespace kep_pf
