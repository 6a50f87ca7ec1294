#include "veld/root/Root.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "linux/NetNs.h"
#include "linux/Netlink.h"
#include "linux/ProcSys.h"
#include "mox/Trace.h"
#include "veld/root/OwnedChildren.h"

namespace Veld {

static Mox::TraceHandle th("Veld");

// ICMP rate limiting by the kernel is switched off, deliberately, in every namespace the
// agent serves, and the IGMP membership limit raised to 65535. ENOENT (a setting this kernel
// does not have) counts as done.
int setupProcSysNet(Konet::NamespaceName const& ns) {
   MOX_TRACE_FN(th, " ns: " << ns);
   Konet::ScopedNetNs inNs(ns, __func__);  // logs ": Failed to setns to NS: " itself
   if (!inNs.ok()) return inNs.error();
   auto write = [](char const* path, char const* value) {
      int rc = Konet::writeProcSys(path, value);
      return rc == ENOENT ? 0 : rc;
   };
   if (int rc = write("/proc/sys/net/ipv4/icmp_ratelimit", "0")) return rc;
   if (int rc = write("/proc/sys/net/ipv6/icmp/ratelimit", "0")) return rc;
   if (int rc = write("/proc/sys/net/ipv4/igmp_max_memberships", "65535")) {
      Mox::logMessage(
          Mox::LogSeverity::error, "VELD_PROC_SYS_NET",
          std::string(__func__) +
              ": Failed to set /proc/sys/net/ipv4/igmp_max_memberships in NS: " + ns.name());
      return rc;
   }
   return 0;
}

Root::Root(Mox::Name name) : name_(std::move(name)) {
   MOX_TRACE_FN(th, name_);
   handleInitialized();
}

Mox::Ptr<Root> rootFactory(Mox::Name name) { return Mox::make<Root>(std::move(name)); }

// Opens the agent's netlink socket in the default namespace, once for the root's life
// however often it is initialised, and writes the namespace's knobs. A failure of either is
// logged and the agent goes on.
void Root::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   Konet::NamespaceName const ns(Konet::DEFAULT_NS);
   if (!ownSocket_) {
      int error = 0;
      ownSocket_ = Konet::createNetlinkSocket(ns, 0, 2, true, 0, &error);
      if (ownSocket_) {
         netlinkSocketIs(static_cast<uint32_t>(ownSocket_.get()));
      } else {
         Mox::logMessage(
             Mox::LogSeverity::error, "VELD_NETLINK_SOCKET",
             "Failed to open a netlink socket in NS: " + ns.name() + ": " + std::strerror(error));
      }
   }
   setupProcSysNet(ns);
   initializedSet(true);
}

void Root::kniStatusIs(Mox::Ptr<KernelNetInfo::Status const> const& kniStatus) {
   MOX_TRACE_FN0(th);
   kniStatus_ = kniStatus;
}

void Root::netlinkSocketIs(uint32_t netlinkSocket) {
   MOX_TRACE_FN(th, netlinkSocket);
   netlinkSocket_ = netlinkSocket;
}

void Root::schedulerIs(Mox::Ptr<Bolt::TaskScheduler> const& scheduler) {
   MOX_TRACE_FN0(th);
   scheduler_ = scheduler;
}

// ---- shared entities

Mox::Ptr<WarpState> Root::warpStateIs(Mox::Name const& name) {
   MOX_TRACE_FN(th, name);
   if (warpState_) {
      Mox::checkCtorParam("_name", warpState_->name(), name);
      return warpState_;
   }
   warpState_ = Mox::make<WarpState>(name);
   adopt(warpState_.ptr(), kWarpState);
   return warpState_;
}

void Root::warpStateDel() {
   MOX_TRACE_FN0(th);
   warpState_ = nullptr;
}

Mox::Ptr<KernelNetNsInfo::Root> Root::kernelNetNsInfoRootIs(Mox::Name const& name) {
   MOX_TRACE_FN(th, name);
   if (kernelNetNsInfoRoot_) {
      Mox::checkCtorParam("_name", kernelNetNsInfoRoot_->name(), name);
      return kernelNetNsInfoRoot_;
   }
   kernelNetNsInfoRoot_ = Mox::make<KernelNetNsInfo::Root>(name);
   adopt(kernelNetNsInfoRoot_.ptr(), kKernelNetNsInfoRoot);
   return kernelNetNsInfoRoot_;
}

void Root::kernelNetNsInfoRootDel() {
   MOX_TRACE_FN0(th);
   kernelNetNsInfoRoot_ = nullptr;
}

Mox::Ptr<AddrMap> Root::addrMapIs(Mox::Ptr<KernelNetInfo::Status const> const& kniStatus) {
   MOX_TRACE_FN0(th);
   if (addrMap_) {
      Mox::checkCtorParam("_kniStatus", addrMap_->kniStatus(), kniStatus);
      return addrMap_;
   }
   addrMap_ = Mox::make<AddrMap>(kniStatus);
   adopt(addrMap_.ptr(), kAddrMap);
   return addrMap_;
}

void Root::addrMapDel() {
   MOX_TRACE_FN0(th);
   addrMap_ = nullptr;
}

Mox::Ptr<VrfIpIntfConfigDir> Root::vrfIpIntfConfigDirIs() {
   MOX_TRACE_FN0(th);
   if (!vrfIpIntfConfigDir_) vrfIpIntfConfigDir_ = Mox::make<VrfIpIntfConfigDir>();
   return vrfIpIntfConfigDir_;
}

void Root::vrfIpIntfConfigDirDel() {
   MOX_TRACE_FN0(th);
   vrfIpIntfConfigDir_ = nullptr;
}

Mox::Ptr<VrfIp6IntfConfigDir> Root::vrfIp6IntfConfigDirIs() {
   MOX_TRACE_FN0(th);
   if (!vrfIp6IntfConfigDir_) vrfIp6IntfConfigDir_ = Mox::make<VrfIp6IntfConfigDir>();
   return vrfIp6IntfConfigDir_;
}

void Root::vrfIp6IntfConfigDirDel() {
   MOX_TRACE_FN0(th);
   vrfIp6IntfConfigDir_ = nullptr;
}

Mox::Ptr<Urpf::UrpfOnAllIntfStat> Root::urpfOnAllIntfStatIs() {
   MOX_TRACE_FN0(th);
   if (!urpfOnAllIntfStat_) urpfOnAllIntfStat_ = Mox::make<Urpf::UrpfOnAllIntfStat>();
   return urpfOnAllIntfStat_;
}

void Root::urpfOnAllIntfStatDel() {
   MOX_TRACE_FN0(th);
   urpfOnAllIntfStat_ = nullptr;
}

Mox::Ptr<Urpf::UrpfOnAllIntfStat> Root::urpfOnAllIntfStat6Is() {
   MOX_TRACE_FN0(th);
   if (!urpfOnAllIntfStat6_) urpfOnAllIntfStat6_ = Mox::make<Urpf::UrpfOnAllIntfStat>();
   return urpfOnAllIntfStat6_;
}

void Root::urpfOnAllIntfStat6Del() {
   MOX_TRACE_FN0(th);
   urpfOnAllIntfStat6_ = nullptr;
}

// ---- machines that feed them

Mox::Ptr<AddrMappingSm> Root::addrMapSmIs(Mox::Ptr<KernelNetInfo::Status const> const& kniStatus,
                                          Mox::Ptr<AddrMap> const& addrMap) {
   MOX_TRACE_FN0(th);
   return addrMapSmOf(addrMapSm_, kniStatus, addrMap);
}

void Root::addrMapSmDel() {
   MOX_TRACE_FN0(th);
   releaseMachine(addrMapSm_);
}

Mox::Ptr<VrfIpIntfConfigSm> Root::vrfIpIntfConfigSmIs(
    Mox::Ptr<Ip::Config const> const& ipConfig,
    Mox::Ptr<VrfIpIntfConfigDir> const& vrfIpIntfConfigDir) {
   MOX_TRACE_FN0(th);
   if (vrfIpIntfConfigSm_) {
      Mox::checkCtorParam("_ipConfig", vrfIpIntfConfigSm_->ipConfig(), ipConfig);
      Mox::checkCtorParam("_vrfIpIntfConfigDir", vrfIpIntfConfigSm_->vrfIpIntfConfigDir(),
                          vrfIpIntfConfigDir);
      return vrfIpIntfConfigSm_;
   }
   vrfIpIntfConfigSm_ = VrfIpIntfConfigSmIs(ipConfig, vrfIpIntfConfigDir);
   vrfIpIntfConfigSm_->hasNotificationActiveIs(true);
   return vrfIpIntfConfigSm_;
}

void Root::vrfIpIntfConfigSmDel() {
   MOX_TRACE_FN0(th);
   releaseMachine(vrfIpIntfConfigSm_);
}

Mox::Ptr<VrfIp6IntfConfigSm> Root::vrfIp6IntfConfigSmIs(
    Mox::Ptr<Ip6::Config const> const& ip6Config,
    Mox::Ptr<VrfIp6IntfConfigDir> const& vrfIp6IntfConfigDir) {
   MOX_TRACE_FN0(th);
   if (vrfIp6IntfConfigSm_) {
      Mox::checkCtorParam("_ipConfig", vrfIp6IntfConfigSm_->ipConfig(), ip6Config);
      Mox::checkCtorParam("_vrfIpIntfConfigDir", vrfIp6IntfConfigSm_->vrfIpIntfConfigDir(),
                          vrfIp6IntfConfigDir);
      return vrfIp6IntfConfigSm_;
   }
   vrfIp6IntfConfigSm_ = VrfIp6IntfConfigSmIs(ip6Config, vrfIp6IntfConfigDir);
   vrfIp6IntfConfigSm_->hasNotificationActiveIs(true);
   return vrfIp6IntfConfigSm_;
}

void Root::vrfIp6IntfConfigSmDel() {
   MOX_TRACE_FN0(th);
   releaseMachine(vrfIp6IntfConfigSm_);
}

Mox::Ptr<KernelNetNsInfo::Manager> Root::kernelNetNsInfoManagerIs(
    Mox::Ptr<KernelNetNsInfo::Root> const& kernelNetNsInfoRoot) {
   MOX_TRACE_FN0(th);
   if (kernelNetNsInfoManager_) {
      Mox::checkCtorParam("_root", kernelNetNsInfoManager_->root(), kernelNetNsInfoRoot);
      return kernelNetNsInfoManager_;
   }
   kernelNetNsInfoManager_ = makeMachine<KernelNetNsInfo::Manager>(kernelNetNsInfoRoot);
   return kernelNetNsInfoManager_;
}

void Root::kernelNetNsInfoManagerDel() {
   MOX_TRACE_FN0(th);
   releaseMachine(kernelNetNsInfoManager_);
}

namespace {

// The create-or-update rule of the two interface-status manager roots.
Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> intfStatusManagerRootOf(
    Mox::Ptr<Interface::NetNsIntfStatusManagerRoot>& held,
    Mox::Ptr<Interface::AllIntfStatusDir const> const& allIntfStatusDir,
    Mox::Ptr<Interface::AllIntfStatusLocalDir const> const& allIntfStatusLocalDir,
    bool includeLocal) {
   if (held) {
      Mox::checkCtorParam("_allIntfStatusDir", held->allIntfStatusDir(), allIntfStatusDir);
      Mox::checkCtorParam("_allIntfStatusLocalDir", held->allIntfStatusLocalDir(),
                          allIntfStatusLocalDir);
      Mox::checkCtorParam("_includeLocal", held->includeLocal(), includeLocal);
      return held;
   }
   held = makeMachine<Interface::NetNsIntfStatusManagerRoot>(allIntfStatusDir,
                                                             allIntfStatusLocalDir, includeLocal);
   return held;
}

}  // namespace

Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> Root::intfStatusManagerRootIs(
    Mox::Ptr<Interface::AllIntfStatusDir const> const& allIntfStatusDir,
    Mox::Ptr<Interface::AllIntfStatusLocalDir const> const& allIntfStatusLocalDir,
    bool includeLocal) {
   MOX_TRACE_FN(th, " includeLocal " << includeLocal);
   return intfStatusManagerRootOf(intfStatusManagerRoot_, allIntfStatusDir, allIntfStatusLocalDir,
                                  includeLocal);
}

void Root::intfStatusManagerRootDel() {
   MOX_TRACE_FN0(th);
   releaseMachine(intfStatusManagerRoot_);
}

Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> Root::netNsIntfStatusManagerRootIs(
    Mox::Ptr<Interface::AllIntfStatusDir const> const& allIntfStatusDir,
    Mox::Ptr<Interface::AllIntfStatusLocalDir const> const& allIntfStatusLocalDir,
    bool includeLocal) {
   MOX_TRACE_FN(th, " includeLocal " << includeLocal);
   return intfStatusManagerRootOf(netNsIntfStatusManagerRoot_, allIntfStatusDir,
                                  allIntfStatusLocalDir, includeLocal);
}

void Root::netNsIntfStatusManagerRootDel() {
   MOX_TRACE_FN0(th);
   releaseMachine(netNsIntfStatusManagerRoot_);
}

// ---- machines that use them

Mox::Ptr<IpIntfSm> Root::ipIntfSmIs(
    Mox::Ptr<Ip::Config const> const& ipConfig,
    Mox::Ptr<VrfIpIntfConfig const> const& vrfIpIntfConfig, Mox::Ptr<AddrMap> const& addrMap,
    Mox::Ptr<Interface::DeviceIntfStatusDir const> const& kernelIntfDir,
    Mox::Ptr<Routing::KernelProtoConfig const> const& kernelProtoConfig,
    Mox::Ptr<Routing::InfoConfig const> const& routingInfoConfig,
    Mox::Ptr<Ip::Input::Status> const& systemIntfIpStatus,
    Mox::Ptr<Ip::Input::Status> const& localIntfIpStatus,
    Mox::Ptr<L3::Intf::Input::StatusDir> const& systemL3IntfStatus,
    Mox::Ptr<L3::Intf::Input::StatusDir> const& localL3IntfStatus,
    Mox::Ptr<Ip6::Status const> const& ip6Status,
    Mox::Ptr<Ip::AllVrfStatusLocal const> const& allVrfStatusLocal, int netlinkSocket,
    Mox::Ptr<Interface::AllIntfStatusDir const> const& allIntfStatusDir,
    Mox::Ptr<Interface::KniIntfStatusManager> const& kniIntfStatusManager,
    L3::VrfName const& vrfName,
    Mox::Ptr<Routing::Hardware::Status const> const& routingHardwareStatus, bool standbyMode,
    Mox::Ptr<WarpState> const& warpState, Mox::Ptr<Bolt::TimerWheel const> const& timerWheel,
    Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests> const& updateIpIntfStatusVrfReq,
    Mox::Ptr<L3::UpdateIpIntfStatusRequests> const& updateIpIntfStatusReq,
    Mox::Ptr<Urpf::UrpfOnAllIntfStat> const& urpfOnAllIntfStat,
    Mox::Ptr<ProxyArp::VirtualMacStatus const> const& proxyArpVirtualMac) {
   MOX_TRACE_FN(th, " vrf " << vrfName << " standbyMode " << standbyMode);
   return ipIntfSmOf(ipIntfSm_,
                     IpIntfSm::Inputs{ipConfig,
                                      vrfIpIntfConfig,
                                      addrMap,
                                      kernelIntfDir,
                                      kernelProtoConfig,
                                      routingInfoConfig,
                                      systemIntfIpStatus,
                                      localIntfIpStatus,
                                      systemL3IntfStatus,
                                      localL3IntfStatus,
                                      ip6Status,
                                      allVrfStatusLocal,
                                      netlinkSocket,
                                      allIntfStatusDir,
                                      kniIntfStatusManager,
                                      vrfName,
                                      routingHardwareStatus,
                                      warpState,
                                      timerWheel,
                                      updateIpIntfStatusVrfReq,
                                      updateIpIntfStatusReq,
                                      urpfOnAllIntfStat,
                                      proxyArpVirtualMac},
                     standbyMode);
}

void Root::ipIntfSmDel() { releaseMachine(ipIntfSm_); }

Mox::Ptr<IpIntfStatusSm> Root::ipIntfStatusSmIs(
    Mox::Ptr<Ip::IpInputStatusDir const> const& inputStatusDir,
    Mox::Ptr<Ip::Config const> const& ipConfig, Mox::Ptr<Ip::Status> const& ipStatus) {
   MOX_TRACE_FN0(th);
   if (ipIntfStatusSm_) {
      ipIntfStatusSm_->notifierIs(inputStatusDir);
      return ipIntfStatusSm_;
   }
   ipIntfStatusSm_ = makeMachine<IpIntfStatusSm>(inputStatusDir, ipConfig, ipStatus);
   return ipIntfStatusSm_;
}

void Root::ipIntfStatusSmDel() { releaseMachine(ipIntfStatusSm_); }

Mox::Ptr<L3IntfStatusSm> Root::l3IntfStatusSmIs(
    Mox::Ptr<L3::Intf::InputStatusDir const> const& inputStatusDir,
    Mox::Ptr<L3::Intf::StatusDir> const& intfStatusDir) {
   MOX_TRACE_FN0(th);
   if (l3IntfStatusSm_) {
      l3IntfStatusSm_->notifierIs(inputStatusDir);
      return l3IntfStatusSm_;
   }
   l3IntfStatusSm_ = makeMachine<L3IntfStatusSm>(inputStatusDir, intfStatusDir);
   return l3IntfStatusSm_;
}

void Root::l3IntfStatusSmDel() { releaseMachine(l3IntfStatusSm_); }

Mox::Ptr<LoopbackIntfSm> Root::loopbackIntfSmIs(
    Mox::Ptr<Interface::LoopbackIntfConfigDir const> const& loopbackIntfConfigDir,
    Mox::Ptr<Interface::AllIntfNamespaceConfigDir const> const& allIntfNamespaceConfigDir,
    Mox::Ptr<Interface::LoopbackIntfStatusDir> const& loopbackIntfStatusDir,
    Mox::Ptr<Interface::LoopbackIntfStatusLocalDir> const& loopbackIntfStatusLocalDir,
    bool standbyMode, Mox::Ptr<Mox::Clock const> const& clock,
    Mox::Ptr<Interface::IntfStatusPtrDir> const& intfStatusPtrDir) {
   MOX_TRACE_FN(th, " standbyMode " << standbyMode);
   if (auto& sm = loopbackIntfSm_) {
      Mox::checkCtorParam("_loopbackIntfConfigDir", sm->loopbackIntfConfigDir(),
                          loopbackIntfConfigDir);
      Mox::checkCtorParam("_allIntfNamespaceConfigDir", sm->allIntfNamespaceConfigDir(),
                          allIntfNamespaceConfigDir);
      Mox::checkCtorParam("_loopbackIntfStatusDir", sm->loopbackIntfStatusDir(),
                          loopbackIntfStatusDir);
      Mox::checkCtorParam("_loopbackIntfStatusLocalDir", sm->loopbackIntfStatusLocalDir(),
                          loopbackIntfStatusLocalDir);
      Mox::checkCtorParam("_clock", sm->clock(), clock);
      Mox::checkCtorParam("_intfStatusPtrDir", sm->intfStatusPtrDir(), intfStatusPtrDir);
      sm->standbyModeIs(standbyMode);
      return sm;
   }
   loopbackIntfSm_ = makeMachine<LoopbackIntfSm>(loopbackIntfConfigDir, allIntfNamespaceConfigDir,
                                                 loopbackIntfStatusDir, loopbackIntfStatusLocalDir,
                                                 standbyMode, clock, intfStatusPtrDir);
   return loopbackIntfSm_;
}

void Root::loopbackIntfSmDel() {
   MOX_TRACE_FN0(th);
   releaseMachine(loopbackIntfSm_);
}

Mox::Ptr<CleanupLoopbackIntfSm> Root::cleanupLoopbackIntfSmIs(
    Mox::Ptr<KernelNetInfo::Status const> const& kniStatus,
    Mox::Ptr<Interface::LoopbackIntfConfigDir const> const& loopbackIntfConfigDir,
    Konet::NamespaceName const& ns) {
   MOX_TRACE_FN(th, " ns: " << ns);
   return cleanupLoopbackIntfSmOf(cleanupLoopbackIntfSm_, kniStatus, loopbackIntfConfigDir, ns);
}

void Root::cleanupLoopbackIntfSmDel() {
   MOX_TRACE_FN0(th);
   releaseMachine(cleanupLoopbackIntfSm_);
}

Mox::Ptr<AllVrfSm> Root::allVrfSmIs(
    Mox::Ptr<Ip::AllVrfConfig const> const& allVrfConfig,
    Mox::Ptr<Ip::AllVrfStatusGlobal> const& allVrfStatusGlobal,
    Mox::Ptr<Ip::AllVrfStatusLocal> const& allVrfStatusLocal,
    Mox::Ptr<Interface::AllIntfStatusLocalDir> const& allIntfStatusLocalDir,
    Mox::Ptr<Konet::NamespaceStatusLocalDir> const& namespaceStatusLocalDir,
    Mox::Ptr<L3::Intf::ConfigDir const> const& l3IntfConfigDir,
    Mox::Ptr<Ip::VrfCapability const> const& vrfCapability,
    Mox::Ptr<VrfTypes::MultiAgentVrfProtoConfig const> const& multiAgentVrfProtoConfig,
    bool standbyMode, Mox::Ptr<SsoConfig const> const& ssoConfig,
    Mox::Ptr<StagesHelper> const& stagesHelper,
    Mox::Ptr<Agent::StartupModeStatus const> const& startupModeStatus,
    Mox::Ptr<Mox::Dir> const& mountDir1, Mox::Ptr<Mox::Dir> const& mountDir2,
    Mox::Ptr<Mox::Dir const> const& mountDir3, Mox::Ptr<Mox::Dir> const& mountDir4,
    Mox::Ptr<Mox::Dir> const& mountDir5, Mox::Ptr<Mox::Dir> const& mountDir6,
    Mox::Ptr<Mox::Dir> const& mountDir7, Mox::Ptr<Mox::Dir const> const& mountDir8,
    Mox::Ptr<Mox::Dir const> const& mountDir9, Mox::Ptr<Mox::Dir const> const& mountDir10,
    Mox::Ptr<Mox::Dir const> const& mountDir11,
    Mox::Ptr<Vrf::VrfIdMap::Status> const& vrfIdMapStatus,
    Mox::Ptr<Vrf::VrfIdMap::NameToIdMapWrapper> const& vrfNameToIdMap,
    Mox::Ptr<L3::Config const> const& l3Config, Mox::Ptr<Bolt::TaskScheduler> const& scheduler) {
   MOX_TRACE_FN(th, " standbyMode " << standbyMode);
   AllVrfSm::Inputs inputs{allVrfConfig,
                           allVrfStatusGlobal,
                           allVrfStatusLocal,
                           allIntfStatusLocalDir,
                           namespaceStatusLocalDir,
                           l3IntfConfigDir,
                           vrfCapability,
                           multiAgentVrfProtoConfig,
                           ssoConfig,
                           stagesHelper,
                           startupModeStatus,
                           mountDir1,
                           mountDir2,
                           mountDir3,
                           mountDir4,
                           mountDir5,
                           mountDir6,
                           mountDir7,
                           mountDir8,
                           mountDir9,
                           mountDir10,
                           mountDir11,
                           vrfIdMapStatus,
                           vrfNameToIdMap,
                           l3Config,
                           scheduler};
   if (allVrfSm_) {
      AllVrfSm::checkCtorParams(allVrfSm_->inputs(), inputs);
      allVrfSm_->standbyModeIs(standbyMode);
      return allVrfSm_;
   }
   allVrfSm_ = makeMachine<AllVrfSm>(std::move(inputs), standbyMode);
   return allVrfSm_;
}

void Root::allVrfSmDel() {
   MOX_TRACE_FN0(th);
   releaseMachine(allVrfSm_);
}

Mox::Ptr<WarpSm> Root::warpSmIs(
    Mox::Ptr<Ip::Config const> const& ipConfig, Mox::Ptr<Ip::Status const> const& ipStatus,
    Mox::Ptr<Ip6::Config const> const& ip6Config, Mox::Ptr<Ip6::Status const> const& ip6Status,
    Mox::Ptr<Interface::AllIntfStatusDir const> const& allIntfStatusDir,
    Mox::Ptr<Ip::AllVrfStatusGlobal const> const& allVrfStatusGlobal,
    Mox::Ptr<AgentConfig> const& agentConfig, Mox::Ptr<StagesHelper> const& stagesHelper,
    Mox::Ptr<WarpState> const& warpState, Mox::Ptr<Mox::Clock const> const& clock) {
   MOX_TRACE_FN0(th);
   WarpSm::Inputs inputs{ipConfig,           ipStatus,    ip6Config,    ip6Status, allIntfStatusDir,
                         allVrfStatusGlobal, agentConfig, stagesHelper, warpState, clock};
   if (warpSm_) {
      WarpSm::checkCtorParams(warpSm_->inputs(), inputs);
      return warpSm_;
   }
   warpSm_ = makeMachine<WarpSm>(std::move(inputs));
   return warpSm_;
}

void Root::warpSmDel() {
   MOX_TRACE_FN0(th);
   releaseMachine(warpSm_);
}

}  // namespace Veld
