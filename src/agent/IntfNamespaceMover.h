// Moves each interface's kernel device into the namespace its namespace configuration names
// (Interface::AllIntfNamespaceConfigDir, written by the library's IpIntfVrfReactor), and back
// to the agent's own namespace when the entry goes or names the default one.
//
// Watches the namespace configuration entries and the interface statuses (device, the
// namespace the device is in now, forwarding model and running state). Handlers only note
// the interface; the work runs from the task scheduler, in runs that yield to the event
// loop: the device is moved from the namespace its status names, brought up in the new one
// (a move takes a device down), and the interface status follows when the mirrors see it
// there. A routed interface's device that is where it belongs but down (never brought up,
// or taken down since) is brought up there. Work that fails is logged and retried each
// second.
//
// A device brought up (moved or in place) is settling until its interface status shows it
// running in that namespace, which is the kernel's carrier report seen by the mirror, or
// until kSettleTime passes without one.
#pragma once

#include <map>
#include <set>
#include <string>

#include "agent/DeferredWork.h"
#include "agent/Entities.h"
#include "agent/KernelMirrors.h"
#include "linux/Fd.h"

namespace VeldAgent {

class IntfNamespaceMover {
public:
   IntfNamespaceMover(Entities& entities, KernelMirrors& mirrors);
   ~IntfNamespaceMover();

   // Where the interface's device is to be.
   Konet::NamespaceName desiredNs(Konet::IntfId const& id) const;
   // Nothing to move or bring up, and no device settling. The kernel may report a device's
   // carrier up to a second after the device comes up (its link watch), which the machines
   // answer by taking the device's addresses away and back: until the report, or that
   // second without one, the device's addresses are not final.
   bool settled() const { return pending_.empty() && settling_.empty(); }
   static constexpr double kSettleTime = 1.0;
   uint64_t moves() const { return moves_; }
   uint64_t bringUps() const { return bringUps_; }

   void handleNamespaceConfig(Konet::IntfId const& id);
   void handleIntfStatus(Konet::IntfId const& id);
   // The status's device, its namespace or its running state changed.
   void handleDeviceState(Konet::IntfId const& id);

private:
   class MoxNamespaceConfigDir;
   class MoxNamespaceConfig;
   class MoxIntfStatusDir;
   class MoxIntfStatus;
   void schedule(Konet::IntfId const& id);
   void doMoves();
   // 0 or an errno; EAGAIN: nothing to do (yet).
   int doMove(Konet::IntfId const& id);
   int doBringUp(Konet::IntfId const& id, Interface::IntfStatus const& status,
                 Konet::NamespaceName const& ns);
   struct Settling {
      std::string device;
      Konet::NamespaceName ns;
      double since = 0.0;  // brought up
   };
   void settlingIs(Konet::IntfId const& id, std::string const& dev, Konet::NamespaceName const& ns);
   // Ends the settling of `id` if its status shows the device running where it was brought up.
   void settleOnCarrier(Konet::IntfId const& id);
   void doSettleBound();

   Entities& e_;
   KernelMirrors& mirrors_;
   Konet::Fd home_;
   Mox::Ptr<MoxNamespaceConfigDir> nsConfigDir_;
   Mox::Ptr<MoxIntfStatusDir> statusDir_;
   std::map<Konet::IntfId, Mox::Ptr<MoxNamespaceConfig>> nsConfig_;
   std::map<Konet::IntfId, Mox::Ptr<MoxIntfStatus>> status_;
   std::set<Konet::IntfId> pending_;
   std::set<Konet::IntfId> failed_;  // in this pass, retried after kRetryDelay
   Mox::Ptr<DeferredWork> work_;
   std::map<Konet::IntfId, Settling> settling_;
   Mox::Ptr<DeferredWork> settleBound_;  // armed while a device settles
   uint64_t moves_ = 0;
   uint64_t bringUps_ = 0;
};

}  // namespace VeldAgent
