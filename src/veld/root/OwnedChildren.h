// The create-or-update rule for the children that the agent root and the VRF roots own.
//
// xIs on a child that exists returns it, provided every constructor parameter passed equals
// the child's (else the name-in-use error); a new machine is made delivering from the start.
// xDel stops the child's reactors at once and lets it go.
#pragma once

#include <utility>

#include "konet/NamespaceName.h"
#include "mox/StateMachine.h"
#include "platform/Interface.h"
#include "platform/KernelNetInfo.h"
#include "veld/addr/AddrMap.h"
#include "veld/addr/AddrMappingSm.h"
#include "veld/vrf/CleanupLoopbackIntfSm.h"

namespace Veld {

template <class T, class... Args>
Mox::Ptr<T> makeMachine(Args&&... args) {
   auto sm = Mox::make<T>(std::forward<Args>(args)...);
   sm->hasNotificationActiveIs(true);
   return sm;
}

template <class T>
void releaseMachine(Mox::Ptr<T>& sm) {
   if (sm) sm->moxDoZombieReactors(true);
   sm = nullptr;
}

Mox::Ptr<AddrMappingSm> addrMapSmOf(Mox::Ptr<AddrMappingSm>& held,
                                    Mox::Ptr<KernelNetInfo::Status const> const& kniStatus,
                                    Mox::Ptr<AddrMap> const& addrMap);

Mox::Ptr<CleanupLoopbackIntfSm> cleanupLoopbackIntfSmOf(
    Mox::Ptr<CleanupLoopbackIntfSm>& held, Mox::Ptr<KernelNetInfo::Status const> const& kniStatus,
    Mox::Ptr<Interface::LoopbackIntfConfigDir const> const& loopbackIntfConfigDir,
    Konet::NamespaceName const& ns);

// The machine held in `held`, for a machine whose constructor takes its Inputs (and the
// standby flag, for those that have one): created, or kept when built from the same inputs,
// with the standby flag pushed into it.
template <class T>
Mox::Ptr<T> machineOf(Mox::Ptr<T>& held, typename T::Inputs const& inputs) {
   if (held) {
      T::Inputs::checkCtorParams(held->inputs(), inputs);
      return held;
   }
   held = makeMachine<T>(inputs);
   return held;
}

template <class T>
Mox::Ptr<T> machineOf(Mox::Ptr<T>& held, typename T::Inputs const& inputs, bool standbyMode) {
   if (held) {
      T::Inputs::checkCtorParams(held->inputs(), inputs);
      held->standbyModeIs(standbyMode);
      return held;
   }
   held = makeMachine<T>(inputs, standbyMode);
   return held;
}

// The view machine of one address family held in `held`: created with its factory (its
// views delivering from the start), or kept when built from the same configuration and
// directory of views.
template <class Sm, class Config, class ViewDir>
Mox::Ptr<Sm> viewSmOf(Mox::Ptr<Sm>& held, Mox::Ptr<Config const> const& config,
                      Mox::Ptr<ViewDir> const& viewDir,
                      Mox::Ptr<Sm> (*factory)(Mox::Ptr<Config const>, Mox::Ptr<ViewDir>)) {
   if (held) {
      Mox::checkCtorParam("_ipConfig", held->ipConfig(), config);
      Mox::checkCtorParam("_vrfIpIntfConfigDir", held->vrfIpIntfConfigDir(), viewDir);
      return held;
   }
   held = factory(config, viewDir);
   held->hasNotificationActiveIs(true);
   return held;
}

// A status aggregator held in `held`: created, or re-pointed to a new directory of inputs.
template <class T, class InputDir, class... Rest>
Mox::Ptr<T> aggregatorOf(Mox::Ptr<T>& held, InputDir const& inputStatusDir, Rest const&... rest) {
   if (held) {
      held->notifierIs(inputStatusDir);
      return held;
   }
   held = makeMachine<T>(inputStatusDir, rest...);
   return held;
}

}  // namespace Veld
