// Loopback interfaces: creates each configured loopback device in its namespace and
// publishes its status. A placeholder until that work is done: it holds its inputs and its
// standby flag and does nothing.
#pragma once

#include "mox/Clock.h"
#include "mox/StateMachine.h"
#include "platform/Interface.h"

namespace Veld {

class LoopbackIntfSm : public Mox::StateMachine {
public:
   LoopbackIntfSm(Mox::Ptr<Interface::LoopbackIntfConfigDir const> loopbackIntfConfigDir,
                  Mox::Ptr<Interface::AllIntfNamespaceConfigDir const> allIntfNamespaceConfigDir,
                  Mox::Ptr<Interface::LoopbackIntfStatusDir> loopbackIntfStatusDir,
                  Mox::Ptr<Interface::LoopbackIntfStatusLocalDir> loopbackIntfStatusLocalDir,
                  bool standbyMode, Mox::Ptr<Mox::Clock const> clock,
                  Mox::Ptr<Interface::IntfStatusPtrDir> intfStatusPtrDir);

   Mox::Ptr<Interface::LoopbackIntfConfigDir const> const& loopbackIntfConfigDir() const {
      return loopbackIntfConfigDir_;
   }
   Mox::Ptr<Interface::AllIntfNamespaceConfigDir const> const& allIntfNamespaceConfigDir() const {
      return allIntfNamespaceConfigDir_;
   }
   Mox::Ptr<Interface::LoopbackIntfStatusDir> const& loopbackIntfStatusDir() const {
      return loopbackIntfStatusDir_;
   }
   Mox::Ptr<Interface::LoopbackIntfStatusLocalDir> const& loopbackIntfStatusLocalDir() const {
      return loopbackIntfStatusLocalDir_;
   }
   Mox::Ptr<Mox::Clock const> const& clock() const { return clock_; }
   Mox::Ptr<Interface::IntfStatusPtrDir> const& intfStatusPtrDir() const {
      return intfStatusPtrDir_;
   }
   bool standbyMode() const { return standbyMode_; }
   void standbyModeIs(bool standbyMode);

   void handleInitialized();

private:
   Mox::Ptr<Interface::LoopbackIntfConfigDir const> const loopbackIntfConfigDir_;
   Mox::Ptr<Interface::AllIntfNamespaceConfigDir const> const allIntfNamespaceConfigDir_;
   Mox::Ptr<Interface::LoopbackIntfStatusDir> const loopbackIntfStatusDir_;
   Mox::Ptr<Interface::LoopbackIntfStatusLocalDir> const loopbackIntfStatusLocalDir_;
   Mox::Ptr<Mox::Clock const> const clock_;
   Mox::Ptr<Interface::IntfStatusPtrDir> const intfStatusPtrDir_;
   bool standbyMode_;
};

}  // namespace Veld
