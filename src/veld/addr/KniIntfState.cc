#include "veld/addr/KniIntfState.h"

#include "mox/Trace.h"

namespace Veld {

namespace {
Mox::TraceHandle th("VeldKniIntf");
}

KniIntfState::KniIntfState(KniIntfStateOwner* sm, Mox::Ptr<KernelNetInfo::Root const> kniRoot,
                           KernelNetInfo::Interface const& kniIntf)
    : sm_(sm), kniRoot_(std::move(kniRoot)), kniIntf_(kniIntf) {
   MOX_TRACE_FN(th, " for " << kniIntf_.deviceName);
   handleInitialized();
}

void KniIntfState::handleInitialized() {
   MOX_TRACE_FN(th, " for " << kniIntf_.deviceName);
   if (initialized_) return;
   initialized_ = true;
   handleIfName();
   handleFlags(kniIntf_);  // the single entry point for flag processing; nothing changes here
}

void KniIntfState::scheduleUpdate(std::string const& deviceName) {
   auto const& mgr = sm_->kniIntfStatusManager();
   Konet::IntfId intfId = mgr ? mgr->deviceIntf(deviceName) : Konet::IntfId();
   MOX_TRACE(th, 6, "intfId = " << intfId);
   if (!intfId.empty()) sm_->doScheduleKernelAddrUpdate(intfId);
}

void KniIntfState::handleIfName() {
   MOX_TRACE_FN(th, " for " << kniIntf_.deviceName);
   if (!(kniIntf_.flags & KernelNetInfo::kIffRunning)) return;
   MOX_TRACE(th, 6, kniIntf_.deviceName << " is in running state before it got assigned a name.");
   scheduleUpdate(kniIntf_.deviceName);
}

void KniIntfState::handleFlags(KernelNetInfo::Interface const& rec) {
   auto const& mgr = sm_->kniIntfStatusManager();
   MOX_TRACE_FN(th, " for " << rec.deviceName << " In NS: " << (mgr ? mgr->nsName().name() : ""));
   if (rec.runningStateChanges == kniIntf_.runningStateChanges) return;
   MOX_TRACE(th, 6,
             "running state changed in flags for "
                 << rec.deviceName << " from " << kniIntf_.flags << " count "
                 << kniIntf_.runningStateChanges << " to " << rec.flags << " count "
                 << rec.runningStateChanges << ". IFF_RUNNING=" << KernelNetInfo::kIffRunning);
   bool running = rec.flags & KernelNetInfo::kIffRunning;
   // Unsigned: a count that went backwards is a large step too.
   uint32_t advanced = rec.runningStateChanges - kniIntf_.runningStateChanges;
   if (!running || advanced > 1) {
      MOX_TRACE(th, 6, "Flushing V6 addresses");
      if (auto const& map = sm_->addrMap()) map->flushAddr6(rec.key);
   }
   scheduleUpdate(rec.deviceName);
}

void KniIntfState::handleUpdate(KernelNetInfo::Interface const& rec) {
   MOX_TRACE_FN(th, " for " << rec.deviceName);
   handleFlags(rec);
   kniIntf_ = rec;
}

}  // namespace Veld
