// The agent root: the library's boundary for the default VRF.
//
// The agent obtains one Root from rootFactory() and calls its creation operations (xIs),
// each of which builds one owned child from the inputs passed in; xDel() releases it. The
// root watches nothing itself. Once, when it is made, it opens the agent's netlink socket in
// the default namespace and writes that namespace's kernel knobs (setupProcSysNet); its
// only state is `initialized`, false until that is done.
//
// Create-or-update: calling xIs for a child that exists returns it, after pushing the
// standby flag into it where the operation has one; a constructor parameter that differs
// from the child's is a name-in-use error.
#pragma once

#include "konet/NamespaceName.h"
#include "linux/Fd.h"
#include "mox/Bolt.h"
#include "mox/Clock.h"
#include "mox/Dir.h"
#include "mox/Name.h"
#include "mox/StateMachine.h"
#include "platform/Agent.h"
#include "platform/Interface.h"
#include "platform/Ip.h"
#include "platform/Ip6.h"
#include "platform/KernelNetInfo.h"
#include "platform/KernelNetNsInfoManager.h"
#include "platform/L3.h"
#include "platform/NetNsIntfStatusManagerRoot.h"
#include "platform/Urpf.h"
#include "veld/addr/AddrMap.h"
#include "veld/addr/AddrMappingSm.h"
#include "veld/config/VrfIp6IntfConfig.h"
#include "veld/config/VrfIp6IntfConfigSm.h"
#include "veld/config/VrfIpIntfConfig.h"
#include "veld/config/VrfIpIntfConfigSm.h"
#include "veld/ipv4/IpIntfSm.h"
#include "veld/ipv4/IpIntfStatusSm.h"
#include "veld/ipv4/L3IntfStatusSm.h"
#include "veld/ipv4/MulticastIpGroupAppDirSm.h"
#include "veld/ipv6/Ip6EnableSm.h"
#include "veld/ipv6/Ip6IntfSm.h"
#include "veld/ipv6/Ip6IntfStatusSm.h"
#include "veld/ipv6/L3IntfStatusVrfSm.h"
#include "veld/ipv6/MulticastGroupAppDirSm.h"
#include "veld/redundancy/SsoConfig.h"
#include "veld/redundancy/WarpSm.h"
#include "veld/redundancy/WarpState.h"
#include "veld/vrf/AllVrfSm.h"
#include "veld/vrf/CleanupLoopbackIntfSm.h"
#include "veld/vrf/LoopbackIntfSm.h"

namespace Veld {

// Switches ICMP rate limiting off and raises the IGMP membership limit to 65535 in `ns`
// (the default namespace: the caller's own), entering it for the call if needed. Returns 0
// or the errno of the first failure, which is logged.
int setupProcSysNet(Konet::NamespaceName const& ns);

class Root : public Mox::StateMachine {
public:
   // The attributes under which the root places its entities (their place in its list).
   static constexpr Mox::AttrId kAddrMap = 2;
   static constexpr Mox::AttrId kKernelNetNsInfoRoot = 11;
   static constexpr Mox::AttrId kWarpState = 16;

   explicit Root(Mox::Name name);
   // Releases and silences the machines before the socket they were given is closed.
   ~Root() override;

   Mox::Name const& name() const { return name_; }
   void handleInitialized();

   // ---- inputs and values
   Mox::Ptr<KernelNetInfo::Status const> const& kniStatus() const { return kniStatus_; }
   void kniStatusIs(Mox::Ptr<KernelNetInfo::Status const> const& kniStatus);
   // The agent's netlink socket in the default namespace; -1 while there is none.
   int netlinkSocket() const { return netlinkSocket_; }
   void netlinkSocketIs(int netlinkSocket);
   Mox::Ptr<Bolt::TaskScheduler> const& scheduler() const { return scheduler_; }
   void schedulerIs(Mox::Ptr<Bolt::TaskScheduler> const& scheduler);

   // ---- shared entities
   Mox::Ptr<WarpState> const& warpState() const { return warpState_; }
   Mox::Ptr<WarpState> warpStateIs(Mox::Name const& name);
   void warpStateDel();

   Mox::Ptr<KernelNetNsInfo::Root> const& kernelNetNsInfoRoot() const {
      return kernelNetNsInfoRoot_;
   }
   Mox::Ptr<KernelNetNsInfo::Root> kernelNetNsInfoRootIs(Mox::Name const& name);
   void kernelNetNsInfoRootDel();

   Mox::Ptr<AddrMap> const& addrMap() const { return addrMap_; }
   Mox::Ptr<AddrMap> addrMapIs(Mox::Ptr<KernelNetInfo::Status const> const& kniStatus);
   void addrMapDel();

   Mox::Ptr<VrfIpIntfConfigDir> const& vrfIpIntfConfigDir() const { return vrfIpIntfConfigDir_; }
   Mox::Ptr<VrfIpIntfConfigDir> vrfIpIntfConfigDirIs();
   void vrfIpIntfConfigDirDel();

   Mox::Ptr<VrfIp6IntfConfigDir> const& vrfIp6IntfConfigDir() const { return vrfIp6IntfConfigDir_; }
   Mox::Ptr<VrfIp6IntfConfigDir> vrfIp6IntfConfigDirIs();
   void vrfIp6IntfConfigDirDel();

   Mox::Ptr<Urpf::UrpfOnAllIntfStat> const& urpfOnAllIntfStat() const { return urpfOnAllIntfStat_; }
   Mox::Ptr<Urpf::UrpfOnAllIntfStat> urpfOnAllIntfStatIs();
   void urpfOnAllIntfStatDel();

   Mox::Ptr<Urpf::UrpfOnAllIntfStat> const& urpfOnAllIntfStat6() const {
      return urpfOnAllIntfStat6_;
   }
   Mox::Ptr<Urpf::UrpfOnAllIntfStat> urpfOnAllIntfStat6Is();
   void urpfOnAllIntfStat6Del();

   // ---- machines that feed them
   Mox::Ptr<AddrMappingSm> const& addrMapSm() const { return addrMapSm_; }
   Mox::Ptr<AddrMappingSm> addrMapSmIs(Mox::Ptr<KernelNetInfo::Status const> const& kniStatus,
                                       Mox::Ptr<AddrMap> const& addrMap);
   void addrMapSmDel();

   Mox::Ptr<VrfIpIntfConfigSm> const& vrfIpIntfConfigSm() const { return vrfIpIntfConfigSm_; }
   Mox::Ptr<VrfIpIntfConfigSm> vrfIpIntfConfigSmIs(
       Mox::Ptr<Ip::Config const> const& ipConfig,
       Mox::Ptr<VrfIpIntfConfigDir> const& vrfIpIntfConfigDir);
   void vrfIpIntfConfigSmDel();

   Mox::Ptr<VrfIp6IntfConfigSm> const& vrfIp6IntfConfigSm() const { return vrfIp6IntfConfigSm_; }
   Mox::Ptr<VrfIp6IntfConfigSm> vrfIp6IntfConfigSmIs(
       Mox::Ptr<Ip6::Config const> const& ip6Config,
       Mox::Ptr<VrfIp6IntfConfigDir> const& vrfIp6IntfConfigDir);
   void vrfIp6IntfConfigSmDel();

   Mox::Ptr<KernelNetNsInfo::Manager> const& kernelNetNsInfoManager() const {
      return kernelNetNsInfoManager_;
   }
   Mox::Ptr<KernelNetNsInfo::Manager> kernelNetNsInfoManagerIs(
       Mox::Ptr<KernelNetNsInfo::Root> const& kernelNetNsInfoRoot);
   void kernelNetNsInfoManagerDel();

   // includeLocal: the manager also places the local interfaces (AllIntfStatusLocalDir).
   Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> const& intfStatusManagerRoot() const {
      return intfStatusManagerRoot_;
   }
   Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> intfStatusManagerRootIs(
       Mox::Ptr<Interface::AllIntfStatusDir const> const& allIntfStatusDir,
       Mox::Ptr<Interface::AllIntfStatusLocalDir const> const& allIntfStatusLocalDir,
       bool includeLocal);
   void intfStatusManagerRootDel();

   Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> const& netNsIntfStatusManagerRoot() const {
      return netNsIntfStatusManagerRoot_;
   }
   Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> netNsIntfStatusManagerRootIs(
       Mox::Ptr<Interface::AllIntfStatusDir const> const& allIntfStatusDir,
       Mox::Ptr<Interface::AllIntfStatusLocalDir const> const& allIntfStatusLocalDir,
       bool includeLocal);
   void netNsIntfStatusManagerRootDel();

   // ---- machines that use them
   Mox::Ptr<IpIntfSm> const& ipIntfSm() const { return ipIntfSm_; }
   // The constructor's inputs of each machine travel as its Inputs struct, in the machine's
   // order; the standby flag is given apart.
   Mox::Ptr<IpIntfSm> ipIntfSmIs(IpIntfSm::Inputs const& inputs, bool standbyMode);
   void ipIntfSmDel();
   Mox::Ptr<Ip6IntfSm> const& ip6IntfSm() const { return ip6IntfSm_; }
   Mox::Ptr<Ip6IntfSm> ip6IntfSmIs(Ip6IntfSm::Inputs const& inputs, bool standbyMode);
   void ip6IntfSmDel();

   // The status aggregators; on an existing one, re-pointed to the new input directory.
   Mox::Ptr<IpIntfStatusSm> const& ipIntfStatusSm() const { return ipIntfStatusSm_; }
   Mox::Ptr<IpIntfStatusSm> ipIntfStatusSmIs(
       Mox::Ptr<Ip::IpInputStatusDir const> const& inputStatusDir,
       Mox::Ptr<Ip::Config const> const& ipConfig, Mox::Ptr<Ip::Status> const& ipStatus);
   void ipIntfStatusSmDel();

   Mox::Ptr<Ip6IntfStatusSm> const& ip6IntfStatusSm() const { return ip6IntfStatusSm_; }
   Mox::Ptr<Ip6IntfStatusSm> ip6IntfStatusSmIs(
       Mox::Ptr<Ip6::Ip6InputStatusDir const> const& inputStatusDir,
       Mox::Ptr<Ip6::Config const> const& ip6Config, Mox::Ptr<Ip6::Status> const& ip6Status);
   void ip6IntfStatusSmDel();

   Mox::Ptr<L3IntfStatusSm> const& l3IntfStatusSm() const { return l3IntfStatusSm_; }
   Mox::Ptr<L3IntfStatusSm> l3IntfStatusSmIs(
       Mox::Ptr<L3::Intf::InputStatusDir const> const& inputStatusDir,
       Mox::Ptr<L3::Intf::StatusDir> const& intfStatusDir);
   void l3IntfStatusSmDel();

   // The merge of the applications' requests for IPv6 (the directory's Ip6::Ip6Enable
   // entries) into the override the IPv6 machines read.
   Mox::Ptr<Ip6EnableSm> const& ip6EnableSm() const { return ip6EnableSm_; }
   Mox::Ptr<Ip6EnableSm> ip6EnableSmIs(Mox::Ptr<Mox::Dir const> const& ip6EnableDir,
                                       Mox::Ptr<Ip6::Ip6Enable> const& ip6EnableOverride);
   void ip6EnableSmDel();

   // The applications' multicast groups on the interfaces' statuses, per family.
   Mox::Ptr<MulticastGroupAppDirSm> const& multicastGroupAppDirSm() const {
      return multicastGroupAppDirSm_;
   }
   Mox::Ptr<MulticastGroupAppDirSm> multicastGroupAppDirSmIs(
       MulticastGroupAppDirSm::Inputs const& inputs);
   void multicastGroupAppDirSmDel();
   Mox::Ptr<MulticastIpGroupAppDirSm> const& multicastIpGroupAppDirSm() const {
      return multicastIpGroupAppDirSm_;
   }
   Mox::Ptr<MulticastIpGroupAppDirSm> multicastIpGroupAppDirSmIs(
       MulticastIpGroupAppDirSm::Inputs const& inputs);
   void multicastIpGroupAppDirSmDel();

   // The VRF of the interfaces' L3 status, moved when both families agree.
   Mox::Ptr<L3IntfStatusVrfSm> const& l3IntfStatusVrfSm() const { return l3IntfStatusVrfSm_; }
   Mox::Ptr<L3IntfStatusVrfSm> l3IntfStatusVrfSmIs(L3IntfStatusVrfSm::Inputs const& inputs,
                                                   bool standbyMode);
   void l3IntfStatusVrfSmDel();

   Mox::Ptr<LoopbackIntfSm> const& loopbackIntfSm() const { return loopbackIntfSm_; }
   Mox::Ptr<LoopbackIntfSm> loopbackIntfSmIs(LoopbackIntfSm::Inputs const& inputs,
                                             bool standbyMode);
   void loopbackIntfSmDel();

   Mox::Ptr<CleanupLoopbackIntfSm> const& cleanupLoopbackIntfSm() const {
      return cleanupLoopbackIntfSm_;
   }
   Mox::Ptr<CleanupLoopbackIntfSm> cleanupLoopbackIntfSmIs(
       Mox::Ptr<KernelNetInfo::Status const> const& kniStatus,
       Mox::Ptr<Interface::LoopbackIntfConfigDir const> const& loopbackIntfConfigDir,
       Konet::NamespaceName const& ns);
   void cleanupLoopbackIntfSmDel();

   Mox::Ptr<AllVrfSm> const& allVrfSm() const { return allVrfSm_; }
   Mox::Ptr<AllVrfSm> allVrfSmIs(AllVrfSm::Inputs const& inputs, bool standbyMode);
   void allVrfSmDel();

   Mox::Ptr<WarpSm> const& warpSm() const { return warpSm_; }
   Mox::Ptr<WarpSm> warpSmIs(WarpSm::Inputs const& inputs);
   void warpSmDel();

private:
   Mox::Name const name_;
   Mox::Ptr<KernelNetInfo::Status const> kniStatus_;
   Mox::Ptr<AddrMap> addrMap_;
   Mox::Ptr<AddrMappingSm> addrMapSm_;
   Mox::Ptr<IpIntfSm> ipIntfSm_;
   Mox::Ptr<Ip6IntfSm> ip6IntfSm_;
   Mox::Ptr<IpIntfStatusSm> ipIntfStatusSm_;
   Mox::Ptr<Ip6IntfStatusSm> ip6IntfStatusSm_;
   Mox::Ptr<L3IntfStatusSm> l3IntfStatusSm_;
   Mox::Ptr<Ip6EnableSm> ip6EnableSm_;
   Mox::Ptr<MulticastGroupAppDirSm> multicastGroupAppDirSm_;
   Mox::Ptr<MulticastIpGroupAppDirSm> multicastIpGroupAppDirSm_;
   Mox::Ptr<L3IntfStatusVrfSm> l3IntfStatusVrfSm_;
   Mox::Ptr<LoopbackIntfSm> loopbackIntfSm_;
   Mox::Ptr<CleanupLoopbackIntfSm> cleanupLoopbackIntfSm_;
   Mox::Ptr<KernelNetNsInfo::Root> kernelNetNsInfoRoot_;
   Mox::Ptr<KernelNetNsInfo::Manager> kernelNetNsInfoManager_;
   Mox::Ptr<AllVrfSm> allVrfSm_;
   Mox::Ptr<WarpSm> warpSm_;
   int netlinkSocket_ = -1;
   Konet::Fd ownSocket_;  // the socket this root opened, closed with it
   Mox::Ptr<WarpState> warpState_;
   Mox::Ptr<VrfIpIntfConfigDir> vrfIpIntfConfigDir_;
   Mox::Ptr<VrfIpIntfConfigSm> vrfIpIntfConfigSm_;
   Mox::Ptr<VrfIp6IntfConfigDir> vrfIp6IntfConfigDir_;
   Mox::Ptr<VrfIp6IntfConfigSm> vrfIp6IntfConfigSm_;
   Mox::Ptr<Urpf::UrpfOnAllIntfStat> urpfOnAllIntfStat_;
   Mox::Ptr<Urpf::UrpfOnAllIntfStat> urpfOnAllIntfStat6_;
   Mox::Ptr<Bolt::TaskScheduler> scheduler_;
   Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> intfStatusManagerRoot_;
   Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> netNsIntfStatusManagerRoot_;
};

Mox::Ptr<Root> rootFactory(Mox::Name name = Mox::Name("veld"));

}  // namespace Veld
