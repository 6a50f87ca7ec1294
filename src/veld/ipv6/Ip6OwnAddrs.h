// The IPv6 addresses this agent added to the kernel, per interface. Only these are the
// agent's to delete: addresses that others put on a device (router advertisements, an
// operator, another program) stay. The IPv6 machines add and remove entries as they program
// the kernel; the agent seeds it at start from its record of the configuration it applied
// before a restart, so that what it added then is still its own.
#pragma once

#include "konet/IntfId.h"
#include "konet/IpPrefix.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"

namespace Veld {

class Ip6OwnAddrs : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<Ip6OwnAddrs> {};
   using Addrs = Mox::HashSet<Konet::Ip6AddrWithMask>;

   bool addr(Konet::IntfId const& intf, Konet::Ip6AddrWithMask const& a) const {
      auto const* s = own_.find(intf);
      return s && s->contains(a);
   }
   void addrIs(Konet::IntfId const& intf, Konet::Ip6AddrWithMask const& a) {
      own_.emplace(intf).first->insert(a);
   }
   void addrDel(Konet::IntfId const& intf, Konet::Ip6AddrWithMask const& a) {
      auto* s = own_.find(intf);
      if (s && s->erase(a) && s->empty()) own_.erase(intf);
   }
   Addrs const* addrs(Konet::IntfId const& intf) const { return own_.find(intf); }
   size_t intfs() const { return own_.size(); }

private:
   Mox::HashMap<Konet::IntfId, Addrs> own_;
};

}  // namespace Veld
