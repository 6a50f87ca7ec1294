#include "veld/vrf/LoopbackIntfSm.h"

#include "mox/Trace.h"

namespace Veld {

static Mox::TraceHandle th("VeldLoopback");

LoopbackIntfSm::LoopbackIntfSm(
    Mox::Ptr<Interface::LoopbackIntfConfigDir const> loopbackIntfConfigDir,
    Mox::Ptr<Interface::AllIntfNamespaceConfigDir const> allIntfNamespaceConfigDir,
    Mox::Ptr<Interface::LoopbackIntfStatusDir> loopbackIntfStatusDir,
    Mox::Ptr<Interface::LoopbackIntfStatusLocalDir> loopbackIntfStatusLocalDir, bool standbyMode,
    Mox::Ptr<Mox::Clock const> clock, Mox::Ptr<Interface::IntfStatusPtrDir> intfStatusPtrDir)
    : loopbackIntfConfigDir_(std::move(loopbackIntfConfigDir)),
      allIntfNamespaceConfigDir_(std::move(allIntfNamespaceConfigDir)),
      loopbackIntfStatusDir_(std::move(loopbackIntfStatusDir)),
      loopbackIntfStatusLocalDir_(std::move(loopbackIntfStatusLocalDir)),
      clock_(std::move(clock)),
      intfStatusPtrDir_(std::move(intfStatusPtrDir)),
      standbyMode_(standbyMode) {
   MOX_TRACE_FN(th, " standbyMode " << standbyMode_);
   handleInitialized();
}

void LoopbackIntfSm::standbyModeIs(bool standbyMode) {
   MOX_TRACE_FN(th, standbyMode);
   standbyMode_ = standbyMode;
}

void LoopbackIntfSm::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   initializedSet(true);
}

}  // namespace Veld
