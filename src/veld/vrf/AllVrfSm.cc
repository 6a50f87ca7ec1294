#include "veld/vrf/AllVrfSm.h"

#include "mox/Trace.h"

namespace Veld {

static Mox::TraceHandle th("VeldAllVrf");

AllVrfSm::AllVrfSm(Inputs inputs, bool standbyMode)
    : inputs_(std::move(inputs)), standbyMode_(standbyMode) {
   MOX_TRACE_FN(th, " standbyMode " << standbyMode_);
   handleInitialized();
}

void AllVrfSm::standbyModeIs(bool standbyMode) {
   MOX_TRACE_FN(th, standbyMode);
   standbyMode_ = standbyMode;
}

void AllVrfSm::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   initializedSet(true);
}

}  // namespace Veld
