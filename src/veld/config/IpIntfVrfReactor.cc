#include "veld/config/IpIntfVrfReactor.h"

#include "mox/Trace.h"

namespace Veld {

static Mox::TraceHandle th("VeldIpIntfVrf");

class IpIntfVrfReactor::MoxIpConfig
    : public Mox::Reactor<IpIntfVrfReactor, Ip::Config::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onIpIntfConfig(Konet::IntfId const& intf) override { owner()->handleIpIntfConfig(intf); }
};

class IpIntfVrfReactor::MoxIpIntfConfigReactor::MoxL3Config
    : public Mox::Reactor<MoxIpIntfConfigReactor, L3::Intf::Config::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onVrf() override { owner()->handleIpIntfConfigVrf(); }
};

class IpIntfVrfReactor::MoxIpIntfConfigReactor::MoxAllVrfStatusLocal
    : public Mox::Reactor<MoxIpIntfConfigReactor, Ip::AllVrfStatusLocal::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onVrf(L3::VrfName const& vrfName) override { owner()->handleVrfStatusCreation(vrfName); }
   void onVrf() override { owner()->handleVrfStatusCreation(); }
};

class IpIntfVrfReactor::MoxIpIntfConfigReactor::MoxVrfStatusLocal
    : public Mox::Reactor<MoxIpIntfConfigReactor, Ip::VrfStatusLocal::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onState() override { owner()->handleVrfState(); }
   void onNetNsName() override { owner()->handleVrfState(); }
};

// ---- the machine

IpIntfVrfReactor::IpIntfVrfReactor(
    Mox::Ptr<Ip::Config const> ipConfig, Mox::Ptr<Ip::AllVrfStatusLocal const> allVrfStatusLocal,
    Mox::Ptr<Interface::AllIntfNamespaceConfigDir> allIntfNamespaceConfigDir)
    : ipConfig_(std::move(ipConfig)),
      allVrfStatusLocal_(std::move(allVrfStatusLocal)),
      allIntfNamespaceConfigDir_(std::move(allIntfNamespaceConfigDir)) {
   MOX_TRACE_FN0(th);
   moxIpConfig_ = Mox::make<MoxIpConfig>(this);
   moxIpConfig_->notifierIs(ipConfig_);
   handleInitialized();
}

IpIntfVrfReactor::~IpIntfVrfReactor() { moxDoZombieReactors(true); }

Mox::Ptr<IpIntfVrfReactor> IpIntfVrfReactorIs(
    Mox::Ptr<Ip::Config const> ipConfig, Mox::Ptr<Ip::AllVrfStatusLocal const> allVrfStatusLocal,
    Mox::Ptr<Interface::AllIntfNamespaceConfigDir> allIntfNamespaceConfigDir) {
   return Mox::make<IpIntfVrfReactor>(std::move(ipConfig), std::move(allVrfStatusLocal),
                                      std::move(allIntfNamespaceConfigDir));
}

Mox::Ptr<IpIntfVrfReactor::MoxIpIntfConfigReactor> IpIntfVrfReactor::ipIntfConfigReactor(
    Konet::IntfId const& intf) const {
   return Mox::valueOr(ipIntfConfigReactor_, intf);
}

Mox::Ptr<IpIntfVrfReactor::MoxIpIntfConfigReactor> IpIntfVrfReactor::ipIntfConfigReactorIs(
    Mox::Ptr<Ip::IpIntfConfig const> const& ipIntfConfig) {
   Mox::requireNonNull(ipIntfConfig, "_ipIntfConfigReactor",
                       "Veld::IpIntfVrfReactor::ipIntfConfigReactor");
   if (auto* child = ipIntfConfigReactor_.find(ipIntfConfig->intf())) return *child;
   auto child = Mox::make<MoxIpIntfConfigReactor>(this, ipIntfConfig);
   ipIntfConfigReactor_.emplace(ipIntfConfig->intf(), child);
   return child;
}

void IpIntfVrfReactor::ipIntfConfigReactorDel(Konet::IntfId const& intf) {
   auto child = ipIntfConfigReactor(intf);
   if (!child) return;
   ipIntfConfigReactor_.erase(intf);
   child->handleDel();
   child->moxDoZombieReactors(true);
}

void IpIntfVrfReactor::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   for (auto const& intf : ipIntfConfigReactor_.keys()) {
      if (ipConfig_->ipIntfConfig(intf)) {
         MOX_TRACE(th, 7, " found reactor for " << intf << " IN ipConfig");
      } else {
         MOX_TRACE(th, 7, " found reactor for " << intf << " NOT in ipConfig");
         ipIntfConfigReactorDel(intf);
      }
   }
   for (auto const& intf : ipConfig_->ipIntfConfigIterator().keys()) {
      if (auto child = ipIntfConfigReactor(intf)) {
         MOX_TRACE(th, 7, " found ipConfig for " << intf << " IN reactor");
         child->handleInitialized();
      } else {
         MOX_TRACE(th, 7, " found ipConfig for " << intf << " NOT in reactor");
         ipIntfConfigReactorIs(ipConfig_->ipIntfConfig(intf));
      }
   }
   initializedSet(true);
}

// An interface entered or left the configuration, or its entity was replaced.
void IpIntfVrfReactor::handleIpIntfConfig(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, intf);
   auto config = ipConfig_->ipIntfConfig(intf);
   auto child = ipIntfConfigReactor(intf);
   if (child && child->ipIntfConfig() != config) {
      ipIntfConfigReactorDel(intf);
      child = nullptr;
   }
   if (config && !child) ipIntfConfigReactorIs(config);
}

// ---- one interface

IpIntfVrfReactor::MoxIpIntfConfigReactor::MoxIpIntfConfigReactor(
    IpIntfVrfReactor* sm, Mox::Ptr<Ip::IpIntfConfig const> const& config)
    : Reactor(sm), intf_(config->intf()) {
   MOX_TRACE_FN(th, intf_);
   notifierIs(config);
   moxL3Config_ = Mox::make<MoxL3Config>(this, sm);
   moxL3Config_->notifierIs(config->l3Config());
   moxAllVrfStatusLocal_ = Mox::make<MoxAllVrfStatusLocal>(this, sm);
   moxAllVrfStatusLocal_->notifierIs(sm->allVrfStatusLocal());
   moxVrfStatusLocal_ = Mox::make<MoxVrfStatusLocal>(this, sm);
   handleInitialized();
}

Mox::Ptr<L3::Intf::Config const> IpIntfVrfReactor::MoxIpIntfConfigReactor::l3Config() const {
   return moxL3Config_->notifier();
}

Mox::Ptr<Ip::VrfStatusLocal const> IpIntfVrfReactor::MoxIpIntfConfigReactor::vrfStatusLocal()
    const {
   return moxVrfStatusLocal_->notifier();
}

// Setting or clearing the VRF's status re-evaluates the namespace.
void IpIntfVrfReactor::MoxIpIntfConfigReactor::vrfStatusLocalIs(
    Mox::Ptr<Ip::VrfStatusLocal const> const& status) {
   moxVrfStatusLocal_->notifierIs(status);
   handleVrfState();
}

void IpIntfVrfReactor::MoxIpIntfConfigReactor::moxDoZombieReactors(bool zombie) {
   NotifieeBase::moxDoZombieReactors(zombie);
   moxL3Config_->moxDoZombieReactors(zombie);
   moxAllVrfStatusLocal_->moxDoZombieReactors(zombie);
   moxVrfStatusLocal_->moxDoZombieReactors(zombie);
}

L3::VrfName IpIntfVrfReactor::MoxIpIntfConfigReactor::vrf() const {
   auto l3 = l3Config();
   return l3 ? l3->vrf() : L3::VrfName::defaultVrf();
}

// The namespace follows the VRF's local status from the start, found or not.
void IpIntfVrfReactor::MoxIpIntfConfigReactor::handleInitialized() {
   MOX_TRACE_FN(th, intf_);
   initializedIs(true);
   L3::VrfName const v = vrf();
   owner()->allIntfNamespaceConfigDir()->intfNamespaceConfigIs(intf_);
   MOX_TRACE(th, 7, " checking for Vrf:" << v);
   auto status = owner()->allVrfStatusLocal()->vrf(v);
   if (status) MOX_TRACE(th, 7, " found Status for Vrf:" << v);
   vrfStatusLocalIs(status);
}

// The configuration references another L3 configuration: watch that one instead.
void IpIntfVrfReactor::MoxIpIntfConfigReactor::handleL3Config() {
   MOX_TRACE_FN(th, intf_);
   moxL3Config_->notifierIs(ipIntfConfig()->l3Config());
   handleIpIntfConfigVrf();
}

void IpIntfVrfReactor::MoxIpIntfConfigReactor::handleIpIntfConfigVrf() {
   MOX_TRACE_FN(th, intf_);
   if (!initialized_) return;
   L3::VrfName const v = vrf();
   if (auto status = owner()->allVrfStatusLocal()->vrf(v)) {
      MOX_TRACE(th, 7, " found Status for Vrf:" << v);
      vrfStatusLocalIs(status);
   } else {
      MOX_TRACE(th, 7, " Deleting Vrf Status ptr");
      vrfStatusLocalIs(nullptr);
   }
}

// A VRF's local status entry was added or removed. The removal of the interface's own VRF's
// status clears it too: without a status the interface goes back to the default namespace.
void IpIntfVrfReactor::MoxIpIntfConfigReactor::handleVrfStatusCreation(L3::VrfName const& vrfName) {
   MOX_TRACE_FN(th, " for " << intf_ << " with vrfName " << vrfName << " vrf " << vrf());
   L3::VrfName const v = vrf();
   if (vrfName != v) return;
   if (auto status = owner()->allVrfStatusLocal()->vrf(vrfName)) {
      MOX_TRACE(th, 7, " found Status for Vrf:" << v);
      vrfStatusLocalIs(status);
   } else if (vrfStatusLocal()) {
      MOX_TRACE(th, 7, " Deleting Vrf Status ptr");
      vrfStatusLocalIs(nullptr);
   }
}

void IpIntfVrfReactor::MoxIpIntfConfigReactor::handleVrfStatusCreation() {
   MOX_TRACE_FN(th, intf_);
   for (auto const& vrfName : owner()->allVrfStatusLocal()->vrfIterator().keys())
      handleVrfStatusCreation(vrfName);
}

void IpIntfVrfReactor::MoxIpIntfConfigReactor::handleVrfState() {
   MOX_TRACE_FN(th, " for " << intf_ << " initialized " << initialized_);
   if (!initialized_) return;
   auto nsConfig = owner()->allIntfNamespaceConfigDir()->intfNamespaceConfig(intf_);
   if (!nsConfig) return;
   auto status = vrfStatusLocal();
   if (!status) {
      MOX_TRACE(th, 7, " vrfStatusLocal is NULL, removing ns: " << nsConfig->netNsName());
      nsConfig->netNsNameIs(Konet::NamespaceName::defaultNamespace());
      return;
   }
   switch (status->state()) {
      case Ip::VrfState::active:
         MOX_TRACE(th, 7, " Vrf is active, setting ns: " << status->netNsName());
         nsConfig->netNsNameIs(status->netNsName());
         break;
      case Ip::VrfState::deleting:
         MOX_TRACE(th, 7, " Vrf is deleting, removing ns: " << nsConfig->netNsName());
         nsConfig->netNsNameIs(Konet::NamespaceName::defaultNamespace());
         break;
      default:
         break;
   }
}

// The interface left the configuration.
void IpIntfVrfReactor::MoxIpIntfConfigReactor::handleDel() {
   MOX_TRACE_FN(th, intf_);
   owner()->allIntfNamespaceConfigDir()->intfNamespaceConfigDel(intf_);
}

}  // namespace Veld
