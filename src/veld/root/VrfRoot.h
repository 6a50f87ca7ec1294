// The root of one non-default VRF: inside the VRF's network namespace it does what the agent
// root does for the default one, and owns the VRF's machines.
//
// Watches the VRF's IPv6 routing configuration (routing6InfoConfig.routing) and writes the
// namespace's "/proc/sys/net/ipv6/conf/all/forwarding" from it. On initialisation it finds
// the VRF's namespace in its local status, mounts the namespace's kernel mirror
// ("kni/ns/<ns>/status"), opens a netlink socket in the namespace, writes the namespace's
// knobs (setupProcSysNet), makes the kernel interface directory, the address map and its
// seeder, registers the namespace with the interface-status manager root and makes the
// loopback clean-up machine.
//
// States: uninitialised (the VRF has no global or local status yet, no namespace, or its
// kernel mirror is not published) -> initialised. While uninitialised it watches what is
// missing (the VRF's entries in AllVrfStatusGlobal and AllVrfStatusLocal, the local entry's
// namespace, the directory the mirror is published in) and finishes when it arrives.
// handleDelete, run when VrfRootSm lets the root go, unregisters the namespace and releases
// the VRF's machines.
//
// The VRF's routing entries (routingInfoConfig, routing6InfoConfig) are followed rather than
// fixed: when the agent re-creates them while the root lives, VrfRootSm points the root at
// the new ones (routingInfoConfigIs, routing6InfoConfigIs).
#pragma once

#include "konet/NamespaceName.h"
#include "konet/VrfName.h"
#include "linux/Fd.h"
#include "mox/Bolt.h"
#include "mox/Inputs.h"
#include "mox/Larder.h"
#include "mox/StateMachine.h"
#include "mox/Tessera.h"
#include "platform/Interface.h"
#include "platform/Ip.h"
#include "platform/Ip6.h"
#include "platform/KernelNetInfo.h"
#include "platform/L3.h"
#include "platform/NetNsIntfStatusManagerRoot.h"
#include "platform/ProxyArp.h"
#include "platform/Routing.h"
#include "platform/Urpf.h"
#include "veld/addr/AddrMap.h"
#include "veld/addr/AddrMappingSm.h"
#include "veld/config/VrfIp6IntfConfig.h"
#include "veld/config/VrfIpIntfConfig.h"
#include "veld/ipv4/IpIntfSm.h"
#include "veld/ipv6/Ip6IntfSm.h"
#include "veld/redundancy/WarpState.h"
#include "veld/vrf/CleanupLoopbackIntfSm.h"

namespace Veld {

class VrfRoot : public Mox::StateMachine {
public:
   // The constructor parameters. The VRF's own are vrfIpIntfConfig, vrfIp6IntfConfig,
   // routingInfoConfig and routing6InfoConfig; the others are the same for every VRF.
#define VELD_VRF_ROOT_INPUTS(X)                                              \
   X(Mox::Ptr<Ip::Config>, ipConfig)                                         \
   X(Mox::Ptr<VrfIpIntfConfig const>, vrfIpIntfConfig)                       \
   X(Mox::Ptr<VrfIp6IntfConfig const>, vrfIp6IntfConfig)                     \
   X(Mox::Ptr<Ip::Input::Status>, systemIntfIpStatus)                        \
   X(Mox::Ptr<Ip::Input::Status>, localIntfIpStatus)                         \
   X(Mox::Ptr<L3::Intf::Input::StatusDir>, systemL3IntfStatus)               \
   X(Mox::Ptr<L3::Intf::Input::StatusDir>, localL3IntfStatus)                \
   X(Mox::Ptr<Routing::InfoConfig const>, routingInfoConfig)                 \
   X(Mox::Ptr<Routing::Hardware::Status const>, routingHardwareStatus)       \
   X(Mox::Ptr<Routing::KernelProtoConfig const>, kernelProtoConfig)          \
   X(Mox::Ptr<Ip::AllVrfStatusGlobal>, allVrfStatusGlobal)                   \
   X(Mox::Ptr<Ip::AllVrfStatusLocal const>, allVrfStatusLocal)               \
   X(Mox::Ptr<Interface::AllIntfStatusDir>, allIntfStatusDir)                \
   X(Mox::Ptr<Interface::AllIntfStatusLocalDir>, allIntfStatusLocalDir)      \
   X(Mox::Ptr<Ip6::Config>, ip6Config)                                       \
   X(Mox::Ptr<Ip6::Status>, ip6Status)                                       \
   X(Mox::Ptr<Routing6::InfoConfig const>, routing6InfoConfig)               \
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
   X(Mox::Ptr<Urpf::UrpfOnAllIntfStat>, urpfOnAllIntfStat)                   \
   X(Mox::Ptr<Urpf::UrpfOnAllIntfStat>, urpfOnAllIntfStat6)                  \
   X(Mox::Ptr<Ip6::Ip6Enable const>, ip6EnableOverride)                      \
   X(Mox::Ptr<Interface::NetNsIntfStatusManagerRoot>, intfStatusManagerRoot) \
   X(Mox::Ptr<ProxyArp::VirtualMacStatus const>, proxyArpVirtualMac)         \
   X(Mox::Ptr<Ip6OwnAddrs>, ip6OwnAddrs)
   struct Inputs {
      MOX_INPUTS(VELD_VRF_ROOT_INPUTS)
   };

   VrfRoot(L3::VrfName vrfName, Inputs inputs, bool standbyMode);
   ~VrfRoot() override;

   L3::VrfName const& vrfName() const { return vrfName_; }
   Inputs const& inputs() const { return inputs_; }
   // The VRF's routing entries as they are now; the IPv4 machine follows the IPv4 one.
   void routingInfoConfigIs(Mox::Ptr<Routing::InfoConfig const> const& config);
   void routing6InfoConfigIs(Mox::Ptr<Routing6::InfoConfig const> const& config);

   bool standbyMode() const { return standbyMode_; }
   void standbyModeIs(bool standbyMode);

   // ---- owned state
   Konet::NamespaceName const& ns() const { return ns_; }
   void nsIs(Konet::NamespaceName const& ns);
   Mox::Ptr<KernelNetInfo::Status const> const& kniStatus() const { return kniStatus_; }
   void kniStatusIs(Mox::Ptr<KernelNetInfo::Status const> const& kniStatus);
   // The VRF's netlink socket, in its namespace; -1 while there is none.
   int netlinkSocket() const { return netlinkSocket_; }
   void netlinkSocketIs(int netlinkSocket);

   Mox::Ptr<Interface::DeviceIntfStatusDir> const& kernelIntfDir() const { return kernelIntfDir_; }
   Mox::Ptr<Interface::DeviceIntfStatusDir> kernelIntfDirIs();
   void kernelIntfDirDel();

   Mox::Ptr<AddrMap> const& addrMap() const { return addrMap_; }
   Mox::Ptr<AddrMap> addrMapIs(Mox::Ptr<KernelNetInfo::Status const> const& kniStatus);
   void addrMapDel();

   Mox::Ptr<AddrMappingSm> const& addrMapSm() const { return addrMapSm_; }
   Mox::Ptr<AddrMappingSm> addrMapSmIs(Mox::Ptr<KernelNetInfo::Status const> const& kniStatus,
                                       Mox::Ptr<AddrMap> const& addrMap);
   void addrMapSmDel();

   Mox::Ptr<CleanupLoopbackIntfSm> const& cleanupLoopbackIntfSm() const {
      return cleanupLoopbackIntfSm_;
   }
   Mox::Ptr<CleanupLoopbackIntfSm> cleanupLoopbackIntfSmIs(
       Mox::Ptr<KernelNetInfo::Status const> const& kniStatus,
       Mox::Ptr<Interface::LoopbackIntfConfigDir const> const& loopbackIntfConfigDir,
       Konet::NamespaceName const& ns);
   void cleanupLoopbackIntfSmDel();

   // The VRF's IPv4 machine; on an existing one, only the standby flag is pushed.
   Mox::Ptr<IpIntfSm> const& ipIntfSm() const { return ipIntfSm_; }
   Mox::Ptr<IpIntfSm> ipIntfSmIs(IpIntfSm::Inputs const& inputs, bool standbyMode);
   void ipIntfSmDel();
   Mox::Ptr<Ip6IntfSm> const& ip6IntfSm() const { return ip6IntfSm_; }
   Mox::Ptr<Ip6IntfSm> ip6IntfSmIs(Ip6IntfSm::Inputs const& inputs, bool standbyMode);
   void ip6IntfSmDel();
   // The namespace's table of which interface each device carries.
   Mox::Ptr<Interface::KniIntfStatusManager> const& kniIntfStatusManager() const {
      return kniIntfStatusManager_;
   }

   void handleInitialized();
   void handleDelete();
   void handleIp6Routing();

private:
   class MoxRouting6InfoConfig;
   class MoxAllVrfStatusGlobal;
   class MoxAllVrfStatusLocal;
   class MoxVrfStatusLocal;
   class MoxKniDir;
   // Watches, while uninitialised, whatever initialisation still waits for.
   void watchMissing();

   L3::VrfName const vrfName_;
   Inputs inputs_;
   bool standbyMode_;
   Konet::NamespaceName ns_;
   Mox::Ptr<KernelNetInfo::Status const> kniStatus_;
   Mox::Ptr<MoxTessera::Mount> kniMount_;
   int netlinkSocket_ = -1;
   Konet::Fd ownSocket_;  // the socket this root opened, closed with it
   Mox::Ptr<Interface::DeviceIntfStatusDir> kernelIntfDir_;
   Mox::Ptr<AddrMap> addrMap_;
   Mox::Ptr<AddrMappingSm> addrMapSm_;
   Mox::Ptr<Interface::KniIntfStatusManager> kniIntfStatusManager_;
   Mox::Ptr<IpIntfSm> ipIntfSm_;
   Mox::Ptr<Ip6IntfSm> ip6IntfSm_;
   Mox::Ptr<CleanupLoopbackIntfSm> cleanupLoopbackIntfSm_;
   Mox::Ptr<MoxRouting6InfoConfig> moxRouting6InfoConfig_;
   Mox::Ptr<MoxAllVrfStatusGlobal> moxAllVrfStatusGlobal_;
   Mox::Ptr<MoxAllVrfStatusLocal> moxAllVrfStatusLocal_;
   Mox::Ptr<MoxVrfStatusLocal> moxVrfStatusLocal_;
   Mox::Ptr<MoxKniDir> moxKniDir_;
};

}  // namespace Veld
