// Moves an interface's L3 status to another VRF once its two address families agree.
//
// Watches the per-VRF requests the IPv4 and IPv6 interface machines post (interface -> the
// VRF they put it in), the published IPv4 and IPv6 statuses (for their VRFs and their
// deletion) and the standby flag. Writes the VRF of the interfaces' L3 input status (the
// ordinary or the local one), deletes it once neither family has a status, and after each
// move asks both families' machines to refresh the interface (UpdateIpIntfStatusRequests).
//
// The IPv4 family leads:
//    IPv4 request for V --IPv6 status in V, or none--> L3 status set to V
//                       --IPv6 status elsewhere-----> waits for the IPv6 request
//    IPv6 request for V --IPv4 status in V----------> L3 status set to V
//                       --no IPv4 status------------> waits: IPv6 alone never moves it
//    a family's request withdrawn --the other's remains--> L3 status set to the other's VRF
// A deleted IPv6 status is handled on the clock's next tick (the IPv6 machine deletes and
// re-creates a status within one update): the IPv4 request's VRF is applied again, then the
// L3 status goes if neither family has a status any more. In standby nothing changes for
// interfaces that are not local.
#pragma once

#include <memory>

#include "konet/IntfId.h"
#include "mox/Clock.h"
#include "mox/HashMap.h"
#include "mox/Inputs.h"
#include "mox/StateMachine.h"
#include "platform/Ip.h"
#include "platform/Ip6.h"
#include "platform/L3.h"

namespace Veld {

class L3IntfStatusVrfSm : public Mox::StateMachine {
public:
#define VELD_L3_INTF_STATUS_VRF_SM_INPUTS(X)                                       \
   X(Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests const>, updateIpIntfStatusVrfReq)  \
   X(Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests const>, updateIp6IntfStatusVrfReq) \
   X(Mox::Ptr<Ip::Status const>, ipStatus)                                         \
   X(Mox::Ptr<Ip6::Status const>, ip6Status)                                       \
   X(Mox::Ptr<Mox::Clock const>, clock)                                            \
   X(Mox::Ptr<L3::Intf::Input::StatusDir>, systemL3IntfStatus)                     \
   X(Mox::Ptr<L3::Intf::Input::StatusDir>, localL3IntfStatus)                      \
   X(Mox::Ptr<L3::UpdateIpIntfStatusRequests>, updateIpIntfStatusReq)              \
   X(Mox::Ptr<L3::UpdateIpIntfStatusRequests>, updateIp6IntfStatusReq)
   struct Inputs {
      MOX_INPUTS(VELD_L3_INTF_STATUS_VRF_SM_INPUTS)
   };

   L3IntfStatusVrfSm(Inputs inputs, bool standbyMode);
   ~L3IntfStatusVrfSm() override;

   Inputs const& inputs() const { return in_; }
   bool standbyMode() const { return standbyMode_; }
   void standbyModeIs(bool standbyMode);

   void handleInitialized();
   void handleV4Vrf(Konet::IntfId const& intf);
   void handleV6Vrf(Konet::IntfId const& intf);
   void handleV4VrfDelete(Konet::IntfId const& intf);
   void handleV6VrfDelete(Konet::IntfId const& intf);
   void handleIpIntfStatus(Konet::IntfId const& intf);
   void handleIp6IntfStatus(Konet::IntfId const& intf);
   void deferredHandleIp6IntfStatusDeletion();

   void updateL3IntfStatusVrf(Konet::IntfId const& intf, L3::VrfName const& vrf);
   void maybeDeleteL3IntfStatus(Konet::IntfId const& intf);
   // Interfaces whose IPv6 status went and wait for the deferred handling.
   Mox::HashSet<Konet::IntfId> const& deletedIp6IntfStatus() const { return deletedIp6IntfStatus_; }

private:
   class Reactors;
   Mox::Ptr<L3::Intf::Input::StatusDir> const& l3StatusFor(Konet::IntfId const& intf) const;
   bool skipInStandby(Konet::IntfId const& intf) const;
   void refresh(L3::UpdateIpIntfStatusRequests* requests, Konet::IntfId const& intf);

   Inputs const in_;
   bool standbyMode_;
   std::unique_ptr<Reactors> reactors_;
   Mox::HashSet<Konet::IntfId> deletedIp6IntfStatus_;
};

}  // namespace Veld
