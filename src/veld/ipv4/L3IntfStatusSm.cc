#include "veld/ipv4/L3IntfStatusSm.h"

namespace Veld {

Mox::TraceHandle L3IntfStatusFamily::th("VeldL3Status");
using Family = L3IntfStatusFamily;

L3IntfStatusSm::L3IntfStatusSm(Mox::Ptr<L3::Intf::InputStatusDir const> inputStatusDir,
                               Mox::Ptr<L3::Intf::StatusDir> intfStatusDir)
    : IntfStatusMergeSmOf(std::move(inputStatusDir)), intfStatusDir_(std::move(intfStatusDir)) {
   MOX_TRACE_FN0(Family::th);
   handleInitialized();
}

void L3IntfStatusSm::publish(Konet::IntfId const& intf,
                             Mox::Ptr<L3::Intf::Status const> const& from) {
   auto published = intfStatusDir_->intfStatus(intf);
   if (!published) {
      MOX_TRACE(Family::th, 5,
                " L3 intfStatus added " << intf << " created l3Status " << intf << " VRF "
                                        << from->vrf());
      published = intfStatusDir_->intfStatusIs(intf);
   }
   published->vrfIs(from->vrf());
}

void L3IntfStatusSm::unpublish(Konet::IntfId const& intf) { intfStatusDir_->intfStatusDel(intf); }

std::vector<Konet::IntfId> L3IntfStatusSm::publishedIntfs() const {
   return intfStatusDir_->intfStatusIterator().keys();
}

}  // namespace Veld
