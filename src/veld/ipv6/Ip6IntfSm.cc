// Ip6IntfSm: construction, inputs, the per-interface configuration reactor, handlers and
// status. The backlog is in Ip6IntfSmBacklog.cc, the address work in Ip6IntfSmKernel.cc, the
// /proc settings in Ip6IntfSmProc.cc.
#include "veld/ipv6/Ip6IntfSm.h"

#include "mox/Trace.h"
#include "veld/LocalInterface.h"

namespace Veld {

namespace {
Mox::TraceHandle th("VeldIp6");
}

// One per configured interface of the VRF's view: every change of the interface's IPv6
// configuration, of its status in the namespace (forwarding model, EUI-64, device) or of its
// VRF schedules the interface; the Ip6EnableTimer retries an interface that waits for its
// EUI-64.
class Ip6IntfSm::MoxConfigIntf : public Mox::Reactor<Ip6IntfSm, Ip6::IntfConfig::NotifieeConst> {
public:
   class MoxIntfStatus : public Mox::Reactor<MoxConfigIntf, Interface::IntfStatus::NotifieeConst> {
   public:
      MoxIntfStatus(MoxConfigIntf* r, Ip6IntfSm* sm) : Reactor(r, sm) {}
      void onForwardingModel() override { owner()->handleConfig(); }
      void onEui64() override { owner()->handleAddrChange(); }
      void onDeviceName() override { owner()->handleConfig(); }
   };
   class MoxL3Config : public Mox::Reactor<MoxConfigIntf, L3::Intf::Config::NotifieeConst> {
   public:
      MoxL3Config(MoxConfigIntf* r, Ip6IntfSm* sm) : Reactor(r, sm) {}
      void onVrf() override { owner()->handleVrf(); }
   };
   class Ip6EnableTimer : public Mox::Reactor<MoxConfigIntf, Bolt::TimerWheel::NotifieeConst> {
   public:
      Ip6EnableTimer(MoxConfigIntf* r, Ip6IntfSm* sm) : Reactor(r, sm) {}
      void onTime() override { owner()->handleIp6EnableTimer(); }
   };

   MoxConfigIntf(Ip6IntfSm* sm, Mox::Ptr<Ip6::IntfConfig const> const& config)
       : Reactor(sm), intfId_(config->intf()) {
      notifierIs(config);
      attachIntfStatus();
      attachL3Config();
      if (sm->inputs().timerWheel) {
         timer_ = Mox::make<Ip6EnableTimer>(this, sm);
         timer_->notifierIs(sm->inputs().timerWheel);
      }
   }
   Konet::IntfId const& intfId() const { return intfId_; }
   Mox::Ptr<Ip6::IntfConfig const> config() const { return notifier(); }
   Mox::Ptr<Interface::IntfStatus const> intfStatus() const {
      return intfStatus_ ? intfStatus_->notifier() : nullptr;
   }

   void onEnable() override { handleConfigEnable(); }
   void onAddr(Konet::Ip6AddrWithMask const& a) override { handleConfigAddr(a); }
   void onLlAddrWithMask() override { handleAddrChange(); }
   void onAddrSource() override { handleBoth(); }
   void onAcceptDad() override { handleBoth(); }
   void onEnhancedDad() override { handleBoth(); }
   void onNsRetransmitInterval() override { handleBoth(); }
   void onNsSourceAddr() override { handleProc(); }
   void onAcceptRaDefRtr() override { handleProc(); }
   void onNoArp() override { handleAddrChange(); }
   void onUrpf() override { handleUrpf(); }
   void onForceDpRoutingEnabled() override { handleForceDpRoutingEnabled(); }
   void onL3Config() override {
      attachL3Config();
      handleVrf();
   }

   void handleConfig() {
      attachIntfStatus();
      handleBoth();
   }
   void handleConfigEnable() {
      owner()->dadFailedForgetAll(intfId_);
      handleBoth();
   }
   void handleConfigAddr(Konet::Ip6AddrWithMask const& a) {
      owner()->dadFailedForget(intfId_, a);
      handleAddrChange();
   }
   void handleVrf() { handleBoth(); }
   void handleUrpf() {
      MOX_TRACE_FN(th, "uRPF for " << intfId_ << " is " << config()->urpf().mode);
      owner()->updateUrpfStatus(intfId_, config()->urpf());
      owner()->handleUrpfAndRouting(intfId_);
   }
   void handleForceDpRoutingEnabled() {
      MOX_TRACE_FN(th, "forceDpRoutingEnabled for " << intfId_ << " is "
                                                    << config()->forceDpRoutingEnabled());
      owner()->updateDpRoutingEnabled(intfId_);
   }
   void handleAddrChange() { owner()->doScheduleKernelAddrUpdate(intfId_); }
   void handleProc() { owner()->doScheduleKernelProcUpdate(intfId_); }
   void handleBoth() {
      owner()->doScheduleKernelProcUpdate(intfId_);
      owner()->doScheduleKernelAddrUpdate(intfId_);
   }
   void handleIp6EnableTimer() {
      MOX_TRACE_FN(th, " for " << intfId_);
      if (timer_) timer_->timeMinIs(Mox::kInfinity);
      owner()->doScheduleKernelAddrUpdate(intfId_);
   }
   void startIp6EnableTimer() {
      if (!timer_ || timer_->armed()) return;
      timer_->timeMinIs(Mox::System::currentTime() + Ip6IntfSm::ip6EnableTimerDelay);
   }
   bool ip6EnableTimerArmed() const { return timer_ && timer_->armed(); }
   void stopIp6EnableTimer() {
      if (!timer_ || !timer_->armed()) return;
      MOX_TRACE(th, 7, "Stop Ip6EnableTimer");
      timer_->timeMinIs(Mox::kInfinity);
   }
   void attachIntfStatus() {
      auto const& dir = owner()->inputs().kernelIntfDir;
      auto status = dir ? dir->intfStatus(intfId_) : nullptr;
      if (status == intfStatus()) return;
      intfStatus_ = nullptr;
      if (!status) return;
      intfStatus_ = Mox::make<MoxIntfStatus>(this, owner());
      intfStatus_->notifierIs(status);
   }

private:
   void attachL3Config() {
      auto l3 = config()->l3Config();
      if (l3 == (l3Config_ ? l3Config_->notifier() : nullptr)) return;
      l3Config_ = nullptr;
      if (!l3) return;
      l3Config_ = Mox::make<MoxL3Config>(this, owner());
      l3Config_->notifierIs(l3);
   }

   Konet::IntfId const intfId_;
   Mox::Ptr<MoxIntfStatus> intfStatus_;
   Mox::Ptr<MoxL3Config> l3Config_;
   Mox::Ptr<Ip6EnableTimer> timer_;
};

// The machine's reactors on its inputs; each only forwards to a handler.
class Ip6IntfSm::Reactors {
public:
   class MoxVrfIp6IntfConfig : public Mox::Reactor<Ip6IntfSm, VrfIp6IntfConfig::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onIpIntfConfig(Konet::IntfId const& intf) override { owner()->handleConfig(intf); }
   };
   class MoxKernelIntfDir
       : public Mox::Reactor<Ip6IntfSm, Interface::DeviceIntfStatusDir::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onIntfStatus(Konet::IntfId const& intf) override { owner()->handleKernelIntf(intf); }
   };
   class MoxKniInterface
       : public Mox::Reactor<Ip6IntfSm, KernelNetInfo::Status::InterfaceTable::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onEntry(KernelNetInfo::InterfaceKey const& key) override {
         owner()->handleKernelRecord(key);
      }
   };
   class MoxKniIpState
       : public Mox::Reactor<Ip6IntfSm, KernelNetInfo::Status::IpStateTable::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onEntry(KernelNetInfo::IpKey const& key) override { owner()->handleAddr(key); }
   };
   class MoxRouting : public Mox::Reactor<Ip6IntfSm, Routing6::InfoConfig::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onRouting() override { owner()->handleRouting(); }
   };
   class MoxIp6Config : public Mox::Reactor<Ip6IntfSm, Ip6::Config::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onEnhancedDad() override { owner()->handleGlobalEnhancedDad(); }
   };
   class MoxUrpfOnAllIntfStat
       : public Mox::Reactor<Ip6IntfSm, Urpf::UrpfOnAllIntfStat::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onUrpfOnAnyIntf() override { owner()->handleUrpfOnStatusChange(); }
   };
   class MoxIp6Enable : public Mox::Reactor<Ip6IntfSm, Ip6::Ip6Enable::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onEnable(Konet::IntfId const& intf) override { owner()->handleIp6EnableOverride(intf); }
   };
   template <class Requests>
   class MoxUpdateRequests : public Mox::Reactor<Ip6IntfSm, typename Requests::NotifieeConst> {
   public:
      using Mox::Reactor<Ip6IntfSm, typename Requests::NotifieeConst>::Reactor;
      void onRequest(Konet::IntfId const& intf) override {
         this->owner()->handleIp6IntfStatusUpdateReq(intf);
      }
   };
   class MoxTimerWheel : public Mox::Reactor<Ip6IntfSm, Bolt::TimerWheel::NotifieeConst> {
   public:
      using Reactor::Reactor;
      void onTime() override { owner()->handleBacklogTimer(); }
   };

   Mox::Ptr<MoxVrfIp6IntfConfig> vrfIp6IntfConfig;
   Mox::Ptr<MoxKernelIntfDir> kernelIntfDir;
   Mox::Ptr<MoxKniInterface> kniInterface;
   Mox::Ptr<MoxKniIpState> kniIpState;
   Mox::Ptr<MoxRouting> routing;
   Mox::Ptr<MoxIp6Config> ip6Config;
   Mox::Ptr<MoxIp6Enable> ip6Enable;
   Mox::Ptr<MoxUrpfOnAllIntfStat> urpfOnAllIntfStat;
   Mox::Ptr<MoxUpdateRequests<L3::UpdateIpIntfStatusRequests>> updateRequests;
   Mox::Ptr<MoxTimerWheel> backlogTimer;
};

Ip6IntfSm::Ip6IntfSm(Inputs inputs, bool standbyMode)
    : in_(std::move(inputs)), standbyMode_(standbyMode), reactors_(std::make_unique<Reactors>()) {
   MOX_TRACE_FN(th, " vrf " << in_.vrfName);
   if (in_.addrMap && in_.addrMap->kniStatus()) {
      kniRoot_ = Mox::make<KernelNetInfo::Root>(in_.addrMap->kniStatus());
   }
   auto& r = *reactors_;
   r.backlogTimer = Mox::reactorOn<Reactors::MoxTimerWheel>(this, in_.timerWheel);
   backlogTimer_ = r.backlogTimer;
   r.vrfIp6IntfConfig = Mox::reactorOn<Reactors::MoxVrfIp6IntfConfig>(this, in_.vrfIp6IntfConfig);
   r.kernelIntfDir = Mox::reactorOn<Reactors::MoxKernelIntfDir>(this, in_.kernelIntfDir);
   if (kniRoot_) {
      r.kniInterface =
          Mox::reactorOn<Reactors::MoxKniInterface>(this, kniRoot_->status()->interface().table());
      r.kniIpState =
          Mox::reactorOn<Reactors::MoxKniIpState>(this, kniRoot_->status()->ipState().table());
   }
   if (kniRoot_) {
      auto table = kniRoot_->status()->ipState();
      for (auto it = table.begin(); it != table.end(); ++it) {
         if (it.value().key.addr.isV6()) handleAddr(it.value().key);
      }
   }
   r.routing = Mox::reactorOn<Reactors::MoxRouting>(this, in_.routingInfoConfig);
   r.ip6Config = Mox::reactorOn<Reactors::MoxIp6Config>(this, in_.ip6Config);
   r.ip6Enable = Mox::reactorOn<Reactors::MoxIp6Enable>(this, in_.ip6Enable);
   r.urpfOnAllIntfStat =
       Mox::reactorOn<Reactors::MoxUrpfOnAllIntfStat>(this, in_.urpfOnAllIntfStat);
   r.updateRequests = Mox::reactorOn<Reactors::MoxUpdateRequests<L3::UpdateIpIntfStatusRequests>>(
       this, in_.updateIp6IntfStatusReq);
   handleInitialized();
}

Ip6IntfSm::~Ip6IntfSm() {
   moxDoZombieReactors(true);
   if (in_.warpState) in_.warpState->backlogEmptyDel(warpKey());
   configIntf_.clear();
   kniIntfState_.clear();
}

Konet::NamespaceName const& Ip6IntfSm::nsName() const {
   static Konet::NamespaceName const defaultNs = Konet::NamespaceName::defaultNamespace();
   return in_.kniIntfStatusManager ? in_.kniIntfStatusManager->nsName() : defaultNs;
}

Mox::Ptr<Ip6::Input::Status> const& Ip6IntfSm::ip6StatusFor(Konet::IntfId const& intf) const {
   return isLocalInterface(intf) ? in_.localIntfIp6Status : in_.systemIntfIp6Status;
}

Mox::Ptr<L3::Intf::Input::StatusDir> const& Ip6IntfSm::l3StatusFor(
    Konet::IntfId const& intf) const {
   return isLocalInterface(intf) ? in_.localL3IntfStatus : in_.systemL3IntfStatus;
}

Mox::Ptr<Ip6::IntfStatus> Ip6IntfSm::ip6IntfStatusOf(Konet::IntfId const& intf) const {
   auto const& dir = ip6StatusFor(intf);
   auto status = dir ? dir->ip6IntfStatus(intf) : nullptr;
   return status && status->vrf() == in_.vrfName ? status : nullptr;
}

Mox::Ptr<Ip6::IntfConfig const> Ip6IntfSm::routedIp6IntfConfig(Konet::IntfId const& intf) const {
   auto const* r = configIntf_.find(intf);
   if (!r) return nullptr;
   auto status = (*r)->intfStatus();
   if (!status ||
       status->forwardingModel() != Interface::IntfForwardingModel::intfForwardingModelRouted) {
      return nullptr;
   }
   return (*r)->config();
}

bool Ip6IntfSm::isForwardingEnabled(Konet::IntfId const& intf) const {
   return routedIp6IntfConfig(intf) && in_.routingInfoConfig && in_.routingInfoConfig->routing();
}

bool Ip6IntfSm::enhancedDadEnabled(Mox::Ptr<Ip6::IntfConfig const> const& config) const {
   auto own = config ? config->enhancedDad() : Ip::TristateBool::isUnset;
   if (own != Ip::TristateBool::isUnset) return own == Ip::TristateBool::isTrue;
   return in_.ip6Config && in_.ip6Config->enhancedDad();
}

// While the agent is active, a local interface writes status only when it is a test
// interface (its name begins with "Test"); in standby only local interfaces write it.
bool Ip6IntfSm::mayWriteStatus(Konet::IntfId const& intf) const {
   bool local = isLocalInterface(intf);
   if (standbyMode_) return local;
   return !local || intf.name().find("Test") == 0;
}

bool Ip6IntfSm::dadFailed(Konet::IntfId const& intf, Konet::Ip6AddrWithMask const& a) const {
   auto const* s = dadFailed_.find(intf);
   return s && s->contains(a);
}

void Ip6IntfSm::dadFailedForget(Konet::IntfId const& intf, Konet::Ip6AddrWithMask const& a) {
   auto* s = dadFailed_.find(intf);
   if (s && s->erase(a) && s->empty()) dadFailed_.erase(intf);
}

void Ip6IntfSm::dadFailedForgetAll(Konet::IntfId const& intf) { dadFailed_.erase(intf); }

bool Ip6IntfSm::ip6EnableTimerIs(Konet::IntfId const& intf, bool start) {
   auto* r = configIntf_.find(intf);
   if (!r) return false;
   if (start) {
      (*r)->startIp6EnableTimer();
   } else {
      (*r)->stopIp6EnableTimer();
   }
   return true;
}

bool Ip6IntfSm::ip6EnableTimerArmed(Konet::IntfId const& intf) const {
   auto const* r = configIntf_.find(intf);
   return r && (*r)->ip6EnableTimerArmed();
}

// ---- Status

Mox::Ptr<Ip6::IntfStatus> Ip6IntfSm::addIp6IntfStatus(Konet::IntfId const& intf) {
   auto const& dir = ip6StatusFor(intf);
   if (!dir) return nullptr;
   auto status = dir->ip6IntfStatus(intf);
   if (!status) {
      MOX_TRACE(th, 5, " add intfStatus " << intf);
      status = dir->ip6IntfStatusIs(intf);
   }
   status->vrfIs(in_.vrfName);
   auto const& l3 = l3StatusFor(intf);
   if (l3 && !l3->intfStatus(intf)) {
      MOX_TRACE(th, 5, "created l3Status " << intf << " VRF " << in_.vrfName);
      l3->intfStatusIs(intf)->vrfIs(in_.vrfName);
   }
   return status;
}

void Ip6IntfSm::deleteIp6IntfStatus(Konet::IntfId const& intf) {
   if (!ip6IntfStatusOf(intf)) return;
   MOX_TRACE(th, 5, " Delete intfStatus " << intf);
   ip6StatusFor(intf)->ip6IntfStatusDel(intf);
   mcaddrDelAll(intf, in_.multicastGroups.ptr());
   auto const& vrfReq = in_.updateIp6IntfStatusVrfReq;
   if (vrfReq && vrfReq->requestHas(intf) && vrfReq->request(intf) == in_.vrfName) {
      vrfReq->requestDel(intf);
   }
}

void Ip6IntfSm::handleIntfStatusForDeletedIntfConfig(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   if (standbyMode_) {
      MOX_TRACE(th, 5, "Standby Veld skipping larder update for " << intf);
      return;
   }
   deleteIp6IntfStatus(intf);
}

// The status lists the addresses the kernel holds on the interface, except those that failed
// DAD, which go to the DAD-failed list (a configured global one also leaves the kernel).
void Ip6IntfSm::doUpdateIp6StatusAddr(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   auto dev =
       in_.kernelIntfDir ? in_.kernelIntfDir->intfStatusAndDeviceName(intf).second : std::string();
   auto kniIntf =
       kniRoot_ && !dev.empty() ? kniRoot_->interfaceByName(dev) : KernelNetInfo::Interface();
   if (kniIntf == KernelNetInfo::Interface()) {
      MOX_TRACE(
          th, 5,
          "doUpdateIp6StatusAddr intfKernel is NULL for intfId " << intf << ": No Status update");
      return;
   }
   auto config = routedIp6IntfConfig(intf);
   auto status = ip6IntfStatusOf(intf);
   bool write = mayWriteStatus(intf) && !standbyMode_;
   if (!status && write) {
      MOX_TRACE(th, 5, "doUpdateIp6StatusAddr ipStatus is NULL for intfId " << intf);
   }
   if (!write)
      MOX_TRACE(th, 5, "doUpdateIp6StatusAddr Standby Veld skipping larder update for " << intf);
   Ip6::AddrSet held;
   if (auto const* kernel = kernelAddrs6(kniIntf.key)) {
      for (auto const& [a, flags] : *kernel) {
         MOX_TRACE(th, 7, a << " addr6flags is 0x" << std::hex << flags << std::dec);
         if (flags & kIfaDadFailed) {
            bool configured = config && (config->addr(a) || config->llAddrWithMask() == a);
            bool ll = a.addr().isLinkLocal();
            if (configured || ll) dadFailure(intf, kniIntf, a, ll);
            continue;
         }
         held.insert(a);
      }
   }
   if (!status || !write) return;
   for (auto const& a : status->addrIterator().keys()) {
      if (!held.contains(a)) {
         MOX_TRACE(th, 5,
                   (a.addr().isLinkLocal() ? " Delete IntfStatus for linkLocal addr: "
                                           : " Delete IntfStatus for global addr: ")
                       << a);
         status->addrDel(a);
      }
   }
   for (auto const& a : held) {
      if (status->addrHas(a)) continue;
      MOX_TRACE(th, 5, "Adding address to status " << a);
      status->addrIs(a);
   }
   for (auto const& a : dadFailed_.find(intf) ? dadFailed_.find(intf)->keys()
                                              : std::vector<Konet::Ip6AddrWithMask>()) {
      status->dadFailedAddrIs(a);
   }
}

// ---- Handlers

void Ip6IntfSm::handleInitialized() {
   MOX_TRACE_FN(th, " vrf " << in_.vrfName);
   {
      auto inNs = kernelIo().enterNamespace(nsName(), "Ip6IntfSm::handleInitialized");
      int err = inNs->ok() ? kernelIo().writeProcSysIfDiffers(
                                 "/proc/sys/net/ipv6/conf/lo/disable_ipv6", "0")
                           : inNs->error();
      if (err == 0) {
         MOX_TRACE(th, 5, " enabled lo IPv6. proc file in vrf " << in_.vrfName);
      } else {
         MOX_TRACE(th, 0, " Failed to enable/disable lo IPv6. proc file in vrf " << in_.vrfName);
      }
   }
   if (in_.vrfIp6IntfConfig) {
      for (auto const& intf : in_.vrfIp6IntfConfig->ipIntfConfigIterator().keys()) {
         handleConfig(intf);
      }
   }
   handleRouting();
   handleUrpfOnStatusChange();
   // Statuses of this VRF whose configuration went while nobody watched.
   if (!standbyMode_) {
      for (auto const* dir : {&in_.systemIntfIp6Status, &in_.localIntfIp6Status}) {
         if (!*dir) continue;
         for (auto const& intf : (*dir)->ip6IntfStatusIterator().keys()) {
            if (!configIntf_.contains(intf)) handleIntfStatusForDeletedIntfConfig(intf);
         }
      }
   }
   auto const& timerWheel_ = in_.timerWheel;
   MOX_ASSERT(timerWheel_);
   if (in_.ip6Enable) {
      for (auto const& intf : in_.ip6Enable->enableIterator()) {
         handleIp6EnableOverride(intf);
      }
   }
   if (in_.warpState && ip6IntfKernelUpdateCodefList_.empty()) verifyBacklogQueue();
   initializedIs(true);
}

void Ip6IntfSm::standbyModeIs(bool standbyMode) {
   if (standbyMode == standbyMode_) return;
   standbyMode_ = standbyMode;
   handleStandbyMode();
}

void Ip6IntfSm::handleStandbyMode() {
   MOX_TRACE_FN(th, "standby is " << standbyMode_);
   for (auto const& intf : configIntf_.keys()) {
      handleConfig(intf);
   }
}

void Ip6IntfSm::handleConfig(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   auto config = in_.vrfIp6IntfConfig ? in_.vrfIp6IntfConfig->ipIntfConfig(intf) : nullptr;
   auto* r = configIntf_.find(intf);
   if (config && (!r || (*r)->config() != config)) {
      configIntf_.assign(intf, Mox::make<MoxConfigIntf>(this, config));
      updateUrpfStatus(intf, config->urpf());
   } else if (!config && r) {
      configIntf_.erase(intf);
      if (in_.urpfOnAllIntfStat) in_.urpfOnAllIntfStat->intfUrpfDel(intf);
      // The interface may still be configured in another VRF's view, which writes its status.
      auto status = ip6IntfStatusOf(intf);
      if (status) {
         MOX_TRACE(th, 5, " Deleting intfStatus");
         handleIntfStatusForDeletedIntfConfig(intf);
      } else {
         MOX_TRACE(th, 5, " Not Deleting intfStatus");
      }
   }
   doScheduleKernelProcUpdate(intf);
   doScheduleKernelAddrUpdate(intf);
}

void Ip6IntfSm::handleJointIntf(Konet::IntfId const& intf) { doScheduleKernelAddrUpdate(intf); }

void Ip6IntfSm::handleKernelIntf(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   auto* r = configIntf_.find(intf);
   if (!r && !enableOverride(intf)) return;
   if (r) (*r)->attachIntfStatus();
   // A device that (re)enters the namespace starts from the kernel's defaults.
   intfIp6KernelState_.erase(intf);
   procIpv6Set_.procIpv6Enabled.erase(intf);
   doScheduleKernelProcUpdate(intf);
   doScheduleKernelAddrUpdate(intf);
}

void Ip6IntfSm::handleKernelRecord(KernelNetInfo::InterfaceKey key) {
   auto rec = kniRoot_ ? kniRoot_->interface(key) : KernelNetInfo::Interface();
   Konet::IntfId intf;
   if (rec == KernelNetInfo::Interface()) {
      auto* gone = kniIntfState_.find(key);
      if (gone && in_.kniIntfStatusManager) {
         intf = in_.kniIntfStatusManager->deviceIntf((*gone)->deviceName());
      }
      kniIntfState_.erase(key);
      kernelAddrs6_.erase(key);
      // What was written to the device's /proc files went with it.
      for (auto const& i : intfIp6KernelState_.keys()) {
         if (intfIp6KernelState_.find(i)->ifIndex() == key.ifIndex) {
            intfIp6KernelState_.erase(i);
            procIpv6Set_.procIpv6Enabled.erase(i);
         }
      }
      if (!intf.empty()) {
         running_.erase(intf);
         intfIp6KernelState_.erase(intf);
         procIpv6Set_.procIpv6Enabled.erase(intf);
      }
      return;
   }
   intf = in_.kniIntfStatusManager ? in_.kniIntfStatusManager->deviceIntf(rec.deviceName)
                                   : Konet::IntfId();
   if (!intf.empty()) {
      // The link went down and up: DAD failures are tried again.
      auto [was, fresh] = running_.emplace(intf, rec.running());
      if (!fresh && *was != rec.running()) {
         *was = rec.running();
         if (rec.running()) dadFailedForgetAll(intf);
      }
   }
   if (auto* state = kniIntfState_.find(key)) {
      (*state)->handleUpdate(rec);
      return;
   }
   if (!intf.empty()) {
      intfIp6KernelState_.erase(intf);
      procIpv6Set_.procIpv6Enabled.erase(intf);
      if (configIntf_.contains(intf)) doScheduleKernelProcUpdate(intf);
   }
   kniIntfState_.assign(key, Mox::make<KniIntfState>(this, kniRoot_, rec));
}

// An IPv6 address of the namespace came, went or changed its flags: the address map follows
// the kernel, and a configured interface is looked at again.
void Ip6IntfSm::handleAddr(KernelNetInfo::IpKey const& ipKey) {
   if (!ipKey.addr.isV6() || !kniRoot_ || !in_.addrMap) return;
   auto rec = kniRoot_->interface(ipKey.intfKey);
   if (rec == KernelNetInfo::Interface()) return;
   Konet::Ip6AddrWithMask a(ipKey.addr.v6(), static_cast<uint8_t>(ipKey.prefixLen));
   auto const* state = kniRoot_->status()->ipState().find(ipKey);
   bool assigned = state && state->assigned;
   MOX_TRACE_FN(th, " update addr: " << a << " flags: 0x" << std::hex << (state ? state->flags : 0)
                                     << std::dec << " assigned: " << assigned);
   if (assigned) {
      kernelAddrs6_.emplace(ipKey.intfKey).first->assign(a, state->flags);
   } else if (auto* held = kernelAddrs6_.find(ipKey.intfKey)) {
      held->erase(a);
      if (held->empty()) kernelAddrs6_.erase(ipKey.intfKey);
   }
   if (!initialized()) return;
   auto intf = in_.kniIntfStatusManager ? in_.kniIntfStatusManager->deviceIntf(rec.deviceName)
                                        : Konet::IntfId();
   if (!intf.empty() && configIntf_.contains(intf)) doScheduleKernelAddrUpdate(intf);
}

void Ip6IntfSm::handleIp6EnableOverride(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf << " " << enableOverride(intf));
   doScheduleKernelAddrUpdate(intf);
}

void Ip6IntfSm::routingInfoConfigIs(Mox::Ptr<Routing6::InfoConfig const> const& config) {
   if (config == in_.routingInfoConfig) return;
   in_.routingInfoConfig = config;
   auto& held = reactors_->routing;
   if (held) held->moxDoZombieReactors(true);
   held = Mox::reactorOn<Reactors::MoxRouting>(this, config);
   handleRouting();
}

// Forwarding on each interface, and routing in the data plane, follow the VRF's IPv6 routing.
void Ip6IntfSm::handleRouting() {
   MOX_TRACE_FN(th, " vrf " << in_.vrfName);
   for (auto const& intf : configIntf_.keys()) {
      doScheduleKernelProcUpdate(intf);
      handleUrpfAndRouting(intf);
   }
}

// ---- uRPF and routing in the data plane

// The summary of where uRPF is on (shared by every VRF) follows each configured interface.
void Ip6IntfSm::updateUrpfStatus(Konet::IntfId const& intf, Urpf::UrpfConfig const& urpf) {
   MOX_TRACE_FN(th, " for " << intf << " " << urpf);
   if (in_.urpfOnAllIntfStat) in_.urpfOnAllIntfStat->intfUrpfIs(intf, urpf.mode);
   if (standbyMode_) return;
   if (auto status = ip6IntfStatusOf(intf)) status->urpfIs(urpf);
}

void Ip6IntfSm::updateUrpfAndRouting(Konet::IntfId const& intf, Urpf::UrpfConfig const& urpf) {
   MOX_TRACE_FN(th, " for " << intf << " " << urpf);
   updateDpRoutingEnabled(intf);
}

void Ip6IntfSm::handleUrpfAndRouting(Konet::IntfId const& intf) {
   auto config = routedIp6IntfConfig(intf);
   if (!config) return;
   updateUrpfAndRouting(intf, config->urpf());
}

// Routing in the data plane: on where the interface is routed and its VRF routes IPv6, or
// where the configuration forces it.
void Ip6IntfSm::updateDpRoutingEnabled(Konet::IntfId const& intf) {
   if (standbyMode_) return;
   auto status = ip6IntfStatusOf(intf);
   if (!status) return;
   auto config = routedIp6IntfConfig(intf);
   bool on = config && (config->forceDpRoutingEnabled() || isForwardingEnabled(intf));
   MOX_TRACE_FN(th, " for " << intf << " " << on);
   status->dpRoutingEnabledIs(on);
}

// The summary knows it for every interface of every VRF; without one, the configured
// interfaces of this VRF are asked.
bool Ip6IntfSm::isUrpfOnAnyIntf() const {
   if (in_.urpfOnAllIntfStat) return in_.urpfOnAllIntfStat->urpfOnAnyIntf();
   for (auto const& [intf, r] : configIntf_) {
      if (r->config()->urpf().enabled()) return true;
   }
   return false;
}

// Whether uRPF is on anywhere is published with this machine's statuses.
void Ip6IntfSm::handleUrpfOnStatusChange() {
   bool any = isUrpfOnAnyIntf();
   MOX_TRACE_FN(th, "UrpfConfiguredOnAnyIntf: " << any);
   if (standbyMode_) return;
   for (auto const* dir : {&in_.systemIntfIp6Status, &in_.localIntfIp6Status}) {
      if (*dir) (*dir)->urpfConfiguredOnAnyIntfIs(any);
   }
}

void Ip6IntfSm::handleGlobalEnhancedDad() {
   MOX_TRACE_FN0(th);
   for (auto const& intf : configIntf_.keys())
      doScheduleKernelProcUpdate(intf);
}

void Ip6IntfSm::handleIp6IntfStatusUpdateReq(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   if (configIntf_.contains(intf)) doScheduleKernelAddrUpdate(intf);
}

}  // namespace Veld
