// One application's multicast groups, applied to the interfaces' statuses. The IPv6 machine
// (ipv6/MulticastGroupAppSm.h) and its IPv4 twin (ipv4/MulticastIpGroupAppSm.h) are this
// template with their family's types and texts.
//
// Watches the application's entries (interface, group), one at a time; writes the `mcaddr`
// collection of the interface statuses its directory machine gives it. Per entry:
//    held by the application --status there--> the application is in the group's set
//                                               (the group is listed if it was not)
//    no longer held          --status there--> the application leaves the group's set
//                                               (the group goes with its last application)
//    either                  --no status--> nothing; picked up when the status is created
// Before it goes (doPrepareToDie) the application leaves every group of every interface.
#pragma once

#include <utility>

#include "konet/IntfId.h"
#include "mox/Error.h"
#include "mox/Inputs.h"
#include "mox/Name.h"
#include "mox/StateMachine.h"
#include "mox/Trace.h"
#include "veld/LocalInterface.h"

namespace Veld {

// Family supplies: Addr, IntfStatus, Input (a producer's interface statuses), Groups (the
// applications), Application; status(input, intf), intfs(input); the trace handle `th`
// and the texts.
template <class Family>
class MulticastGroupAppSmOf : public Mox::StateMachine {
public:
   using Addr = typename Family::Addr;
   using IntfStatus = typename Family::IntfStatus;
   using Input = typename Family::Input;
   using Groups = typename Family::Groups;
   using Application = typename Family::Application;
   using IntfAddrInfo = typename Application::IntfAddrInfo;

   // The inputs of the application machines and of their directory machine: the
   // applications, and the statuses of ordinary and of local interfaces.
#define VELD_MULTICAST_GROUP_INPUTS(X)                   \
   X(Mox::Ptr<typename Family::Groups>, groups)          \
   X(Mox::Ptr<typename Family::Input>, systemIntfStatus) \
   X(Mox::Ptr<typename Family::Input>, localIntfStatus)
   struct Inputs {
      MOX_INPUTS(VELD_MULTICAST_GROUP_INPUTS)
   };
#undef VELD_MULTICAST_GROUP_INPUTS

   class MoxApplication
       : public Mox::Reactor<MulticastGroupAppSmOf, typename Application::NotifieeConst> {
   public:
      using Mox::Reactor<MulticastGroupAppSmOf, typename Application::NotifieeConst>::Reactor;
      void onMulticastAddr(IntfAddrInfo const& i) override {
         this->owner()->handleMulticastAddr(i);
      }
   };

   MulticastGroupAppSmOf(Mox::String name, Mox::Ptr<Application const> application, Inputs inputs)
       : name_(std::move(name)), application_(std::move(application)), in_(std::move(inputs)) {
      moxApplication_ = Mox::make<MoxApplication>(this);
      moxApplication_->notifierIs(application_);
   }
   ~MulticastGroupAppSmOf() override { this->moxDoZombieReactors(true); }

   Mox::String const& name() const { return name_; }
   Mox::Ptr<Application const> const& application() const { return application_; }

   void handleInitialized() {
      MOX_TRACE_FN(Family::th, name_);
      if (this->initialized()) return;
      handleMulticastAddr();
      this->initializedSet(true);
   }

   // Every entry of the application.
   void handleMulticastAddr() {
      MOX_TRACE_FN(Family::th, name_);
      for (auto const& i : application_->multicastAddrIterator().keys())
         handleMulticastAddr(i);
   }

   void handleMulticastAddr(IntfAddrInfo const& i) {
      MOX_TRACE_FN(Family::th, name_ << " " << i);
      auto status = ip6StatusIntf(i.intf);
      if (!status) {
         MOX_TRACE(Family::th, 7, Family::kStatusNotAvailable);
         return;
      }
      if (application_->multicastAddr(i)) {
         MOX_TRACE(Family::th, 7, Family::kAdd << i.addr << " for " << name_);
         doAddMulticastGroupForApplicationToIp6StatusIntf(i);
      } else {
         MOX_TRACE(Family::th, 7, Family::kDelete << " " << i.addr << " for " << name_);
         doDeleteMulticastGroupForApplicationFromIp6StatusIntf(i);
      }
   }

   // The interface's status was created (or went): every entry of the application for it is
   // applied.
   void handleIp6StatusIntf(Konet::IntfId const& intf) {
      MOX_TRACE_FN(Family::th, name_ << " " << intf);
      auto status = ip6StatusIntf(intf);
      if (!status) {
         MOX_TRACE(Family::th, 7, "No ip6Status for " << intf);
         return;
      }
      MOX_TRACE(Family::th, 7, "Checking Collection");
      for (auto const& i : application_->multicastAddrOf(intf)) {
         MOX_TRACE(Family::th, 7, "mcAddr: " << i.addr << ", intf: " << i.intf);
         doAddMulticastGroupForApplicationToIp6StatusIntf(i);
      }
   }

   // The status that holds the interface's groups: the local interfaces' or the ordinary one.
   Mox::Ptr<IntfStatus> ip6StatusIntf(Konet::IntfId const& intf) const {
      auto const& input = isLocalInterface(intf) ? in_.localIntfStatus : in_.systemIntfStatus;
      return input ? Family::status(*input, intf) : nullptr;
   }

   void doAddMulticastGroupForApplicationToIp6StatusIntf(IntfAddrInfo const& i) {
      auto status = ip6StatusIntf(i.intf);
      if (!status) return;
      if (auto const* info = status->mcaddr(i.addr)) {
         MOX_TRACE(Family::th, 7, "multicast group already exists.");
         if (info->application(name_)) {
            MOX_TRACE(Family::th, 7, "multicast group already exists for application " << name_);
            return;
         }
         MOX_TRACE(Family::th, 7, "Add application to multicast group");
         status->mcaddrIs(i.addr, info->with(name_));
         return;
      }
      MOX_TRACE(Family::th, 7, "multicast group does not exist. Add it.");
      status->mcaddrIs(i.addr, typename Family::GroupInfo().with(name_));
   }

   void doDeleteMulticastGroupForApplicationFromIp6StatusIntf(IntfAddrInfo const& i) {
      auto status = ip6StatusIntf(i.intf);
      if (status) leaveGroup(*status, i.addr);
   }

   // The application leaves every group of one interface's status.
   void doDeleteAllMulticastGroupsForAppFromIntf(IntfStatus& intfStatus) {
      MOX_TRACE_FN(Family::th, name_ << " " << intfStatus.intf());
      for (auto const& g : intfStatus.mcaddrIterator().keys()) {
         auto const* info = intfStatus.mcaddr(g);
         if (info && info->application(name_)) leaveGroup(intfStatus, g);
      }
   }

   // The application leaves every group of every interface.
   void doPrepareToDie() {
      MOX_TRACE_FN(Family::th, name_);
      for (auto const* input : {&in_.systemIntfStatus, &in_.localIntfStatus}) {
         if (!*input) continue;
         for (auto const& intf : Family::intfs(**input)) {
            if (auto status = Family::status(**input, intf))
               doDeleteAllMulticastGroupsForAppFromIntf(*status);
         }
      }
   }

private:
   void leaveGroup(IntfStatus& status, Addr const& g) {
      auto const* info = status.mcaddr(g);
      if (!info) {
         MOX_TRACE(Family::th, 7, "Multicast group NOT found");
         return;
      }
      MOX_TRACE(Family::th, 7, "Multicast group found");
      // A listed group always has an application; the check names the set as it is known.
      if (info->applications().empty()) {
         Cinder::debugAndThrowAssertException("multicastGroupInfo.applications()", __FILE__,
                                              __LINE__, __PRETTY_FUNCTION__);
      }
      if (!info->application(name_)) return;
      MOX_TRACE(Family::th, 7, "Application using mcGroup");
      if (info->applications().size() == 1) {
         MOX_TRACE(Family::th, 7, "Only app using group. Delete Mc group");
         status.mcaddrDel(g);
         return;
      }
      MOX_TRACE(Family::th, 7, "More apps using group. Do not delete it.");
      status.mcaddrIs(g, info->without(name_));
   }

   Mox::String const name_;
   Mox::Ptr<Application const> const application_;
   Inputs const in_;
   Mox::Ptr<MoxApplication> moxApplication_;
};

}  // namespace Veld
