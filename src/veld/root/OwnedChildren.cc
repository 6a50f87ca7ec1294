#include "veld/root/OwnedChildren.h"

namespace Veld {

Mox::Ptr<AddrMappingSm> addrMapSmOf(Mox::Ptr<AddrMappingSm>& held,
                                    Mox::Ptr<KernelNetInfo::Status const> const& kniStatus,
                                    Mox::Ptr<AddrMap> const& addrMap) {
   if (held) {
      Mox::checkCtorParam("_kniStatus", held->kniStatus(), kniStatus);
      Mox::checkCtorParam("_addrMap", held->addrMap(), addrMap);
      return held;
   }
   held = AddrMappingSmIs(kniStatus, addrMap);
   held->hasNotificationActiveIs(true);
   return held;
}

Mox::Ptr<CleanupLoopbackIntfSm> cleanupLoopbackIntfSmOf(
    Mox::Ptr<CleanupLoopbackIntfSm>& held, Mox::Ptr<KernelNetInfo::Status const> const& kniStatus,
    Mox::Ptr<Interface::LoopbackIntfConfigDir const> const& loopbackIntfConfigDir,
    Konet::NamespaceName const& ns) {
   if (held) {
      Mox::checkCtorParam("_kniStatus", held->kniStatus(), kniStatus);
      Mox::checkCtorParam("_loopbackIntfConfigDir", held->loopbackIntfConfigDir(),
                          loopbackIntfConfigDir);
      Mox::checkCtorParam("_ns", held->ns(), ns);
      return held;
   }
   held = makeMachine<CleanupLoopbackIntfSm>(kniStatus, loopbackIntfConfigDir, ns);
   return held;
}

}  // namespace Veld
