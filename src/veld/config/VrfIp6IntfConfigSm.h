// Splits the IPv6 interface configuration by VRF: puts each Ip6::IntfConfig of
// Ip6::Config::intf into the VrfIp6IntfConfig view of the VRF that its L3 configuration
// names, and takes it out again when it leaves or moves (VrfIntfConfigSmOf.h has the states
// and rules). One instance for the agent, made by the agent root.
#pragma once

#include <vector>

#include "mox/Trace.h"
#include "platform/Ip6.h"
#include "veld/config/VrfIntfConfigSmOf.h"
#include "veld/config/VrfIp6IntfConfig.h"

namespace Veld {

struct VrfIp6IntfConfigFamily {
   using Config = Ip6::Config;
   using IntfConfig = Ip6::IntfConfig;
   using View = VrfIp6IntfConfig;
   using ViewDir = VrfIp6IntfConfigDir;

   template <class Sm>
   class MoxConfig : public Mox::Reactor<Sm, Ip6::Config::NotifieeConst> {
   public:
      using Mox::Reactor<Sm, Ip6::Config::NotifieeConst>::Reactor;
      void onIntf(Konet::IntfId const& intf) override { this->owner()->handleIpIntfConfig(intf); }
   };
   static Mox::Ptr<IntfConfig> intfConfig(Config const& config, Konet::IntfId const& intf) {
      return config.intf(intf);
   }
   static std::vector<Konet::IntfId> intfs(Config const& config) {
      return config.intfIterator().keys();
   }

   static Mox::TraceHandle th;
   static constexpr bool kNamesIntf = false;
   static constexpr char kNoL3Config[] = "No l3Config";
   static constexpr char kVrfNotSet[] = "l3Config()->vrf is not set";
   static constexpr char kNoView[] = "VrfIpIntfConfig is NULL";
   static constexpr char kAdded[] = "Added ip6IntfConfig ";
   static constexpr char kRemoved[] = "Removed ip6IntfConfig ";
   static constexpr char kChildMutator[] = "Veld::VrfIp6IntfConfigSm::ipIntfConfig";
};

class VrfIp6IntfConfigSm : public VrfIntfConfigSmOf<VrfIp6IntfConfigFamily> {
public:
   using VrfIntfConfigSmOf::VrfIntfConfigSmOf;
};

Mox::Ptr<VrfIp6IntfConfigSm> VrfIp6IntfConfigSmIs(
    Mox::Ptr<Ip6::Config const> ip6Config, Mox::Ptr<VrfIp6IntfConfigDir> vrfIp6IntfConfigDir);

}  // namespace Veld
