// Ip6IntfSm: the kernel-work backlog, drained in time-bounded runs inside the VRF's namespace.
#include <vector>

#include "mox/Trace.h"
#include "veld/KernelBacklog.h"
#include "veld/ipv6/Ip6IntfSm.h"

namespace Veld {

namespace {
Mox::TraceHandle th("VeldIp6");
}

Ip6IntfSm::KernelUpdateCodefEntry& Ip6IntfSm::entryFor(Konet::IntfId const& intf) {
   auto [entry, inserted] = ip6IntfKernelUpdateCodefList_.emplace(intf);
   if (inserted) {
      entry->intf = intf;
      if (in_.warpState && ip6IntfKernelUpdateCodefList_.size() == 1) {
         in_.warpState->backlogEmptyIs(warpKey(), false);
      }
   }
   return *entry;
}

void Ip6IntfSm::armBacklogTimer() {
   if (!backlogTimer_ || backlogTimer_->armed()) return;
   backlogTimer_->timeMinIs(Mox::System::currentTime() + backlogRetryDelay_);
}

void Ip6IntfSm::doScheduleKernelAddrUpdate(Konet::IntfId const& intf) {
   MOX_TRACE(th, 7, "doScheduleKernelAddrUpdate for " << intf);
   auto& entry = entryFor(intf);
   entry.addrUpdatePending = true;
   entry.statusUpdatePending = true;
   entry.procUpdatePending = true;
   armBacklogTimer();
}

void Ip6IntfSm::doScheduleKernelProcUpdate(Konet::IntfId const& intf) {
   MOX_TRACE(th, 7, "doScheduleKernelProcUpdate for " << intf);
   entryFor(intf).procUpdatePending = true;
   armBacklogTimer();
}

void Ip6IntfSm::handleBacklogTimer() { processIp6IntfKernelUpdateCodefList(); }

bool Ip6IntfSm::entryFailed(KernelUpdateCodefEntry& entry, int err, double now, char const* what) {
   return backlogEntryFailed(entry, err, now, what, maxKernelUpdateTries_, errors_, th);
}

// The work can add entries to the list, which may move every entry: the entry is looked up
// again after each piece of work.
void Ip6IntfSm::runEntry(Konet::IntfId const& intf) {
   auto& list = ip6IntfKernelUpdateCodefList_;
   if (auto const* entry = list.find(intf); entry && entry->procUpdatePending) {
      int err = doUpdateProc(intf);
      if (auto* e = list.find(intf); e && err == 0) {
         e->procUpdatePending = false;
         e->tries = 0;
      } else if (e && entryFailed(*e, err, Mox::System::currentTime(), "write")) {
         e->procUpdatePending = false;
      }
   }
   if (auto const* entry = list.find(intf); entry && entry->addrUpdatePending) {
      bool again = doUpdateKernelAddrIntf(intf);
      if (auto* e = list.find(intf); e && !again) e->addrUpdatePending = false;
   }
   // The address update writes the status.
   if (auto* e = list.find(intf)) e->statusUpdatePending = e->addrUpdatePending;
}

// Each entry at most once per run, from the bookmark round to it; an entry deferred in a run
// waits for the next one.
void Ip6IntfSm::processIp6IntfKernelUpdateCodefList() {
   MOX_TRACE_FN(th, " vrf " << in_.vrfName << " entries " << ip6IntfKernelUpdateCodefList_.size());
   ++runs_;
   double const start = Mox::System::currentTime();
   auto& list = ip6IntfKernelUpdateCodefList_;
   auto order = backlogRunOrder(list, bookmark_);
   bookmark_.reset();
   BacklogRunNamespace runNs(kernelIo(), nsName());
   for (size_t i = 0; i < order.size(); ++i) {
      if (start + backlogSlice_ <= Mox::System::currentTime()) {
         bookmark_ = order[i];
         break;
      }
      auto* entry = list.find(order[i]);
      if (!entry) continue;
      ++itemsProcessed_;
      {
         auto const* inNs =
             &runNs.enter(entry->tries ? nullptr : "processIp6IntfKernelUpdateCodefList");
         if (inNs->ok()) {
            runEntry(order[i]);
         } else if (entryFailed(*entry, inNs->error(), Mox::System::currentTime(), "setns")) {
            *entry = KernelUpdateCodefEntry{.intf = entry->intf};
         }
      }
      entry = list.find(order[i]);
      if (entry && entry->idle()) list.erase(order[i]);
   }
   if (!list.empty()) {
      backlogTimer_->timeMinIs(Mox::System::currentTime() + backlogRetryDelay_);
      return;
   }
   MOX_TRACE(th, 5, "Backlog queue empty for ip6IntfSm");
   if (in_.warpState) in_.warpState->backlogEmptyIs(warpKey(), true);
   backlogTimer_->timeMinIs(Mox::kInfinity);
}

void Ip6IntfSm::verifyBacklogQueue() {
   MOX_TRACE_FN(th, " vrf " << in_.vrfName);
   if (configIntf_.empty()) {
      MOX_TRACE(th, 5, "No L3 interfaces in ip6IntfSm. Skipping WARP check.");
      if (in_.warpState) in_.warpState->backlogEmptyIs(warpKey(), true);
      return;
   }
   if (in_.warpState) {
      in_.warpState->backlogEmptyIs(warpKey(), ip6IntfKernelUpdateCodefList_.empty());
   }
}

}  // namespace Veld
