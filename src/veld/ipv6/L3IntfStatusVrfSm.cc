#include "veld/ipv6/L3IntfStatusVrfSm.h"

#include "mox/Trace.h"
#include "veld/LocalInterface.h"

namespace Veld {

namespace {
Mox::TraceHandle th("VeldL3Vrf");
}  // namespace

// The machine's reactors on its inputs; each only forwards to a handler.
class L3IntfStatusVrfSm::Reactors {
public:
   // Either family's requests: a request posted or changed, or withdrawn.
   template <bool V6>
   class MoxVrfReq
       : public Mox::Reactor<L3IntfStatusVrfSm, L3::UpdateIpIntfStatusVrfRequests::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onRequest(Konet::IntfId const& intf) override {
         bool held = notifierRaw()->requestHas(intf);
         if constexpr (V6) {
            held ? owner()->handleV6Vrf(intf) : owner()->handleV6VrfDelete(intf);
         } else {
            held ? owner()->handleV4Vrf(intf) : owner()->handleV4VrfDelete(intf);
         }
      }
   };
   using MoxUpdateIpIntfStatusVrfReq = MoxVrfReq<false>;
   using MoxUpdateIp6IntfStatusVrfReq = MoxVrfReq<true>;
   class MoxIpStatus : public Mox::Reactor<L3IntfStatusVrfSm, Ip::Status::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onIntf(Konet::IntfId const& intf) override { owner()->handleIpIntfStatus(intf); }
   };
   class MoxIp6Status : public Mox::Reactor<L3IntfStatusVrfSm, Ip6::Status::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onIntf(Konet::IntfId const& intf) override { owner()->handleIp6IntfStatus(intf); }
   };
   class MoxClock : public Mox::Reactor<L3IntfStatusVrfSm, Mox::Clock::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onTime() override { owner()->deferredHandleIp6IntfStatusDeletion(); }
   };

   Mox::Ptr<MoxUpdateIpIntfStatusVrfReq> v4VrfUpdate;
   Mox::Ptr<MoxUpdateIp6IntfStatusVrfReq> v6VrfUpdate;
   Mox::Ptr<MoxIpStatus> ipStatus;
   Mox::Ptr<MoxIp6Status> ip6Status;
   Mox::Ptr<MoxClock> clock;
};

L3IntfStatusVrfSm::L3IntfStatusVrfSm(Inputs inputs, bool standbyMode)
    : in_(std::move(inputs)), standbyMode_(standbyMode), reactors_(std::make_unique<Reactors>()) {
   MOX_TRACE_FN(th, " standbyMode " << standbyMode_);
   auto& r = *reactors_;
   r.v4VrfUpdate =
       Mox::reactorOn<Reactors::MoxUpdateIpIntfStatusVrfReq>(this, in_.updateIpIntfStatusVrfReq);
   r.v6VrfUpdate =
       Mox::reactorOn<Reactors::MoxUpdateIp6IntfStatusVrfReq>(this, in_.updateIp6IntfStatusVrfReq);
   r.ipStatus = Mox::reactorOn<Reactors::MoxIpStatus>(this, in_.ipStatus);
   r.ip6Status = Mox::reactorOn<Reactors::MoxIp6Status>(this, in_.ip6Status);
   r.clock = Mox::reactorOn<Reactors::MoxClock>(this, in_.clock);
   handleInitialized();
}

L3IntfStatusVrfSm::~L3IntfStatusVrfSm() { moxDoZombieReactors(true); }

// The requests already posted are applied as if they had just come, IPv4 first.
void L3IntfStatusVrfSm::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   initializedSet(true);
   if (in_.updateIpIntfStatusVrfReq) {
      for (auto const& intf : in_.updateIpIntfStatusVrfReq->requestIterator().keys())
         handleV4Vrf(intf);
   }
   if (in_.updateIp6IntfStatusVrfReq) {
      for (auto const& intf : in_.updateIp6IntfStatusVrfReq->requestIterator().keys())
         handleV6Vrf(intf);
   }
}

// Becoming active applies every request again: what standby skipped is done now.
void L3IntfStatusVrfSm::standbyModeIs(bool standbyMode) {
   MOX_TRACE_FN(th, " standbyMode " << standbyMode);
   if (standbyMode == standbyMode_) return;
   standbyMode_ = standbyMode;
   if (standbyMode_) return;
   initializedSet(false);
   handleInitialized();
}

Mox::Ptr<L3::Intf::Input::StatusDir> const& L3IntfStatusVrfSm::l3StatusFor(
    Konet::IntfId const& intf) const {
   return isLocalInterface(intf) ? in_.localL3IntfStatus : in_.systemL3IntfStatus;
}

bool L3IntfStatusVrfSm::skipInStandby(Konet::IntfId const& intf) const {
   if (!standbyMode_ || isLocalInterface(intf)) return false;
   MOX_TRACE(th, 7, "returning early because standbyMode and non local interface " << intf);
   return true;
}

void L3IntfStatusVrfSm::refresh(L3::UpdateIpIntfStatusRequests* requests,
                                Konet::IntfId const& intf) {
   if (!requests) return;
   uint32_t next = requests->request(intf) + 1;
   requests->requestDel(intf);
   requests->requestIs(intf, next);
}

void L3IntfStatusVrfSm::updateL3IntfStatusVrf(Konet::IntfId const& intf, L3::VrfName const& vrf) {
   MOX_TRACE_FN(th, " for Intf " << intf << " VRF: " << vrf);
   if (skipInStandby(intf)) return;
   auto const& dir = l3StatusFor(intf);
   if (!dir) return;
   dir->intfStatusIs(intf)->vrfIs(vrf);
   refresh(in_.updateIpIntfStatusReq.ptr(), intf);
   refresh(in_.updateIp6IntfStatusReq.ptr(), intf);
}

void L3IntfStatusVrfSm::handleV4Vrf(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for Intf " << intf);
   if (!in_.updateIpIntfStatusVrfReq->requestHas(intf)) return;
   auto vrf = in_.updateIpIntfStatusVrfReq->request(intf);
   auto ip6 = in_.ip6Status ? in_.ip6Status->intf(intf) : nullptr;
   if (ip6 && ip6->vrf() == vrf) {
      MOX_TRACE(th, 7, intf << " VRF match: setting vrf to " << vrf);
      updateL3IntfStatusVrf(intf, vrf);
   } else if (!ip6) {
      MOX_TRACE(th, 7, intf << " ip6 intf status is NULL: setting vrf to " << vrf);
      updateL3IntfStatusVrf(intf, vrf);
   }
}

void L3IntfStatusVrfSm::handleV6Vrf(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for Intf " << intf);
   if (!in_.updateIp6IntfStatusVrfReq->requestHas(intf)) return;
   auto vrf = in_.updateIp6IntfStatusVrfReq->request(intf);
   auto ip = in_.ipStatus ? in_.ipStatus->intf(intf) : nullptr;
   if (ip && ip->vrf() == vrf) {
      MOX_TRACE(th, 7, intf << " VRF match: setting vrf to " << vrf);
      updateL3IntfStatusVrf(intf, vrf);
   } else if (!ip) {
      MOX_TRACE(th, 7, intf << " ipStatus is NULL: waiting for it to be created");
   }
}

void L3IntfStatusVrfSm::handleV6VrfDelete(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for Intf " << intf);
   auto const& v4 = in_.updateIpIntfStatusVrfReq;
   if (v4 && v4->requestHas(intf)) {
      MOX_TRACE(th, 7, " Moving v4 intf " << intf << " to " << v4->request(intf));
      updateL3IntfStatusVrf(intf, v4->request(intf));
      return;
   }
   MOX_TRACE(th, 7, " No v4 update. Nothing to do");
}

void L3IntfStatusVrfSm::handleV4VrfDelete(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for Intf " << intf);
   auto const& v6 = in_.updateIp6IntfStatusVrfReq;
   if (v6 && v6->requestHas(intf)) {
      MOX_TRACE(th, 7, " Moving v6 intf " << intf << " to " << v6->request(intf));
      updateL3IntfStatusVrf(intf, v6->request(intf));
      return;
   }
   MOX_TRACE(th, 7, " No v6 update. Nothing to do");
}

void L3IntfStatusVrfSm::handleIpIntfStatus(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for Intf " << intf);
   if (in_.ipStatus->intf(intf)) return;
   MOX_TRACE(th, 7, intf << " ipIntfStatus deleted.");
   maybeDeleteL3IntfStatus(intf);
}

void L3IntfStatusVrfSm::handleIp6IntfStatus(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for Intf " << intf);
   if (in_.ip6Status->intf(intf)) return;
   MOX_TRACE(th, 7, intf << " ip6IntfStatus deleted.");
   deletedIp6IntfStatus_.insert(intf);
   if (reactors_->clock && !reactors_->clock->armed()) {
      reactors_->clock->timeMinIs(Mox::System::currentTime());
   } else if (!reactors_->clock) {
      deferredHandleIp6IntfStatusDeletion();
   }
}

void L3IntfStatusVrfSm::deferredHandleIp6IntfStatusDeletion() {
   MOX_TRACE_FN0(th);
   auto deleted = deletedIp6IntfStatus_.keys();
   deletedIp6IntfStatus_.clear();
   for (auto const& intf : deleted) {
      MOX_TRACE(th, 7, "Handling ip6 intf status deletion of intf " << intf);
      if (in_.ip6Status && in_.ip6Status->intf(intf)) continue;  // it came back meanwhile
      auto const& v4 = in_.updateIpIntfStatusVrfReq;
      if (v4 && v4->requestHas(intf)) updateL3IntfStatusVrf(intf, v4->request(intf));
      maybeDeleteL3IntfStatus(intf);
   }
}

// The L3 status goes with the last family's status.
void L3IntfStatusVrfSm::maybeDeleteL3IntfStatus(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for Intf " << intf);
   if (skipInStandby(intf)) return;
   if ((in_.ipStatus && in_.ipStatus->intf(intf)) || (in_.ip6Status && in_.ip6Status->intf(intf)))
      return;
   auto const& dir = l3StatusFor(intf);
   if (!dir || !dir->intfStatus(intf)) return;
   MOX_TRACE(th, 5, "Deleting l3 intf status for intf " << intf);
   dir->intfStatusDel(intf);
}

}  // namespace Veld
