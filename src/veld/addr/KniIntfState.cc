#include "veld/addr/KniIntfState.h"

#include "mox/Trace.h"

namespace Veld {

namespace {
Mox::TraceHandle th("VeldKniIntf");
}

KniIntfState::KniIntfState(KniIntfStateOwner* sm, Mox::Ptr<KernelNetInfo::Root const> kniRoot,
                           KernelNetInfo::Interface const& kniIntf)
    : sm_(sm),
      kniRoot_(std::move(kniRoot)),
      deviceName_(kniIntf.deviceName),
      runningStateChanges_(kniIntf.runningStateChanges),
      running_(kniIntf.running()) {
   MOX_TRACE_FN(th, " for " << deviceName_);
   handleInitialized();
}

void KniIntfState::handleInitialized() {
   MOX_TRACE_FN(th, " for " << deviceName_);
   if (initialized_) return;
   initialized_ = true;
   handleIfName();
   // Flag processing has a single entry point, handleFlags(); for the record this state was
   // made from, nothing changes there.
}

void KniIntfState::scheduleUpdate(std::string const& deviceName) {
   auto const& mgr = sm_->kniIntfStatusManager();
   Konet::IntfId intfId = mgr ? mgr->deviceIntf(deviceName) : Konet::IntfId();
   MOX_TRACE(th, 6, "intfId = " << intfId);
   if (!intfId.empty()) sm_->doScheduleKernelAddrUpdate(intfId);
}

void KniIntfState::handleIfName() {
   MOX_TRACE_FN(th, " for " << deviceName_);
   if (!running_) return;
   MOX_TRACE(th, 6, deviceName_ << " is in running state before it got assigned a name.");
   scheduleUpdate(deviceName_);
}

void KniIntfState::handleFlags(KernelNetInfo::Interface const& rec) {
   auto const& mgr = sm_->kniIntfStatusManager();
   MOX_TRACE_FN(th, " for " << rec.deviceName << " In NS: " << (mgr ? mgr->nsName().name() : ""));
   if (rec.runningStateChanges == runningStateChanges_) return;
   MOX_TRACE(th, 6,
             "running state changed in flags for "
                 << rec.deviceName << " from running " << running_ << " count "
                 << runningStateChanges_ << " to " << rec.flags << " count "
                 << rec.runningStateChanges << ". IFF_RUNNING=" << KernelNetInfo::kIffRunning);
   bool running = rec.flags & KernelNetInfo::kIffRunning;
   // Unsigned: a count that went backwards is a large step too.
   uint32_t advanced = rec.runningStateChanges - runningStateChanges_;
   if (!running || advanced > 1) {
      MOX_TRACE(th, 6, "Flushing V6 addresses");
      if (auto const& map = sm_->addrMap()) map->flushAddr6(rec.key);
   }
   scheduleUpdate(rec.deviceName);
}

void KniIntfState::handleUpdate(KernelNetInfo::Interface const& rec) {
   MOX_TRACE_FN(th, " for " << rec.deviceName);
   handleFlags(rec);
   deviceName_ = rec.deviceName;
   runningStateChanges_ = rec.runningStateChanges;
   running_ = rec.running();
}

}  // namespace Veld
