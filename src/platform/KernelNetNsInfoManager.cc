#include "platform/KernelNetNsInfoManager.h"

#include "mox/Trace.h"

namespace KernelNetNsInfo {

static Mox::TraceHandle th("PlatformKernelNetNs");

Manager::Manager(Mox::Ptr<Root> root) : root_(std::move(root)) {
   MOX_TRACE_FN(th, (root_ ? root_->name() : Mox::Name()));
   handleInitialized();
}

void Manager::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   initializedSet(true);
}

}  // namespace KernelNetNsInfo
