#include "veld/redundancy/WarpSm.h"

#include "mox/Trace.h"

namespace Veld {

static Mox::TraceHandle th("VeldWarp");

WarpSm::WarpSm(Inputs inputs) : inputs_(std::move(inputs)) {
   MOX_TRACE_FN0(th);
   handleInitialized();
}

void WarpSm::checkCtorParams(Inputs const& current, Inputs const& passed) {
   Mox::checkCtorParam("_ipConfig", current.ipConfig, passed.ipConfig);
   Mox::checkCtorParam("_ipStatus", current.ipStatus, passed.ipStatus);
   Mox::checkCtorParam("_ip6Config", current.ip6Config, passed.ip6Config);
   Mox::checkCtorParam("_ip6Status", current.ip6Status, passed.ip6Status);
   Mox::checkCtorParam("_allIntfStatusDir", current.allIntfStatusDir, passed.allIntfStatusDir);
   Mox::checkCtorParam("_allVrfStatusGlobal", current.allVrfStatusGlobal,
                       passed.allVrfStatusGlobal);
   Mox::checkCtorParam("_agentConfig", current.agentConfig, passed.agentConfig);
   Mox::checkCtorParam("_stagesHelper", current.stagesHelper, passed.stagesHelper);
   Mox::checkCtorParam("_warpState", current.warpState, passed.warpState);
   Mox::checkCtorParam("_clock", current.clock, passed.clock);
}

void WarpSm::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   initializedSet(true);
}

}  // namespace Veld
