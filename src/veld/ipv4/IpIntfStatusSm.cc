#include "veld/ipv4/IpIntfStatusSm.h"

#include "mox/Trace.h"

namespace Veld {

namespace {
Mox::TraceHandle th("VeldIpStatus");
}

class IpIntfStatusSm::MoxInputStatusDir
    : public Mox::Reactor<IpIntfStatusSm, Ip::IpInputStatusDir::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onInputStatus(Mox::Name const& name) override { owner()->handleInput(name); }
};

// One input's interface statuses, and a reactor on each status's VRF.
class IpIntfStatusSm::MoxInputStatus
    : public Mox::Reactor<IpIntfStatusSm, Ip::Input::Status::NotifieeConst> {
public:
   class MoxIpIntfStatus : public Mox::Reactor<MoxInputStatus, Ip::IpIntfStatus::NotifieeConst> {
   public:
      MoxIpIntfStatus(MoxInputStatus* input, IpIntfStatusSm* sm) : Reactor(input, sm) {}
      void onVrf() override { owner()->owner()->handleVrf(notifierRaw()->intf(), notifier()); }
   };

   MoxInputStatus(IpIntfStatusSm* sm, Mox::Ptr<Ip::Input::Status const> const& input)
       : Reactor(sm), name_(input->name()) {
      notifierIs(input);
   }
   Mox::Name const& name() const { return name_; }

   void onIpIntfStatus(Konet::IntfId const& intf) override {
      owner()->handleIpIntfStatus(name_, intf);
   }
   void onUrpfConfiguredOnAnyIntf() override { owner()->handleUrpfConfiguredOnAnyIntf(); }

   // Watches (or stops watching) the VRF of the input's status of intf.
   void ipIntfStatusIs(Konet::IntfId const& intf, Mox::Ptr<Ip::IpIntfStatus const> const& s) {
      if (!s) {
         Mox::throwRangeException(
             "null _ipIntfStatus parameter to mutator for "
             "Veld::IpIntfStatusSm::MoxInputStatus::ipIntfStatus not allowed\"");
      }
      auto* r = ipIntfStatus_.find(intf);
      if (r && (*r)->notifierRaw() == s.ptr()) return;
      auto reactor = Mox::make<MoxIpIntfStatus>(this, owner());
      reactor->notifierIs(s);
      ipIntfStatus_.assign(intf, reactor);
   }
   void ipIntfStatusDel(Konet::IntfId const& intf) { ipIntfStatus_.erase(intf); }

private:
   Mox::Name const name_;
   Mox::HashMap<Konet::IntfId, Mox::Ptr<MoxIpIntfStatus>> ipIntfStatus_;
};

IpIntfStatusSm::IpIntfStatusSm(Mox::Ptr<Ip::IpInputStatusDir const> inputStatusDir,
                               Mox::Ptr<Ip::Config const> ipConfig, Mox::Ptr<Ip::Status> ipStatus)
    : inputStatusDir_(std::move(inputStatusDir)),
      ipConfig_(std::move(ipConfig)),
      ipStatus_(std::move(ipStatus)) {
   MOX_TRACE_FN0(th);
   moxInputStatusDir_ = Mox::make<MoxInputStatusDir>(this);
   moxInputStatusDir_->notifierIs(inputStatusDir_);
   handleInitialized();
}

IpIntfStatusSm::~IpIntfStatusSm() { moxDoZombieReactors(true); }

void IpIntfStatusSm::notifierIs(Mox::Ptr<Ip::IpInputStatusDir const> const& inputStatusDir) {
   MOX_TRACE_FN0(th);
   if (inputStatusDir == inputStatusDir_) return;
   inputStatusDir_ = inputStatusDir;
   moxInputStatusDir_->notifierIs(inputStatusDir_);
   inputStatus_.clear();
   initializedSet(false);
   handleInitialized();
}

void IpIntfStatusSm::handleInitialized() {
   MOX_TRACE_FN0(th);
   if (initialized()) return;
   if (inputStatusDir_) {
      for (auto const& name : inputStatusDir_->inputStatusIterator().keys())
         handleInput(name);
   }
   handleDeletedInputStatus();
   initializedSet(true);
}

void IpIntfStatusSm::handleInput(Mox::Name const& name) {
   MOX_TRACE_FN(th, name);
   auto input = inputStatusDir_ ? inputStatusDir_->inputStatus(name) : nullptr;
   if (!input) {
      MOX_TRACE(th, 5, "Status input for " << name << " is NULL.");
      if (inputStatus_.erase(name)) {
         handleDeletedInputStatus();
         handleUrpfConfiguredOnAnyIntf();
      }
      return;
   }
   auto* existing = inputStatus_.find(name);
   if (existing && (*existing)->notifierRaw() == input.ptr()) return;
   inputStatus_.assign(name, Mox::make<MoxInputStatus>(this, input));
   for (auto const& intf : input->ipIntfStatusIterator().keys())
      handleIpIntfStatus(name, intf);
   handleUrpfConfiguredOnAnyIntf();
}

void IpIntfStatusSm::handleIpIntfStatus(Mox::Name const& inputName, Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, inputName << " " << intf);
   auto* reactor = inputStatus_.find(inputName);
   if (!reactor) return;
   auto status = (*reactor)->notifierRaw()->ipIntfStatus(intf);
   if (status) {
      (*reactor)->ipIntfStatusIs(intf, status);
      addIpStatus(intf, status);
      return;
   }
   (*reactor)->ipIntfStatusDel(intf);
   MOX_TRACE(th, 5, "ipIntfStatus deleted: " << intf);
   if (ipStatus_->intf(intf) && ipStatus_->intf(intf)->parent() != (*reactor)->notifierRaw()) {
      return;  // another input's status is the published one
   }
   if (auto other = heldElsewhere(intf, inputName)) {
      addIpStatus(intf, other);
   } else {
      deleteIpStatus(intf);
   }
}

Mox::Ptr<Ip::IpIntfStatus const> IpIntfStatusSm::heldElsewhere(Konet::IntfId const& intf,
                                                               Mox::Name const& except) const {
   Mox::Ptr<Ip::IpIntfStatus const> found;
   for (auto const& [name, reactor] : inputStatus_) {
      if (name == except) continue;
      if (auto s = reactor->notifierRaw()->ipIntfStatus(intf)) found = s;
   }
   return found;
}

void IpIntfStatusSm::addIpStatus(Konet::IntfId const& intf,
                                 Mox::Ptr<Ip::IpIntfStatus const> const& status) {
   MOX_ASSERT(status);
   MOX_TRACE_FN(th, " ipIntfStatus added " << intf << " vrf " << status->vrf());
   auto const* vrf = publishedVrf_.find(intf);
   if (vrf && *vrf != status->vrf()) removeFromVrf(intf);
   ipStatus_->intfIs(status);
   auto entry = ipStatus_->vrfIpIntfStatus(status->vrf());
   if (!entry) {
      MOX_TRACE(th, 5, "Add vrfIpIntfStatus for vrf " << status->vrf());
      entry = ipStatus_->vrfIpIntfStatusIs(status->vrf());
   }
   entry->ipIntfStatusIs(status);
   publishedVrf_.assign(intf, status->vrf());
}

void IpIntfStatusSm::removeFromVrf(Konet::IntfId const& intf) {
   auto const* vrf = publishedVrf_.find(intf);
   if (!vrf) return;
   L3::VrfName name = *vrf;
   publishedVrf_.erase(intf);
   auto entry = ipStatus_->vrfIpIntfStatus(name);
   if (!entry) return;
   MOX_TRACE(th, 5, "Delete " << intf << " from vrfIpIntfStatus of vrf" << name);
   entry->ipIntfStatusDel(intf);
   if (entry->ipIntfStatusSize() == 0) {
      MOX_TRACE(th, 5, "Delete vrfIpIntfStatus of vrf " << name);
      ipStatus_->vrfIpIntfStatusDel(name);
   }
}

void IpIntfStatusSm::deleteIpStatus(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " ipIntfStatus deleted " << intf);
   removeFromVrf(intf);
   ipStatus_->intfDel(intf);
}

void IpIntfStatusSm::handleVrf(Konet::IntfId const& intf,
                               Mox::Ptr<Ip::IpIntfStatus const> const& status) {
   MOX_TRACE_FN(th, " intf " << intf << " vrf " << status->vrf());
   if (ipStatus_->intf(intf) != status) return;  // not the published one
   removeFromVrf(intf);
   addIpStatus(intf, status);
}

void IpIntfStatusSm::handleDeletedInputStatus() {
   MOX_TRACE_FN0(th);
   for (auto const& intf : ipStatus_->intfIterator().keys()) {
      auto published = ipStatus_->intf(intf);
      bool publishedStillHeld = false;
      Mox::Ptr<Ip::IpIntfStatus const> any;
      for (auto const& [name, reactor] : inputStatus_) {
         auto s = reactor->notifierRaw()->ipIntfStatus(intf);
         if (!s) continue;
         any = s;
         if (s == published) publishedStillHeld = true;
      }
      MOX_TRACE(th, 7, "  ips " << intf << " was " << (any ? "" : "not ") << "found");
      if (publishedStillHeld) continue;
      if (any) {
         addIpStatus(intf, any);
      } else {
         deleteIpStatus(intf);
      }
   }
}

void IpIntfStatusSm::handleUrpfConfiguredOnAnyIntf() {
   MOX_TRACE_FN0(th);
   bool any = false;
   for (auto const& [name, reactor] : inputStatus_) {
      bool on = reactor->notifierRaw()->urpfConfiguredOnAnyIntf();
      MOX_TRACE(th, 7, "Status input: " << name << "UrpfConfiguredOnAnyIntf: " << on);
      any = any || on;
   }
   MOX_TRACE(th, 7, " Status: " << any);
   ipStatus_->urpfConfiguredOnAnyIntfIs(any);
}

}  // namespace Veld
