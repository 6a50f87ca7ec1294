// `veld demo`: the agent on the embedded example configuration, in a sandbox of its own.
//
// The demo moves its process into a private network namespace and a private mount
// namespace with its own /run/netns, so that its VRF namespaces and devices are invisible
// to the host and go with the process whatever happens. There it creates a veth pair for
// each configured device, starts the agent, shows the published status and the kernel's
// addresses, applies a few live changes (a secondary added, an interface moved to another
// VRF, an interface made unrouted), shows the result of each and removes what it made.
#pragma once

#include <string>

namespace VeldAgent {

extern char const* const kDemoConfig;

// Returns the process's exit status.
int runDemo(std::string const& configPath);

}  // namespace VeldAgent
