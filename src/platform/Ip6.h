// IPv6 interface configuration and status: the configuration of each interface and the
// switch-wide defaults, each producer's interface status, the enable overrides other
// programs ask for, and the multicast groups the interfaces join.
#pragma once

#include "konet/IntfId.h"
#include "konet/IpPrefix.h"
#include "konet/VrfName.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"
#include "mox/Name.h"
#include "platform/Ip.h"
#include "platform/L3.h"
#include "platform/Multicast.h"
#include "platform/Urpf.h"

namespace Ip6 {

// Duplicate address detection on an interface, written to accept_dad by its number: the
// kernel's default (1), off (0), on (1), on and IPv6 off on a link-local failure (2).
enum class AcceptDadMode : uint8_t {
   dadDefault = 0,
   dadDisabled = 1,
   dadEnabled = 2,
   dadStrict = 3
};
constexpr auto moxEnumNames(AcceptDadMode) {
   using M = AcceptDadMode;
   return Mox::EnumNames<M, 4>{{{M::dadDefault, "dadDefault"},
                                {M::dadDisabled, "dadDisabled"},
                                {M::dadEnabled, "dadEnabled"},
                                {M::dadStrict, "dadStrict"}}};
}
inline std::ostream& operator<<(std::ostream& os, AcceptDadMode v) {
   return Mox::streamEnum(os, v);
}

// Where an interface's global addresses come from: the configuration, or the router
// advertisements of the link as well (stateless autoconfiguration).
enum class AddrSource : uint8_t { manual = 0, slaac = 1 };
constexpr auto moxEnumNames(AddrSource) {
   return Mox::EnumNames<AddrSource, 2>{
       {{AddrSource::manual, "manual"}, {AddrSource::slaac, "slaac"}}};
}
inline std::ostream& operator<<(std::ostream& os, AddrSource v) { return Mox::streamEnum(os, v); }

using AddrSet = Mox::HashSet<Konet::Ip6AddrWithMask>;

// The IPv6 configuration of one interface.
class IntfConfig : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<IntfConfig> {
   public:
      virtual void onEnable() {}
      virtual void onAddr(Konet::Ip6AddrWithMask const&) {}
      virtual void onLlAddrWithMask() {}
      virtual void onAddrSource() {}
      virtual void onAcceptDad() {}
      virtual void onEnhancedDad() {}
      virtual void onNsRetransmitInterval() {}
      virtual void onNsSourceAddr() {}
      virtual void onAcceptRaDefRtr() {}
      virtual void onNoArp() {}
      virtual void onUrpf() {}
      virtual void onForceDpRoutingEnabled() {}
      virtual void onL3Config() {}
   };
   explicit IntfConfig(Konet::IntfId intf) : intf_(std::move(intf)) {}
   Konet::IntfId const& intf() const { return intf_; }
   bool enable() const { return enable_; }
   void enableIs(bool v) { setAttr(enable_, v, &NotifieeConst::onEnable); }
   // The global addresses.
   bool addr(Konet::Ip6AddrWithMask const& a) const { return addr_.contains(a); }
   void addrIs(Konet::Ip6AddrWithMask const& a) { insertMember(addr_, a, &NotifieeConst::onAddr); }
   void addrDel(Konet::Ip6AddrWithMask const& a) { delMember(addr_, a, &NotifieeConst::onAddr); }
   AddrSet const& addrIterator() const { return addr_; }
   // An explicit link-local address (none: ::/0, the one from the EUI-64 is used).
   Konet::Ip6AddrWithMask const& llAddrWithMask() const { return llAddrWithMask_; }
   void llAddrWithMaskIs(Konet::Ip6AddrWithMask const& v) {
      setAttr(llAddrWithMask_, v, &NotifieeConst::onLlAddrWithMask);
   }
   AddrSource addrSource() const { return addrSource_; }
   void addrSourceIs(AddrSource v) { setAttr(addrSource_, v, &NotifieeConst::onAddrSource); }
   AcceptDadMode acceptDad() const { return acceptDad_; }
   void acceptDadIs(AcceptDadMode v) { setAttr(acceptDad_, v, &NotifieeConst::onAcceptDad); }
   // Enhanced DAD (unset: the switch-wide default).
   Ip::TristateBool enhancedDad() const { return enhancedDad_; }
   void enhancedDadIs(Ip::TristateBool v) {
      setAttr(enhancedDad_, v, &NotifieeConst::onEnhancedDad);
   }
   // Neighbour solicitations: the interval in milliseconds (0: the kernel's) and the source
   // address (zero: the kernel's choice).
   uint32_t nsRetransmitInterval() const { return nsRetransmitInterval_; }
   void nsRetransmitIntervalIs(uint32_t v) {
      setAttr(nsRetransmitInterval_, v, &NotifieeConst::onNsRetransmitInterval);
   }
   Konet::Ip6Addr const& nsSourceAddr() const { return nsSourceAddr_; }
   void nsSourceAddrIs(Konet::Ip6Addr const& v) {
      setAttr(nsSourceAddr_, v, &NotifieeConst::onNsSourceAddr);
   }
   // A default router learnt from router advertisements is accepted.
   bool acceptRaDefRtr() const { return acceptRaDefRtr_; }
   void acceptRaDefRtrIs(bool v) { setAttr(acceptRaDefRtr_, v, &NotifieeConst::onAcceptRaDefRtr); }
   // isTrue sets IFF_NOARP on the device.
   Ip::TristateBool noArp() const { return noArp_; }
   void noArpIs(Ip::TristateBool v) { setAttr(noArp_, v, &NotifieeConst::onNoArp); }
   // Unicast reverse-path checking of IPv6 packets arriving on the interface.
   Urpf::UrpfConfig urpf() const { return urpf_; }
   void urpfIs(Urpf::UrpfConfig v) { setAttr(urpf_, v, &NotifieeConst::onUrpf); }
   // The data plane routes IPv6 on the interface even where forwarding is off.
   bool forceDpRoutingEnabled() const { return forceDpRoutingEnabled_; }
   void forceDpRoutingEnabledIs(bool v) {
      setAttr(forceDpRoutingEnabled_, v, &NotifieeConst::onForceDpRoutingEnabled);
   }
   Mox::Ptr<L3::Intf::Config const> const& l3Config() const { return l3Config_; }
   void l3ConfigIs(Mox::Ptr<L3::Intf::Config const> const& v) {
      setAttr(l3Config_, v, &NotifieeConst::onL3Config);
   }

private:
   Konet::IntfId const intf_;
   bool enable_ = false;
   AddrSet addr_;
   Konet::Ip6AddrWithMask llAddrWithMask_;
   AddrSource addrSource_ = AddrSource::manual;
   AcceptDadMode acceptDad_ = AcceptDadMode::dadDefault;
   Ip::TristateBool enhancedDad_ = Ip::TristateBool::isUnset;
   uint32_t nsRetransmitInterval_ = 0;
   Konet::Ip6Addr nsSourceAddr_;
   bool acceptRaDefRtr_ = false;
   Ip::TristateBool noArp_ = Ip::TristateBool::isUnset;
   Urpf::UrpfConfig urpf_;
   bool forceDpRoutingEnabled_ = false;
   Mox::Ptr<L3::Intf::Config const> l3Config_;
};

class Config : public Mox::Entity {
public:
   static constexpr Mox::AttrId kIntf = 1;
   class NotifieeConst : public Mox::EntityNotifiee<Config> {
   public:
      virtual void onIntf(Konet::IntfId const&) {}
      virtual void onEnhancedDad() {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<IntfConfig>>;
   Mox::Ptr<IntfConfig> intf(Konet::IntfId const& id) const { return Mox::valueOr(intf_, id); }
   Mox::Ptr<IntfConfig> intfIs(Konet::IntfId const& id) {
      return instantiateMember<IntfConfig>(intf_, id, kIntf, &NotifieeConst::onIntf);
   }
   void intfDel(Konet::IntfId const& id) { delMember(intf_, id, &NotifieeConst::onIntf); }
   Members const& intfIterator() const { return intf_; }
   // Enhanced DAD where an interface leaves it unset.
   bool enhancedDad() const { return enhancedDad_; }
   void enhancedDadIs(bool v) { setAttr(enhancedDad_, v, &NotifieeConst::onEnhancedDad); }

private:
   Members intf_;
   bool enhancedDad_ = false;
};

// The IPv6 status of one interface, as one producer writes it: the addresses the kernel
// holds for it (link-local ones included), those that failed duplicate address detection and
// the neighbour-discovery settings in force.
class IntfStatus : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<IntfStatus> {
   public:
      virtual void onAddr(Konet::Ip6AddrWithMask const&) {}
      virtual void onDadFailedAddr(Konet::Ip6AddrWithMask const&) {}
      virtual void onAcceptDad() {}
      virtual void onEnhancedDad() {}
      virtual void onNsRetransmitInterval() {}
      virtual void onUrpf() {}
      virtual void onDpRoutingEnabled() {}
      virtual void onVrf() {}
      virtual void onMcaddr(Konet::Ip6Addr const&) {}
   };
   using Mcaddrs = Mox::HashMap<Konet::Ip6Addr, Mcast::MulticastGroupInfo>;
   explicit IntfStatus(Konet::IntfId intf) : intf_(std::move(intf)) {}
   Konet::IntfId const& intf() const { return intf_; }
   // The addresses the kernel holds on the interface, link-local ones included.
   bool addrHas(Konet::Ip6AddrWithMask const& a) const { return addr_.contains(a); }
   void addrIs(Konet::Ip6AddrWithMask const& a) { insertMember(addr_, a, &NotifieeConst::onAddr); }
   void addrDel(Konet::Ip6AddrWithMask const& a) { delMember(addr_, a, &NotifieeConst::onAddr); }
   AddrSet const& addrIterator() const { return addr_; }
   // Configured addresses that failed duplicate address detection.
   bool dadFailedAddrHas(Konet::Ip6AddrWithMask const& a) const { return dadFailed_.contains(a); }
   void dadFailedAddrIs(Konet::Ip6AddrWithMask const& a) {
      insertMember(dadFailed_, a, &NotifieeConst::onDadFailedAddr);
   }
   void dadFailedAddrDel(Konet::Ip6AddrWithMask const& a) {
      delMember(dadFailed_, a, &NotifieeConst::onDadFailedAddr);
   }
   AddrSet const& dadFailedAddrIterator() const { return dadFailed_; }
   AcceptDadMode acceptDad() const { return acceptDad_; }
   void acceptDadIs(AcceptDadMode v) { setAttr(acceptDad_, v, &NotifieeConst::onAcceptDad); }
   Ip::TristateBool enhancedDad() const { return enhancedDad_; }
   void enhancedDadIs(Ip::TristateBool v) {
      setAttr(enhancedDad_, v, &NotifieeConst::onEnhancedDad);
   }
   uint32_t nsRetransmitInterval() const { return nsRetransmitInterval_; }
   void nsRetransmitIntervalIs(uint32_t v) {
      setAttr(nsRetransmitInterval_, v, &NotifieeConst::onNsRetransmitInterval);
   }
   Urpf::UrpfConfig urpf() const { return urpf_; }
   void urpfIs(Urpf::UrpfConfig v) { setAttr(urpf_, v, &NotifieeConst::onUrpf); }
   // The data plane routes IPv6 on the interface.
   bool dpRoutingEnabled() const { return dpRoutingEnabled_; }
   void dpRoutingEnabledIs(bool v) {
      setAttr(dpRoutingEnabled_, v, &NotifieeConst::onDpRoutingEnabled);
   }
   L3::VrfName const& vrf() const { return vrf_; }
   void vrfIs(L3::VrfName const& v) { setAttr(vrf_, v, &NotifieeConst::onVrf); }
   // The multicast groups joined on the interface, each with the applications using it.
   Mcast::MulticastGroupInfo const* mcaddr(Konet::Ip6Addr const& g) const {
      return mcaddr_.find(g);
   }
   void mcaddrIs(Konet::Ip6Addr const& g, Mcast::MulticastGroupInfo const& info) {
      setMember(mcaddr_, g, info, &NotifieeConst::onMcaddr);
   }
   void mcaddrDel(Konet::Ip6Addr const& g) { delMember(mcaddr_, g, &NotifieeConst::onMcaddr); }
   Mcaddrs const& mcaddrIterator() const { return mcaddr_; }

private:
   Konet::IntfId const intf_;
   AddrSet addr_;
   AddrSet dadFailed_;
   Urpf::UrpfConfig urpf_;
   bool dpRoutingEnabled_ = false;
   Mcaddrs mcaddr_;
   AcceptDadMode acceptDad_ = AcceptDadMode::dadDefault;
   Ip::TristateBool enhancedDad_ = Ip::TristateBool::isUnset;
   uint32_t nsRetransmitInterval_ = 0;
   L3::VrfName vrf_;
};

namespace Input {

// The IPv6 interface statuses of one producer.
class Status : public Mox::Entity {
public:
   static constexpr Mox::AttrId kIp6IntfStatus = 1;
   class NotifieeConst : public Mox::EntityNotifiee<Status> {
   public:
      virtual void onIp6IntfStatus(Konet::IntfId const&) {}
      virtual void onUrpfConfiguredOnAnyIntf() {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<IntfStatus>>;

   explicit Status(Mox::Name name = Mox::Name()) : name_(std::move(name)) {}
   Mox::Name const& name() const { return name_; }
   Mox::Ptr<IntfStatus> ip6IntfStatus(Konet::IntfId const& id) const {
      return Mox::valueOr(ip6IntfStatus_, id);
   }
   Mox::Ptr<IntfStatus> ip6IntfStatusIs(Konet::IntfId const& id) {
      return instantiateMember<IntfStatus>(ip6IntfStatus_, id, kIp6IntfStatus,
                                           &NotifieeConst::onIp6IntfStatus);
   }
   void ip6IntfStatusDel(Konet::IntfId const& id) {
      delMember(ip6IntfStatus_, id, &NotifieeConst::onIp6IntfStatus);
   }
   Members const& ip6IntfStatusIterator() const { return ip6IntfStatus_; }
   size_t ip6IntfStatusSize() const { return ip6IntfStatus_.size(); }

   bool urpfConfiguredOnAnyIntf() const { return urpfConfiguredOnAnyIntf_; }
   void urpfConfiguredOnAnyIntfIs(bool v) {
      setAttr(urpfConfiguredOnAnyIntf_, v, &NotifieeConst::onUrpfConfiguredOnAnyIntf);
   }

private:
   Mox::Name name_;
   Members ip6IntfStatus_;
   bool urpfConfiguredOnAnyIntf_ = false;
};

}  // namespace Input

// Multicast group membership (Multicast.h): the groups each application wants joined, by
// application name, and the applications using each group of an interface's status.
using IntfAddrInfo = Mcast::IntfAddrInfoOf<Konet::Ip6Addr>;
using MulticastGroupInfo = Mcast::MulticastGroupInfo;
using MulticastApplication = Mcast::MulticastApplicationOf<Konet::Ip6Addr>;
using MulticastGroupsForApplications = Mcast::MulticastGroupsForApplicationsOf<Konet::Ip6Addr>;

// The IPv6 status inputs of every producer, by name.
class Ip6InputStatusDir : public Mox::Entity {
public:
   static constexpr Mox::AttrId kInputStatus = 1;
   class NotifieeConst : public Mox::EntityNotifiee<Ip6InputStatusDir> {
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

// The interfaces of one VRF in the published IPv6 status.
class VrfIp6IntfStatus : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<VrfIp6IntfStatus> {
   public:
      virtual void onIp6IntfStatus(Konet::IntfId const&) {}
   };
   using Members = Mox::HashMap<Konet::IntfId, Mox::Ptr<IntfStatus const>>;
   explicit VrfIp6IntfStatus(L3::VrfName vrf) : vrf_(std::move(vrf)) {}
   L3::VrfName const& vrf() const { return vrf_; }
   Mox::Ptr<IntfStatus const> ip6IntfStatus(Konet::IntfId const& id) const {
      return Mox::valueOr(ip6IntfStatus_, id);
   }
   void ip6IntfStatusIs(Mox::Ptr<IntfStatus const> const& s) {
      setMember(ip6IntfStatus_, s->intf(), s, &NotifieeConst::onIp6IntfStatus);
   }
   void ip6IntfStatusDel(Konet::IntfId const& id) {
      delMember(ip6IntfStatus_, id, &NotifieeConst::onIp6IntfStatus);
   }
   Members const& ip6IntfStatusIterator() const { return ip6IntfStatus_; }
   size_t ip6IntfStatusSize() const { return ip6IntfStatus_.size(); }

private:
   L3::VrfName const vrf_;
   Members ip6IntfStatus_;
};

// The published IPv6 status: every interface's status, and the interfaces of each VRF.
class Status : public Mox::Entity {
public:
   static constexpr Mox::AttrId kVrfIp6IntfStatus = 2;
   class NotifieeConst : public Mox::EntityNotifiee<Status> {
   public:
      virtual void onIntf(Konet::IntfId const&) {}
      virtual void onVrfIp6IntfStatus(L3::VrfName const&) {}
      virtual void onUrpfConfiguredOnAnyIntf() {}
   };
   using Intfs = Mox::HashMap<Konet::IntfId, Mox::Ptr<IntfStatus const>>;
   using Vrfs = Mox::HashMap<L3::VrfName, Mox::Ptr<VrfIp6IntfStatus>>;

   Mox::Ptr<IntfStatus const> intf(Konet::IntfId const& id) const {
      return Mox::valueOr(intf_, id);
   }
   void intfIs(Mox::Ptr<IntfStatus const> const& s) {
      setMember(intf_, s->intf(), s, &NotifieeConst::onIntf);
   }
   void intfDel(Konet::IntfId const& id) { delMember(intf_, id, &NotifieeConst::onIntf); }
   Intfs const& intfIterator() const { return intf_; }

   Mox::Ptr<VrfIp6IntfStatus> vrfIp6IntfStatus(L3::VrfName const& v) const {
      return Mox::valueOr(vrf_, v);
   }
   Mox::Ptr<VrfIp6IntfStatus> vrfIp6IntfStatusIs(L3::VrfName const& v) {
      return instantiateMember<VrfIp6IntfStatus>(vrf_, v, kVrfIp6IntfStatus,
                                                 &NotifieeConst::onVrfIp6IntfStatus);
   }
   void vrfIp6IntfStatusDel(L3::VrfName const& v) {
      delMember(vrf_, v, &NotifieeConst::onVrfIp6IntfStatus);
   }
   Vrfs const& vrfIp6IntfStatusIterator() const { return vrf_; }

   bool urpfConfiguredOnAnyIntf() const { return urpfConfiguredOnAnyIntf_; }
   void urpfConfiguredOnAnyIntfIs(bool v) {
      setAttr(urpfConfiguredOnAnyIntf_, v, &NotifieeConst::onUrpfConfiguredOnAnyIntf);
   }

private:
   Intfs intf_;
   Vrfs vrf_;
   bool urpfConfiguredOnAnyIntf_ = false;
};

// Which interfaces want IPv6: one application's wishes, or their merge. Only interfaces that
// want it are held; enableIs(intf, false) removes the interface, and an absent one reads
// false.
class Ip6Enable : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<Ip6Enable> {
   public:
      virtual void onEnable(Konet::IntfId const&) {}
   };
   bool enable(Konet::IntfId const& id) const { return enable_.contains(id); }
   void enableIs(Konet::IntfId const& id, bool v) {
      if (v) {
         insertMember(enable_, id, &NotifieeConst::onEnable);
      } else {
         delMember(enable_, id, &NotifieeConst::onEnable);
      }
   }
   Mox::HashSet<Konet::IntfId> const& enableIterator() const { return enable_; }
   size_t enableSize() const { return enable_.size(); }

private:
   Mox::HashSet<Konet::IntfId> enable_;
};

}  // namespace Ip6
