// Interfaces that answer ARP for a virtual router MAC.
#pragma once

#include "konet/IntfId.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"

namespace ProxyArp {

class VirtualMacStatus : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<VirtualMacStatus> {
   public:
      virtual void onIntf(Konet::IntfId const&) {}
   };
   bool intf(Konet::IntfId const& id) const { return intf_.contains(id); }
   void intfIs(Konet::IntfId const& id) { insertMember(intf_, id, &NotifieeConst::onIntf); }
   void intfDel(Konet::IntfId const& id) { delMember(intf_, id, &NotifieeConst::onIntf); }

private:
   Mox::HashSet<Konet::IntfId> intf_;
};

}  // namespace ProxyArp
