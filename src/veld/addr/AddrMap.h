// The agent's record of the addresses the kernel holds on each interface of one namespace,
// and of the kernel flags of each IPv6 address.
//
// The interface machines consult it before they program the kernel and keep it current after
// every change they make; it is seeded once, at start, from the kernel mirror
// (AddrMappingSm), so a restarted agent starts from the kernel's truth. An IntfGenAddr
// exists from the first address added for its interface until the interface itself goes
// (genAddrDel) or the map goes; it stays when its sets become empty.
#pragma once

#include <cstdint>
#include <string_view>

#include "konet/IpPrefix.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"
#include "platform/KernelNetInfo.h"

namespace Veld {

// The addresses of one kernel interface. Its setters are silent when nothing changes.
class IntfGenAddr : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<IntfGenAddr> {
   public:
      virtual void onAddr(Konet::IpAddrWithMask const&) {}
      virtual void onAddr6(Konet::Ip6AddrWithMask const&) {}
      virtual void onAddr6Flags(Konet::Ip6AddrWithMask const&) {}
      virtual void onFlags() {}
   };
   using Addrs = Mox::HashSet<Konet::IpAddrWithMask>;
   using Addrs6 = Mox::HashSet<Konet::Ip6AddrWithMask>;
   using Flags6 = Mox::HashMap<Konet::Ip6AddrWithMask, uint32_t>;

   explicit IntfGenAddr(KernelNetInfo::InterfaceKey ifKey) : ifKey_(ifKey) {}
   KernelNetInfo::InterfaceKey ifKey() const { return ifKey_; }

   bool addr(Konet::IpAddrWithMask const& a) const { return addr_.contains(a); }
   void addrIs(Konet::IpAddrWithMask const& a) { insertMember(addr_, a, &NotifieeConst::onAddr); }
   void addrDel(Konet::IpAddrWithMask const& a) { delMember(addr_, a, &NotifieeConst::onAddr); }
   void addrDelAll() { delAllMembers(addr_, &NotifieeConst::onAddr); }
   Addrs const& addrIterator() const { return addr_; }

   bool addr6(Konet::Ip6AddrWithMask const& a) const { return addr6_.contains(a); }
   void addr6Is(Konet::Ip6AddrWithMask const& a) {
      insertMember(addr6_, a, &NotifieeConst::onAddr6);
   }
   void addr6Del(Konet::Ip6AddrWithMask const& a) { delMember(addr6_, a, &NotifieeConst::onAddr6); }
   Addrs6 const& addr6Iterator() const { return addr6_; }

   // The kernel flags of an IPv6 address (0 until the kernel reports them).
   uint32_t addr6Flags(Konet::Ip6AddrWithMask const& a) const {
      return Mox::valueOr(addr6Flags_, a);
   }
   void addr6FlagsIs(Konet::Ip6AddrWithMask const& a, uint32_t flags) {
      setMember(addr6Flags_, a, flags, &NotifieeConst::onAddr6Flags);
   }
   void addr6FlagsDel(Konet::Ip6AddrWithMask const& a) {
      delMember(addr6Flags_, a, &NotifieeConst::onAddr6Flags);
   }
   Flags6 const& addr6FlagsIterator() const { return addr6Flags_; }

   // Written only through the generic attribute interface.
   uint32_t flags() const { return flags_; }
   // The generic attribute interface: sets an attribute by name; false for an unknown one.
   bool attributeIs(std::string_view name, uint64_t value);

private:
   KernelNetInfo::InterfaceKey const ifKey_;
   Addrs addr_;
   Addrs6 addr6_;
   Flags6 addr6Flags_;
   uint32_t flags_ = 0;
};

class AddrMap : public Mox::Entity {
public:
   static constexpr Mox::AttrId kGenAddr = 2;
   class NotifieeConst : public Mox::EntityNotifiee<AddrMap> {
   public:
      virtual void onGenAddr(KernelNetInfo::InterfaceKey const&) {}
   };
   using Members = Mox::HashMap<KernelNetInfo::InterfaceKey, Mox::Ptr<IntfGenAddr>>;

   explicit AddrMap(Mox::Ptr<KernelNetInfo::Status const> kniStatus);
   ~AddrMap() override;

   Mox::Ptr<KernelNetInfo::Status const> const& kniStatus() const { return kniStatus_; }

   Mox::Ptr<IntfGenAddr> genAddr(KernelNetInfo::InterfaceKey ifKey) const {
      return Mox::valueOr(genAddr_, ifKey);
   }
   Mox::Ptr<IntfGenAddr> genAddrIs(KernelNetInfo::InterfaceKey ifKey);
   void genAddrDel(KernelNetInfo::InterfaceKey ifKey);
   void genAddrDelAll();
   Members const& genAddrIterator() const { return genAddr_; }

   void addAddr(KernelNetInfo::InterfaceKey ifKey, Konet::IpAddrWithMask const& addr);
   void addAddr6(KernelNetInfo::InterfaceKey ifKey, Konet::Ip6AddrWithMask const& addr);
   void delAddr(KernelNetInfo::InterfaceKey ifKey, Konet::IpAddrWithMask const& addr);
   void delAddr6(KernelNetInfo::InterfaceKey ifKey, Konet::Ip6AddrWithMask const& addr);
   void flushAddr(KernelNetInfo::InterfaceKey ifKey);
   // Drops the interface's IPv6 addresses except the link-local ones, whose flags go to 0.
   void flushAddr6(KernelNetInfo::InterfaceKey ifKey);
   void updateAddr6Flags(KernelNetInfo::IpKey const& ipKey, uint32_t flags);

private:
   Mox::Ptr<KernelNetInfo::Status const> const kniStatus_;
   Members genAddr_;
};

}  // namespace Veld
