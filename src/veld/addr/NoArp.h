// The IFF_NOARP flag of a device, decided in one place for both address families.
//
// ARP is a property of the device, not of a family, while the IPv4 and the IPv6
// configuration of an interface may each ask for no ARP. Both interface machines of a
// namespace program the flag, each from its own backlog, and each through doUpdateNoArp
// with the configurations of both families: the flag is set while either family's
// configuration of the routed interface asks for no ARP, and cleared when neither does. So
// the two machines always want the same value and never undo each other's work.
#pragma once

#include <cstdint>
#include <string>

#include "platform/Interface.h"
#include "platform/Ip.h"
#include "platform/Ip6.h"
#include "platform/KernelNetInfo.h"
#include "veld/KernelIo.h"

namespace Veld {

// Whether the device goes without ARP: `ipConfig` and `ip6Config` are the interface's
// configurations in the VRF of the machine that asks (null when the family has none there),
// `intfStatus` its status (a device that is not routed keeps ARP).
bool noArpWanted(Interface::IntfStatus const* intfStatus, Ip::IpIntfConfig const* ipConfig,
                 Ip6::IntfConfig const* ip6Config);

// Brings the device's flag in line with `noArp` through the netlink socket; nothing is sent
// when the kernel's record already agrees. A failure is logged ("Failed to change IFF_NOARP
// of <device> to enabled|disabled") and its error returned; 0 otherwise.
int doUpdateNoArp(KernelIo& io, int sock, KernelNetInfo::Interface const& kniIntf, bool noArp);

}  // namespace Veld
