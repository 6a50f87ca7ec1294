// Places each interface's configuration in the view of the VRF that its L3 configuration
// names, for one address family: VrfIpIntfConfigSm (IPv4) and VrfIp6IntfConfigSm (IPv6) are
// this machine with their family's types and messages.
//
// Watches the global configuration's interfaces, each interface's l3Config reference, that
// L3 configuration's vrf, and the directory of per-VRF views. Writes the views.
//
// One child per interface remembers the view that holds the interface:
//    parked (none) --handleVrf: the VRF's view exists--> placed (that view)
//    placed --handleDel: interface gone, VRF changed, or view deleted--> parked
// A VRF change is a handleDel then a handleVrf, so an interface is never in two views at
// once. A missing L3 configuration or an unset (empty) VRF leaves the interface where it
// is; a parked interface enters its view when the view is created.
#pragma once

#include <string>

#include "konet/IntfId.h"
#include "konet/VrfName.h"
#include "mox/HashMap.h"
#include "mox/StateMachine.h"
#include "mox/Trace.h"
#include "platform/L3.h"

namespace Veld {

// Family supplies: Config, IntfConfig, View, ViewDir; MoxConfig<Sm>, the reactor on the
// configuration's interfaces; intfConfig(config, intf) and intfs(config); the trace handle
// `th` and the messages (kNamesIntf: whether they end with the interface's name).
template <class Family>
class VrfIntfConfigSmOf : public Mox::StateMachine {
public:
   using Config = typename Family::Config;
   using IntfConfig = typename Family::IntfConfig;
   using View = typename Family::View;
   using ViewDir = typename Family::ViewDir;

   // One interface: watches its configuration's l3Config reference, and that L3
   // configuration's vrf through the nested MoxL3Config.
   class MoxIpIntfConfig
       : public Mox::Reactor<VrfIntfConfigSmOf, typename IntfConfig::NotifieeConst> {
   public:
      class MoxL3Config : public Mox::Reactor<MoxIpIntfConfig, L3::Intf::Config::NotifieeConst> {
      public:
         MoxL3Config(MoxIpIntfConfig* child, VrfIntfConfigSmOf* sm)
             : Mox::Reactor<MoxIpIntfConfig, L3::Intf::Config::NotifieeConst>(child, sm) {}
         void onVrf() override { this->owner()->handleVrf(); }
      };

      MoxIpIntfConfig(VrfIntfConfigSmOf* sm, Mox::Ptr<IntfConfig const> const& config)
          : Mox::Reactor<VrfIntfConfigSmOf, typename IntfConfig::NotifieeConst>(sm),
            intf_(config->intf()) {
         MOX_TRACE_FN(Family::th, intf_);
         this->notifierIs(config);
         moxL3Config_ = Mox::make<MoxL3Config>(this, sm);
         moxL3Config_->notifierIs(config->l3Config());
         handleVrf();
      }

      Konet::IntfId const& intf() const { return intf_; }
      Mox::Ptr<IntfConfig const> ipIntfConfig() const { return this->notifier(); }
      Mox::Ptr<L3::Intf::Config const> l3Config() const { return moxL3Config_->notifier(); }
      // The view that holds this interface; null while it is parked.
      Mox::Ptr<View> const& vrfIpIntfConfig() const { return vrfIpIntfConfig_; }

      void onL3Config() override { handleL3Config(); }
      void moxDoZombieReactors(bool zombie) override {
         Mox::NotifieeBase::moxDoZombieReactors(zombie);
         moxL3Config_->moxDoZombieReactors(zombie);
      }

      // The configuration references another L3 configuration: watch that one instead.
      void handleL3Config() {
         MOX_TRACE_FN(Family::th, intf_);
         moxL3Config_->notifierIs(ipIntfConfig()->l3Config());
         handleVrf();
      }

      void handleVrf() {
         MOX_TRACE_FN(Family::th, intf_);
         auto l3 = l3Config();
         if (!l3) {
            MOX_TRACE(Family::th, 7, Family::kNoL3Config << named());
            return;
         }
         L3::VrfName const vrf = l3->vrf();
         if (vrf.name().empty()) {
            MOX_TRACE(Family::th, 7, Family::kVrfNotSet << named());
            return;
         }
         if (vrfIpIntfConfig_ && vrfIpIntfConfig_->vrfName() != vrf) handleDel();
         auto view = this->owner()->vrfIpIntfConfigDir()->vrfIpIntfConfig(vrf);
         if (!view) {
            MOX_TRACE(Family::th, 7, Family::kNoView << named());
            return;
         }
         view->ipIntfConfigIs(ipIntfConfig());
         MOX_TRACE(Family::th, 7, Family::kAdded << intf_ << " in vrf " << vrf);
         vrfIpIntfConfig_ = view;
      }

      void handleDel() {
         MOX_TRACE_FN(Family::th, intf_);
         if (!vrfIpIntfConfig_) return;
         auto view = std::move(vrfIpIntfConfig_);
         MOX_TRACE(Family::th, 7, "vrfName : " << view->vrfName());
         if (view->ipIntfConfig(intf_)) {
            view->ipIntfConfigDel(intf_);
            MOX_TRACE(Family::th, 7, Family::kRemoved << intf_ << " in vrf " << view->vrfName());
         }
      }

   private:
      std::string named() const { return Family::kNamesIntf ? intf_.name() : std::string(); }

      Konet::IntfId const intf_;
      Mox::Ptr<MoxL3Config> moxL3Config_;
      Mox::Ptr<View> vrfIpIntfConfig_;
   };

   class MoxVrfIpIntfConfigDir
       : public Mox::Reactor<VrfIntfConfigSmOf, typename ViewDir::NotifieeConst> {
   public:
      using Mox::Reactor<VrfIntfConfigSmOf, typename ViewDir::NotifieeConst>::Reactor;
      void onVrfIpIntfConfig(L3::VrfName const& vrfName) override {
         this->owner()->handleVrfIpIntfConfig(vrfName);
      }
   };

   VrfIntfConfigSmOf(Mox::Ptr<Config const> ipConfig, Mox::Ptr<ViewDir> vrfIpIntfConfigDir)
       : ipConfig_(std::move(ipConfig)), vrfIpIntfConfigDir_(std::move(vrfIpIntfConfigDir)) {
      MOX_TRACE_FN0(Family::th);
      moxIpConfig_ = Mox::make<MoxIpConfig>(this);
      moxIpConfig_->notifierIs(ipConfig_);
      moxVrfIpIntfConfigDir_ = Mox::make<MoxVrfIpIntfConfigDir>(this);
      moxVrfIpIntfConfigDir_->notifierIs(vrfIpIntfConfigDir_);
      handleInitialized();
   }

   // Takes every interface out of the view that holds it.
   ~VrfIntfConfigSmOf() override {
      moxDoZombieReactors(true);
      ipIntfConfigDelAll();
   }

   Mox::Ptr<Config const> const& ipConfig() const { return ipConfig_; }
   Mox::Ptr<ViewDir> const& vrfIpIntfConfigDir() const { return vrfIpIntfConfigDir_; }

   Mox::Ptr<MoxIpIntfConfig> ipIntfConfig(Konet::IntfId const& intf) const {
      return Mox::valueOr(ipIntfConfig_, intf);
   }
   // The child of the configuration entity, created when absent.
   Mox::Ptr<MoxIpIntfConfig> ipIntfConfigIs(Mox::Ptr<IntfConfig const> const& config) {
      Mox::requireNonNull(config, "_ipIntfConfig", Family::kChildMutator);
      if (auto* child = ipIntfConfig_.find(config->intf())) return *child;
      auto child = Mox::make<MoxIpIntfConfig>(this, config);
      ipIntfConfig_.emplace(config->intf(), child);
      return child;
   }
   void ipIntfConfigDel(Konet::IntfId const& intf) {
      auto* found = ipIntfConfig_.find(intf);
      if (!found) return;
      auto child = *found;
      ipIntfConfig_.erase(intf);
      child->handleDel();
      child->moxDoZombieReactors(true);
   }
   void ipIntfConfigDelAll() {
      for (auto const& intf : ipIntfConfig_.keys())
         ipIntfConfigDel(intf);
   }
   size_t ipIntfConfigSize() const { return ipIntfConfig_.size(); }

   void handleInitialized() {
      MOX_TRACE_FN0(Family::th);
      if (initialized()) return;
      for (auto const& intf : Family::intfs(*ipConfig_))
         handleIpIntfConfig(intf);
      initializedSet(true);
   }

   // An interface entered or left the configuration, or its entity was replaced.
   void handleIpIntfConfig(Konet::IntfId const& intf) {
      MOX_TRACE_FN(Family::th, intf);
      auto config = Family::intfConfig(*ipConfig_, intf);
      auto child = ipIntfConfig(intf);
      if (child && child->ipIntfConfig() != config) {
         ipIntfConfigDel(intf);
         child = nullptr;
      }
      if (config && !child) ipIntfConfigIs(config);
   }

   // A VRF's view was created or deleted: place or park the VRF's interfaces.
   void handleVrfIpIntfConfig(L3::VrfName const& vrfName) {
      MOX_TRACE_FN(Family::th, " vrfName " << vrfName);
      auto view = vrfIpIntfConfigDir_->vrfIpIntfConfig(vrfName);
      for (auto const& intf : ipIntfConfig_.keys()) {
         auto child = ipIntfConfig(intf);
         if (!child) continue;
         auto l3 = child->l3Config();
         if (!l3 || l3->vrf() != vrfName) continue;
         if (view) {
            child->handleVrf();
         } else {
            child->handleDel();
         }
      }
   }

private:
   using MoxIpConfig = typename Family::template MoxConfig<VrfIntfConfigSmOf>;

   Mox::Ptr<Config const> const ipConfig_;
   Mox::Ptr<ViewDir> const vrfIpIntfConfigDir_;
   Mox::Ptr<MoxIpConfig> moxIpConfig_;
   Mox::Ptr<MoxVrfIpIntfConfigDir> moxVrfIpIntfConfigDir_;
   Mox::HashMap<Konet::IntfId, Mox::Ptr<MoxIpIntfConfig>> ipIntfConfig_;
};

}  // namespace Veld
