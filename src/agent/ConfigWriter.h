// Writes a configuration into the library's inputs and the agent's platform helpers, place
// by place, only where it differs from the configuration written before:
//
//    routing knobs   -> Routing::KernelProtoConfig, Ip::Config (sendRedirects)
//    each VRF        -> Routing::VrfInfoConfigDir, Routing6::VrfInfoConfigDir, VrfNamespaces,
//                       VrfTypes::MultiAgentVrfProtoConfig (its routing daemons)
//    each interface  -> the command line's Ip::Config (IpIntfConfig, with its address
//                       source and lender), Ip6::Config (IntfConfig), L3::Intf::ConfigDir
//                       (its VRF),
//                       IntfStatusPublisher (forwarding model, device)
//
// VRFs are added before the interfaces that use them and removed after. Within an interface
// every setter is silent when its value is unchanged, so a changed secondary notifies that
// secondary only. DHCP clients are DhcpClients' work.
#pragma once

#include "agent/Config.h"
#include "agent/ConfigDiff.h"
#include "agent/Entities.h"
#include "agent/IntfStatusPublisher.h"
#include "agent/VrfNamespaces.h"

namespace VeldAgent {

class ConfigWriter {
public:
   ConfigWriter(Entities& entities, VrfNamespaces& vrfs, IntfStatusPublisher& intfs);

   // Writes what `next` changes relative to the configuration written last (nothing, at
   // first). Returns what changed.
   ConfigDiff apply(Configuration const& next);
   Configuration const& current() const { return current_; }

private:
   void writeRouting(RoutingSettings const& r);
   void writeVrf(L3::VrfName const& name, VrfSettings const& v);
   void removeVrf(L3::VrfName const& name);
   void writeIntf(Konet::IntfId const& id, InterfaceSettings const& s);
   void writeIntf6(Konet::IntfId const& id, Ipv6Settings const& v6,
                   Mox::Ptr<L3::Intf::Config> const& l3);
   void removeIntf(Konet::IntfId const& id, InterfaceSettings const& old);

   Entities& e_;
   VrfNamespaces& vrfs_;
   IntfStatusPublisher& intfs_;
   Configuration current_;
};

}  // namespace VeldAgent
