// The applications' multicast groups on the interfaces' statuses: one application machine
// (MulticastGroupAppSmOf.h) per application. The IPv6 machine
// (ipv6/MulticastGroupAppDirSm.h) and its IPv4 twin (ipv4/MulticastIpGroupAppDirSm.h) are
// this template with their family's types and texts.
//
// Watches the directory of applications and the two status inputs (ordinary and local
// interfaces), whose created statuses it hands to every application machine. Writes nothing
// itself but the agent's own application "veld", which it makes sure exists before any
// other: its machine is created first. Per application name:
//    in the directory, no machine --> machine created (its entries applied)
//    gone from the directory      --> machine deleted; it first leaves every group
//    replaced under the same name --> deleted, then created for the new entity
// At start, groups on existing statuses that name an application the directory no longer
// holds lose it (the stale-application sweep), so a restart forgets departed applications.
#pragma once

#include <vector>

#include "mox/HashMap.h"
#include "mox/Name.h"
#include "mox/StateMachine.h"
#include "mox/Trace.h"
#include "platform/Multicast.h"

namespace Veld {

template <class Family, class AppSm>
class MulticastGroupAppDirSmOf : public Mox::StateMachine {
public:
   using Inputs = typename AppSm::Inputs;
   using IntfStatus = typename Family::IntfStatus;
   using Groups = typename Family::Groups;

   class MoxGroups : public Mox::Reactor<MulticastGroupAppDirSmOf, typename Groups::NotifieeConst> {
   public:
      using Mox::Reactor<MulticastGroupAppDirSmOf, typename Groups::NotifieeConst>::Reactor;
      void onApplication(Mox::String const& name) override {
         this->owner()->handleApplication(name);
      }
   };
   class MoxIntfStatus : public Family::template MoxInput<MulticastGroupAppDirSmOf> {
   public:
      using Family::template MoxInput<MulticastGroupAppDirSmOf>::MoxInput;
   };

   explicit MulticastGroupAppDirSmOf(Inputs inputs) : in_(std::move(inputs)) {
      moxGroups_ = Mox::make<MoxGroups>(this);
      moxGroups_->notifierIs(in_.groups);
      for (auto const* input : {&in_.systemIntfStatus, &in_.localIntfStatus}) {
         if (!*input) continue;
         auto r = Mox::make<MoxIntfStatus>(this);
         r->notifierIs(*input);
         moxIntfStatus_.push_back(r);
      }
   }
   ~MulticastGroupAppDirSmOf() override {
      appSm_.clear();
      this->moxDoZombieReactors(true);
   }

   Inputs const& inputs() const { return in_; }

   void handleInitialized() {
      MOX_TRACE_FN0(Family::th);
      if (this->initialized()) return;
      this->initializedSet(true);
      MOX_TRACE(Family::th, 7, "create application Sm for Veld");
      auto const& veld = Mcast::veldApplication();
      appSmIs(veld, in_.groups->applicationIs(veld));
      handleApplication();
   }

   // Every application of the directory; then the groups of departed ones are swept.
   void handleApplication() {
      MOX_TRACE_FN0(Family::th);
      if (!this->initialized()) {
         MOX_TRACE(Family::th, 7, "Not Initialized");
         return;
      }
      for (auto const& name : in_.groups->applicationIterator().keys())
         handleApplication(name);
      for (auto const* input : {&in_.systemIntfStatus, &in_.localIntfStatus}) {
         if (!*input) continue;
         for (auto const& intf : Family::intfs(**input)) {
            if (auto status = Family::status(**input, intf))
               doDeleteNonExistentAppsFromMulticastGroupsOnIntf(*status);
         }
      }
   }

   void handleApplication(Mox::String const& name) {
      MOX_TRACE_FN(Family::th, name);
      if (!this->initialized()) {
         MOX_TRACE(Family::th, 7, "Not Initialized");
         return;
      }
      MOX_TRACE(Family::th, 7, "check and create application Sm");
      auto application = in_.groups->application(name);
      auto existing = appSm(name);
      if (application) {
         if (existing && existing->application() == application) {
            MOX_TRACE(Family::th, 7, "application Sm already exists");
            return;
         }
         if (existing) appSmDel(name);  // another entity under the same name starts afresh
         MOX_TRACE(Family::th, 7, "create application Sm");
         appSmIs(name, application);
         return;
      }
      if (!existing) return;
      MOX_TRACE(Family::th, 7, "Delete application Sm");
      appSmDel(name);
   }

   // A status of one of the inputs was created or went.
   void handleIntfStatus(Konet::IntfId const& intf) {
      MOX_TRACE_FN(Family::th, intf);
      if (!this->initialized()) {
         MOX_TRACE(Family::th, 7, "Not Initialized");
         return;
      }
      for (auto const& name : appSm_.keys()) {
         if (auto sm = appSm(name)) sm->handleIp6StatusIntf(intf);
      }
   }

   // Removes from the status's groups the applications the directory no longer holds.
   void doDeleteNonExistentAppsFromMulticastGroupsOnIntf(IntfStatus& intfStatus) {
      MOX_TRACE_FN(Family::th, intfStatus.intf());
      for (auto const& g : intfStatus.mcaddrIterator().keys()) {
         auto info = *intfStatus.mcaddr(g);
         bool changed = false;
         for (auto const& app :
              std::vector(info.applications().begin(), info.applications().end())) {
            if (in_.groups->application(app)) continue;
            MOX_TRACE(Family::th, 7, "application " << app << " does not exist delete " << g);
            info = info.without(app);
            changed = true;
         }
         if (!changed) continue;
         if (info.applications().empty()) {
            MOX_TRACE(Family::th, 7, "Delete group");
            intfStatus.mcaddrDel(g);
         } else {
            MOX_TRACE(Family::th, 7, "Update McGroup " << g);
            intfStatus.mcaddrIs(g, info);
         }
      }
   }

   Mox::Ptr<AppSm> appSm(Mox::String const& name) const { return Mox::valueOr(appSm_, name); }
   size_t appSmSize() const { return appSm_.size(); }

private:
   Mox::Ptr<AppSm> appSmIs(Mox::String const& name,
                           Mox::Ptr<typename Family::Application const> const& application) {
      auto sm = Mox::make<AppSm>(name, application, in_);
      appSm_.assign(name, sm);
      sm->handleInitialized();
      return sm;
   }
   void appSmDel(Mox::String const& name) {
      auto sm = appSm(name);
      if (!sm) return;
      sm->doPrepareToDie();
      appSm_.erase(name);
      sm->moxDoZombieReactors(true);
   }

   Inputs const in_;
   Mox::Ptr<MoxGroups> moxGroups_;
   std::vector<Mox::Ptr<MoxIntfStatus>> moxIntfStatus_;
   Mox::HashMap<Mox::String, Mox::Ptr<AppSm>> appSm_;
};

}  // namespace Veld
