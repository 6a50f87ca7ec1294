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
#include "veld/ipv4/IpIntfSm.h"
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

// The IPv4 machine held in `held`: created, or kept with the standby flag pushed into it.
Mox::Ptr<IpIntfSm> ipIntfSmOf(Mox::Ptr<IpIntfSm>& held, IpIntfSm::Inputs const& inputs,
                              bool standbyMode);

}  // namespace Veld
