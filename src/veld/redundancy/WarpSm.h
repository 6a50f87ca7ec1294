// Fast-upgrade readiness: after a fast reboot, holds back status until the inputs are
// validated and every machine's kernel backlog is empty (WarpState). A placeholder until
// that work is done: it holds its inputs and does nothing.
#pragma once

#include "mox/Clock.h"
#include "mox/Inputs.h"
#include "mox/StateMachine.h"
#include "platform/Agent.h"
#include "platform/Interface.h"
#include "platform/Ip.h"
#include "platform/Ip6.h"
#include "veld/redundancy/WarpState.h"

namespace Veld {

class WarpSm : public Mox::StateMachine {
public:
#define VELD_WARP_SM_INPUTS(X)                                      \
   X(Mox::Ptr<Ip::Config const>, ipConfig)                          \
   X(Mox::Ptr<Ip::Status const>, ipStatus)                          \
   X(Mox::Ptr<Ip6::Config const>, ip6Config)                        \
   X(Mox::Ptr<Ip6::Status const>, ip6Status)                        \
   X(Mox::Ptr<Interface::AllIntfStatusDir const>, allIntfStatusDir) \
   X(Mox::Ptr<Ip::AllVrfStatusGlobal const>, allVrfStatusGlobal)    \
   X(Mox::Ptr<AgentConfig>, agentConfig)                            \
   X(Mox::Ptr<StagesHelper>, stagesHelper)                          \
   X(Mox::Ptr<WarpState>, warpState)                                \
   X(Mox::Ptr<Mox::Clock const>, clock)
   struct Inputs {
      MOX_INPUTS(VELD_WARP_SM_INPUTS)
   };

   explicit WarpSm(Inputs inputs);

   Inputs const& inputs() const { return inputs_; }

   void handleInitialized();

private:
   Inputs const inputs_;
};

}  // namespace Veld
