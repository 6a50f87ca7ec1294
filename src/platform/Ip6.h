// IPv6 interface configuration and status, as far as the IPv4 path and the VRF roots read
// them: the configuration's interfaces and their L3 configuration, and the status
// directories handed to the IPv6 machines.
#pragma once

#include "konet/IntfId.h"
#include "konet/IpPrefix.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"
#include "mox/Name.h"
#include "platform/L3.h"

namespace Ip6 {

class IntfConfig : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<IntfConfig> {
   public:
      virtual void onEnable() {}
      virtual void onAddr(Konet::Ip6AddrWithMask const&) {}
      virtual void onL3Config() {}
   };
   explicit IntfConfig(Konet::IntfId intf) : intf_(std::move(intf)) {}
   Konet::IntfId const& intf() const { return intf_; }
   bool enable() const { return enable_; }
   void enableIs(bool v) { setAttr(enable_, v, &NotifieeConst::onEnable); }
   bool addr(Konet::Ip6AddrWithMask const& a) const { return addr_.contains(a); }
   void addrIs(Konet::Ip6AddrWithMask const& a) { insertMember(addr_, a, &NotifieeConst::onAddr); }
   void addrDel(Konet::Ip6AddrWithMask const& a) { delMember(addr_, a, &NotifieeConst::onAddr); }
   Mox::HashSet<Konet::Ip6AddrWithMask> const& addrIterator() const { return addr_; }
   Mox::Ptr<L3::Intf::Config const> const& l3Config() const { return l3Config_; }
   void l3ConfigIs(Mox::Ptr<L3::Intf::Config const> const& v) {
      setAttr(l3Config_, v, &NotifieeConst::onL3Config);
   }

private:
   Konet::IntfId const intf_;
   bool enable_ = false;
   Mox::HashSet<Konet::Ip6AddrWithMask> addr_;
   Mox::Ptr<L3::Intf::Config const> l3Config_;
};

class Config : public Mox::Entity {
public:
   static constexpr Mox::AttrId kIntf = 1;
   class NotifieeConst : public Mox::EntityNotifiee<Config> {
   public:
      virtual void onIntf(Konet::IntfId const&) {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<IntfConfig>>;
   Mox::Ptr<IntfConfig> intf(Konet::IntfId const& id) const { return Mox::valueOr(intf_, id); }
   Mox::Ptr<IntfConfig> intfIs(Konet::IntfId const& id) {
      return instantiateMember<IntfConfig>(intf_, id, kIntf, &NotifieeConst::onIntf);
   }
   void intfDel(Konet::IntfId const& id) { delMember(intf_, id, &NotifieeConst::onIntf); }
   Members const& intfIterator() const { return intf_; }

private:
   Members intf_;
};

// Status entities of the IPv6 path, held here until the IPv6 machines use them.
class IntfStatus : public Mox::Entity {
public:
   explicit IntfStatus(Konet::IntfId intf) : intf_(std::move(intf)) {}
   Konet::IntfId const& intf() const { return intf_; }

private:
   Konet::IntfId const intf_;
};

namespace Input {
class Status : public Mox::Entity {
public:
   explicit Status(Mox::Name name = Mox::Name()) : name_(std::move(name)) {}
   Mox::Name const& name() const { return name_; }

private:
   Mox::Name name_;
};
}  // namespace Input

class Status : public Mox::Entity {};
class Ip6InputStatusDir : public Mox::Entity {};
class MulticastGroupsForApplications : public Mox::Entity {};
class Ip6Enable : public Mox::Entity {};

}  // namespace Ip6
