// Keeps one VrfRoot per non-default VRF that is configured for routing and locally ready.
//
// Watches the routing VRF configuration of both families (Routing::VrfInfoConfigDir,
// Routing6::VrfInfoConfigDir, per VRF), the VRFs' local status entries (AllVrfStatusLocal,
// per VRF) and the state of each entry, and the default VRF's IPv6 routing flag. Writes the
// default namespace's "/proc/sys/net/ipv6/conf/all/forwarding", and, per VRF, its views of
// the interface configuration (VrfIpIntfConfigDir, VrfIp6IntfConfigDir) and its root.
//
// A VRF root is made by whichever comes last of: its IPv4 and its IPv6 routing
// configuration, its local status reaching the active state. Once made it stays, whatever
// the routing configuration does, until the VRF's local status entry is deleted; that
// deletes its root and its IPv4 view.
#pragma once

#include "konet/VrfName.h"
#include "mox/HashMap.h"
#include "mox/StateMachine.h"
#include "platform/Ip.h"
#include "platform/Routing.h"
#include "veld/config/VrfIp6IntfConfig.h"
#include "veld/config/VrfIpIntfConfig.h"
#include "veld/root/VrfRoot.h"

namespace Veld {

class VrfRootSm : public Mox::StateMachine {
public:
   class MoxVrfStatusLocal;

   // The agent's factory: the inputs in the agent's order.
   static Mox::Ptr<VrfRootSm> VrfRootSmIs(
       Mox::Ptr<Routing::VrfInfoConfigDir const> const& routingVrfInfoConfigDir,
       Mox::Ptr<Routing::Hardware::Status const> const& routingHardwareStatus,
       Mox::Ptr<Routing::KernelProtoConfig const> const& kernelProtoConfig,
       Mox::Ptr<Ip::AllVrfStatusGlobal> const& allVrfStatusGlobal,
       Mox::Ptr<Ip::AllVrfStatusLocal const> const& allVrfStatusLocal,
       Mox::Ptr<Ip::Config> const& ipConfig, Mox::Ptr<Ip::Input::Status> const& systemIntfIpStatus,
       Mox::Ptr<Ip::Input::Status> const& localIntfIpStatus,
       Mox::Ptr<L3::Intf::Input::StatusDir> const& systemL3IntfStatus,
       Mox::Ptr<L3::Intf::Input::StatusDir> const& localL3IntfStatus,
       Mox::Ptr<Interface::AllIntfStatusDir> const& allIntfStatusDir,
       Mox::Ptr<Interface::AllIntfStatusLocalDir> const& allIntfStatusLocalDir, bool standbyMode,
       Mox::Ptr<Ip6::Config> const& ip6Config, Mox::Ptr<Ip6::Status> const& ip6Status,
       Mox::Ptr<Routing6::InfoConfig const> const& routing6InfoConfig,
       Mox::Ptr<Routing6::VrfInfoConfigDir const> const& routing6VrfInfoConfigDir,
       Mox::Ptr<Ip6::Input::Status> const& systemIntfIp6Status,
       Mox::Ptr<Ip6::Input::Status> const& localIntfIp6Status,
       Mox::Ptr<Ip6::MulticastGroupsForApplications> const& ip6MulticastGroupsVeld,
       Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests> const& updateIpIntfStatusVrfReq,
       Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests> const& updateIp6IntfStatusVrfReq,
       Mox::Ptr<L3::UpdateIpIntfStatusRequests> const& updateIpIntfStatusReq,
       Mox::Ptr<L3::UpdateIpIntfStatusRequests> const& updateIp6IntfStatusReq,
       Mox::Ptr<WarpState> const& warpState, Mox::Ptr<Larder::EntityManager> const& entityMgr,
       Mox::Ptr<Bolt::TimerWheel const> const& timerWheel,
       Mox::Ptr<VrfIpIntfConfigDir> const& vrfIpIntfConfigDir,
       Mox::Ptr<VrfIp6IntfConfigDir> const& vrfIp6IntfConfigDir,
       Mox::Ptr<Urpf::UrpfOnAllIntfStat> const& urpfOnAllIntfStat,
       Mox::Ptr<Urpf::UrpfOnAllIntfStat> const& urpfOnAllIntfStat6,
       Mox::Ptr<Ip6::Ip6Enable const> const& ip6EnableOverride,
       Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> const& intfStatusManagerRoot,
       Mox::Ptr<ProxyArp::VirtualMacStatus const> const& proxyArpVirtualMac);

   // `common` holds the inputs every VRF root gets; its per-VRF members are filled for each.
   VrfRootSm(Mox::Ptr<Routing::VrfInfoConfigDir const> routingVrfInfoConfigDir,
             Mox::Ptr<Routing6::VrfInfoConfigDir const> routing6VrfInfoConfigDir,
             Mox::Ptr<Routing6::InfoConfig const> routing6InfoConfig,
             Mox::Ptr<VrfIpIntfConfigDir> vrfIpIntfConfigDir,
             Mox::Ptr<VrfIp6IntfConfigDir> vrfIp6IntfConfigDir, VrfRoot::Inputs common,
             bool standbyMode);
   ~VrfRootSm() override;

   Mox::Ptr<Routing::VrfInfoConfigDir const> const& routingVrfInfoConfigDir() const {
      return routingVrfInfoConfigDir_;
   }
   Mox::Ptr<Routing6::VrfInfoConfigDir const> const& routing6VrfInfoConfigDir() const {
      return routing6VrfInfoConfigDir_;
   }
   Mox::Ptr<Routing6::InfoConfig const> const& routing6InfoConfig() const {
      return routing6InfoConfig_;
   }
   Mox::Ptr<VrfIpIntfConfigDir> const& vrfIpIntfConfigDir() const { return vrfIpIntfConfigDir_; }
   Mox::Ptr<VrfIp6IntfConfigDir> const& vrfIp6IntfConfigDir() const { return vrfIp6IntfConfigDir_; }
   VrfRoot::Inputs const& common() const { return common_; }

   bool standbyMode() const { return standbyMode_; }
   void standbyModeIs(bool standbyMode);

   Mox::Ptr<VrfRoot> vrfRoot(L3::VrfName const& vrfName) const;
   Mox::Ptr<VrfRoot> vrfRootIs(L3::VrfName const& vrfName, VrfRoot::Inputs const& inputs,
                               bool standbyMode);
   void vrfRootDel(L3::VrfName const& vrfName);
   void vrfRootDelAll();
   size_t vrfRootSize() const { return vrfRoot_.size(); }

   Mox::Ptr<MoxVrfStatusLocal> vrfStatusLocal(L3::VrfName const& vrfName) const;
   Mox::Ptr<MoxVrfStatusLocal> vrfStatusLocalIs(
       Mox::Ptr<Ip::VrfStatusLocal const> const& vrfStatusLocal);
   void vrfStatusLocalDel(L3::VrfName const& vrfName);
   void vrfStatusLocalDelAll();

   void handleInitialized();
   void handleRoutingVrfConfig(L3::VrfName const& vrfName);
   void handleRoutingVrfConfig();
   void handleRouting6VrfConfig(L3::VrfName const& vrfName);
   void handleRouting6VrfConfig();
   void handleVrfStatusLocal(L3::VrfName const& vrfName);
   void maybeMakeOrDeleteVrfRoot(L3::VrfName const& vrfName);
   void doCreateVrfRoot(L3::VrfName const& vrfName);
   void handleStandbyMode();
   void handleIp6Routing();

private:
   class MoxRoutingVrfInfoConfigDir;
   class MoxRouting6VrfInfoConfigDir;
   class MoxRouting6InfoConfig;
   class MoxAllVrfStatusLocal;

   Mox::Ptr<Routing::VrfInfoConfigDir const> const routingVrfInfoConfigDir_;
   Mox::Ptr<Routing6::VrfInfoConfigDir const> const routing6VrfInfoConfigDir_;
   Mox::Ptr<Routing6::InfoConfig const> const routing6InfoConfig_;
   Mox::Ptr<VrfIpIntfConfigDir> const vrfIpIntfConfigDir_;
   Mox::Ptr<VrfIp6IntfConfigDir> const vrfIp6IntfConfigDir_;
   VrfRoot::Inputs const common_;
   bool standbyMode_;
   Mox::HashMap<L3::VrfName, Mox::Ptr<VrfRoot>> vrfRoot_;
   Mox::Ptr<MoxRoutingVrfInfoConfigDir> moxRoutingVrfInfoConfigDir_;
   Mox::Ptr<MoxRouting6VrfInfoConfigDir> moxRouting6VrfInfoConfigDir_;
   Mox::Ptr<MoxRouting6InfoConfig> moxRouting6InfoConfig_;
   Mox::Ptr<MoxAllVrfStatusLocal> moxAllVrfStatusLocal_;
   Mox::HashMap<L3::VrfName, Mox::Ptr<MoxVrfStatusLocal>> vrfStatusLocal_;
};

// The local status entry of one VRF: its state and its deletion.
class VrfRootSm::MoxVrfStatusLocal
    : public Mox::Reactor<VrfRootSm, Ip::VrfStatusLocal::NotifieeConst> {
public:
   MoxVrfStatusLocal(VrfRootSm* sm, Mox::Ptr<Ip::VrfStatusLocal const> const& status);

   L3::VrfName const& vrfName() const { return vrfName_; }
   void onState() override { handleStatusLocalState(); }

   void handleStatusLocalState();
   void handleDel();

private:
   L3::VrfName const vrfName_;
};

}  // namespace Veld
