// IpIntfSm: the kernel-work backlog, drained in time-bounded runs inside the VRF's namespace.
#include <algorithm>

#include "mox/Trace.h"
#include "veld/KernelBacklog.h"
#include "veld/ipv4/IpIntfConfigReactors.h"
#include "veld/ipv4/IpIntfSm.h"
#include "veld/redundancy/WarpState.h"

namespace Veld {

namespace {
Mox::TraceHandle th("Veld");
}

IpIntfSm::KernelUpdateCodefEntry& IpIntfSm::entryFor(Konet::IntfId const& intf) {
   auto [entry, inserted] = ipIntfKernelUpdateCodefList_.emplace(intf);
   if (inserted) {
      entry->intf = intf;
      if (in_.warpState && ipIntfKernelUpdateCodefList_.size() == 1) {
         in_.warpState->backlogEmptyIs(warpKey(), false);
      }
   }
   return *entry;
}

void IpIntfSm::armBacklogTimer() {
   if (!backlogTimer_) return;
   double due = Mox::System::currentTime() + backlogRetryDelay_;
   if (backlogTimer_->armed() && backlogTimer_->timeMin() <= due) return;
   backlogTimer_->timeMinIs(due);
}

double IpIntfSm::backlogTimerTime() const {
   return backlogTimer_ ? backlogTimer_->timeMin() : Mox::kInfinity;
}

void IpIntfSm::doScheduleKernelAddrUpdate(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   auto& entry = entryFor(intf);
   entry.addrUpdatePending = true;
   entry.notBefore = 0.0;  // a change of ours is never held back
   armBacklogTimer();
}

void IpIntfSm::doScheduleKernelProcUpdate(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   auto& entry = entryFor(intf);
   entry.procUpdatePending = true;
   entry.notBefore = 0.0;
   armBacklogTimer();
}

// Drift is repaired at once. When it comes back while the last repair is recent, something
// keeps fighting the configuration: each repair then waits twice as long as the one before,
// up to driftRepairDelayMax, and the fight is logged once. A quiet spell ends it.
void IpIntfSm::scheduleDriftRepair(Konet::IntfId const& intf) {
   if (auto const* entry = ipIntfKernelUpdateCodef(intf); entry && entry->addrUpdatePending) {
      return;  // a repair is on its way already
   }
   constexpr double kFirstBackOff = 0.05;
   constexpr double kQuiet = 2 * driftRepairDelayMax;
   double now = Mox::System::currentTime();
   auto [d, fresh] = driftRepair_.emplace(intf);
   if (fresh || now - d->last > kQuiet) {
      *d = DriftRepair();
   } else {
      d->delay = d->delay == 0.0 ? kFirstBackOff : std::min(2 * d->delay, driftRepairDelayMax);
      if (!d->logged) {
         d->logged = true;
         Mox::logMessage(Mox::LogSeverity::warning, "VELD-ADDR-DRIFT",
                         "IPv4 addresses of " + intf.name() +
                             " keep changing behind the agent's back; repairs back off up to " +
                             std::to_string(static_cast<int>(driftRepairDelayMax)) + " seconds");
      }
   }
   d->last = now;
   ++driftRepairs_;
   auto& entry = entryFor(intf);
   entry.addrUpdatePending = true;
   entry.notBefore = now + d->delay;
   armBacklogTimer();
}

double IpIntfSm::driftRepairDelay(Konet::IntfId const& intf) const {
   auto const* d = driftRepair_.find(intf);
   return d ? d->delay : 0.0;
}

void IpIntfSm::scheduleGlobalKnobs() {
   globalKnobsPending_ = true;
   globalKnobs_.tries = 0;  // a change is tried afresh
   armBacklogTimer();
}

void IpIntfSm::handleBacklogTimer() { processIpIntfKernelUpdateCodefList(); }

bool IpIntfSm::entryFailed(KernelUpdateCodefEntry& entry, int err, double now, char const* what) {
   return backlogEntryFailed(entry, err, now, what, maxKernelUpdateTries_, errors_, th);
}

// The work can add entries to the list (a lender's new address moves its borrowers), which
// may move every entry: the entry is looked up again after each piece of work.
void IpIntfSm::runEntry(Konet::IntfId const& intf) {
   auto& list = ipIntfKernelUpdateCodefList_;
   double now = Mox::System::currentTime();
   if (auto const* entry = list.find(intf); entry && entry->procUpdatePending) {
      int err = doUpdateProc(intf);
      if (auto* e = list.find(intf); e && err == 0) {
         e->procUpdatePending = false;
         e->tries = 0;
      } else if (e && entryFailed(*e, err, now, "write")) {
         e->procUpdatePending = false;
      }
   }
   if (auto const* entry = list.find(intf); entry && entry->addrUpdatePending) {
      bool again = doUpdateKernelAddrIntf(intf);
      if (auto* e = list.find(intf); e && !again) e->addrUpdatePending = false;
      if (queuedAdds_.size() >= kAddBatch) flushAdds();
   }
   if (auto* e = list.find(intf)) e->statusUpdatePending = false;  // the address update wrote it
}

void IpIntfSm::processIpIntfKernelUpdateCodefList() {
   MOX_TRACE_FN(th, " vrf " << in_.vrfName << " entries " << ipIntfKernelUpdateCodefList_.size());
   ++runs_;
   double const start = Mox::System::currentTime();
   if (globalKnobsPending_) runGlobalKnobs();
   // Each entry at most once per run, from the bookmark to the end and round to it.
   auto& list = ipIntfKernelUpdateCodefList_;
   auto order = backlogRunOrder(list, bookmark_);
   bookmark_.reset();
   BacklogRunNamespace runNs(kernelIo(), nsName());
   for (size_t i = 0; i < order.size(); ++i) {
      if (start + backlogSlice_ <= Mox::System::currentTime()) {
         bookmark_ = order[i];  // out of time: the next run resumes here
         break;
      }
      auto* entry = list.find(order[i]);
      if (!entry || entry->notBefore > Mox::System::currentTime()) continue;
      ++itemsProcessed_;
      {
         // A namespace that cannot be entered is logged once per entry, retried like a
         // failed write and given up with it.
         auto const* inNs =
             &runNs.enter(entry->tries ? nullptr : "processIpIntfKernelUpdateCodefList");
         if (inNs->ok()) {
            runEntry(order[i]);
         } else if (entryFailed(*entry, inNs->error(), Mox::System::currentTime(), "setns")) {
            *entry = KernelUpdateCodefEntry{.intf = entry->intf};
         }
      }
      entry = list.find(order[i]);  // the work may have added entries
      if (entry && entry->idle()) list.erase(order[i]);
   }
   flushAdds();
   if (!list.empty() || globalKnobsPending_) {
      // The next run: soon, unless every entry left waits for a repair that backs off.
      double soon = Mox::System::currentTime() + backlogRetryDelay_;
      double next = bookmark_ || globalKnobsPending_ ? soon : Mox::kInfinity;
      for (auto const& [intf, e] : list)
         next = std::min(next, std::max(soon, e.notBefore));
      backlogTimer_->timeMinIs(next);
      return;
   }
   MOX_TRACE(th, 5, "Backlog queue empty for vrf " << in_.vrfName);
   if (in_.warpState) in_.warpState->backlogEmptyIs(warpKey(), true);
   backlogTimer_->timeMinIs(Mox::kInfinity);
}

// The namespace-wide settings: what failed is written again by the next run, up to the
// tries of a per-interface write.
void IpIntfSm::runGlobalKnobs() {
   globalKnobsPending_ = false;
   auto& knobs = globalKnobs_;
   knobs.intf = Konet::IntfId("all");
   auto inNs = kernelIo().enterNamespace(
       nsName(), knobs.tries ? nullptr : "processIpIntfKernelUpdateCodefList");
   if (inNs->ok() && doUpdateGlobalKnobs()) {
      knobs.tries = 0;
      return;
   }
   int err = inNs->ok() ? EIO : inNs->error();
   if (!entryFailed(knobs, err, Mox::System::currentTime(), "write")) globalKnobsPending_ = true;
}

void IpIntfSm::verifyBacklogQueue() {
   MOX_TRACE_FN(th, " vrf " << in_.vrfName);
   if (routedIpIntfConfig_.empty()) {
      MOX_TRACE(th, 5,
                "No L3 interfaces in vrf " << in_.vrfName << ", Vrf " << in_.vrfName
                                           << ". Skipping WARP check.");
      if (in_.warpState) in_.warpState->backlogEmptyIs(warpKey(), true);
      return;
   }
   if (in_.warpState) {
      in_.warpState->backlogEmptyIs(warpKey(), ipIntfKernelUpdateCodefList_.empty());
   }
}

}  // namespace Veld
