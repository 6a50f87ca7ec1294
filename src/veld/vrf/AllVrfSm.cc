#include "veld/vrf/AllVrfSm.h"

#include "mox/Trace.h"

namespace Veld {

static Mox::TraceHandle th("VeldAllVrf");

AllVrfSm::AllVrfSm(Inputs inputs, bool standbyMode)
    : inputs_(std::move(inputs)), standbyMode_(standbyMode) {
   MOX_TRACE_FN(th, " standbyMode " << standbyMode_);
   handleInitialized();
}

void AllVrfSm::checkCtorParams(Inputs const& current, Inputs const& passed) {
   using Mox::checkCtorParam;
   checkCtorParam("_allVrfConfig", current.allVrfConfig, passed.allVrfConfig);
   checkCtorParam("_allVrfStatusGlobal", current.allVrfStatusGlobal, passed.allVrfStatusGlobal);
   checkCtorParam("_allVrfStatusLocal", current.allVrfStatusLocal, passed.allVrfStatusLocal);
   checkCtorParam("_allIntfStatusLocalDir", current.allIntfStatusLocalDir,
                  passed.allIntfStatusLocalDir);
   checkCtorParam("_namespaceStatusLocalDir", current.namespaceStatusLocalDir,
                  passed.namespaceStatusLocalDir);
   checkCtorParam("_l3IntfConfigDir", current.l3IntfConfigDir, passed.l3IntfConfigDir);
   checkCtorParam("_vrfCapability", current.vrfCapability, passed.vrfCapability);
   checkCtorParam("_multiAgentVrfProtoConfig", current.multiAgentVrfProtoConfig,
                  passed.multiAgentVrfProtoConfig);
   checkCtorParam("_ssoConfig", current.ssoConfig, passed.ssoConfig);
   checkCtorParam("_stagesHelper", current.stagesHelper, passed.stagesHelper);
   checkCtorParam("_startupModeStatus", current.startupModeStatus, passed.startupModeStatus);
   checkCtorParam("_mountDir1", current.mountDir1, passed.mountDir1);
   checkCtorParam("_mountDir2", current.mountDir2, passed.mountDir2);
   checkCtorParam("_mountDir3", current.mountDir3, passed.mountDir3);
   checkCtorParam("_mountDir4", current.mountDir4, passed.mountDir4);
   checkCtorParam("_mountDir5", current.mountDir5, passed.mountDir5);
   checkCtorParam("_mountDir6", current.mountDir6, passed.mountDir6);
   checkCtorParam("_mountDir7", current.mountDir7, passed.mountDir7);
   checkCtorParam("_mountDir8", current.mountDir8, passed.mountDir8);
   checkCtorParam("_mountDir9", current.mountDir9, passed.mountDir9);
   checkCtorParam("_mountDir10", current.mountDir10, passed.mountDir10);
   checkCtorParam("_mountDir11", current.mountDir11, passed.mountDir11);
   checkCtorParam("_vrfIdMapStatus", current.vrfIdMapStatus, passed.vrfIdMapStatus);
   checkCtorParam("_vrfNameToIdMap", current.vrfNameToIdMap, passed.vrfNameToIdMap);
   checkCtorParam("_l3Config", current.l3Config, passed.l3Config);
   checkCtorParam("_scheduler", current.scheduler, passed.scheduler);
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
