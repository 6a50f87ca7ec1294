// Routing configuration that the interface machines read: whether IPv4/IPv6 routing is on
// (per VRF), the kernel protocol knobs, and what the routing hardware supports.
#pragma once

#include "konet/VrfName.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"

namespace Routing {

// The routing information configuration of one VRF, for one address family (Family tells
// the IPv4 and IPv6 ones apart as types): whether the VRF routes.
template <int Family>
class InfoConfigOf : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<InfoConfigOf> {
   public:
      virtual void onRouting() {}
   };
   explicit InfoConfigOf(L3::VrfName vrf = L3::VrfName()) : vrfName_(std::move(vrf)) {}
   L3::VrfName const& vrfName() const { return vrfName_; }
   bool routing() const { return routing_; }
   void routingIs(bool v) { this->setAttr(routing_, v, &NotifieeConst::onRouting); }

private:
   L3::VrfName const vrfName_;
   bool routing_ = false;
};
using InfoConfig = InfoConfigOf<4>;

// The VRFs configured for routing, with their routing information configuration.
template <class Info>
class VrfInfoConfigDirOf : public Mox::Entity {
public:
   static constexpr Mox::AttrId kVrfConfig = 1;
   class NotifieeConst : public Mox::EntityNotifiee<VrfInfoConfigDirOf> {
   public:
      virtual void onVrfConfig(L3::VrfName const&) {}
      // The whole collection changed at once (never sent by this directory).
      virtual void onVrfConfig() {}
   };
   using Members = Mox::HashMap<L3::VrfName, Mox::Ptr<Info>>;
   Mox::Ptr<Info> vrfConfig(L3::VrfName const& n) const { return Mox::valueOr(config_, n); }
   Mox::Ptr<Info> vrfConfigIs(L3::VrfName const& n) {
      return this->template instantiateMember<Info>(config_, n, kVrfConfig,
                                                    &NotifieeConst::onVrfConfig);
   }
   void vrfConfigDel(L3::VrfName const& n) {
      this->delMember(config_, n, &NotifieeConst::onVrfConfig);
   }
   Members const& vrfConfigIterator() const { return config_; }

private:
   Members config_;
};
using VrfInfoConfigDir = VrfInfoConfigDirOf<InfoConfig>;

class KernelProtoConfig : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<KernelProtoConfig> {
   public:
      virtual void onTcpSendReset() {}
      virtual void onUdpSendUnreachable() {}
   };
   bool tcpSendReset() const { return tcpSendReset_; }
   void tcpSendResetIs(bool v) { setAttr(tcpSendReset_, v, &NotifieeConst::onTcpSendReset); }
   bool udpSendUnreachable() const { return udpSendUnreachable_; }
   void udpSendUnreachableIs(bool v) {
      setAttr(udpSendUnreachable_, v, &NotifieeConst::onUdpSendUnreachable);
   }

private:
   bool tcpSendReset_ = true;
   bool udpSendUnreachable_ = true;
};

namespace Hardware {

class Status : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<Status> {
   public:
      virtual void onUrpfSupported() {}
   };
   // The forwarding hardware checks reverse paths itself; the kernel then need not.
   bool urpfSupported() const { return urpfSupported_; }
   void urpfSupportedIs(bool v) { setAttr(urpfSupported_, v, &NotifieeConst::onUrpfSupported); }

private:
   bool urpfSupported_ = false;
};

}  // namespace Hardware
}  // namespace Routing

namespace Routing6 {

using InfoConfig = Routing::InfoConfigOf<6>;
using VrfInfoConfigDir = Routing::VrfInfoConfigDirOf<InfoConfig>;

}  // namespace Routing6
