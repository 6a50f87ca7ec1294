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

VrfRoot::VrfRoot(L3::VrfName vrfName, Inputs inputs, bool standbyMode)
    : vrfName_(std::move(vrfName)), inputs_(std::move(inputs)), standbyMode_(standbyMode) {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_ << " standbyMode " << standbyMode_);
   moxRouting6InfoConfig_ = Mox::make<MoxRouting6InfoConfig>(this);
   moxRouting6InfoConfig_->notifierIs(inputs_.routing6InfoConfig);
   handleInitialized();
}

VrfRoot::~VrfRoot() { moxDoZombieReactors(true); }

void VrfRoot::checkCtorParams(Inputs const& current, Inputs const& passed) {
   using Mox::checkCtorParam;
   checkCtorParam("_ipConfig", current.ipConfig, passed.ipConfig);
   checkCtorParam("_vrfIpIntfConfig", current.vrfIpIntfConfig, passed.vrfIpIntfConfig);
   checkCtorParam("_vrfIp6IntfConfig", current.vrfIp6IntfConfig, passed.vrfIp6IntfConfig);
   checkCtorParam("_systemIntfIpStatus", current.systemIntfIpStatus, passed.systemIntfIpStatus);
   checkCtorParam("_localIntfIpStatus", current.localIntfIpStatus, passed.localIntfIpStatus);
   checkCtorParam("_systemL3IntfStatus", current.systemL3IntfStatus, passed.systemL3IntfStatus);
   checkCtorParam("_localL3IntfStatus", current.localL3IntfStatus, passed.localL3IntfStatus);
   checkCtorParam("_routingInfoConfig", current.routingInfoConfig, passed.routingInfoConfig);
   checkCtorParam("_routingHardwareStatus", current.routingHardwareStatus,
                  passed.routingHardwareStatus);
   checkCtorParam("_kernelProtoConfig", current.kernelProtoConfig, passed.kernelProtoConfig);
   checkCtorParam("_allVrfStatusGlobal", current.allVrfStatusGlobal, passed.allVrfStatusGlobal);
   checkCtorParam("_allVrfStatusLocal", current.allVrfStatusLocal, passed.allVrfStatusLocal);
   checkCtorParam("_allIntfStatusDir", current.allIntfStatusDir, passed.allIntfStatusDir);
   checkCtorParam("_allIntfStatusLocalDir", current.allIntfStatusLocalDir,
                  passed.allIntfStatusLocalDir);
   checkCtorParam("_ip6Config", current.ip6Config, passed.ip6Config);
   checkCtorParam("_ip6Status", current.ip6Status, passed.ip6Status);
   checkCtorParam("_routing6InfoConfig", current.routing6InfoConfig, passed.routing6InfoConfig);
   checkCtorParam("_systemIntfIp6Status", current.systemIntfIp6Status, passed.systemIntfIp6Status);
   checkCtorParam("_localIntfIp6Status", current.localIntfIp6Status, passed.localIntfIp6Status);
   checkCtorParam("_ip6MulticastGroupsVeld", current.ip6MulticastGroupsVeld,
                  passed.ip6MulticastGroupsVeld);
   checkCtorParam("_updateIpIntfStatusVrfReq", current.updateIpIntfStatusVrfReq,
                  passed.updateIpIntfStatusVrfReq);
   checkCtorParam("_updateIp6IntfStatusVrfReq", current.updateIp6IntfStatusVrfReq,
                  passed.updateIp6IntfStatusVrfReq);
   checkCtorParam("_updateIpIntfStatusReq", current.updateIpIntfStatusReq,
                  passed.updateIpIntfStatusReq);
   checkCtorParam("_updateIp6IntfStatusReq", current.updateIp6IntfStatusReq,
                  passed.updateIp6IntfStatusReq);
   checkCtorParam("_warpState", current.warpState, passed.warpState);
   checkCtorParam("_entityMgr", current.entityMgr, passed.entityMgr);
   checkCtorParam("_timerWheel", current.timerWheel, passed.timerWheel);
   checkCtorParam("_urpfOnAllIntfStat", current.urpfOnAllIntfStat, passed.urpfOnAllIntfStat);
   checkCtorParam("_urpfOnAllIntfStat6", current.urpfOnAllIntfStat6, passed.urpfOnAllIntfStat6);
   checkCtorParam("_ip6EnableOverride", current.ip6EnableOverride, passed.ip6EnableOverride);
   checkCtorParam("_intfStatusManagerRoot", current.intfStatusManagerRoot,
                  passed.intfStatusManagerRoot);
   checkCtorParam("_proxyArpVirtualMac", current.proxyArpVirtualMac, passed.proxyArpVirtualMac);
}

// Pushed into the VRF's interface machines, which skip status writes in standby.
void VrfRoot::standbyModeIs(bool standbyMode) {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_ << " standbyMode " << standbyMode);
   standbyMode_ = standbyMode;
   if (ipIntfSm_) ipIntfSm_->standbyModeIs(standbyMode);
}

Mox::Ptr<IpIntfSm> VrfRoot::ipIntfSmIs(IpIntfSm::Inputs const& inputs, bool standbyMode) {
   MOX_TRACE_FN(th, " Vrf: " << vrfName_ << " standbyMode " << standbyMode);
   return ipIntfSmOf(ipIntfSm_, inputs, standbyMode);
}

void VrfRoot::ipIntfSmDel() { releaseMachine(ipIntfSm_); }

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
      Mox::logMessage(
          Mox::LogSeverity::error, "VELD_NETLINK_SOCKET",
          "Failed to open a netlink socket in NS: " + ns_.name() + ": " + std::strerror(error));
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

   IpIntfSm::Inputs ip;
   ip.ipConfig = in.ipConfig;
   ip.vrfIpIntfConfig = in.vrfIpIntfConfig;
   ip.addrMap = addrMap_;
   ip.kernelIntfDir = kernelIntfDir_;
   ip.kernelProtoConfig = in.kernelProtoConfig;
   ip.routingInfoConfig = in.routingInfoConfig;
   ip.systemIntfIpStatus = in.systemIntfIpStatus;
   ip.localIntfIpStatus = in.localIntfIpStatus;
   ip.systemL3IntfStatus = in.systemL3IntfStatus;
   ip.localL3IntfStatus = in.localL3IntfStatus;
   ip.ip6Status = in.ip6Status;
   ip.allVrfStatusLocal = in.allVrfStatusLocal;
   ip.netlinkSocket = netlinkSocket_;
   ip.allIntfStatusDir = in.allIntfStatusDir;
   ip.kniIntfStatusManager = kniIntfStatusManager_;
   ip.vrfName = vrfName_;
   ip.routingHardwareStatus = in.routingHardwareStatus;
   ip.warpState = in.warpState;
   ip.timerWheel = in.timerWheel;
   ip.updateIpIntfStatusVrfReq = in.updateIpIntfStatusVrfReq;
   ip.updateIpIntfStatusReq = in.updateIpIntfStatusReq;
   ip.urpfOnAllIntfStat = in.urpfOnAllIntfStat;
   ip.proxyArpVirtualMac = in.proxyArpVirtualMac;
   if (in.timerWheel) ipIntfSmIs(ip, standbyMode_);
   // The IPv6 machine (ip6IntfSmIs) joins it here.

   handleIp6Routing();
   initializedIs(true);
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
   Konet::writeProcSysInNetNs(kIp6Forwarding, value, ns_);
}

}  // namespace Veld
