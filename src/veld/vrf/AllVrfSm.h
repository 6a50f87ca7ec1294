// VRF configuration to VRF status: creates each configured VRF and its namespace and
// publishes the VRFs' global and local status. A placeholder until that work is done: it
// holds its inputs and its standby flag and does nothing.
#pragma once

#include "mox/Bolt.h"
#include "mox/Dir.h"
#include "mox/StateMachine.h"
#include "platform/Agent.h"
#include "platform/Interface.h"
#include "platform/Ip.h"
#include "platform/L3.h"
#include "veld/redundancy/SsoConfig.h"

namespace Veld {

class AllVrfSm : public Mox::StateMachine {
public:
   struct Inputs {
      Mox::Ptr<Ip::AllVrfConfig const> allVrfConfig;
      Mox::Ptr<Ip::AllVrfStatusGlobal> allVrfStatusGlobal;
      Mox::Ptr<Ip::AllVrfStatusLocal> allVrfStatusLocal;
      Mox::Ptr<Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir;
      Mox::Ptr<Konet::NamespaceStatusLocalDir> namespaceStatusLocalDir;
      Mox::Ptr<L3::Intf::ConfigDir const> l3IntfConfigDir;
      Mox::Ptr<Ip::VrfCapability const> vrfCapability;
      Mox::Ptr<VrfTypes::MultiAgentVrfProtoConfig const> multiAgentVrfProtoConfig;
      Mox::Ptr<SsoConfig const> ssoConfig;
      Mox::Ptr<StagesHelper> stagesHelper;
      Mox::Ptr<Agent::StartupModeStatus const> startupModeStatus;
      // The VRF machines' mount points, in the agent's order; what each holds is settled
      // with the VRF machines.
      Mox::Ptr<Mox::Dir> mountDir1;
      Mox::Ptr<Mox::Dir> mountDir2;
      Mox::Ptr<Mox::Dir const> mountDir3;
      Mox::Ptr<Mox::Dir> mountDir4;
      Mox::Ptr<Mox::Dir> mountDir5;
      Mox::Ptr<Mox::Dir> mountDir6;
      Mox::Ptr<Mox::Dir> mountDir7;
      Mox::Ptr<Mox::Dir const> mountDir8;
      Mox::Ptr<Mox::Dir const> mountDir9;
      Mox::Ptr<Mox::Dir const> mountDir10;
      Mox::Ptr<Mox::Dir const> mountDir11;
      Mox::Ptr<Vrf::VrfIdMap::Status> vrfIdMapStatus;
      Mox::Ptr<Vrf::VrfIdMap::NameToIdMapWrapper> vrfNameToIdMap;
      Mox::Ptr<L3::Config const> l3Config;
      Mox::Ptr<Bolt::TaskScheduler> scheduler;
   };

   AllVrfSm(Inputs inputs, bool standbyMode);

   Inputs const& inputs() const { return inputs_; }
   // The create-or-update rule: an existing machine is kept only for the same inputs.
   static void checkCtorParams(Inputs const& current, Inputs const& passed);

   bool standbyMode() const { return standbyMode_; }
   void standbyModeIs(bool standbyMode);

   void handleInitialized();

private:
   Inputs const inputs_;
   bool standbyMode_;
};

}  // namespace Veld
