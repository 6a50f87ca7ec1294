// Splits the IPv4 interface configuration by VRF: puts each Ip::IpIntfConfig of
// Ip::Config::ipIntfConfig into the VrfIpIntfConfig view of the VRF that its L3
// configuration names, and takes it out again when it leaves or moves (VrfIntfConfigSmOf.h
// has the states and rules). One instance for the agent, made by the agent root.
#pragma once

#include <vector>

#include "mox/Trace.h"
#include "platform/Ip.h"
#include "veld/config/VrfIntfConfigSmOf.h"
#include "veld/config/VrfIpIntfConfig.h"

namespace Veld {

struct VrfIpIntfConfigFamily {
   using Config = Ip::Config;
   using IntfConfig = Ip::IpIntfConfig;
   using View = VrfIpIntfConfig;
   using ViewDir = VrfIpIntfConfigDir;

   template <class Sm>
   class MoxConfig : public Mox::Reactor<Sm, Ip::Config::NotifieeConst> {
   public:
      using Mox::Reactor<Sm, Ip::Config::NotifieeConst>::Reactor;
      void onIpIntfConfig(Konet::IntfId const& intf) override {
         this->owner()->handleIpIntfConfig(intf);
      }
   };
   static Mox::Ptr<IntfConfig> intfConfig(Config const& config, Konet::IntfId const& intf) {
      return config.ipIntfConfig(intf);
   }
   static std::vector<Konet::IntfId> intfs(Config const& config) {
      return config.ipIntfConfigIterator().keys();
   }

   static Mox::TraceHandle th;
   static constexpr bool kNamesIntf = true;
   static constexpr char kNoL3Config[] = "No l3Config for intf ";
   static constexpr char kVrfNotSet[] = "l3Config()->vrf is not set for intf ";
   static constexpr char kNoView[] = "VrfIpIntfConfig is NULL for intf ";
   static constexpr char kAdded[] = "Added ipIntfConfig ";
   static constexpr char kRemoved[] = "Removed ipIntfConfig ";
   static constexpr char kChildMutator[] = "Veld::VrfIpIntfConfigSm::ipIntfConfig";
};

class VrfIpIntfConfigSm : public VrfIntfConfigSmOf<VrfIpIntfConfigFamily> {
public:
   using VrfIntfConfigSmOf::VrfIntfConfigSmOf;
};

Mox::Ptr<VrfIpIntfConfigSm> VrfIpIntfConfigSmIs(Mox::Ptr<Ip::Config const> ipConfig,
                                                Mox::Ptr<VrfIpIntfConfigDir> vrfIpIntfConfigDir);

}  // namespace Veld
