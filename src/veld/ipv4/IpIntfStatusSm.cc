#include "veld/ipv4/IpIntfStatusSm.h"

namespace Veld {

Mox::TraceHandle IpIntfStatusFamily::th("VeldIpStatus");
using Family = IpIntfStatusFamily;

IpIntfStatusSm::IpIntfStatusSm(Mox::Ptr<Ip::IpInputStatusDir const> inputStatusDir,
                               Mox::Ptr<Ip::Config const> ipConfig, Mox::Ptr<Ip::Status> ipStatus)
    : IntfStatusMergeSmOf(std::move(inputStatusDir)),
      ipConfig_(std::move(ipConfig)),
      ipStatus_(std::move(ipStatus)) {
   MOX_TRACE_FN0(Family::th);
   handleInitialized();
}

void IpIntfStatusSm::publish(Konet::IntfId const& intf,
                             Mox::Ptr<Ip::IpIntfStatus const> const& status) {
   MOX_ASSERT(status);
   MOX_TRACE_FN(Family::th, " ipIntfStatus added " << intf << " vrf " << status->vrf());
   auto const* vrf = publishedVrf_.find(intf);
   if (vrf && *vrf != status->vrf()) removeFromVrf(intf);
   ipStatus_->intfIs(status);
   auto entry = ipStatus_->vrfIpIntfStatus(status->vrf());
   if (!entry) {
      MOX_TRACE(Family::th, 5, "Add vrfIpIntfStatus for vrf " << status->vrf());
      entry = ipStatus_->vrfIpIntfStatusIs(status->vrf());
   }
   entry->ipIntfStatusIs(status);
   publishedVrf_.assign(intf, status->vrf());
}

void IpIntfStatusSm::removeFromVrf(Konet::IntfId const& intf) {
   auto const* vrf = publishedVrf_.find(intf);
   if (!vrf) return;
   L3::VrfName name = *vrf;
   publishedVrf_.erase(intf);
   auto entry = ipStatus_->vrfIpIntfStatus(name);
   if (!entry) return;
   MOX_TRACE(Family::th, 5, "Delete " << intf << " from vrfIpIntfStatus of vrf" << name);
   entry->ipIntfStatusDel(intf);
   if (entry->ipIntfStatusSize() == 0) {
      MOX_TRACE(Family::th, 5, "Delete vrfIpIntfStatus of vrf " << name);
      ipStatus_->vrfIpIntfStatusDel(name);
   }
}

void IpIntfStatusSm::unpublish(Konet::IntfId const& intf) {
   MOX_TRACE_FN(Family::th, " ipIntfStatus deleted " << intf);
   removeFromVrf(intf);
   ipStatus_->intfDel(intf);
}

std::vector<Konet::IntfId> IpIntfStatusSm::publishedIntfs() const {
   return ipStatus_->intfIterator().keys();
}

void IpIntfStatusSm::handleUrpfConfiguredOnAnyIntf() {
   MOX_TRACE_FN0(Family::th);
   bool any = false;
   forEachInput([&](Mox::Name const& name, Ip::Input::Status const& input) {
      bool on = input.urpfConfiguredOnAnyIntf();
      MOX_TRACE(Family::th, 7, "Status input: " << name << "UrpfConfiguredOnAnyIntf: " << on);
      any = any || on;
   });
   MOX_TRACE(Family::th, 7, " Status: " << any);
   ipStatus_->urpfConfiguredOnAnyIntfIs(any);
}

}  // namespace Veld
