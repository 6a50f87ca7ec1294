// Fast-upgrade readiness: after a fast reboot, holds back status until the inputs are
// validated and every machine's kernel backlog is empty (WarpState). A placeholder until
// that work is done: it holds its inputs and does nothing.
#pragma once

#include "mox/Clock.h"
#include "mox/StateMachine.h"
#include "platform/Agent.h"
#include "platform/Interface.h"
#include "platform/Ip.h"
#include "platform/Ip6.h"
#include "veld/redundancy/WarpState.h"

namespace Veld {

class WarpSm : public Mox::StateMachine {
public:
   struct Inputs {
      Mox::Ptr<Ip::Config const> ipConfig;
      Mox::Ptr<Ip::Status const> ipStatus;
      Mox::Ptr<Ip6::Config const> ip6Config;
      Mox::Ptr<Ip6::Status const> ip6Status;
      Mox::Ptr<Interface::AllIntfStatusDir const> allIntfStatusDir;
      Mox::Ptr<Ip::AllVrfStatusGlobal const> allVrfStatusGlobal;
      Mox::Ptr<AgentConfig> agentConfig;
      Mox::Ptr<StagesHelper> stagesHelper;
      Mox::Ptr<WarpState> warpState;
      Mox::Ptr<Mox::Clock const> clock;
   };

   explicit WarpSm(Inputs inputs);

   Inputs const& inputs() const { return inputs_; }
   // The create-or-update rule: an existing machine is kept only for the same inputs.
   static void checkCtorParams(Inputs const& current, Inputs const& passed);

   void handleInitialized();

private:
   Inputs const inputs_;
};

}  // namespace Veld
