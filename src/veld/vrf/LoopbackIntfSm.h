// Loopback interfaces: creates each configured loopback device in its namespace and
// publishes its status. A placeholder until that work is done: it holds its inputs and its
// standby flag and does nothing.
#pragma once

#include "mox/Clock.h"
#include "mox/Inputs.h"
#include "mox/StateMachine.h"
#include "platform/Interface.h"

namespace Veld {

class LoopbackIntfSm : public Mox::StateMachine {
public:
   // The constructor's inputs, in its order (the standby flag, after
   // loopbackIntfStatusLocalDir, is given apart).
#define VELD_LOOPBACK_INTF_SM_INPUTS(X)                                               \
   X(Mox::Ptr<Interface::LoopbackIntfConfigDir const>, loopbackIntfConfigDir)         \
   X(Mox::Ptr<Interface::AllIntfNamespaceConfigDir const>, allIntfNamespaceConfigDir) \
   X(Mox::Ptr<Interface::LoopbackIntfStatusDir>, loopbackIntfStatusDir)               \
   X(Mox::Ptr<Interface::LoopbackIntfStatusLocalDir>, loopbackIntfStatusLocalDir)     \
   X(Mox::Ptr<Mox::Clock const>, clock)                                               \
   X(Mox::Ptr<Interface::IntfStatusPtrDir>, intfStatusPtrDir)
   struct Inputs {
      MOX_INPUTS(VELD_LOOPBACK_INTF_SM_INPUTS)
   };

   LoopbackIntfSm(Inputs inputs, bool standbyMode);

   Inputs const& inputs() const { return inputs_; }
   bool standbyMode() const { return standbyMode_; }
   void standbyModeIs(bool standbyMode);

   void handleInitialized();

private:
   Inputs const inputs_;
   bool standbyMode_;
};

}  // namespace Veld
