// IPv4 interface configuration and status, and the VRFs' local and global status.
#pragma once

#include <cstdint>
#include <ostream>

#include "konet/IntfId.h"
#include "konet/IpPrefix.h"
#include "konet/NamespaceName.h"
#include "konet/VrfName.h"
#include "mox/Entity.h"
#include "mox/Enum.h"
#include "mox/HashMap.h"
#include "mox/Name.h"
#include "platform/L3.h"
#include "platform/Multicast.h"
#include "platform/Urpf.h"

namespace Ip {

// A setting that may be left to its default: unset, false or true.
enum class TristateBool : uint8_t { isUnset = 0, isFalse = 1, isTrue = 2 };
constexpr auto moxEnumNames(TristateBool) {
   return Mox::EnumNames<TristateBool, 3>{{{TristateBool::isUnset, "isUnset"},
                                           {TristateBool::isFalse, "isFalse"},
                                           {TristateBool::isTrue, "isTrue"}}};
}
inline std::ostream& operator<<(std::ostream& os, TristateBool v) { return Mox::streamEnum(os, v); }

// Where an interface's address comes from.
enum class ConfigSource : uint8_t { cli = 0, dhcp = 1, unnumbered = 2 };
constexpr auto moxEnumNames(ConfigSource) {
   return Mox::EnumNames<ConfigSource, 3>{{{ConfigSource::cli, "cli"},
                                           {ConfigSource::dhcp, "dhcp"},
                                           {ConfigSource::unnumbered, "unnumbered"}}};
}
inline std::ostream& operator<<(std::ostream& os, ConfigSource v) { return Mox::streamEnum(os, v); }

// Which source gives an interface its primary address.
enum class AddrSource : uint8_t { cli = 0, dhcp = 1, none = 2 };
constexpr auto moxEnumNames(AddrSource) {
   return Mox::EnumNames<AddrSource, 3>{
       {{AddrSource::cli, "cli"}, {AddrSource::dhcp, "dhcp"}, {AddrSource::none, "none"}}};
}
inline std::ostream& operator<<(std::ostream& os, AddrSource v) { return Mox::streamEnum(os, v); }

using AddrSet = Mox::HashSet<Konet::IpAddrWithMask>;

// The IPv4 configuration of one interface.
class IpIntfConfig : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<IpIntfConfig> {
   public:
      virtual void onAddrWithMask() {}
      virtual void onSecondaryWithMask(Konet::IpAddrWithMask const&) {}
      virtual void onVirtualAddrWithMask() {}
      virtual void onVirtualSecondaryWithMask(Konet::IpAddrWithMask const&) {}
      virtual void onMaxMssIngress() {}
      virtual void onMaxMssEgress() {}
      virtual void onConfigSource() {}
      virtual void onProxyArpEnabled() {}
      virtual void onLocalProxyArpEnabled() {}
      virtual void onGratuitousArpAccepted() {}
      virtual void onForwarding() {}
      virtual void onNoArp() {}
      virtual void onDirectedBroadcastEnabled() {}
      virtual void onAttachedRoutes() {}
      virtual void onUrpf() {}
      virtual void onUnnumberedIntfId() {}
      virtual void onForceDpRoutingEnabled() {}
      virtual void onL3Config() {}
      virtual void onAddrSource() {}
      virtual void onScope() {}
   };

   explicit IpIntfConfig(Konet::IntfId intf) : intf_(std::move(intf)) {}
   Konet::IntfId const& intf() const { return intf_; }

   Konet::IpAddrWithMask addrWithMask() const { return addrWithMask_; }
   void addrWithMaskIs(Konet::IpAddrWithMask v) {
      setAttr(addrWithMask_, v, &NotifieeConst::onAddrWithMask);
   }
   bool secondaryWithMask(Konet::IpAddrWithMask const& a) const {
      return secondaryWithMask_.contains(a);
   }
   void secondaryWithMaskIs(Konet::IpAddrWithMask const& a) {
      insertMember(secondaryWithMask_, a, &NotifieeConst::onSecondaryWithMask);
   }
   void secondaryWithMaskDel(Konet::IpAddrWithMask const& a) {
      delMember(secondaryWithMask_, a, &NotifieeConst::onSecondaryWithMask);
   }
   AddrSet const& secondaryWithMaskIterator() const { return secondaryWithMask_; }

   Konet::IpAddrWithMask virtualAddrWithMask() const { return virtualAddrWithMask_; }
   void virtualAddrWithMaskIs(Konet::IpAddrWithMask v) {
      setAttr(virtualAddrWithMask_, v, &NotifieeConst::onVirtualAddrWithMask);
   }
   bool virtualSecondaryWithMask(Konet::IpAddrWithMask const& a) const {
      return virtualSecondaryWithMask_.contains(a);
   }
   void virtualSecondaryWithMaskIs(Konet::IpAddrWithMask const& a) {
      insertMember(virtualSecondaryWithMask_, a, &NotifieeConst::onVirtualSecondaryWithMask);
   }
   void virtualSecondaryWithMaskDel(Konet::IpAddrWithMask const& a) {
      delMember(virtualSecondaryWithMask_, a, &NotifieeConst::onVirtualSecondaryWithMask);
   }
   AddrSet const& virtualSecondaryWithMaskIterator() const { return virtualSecondaryWithMask_; }

   uint16_t maxMssIngress() const { return maxMssIngress_; }
   void maxMssIngressIs(uint16_t v) { setAttr(maxMssIngress_, v, &NotifieeConst::onMaxMssIngress); }
   uint16_t maxMssEgress() const { return maxMssEgress_; }
   void maxMssEgressIs(uint16_t v) { setAttr(maxMssEgress_, v, &NotifieeConst::onMaxMssEgress); }
   ConfigSource configSource() const { return configSource_; }
   void configSourceIs(ConfigSource v) {
      setAttr(configSource_, v, &NotifieeConst::onConfigSource);
   }
   bool proxyArpEnabled() const { return proxyArpEnabled_; }
   void proxyArpEnabledIs(bool v) {
      setAttr(proxyArpEnabled_, v, &NotifieeConst::onProxyArpEnabled);
   }
   bool localProxyArpEnabled() const { return localProxyArpEnabled_; }
   void localProxyArpEnabledIs(bool v) {
      setAttr(localProxyArpEnabled_, v, &NotifieeConst::onLocalProxyArpEnabled);
   }
   bool gratuitousArpAccepted() const { return gratuitousArpAccepted_; }
   void gratuitousArpAcceptedIs(bool v) {
      setAttr(gratuitousArpAccepted_, v, &NotifieeConst::onGratuitousArpAccepted);
   }
   // IPv4 forwarding on the interface (routing of the VRF permitting).
   bool forwarding() const { return forwarding_; }
   void forwardingIs(bool v) { setAttr(forwarding_, v, &NotifieeConst::onForwarding); }
   // isTrue sets IFF_NOARP on the device.
   TristateBool noArp() const { return noArp_; }
   void noArpIs(TristateBool v) { setAttr(noArp_, v, &NotifieeConst::onNoArp); }
   bool directedBroadcastEnabled() const { return directedBroadcastEnabled_; }
   void directedBroadcastEnabledIs(bool v) {
      setAttr(directedBroadcastEnabled_, v, &NotifieeConst::onDirectedBroadcastEnabled);
   }
   bool attachedRoutes() const { return attachedRoutes_; }
   void attachedRoutesIs(bool v) { setAttr(attachedRoutes_, v, &NotifieeConst::onAttachedRoutes); }
   Urpf::UrpfConfig urpf() const { return urpf_; }
   void urpfIs(Urpf::UrpfConfig v) { setAttr(urpf_, v, &NotifieeConst::onUrpf); }
   Konet::IntfId const& unnumberedIntfId() const { return unnumberedIntfId_; }
   void unnumberedIntfIdIs(Konet::IntfId const& v) {
      setAttr(unnumberedIntfId_, v, &NotifieeConst::onUnnumberedIntfId);
   }
   bool forceDpRoutingEnabled() const { return forceDpRoutingEnabled_; }
   void forceDpRoutingEnabledIs(bool v) {
      setAttr(forceDpRoutingEnabled_, v, &NotifieeConst::onForceDpRoutingEnabled);
   }
   // The interface's L3 configuration (its VRF).
   Mox::Ptr<L3::Intf::Config const> const& l3Config() const { return l3Config_; }
   void l3ConfigIs(Mox::Ptr<L3::Intf::Config const> const& v) {
      setAttr(l3Config_, v, &NotifieeConst::onL3Config);
   }
   // The source of the primary address: this entry's addrWithMask, or the DHCP lease.
   AddrSource addrSource() const { return addrSource_; }
   void addrSourceIs(AddrSource v) { setAttr(addrSource_, v, &NotifieeConst::onAddrSource); }
   // The scope of the interface's addresses (RT_SCOPE_*; 0 is universe).
   uint8_t scope() const { return scope_; }
   void scopeIs(uint8_t v) { setAttr(scope_, v, &NotifieeConst::onScope); }

private:
   Konet::IntfId const intf_;
   Konet::IpAddrWithMask addrWithMask_;
   AddrSet secondaryWithMask_;
   Konet::IpAddrWithMask virtualAddrWithMask_;
   AddrSet virtualSecondaryWithMask_;
   uint16_t maxMssIngress_ = 0;
   uint16_t maxMssEgress_ = 0;
   ConfigSource configSource_ = ConfigSource::cli;
   bool proxyArpEnabled_ = false;
   bool localProxyArpEnabled_ = false;
   bool gratuitousArpAccepted_ = false;
   bool forwarding_ = true;
   TristateBool noArp_ = TristateBool::isUnset;
   bool directedBroadcastEnabled_ = false;
   bool attachedRoutes_ = true;
   Urpf::UrpfConfig urpf_;
   Konet::IntfId unnumberedIntfId_;
   bool forceDpRoutingEnabled_ = false;
   Mox::Ptr<L3::Intf::Config const> l3Config_;
   AddrSource addrSource_ = AddrSource::cli;
   uint8_t scope_ = 0;
};

// The IPv4 configuration of the switch.
class Config : public Mox::Entity {
public:
   static constexpr Mox::AttrId kIpIntfConfig = 1;
   class NotifieeConst : public Mox::EntityNotifiee<Config> {
   public:
      virtual void onIpIntfConfig(Konet::IntfId const&) {}
      virtual void onSendRedirects() {}
      virtual void onIcmpSrcIntf() {}
      virtual void onIcmpSrcIpAddr() {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<IpIntfConfig>>;

   Mox::Ptr<IpIntfConfig> ipIntfConfig(Konet::IntfId const& id) const {
      return Mox::valueOr(ipIntfConfig_, id);
   }
   Mox::Ptr<IpIntfConfig> ipIntfConfigIs(Konet::IntfId const& id) {
      return instantiateMember<IpIntfConfig>(ipIntfConfig_, id, kIpIntfConfig,
                                             &NotifieeConst::onIpIntfConfig);
   }
   void ipIntfConfigDel(Konet::IntfId const& id) {
      delMember(ipIntfConfig_, id, &NotifieeConst::onIpIntfConfig);
   }
   Members const& ipIntfConfigIterator() const { return ipIntfConfig_; }

   // ICMP redirects sent by the kernel, everywhere.
   bool sendRedirects() const { return sendRedirects_; }
   void sendRedirectsIs(bool v) { setAttr(sendRedirects_, v, &NotifieeConst::onSendRedirects); }
   // The interface whose address ICMP errors are sent from (none: the kernel's choice).
   Konet::IntfId const& icmpSrcIntf() const { return icmpSrcIntf_; }
   void icmpSrcIntfIs(Konet::IntfId const& v) {
      setAttr(icmpSrcIntf_, v, &NotifieeConst::onIcmpSrcIntf);
   }
   // The address ICMP errors are sent from (zero: the kernel's choice).
   Konet::IpAddr icmpSrcIpAddr() const { return icmpSrcIpAddr_; }
   void icmpSrcIpAddrIs(Konet::IpAddr v) {
      setAttr(icmpSrcIpAddr_, v, &NotifieeConst::onIcmpSrcIpAddr);
   }

private:
   Members ipIntfConfig_;
   bool sendRedirects_ = false;
   Konet::IntfId icmpSrcIntf_;
   Konet::IpAddr icmpSrcIpAddr_;
};

// The IPv4 status of one interface, as one producer writes it.
class IpIntfStatus : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<IpIntfStatus> {
   public:
      virtual void onAddrWithMask() {}
      virtual void onActiveSecondaryWithMask(Konet::IpAddrWithMask const&) {}
      virtual void onVirtualAddrWithMask() {}
      virtual void onActiveVirtualSecondaryWithMask(Konet::IpAddrWithMask const&) {}
      virtual void onMaxMssIngress() {}
      virtual void onMaxMssEgress() {}
      virtual void onNoArp() {}
      virtual void onDirectedBroadcastEnabled() {}
      virtual void onAttachedRoutes() {}
      virtual void onUnnumberedIntfId() {}
      virtual void onVrf() {}
      virtual void onDpRoutingEnabled() {}
      virtual void onUrpf() {}
      virtual void onMcaddr(Konet::IpAddr const&) {}
   };
   using Mcaddrs = Mox::HashMap<Konet::IpAddr, Mcast::MulticastGroupInfo>;

   explicit IpIntfStatus(Konet::IntfId intf) : intf_(std::move(intf)) {}
   Konet::IntfId const& intf() const { return intf_; }

   Konet::IpAddrWithMask addrWithMask() const { return addrWithMask_; }
   void addrWithMaskIs(Konet::IpAddrWithMask v) {
      setAttr(addrWithMask_, v, &NotifieeConst::onAddrWithMask);
   }
   bool activeSecondaryWithMask(Konet::IpAddrWithMask const& a) const {
      return activeSecondaryWithMask_.contains(a);
   }
   void activeSecondaryWithMaskIs(Konet::IpAddrWithMask const& a) {
      insertMember(activeSecondaryWithMask_, a, &NotifieeConst::onActiveSecondaryWithMask);
   }
   void activeSecondaryWithMaskDel(Konet::IpAddrWithMask const& a) {
      delMember(activeSecondaryWithMask_, a, &NotifieeConst::onActiveSecondaryWithMask);
   }
   AddrSet const& activeSecondaryWithMaskIterator() const { return activeSecondaryWithMask_; }

   Konet::IpAddrWithMask virtualAddrWithMask() const { return virtualAddrWithMask_; }
   void virtualAddrWithMaskIs(Konet::IpAddrWithMask v) {
      setAttr(virtualAddrWithMask_, v, &NotifieeConst::onVirtualAddrWithMask);
   }
   bool activeVirtualSecondaryWithMask(Konet::IpAddrWithMask const& a) const {
      return activeVirtualSecondaryWithMask_.contains(a);
   }
   void activeVirtualSecondaryWithMaskIs(Konet::IpAddrWithMask const& a) {
      insertMember(activeVirtualSecondaryWithMask_, a,
                   &NotifieeConst::onActiveVirtualSecondaryWithMask);
   }
   void activeVirtualSecondaryWithMaskDel(Konet::IpAddrWithMask const& a) {
      delMember(activeVirtualSecondaryWithMask_, a,
                &NotifieeConst::onActiveVirtualSecondaryWithMask);
   }
   AddrSet const& activeVirtualSecondaryWithMaskIterator() const {
      return activeVirtualSecondaryWithMask_;
   }

   uint16_t maxMssIngress() const { return maxMssIngress_; }
   void maxMssIngressIs(uint16_t v) { setAttr(maxMssIngress_, v, &NotifieeConst::onMaxMssIngress); }
   uint16_t maxMssEgress() const { return maxMssEgress_; }
   void maxMssEgressIs(uint16_t v) { setAttr(maxMssEgress_, v, &NotifieeConst::onMaxMssEgress); }
   TristateBool noArp() const { return noArp_; }
   void noArpIs(TristateBool v) { setAttr(noArp_, v, &NotifieeConst::onNoArp); }
   bool directedBroadcastEnabled() const { return directedBroadcastEnabled_; }
   void directedBroadcastEnabledIs(bool v) {
      setAttr(directedBroadcastEnabled_, v, &NotifieeConst::onDirectedBroadcastEnabled);
   }
   bool attachedRoutes() const { return attachedRoutes_; }
   void attachedRoutesIs(bool v) { setAttr(attachedRoutes_, v, &NotifieeConst::onAttachedRoutes); }
   Konet::IntfId const& unnumberedIntfId() const { return unnumberedIntfId_; }
   void unnumberedIntfIdIs(Konet::IntfId const& v) {
      setAttr(unnumberedIntfId_, v, &NotifieeConst::onUnnumberedIntfId);
   }
   L3::VrfName const& vrf() const { return vrf_; }
   void vrfIs(L3::VrfName const& v) { setAttr(vrf_, v, &NotifieeConst::onVrf); }
   // Routing in the data plane is on for the interface.
   bool dpRoutingEnabled() const { return dpRoutingEnabled_; }
   void dpRoutingEnabledIs(bool v) {
      setAttr(dpRoutingEnabled_, v, &NotifieeConst::onDpRoutingEnabled);
   }
   // The uRPF check in effect.
   Urpf::UrpfConfig urpf() const { return urpf_; }
   void urpfIs(Urpf::UrpfConfig v) { setAttr(urpf_, v, &NotifieeConst::onUrpf); }
   // The multicast groups joined on the interface, each with the applications using it.
   Mcast::MulticastGroupInfo const* mcaddr(Konet::IpAddr const& g) const { return mcaddr_.find(g); }
   void mcaddrIs(Konet::IpAddr const& g, Mcast::MulticastGroupInfo const& info) {
      setMember(mcaddr_, g, info, &NotifieeConst::onMcaddr);
   }
   void mcaddrDel(Konet::IpAddr const& g) { delMember(mcaddr_, g, &NotifieeConst::onMcaddr); }
   Mcaddrs const& mcaddrIterator() const { return mcaddr_; }

private:
   Konet::IntfId const intf_;
   Mcaddrs mcaddr_;
   Konet::IpAddrWithMask addrWithMask_;
   AddrSet activeSecondaryWithMask_;
   Konet::IpAddrWithMask virtualAddrWithMask_;
   AddrSet activeVirtualSecondaryWithMask_;
   uint16_t maxMssIngress_ = 0;
   uint16_t maxMssEgress_ = 0;
   TristateBool noArp_ = TristateBool::isUnset;
   bool directedBroadcastEnabled_ = false;
   bool attachedRoutes_ = true;
   Konet::IntfId unnumberedIntfId_;
   L3::VrfName vrf_;
   bool dpRoutingEnabled_ = false;
   Urpf::UrpfConfig urpf_;
};

namespace Input {

// The IPv4 interface statuses of one producer.
class Status : public Mox::Entity {
public:
   static constexpr Mox::AttrId kIpIntfStatus = 1;
   class NotifieeConst : public Mox::EntityNotifiee<Status> {
   public:
      virtual void onIpIntfStatus(Konet::IntfId const&) {}
      virtual void onUrpfConfiguredOnAnyIntf() {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<IpIntfStatus>>;

   explicit Status(Mox::Name name = Mox::Name()) : name_(std::move(name)) {}
   Mox::Name const& name() const { return name_; }

   Mox::Ptr<IpIntfStatus> ipIntfStatus(Konet::IntfId const& id) const {
      return Mox::valueOr(ipIntfStatus_, id);
   }
   Mox::Ptr<IpIntfStatus> ipIntfStatusIs(Konet::IntfId const& id) {
      return instantiateMember<IpIntfStatus>(ipIntfStatus_, id, kIpIntfStatus,
                                             &NotifieeConst::onIpIntfStatus);
   }
   void ipIntfStatusDel(Konet::IntfId const& id) {
      delMember(ipIntfStatus_, id, &NotifieeConst::onIpIntfStatus);
   }
   Members const& ipIntfStatusIterator() const { return ipIntfStatus_; }
   size_t ipIntfStatusSize() const { return ipIntfStatus_.size(); }

   bool urpfConfiguredOnAnyIntf() const { return urpfConfiguredOnAnyIntf_; }
   void urpfConfiguredOnAnyIntfIs(bool v) {
      setAttr(urpfConfiguredOnAnyIntf_, v, &NotifieeConst::onUrpfConfiguredOnAnyIntf);
   }

private:
   Mox::Name name_;
   Members ipIntfStatus_;
   bool urpfConfiguredOnAnyIntf_ = false;
};

}  // namespace Input

// The IPv4 status inputs of every producer, by name.
class IpInputStatusDir : public Mox::Entity {
public:
   static constexpr Mox::AttrId kInputStatus = 1;
   class NotifieeConst : public Mox::EntityNotifiee<IpInputStatusDir> {
   public:
      virtual void onInputStatus(Mox::Name const&) {}
   };
   using Members = Mox::HashMap<Mox::Name, Mox::Ptr<Input::Status>>;
   Mox::Ptr<Input::Status> inputStatus(Mox::Name const& n) const { return Mox::valueOr(input_, n); }
   Mox::Ptr<Input::Status> inputStatusIs(Mox::Name const& n) {
      return instantiateMember<Input::Status>(input_, n, kInputStatus,
                                              &NotifieeConst::onInputStatus);
   }
   void inputStatusDel(Mox::Name const& n) { delMember(input_, n, &NotifieeConst::onInputStatus); }
   Members const& inputStatusIterator() const { return input_; }

private:
   Members input_;
};

// The interfaces of one VRF in the published status.
class VrfIpIntfStatus : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<VrfIpIntfStatus> {
   public:
      virtual void onIpIntfStatus(Konet::IntfId const&) {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<IpIntfStatus const>>;
   explicit VrfIpIntfStatus(L3::VrfName vrf) : vrf_(std::move(vrf)) {}
   L3::VrfName const& vrf() const { return vrf_; }
   Mox::Ptr<IpIntfStatus const> ipIntfStatus(Konet::IntfId const& id) const {
      return Mox::valueOr(ipIntfStatus_, id);
   }
   void ipIntfStatusIs(Mox::Ptr<IpIntfStatus const> const& s) {
      setMember(ipIntfStatus_, s->intf(), s, &NotifieeConst::onIpIntfStatus);
   }
   void ipIntfStatusDel(Konet::IntfId const& id) {
      delMember(ipIntfStatus_, id, &NotifieeConst::onIpIntfStatus);
   }
   Members const& ipIntfStatusIterator() const { return ipIntfStatus_; }
   size_t ipIntfStatusSize() const { return ipIntfStatus_.size(); }

private:
   L3::VrfName const vrf_;
   Members ipIntfStatus_;
};

// The published IPv4 status: every interface's status, and the interfaces of each VRF.
class Status : public Mox::Entity {
public:
   static constexpr Mox::AttrId kVrfIpIntfStatus = 2;
   class NotifieeConst : public Mox::EntityNotifiee<Status> {
   public:
      virtual void onIntf(Konet::IntfId const&) {}
      virtual void onVrfIpIntfStatus(L3::VrfName const&) {}
      virtual void onUrpfConfiguredOnAnyIntf() {}
   };
   using Intfs = Mox::HashMap<Konet::IntfId, Mox::Ptr<IpIntfStatus const>>;
   using Vrfs = Mox::HashMap<L3::VrfName, Mox::Ptr<VrfIpIntfStatus>>;

   Mox::Ptr<IpIntfStatus const> intf(Konet::IntfId const& id) const {
      return Mox::valueOr(intf_, id);
   }
   void intfIs(Mox::Ptr<IpIntfStatus const> const& s) {
      setMember(intf_, s->intf(), s, &NotifieeConst::onIntf);
   }
   void intfDel(Konet::IntfId const& id) { delMember(intf_, id, &NotifieeConst::onIntf); }
   Intfs const& intfIterator() const { return intf_; }

   Mox::Ptr<VrfIpIntfStatus> vrfIpIntfStatus(L3::VrfName const& v) const {
      return Mox::valueOr(vrf_, v);
   }
   Mox::Ptr<VrfIpIntfStatus> vrfIpIntfStatusIs(L3::VrfName const& v) {
      return instantiateMember<VrfIpIntfStatus>(vrf_, v, kVrfIpIntfStatus,
                                                &NotifieeConst::onVrfIpIntfStatus);
   }
   void vrfIpIntfStatusDel(L3::VrfName const& v) {
      delMember(vrf_, v, &NotifieeConst::onVrfIpIntfStatus);
   }
   Vrfs const& vrfIpIntfStatusIterator() const { return vrf_; }

   bool urpfConfiguredOnAnyIntf() const { return urpfConfiguredOnAnyIntf_; }
   void urpfConfiguredOnAnyIntfIs(bool v) {
      setAttr(urpfConfiguredOnAnyIntf_, v, &NotifieeConst::onUrpfConfiguredOnAnyIntf);
   }

private:
   Intfs intf_;
   Vrfs vrf_;
   bool urpfConfiguredOnAnyIntf_ = false;
};

// Multicast group membership (Multicast.h): the groups each application wants joined, by
// application name, and the applications using each group of an interface's status.
using IntfAddrInfo = Mcast::IntfAddrInfoOf<Konet::IpAddr>;
using MulticastGroupInfo = Mcast::MulticastGroupInfo;
using MulticastApplication = Mcast::MulticastApplicationOf<Konet::IpAddr>;
using MulticastGroupsForApplications = Mcast::MulticastGroupsForApplicationsOf<Konet::IpAddr>;

// ---- VRF status

// The local state of a VRF: the VRF creation machine makes it active once the VRF's
// namespace exists, and deleting while the VRF is being cleaned up.
enum class VrfState : uint8_t { initializing = 0, active = 1, deleting = 2 };
constexpr auto moxEnumNames(VrfState) {
   return Mox::EnumNames<VrfState, 3>{{{VrfState::initializing, "initializing"},
                                       {VrfState::active, "active"},
                                       {VrfState::deleting, "deleting"}}};
}
inline std::ostream& operator<<(std::ostream& os, VrfState v) { return Mox::streamEnum(os, v); }

class VrfStatusLocal : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<VrfStatusLocal> {
   public:
      virtual void onState() {}
      virtual void onNetNsName() {}
   };
   explicit VrfStatusLocal(L3::VrfName name) : name_(std::move(name)) {}
   L3::VrfName const& name() const { return name_; }
   VrfState state() const { return state_; }
   void stateIs(VrfState v) { setAttr(state_, v, &NotifieeConst::onState); }
   // The VRF's network namespace.
   Konet::NamespaceName const& netNsName() const { return netNsName_; }
   void netNsNameIs(Konet::NamespaceName const& v) {
      setAttr(netNsName_, v, &NotifieeConst::onNetNsName);
   }

private:
   L3::VrfName const name_;
   VrfState state_ = VrfState::initializing;
   Konet::NamespaceName netNsName_;
};

class VrfStatusGlobal : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<VrfStatusGlobal> {
   public:
      virtual void onVrfId() {}
   };
   explicit VrfStatusGlobal(L3::VrfName name) : name_(std::move(name)) {}
   L3::VrfName const& name() const { return name_; }
   uint32_t vrfId() const { return vrfId_; }
   void vrfIdIs(uint32_t v) { setAttr(vrfId_, v, &NotifieeConst::onVrfId); }

private:
   L3::VrfName const name_;
   uint32_t vrfId_ = 0;
};

// A directory of per-VRF entries by name.
template <class Member>
class AllVrfOf : public Mox::Entity {
public:
   static constexpr Mox::AttrId kVrf = 1;
   class NotifieeConst : public Mox::EntityNotifiee<AllVrfOf> {
   public:
      virtual void onVrf(L3::VrfName const&) {}
      // The whole collection changed at once (never sent by this directory).
      virtual void onVrf() {}
   };
   using Members = Mox::HashMap<L3::VrfName, Mox::Ptr<Member>>;
   Mox::Ptr<Member> vrf(L3::VrfName const& n) const { return Mox::valueOr(vrf_, n); }
   Mox::Ptr<Member> vrfIs(L3::VrfName const& n) {
      return this->template instantiateMember<Member>(vrf_, n, kVrf, &NotifieeConst::onVrf);
   }
   void vrfDel(L3::VrfName const& n) { this->delMember(vrf_, n, &NotifieeConst::onVrf); }
   Members const& vrfIterator() const { return vrf_; }

private:
   Members vrf_;
};
using AllVrfStatusLocal = AllVrfOf<VrfStatusLocal>;
using AllVrfStatusGlobal = AllVrfOf<VrfStatusGlobal>;

// VRF configuration and capability, held by the VRF machines only.
class AllVrfConfig : public Mox::Entity {};
class VrfCapability : public Mox::Entity {};

}  // namespace Ip
