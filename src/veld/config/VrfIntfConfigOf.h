// The storage of the per-VRF views of interface configuration, shared by the IPv4 and IPv6
// views (VrfIpIntfConfig.h, VrfIp6IntfConfig.h).
//
// A view holds references, never copies: its members are the very configuration entities
// of the global configuration, so a change of an interface's attributes reaches the view's
// readers without anyone copying it. A member is keyed by its entity's own interface.
#pragma once

#include "konet/IntfId.h"
#include "konet/VrfName.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"
#include "mox/StateMachine.h"

namespace Veld {

// The view of one VRF. Self names the mutator in the null-parameter error
// (Self::kIpIntfConfigMutator).
template <class Self, class IntfConfig>
class VrfIntfConfigOf : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<Self> {
   public:
      virtual void onIpIntfConfig(Konet::IntfId const&) {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<IntfConfig const>>;

   explicit VrfIntfConfigOf(L3::VrfName vrfName) : vrfName_(std::move(vrfName)) {}
   L3::VrfName const& vrfName() const { return vrfName_; }

   Mox::Ptr<IntfConfig const> ipIntfConfig(Konet::IntfId const& intf) const {
      return Mox::valueOr(ipIntfConfig_, intf);
   }
   void ipIntfConfigIs(Mox::Ptr<IntfConfig const> const& config) {
      Mox::requireNonNull(config, "_ipIntfConfig", Self::kIpIntfConfigMutator);
      this->setMember(ipIntfConfig_, config->intf(), config, &NotifieeConst::onIpIntfConfig);
   }
   void ipIntfConfigDel(Konet::IntfId const& intf) {
      this->delMember(ipIntfConfig_, intf, &NotifieeConst::onIpIntfConfig);
   }
   void ipIntfConfigDelAll() { this->delAllMembers(ipIntfConfig_, &NotifieeConst::onIpIntfConfig); }
   Members const& ipIntfConfigIterator() const { return ipIntfConfig_; }
   size_t ipIntfConfigSize() const { return ipIntfConfig_.size(); }

private:
   L3::VrfName const vrfName_;
   Members ipIntfConfig_;
};

// The views of every VRF that has one, by VRF name.
template <class Self, class View>
class VrfIntfConfigDirOf : public Mox::Entity {
public:
   static constexpr Mox::AttrId kVrfIpIntfConfig = 1;
   class NotifieeConst : public Mox::EntityNotifiee<Self> {
   public:
      virtual void onVrfIpIntfConfig(L3::VrfName const&) {}
   };
   using Members = Mox::HashMap<L3::VrfName, Mox::Ptr<View>>;

   Mox::Ptr<View> vrfIpIntfConfig(L3::VrfName const& vrfName) const {
      return Mox::valueOr(vrfIpIntfConfig_, vrfName);
   }
   // The view of the VRF, created when absent.
   Mox::Ptr<View> vrfIpIntfConfigIs(L3::VrfName const& vrfName) {
      return this->template instantiateMember<View>(vrfIpIntfConfig_, vrfName, kVrfIpIntfConfig,
                                                    &NotifieeConst::onVrfIpIntfConfig);
   }
   void vrfIpIntfConfigDel(L3::VrfName const& vrfName) {
      this->delMember(vrfIpIntfConfig_, vrfName, &NotifieeConst::onVrfIpIntfConfig);
   }
   void vrfIpIntfConfigDelAll() {
      this->delAllMembers(vrfIpIntfConfig_, &NotifieeConst::onVrfIpIntfConfig);
   }
   Members const& vrfIpIntfConfigIterator() const { return vrfIpIntfConfig_; }

private:
   Members vrfIpIntfConfig_;
};

}  // namespace Veld
