#include "veld/root/VrfRoot.h"

#include <cstring>
#include <string>

#include "linux/Netlink.h"
#include "linux/ProcSys.h"
#include "mox/Trace.h"
#include "veld/root/OwnedChildren.h"
#include "veld/root/Root.h"

namespace Veld {

static Mox::TraceHandle th("VeldVrfRoot");

static constexpr char kIp6Forwarding[] = "/proc/sys/net/ipv6/conf/all/forwarding";

class VrfRoot::MoxRouting6InfoConfig
    : public Mox::Reactor<VrfRoot, Routing6::InfoConfig::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onRouting() override { owner()->handleIp6Routing(); }
};

class VrfRoot::MoxAllVrfStatusGlobal
    : public Mox::Reactor<VrfRoot, Ip::AllVrfStatusGlobal::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onVrf(L3::VrfName const& vrfName) override {
      if (vrfName == owner()->vrfName()) owner()->handleInitialized();
   }
};

class VrfRoot::MoxAllVrfStatusLocal
    : public Mox::Reactor<VrfRoot, Ip::AllVrfStatusLocal::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onVrf(L3::VrfName const& vrfName) override {
      if (vrfName == owner()->vrfName()) owner()->handleInitialized();
   }
};

class VrfRoot::MoxVrfStatusLocal : public Mox::Reactor<VrfRoot, Ip::VrfStatusLocal::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onNetNsName() override { owner()->handleInitialized(); }
};

// The directory the namespace's kernel mirror is published in ("kni/ns/<ns>").
class VrfRoot::MoxKniDir : public Mox::Reactor<VrfRoot, Mox::Dir::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onEntry(Mox::Name const& name) override {
      if (name == Mox::Name("status")) owner()->handleInitialized();
   }
};

VrfRoot::VrfRoot(L3::VrfName vrfName, Inputs inputs, bool standbyMode)
    : vrfName_(std::move(vrfName)), inputs_(std::move(inputs)), standbyMode_(standbyMode) {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_ << " standbyMode " << standbyMode_);
   moxRouting6InfoConfig_ = Mox::make<MoxRouting6InfoConfig>(this);
   moxRouting6InfoConfig_->notifierIs(inputs_.routing6InfoConfig);
   moxAllVrfStatusGlobal_ = Mox::make<MoxAllVrfStatusGlobal>(this);
   moxAllVrfStatusGlobal_->notifierIs(inputs_.allVrfStatusGlobal);
   moxAllVrfStatusLocal_ = Mox::make<MoxAllVrfStatusLocal>(this);
   moxAllVrfStatusLocal_->notifierIs(inputs_.allVrfStatusLocal);
   moxVrfStatusLocal_ = Mox::make<MoxVrfStatusLocal>(this);
   moxKniDir_ = Mox::make<MoxKniDir>(this);
   handleInitialized();
}

void VrfRoot::routingInfoConfigIs(Mox::Ptr<Routing::InfoConfig const> const& config) {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_);
   if (config == inputs_.routingInfoConfig) return;
   inputs_.routingInfoConfig = config;
   if (ipIntfSm_) ipIntfSm_->routingInfoConfigIs(config);
}

void VrfRoot::routing6InfoConfigIs(Mox::Ptr<Routing6::InfoConfig const> const& config) {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_);
   if (config == inputs_.routing6InfoConfig) return;
   inputs_.routing6InfoConfig = config;
   moxRouting6InfoConfig_->notifierIs(config);
   if (ip6IntfSm_) ip6IntfSm_->routingInfoConfigIs(config);
   handleIp6Routing();
}

// The local entry is watched for its namespace, and the mirror's directory once the
// namespace is known; an initialised root needs neither.
void VrfRoot::watchMissing() {
   if (initialized()) {
      moxVrfStatusLocal_->notifierIs(nullptr);
      moxKniDir_->notifierIs(nullptr);
      return;
   }
   auto const& in = inputs_;
   auto local = in.allVrfStatusLocal ? in.allVrfStatusLocal->vrf(vrfName_) : nullptr;
   moxVrfStatusLocal_->notifierIs(local);
   Mox::Ptr<Mox::Dir> kniDir;
   if (local && !local->netNsName().isDefault() && in.entityMgr) {
      kniDir = in.entityMgr->dirIs(Larder::formatPath("kni/ns/%s", local->netNsName().name()));
   }
   moxKniDir_->notifierIs(kniDir);
}

VrfRoot::~VrfRoot() { moxDoZombieReactors(true); }

// Pushed into the VRF's interface machines, which skip status writes in standby.
void VrfRoot::standbyModeIs(bool standbyMode) {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_ << " standbyMode " << standbyMode);
   standbyMode_ = standbyMode;
   if (ipIntfSm_) ipIntfSm_->standbyModeIs(standbyMode);
   if (ip6IntfSm_) ip6IntfSm_->standbyModeIs(standbyMode);
}

Mox::Ptr<IpIntfSm> VrfRoot::ipIntfSmIs(IpIntfSm::Inputs const& inputs, bool standbyMode) {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_ << " standbyMode " << standbyMode);
   return machineOf(ipIntfSm_, inputs, standbyMode);
}

void VrfRoot::ipIntfSmDel() { releaseMachine(ipIntfSm_); }

Mox::Ptr<Ip6IntfSm> VrfRoot::ip6IntfSmIs(Ip6IntfSm::Inputs const& inputs, bool standbyMode) {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_ << " standbyMode " << standbyMode);
   return machineOf(ip6IntfSm_, inputs, standbyMode);
}

void VrfRoot::ip6IntfSmDel() { releaseMachine(ip6IntfSm_); }

void VrfRoot::nsIs(Konet::NamespaceName const& ns) {
   MOX_TRACE_FN(th, " Ns: " << ns);
   ns_ = ns;
}

void VrfRoot::kniStatusIs(Mox::Ptr<KernelNetInfo::Status const> const& kniStatus) {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_);
   kniStatus_ = kniStatus;
}

void VrfRoot::netlinkSocketIs(int netlinkSocket) {
   MOX_TRACE_FN(th, netlinkSocket);
   netlinkSocket_ = netlinkSocket;
}

Mox::Ptr<Interface::DeviceIntfStatusDir> VrfRoot::kernelIntfDirIs() {
   MOX_TRACE_FN(th, " Ns: " << ns_);
   if (!kernelIntfDir_) kernelIntfDir_ = Mox::make<Interface::DeviceIntfStatusDir>(ns_);
   return kernelIntfDir_;
}

void VrfRoot::kernelIntfDirDel() {
   MOX_TRACE_FN(th, " Ns: " << ns_);
   kernelIntfDir_ = nullptr;
}

Mox::Ptr<AddrMap> VrfRoot::addrMapIs(Mox::Ptr<KernelNetInfo::Status const> const& kniStatus) {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_);
   if (addrMap_) {
      Mox::checkCtorParam("_kniStatus", addrMap_->kniStatus(), kniStatus);
      return addrMap_;
   }
   addrMap_ = Mox::make<AddrMap>(kniStatus);
   adopt(addrMap_.ptr(), Root::kAddrMap);
   return addrMap_;
}

void VrfRoot::addrMapDel() {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_);
   addrMap_ = nullptr;
}

Mox::Ptr<AddrMappingSm> VrfRoot::addrMapSmIs(Mox::Ptr<KernelNetInfo::Status const> const& kniStatus,
                                             Mox::Ptr<AddrMap> const& addrMap) {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_);
   return addrMapSmOf(addrMapSm_, kniStatus, addrMap);
}

void VrfRoot::addrMapSmDel() {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_);
   releaseMachine(addrMapSm_);
}

Mox::Ptr<CleanupLoopbackIntfSm> VrfRoot::cleanupLoopbackIntfSmIs(
    Mox::Ptr<KernelNetInfo::Status const> const& kniStatus,
    Mox::Ptr<Interface::LoopbackIntfConfigDir const> const& loopbackIntfConfigDir,
    Konet::NamespaceName const& ns) {
   MOX_TRACE_FN(th, " Ns: " << ns);
   return cleanupLoopbackIntfSmOf(cleanupLoopbackIntfSm_, kniStatus, loopbackIntfConfigDir, ns);
}

void VrfRoot::cleanupLoopbackIntfSmDel() {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_);
   releaseMachine(cleanupLoopbackIntfSm_);
}

void VrfRoot::handleInitialized() {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_ << " Ns: " << ns_);
   if (initialized()) return;
   watchMissing();
   auto const& in = inputs_;
   if (!in.allVrfStatusGlobal || !in.allVrfStatusGlobal->vrf(vrfName_)) return;
   auto local = in.allVrfStatusLocal ? in.allVrfStatusLocal->vrf(vrfName_) : nullptr;
   if (!local) return;
   // A VRF root works only inside its VRF's own namespace: it never touches the agent's.
   if (local->netNsName().isDefault()) {
      MOX_TRACE(th, 7, " no namespace for vrf " << vrfName_);
      return;
   }
   nsIs(local->netNsName());

   std::string const kniPath = Larder::formatPath("kni/ns/%s/status", ns_.name());
   auto mount = in.entityMgr ? Mox::make<MoxTessera::Mount>(in.entityMgr) : nullptr;
   auto kni =
       mount && mount->doMount(kniPath) ? mount->getEntity<KernelNetInfo::Status>() : nullptr;
   if (!kni) {
      MOX_TRACE(th, 7, " no kernel mirror at " << kniPath << " for vrf " << vrfName_);
      return;
   }
   kniMount_ = mount;
   kniStatusIs(kni);

   MOX_ASSERT(netlinkSocket() == -1);
   int error = 0;
   ownSocket_ = Konet::createNetlinkSocket(ns_, 0, 2, true, 0, &error);
   if (!ownSocket_) {
      Mox::logFailure("VELD_NETLINK_SOCKET", "Failed to open a netlink socket in NS: " + ns_.name(),
                      error);
   }
   netlinkSocketIs(ownSocket_.get());
   setupProcSysNet(ns_);

   kernelIntfDirIs();
   addrMapIs(kniStatus_);
   addrMapSmIs(kniStatus_, addrMap_);
   if (in.intfStatusManagerRoot) {
      kniIntfStatusManager_ = in.intfStatusManagerRoot->intfStatusManagerIs(ns_, kernelIntfDir_);
   }

   // Without loopback configuration there is nothing to clean up in the namespace.
   auto loopbackConfigDir =
       in.entityMgr->entity<Interface::LoopbackIntfConfigDir>("interface/config/loopback/intf");
   if (loopbackConfigDir) cleanupLoopbackIntfSmIs(kniStatus_, loopbackConfigDir, ns_);

   IpIntfSm::Inputs ip{.ipConfig = in.ipConfig,
                       .vrfIpIntfConfig = in.vrfIpIntfConfig,
                       .addrMap = addrMap_,
                       .kernelIntfDir = kernelIntfDir_,
                       .kernelProtoConfig = in.kernelProtoConfig,
                       .routingInfoConfig = in.routingInfoConfig,
                       .systemIntfIpStatus = in.systemIntfIpStatus,
                       .localIntfIpStatus = in.localIntfIpStatus,
                       .systemL3IntfStatus = in.systemL3IntfStatus,
                       .localL3IntfStatus = in.localL3IntfStatus,
                       .ip6Status = in.ip6Status,
                       .allVrfStatusLocal = in.allVrfStatusLocal,
                       .netlinkSocket = netlinkSocket_,
                       .allIntfStatusDir = in.allIntfStatusDir,
                       .kniIntfStatusManager = kniIntfStatusManager_,
                       .vrfName = vrfName_,
                       .routingHardwareStatus = in.routingHardwareStatus,
                       .warpState = in.warpState,
                       .timerWheel = in.timerWheel,
                       .updateIpIntfStatusVrfReq = in.updateIpIntfStatusVrfReq,
                       .updateIpIntfStatusReq = in.updateIpIntfStatusReq,
                       .urpfOnAllIntfStat = in.urpfOnAllIntfStat,
                       .proxyArpVirtualMac = in.proxyArpVirtualMac,
                       .vrfIp6IntfConfig = in.vrfIp6IntfConfig};
   if (in.timerWheel) ipIntfSmIs(ip, standbyMode_);
   Ip6IntfSm::Inputs ip6{.ip6Config = in.ip6Config,
                         .vrfIp6IntfConfig = in.vrfIp6IntfConfig,
                         .addrMap = addrMap_,
                         .kernelIntfDir = kernelIntfDir_,
                         .routingInfoConfig = in.routing6InfoConfig,
                         .systemIntfIp6Status = in.systemIntfIp6Status,
                         .localIntfIp6Status = in.localIntfIp6Status,
                         .systemL3IntfStatus = in.systemL3IntfStatus,
                         .localL3IntfStatus = in.localL3IntfStatus,
                         .allVrfStatusLocal = in.allVrfStatusLocal,
                         .multicastGroups = in.ip6MulticastGroupsVeld,
                         .netlinkSocket = netlinkSocket_,
                         .allIntfStatusDir = in.allIntfStatusDir,
                         .kniIntfStatusManager = kniIntfStatusManager_,
                         .vrfName = vrfName_,
                         .warpState = in.warpState,
                         .timerWheel = in.timerWheel,
                         .updateIp6IntfStatusVrfReq = in.updateIp6IntfStatusVrfReq,
                         .updateIp6IntfStatusReq = in.updateIp6IntfStatusReq,
                         .urpfOnAllIntfStat = in.urpfOnAllIntfStat6,
                         .ip6Enable = in.ip6EnableOverride,
                         .ownAddrs = in.ip6OwnAddrs,
                         .vrfIpIntfConfig = in.vrfIpIntfConfig};
   if (in.timerWheel) ip6IntfSmIs(ip6, standbyMode_);

   handleIp6Routing();
   initializedIs(true);
   watchMissing();
}

// The VRF goes: its namespace leaves the interface-status manager root and the VRF's
// machines are released now, not whenever the last reference to the root goes.
void VrfRoot::handleDelete() {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_ << " Ns: " << ns_);
   if (kniMount_) {
      MOX_TRACE(th, 7, " unmounting " << Larder::formatPath("kni/ns/%s/status", ns_.name()));
      kniMount_->doUnmount();
      kniMount_ = nullptr;
   }
   if (kernelIntfDir_ && inputs_.intfStatusManagerRoot) {
      inputs_.intfStatusManagerRoot->intfStatusManagerDel(ns_);
   }
   ip6IntfSmDel();
   ipIntfSmDel();
   kniIntfStatusManager_ = nullptr;
   kernelIntfDirDel();
   cleanupLoopbackIntfSmDel();
   addrMapSmDel();
   addrMapDel();
   kniStatusIs(nullptr);
   ownSocket_.reset();
   netlinkSocketIs(-1);
}

// Nothing is written before the VRF's namespace is known.
void VrfRoot::handleIp6Routing() {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_);
   auto const& config = inputs_.routing6InfoConfig;
   if (!config || ns_.isDefault()) return;
   char const* value = config->routing() ? "1" : "0";
   MOX_TRACE(th, 7, "ns = " << ns_ << ", forwarding = " << value);
   Konet::ScopedNetNs inNs(ns_, __func__);
   if (inNs.ok()) Konet::writeProcSysIfDiffers(kIp6Forwarding, value);
}

}  // namespace Veld
