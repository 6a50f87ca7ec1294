// IpIntfSm: construction, inputs, status and configuration handlers. The backlog is in
// IpIntfSmBacklog.cc, the kernel work in IpIntfSmKernel.cc.
#include "veld/ipv4/IpIntfSm.h"

#include "mox/Trace.h"
#include "veld/LocalInterface.h"
#include "veld/config/VrfIpIntfConfig.h"
#include "veld/ipv4/IpIntfConfigReactors.h"
#include "veld/redundancy/WarpState.h"

namespace Veld {

namespace {
Mox::TraceHandle th("Veld");
}

// The machine's reactors on its inputs; each only forwards to a handler.
class IpIntfSm::Reactors {
public:
   class MoxVrfIpIntfConfig : public Mox::Reactor<IpIntfSm, VrfIpIntfConfig::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onIpIntfConfig(Konet::IntfId const& intf) override { owner()->handleIpIntfConfig(intf); }
   };
   class MoxKernelIntfDir
       : public Mox::Reactor<IpIntfSm, Interface::DeviceIntfStatusDir::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onIntfStatus(Konet::IntfId const& intf) override { owner()->handleKernelIntf(intf); }
   };
   class MoxKniInterface
       : public Mox::Reactor<IpIntfSm, KernelNetInfo::Status::InterfaceTable::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onEntry(KernelNetInfo::InterfaceKey const& key) override { owner()->handleUpdate(key); }
   };
   class MoxKernelProtoConfig
       : public Mox::Reactor<IpIntfSm, Routing::KernelProtoConfig::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onTcpSendReset() override { owner()->handleTcpSendReset(); }
      void onUdpSendUnreachable() override { owner()->handleUdpSendUnreach(); }
   };
   class MoxRoutingInfoConfig : public Mox::Reactor<IpIntfSm, Routing::InfoConfig::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onRouting() override { owner()->handleRouting(); }
   };
   class MoxHardwareStatus
       : public Mox::Reactor<IpIntfSm, Routing::Hardware::Status::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onUrpfSupported() override { owner()->handleUrpfSupported(); }
   };
   class MoxIpConfig : public Mox::Reactor<IpIntfSm, Ip::Config::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onSendRedirects() override { owner()->handleSendRedirect(); }
      void onIcmpSrcIntf() override { owner()->handleIcmpSrcIntf(); }
      void onIcmpSrcIpAddr() override { owner()->handleIcmpSrcIpAddr(); }
   };
   class MoxVirtualMac : public Mox::Reactor<IpIntfSm, ProxyArp::VirtualMacStatus::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onIntf(Konet::IntfId const& intf) override { owner()->handleVirtualMac(intf); }
   };
   template <class Requests>
   class MoxUpdateRequests : public Mox::Reactor<IpIntfSm, typename Requests::NotifieeConst> {
   public:
      using Mox::Reactor<IpIntfSm, typename Requests::NotifieeConst>::Reactor;
      void onRequest(Konet::IntfId const& intf) override {
         this->owner()->handleIpIntfStatusUpdateReq(intf);
      }
   };
   class MoxTimerWheel : public Mox::Reactor<IpIntfSm, Bolt::TimerWheel::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onTime() override { owner()->handleBacklogTimer(); }
   };

   template <class R, class N>
   static Mox::Ptr<R> on(IpIntfSm* sm, N const& notifier) {
      if (!notifier) return nullptr;
      auto r = Mox::make<R>(sm);
      r->notifierIs(notifier);
      return r;
   }

   Mox::Ptr<MoxVrfIpIntfConfig> vrfIpIntfConfig;
   Mox::Ptr<MoxKernelIntfDir> kernelIntfDir;
   Mox::Ptr<MoxKniInterface> kniInterface;
   Mox::Ptr<MoxKernelProtoConfig> kernelProtoConfig;
   Mox::Ptr<MoxRoutingInfoConfig> routingInfoConfig;
   Mox::Ptr<MoxHardwareStatus> hardwareStatus;
   Mox::Ptr<MoxIpConfig> ipConfig;
   Mox::Ptr<MoxVirtualMac> virtualMac;
   Mox::Ptr<MoxUpdateRequests<L3::UpdateIpIntfStatusVrfRequests>> updateVrfRequests;
   Mox::Ptr<MoxUpdateRequests<L3::UpdateIpIntfStatusRequests>> updateRequests;
   Mox::Ptr<MoxTimerWheel> backlogTimer;
};

IpIntfSm::IpIntfSm(
    Mox::Ptr<Ip::Config const> ipConfig, Mox::Ptr<VrfIpIntfConfig const> vrfIpIntfConfig,
    Mox::Ptr<AddrMap> addrMap, Mox::Ptr<Interface::DeviceIntfStatusDir const> kernelIntfDir,
    Mox::Ptr<Routing::KernelProtoConfig const> kernelProtoConfig,
    Mox::Ptr<Routing::InfoConfig const> routingInfoConfig,
    Mox::Ptr<Ip::Input::Status> systemIntfIpStatus, Mox::Ptr<Ip::Input::Status> localIntfIpStatus,
    Mox::Ptr<L3::Intf::Input::StatusDir> systemL3IntfStatus,
    Mox::Ptr<L3::Intf::Input::StatusDir> localL3IntfStatus, Mox::Ptr<Ip6::Status const> ip6Status,
    Mox::Ptr<Ip::AllVrfStatusLocal const> allVrfStatusLocal, int netlinkSocket,
    Mox::Ptr<Interface::AllIntfStatusDir const> allIntfStatusDir,
    Mox::Ptr<Interface::KniIntfStatusManager> kniIntfStatusManager, L3::VrfName vrfName,
    Mox::Ptr<Routing::Hardware::Status const> routingHardwareStatus, bool standbyMode,
    Mox::Ptr<WarpState> warpState, Mox::Ptr<Bolt::TimerWheel const> timerWheel,
    Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests> updateIpIntfStatusVrfReq,
    Mox::Ptr<L3::UpdateIpIntfStatusRequests> updateIpIntfStatusReq,
    Mox::Ptr<Urpf::UrpfOnAllIntfStat> urpfOnAllIntfStat,
    Mox::Ptr<ProxyArp::VirtualMacStatus const> proxyArpVirtualMac)
    : ipConfig_(std::move(ipConfig)),
      vrfIpIntfConfig_(std::move(vrfIpIntfConfig)),
      addrMap_(std::move(addrMap)),
      kernelIntfDir_(std::move(kernelIntfDir)),
      kernelProtoConfig_(std::move(kernelProtoConfig)),
      routingInfoConfig_(std::move(routingInfoConfig)),
      systemIntfIpStatus_(std::move(systemIntfIpStatus)),
      localIntfIpStatus_(std::move(localIntfIpStatus)),
      systemL3IntfStatus_(std::move(systemL3IntfStatus)),
      localL3IntfStatus_(std::move(localL3IntfStatus)),
      ip6Status_(std::move(ip6Status)),
      allVrfStatusLocal_(std::move(allVrfStatusLocal)),
      netlinkSocket_(netlinkSocket),
      allIntfStatusDir_(std::move(allIntfStatusDir)),
      kniIntfStatusManager_(std::move(kniIntfStatusManager)),
      vrfName_(std::move(vrfName)),
      routingHardwareStatus_(std::move(routingHardwareStatus)),
      standbyMode_(standbyMode),
      warpState_(std::move(warpState)),
      timerWheel_(std::move(timerWheel)),
      updateIpIntfStatusVrfReq_(std::move(updateIpIntfStatusVrfReq)),
      updateIpIntfStatusReq_(std::move(updateIpIntfStatusReq)),
      urpfOnAllIntfStat_(std::move(urpfOnAllIntfStat)),
      proxyArpVirtualMac_(std::move(proxyArpVirtualMac)),
      reactors_(std::make_unique<Reactors>()) {
   MOX_TRACE_FN(th, " vrf " << vrfName_);
   if (addrMap_ && addrMap_->kniStatus()) {
      kniRoot_ = Mox::make<KernelNetInfo::Root>(addrMap_->kniStatus());
   }
   auto& r = *reactors_;
   r.backlogTimer = Reactors::on<Reactors::MoxTimerWheel>(this, timerWheel_);
   backlogTimer_ = r.backlogTimer;
   r.vrfIpIntfConfig = Reactors::on<Reactors::MoxVrfIpIntfConfig>(this, vrfIpIntfConfig_);
   r.kernelIntfDir = Reactors::on<Reactors::MoxKernelIntfDir>(this, kernelIntfDir_);
   if (kniRoot_) {
      r.kniInterface =
          Reactors::on<Reactors::MoxKniInterface>(this, kniRoot_->status()->interface().table());
   }
   r.kernelProtoConfig = Reactors::on<Reactors::MoxKernelProtoConfig>(this, kernelProtoConfig_);
   r.routingInfoConfig = Reactors::on<Reactors::MoxRoutingInfoConfig>(this, routingInfoConfig_);
   r.hardwareStatus = Reactors::on<Reactors::MoxHardwareStatus>(this, routingHardwareStatus_);
   r.ipConfig = Reactors::on<Reactors::MoxIpConfig>(this, ipConfig_);
   r.virtualMac = Reactors::on<Reactors::MoxVirtualMac>(this, proxyArpVirtualMac_);
   r.updateVrfRequests =
       Reactors::on<Reactors::MoxUpdateRequests<L3::UpdateIpIntfStatusVrfRequests>>(
           this, updateIpIntfStatusVrfReq_);
   r.updateRequests = Reactors::on<Reactors::MoxUpdateRequests<L3::UpdateIpIntfStatusRequests>>(
       this, updateIpIntfStatusReq_);
   handleInitialized();
}

IpIntfSm::IpIntfSm(Inputs const& in, bool standbyMode)
    : IpIntfSm(in.ipConfig, in.vrfIpIntfConfig, in.addrMap, in.kernelIntfDir, in.kernelProtoConfig,
               in.routingInfoConfig, in.systemIntfIpStatus, in.localIntfIpStatus,
               in.systemL3IntfStatus, in.localL3IntfStatus, in.ip6Status, in.allVrfStatusLocal,
               in.netlinkSocket, in.allIntfStatusDir, in.kniIntfStatusManager, in.vrfName,
               in.routingHardwareStatus, standbyMode, in.warpState, in.timerWheel,
               in.updateIpIntfStatusVrfReq, in.updateIpIntfStatusReq, in.urpfOnAllIntfStat,
               in.proxyArpVirtualMac) {}

IpIntfSm::Inputs IpIntfSm::inputs() const {
   return Inputs{ipConfig_,
                 vrfIpIntfConfig_,
                 addrMap_,
                 kernelIntfDir_,
                 kernelProtoConfig_,
                 routingInfoConfig_,
                 systemIntfIpStatus_,
                 localIntfIpStatus_,
                 systemL3IntfStatus_,
                 localL3IntfStatus_,
                 ip6Status_,
                 allVrfStatusLocal_,
                 netlinkSocket_,
                 allIntfStatusDir_,
                 kniIntfStatusManager_,
                 vrfName_,
                 routingHardwareStatus_,
                 warpState_,
                 timerWheel_,
                 updateIpIntfStatusVrfReq_,
                 updateIpIntfStatusReq_,
                 urpfOnAllIntfStat_,
                 proxyArpVirtualMac_};
}

void IpIntfSm::checkCtorParams(Inputs const& a, Inputs const& b) {
   using Mox::checkCtorParam;
   checkCtorParam("_ipConfig", a.ipConfig, b.ipConfig);
   checkCtorParam("_vrfIpIntfConfig", a.vrfIpIntfConfig, b.vrfIpIntfConfig);
   checkCtorParam("_addrMap", a.addrMap, b.addrMap);
   checkCtorParam("_kernelIntfDir", a.kernelIntfDir, b.kernelIntfDir);
   checkCtorParam("_kernelProtoConfig", a.kernelProtoConfig, b.kernelProtoConfig);
   checkCtorParam("_routingInfoConfig", a.routingInfoConfig, b.routingInfoConfig);
   checkCtorParam("_systemIntfIpStatus", a.systemIntfIpStatus, b.systemIntfIpStatus);
   checkCtorParam("_localIntfIpStatus", a.localIntfIpStatus, b.localIntfIpStatus);
   checkCtorParam("_systemL3IntfStatus", a.systemL3IntfStatus, b.systemL3IntfStatus);
   checkCtorParam("_localL3IntfStatus", a.localL3IntfStatus, b.localL3IntfStatus);
   checkCtorParam("_ip6Status", a.ip6Status, b.ip6Status);
   checkCtorParam("_allVrfStatusLocal", a.allVrfStatusLocal, b.allVrfStatusLocal);
   checkCtorParam("_netlinkSocket", a.netlinkSocket, b.netlinkSocket);
   checkCtorParam("_allIntfStatusDir", a.allIntfStatusDir, b.allIntfStatusDir);
   checkCtorParam("_kniIntfStatusManager", a.kniIntfStatusManager, b.kniIntfStatusManager);
   checkCtorParam("_vrfName", a.vrfName, b.vrfName);
   checkCtorParam("_routingHardwareStatus", a.routingHardwareStatus, b.routingHardwareStatus);
   checkCtorParam("_warpState", a.warpState, b.warpState);
   checkCtorParam("_timerWheel", a.timerWheel, b.timerWheel);
   checkCtorParam("_updateIpIntfStatusVrfReq", a.updateIpIntfStatusVrfReq,
                  b.updateIpIntfStatusVrfReq);
   checkCtorParam("_updateIpIntfStatusReq", a.updateIpIntfStatusReq, b.updateIpIntfStatusReq);
   checkCtorParam("_urpfOnAllIntfStat", a.urpfOnAllIntfStat, b.urpfOnAllIntfStat);
   checkCtorParam("_proxyArpVirtualMac", a.proxyArpVirtualMac, b.proxyArpVirtualMac);
}

IpIntfSm::~IpIntfSm() {
   moxDoZombieReactors(true);
   routedIpIntfConfig_.clear();
   ipIntfConfigFilter_.clear();
   kniIntfState_.clear();
}

Konet::NamespaceName const& IpIntfSm::nsName() const {
   static Konet::NamespaceName const defaultNs = Konet::NamespaceName::defaultNamespace();
   return kniIntfStatusManager_ ? kniIntfStatusManager_->nsName() : defaultNs;
}

Mox::Ptr<Ip::Input::Status> const& IpIntfSm::ipStatusFor(Konet::IntfId const& intf) const {
   return isLocalInterface(intf) ? localIntfIpStatus_ : systemIntfIpStatus_;
}

Mox::Ptr<L3::Intf::Input::StatusDir> const& IpIntfSm::l3StatusFor(Konet::IntfId const& intf) const {
   return isLocalInterface(intf) ? localL3IntfStatus_ : systemL3IntfStatus_;
}

Mox::Ptr<Ip::IpIntfStatus> IpIntfSm::ipIntfStatusOf(Konet::IntfId const& intf) const {
   auto const& dir = ipStatusFor(intf);
   auto status = dir ? dir->ipIntfStatus(intf) : nullptr;
   return status && status->vrf() == vrfName_ ? status : nullptr;
}

void IpIntfSm::handleInitialized() {
   MOX_TRACE_FN(th, " vrf " << vrfName_);
   if (initialized()) return;
   MOX_ASSERT(timerWheel_);
   if (vrfIpIntfConfig_) {
      for (auto const& intf : vrfIpIntfConfig_->ipIntfConfigIterator().keys()) {
         handleIpIntfConfig(intf);
      }
   }
   if (kniRoot_) {
      auto table = kniRoot_->status()->interface();
      std::vector<KernelNetInfo::InterfaceKey> keys;
      for (auto it = table.begin(); it != table.end(); ++it)
         keys.push_back(it.key());
      for (auto key : keys)
         handleUpdate(key);
   }
   // Statuses of this VRF left behind by configuration that went while nobody watched.
   for (auto const* dir : {&systemIntfIpStatus_, &localIntfIpStatus_}) {
      if (!*dir) continue;
      for (auto const& intf : (*dir)->ipIntfStatusIterator().keys()) {
         checkIpIntfCfgStatus((*dir)->ipIntfStatus(intf), intf, true);
      }
   }
   icmpSrcIntf_ = ipConfig_ ? ipConfig_->icmpSrcIntf() : Konet::IntfId();
   scheduleGlobalKnobs();
   initializedSet(true);
}

// ---- Configuration

L3::VrfName IpIntfSm::configVrf(Mox::Ptr<Ip::IpIntfConfig const> const& config) {
   auto const& l3 = config ? config->l3Config() : nullptr;
   if (!l3 || l3->vrf().name().empty()) return L3::VrfName::defaultVrf();
   return l3->vrf();
}

void IpIntfSm::handleIpIntfConfig(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf << " vrf " << vrfName_);
   auto config = vrfIpIntfConfig_ ? vrfIpIntfConfig_->ipIntfConfig(intf) : nullptr;
   if (config) {
      auto* filter = ipIntfConfigFilter_.find(intf);
      if (filter && (*filter)->config() == config) return;
      ipIntfConfigFilter_.erase(intf);
      routedIpIntfConfigDel(intf);
      ipIntfConfigFilter_.assign(intf, Mox::make<MoxIpIntfConfigFilter>(this, config));
      return;
   }
   if (!ipIntfConfigFilter_.erase(intf)) return;
   routedIpIntfConfigDel(intf);
   handleIntfStatusForDeletedIntfConfig(intf);
}

Mox::Ptr<Ip::IpIntfConfig const> IpIntfSm::routedIpIntfConfig(Konet::IntfId const& intf) const {
   auto const* r = routedIpIntfConfig_.find(intf);
   return r ? (*r)->config() : nullptr;
}

size_t IpIntfSm::routedIpIntfConfigs() const { return routedIpIntfConfig_.size(); }

void IpIntfSm::routedIpIntfConfigIs(Konet::IntfId const& intf,
                                    Mox::Ptr<Ip::IpIntfConfig const> const& config) {
   MOX_TRACE_FN(th, " for " << intf);
   auto const* r = routedIpIntfConfig_.find(intf);
   if (r && (*r)->config() == config) return;
   auto reactor = Mox::make<MoxIpIntfConfig>(this, config);
   routedIpIntfConfig_.assign(intf, reactor);
   reactor->handleInitialized();  // once it counts among the routed interfaces
}

void IpIntfSm::routedIpIntfConfigDel(Konet::IntfId const& intf) {
   if (!routedIpIntfConfig_.erase(intf)) return;
   MOX_TRACE_FN(th, " for " << intf);
   // No longer routed here: its status goes, and its addresses leave the kernel.
   handleIntfStatusForDeletedIntfConfig(intf);
   if (urpfOnAllIntfStat_) urpfOnAllIntfStat_->intfUrpfDel(intf);
   if (!standbyMode_ && ipStatusFor(intf)) {
      ipStatusFor(intf)->urpfConfiguredOnAnyIntfIs(isUrpfOnAnyIntf());
   }
   doScheduleKernelAddrUpdate(intf);
}

void IpIntfSm::handleIntfStatusForDeletedIntfConfig(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   if (standbyMode_) {
      MOX_TRACE(th, 5, "Standby Veld skipping larder update for " << intf);
      return;
   }
   // The status directories are shared by the VRFs: only this VRF's entries are ours.
   if (ipIntfStatusOf(intf)) {
      ipStatusFor(intf)->ipIntfStatusDel(intf);
   }
   auto const& l3 = l3StatusFor(intf);
   if (auto s = l3 ? l3->intfStatus(intf) : nullptr; s && s->vrf() == vrfName_) {
      l3->intfStatusDel(intf);
   }
}

bool IpIntfSm::checkIpIntfCfgStatus(Mox::Ptr<Ip::IpIntfStatus const> const& status,
                                    Konet::IntfId const& intf, bool deleteStale) {
   if (!status || status->vrf() != vrfName_) return true;  // not ours to judge
   bool configured = vrfIpIntfConfig_ && vrfIpIntfConfig_->ipIntfConfig(intf);
   if (!configured && deleteStale) handleIntfStatusForDeletedIntfConfig(intf);
   return configured;
}

// ---- Status

Mox::Ptr<L3::Intf::Status> IpIntfSm::addL3IntfStatus(Konet::IntfId const& intf,
                                                     L3::VrfName const& vrf) {
   auto const& dir = l3StatusFor(intf);
   if (!dir) return nullptr;
   auto l3 = dir->intfStatus(intf);
   if (!l3) {
      l3 = dir->intfStatusIs(intf);
      MOX_TRACE(th, 5, "created l3Status " << intf << " VRF " << vrf);
   }
   l3->vrfIs(vrf);
   return l3;
}

Mox::Ptr<Ip::IpIntfStatus> IpIntfSm::addIpIntfStatus(
    Konet::IntfId const& intf, Mox::Ptr<Ip::IpIntfConfig const> const& config) {
   MOX_TRACE_FN(th, " for " << intf << " vrf " << vrfName_);
   auto const& dir = ipStatusFor(intf);
   if (!dir) return nullptr;
   auto status = dir->ipIntfStatusIs(intf);
   status->vrfIs(vrfName_);
   if (config) {
      status->maxMssIngressIs(config->maxMssIngress());
      status->maxMssEgressIs(config->maxMssEgress());
      status->noArpIs(config->noArp());
      status->directedBroadcastEnabledIs(config->directedBroadcastEnabled());
      status->attachedRoutesIs(config->attachedRoutes());
      status->unnumberedIntfIdIs(config->unnumberedIntfId());
      status->urpfIs(config->urpf());
   }
   return status;
}

// A status address is one the kernel holds and the configuration asks for: configured, and
// in the address map. Addresses the agent has yet to add appear once they are added.
void IpIntfSm::doUpdateIpStatusAddr(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   if (standbyMode_) {
      MOX_TRACE(th, 5, "Standby Veld skipping larder update for " << intf);
      return;
   }
   auto status = ipIntfStatusOf(intf);
   auto config = routedIpIntfConfig(intf);
   if (!status) return;
   if (!config || !kernelIntfDir_ || !kniRoot_) {
      doClearStatusAddrs(status);
      return;
   }
   auto dev = kernelIntfDir_->intfStatusAndDeviceName(intf).second;
   auto rec = kniRoot_->interfaceByName(dev);
   auto g = rec == KernelNetInfo::Interface() ? nullptr : addrMap_->genAddr(rec.key);
   auto held = [&](Konet::IpAddrWithMask const& a) { return g && g->addr(a); };

   auto primary = config->addrWithMask();
   status->addrWithMaskIs(held(primary) ? primary : Konet::IpAddrWithMask());
   auto virt = config->virtualAddrWithMask();
   status->virtualAddrWithMaskIs(held(virt) ? virt : Konet::IpAddrWithMask());
   for (auto const& a : status->activeSecondaryWithMaskIterator().keys()) {
      if (!config->secondaryWithMask(a) || !held(a)) status->activeSecondaryWithMaskDel(a);
   }
   for (auto const& a : config->secondaryWithMaskIterator()) {
      if (held(a)) status->activeSecondaryWithMaskIs(a);
   }
   for (auto const& a : status->activeVirtualSecondaryWithMaskIterator().keys()) {
      if (!config->virtualSecondaryWithMask(a) || !held(a)) {
         status->activeVirtualSecondaryWithMaskDel(a);
      }
   }
   for (auto const& a : config->virtualSecondaryWithMaskIterator()) {
      if (held(a)) status->activeVirtualSecondaryWithMaskIs(a);
   }
}

void IpIntfSm::doClearStatusAddrs(Mox::Ptr<Ip::IpIntfStatus> const& status) {
   if (!status || standbyMode_) return;
   MOX_TRACE_FN(th, " for " << status->intf());
   status->addrWithMaskIs(Konet::IpAddrWithMask());
   status->virtualAddrWithMaskIs(Konet::IpAddrWithMask());
   for (auto const& a : status->activeSecondaryWithMaskIterator().keys()) {
      status->activeSecondaryWithMaskDel(a);
   }
   for (auto const& a : status->activeVirtualSecondaryWithMaskIterator().keys()) {
      status->activeVirtualSecondaryWithMaskDel(a);
   }
}

bool IpIntfSm::isForwardingEnabled(Konet::IntfId const&, Mox::Ptr<Ip::IpIntfStatus const> const&,
                                   Mox::Ptr<Ip::IpIntfConfig const> const& config,
                                   bool routing) const {
   return routing && config && config->forwarding();
}

// Routing in the data plane: on where the interface forwards and its VRF routes, or where
// the configuration forces it.
void IpIntfSm::updateDpRoutingEnabled(Konet::IntfId const& intf) {
   if (standbyMode_) return;
   auto status = ipIntfStatusOf(intf);
   if (!status) return;
   auto config = routedIpIntfConfig(intf);
   bool routing = routingInfoConfig_ && routingInfoConfig_->routing();
   bool on = config && (config->forceDpRoutingEnabled() ||
                        isForwardingEnabled(intf, status, config, routing));
   MOX_TRACE_FN(th, " for " << intf << " " << on);
   status->dpRoutingEnabledIs(on);
}

// ---- uRPF

void IpIntfSm::updateUrpfStatus(Konet::IntfId const& intf, Urpf::UrpfConfig const& urpf) {
   MOX_TRACE_FN(th, " for " << intf << " " << urpf);
   if (urpfOnAllIntfStat_) urpfOnAllIntfStat_->intfUrpfIs(intf, urpf.mode);
   if (standbyMode_) return;
   if (auto status = ipIntfStatusOf(intf)) status->urpfIs(urpf);
}

void IpIntfSm::updateUrpfAndRouting(Konet::IntfId const& intf, Urpf::UrpfConfig const& urpf) {
   MOX_TRACE_FN(th, " for " << intf << " " << urpf);
   updateDpRoutingEnabled(intf);
   doScheduleKernelProcUpdate(intf);  // rp_filter follows
}

void IpIntfSm::handleUrpfAndRouting(Konet::IntfId const& intf) {
   auto config = routedIpIntfConfig(intf);
   if (!config) return;
   updateUrpfAndRouting(intf, config->urpf());
}

// The uRPF summary knows it for every interface of every VRF, kept current one interface at
// a time; without one, the routed interfaces of this VRF are asked.
bool IpIntfSm::isUrpfOnAnyIntf() const {
   if (urpfOnAllIntfStat_) return urpfOnAllIntfStat_->urpfOnAnyIntf();
   for (auto const& [intf, r] : routedIpIntfConfig_) {
      if (r->config()->urpf().enabled()) return true;
   }
   return false;
}

// ---- Handlers

void IpIntfSm::standbyModeIs(bool standbyMode) {
   if (standbyMode == standbyMode_) return;
   standbyMode_ = standbyMode;
   handleStandbyMode();
}

void IpIntfSm::handleStandbyMode() {
   MOX_TRACE_FN(th, "standby is " << standbyMode_);
   for (auto const& intf : routedIpIntfConfig_.keys()) {
      if (auto* r = routedIpIntfConfig_.find(intf)) (*r)->refresh();
   }
}

void IpIntfSm::handleKernelIntf(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   auto* filter = ipIntfConfigFilter_.find(intf);
   if (!filter) return;
   // A device that (re)enters the namespace starts from the kernel's defaults: every setting
   // is written again.
   intfIpKernelState_.erase(intf);
   (*filter)->handleIntfStatus();
   if (routedIpIntfConfig(intf)) doScheduleKernelProcUpdate(intf);
   doScheduleKernelAddrUpdate(intf);
}

void IpIntfSm::handleUpdate(KernelNetInfo::InterfaceKey key) {
   MOX_TRACE_FN(th, " for intfId " << key);
   auto rec = kniRoot_ ? kniRoot_->interface(key) : KernelNetInfo::Interface();
   if (rec == KernelNetInfo::Interface()) {
      kniIntfState_.erase(key);
      if (addrMap_) addrMap_->genAddrDel(key);
      return;
   }
   if (auto* state = kniIntfState_.find(key)) {
      (*state)->handleUpdate(rec);
      return;
   }
   // A new kernel device: whatever was written to an earlier device of the same name is gone.
   if (kniIntfStatusManager_) {
      auto intf = kniIntfStatusManager_->deviceIntf(rec.deviceName);
      if (!intf.empty()) {
         intfIpKernelState_.erase(intf);
         if (routedIpIntfConfig(intf)) doScheduleKernelProcUpdate(intf);
      }
   }
   kniIntfState_.assign(key, Mox::make<KniIntfState>(this, kniRoot_, rec));
}

void IpIntfSm::handleIpIntfStatusUpdateReq(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   if (routedIpIntfConfig(intf)) doScheduleKernelAddrUpdate(intf);
}

void IpIntfSm::handleRouting() {
   MOX_TRACE_FN(th, " vrf " << vrfName_);
   for (auto const& intf : routedIpIntfConfig_.keys())
      handleUrpfAndRouting(intf);
}

void IpIntfSm::handleUrpfSupported() {
   MOX_TRACE_FN0(th);
   for (auto const& intf : routedIpIntfConfig_.keys())
      doScheduleKernelProcUpdate(intf);
}

void IpIntfSm::handleVirtualMac(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   if (routedIpIntfConfig(intf)) doScheduleKernelProcUpdate(intf);
}

void IpIntfSm::handleTcpSendReset() {
   MOX_TRACE_FN0(th);
   scheduleGlobalKnobs();
}

void IpIntfSm::handleUdpSendUnreach() {
   MOX_TRACE_FN0(th);
   scheduleGlobalKnobs();
}

void IpIntfSm::handleSendRedirect() {
   MOX_TRACE_FN0(th);
   scheduleGlobalKnobs();
   for (auto const& intf : routedIpIntfConfig_.keys())
      doScheduleKernelProcUpdate(intf);
}

void IpIntfSm::handleIcmpSrcIpAddr() {
   MOX_TRACE_FN0(th);
   scheduleGlobalKnobs();
   for (auto const& intf : routedIpIntfConfig_.keys())
      doScheduleKernelProcUpdate(intf);
}

void IpIntfSm::handleIcmpSrcIntf() {
   icmpSrcIntf_ = ipConfig_ ? ipConfig_->icmpSrcIntf() : Konet::IntfId();
   MOX_TRACE_FN(th, " " << icmpSrcIntf_);
   handleIcmpSrcIpAddr();
}

void IpIntfSm::handleIcmpSrcIntfOnStatus(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " " << intf);
   scheduleGlobalKnobs();
}

}  // namespace Veld
