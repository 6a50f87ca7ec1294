// The two reactors between an interface's IPv4 configuration and its VRF's IpIntfSm.
//
// MoxIpIntfConfigFilter (one per configured interface) watches the interface's status in the
// VRF's namespace and admits the interface as routed while its forwarding model is routed:
// admission creates the interface's MoxIpIntfConfig, withdrawal deletes it.
//
// MoxIpIntfConfig (one per routed interface) turns each change of the interface's
// configuration into a direct status write, a scheduled kernel address update or a
// scheduled kernel settings update. The status writers write nothing in standby.
#pragma once

#include "veld/ipv4/IpIntfSm.h"

namespace Veld {

class IpIntfSm::MoxIpIntfConfigFilter
    : public Mox::Reactor<IpIntfSm, Ip::IpIntfConfig::NotifieeConst> {
public:
   // Tells the filter about the interface status's forwarding model.
   class MoxIntfStatus
       : public Mox::Reactor<MoxIpIntfConfigFilter, Interface::IntfStatus::NotifieeConst> {
   public:
      MoxIntfStatus(MoxIpIntfConfigFilter* filter, IpIntfSm* sm) : Reactor(filter, sm) {}
      void onForwardingModel() override { owner()->handleForwardingModel(); }
   };

   MoxIpIntfConfigFilter(IpIntfSm* sm, Mox::Ptr<Ip::IpIntfConfig const> const& config);

   Konet::IntfId const& intfId() const { return intfId_; }
   Mox::Ptr<Ip::IpIntfConfig const> config() const { return notifier(); }
   Mox::Ptr<Interface::IntfStatus const> intfStatus() const;
   bool initialized() const { return initialized_; }

   void handleInitialized();
   void handleForwardingModel();
   // The interface's status in the namespace appeared, changed or went.
   void handleIntfStatus();

private:
   void attachIntfStatus();
   Konet::IntfId const intfId_;
   Mox::Ptr<MoxIntfStatus> intfStatus_;
   bool initialized_ = false;
};

class IpIntfSm::MoxIpIntfConfig : public Mox::Reactor<IpIntfSm, Ip::IpIntfConfig::NotifieeConst> {
public:
   // Tells the reactor about the interface's VRF.
   class MoxL3Config : public Mox::Reactor<MoxIpIntfConfig, L3::Intf::Config::NotifieeConst> {
   public:
      MoxL3Config(MoxIpIntfConfig* r, IpIntfSm* sm) : Reactor(r, sm) {}
      void onVrf() override {
         owner()->handleVrf();
         owner()->handleIcmpSrc();
      }
   };

   MoxIpIntfConfig(IpIntfSm* sm, Mox::Ptr<Ip::IpIntfConfig const> const& config);

   Konet::IntfId const& intfId() const { return intfId_; }
   Mox::Ptr<Ip::IpIntfConfig const> config() const { return notifier(); }
   bool initialized() const { return initialized_; }

   void onAddrWithMask() override { handlePrimaryAddrWithMask(); }
   void onVirtualAddrWithMask() override { handleVirtualAddrWithMask(); }
   void onSecondaryWithMask(Konet::IpAddrWithMask const& a) override { handleSecondary(a); }
   void onVirtualSecondaryWithMask(Konet::IpAddrWithMask const& a) override {
      handleVirtualSecondaryWithMask(a);
   }
   void onMaxMssIngress() override { handleTcpMssIngress(); }
   void onMaxMssEgress() override { handleTcpMssEgress(); }
   void onConfigSource() override { handleConfigSource(); }
   void onProxyArpEnabled() override { handleProxyArpEnabled(); }
   void onLocalProxyArpEnabled() override { handleLocalProxyArpEnabled(); }
   void onGratuitousArpAccepted() override { handleGratuitousArpAccepted(); }
   void onForwarding() override { handleForwarding(); }
   void onNoArp() override { handleNoArp(); }
   void onDirectedBroadcastEnabled() override { handleDirectedBroadcast(); }
   void onAttachedRoutes() override { handleAttachedRoutes(); }
   void onUrpf() override { handleUrpf(); }
   void onUnnumberedIntfId() override { handleUnnumberedIntf(); }
   void onForceDpRoutingEnabled() override { handleForceDpRoutingEnabled(); }
   void onL3Config() override { attachL3Config(); }

   void handleInitialized();
   // The initial pass, again: status and kernel take the whole configuration (after a
   // standby change).
   void refresh();
   void handleAddrWithMask();
   void handlePrimaryAddrWithMask();
   void handleVirtualAddrWithMask();
   void handleSecondary(Konet::IpAddrWithMask const& addr);
   void handleSecondary();
   void handleVirtualSecondaryWithMask(Konet::IpAddrWithMask const& addr);
   void handleVirtualSecondaryWithMask();
   void handleTcpMssIngress();
   void handleTcpMssEgress();
   void handleNoArp();
   void handleConfigSource();
   void handleProxyArpEnabled();
   void handleLocalProxyArpEnabled();
   void handleGratuitousArpAccepted();
   void handleForwarding();
   void handleForceDpRoutingEnabled();
   void handleDirectedBroadcast();
   void handleAttachedRoutes();
   void handleUnnumberedIntf();
   void handleUrpf();
   void handleVrf();
   void handleIcmpSrc();

private:
   void attachL3Config();
   // The interface's IPv4 status, or null (and the skip traced) when it may not be written.
   Mox::Ptr<Ip::IpIntfStatus> writableStatus(char const* standbyTrace);
   Konet::IntfId const intfId_;
   Mox::Ptr<MoxL3Config> l3Config_;
   bool initialized_ = false;
};

}  // namespace Veld
