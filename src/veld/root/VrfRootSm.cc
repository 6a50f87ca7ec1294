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

Mox::Ptr<VrfRootSm> VrfRootSm::VrfRootSmIs(Inputs const& inputs, bool standbyMode) {
   auto sm = Mox::make<VrfRootSm>(inputs, standbyMode);
   sm->hasNotificationActiveIs(true);
   return sm;
}

namespace {

// What every VRF root gets from the machine's inputs; the VRF's own inputs (its views and
// routing configuration) are filled in for each.
VrfRoot::Inputs commonRootInputs(VrfRootSm::Inputs const& in) {
   return VrfRoot::Inputs{.ipConfig = in.ipConfig,
                          .systemIntfIpStatus = in.systemIntfIpStatus,
                          .localIntfIpStatus = in.localIntfIpStatus,
                          .systemL3IntfStatus = in.systemL3IntfStatus,
                          .localL3IntfStatus = in.localL3IntfStatus,
                          .routingHardwareStatus = in.routingHardwareStatus,
                          .kernelProtoConfig = in.kernelProtoConfig,
                          .allVrfStatusGlobal = in.allVrfStatusGlobal,
                          .allVrfStatusLocal = in.allVrfStatusLocal,
                          .allIntfStatusDir = in.allIntfStatusDir,
                          .allIntfStatusLocalDir = in.allIntfStatusLocalDir,
                          .ip6Config = in.ip6Config,
                          .ip6Status = in.ip6Status,
                          .systemIntfIp6Status = in.systemIntfIp6Status,
                          .localIntfIp6Status = in.localIntfIp6Status,
                          .ip6MulticastGroupsVeld = in.ip6MulticastGroupsVeld,
                          .updateIpIntfStatusVrfReq = in.updateIpIntfStatusVrfReq,
                          .updateIp6IntfStatusVrfReq = in.updateIp6IntfStatusVrfReq,
                          .updateIpIntfStatusReq = in.updateIpIntfStatusReq,
                          .updateIp6IntfStatusReq = in.updateIp6IntfStatusReq,
                          .warpState = in.warpState,
                          .entityMgr = in.entityMgr,
                          .timerWheel = in.timerWheel,
                          .urpfOnAllIntfStat = in.urpfOnAllIntfStat,
                          .urpfOnAllIntfStat6 = in.urpfOnAllIntfStat6,
                          .ip6EnableOverride = in.ip6EnableOverride,
                          .intfStatusManagerRoot = in.intfStatusManagerRoot,
                          .proxyArpVirtualMac = in.proxyArpVirtualMac,
                          .ip6OwnAddrs = in.ip6OwnAddrs};
}

}  // namespace

VrfRootSm::VrfRootSm(Inputs inputs, bool standbyMode)
    : in_(std::move(inputs)), common_(commonRootInputs(in_)), standbyMode_(standbyMode) {
   MOX_TRACE_FN(th, " standbyMode " << standbyMode_);
   moxRoutingVrfInfoConfigDir_ = Mox::make<MoxRoutingVrfInfoConfigDir>(this);
   moxRoutingVrfInfoConfigDir_->notifierIs(in_.routingVrfInfoConfigDir);
   moxRouting6VrfInfoConfigDir_ = Mox::make<MoxRouting6VrfInfoConfigDir>(this);
   moxRouting6VrfInfoConfigDir_->notifierIs(in_.routing6VrfInfoConfigDir);
   moxRouting6InfoConfig_ = Mox::make<MoxRouting6InfoConfig>(this);
   moxRouting6InfoConfig_->notifierIs(in_.routing6InfoConfig);
   moxAllVrfStatusLocal_ = Mox::make<MoxAllVrfStatusLocal>(this);
   moxAllVrfStatusLocal_->notifierIs(in_.allVrfStatusLocal);
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
      // The routing entries are the VRF's as they are now: re-created ones are followed.
      auto fixed = inputs;
      fixed.routingInfoConfig = root->inputs().routingInfoConfig;
      fixed.routing6InfoConfig = root->inputs().routing6InfoConfig;
      VrfRoot::Inputs::checkCtorParams(root->inputs(), fixed);
      if (inputs.routingInfoConfig) root->routingInfoConfigIs(inputs.routingInfoConfig);
      if (inputs.routing6InfoConfig) root->routing6InfoConfigIs(inputs.routing6InfoConfig);
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
   for (auto const& vrfName : in_.routingVrfInfoConfigDir->vrfConfigIterator().keys())
      handleRoutingVrfConfig(vrfName);
   for (auto const& vrfName : in_.routing6VrfInfoConfigDir->vrfConfigIterator().keys())
      handleRouting6VrfConfig(vrfName);
   for (auto const& vrfName : in_.allVrfStatusLocal->vrfIterator().keys())
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
   if (auto status = in_.allVrfStatusLocal->vrf(vrfName)) {
      vrfStatusLocalIs(status);
   } else if (auto reactor = vrfStatusLocal(vrfName)) {
      reactor->handleDel();
      vrfStatusLocalDel(vrfName);
   }
}

// Only makes: a root goes with its VRF's local status, never with its configuration. A
// routing entry deleted and made again while the root lives is a new entity: the root is
// pointed at it (while it is absent the root keeps the last one).
void VrfRootSm::maybeMakeOrDeleteVrfRoot(L3::VrfName const& vrfName) {
   MOX_TRACE_FN(th, vrfName);
   MOX_ASSERT(initialized());
   auto root = vrfRoot(vrfName);
   if (!root) {
      doCreateVrfRoot(vrfName);
      return;
   }
   if (auto routing = in_.routingVrfInfoConfigDir->vrfConfig(vrfName)) {
      root->routingInfoConfigIs(routing);
   }
   if (auto routing6 = in_.routing6VrfInfoConfigDir->vrfConfig(vrfName)) {
      root->routing6InfoConfigIs(routing6);
   }
}

// The default VRF is served by the agent root, never by a VRF root.
void VrfRootSm::doCreateVrfRoot(L3::VrfName const& vrfName) {
   MOX_TRACE_FN(th, vrfName);
   if (vrfName.isDefault()) return;
   auto status = in_.allVrfStatusLocal->vrf(vrfName);
   if (!status || status->state() != Ip::VrfState::active) {
      MOX_TRACE(th, 7, " not ready for vrf " << vrfName);
      return;
   }
   auto routing = in_.routingVrfInfoConfigDir->vrfConfig(vrfName);
   auto routing6 = in_.routing6VrfInfoConfigDir->vrfConfig(vrfName);
   if (!routing || !routing6) {
      MOX_TRACE(th, 7, " no routing[6]InfoConfig " << vrfName);
      return;
   }
   VrfRoot::Inputs inputs = common_;
   inputs.vrfIpIntfConfig = in_.vrfIpIntfConfigDir->vrfIpIntfConfigIs(vrfName);
   inputs.vrfIp6IntfConfig = in_.vrfIp6IntfConfigDir->vrfIpIntfConfigIs(vrfName);
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
   if (!in_.routing6InfoConfig) return;
   char const* value = in_.routing6InfoConfig->routing() ? "1" : "0";
   MOX_TRACE(th, 7,
             "ns = " << Konet::NamespaceName::defaultNamespace() << ", forwarding = " << value);
   Konet::writeProcSysIfDiffers(kIp6Forwarding, value);
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
   owner()->inputs().vrfIpIntfConfigDir->vrfIpIntfConfigDel(vrfName_);
   owner()->vrfRootDel(vrfName_);
}

}  // namespace Veld
