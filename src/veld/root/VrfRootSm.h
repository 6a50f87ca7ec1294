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
#include "mox/Inputs.h"
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

   // The constructor's inputs, in the agent's order. The standby flag, which that order puts
   // after allIntfStatusLocalDir, is given apart: it changes.
#define VELD_VRF_ROOT_SM_INPUTS(X)                                           \
   X(Mox::Ptr<Routing::VrfInfoConfigDir const>, routingVrfInfoConfigDir)     \
   X(Mox::Ptr<Routing::Hardware::Status const>, routingHardwareStatus)       \
   X(Mox::Ptr<Routing::KernelProtoConfig const>, kernelProtoConfig)          \
   X(Mox::Ptr<Ip::AllVrfStatusGlobal>, allVrfStatusGlobal)                   \
   X(Mox::Ptr<Ip::AllVrfStatusLocal const>, allVrfStatusLocal)               \
   X(Mox::Ptr<Ip::Config>, ipConfig)                                         \
   X(Mox::Ptr<Ip::Input::Status>, systemIntfIpStatus)                        \
   X(Mox::Ptr<Ip::Input::Status>, localIntfIpStatus)                         \
   X(Mox::Ptr<L3::Intf::Input::StatusDir>, systemL3IntfStatus)               \
   X(Mox::Ptr<L3::Intf::Input::StatusDir>, localL3IntfStatus)                \
   X(Mox::Ptr<Interface::AllIntfStatusDir>, allIntfStatusDir)                \
   X(Mox::Ptr<Interface::AllIntfStatusLocalDir>, allIntfStatusLocalDir)      \
   X(Mox::Ptr<Ip6::Config>, ip6Config)                                       \
   X(Mox::Ptr<Ip6::Status>, ip6Status)                                       \
   X(Mox::Ptr<Routing6::InfoConfig const>, routing6InfoConfig)               \
   X(Mox::Ptr<Routing6::VrfInfoConfigDir const>, routing6VrfInfoConfigDir)   \
   X(Mox::Ptr<Ip6::Input::Status>, systemIntfIp6Status)                      \
   X(Mox::Ptr<Ip6::Input::Status>, localIntfIp6Status)                       \
   X(Mox::Ptr<Ip6::MulticastGroupsForApplications>, ip6MulticastGroupsVeld)  \
   X(Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests>, updateIpIntfStatusVrfReq)  \
   X(Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests>, updateIp6IntfStatusVrfReq) \
   X(Mox::Ptr<L3::UpdateIpIntfStatusRequests>, updateIpIntfStatusReq)        \
   X(Mox::Ptr<L3::UpdateIpIntfStatusRequests>, updateIp6IntfStatusReq)       \
   X(Mox::Ptr<WarpState>, warpState)                                         \
   X(Mox::Ptr<Larder::EntityManager>, entityMgr)                             \
   X(Mox::Ptr<Bolt::TimerWheel const>, timerWheel)                           \
   X(Mox::Ptr<VrfIpIntfConfigDir>, vrfIpIntfConfigDir)                       \
   X(Mox::Ptr<VrfIp6IntfConfigDir>, vrfIp6IntfConfigDir)                     \
   X(Mox::Ptr<Urpf::UrpfOnAllIntfStat>, urpfOnAllIntfStat)                   \
   X(Mox::Ptr<Urpf::UrpfOnAllIntfStat>, urpfOnAllIntfStat6)                  \
   X(Mox::Ptr<Ip6::Ip6Enable const>, ip6EnableOverride)                      \
   X(Mox::Ptr<Interface::NetNsIntfStatusManagerRoot>, intfStatusManagerRoot) \
   X(Mox::Ptr<ProxyArp::VirtualMacStatus const>, proxyArpVirtualMac)         \
   X(Mox::Ptr<Ip6OwnAddrs>, ip6OwnAddrs)
   struct Inputs {
      MOX_INPUTS(VELD_VRF_ROOT_SM_INPUTS)
   };

   // The agent's factory: a machine delivering from the start.
   static Mox::Ptr<VrfRootSm> VrfRootSmIs(Inputs const& inputs, bool standbyMode);

   VrfRootSm(Inputs inputs, bool standbyMode);
   ~VrfRootSm() override;

   Inputs const& inputs() const { return in_; }
   // The inputs every VRF root gets; the VRF's own are filled in for each.
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

   Inputs const in_;
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
