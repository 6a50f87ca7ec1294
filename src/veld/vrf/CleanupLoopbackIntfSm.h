// Removes, from one namespace, loopback devices that the configuration no longer has,
// reading the namespace's kernel mirror. A placeholder until that work is done: it holds its
// inputs and does nothing.
#pragma once

#include "konet/NamespaceName.h"
#include "mox/StateMachine.h"
#include "platform/Interface.h"
#include "platform/KernelNetInfo.h"

namespace Veld {

class CleanupLoopbackIntfSm : public Mox::StateMachine {
public:
   CleanupLoopbackIntfSm(Mox::Ptr<KernelNetInfo::Status const> kniStatus,
                         Mox::Ptr<Interface::LoopbackIntfConfigDir const> loopbackIntfConfigDir,
                         Konet::NamespaceName ns);

   Mox::Ptr<KernelNetInfo::Status const> const& kniStatus() const { return kniStatus_; }
   Mox::Ptr<Interface::LoopbackIntfConfigDir const> const& loopbackIntfConfigDir() const {
      return loopbackIntfConfigDir_;
   }
   Konet::NamespaceName const& ns() const { return ns_; }

   void handleInitialized();

private:
   Mox::Ptr<KernelNetInfo::Status const> const kniStatus_;
   Mox::Ptr<Interface::LoopbackIntfConfigDir const> const loopbackIntfConfigDir_;
   Konet::NamespaceName const ns_;
};

}  // namespace Veld
