#include "veld/vrf/LoopbackIntfSm.h"

#include "mox/Trace.h"

namespace Veld {

static Mox::TraceHandle th("VeldLoopback");

LoopbackIntfSm::LoopbackIntfSm(Inputs inputs, bool standbyMode)
    : inputs_(std::move(inputs)), standbyMode_(standbyMode) {
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
