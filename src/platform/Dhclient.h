// The DHCP client's status: per interface, the leased address and whether a lease is being
// negotiated.
#pragma once

#include <cstdint>

#include "konet/IntfId.h"
#include "konet/IpPrefix.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"

namespace Dhclient {

class IntfStatus : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<IntfStatus> {
   public:
      virtual void onAddrWithMask() {}
      virtual void onPending() {}
      virtual void onLeaseExpiry() {}
   };
   explicit IntfStatus(Konet::IntfId intf) : intf_(std::move(intf)) {}
   Konet::IntfId const& intf() const { return intf_; }

   // The leased address (0.0.0.0/0: none).
   Konet::IpAddrWithMask addrWithMask() const { return addrWithMask_; }
   void addrWithMaskIs(Konet::IpAddrWithMask v) {
      setAttr(addrWithMask_, v, &NotifieeConst::onAddrWithMask);
   }
   // A lease is being negotiated: the leased address is not to be used.
   bool pending() const { return pending_; }
   void pendingIs(bool v) { setAttr(pending_, v, &NotifieeConst::onPending); }
   // When the lease ends, in seconds since the epoch (0: unknown).
   int64_t leaseExpiry() const { return leaseExpiry_; }
   void leaseExpiryIs(int64_t v) { setAttr(leaseExpiry_, v, &NotifieeConst::onLeaseExpiry); }

private:
   Konet::IntfId const intf_;
   Konet::IpAddrWithMask addrWithMask_;
   bool pending_ = false;
   int64_t leaseExpiry_ = 0;
};

class Status : public Mox::Entity {
public:
   static constexpr Mox::AttrId kIntfStatus = 1;
   class NotifieeConst : public Mox::EntityNotifiee<Status> {
   public:
      virtual void onIntfStatus(Konet::IntfId const&) {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<IntfStatus>>;

   Mox::Ptr<IntfStatus> intfStatus(Konet::IntfId const& id) const {
      return Mox::valueOr(intfStatus_, id);
   }
   Mox::Ptr<IntfStatus> intfStatusIs(Konet::IntfId const& id) {
      return instantiateMember<IntfStatus>(intfStatus_, id, kIntfStatus,
                                           &NotifieeConst::onIntfStatus);
   }
   void intfStatusDel(Konet::IntfId const& id) {
      delMember(intfStatus_, id, &NotifieeConst::onIntfStatus);
   }
   Members const& intfStatusIterator() const { return intfStatus_; }

private:
   Members intfStatus_;
};

}  // namespace Dhclient
