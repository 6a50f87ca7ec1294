// VRF configuration to VRF status: creates each configured VRF and its namespace and
// publishes the VRFs' global and local status. A placeholder until that work is done: it
// holds its inputs and its standby flag and does nothing.
#pragma once

#include "mox/Bolt.h"
#include "mox/Dir.h"
#include "mox/Inputs.h"
#include "mox/StateMachine.h"
#include "platform/Agent.h"
#include "platform/Interface.h"
#include "platform/Ip.h"
#include "platform/L3.h"
#include "veld/redundancy/SsoConfig.h"

namespace Veld {

class AllVrfSm : public Mox::StateMachine {
public:
   // The constructor's inputs, in its order (the standby flag, after
   // multiAgentVrfProtoConfig, is given apart). The VRF machines' mount points are in the
   // agent's order; what each holds is settled with the VRF machines.
#define VELD_ALL_VRF_SM_INPUTS(X)                                                  \
   X(Mox::Ptr<Ip::AllVrfConfig const>, allVrfConfig)                               \
   X(Mox::Ptr<Ip::AllVrfStatusGlobal>, allVrfStatusGlobal)                         \
   X(Mox::Ptr<Ip::AllVrfStatusLocal>, allVrfStatusLocal)                           \
   X(Mox::Ptr<Interface::AllIntfStatusLocalDir>, allIntfStatusLocalDir)            \
   X(Mox::Ptr<Konet::NamespaceStatusLocalDir>, namespaceStatusLocalDir)            \
   X(Mox::Ptr<L3::Intf::ConfigDir const>, l3IntfConfigDir)                         \
   X(Mox::Ptr<Ip::VrfCapability const>, vrfCapability)                             \
   X(Mox::Ptr<VrfTypes::MultiAgentVrfProtoConfig const>, multiAgentVrfProtoConfig) \
   X(Mox::Ptr<SsoConfig const>, ssoConfig)                                         \
   X(Mox::Ptr<StagesHelper>, stagesHelper)                                         \
   X(Mox::Ptr<Agent::StartupModeStatus const>, startupModeStatus)                  \
   X(Mox::Ptr<Mox::Dir>, mountDir1)                                                \
   X(Mox::Ptr<Mox::Dir>, mountDir2)                                                \
   X(Mox::Ptr<Mox::Dir const>, mountDir3)                                          \
   X(Mox::Ptr<Mox::Dir>, mountDir4)                                                \
   X(Mox::Ptr<Mox::Dir>, mountDir5)                                                \
   X(Mox::Ptr<Mox::Dir>, mountDir6)                                                \
   X(Mox::Ptr<Mox::Dir>, mountDir7)                                                \
   X(Mox::Ptr<Mox::Dir const>, mountDir8)                                          \
   X(Mox::Ptr<Mox::Dir const>, mountDir9)                                          \
   X(Mox::Ptr<Mox::Dir const>, mountDir10)                                         \
   X(Mox::Ptr<Mox::Dir const>, mountDir11)                                         \
   X(Mox::Ptr<Vrf::VrfIdMap::Status>, vrfIdMapStatus)                              \
   X(Mox::Ptr<Vrf::VrfIdMap::NameToIdMapWrapper>, vrfNameToIdMap)                  \
   X(Mox::Ptr<L3::Config const>, l3Config)                                         \
   X(Mox::Ptr<Bolt::TaskScheduler>, scheduler)
   struct Inputs {
      MOX_INPUTS(VELD_ALL_VRF_SM_INPUTS)
   };

   AllVrfSm(Inputs inputs, bool standbyMode);

   Inputs const& inputs() const { return inputs_; }

   bool standbyMode() const { return standbyMode_; }
   void standbyModeIs(bool standbyMode);

   void handleInitialized();

private:
   Inputs const inputs_;
   bool standbyMode_;
};

}  // namespace Veld
