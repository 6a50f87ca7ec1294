#include "veld/vrf/CleanupLoopbackIntfSm.h"

#include "mox/Trace.h"

namespace Veld {

static Mox::TraceHandle th("VeldCleanupLoopback");

CleanupLoopbackIntfSm::CleanupLoopbackIntfSm(
    Mox::Ptr<KernelNetInfo::Status const> kniStatus,
    Mox::Ptr<Interface::LoopbackIntfConfigDir const> loopbackIntfConfigDir, Konet::NamespaceName ns)
    : kniStatus_(std::move(kniStatus)),
      loopbackIntfConfigDir_(std::move(loopbackIntfConfigDir)),
      ns_(std::move(ns)) {
   MOX_TRACE_FN(th, " ns: " << ns_);
   handleInitialized();
}

void CleanupLoopbackIntfSm::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   initializedSet(true);
}

}  // namespace Veld
