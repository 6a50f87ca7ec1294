// The published status of one address family (IPv4, IPv6), merged from every producer's
// (IntfStatusMergeSmOf.h has the merge rules); the IPv4 and IPv6 status machines are this
// machine with their family's types and texts.
//
// The sole writer of the family's published status: publishes the input's own status
// object under the interface (a change inside it is seen at once through the published
// status), lists each VRF's interfaces in a per-VRF entry (an entry goes with its last
// interface), and ORs the inputs' urpfConfiguredOnAnyIntf (false with no input).
#pragma once

#include <vector>

#include "konet/VrfName.h"
#include "mox/Error.h"
#include "mox/HashMap.h"
#include "veld/IntfStatusMergeSmOf.h"

namespace Veld {

// Family supplies, beyond what IntfStatusMergeSmOf needs: Config and Status (published);
// intfIs/intfDel/intfs(Status), vrfEntry/vrfEntryIs/vrfEntryDel(Status, vrf) and
// entryAdd/entryDel/entrySize(entry) over the per-VRF entries; the texts kAddVrf,
// kDelFromVrf and kDelVrf.
template <class Sm, class Family>
class IpFamilyStatusSmOf : public IntfStatusMergeSmOf<Sm, Family> {
public:
   using Config = typename Family::Config;
   using Status = typename Family::Status;
   using IntfStatus = typename Family::IntfStatus;
   using Input = typename Family::Input;

   IpFamilyStatusSmOf(Mox::Ptr<typename Family::InputDir const> inputStatusDir,
                      Mox::Ptr<Config const> config, Mox::Ptr<Status> status)
       : IntfStatusMergeSmOf<Sm, Family>(std::move(inputStatusDir)),
         config_(std::move(config)),
         status_(std::move(status)) {}

   Mox::Ptr<Config const> const& config() const { return config_; }
   Mox::Ptr<Status> const& status() const { return status_; }

   void handleUrpfConfiguredOnAnyIntf() {
      MOX_TRACE_FN0(Family::th);
      bool any = false;
      this->forEachInput([&](Mox::Name const& name, Input const& input) {
         bool on = input.urpfConfiguredOnAnyIntf();
         MOX_TRACE(Family::th, 7, "Status input: " << name << "UrpfConfiguredOnAnyIntf: " << on);
         any = any || on;
      });
      MOX_TRACE(Family::th, 7, " Status: " << any);
      status_->urpfConfiguredOnAnyIntfIs(any);
   }

   // What publishing means here (called by the merge).
   void publish(Konet::IntfId const& intf, Mox::Ptr<IntfStatus const> const& status) {
      MOX_ASSERT(status);
      MOX_TRACE_FN(Family::th, Family::kAdded << intf << " vrf " << status->vrf());
      auto const* vrf = publishedVrf_.find(intf);
      if (vrf && *vrf != status->vrf()) removeFromVrf(intf);
      Family::intfIs(*status_, status);
      auto entry = Family::vrfEntry(*status_, status->vrf());
      if (!entry) {
         MOX_TRACE(Family::th, 5, Family::kAddVrf << status->vrf());
         entry = Family::vrfEntryIs(*status_, status->vrf());
      }
      Family::entryAdd(*entry, status);
      publishedVrf_.assign(intf, status->vrf());
   }
   void unpublish(Konet::IntfId const& intf) {
      MOX_TRACE_FN(Family::th, Family::kDeleted << intf);
      removeFromVrf(intf);
      Family::intfDel(*status_, intf);
   }
   std::vector<Konet::IntfId> publishedIntfs() const { return Family::intfs(*status_); }
   void inputsChanged() { static_cast<Sm*>(this)->handleUrpfConfiguredOnAnyIntf(); }

private:
   void removeFromVrf(Konet::IntfId const& intf) {
      auto const* vrf = publishedVrf_.find(intf);
      if (!vrf) return;
      L3::VrfName name = *vrf;
      publishedVrf_.erase(intf);
      auto entry = Family::vrfEntry(*status_, name);
      if (!entry) return;
      MOX_TRACE(Family::th, 5, "Delete " << intf << Family::kDelFromVrf << name);
      Family::entryDel(*entry, intf);
      if (Family::entrySize(*entry) == 0) {
         MOX_TRACE(Family::th, 5, Family::kDelVrf << name);
         Family::vrfEntryDel(*status_, name);
      }
   }

   Mox::Ptr<Config const> const config_;
   Mox::Ptr<Status> const status_;
   Mox::HashMap<Konet::IntfId, L3::VrfName> publishedVrf_;  // the VRF entry each interface is in
};

}  // namespace Veld
