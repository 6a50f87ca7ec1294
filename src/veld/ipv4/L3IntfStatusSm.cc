#include "veld/ipv4/L3IntfStatusSm.h"

#include "mox/Trace.h"

namespace Veld {

namespace {
Mox::TraceHandle th("VeldL3Status");
}

class L3IntfStatusSm::MoxInputStatusDir
    : public Mox::Reactor<L3IntfStatusSm, L3::Intf::InputStatusDir::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onInputStatus(Mox::Name const& name) override { owner()->handleInput(name); }
};

class L3IntfStatusSm::MoxInputStatus
    : public Mox::Reactor<L3IntfStatusSm, L3::Intf::Input::StatusDir::NotifieeConst> {
public:
   class MoxIntfStatus : public Mox::Reactor<MoxInputStatus, L3::Intf::Status::NotifieeConst> {
   public:
      MoxIntfStatus(MoxInputStatus* input, L3IntfStatusSm* sm) : Reactor(input, sm) {}
      void onVrf() override {
         owner()->owner()->handleIntfStatus(owner()->name(), notifierRaw()->intfId());
      }
   };

   MoxInputStatus(L3IntfStatusSm* sm, Mox::Name name,
                  Mox::Ptr<L3::Intf::Input::StatusDir const> const& input)
       : Reactor(sm), name_(std::move(name)) {
      notifierIs(input);
   }
   Mox::Name const& name() const { return name_; }
   void onIntfStatus(Konet::IntfId const& intf) override { owner()->handleIntfStatus(name_, intf); }
   void watch(Konet::IntfId const& intf, Mox::Ptr<L3::Intf::Status const> const& s) {
      if (!s) {
         intfStatus_.erase(intf);
         return;
      }
      auto* r = intfStatus_.find(intf);
      if (r && (*r)->notifierRaw() == s.ptr()) return;
      auto reactor = Mox::make<MoxIntfStatus>(this, owner());
      reactor->notifierIs(s);
      intfStatus_.assign(intf, reactor);
   }

private:
   Mox::Name const name_;
   Mox::HashMap<Konet::IntfId, Mox::Ptr<MoxIntfStatus>> intfStatus_;
};

L3IntfStatusSm::L3IntfStatusSm(Mox::Ptr<L3::Intf::InputStatusDir const> inputStatusDir,
                               Mox::Ptr<L3::Intf::StatusDir> intfStatusDir)
    : inputStatusDir_(std::move(inputStatusDir)), intfStatusDir_(std::move(intfStatusDir)) {
   MOX_TRACE_FN0(th);
   moxInputStatusDir_ = Mox::make<MoxInputStatusDir>(this);
   moxInputStatusDir_->notifierIs(inputStatusDir_);
   handleInitialized();
}

L3IntfStatusSm::~L3IntfStatusSm() { moxDoZombieReactors(true); }

void L3IntfStatusSm::notifierIs(Mox::Ptr<L3::Intf::InputStatusDir const> const& inputStatusDir) {
   MOX_TRACE_FN0(th);
   if (inputStatusDir == inputStatusDir_) return;
   inputStatusDir_ = inputStatusDir;
   moxInputStatusDir_->notifierIs(inputStatusDir_);
   inputStatus_.clear();
   initializedSet(false);
   handleInitialized();
}

void L3IntfStatusSm::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   if (inputStatusDir_) {
      for (auto const& name : inputStatusDir_->inputStatusIterator().keys())
         handleInput(name);
   }
   handleDeletedInputStatus();
   initializedSet(true);
}

void L3IntfStatusSm::handleInput(Mox::Name const& name) {
   MOX_TRACE_FN(th, name);
   auto input = inputStatusDir_ ? inputStatusDir_->inputStatus(name) : nullptr;
   if (!input) {
      MOX_TRACE(th, 5, "Status input for " << name << " is NULL.");
      if (inputStatus_.erase(name)) handleDeletedInputStatus();
      return;
   }
   auto* existing = inputStatus_.find(name);
   if (existing && (*existing)->notifierRaw() == input.ptr()) return;
   inputStatus_.assign(name, Mox::make<MoxInputStatus>(this, name, input));
   for (auto const& intf : input->intfStatusIterator().keys())
      handleIntfStatus(name, intf);
}

Mox::Ptr<L3::Intf::Status const> L3IntfStatusSm::heldBy(Konet::IntfId const& intf,
                                                        Mox::Name const& except) const {
   Mox::Ptr<L3::Intf::Status const> found;
   for (auto const& [name, reactor] : inputStatus_) {
      if (name == except) continue;
      if (auto s = reactor->notifierRaw()->intfStatus(intf)) found = s;
   }
   return found;
}

void L3IntfStatusSm::publish(Konet::IntfId const& intf,
                             Mox::Ptr<L3::Intf::Status const> const& from) {
   auto published = intfStatusDir_->intfStatus(intf);
   if (!published) {
      MOX_TRACE(th, 5,
                " L3 intfStatus added " << intf << " created l3Status " << intf << " VRF "
                                        << from->vrf());
      published = intfStatusDir_->intfStatusIs(intf);
   }
   published->vrfIs(from->vrf());
}

void L3IntfStatusSm::handleIntfStatus(Mox::Name const& inputName, Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, inputName << " " << intf);
   auto* reactor = inputStatus_.find(inputName);
   if (!reactor) return;
   auto status = (*reactor)->notifierRaw()->intfStatus(intf);
   (*reactor)->watch(intf, status);
   if (status) {
      publish(intf, status);
      return;
   }
   MOX_TRACE(th, 5, "intfStatus deleted: " << intf);
   if (auto other = heldBy(intf, inputName)) {
      publish(intf, other);
   } else {
      intfStatusDir_->intfStatusDel(intf);
   }
}

void L3IntfStatusSm::handleDeletedInputStatus() {
   MOX_TRACE_FN0(th);
   for (auto const& intf : intfStatusDir_->intfStatusIterator().keys()) {
      auto held = heldBy(intf, Mox::Name());
      MOX_TRACE(th, 7, " inputStatus " << intf << " was " << (held ? "" : "not ") << "found");
      if (held) {
         publish(intf, held);
      } else {
         intfStatusDir_->intfStatusDel(intf);
      }
   }
}

}  // namespace Veld
