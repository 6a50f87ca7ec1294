// The applications' IPv6 multicast groups (MulticastGroupAppDirSmOf.h has the machine):
// one MulticastGroupAppSm per application of Ip6::MulticastGroupsForApplications, the agent's
// own "veld" first.
//
// Watches the applications and the IPv6 status inputs of ordinary and local interfaces;
// writes the agent's application into the directory, and (through the application machines)
// the `mcaddr` groups of the Ip6::IntfStatus entries.
#pragma once

#include "veld/MulticastGroupAppDirSmOf.h"
#include "veld/ipv6/MulticastGroupAppSm.h"

namespace Veld {

class MulticastGroupAppDirSm
    : public MulticastGroupAppDirSmOf<MulticastGroupFamily6, MulticastGroupAppSm> {
public:
   explicit MulticastGroupAppDirSm(Inputs inputs);
};

}  // namespace Veld
