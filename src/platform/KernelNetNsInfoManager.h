// Keeps the platform's record of the kernel's network namespaces (KernelNetNsInfo::Root).
// A placeholder until the namespace records are needed: it holds its input and does nothing.
#pragma once

#include "mox/StateMachine.h"
#include "platform/Agent.h"

namespace KernelNetNsInfo {

class Manager : public Mox::StateMachine {
public:
   explicit Manager(Mox::Ptr<Root> root);

   Mox::Ptr<Root> const& root() const { return root_; }

   void handleInitialized();

private:
   Mox::Ptr<Root> const root_;
};

}  // namespace KernelNetNsInfo
