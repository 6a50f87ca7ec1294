#include "veld/redundancy/WarpSm.h"

#include "mox/Trace.h"

namespace Veld {

static Mox::TraceHandle th("VeldWarp");

WarpSm::WarpSm(Inputs inputs) : inputs_(std::move(inputs)) {
   MOX_TRACE_FN0(th);
   handleInitialized();
}

void WarpSm::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   initializedSet(true);
}

}  // namespace Veld
