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
   for (auto [path, value] : {std::pair{"/proc/sys/net/ipv4/icmp_ratelimit", "0"},
                              std::pair{"/proc/sys/net/ipv6/icmp/ratelimit", "0"},
                              std::pair{"/proc/sys/net/ipv4/igmp_max_memberships", "65535"}}) {
      int rc = Konet::writeProcSysIfDiffers(path, value);
      if (rc == 0 || rc == ENOENT) continue;
      Mox::logFailure("VELD_PROC_SYS_NET",
                      std::string(__func__) + ": Failed to set " + path + " in NS: " + ns.name(),
                      rc);
      return rc;
   }
   return 0;
}

Root::Root(Mox::Name name) : name_(std::move(name)) {
   MOX_TRACE_FN(th, name_);
   handleInitialized();
}

Root::~Root() {
   MOX_TRACE_FN0(th);
   warpSmDel();
   allVrfSmDel();
   cleanupLoopbackIntfSmDel();
   loopbackIntfSmDel();
   l3IntfStatusVrfSmDel();
   multicastIpGroupAppDirSmDel();
   multicastGroupAppDirSmDel();
   ip6EnableSmDel();
   l3IntfStatusSmDel();
   ip6IntfStatusSmDel();
   ipIntfStatusSmDel();
   ip6IntfSmDel();
   ipIntfSmDel();
   addrMapSmDel();
   kernelNetNsInfoManagerDel();
   vrfIp6IntfConfigSmDel();
   vrfIpIntfConfigSmDel();
   netNsIntfStatusManagerRootDel();
   intfStatusManagerRootDel();
   ownSocket_.reset();
   netlinkSocket_ = -1;
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
      if (!ownSocket_) {
         Mox::logFailure("VELD_NETLINK_SOCKET",
                         "Failed to open a netlink socket in NS: " + ns.name(), error);
      }
      netlinkSocketIs(ownSocket_.get());
   }
   setupProcSysNet(ns);
   initializedSet(true);
}

void Root::kniStatusIs(Mox::Ptr<KernelNetInfo::Status const> const& kniStatus) {
   MOX_TRACE_FN0(th);
   kniStatus_ = kniStatus;
}

void Root::netlinkSocketIs(int netlinkSocket) {
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
   return viewSmOf(vrfIpIntfConfigSm_, ipConfig, vrfIpIntfConfigDir, &VrfIpIntfConfigSmIs);
}

void Root::vrfIpIntfConfigSmDel() {
   MOX_TRACE_FN0(th);
   releaseMachine(vrfIpIntfConfigSm_);
}

Mox::Ptr<VrfIp6IntfConfigSm> Root::vrfIp6IntfConfigSmIs(
    Mox::Ptr<Ip6::Config const> const& ip6Config,
    Mox::Ptr<VrfIp6IntfConfigDir> const& vrfIp6IntfConfigDir) {
   MOX_TRACE_FN0(th);
   return viewSmOf(vrfIp6IntfConfigSm_, ip6Config, vrfIp6IntfConfigDir, &VrfIp6IntfConfigSmIs);
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

Mox::Ptr<IpIntfSm> Root::ipIntfSmIs(IpIntfSm::Inputs const& inputs, bool standbyMode) {
   MOX_TRACE_FN(th, " vrf " << inputs.vrfName << " standbyMode " << standbyMode);
   return machineOf(ipIntfSm_, inputs, standbyMode);
}

void Root::ipIntfSmDel() { releaseMachine(ipIntfSm_); }

Mox::Ptr<Ip6IntfSm> Root::ip6IntfSmIs(Ip6IntfSm::Inputs const& inputs, bool standbyMode) {
   MOX_TRACE_FN(th, " vrf " << inputs.vrfName << " standbyMode " << standbyMode);
   return machineOf(ip6IntfSm_, inputs, standbyMode);
}

void Root::ip6IntfSmDel() { releaseMachine(ip6IntfSm_); }

Mox::Ptr<IpIntfStatusSm> Root::ipIntfStatusSmIs(
    Mox::Ptr<Ip::IpInputStatusDir const> const& inputStatusDir,
    Mox::Ptr<Ip::Config const> const& ipConfig, Mox::Ptr<Ip::Status> const& ipStatus) {
   MOX_TRACE_FN0(th);
   return aggregatorOf(ipIntfStatusSm_, inputStatusDir, ipConfig, ipStatus);
}

void Root::ipIntfStatusSmDel() { releaseMachine(ipIntfStatusSm_); }

Mox::Ptr<Ip6IntfStatusSm> Root::ip6IntfStatusSmIs(
    Mox::Ptr<Ip6::Ip6InputStatusDir const> const& inputStatusDir,
    Mox::Ptr<Ip6::Config const> const& ip6Config, Mox::Ptr<Ip6::Status> const& ip6Status) {
   MOX_TRACE_FN0(th);
   return aggregatorOf(ip6IntfStatusSm_, inputStatusDir, ip6Config, ip6Status);
}

void Root::ip6IntfStatusSmDel() { releaseMachine(ip6IntfStatusSm_); }

Mox::Ptr<L3IntfStatusSm> Root::l3IntfStatusSmIs(
    Mox::Ptr<L3::Intf::InputStatusDir const> const& inputStatusDir,
    Mox::Ptr<L3::Intf::StatusDir> const& intfStatusDir) {
   MOX_TRACE_FN0(th);
   return aggregatorOf(l3IntfStatusSm_, inputStatusDir, intfStatusDir);
}

void Root::l3IntfStatusSmDel() { releaseMachine(l3IntfStatusSm_); }

// Kept when made from the same directory and output; either changed is a name-in-use error.
Mox::Ptr<Ip6EnableSm> Root::ip6EnableSmIs(Mox::Ptr<Mox::Dir const> const& ip6EnableDir,
                                          Mox::Ptr<Ip6::Ip6Enable> const& ip6EnableOverride) {
   MOX_TRACE_FN0(th);
   if (ip6EnableSm_) {
      Mox::checkCtorParam("_ip6EnableDir", ip6EnableSm_->ip6EnableDir(), ip6EnableDir);
      Mox::checkCtorParam("_ip6EnableOverride", ip6EnableSm_->ip6EnableOverride(),
                          ip6EnableOverride);
      return ip6EnableSm_;
   }
   ip6EnableSm_ = Ip6EnableSmIs(ip6EnableDir, ip6EnableOverride);
   return ip6EnableSm_;
}

// Its applications' machines stop with it, even while someone else holds it.
void Root::ip6EnableSmDel() {
   MOX_TRACE_FN0(th);
   if (ip6EnableSm_) ip6EnableSm_->appIp6EnableSmDelAll();
   releaseMachine(ip6EnableSm_);
}

Mox::Ptr<MulticastGroupAppDirSm> Root::multicastGroupAppDirSmIs(
    MulticastGroupAppDirSm::Inputs const& inputs) {
   MOX_TRACE_FN0(th);
   return machineOf(multicastGroupAppDirSm_, inputs);
}

void Root::multicastGroupAppDirSmDel() { releaseMachine(multicastGroupAppDirSm_); }

Mox::Ptr<MulticastIpGroupAppDirSm> Root::multicastIpGroupAppDirSmIs(
    MulticastIpGroupAppDirSm::Inputs const& inputs) {
   MOX_TRACE_FN0(th);
   return machineOf(multicastIpGroupAppDirSm_, inputs);
}

void Root::multicastIpGroupAppDirSmDel() { releaseMachine(multicastIpGroupAppDirSm_); }

Mox::Ptr<L3IntfStatusVrfSm> Root::l3IntfStatusVrfSmIs(L3IntfStatusVrfSm::Inputs const& inputs,
                                                      bool standbyMode) {
   MOX_TRACE_FN(th, " standbyMode " << standbyMode);
   return machineOf(l3IntfStatusVrfSm_, inputs, standbyMode);
}

void Root::l3IntfStatusVrfSmDel() { releaseMachine(l3IntfStatusVrfSm_); }

Mox::Ptr<LoopbackIntfSm> Root::loopbackIntfSmIs(LoopbackIntfSm::Inputs const& inputs,
                                                bool standbyMode) {
   MOX_TRACE_FN(th, " standbyMode " << standbyMode);
   return machineOf(loopbackIntfSm_, inputs, standbyMode);
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

Mox::Ptr<AllVrfSm> Root::allVrfSmIs(AllVrfSm::Inputs const& inputs, bool standbyMode) {
   MOX_TRACE_FN(th, " standbyMode " << standbyMode);
   return machineOf(allVrfSm_, inputs, standbyMode);
}

void Root::allVrfSmDel() {
   MOX_TRACE_FN0(th);
   releaseMachine(allVrfSm_);
}

Mox::Ptr<WarpSm> Root::warpSmIs(WarpSm::Inputs const& inputs) {
   MOX_TRACE_FN0(th);
   return machineOf(warpSm_, inputs);
}

void Root::warpSmDel() {
   MOX_TRACE_FN0(th);
   releaseMachine(warpSm_);
}

}  // namespace Veld
