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
   class MoxKniIpState
       : public Mox::Reactor<IpIntfSm, KernelNetInfo::Status::IpStateTable::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onEntry(KernelNetInfo::IpKey const& key) override { owner()->handleIpState(key); }
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

   Mox::Ptr<MoxVrfIpIntfConfig> vrfIpIntfConfig;
   Mox::Ptr<MoxKernelIntfDir> kernelIntfDir;
   Mox::Ptr<MoxKniInterface> kniInterface;
   Mox::Ptr<MoxKniIpState> kniIpState;
   Mox::Ptr<MoxKernelProtoConfig> kernelProtoConfig;
   Mox::Ptr<MoxRoutingInfoConfig> routingInfoConfig;
   Mox::Ptr<MoxHardwareStatus> hardwareStatus;
   Mox::Ptr<MoxIpConfig> ipConfig;
   Mox::Ptr<MoxVirtualMac> virtualMac;
   Mox::Ptr<MoxUpdateRequests<L3::UpdateIpIntfStatusRequests>> updateRequests;
   Mox::Ptr<MoxTimerWheel> backlogTimer;
};

IpIntfSm::IpIntfSm(Inputs inputs, bool standbyMode)
    : in_(std::move(inputs)), standbyMode_(standbyMode), reactors_(std::make_unique<Reactors>()) {
   MOX_TRACE_FN(th, " vrf " << in_.vrfName);
   if (in_.addrMap && in_.addrMap->kniStatus()) {
      kniRoot_ = Mox::make<KernelNetInfo::Root>(in_.addrMap->kniStatus());
   }
   auto& r = *reactors_;
   r.backlogTimer = Mox::reactorOn<Reactors::MoxTimerWheel>(this, in_.timerWheel);
   backlogTimer_ = r.backlogTimer;
   r.vrfIpIntfConfig = Mox::reactorOn<Reactors::MoxVrfIpIntfConfig>(this, in_.vrfIpIntfConfig);
   r.kernelIntfDir = Mox::reactorOn<Reactors::MoxKernelIntfDir>(this, in_.kernelIntfDir);
   if (kniRoot_) {
      r.kniInterface =
          Mox::reactorOn<Reactors::MoxKniInterface>(this, kniRoot_->status()->interface().table());
      r.kniIpState =
          Mox::reactorOn<Reactors::MoxKniIpState>(this, kniRoot_->status()->ipState().table());
   }
   r.kernelProtoConfig =
       Mox::reactorOn<Reactors::MoxKernelProtoConfig>(this, in_.kernelProtoConfig);
   r.routingInfoConfig =
       Mox::reactorOn<Reactors::MoxRoutingInfoConfig>(this, in_.routingInfoConfig);
   r.hardwareStatus = Mox::reactorOn<Reactors::MoxHardwareStatus>(this, in_.routingHardwareStatus);
   r.ipConfig = Mox::reactorOn<Reactors::MoxIpConfig>(this, in_.ipConfig);
   r.virtualMac = Mox::reactorOn<Reactors::MoxVirtualMac>(this, in_.proxyArpVirtualMac);
   r.updateRequests = Mox::reactorOn<Reactors::MoxUpdateRequests<L3::UpdateIpIntfStatusRequests>>(
       this, in_.updateIpIntfStatusReq);
   handleInitialized();
}

IpIntfSm::~IpIntfSm() {
   moxDoZombieReactors(true);
   // A machine that goes has no backlog left to wait for.
   if (in_.warpState) in_.warpState->backlogEmptyDel(warpKey());
   routedIpIntfConfig_.clear();
   ipIntfConfigFilter_.clear();
   kniIntfState_.clear();
}

Konet::NamespaceName const& IpIntfSm::nsName() const {
   static Konet::NamespaceName const defaultNs = Konet::NamespaceName::defaultNamespace();
   return in_.kniIntfStatusManager ? in_.kniIntfStatusManager->nsName() : defaultNs;
}

Mox::Ptr<Ip::Input::Status> const& IpIntfSm::ipStatusFor(Konet::IntfId const& intf) const {
   return isLocalInterface(intf) ? in_.localIntfIpStatus : in_.systemIntfIpStatus;
}

Mox::Ptr<L3::Intf::Input::StatusDir> const& IpIntfSm::l3StatusFor(Konet::IntfId const& intf) const {
   return isLocalInterface(intf) ? in_.localL3IntfStatus : in_.systemL3IntfStatus;
}

Mox::Ptr<Ip::IpIntfStatus> IpIntfSm::ipIntfStatusOf(Konet::IntfId const& intf) const {
   auto const& dir = ipStatusFor(intf);
   auto status = dir ? dir->ipIntfStatus(intf) : nullptr;
   return status && status->vrf() == in_.vrfName ? status : nullptr;
}

void IpIntfSm::handleInitialized() {
   MOX_TRACE_FN(th, " vrf " << in_.vrfName);
   if (initialized()) return;
   MOX_ASSERT(in_.timerWheel);
   if (in_.vrfIpIntfConfig) {
      for (auto const& intf : in_.vrfIpIntfConfig->ipIntfConfigIterator().keys()) {
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
   removeStaleStatuses();
   icmpSrcIntf_ = in_.ipConfig ? in_.ipConfig->icmpSrcIntf() : Konet::IntfId();
   scheduleGlobalKnobs();
   initializedSet(true);
   if (routedIpIntfConfig_.empty()) verifyBacklogQueue();
}

// ---- Configuration

L3::VrfName IpIntfSm::configVrf(Mox::Ptr<Ip::IpIntfConfig const> const& config) {
   auto const& l3 = config ? config->l3Config() : nullptr;
   if (!l3 || l3->vrf().name().empty()) return L3::VrfName::defaultVrf();
   return l3->vrf();
}

void IpIntfSm::handleIpIntfConfig(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf << " vrf " << in_.vrfName);
   auto config = in_.vrfIpIntfConfig ? in_.vrfIpIntfConfig->ipIntfConfig(intf) : nullptr;
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
   if (in_.urpfOnAllIntfStat) in_.urpfOnAllIntfStat->intfUrpfDel(intf);
   urpfOnAnyIntfPublish(intf);
   doScheduleKernelAddrUpdate(intf);
}

void IpIntfSm::handleIntfStatusForDeletedIntfConfig(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   if (standbyMode_) {
      MOX_TRACE(th, 5, "Standby Veld skipping larder update for " << intf);
      return;
   }
   // The status directories are shared by the VRFs: only this VRF's entries are ours. The
   // L3 status is L3IntfStatusVrfSm's: it goes with the last family's status.
   if (ipIntfStatusOf(intf)) {
      ipStatusFor(intf)->ipIntfStatusDel(intf);
   }
   auto const& vrfReq = in_.updateIpIntfStatusVrfReq;
   if (vrfReq && vrfReq->requestHas(intf) && vrfReq->request(intf) == in_.vrfName) {
      vrfReq->requestDel(intf);
   }
}

bool IpIntfSm::checkIpIntfCfgStatus(Mox::Ptr<Ip::IpIntfStatus const> const& status,
                                    Konet::IntfId const& intf, bool deleteStale) {
   if (!status || status->vrf() != in_.vrfName) return true;  // not ours to judge
   // A configured interface that is not routed here has no status here either.
   bool routed = routedIpIntfConfig(intf) != nullptr;
   if (!routed && deleteStale) handleIntfStatusForDeletedIntfConfig(intf);
   return routed;
}

// Statuses of this VRF with no routed configuration behind them: left by configuration that
// went while nobody watched (before the machine was made) or while status writes were
// skipped (standby).
void IpIntfSm::removeStaleStatuses() {
   MOX_TRACE_FN(th, " vrf " << in_.vrfName);
   for (auto const* dir : {&in_.systemIntfIpStatus, &in_.localIntfIpStatus}) {
      if (!*dir) continue;
      for (auto const& intf : (*dir)->ipIntfStatusIterator().keys()) {
         checkIpIntfCfgStatus((*dir)->ipIntfStatus(intf), intf, true);
      }
   }
   for (auto const* dir : {&in_.systemL3IntfStatus, &in_.localL3IntfStatus}) {
      if (!*dir) continue;
      for (auto const& intf : (*dir)->intfStatusIterator().keys()) {
         auto s = (*dir)->intfStatus(intf);
         if (s && s->vrf() == in_.vrfName && !routedIpIntfConfig(intf)) {
            handleIntfStatusForDeletedIntfConfig(intf);
         }
      }
   }
}

// ---- Status

void IpIntfSm::intfStatusEnsure(Konet::IntfId const& intf,
                                Mox::Ptr<Ip::IpIntfConfig const> const& config) {
   if (standbyMode_ || ipIntfStatusOf(intf)) return;
   MOX_TRACE(th, 5, " Creating ipIntfStatus for " << intf);
   addL3IntfStatus(intf, configVrf(config));
   addIpIntfStatus(intf, config);
   // The L3 status moves to this VRF once the IPv6 side agrees (L3IntfStatusVrfSm).
   if (in_.updateIpIntfStatusVrfReq) in_.updateIpIntfStatusVrfReq->requestIs(intf, in_.vrfName);
   // Addresses the kernel already holds (after a restart) are in the status from the start,
   // so that whoever follows it (a borrower of this interface's address) sees no gap.
   doUpdateIpStatusAddr(intf);
}

void IpIntfSm::urpfOnAnyIntfPublish(Konet::IntfId const& intf) {
   if (standbyMode_ || !ipStatusFor(intf)) return;
   ipStatusFor(intf)->urpfConfiguredOnAnyIntfIs(isUrpfOnAnyIntf());
}

Mox::Ptr<L3::Intf::Status> IpIntfSm::addL3IntfStatus(Konet::IntfId const& intf,
                                                     L3::VrfName const& vrf) {
   auto const& dir = l3StatusFor(intf);
   if (!dir) return nullptr;
   auto l3 = dir->intfStatus(intf);
   if (!l3) {
      l3 = dir->intfStatusIs(intf);
      MOX_TRACE(th, 5, "created l3Status " << intf << " VRF " << vrf);
      l3->vrfIs(vrf);
   }
   return l3;
}

Mox::Ptr<Ip::IpIntfStatus> IpIntfSm::addIpIntfStatus(
    Konet::IntfId const& intf, Mox::Ptr<Ip::IpIntfConfig const> const& config) {
   MOX_TRACE_FN(th, " for " << intf << " vrf " << in_.vrfName);
   auto const& dir = ipStatusFor(intf);
   if (!dir) return nullptr;
   auto status = dir->ipIntfStatusIs(intf);
   status->vrfIs(in_.vrfName);
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
   if (!config || !in_.kernelIntfDir || !kniRoot_) {
      doClearStatusAddrs(status);
      return;
   }
   auto dev = in_.kernelIntfDir->intfStatusAndDeviceName(intf).second;
   auto rec = kniRoot_->interfaceByName(dev);
   auto g = rec == KernelNetInfo::Interface() ? nullptr : in_.addrMap->genAddr(rec.key);
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
   bool routing = in_.routingInfoConfig && in_.routingInfoConfig->routing();
   bool on = config && (config->forceDpRoutingEnabled() ||
                        isForwardingEnabled(intf, status, config, routing));
   MOX_TRACE_FN(th, " for " << intf << " " << on);
   status->dpRoutingEnabledIs(on);
}

// ---- uRPF

void IpIntfSm::updateUrpfStatus(Konet::IntfId const& intf, Urpf::UrpfConfig const& urpf) {
   MOX_TRACE_FN(th, " for " << intf << " " << urpf);
   if (in_.urpfOnAllIntfStat) in_.urpfOnAllIntfStat->intfUrpfIs(intf, urpf.mode);
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
   if (in_.urpfOnAllIntfStat) return in_.urpfOnAllIntfStat->urpfOnAnyIntf();
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
   // Deletions skipped in standby are done now.
   if (!standbyMode_) removeStaleStatuses();
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
      // The device went, and its addresses with it: the status holds none of them now.
      auto* gone = kniIntfState_.find(key);
      if (gone && in_.kniIntfStatusManager) {
         auto intf = in_.kniIntfStatusManager->deviceIntf((*gone)->deviceName());
         if (!intf.empty()) doClearStatusAddrs(ipIntfStatusOf(intf));
      }
      kniIntfState_.erase(key);
      if (in_.addrMap) in_.addrMap->genAddrDel(key);
      // The device went (deleted, or moved to another namespace), and with it what was
      // written to its /proc files: a device that comes back starts from the kernel's
      // defaults.
      for (auto const& intf : intfIpKernelState_.keys()) {
         if (intfIpKernelState_.find(intf)->ifIndex() == key.ifIndex) {
            intfIpKernelState_.erase(intf);
         }
      }
      procWrittenSinceLink_.erase(key.ifIndex);
      return;
   }
   if (auto* state = kniIntfState_.find(key)) {
      (*state)->handleUpdate(rec);
      return;
   }
   // A new kernel device: whatever was written to an earlier device of the same name is gone.
   if (in_.kniIntfStatusManager) {
      auto intf = in_.kniIntfStatusManager->deviceIntf(rec.deviceName);
      if (!intf.empty()) {
         intfIpKernelState_.erase(intf);
         if (routedIpIntfConfig(intf)) doScheduleKernelProcUpdate(intf);
      }
   }
   kniIntfState_.assign(key, Mox::make<KniIntfState>(this, kniRoot_, rec));
}

// An IPv4 address of the namespace came, went or changed its flags. The address map follows
// the kernel; on a routed interface, a kernel that disagrees with the configuration is
// repaired. The machine's own adds and deletes are in the map already when their events
// come, and agree with the configuration: they schedule nothing.
void IpIntfSm::handleIpState(KernelNetInfo::IpKey const& key) {
   if (!key.addr.isV4() || !kniRoot_ || !in_.addrMap) return;
   auto rec = kniRoot_->interface(key.intfKey);
   if (rec == KernelNetInfo::Interface()) return;  // the device went: handleUpdate drops it all
   Konet::IpAddrWithMask a(key.addr.v4(), static_cast<uint8_t>(key.prefixLen));
   auto const* state = kniRoot_->status()->ipState().find(key);
   bool held = state && state->assigned;
   auto g = in_.addrMap->genAddr(key.intfKey);
   if (held && !(g && g->addr(a))) in_.addrMap->addAddr(key.intfKey, a);
   if (!held && g && g->addr(a)) in_.addrMap->delAddr(key.intfKey, a);

   auto intf = in_.kniIntfStatusManager ? in_.kniIntfStatusManager->deviceIntf(rec.deviceName)
                                        : Konet::IntfId();
   auto config = intf.empty() ? nullptr : routedIpIntfConfig(intf);
   if (!config) return;  // unrouted interfaces are left as they are
   bool wanted = wantedAddrs(config, rec.running()).contains(a);
   bool demoted = held && wanted && a == config->addrWithMask() &&
                  (state->flags & KernelNetInfo::kIfaSecondary);
   if (held == wanted && !demoted) return;
   MOX_TRACE_FN(th, " for " << intf << " " << a << (held ? " added" : " deleted")
                            << (demoted ? " as a secondary" : "") << " behind our back");
   scheduleDriftRepair(intf);
}

void IpIntfSm::handleIpIntfStatusUpdateReq(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   if (routedIpIntfConfig(intf)) doScheduleKernelAddrUpdate(intf);
}

void IpIntfSm::routingInfoConfigIs(Mox::Ptr<Routing::InfoConfig const> const& config) {
   MOX_TRACE_FN(th, " vrf " << in_.vrfName);
   if (config == in_.routingInfoConfig) return;
   in_.routingInfoConfig = config;
   auto& held = reactors_->routingInfoConfig;
   if (held) held->moxDoZombieReactors(true);
   held = Mox::reactorOn<Reactors::MoxRoutingInfoConfig>(this, config);
   handleRouting();
}

void IpIntfSm::handleRouting() {
   MOX_TRACE_FN(th, " vrf " << in_.vrfName);
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
   icmpSrcIntf_ = in_.ipConfig ? in_.ipConfig->icmpSrcIntf() : Konet::IntfId();
   MOX_TRACE_FN(th, " " << icmpSrcIntf_);
   handleIcmpSrcIpAddr();
}

void IpIntfSm::handleIcmpSrcIntfOnStatus(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " " << intf);
   scheduleGlobalKnobs();
}

}  // namespace Veld
