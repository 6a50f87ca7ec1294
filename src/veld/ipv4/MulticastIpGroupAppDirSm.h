// The applications' IPv4 multicast groups, the twin of MulticastGroupAppDirSm
// (MulticastGroupAppDirSmOf.h has the machine): one MulticastIpGroupAppSm per application of
// Ip::MulticastGroupsForApplications, the agent's own "veld" first.
//
// Watches the applications and the IPv4 status inputs of ordinary and local interfaces;
// writes the agent's application into the directory, and (through the application machines)
// the `mcaddr` groups of the Ip::IpIntfStatus entries.
#pragma once

#include "veld/MulticastGroupAppDirSmOf.h"
#include "veld/ipv4/MulticastIpGroupAppSm.h"

namespace Veld {

class MulticastIpGroupAppDirSm
    : public MulticastGroupAppDirSmOf<MulticastGroupFamily4, MulticastIpGroupAppSm> {
public:
   explicit MulticastIpGroupAppDirSm(Inputs inputs);
};

}  // namespace Veld
