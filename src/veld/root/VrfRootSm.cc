#include "veld/root/VrfRootSm.h"

#include "linux/ProcSys.h"
#include "mox/Trace.h"

namespace Veld {

static Mox::TraceHandle th("VeldVrfRootSm");

static constexpr char kIp6Forwarding[] = "/proc/sys/net/ipv6/conf/all/forwarding";

class VrfRootSm::MoxRoutingVrfInfoConfigDir
    : public Mox::Reactor<VrfRootSm, Routing::VrfInfoConfigDir::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onVrfConfig(L3::VrfName const& vrfName) override {
      owner()->handleRoutingVrfConfig(vrfName);
   }
   void onVrfConfig() override { owner()->handleRoutingVrfConfig(); }
};

class VrfRootSm::MoxRouting6VrfInfoConfigDir
    : public Mox::Reactor<VrfRootSm, Routing6::VrfInfoConfigDir::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onVrfConfig(L3::VrfName const& vrfName) override {
      owner()->handleRouting6VrfConfig(vrfName);
   }
   void onVrfConfig() override { owner()->handleRouting6VrfConfig(); }
};

class VrfRootSm::MoxRouting6InfoConfig
    : public Mox::Reactor<VrfRootSm, Routing6::InfoConfig::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onRouting() override { owner()->handleIp6Routing(); }
};

class VrfRootSm::MoxAllVrfStatusLocal
    : public Mox::Reactor<VrfRootSm, Ip::AllVrfStatusLocal::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onVrf(L3::VrfName const& vrfName) override { owner()->handleVrfStatusLocal(vrfName); }
   void onVrf() override {
      for (auto const& vrfName : notifierRaw()->vrfIterator().keys())
         owner()->handleVrfStatusLocal(vrfName);
   }
};

Mox::Ptr<VrfRootSm> VrfRootSm::VrfRootSmIs(
    Mox::Ptr<Routing::VrfInfoConfigDir const> const& routingVrfInfoConfigDir,
    Mox::Ptr<Routing::Hardware::Status const> const& routingHardwareStatus,
    Mox::Ptr<Routing::KernelProtoConfig const> const& kernelProtoConfig,
    Mox::Ptr<Ip::AllVrfStatusGlobal> const& allVrfStatusGlobal,
    Mox::Ptr<Ip::AllVrfStatusLocal const> const& allVrfStatusLocal,
    Mox::Ptr<Ip::Config> const& ipConfig, Mox::Ptr<Ip::Input::Status> const& systemIntfIpStatus,
    Mox::Ptr<Ip::Input::Status> const& localIntfIpStatus,
    Mox::Ptr<L3::Intf::Input::StatusDir> const& systemL3IntfStatus,
    Mox::Ptr<L3::Intf::Input::StatusDir> const& localL3IntfStatus,
    Mox::Ptr<Interface::AllIntfStatusDir> const& allIntfStatusDir,
    Mox::Ptr<Interface::AllIntfStatusLocalDir> const& allIntfStatusLocalDir, bool standbyMode,
    Mox::Ptr<Ip6::Config> const& ip6Config, Mox::Ptr<Ip6::Status> const& ip6Status,
    Mox::Ptr<Routing6::InfoConfig const> const& routing6InfoConfig,
    Mox::Ptr<Routing6::VrfInfoConfigDir const> const& routing6VrfInfoConfigDir,
    Mox::Ptr<Ip6::Input::Status> const& systemIntfIp6Status,
    Mox::Ptr<Ip6::Input::Status> const& localIntfIp6Status,
    Mox::Ptr<Ip6::MulticastGroupsForApplications> const& ip6MulticastGroupsVeld,
    Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests> const& updateIpIntfStatusVrfReq,
    Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests> const& updateIp6IntfStatusVrfReq,
    Mox::Ptr<L3::UpdateIpIntfStatusRequests> const& updateIpIntfStatusReq,
    Mox::Ptr<L3::UpdateIpIntfStatusRequests> const& updateIp6IntfStatusReq,
    Mox::Ptr<WarpState> const& warpState, Mox::Ptr<Larder::EntityManager> const& entityMgr,
    Mox::Ptr<Bolt::TimerWheel const> const& timerWheel,
    Mox::Ptr<VrfIpIntfConfigDir> const& vrfIpIntfConfigDir,
    Mox::Ptr<VrfIp6IntfConfigDir> const& vrfIp6IntfConfigDir,
    Mox::Ptr<Urpf::UrpfOnAllIntfStat> const& urpfOnAllIntfStat,
    Mox::Ptr<Urpf::UrpfOnAllIntfStat> const& urpfOnAllIntfStat6,
    Mox::Ptr<Ip6::Ip6Enable const> const& ip6EnableOverride,
    Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> const& intfStatusManagerRoot,
    Mox::Ptr<ProxyArp::VirtualMacStatus const> const& proxyArpVirtualMac) {
   VrfRoot::Inputs common;
   common.ipConfig = ipConfig;
   common.systemIntfIpStatus = systemIntfIpStatus;
   common.localIntfIpStatus = localIntfIpStatus;
   common.systemL3IntfStatus = systemL3IntfStatus;
   common.localL3IntfStatus = localL3IntfStatus;
   common.routingHardwareStatus = routingHardwareStatus;
   common.kernelProtoConfig = kernelProtoConfig;
   common.allVrfStatusGlobal = allVrfStatusGlobal;
   common.allVrfStatusLocal = allVrfStatusLocal;
   common.allIntfStatusDir = allIntfStatusDir;
   common.allIntfStatusLocalDir = allIntfStatusLocalDir;
   common.ip6Config = ip6Config;
   common.ip6Status = ip6Status;
   common.systemIntfIp6Status = systemIntfIp6Status;
   common.localIntfIp6Status = localIntfIp6Status;
   common.ip6MulticastGroupsVeld = ip6MulticastGroupsVeld;
   common.updateIpIntfStatusVrfReq = updateIpIntfStatusVrfReq;
   common.updateIp6IntfStatusVrfReq = updateIp6IntfStatusVrfReq;
   common.updateIpIntfStatusReq = updateIpIntfStatusReq;
   common.updateIp6IntfStatusReq = updateIp6IntfStatusReq;
   common.warpState = warpState;
   common.entityMgr = entityMgr;
   common.timerWheel = timerWheel;
   common.urpfOnAllIntfStat = urpfOnAllIntfStat;
   common.urpfOnAllIntfStat6 = urpfOnAllIntfStat6;
   common.ip6EnableOverride = ip6EnableOverride;
   common.intfStatusManagerRoot = intfStatusManagerRoot;
   common.proxyArpVirtualMac = proxyArpVirtualMac;
   auto sm = Mox::make<VrfRootSm>(routingVrfInfoConfigDir, routing6VrfInfoConfigDir,
                                  routing6InfoConfig, vrfIpIntfConfigDir, vrfIp6IntfConfigDir,
                                  std::move(common), standbyMode);
   sm->hasNotificationActiveIs(true);
   return sm;
}

VrfRootSm::VrfRootSm(Mox::Ptr<Routing::VrfInfoConfigDir const> routingVrfInfoConfigDir,
                     Mox::Ptr<Routing6::VrfInfoConfigDir const> routing6VrfInfoConfigDir,
                     Mox::Ptr<Routing6::InfoConfig const> routing6InfoConfig,
                     Mox::Ptr<VrfIpIntfConfigDir> vrfIpIntfConfigDir,
                     Mox::Ptr<VrfIp6IntfConfigDir> vrfIp6IntfConfigDir, VrfRoot::Inputs common,
                     bool standbyMode)
    : routingVrfInfoConfigDir_(std::move(routingVrfInfoConfigDir)),
      routing6VrfInfoConfigDir_(std::move(routing6VrfInfoConfigDir)),
      routing6InfoConfig_(std::move(routing6InfoConfig)),
      vrfIpIntfConfigDir_(std::move(vrfIpIntfConfigDir)),
      vrfIp6IntfConfigDir_(std::move(vrfIp6IntfConfigDir)),
      common_(std::move(common)),
      standbyMode_(standbyMode) {
   MOX_TRACE_FN(th, " standbyMode " << standbyMode_);
   moxRoutingVrfInfoConfigDir_ = Mox::make<MoxRoutingVrfInfoConfigDir>(this);
   moxRoutingVrfInfoConfigDir_->notifierIs(routingVrfInfoConfigDir_);
   moxRouting6VrfInfoConfigDir_ = Mox::make<MoxRouting6VrfInfoConfigDir>(this);
   moxRouting6VrfInfoConfigDir_->notifierIs(routing6VrfInfoConfigDir_);
   moxRouting6InfoConfig_ = Mox::make<MoxRouting6InfoConfig>(this);
   moxRouting6InfoConfig_->notifierIs(routing6InfoConfig_);
   moxAllVrfStatusLocal_ = Mox::make<MoxAllVrfStatusLocal>(this);
   moxAllVrfStatusLocal_->notifierIs(common_.allVrfStatusLocal);
   handleInitialized();
}

VrfRootSm::~VrfRootSm() {
   moxDoZombieReactors(true);
   vrfRootDelAll();
}

void VrfRootSm::standbyModeIs(bool standbyMode) {
   MOX_TRACE_FN(th, standbyMode);
   if (standbyMode == standbyMode_) return;
   standbyMode_ = standbyMode;
   handleStandbyMode();
}

Mox::Ptr<VrfRoot> VrfRootSm::vrfRoot(L3::VrfName const& vrfName) const {
   return Mox::valueOr(vrfRoot_, vrfName);
}

Mox::Ptr<VrfRoot> VrfRootSm::vrfRootIs(L3::VrfName const& vrfName, VrfRoot::Inputs const& inputs,
                                       bool standbyMode) {
   MOX_TRACE_FN(th, vrfName);
   if (auto root = vrfRoot(vrfName)) {
      VrfRoot::checkCtorParams(root->inputs(), inputs);
      root->standbyModeIs(standbyMode);
      return root;
   }
   auto root = Mox::make<VrfRoot>(vrfName, inputs, standbyMode);
   root->hasNotificationActiveIs(true);
   vrfRoot_.emplace(vrfName, root);
   return root;
}

void VrfRootSm::vrfRootDel(L3::VrfName const& vrfName) {
   MOX_TRACE_FN(th, vrfName);
   auto root = vrfRoot(vrfName);
   if (!root) return;
   vrfRoot_.erase(vrfName);
   root->moxMarkedForDeletionIs(true);
   root->handleDelete();
   root->moxDoZombieReactors(true);
}

void VrfRootSm::vrfRootDelAll() {
   MOX_TRACE_FN0(th);
   for (auto const& vrfName : vrfRoot_.keys())
      vrfRootDel(vrfName);
}

Mox::Ptr<VrfRootSm::MoxVrfStatusLocal> VrfRootSm::vrfStatusLocal(L3::VrfName const& vrfName) const {
   return Mox::valueOr(vrfStatusLocal_, vrfName);
}

// A VRF whose status is already active when its reactor appears is made at once.
Mox::Ptr<VrfRootSm::MoxVrfStatusLocal> VrfRootSm::vrfStatusLocalIs(
    Mox::Ptr<Ip::VrfStatusLocal const> const& vrfStatusLocal) {
   Mox::requireNonNull(vrfStatusLocal, "_vrfStatusLocal", "Veld::VrfRootSm::vrfStatusLocal");
   MOX_TRACE_FN(th, vrfStatusLocal->name());
   if (auto reactor = this->vrfStatusLocal(vrfStatusLocal->name())) {
      reactor->notifierIs(vrfStatusLocal);
      return reactor;
   }
   auto reactor = Mox::make<MoxVrfStatusLocal>(this, vrfStatusLocal);
   vrfStatusLocal_.emplace(vrfStatusLocal->name(), reactor);
   reactor->handleStatusLocalState();
   return reactor;
}

void VrfRootSm::vrfStatusLocalDel(L3::VrfName const& vrfName) {
   MOX_TRACE_FN(th, vrfName);
   auto reactor = vrfStatusLocal(vrfName);
   if (!reactor) return;
   vrfStatusLocal_.erase(vrfName);
   reactor->moxDoZombieReactors(true);
}

void VrfRootSm::vrfStatusLocalDelAll() {
   MOX_TRACE_FN0(th);
   for (auto const& vrfName : vrfStatusLocal_.keys())
      vrfStatusLocalDel(vrfName);
}

// The initial pass goes through the handlers that later notifications use, and they require
// an initialised machine: the flag is set before the pass.
void VrfRootSm::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   initializedSet(true);
   handleIp6Routing();
   for (auto const& vrfName : routingVrfInfoConfigDir_->vrfConfigIterator().keys())
      handleRoutingVrfConfig(vrfName);
   for (auto const& vrfName : routing6VrfInfoConfigDir_->vrfConfigIterator().keys())
      handleRouting6VrfConfig(vrfName);
   for (auto const& vrfName : common_.allVrfStatusLocal->vrfIterator().keys())
      handleVrfStatusLocal(vrfName);
}

void VrfRootSm::handleRoutingVrfConfig(L3::VrfName const& vrfName) {
   MOX_TRACE_FN(th, vrfName);
   maybeMakeOrDeleteVrfRoot(vrfName);
}

// These directories notify per VRF only.
void VrfRootSm::handleRoutingVrfConfig() {
   MOX_TRACE_FN0(th);
   MOX_ASSERT(false);
}

void VrfRootSm::handleRouting6VrfConfig(L3::VrfName const& vrfName) {
   MOX_TRACE_FN(th, vrfName);
   maybeMakeOrDeleteVrfRoot(vrfName);
}

void VrfRootSm::handleRouting6VrfConfig() {
   MOX_TRACE_FN0(th);
   MOX_ASSERT(false);
}

// A VRF's local status entry appeared (watch it) or went (its root and IPv4 view go).
void VrfRootSm::handleVrfStatusLocal(L3::VrfName const& vrfName) {
   MOX_TRACE_FN(th, vrfName);
   if (auto status = common_.allVrfStatusLocal->vrf(vrfName)) {
      vrfStatusLocalIs(status);
   } else if (auto reactor = vrfStatusLocal(vrfName)) {
      reactor->handleDel();
      vrfStatusLocalDel(vrfName);
   }
}

// Only makes: a root goes with its VRF's local status, never with its configuration.
void VrfRootSm::maybeMakeOrDeleteVrfRoot(L3::VrfName const& vrfName) {
   MOX_TRACE_FN(th, vrfName);
   MOX_ASSERT(initialized());
   if (!vrfRoot(vrfName)) doCreateVrfRoot(vrfName);
}

// The default VRF is served by the agent root, never by a VRF root.
void VrfRootSm::doCreateVrfRoot(L3::VrfName const& vrfName) {
   MOX_TRACE_FN(th, vrfName);
   if (vrfName.isDefault()) return;
   auto status = common_.allVrfStatusLocal->vrf(vrfName);
   if (!status || status->state() != Ip::VrfState::active) {
      MOX_TRACE(th, 7, " not ready for vrf " << vrfName);
      return;
   }
   auto routing = routingVrfInfoConfigDir_->vrfConfig(vrfName);
   auto routing6 = routing6VrfInfoConfigDir_->vrfConfig(vrfName);
   if (!routing || !routing6) {
      MOX_TRACE(th, 7, " no routing[6]InfoConfig " << vrfName);
      return;
   }
   VrfRoot::Inputs inputs = common_;
   inputs.vrfIpIntfConfig = vrfIpIntfConfigDir_->vrfIpIntfConfigIs(vrfName);
   inputs.vrfIp6IntfConfig = vrfIp6IntfConfigDir_->vrfIpIntfConfigIs(vrfName);
   inputs.routingInfoConfig = routing;
   inputs.routing6InfoConfig = routing6;
   vrfRootIs(vrfName, inputs, standbyMode_);
}

void VrfRootSm::handleStandbyMode() {
   MOX_TRACE_FN(th, " standbyMode " << standbyMode_);
   for (auto const& [vrfName, root] : vrfRoot_)
      root->standbyModeIs(standbyMode_);
}

// The default namespace's IPv6 forwarding follows the default VRF's IPv6 routing.
void VrfRootSm::handleIp6Routing() {
   MOX_TRACE_FN0(th);
   if (!routing6InfoConfig_) return;
   char const* value = routing6InfoConfig_->routing() ? "1" : "0";
   MOX_TRACE(th, 7,
             "ns = " << Konet::NamespaceName::defaultNamespace() << ", forwarding = " << value);
   Konet::writeProcSys(kIp6Forwarding, value);
}

// ---- one VRF's local status

VrfRootSm::MoxVrfStatusLocal::MoxVrfStatusLocal(VrfRootSm* sm,
                                                Mox::Ptr<Ip::VrfStatusLocal const> const& status)
    : Reactor(sm), vrfName_(status->name()) {
   MOX_TRACE_FN(th, vrfName_);
   notifierIs(status);
}

// Reaching the active state makes the VRF's root if its configuration is there.
void VrfRootSm::MoxVrfStatusLocal::handleStatusLocalState() {
   MOX_TRACE_FN(th, vrfName_);
   auto status = notifier();
   if (!status || status->state() != Ip::VrfState::active) return;
   if (!owner()->vrfRoot(vrfName_)) owner()->doCreateVrfRoot(vrfName_);
}

void VrfRootSm::MoxVrfStatusLocal::handleDel() {
   MOX_TRACE_FN(th, vrfName_);
   owner()->vrfIpIntfConfigDir()->vrfIpIntfConfigDel(vrfName_);
   owner()->vrfRootDel(vrfName_);
}

}  // namespace Veld
