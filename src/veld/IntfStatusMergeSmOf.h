// Merges the interface statuses that several producers write (each VRF's interface
// machines, other agents) into the one status the rest of the system reads. The IPv4 and L3
// status machines are this machine with their family's types and what publishing means to
// them; the IPv6 status machine is a third.
//
// Watches the directory of inputs, each input's interface statuses and each status's VRF.
// Each published interface has one source, an input's status of it:
//    unpublished --an input holds it--> published from that input's status
//    published   --another input adds it--> published from the latest addition
//    published   --its source goes--> published from another input that holds it, if any,
//                                     else unpublished
// A VRF change of the source's status publishes it again; of another input's, nothing.
#pragma once

#include <optional>
#include <utility>

#include "konet/IntfId.h"
#include "mox/HashMap.h"
#include "mox/Name.h"
#include "mox/StateMachine.h"
#include "mox/Trace.h"

namespace Veld {

// Family supplies: InputDir, Input, IntfStatus; MoxInput<Sm>, a reactor on an Input that
// forwards its per-interface notification to Sm::handleIntfStatus(name, intf) and may add
// others; inputNames(dir), input(dir, name), intfs(input) and status(input, intf); the trace
// handle `th` and the texts. The machine (Sm, derived from this) supplies publish(intf,
// status), unpublish(intf), publishedIntfs() and inputsChanged().
template <class Sm, class Family>
class IntfStatusMergeSmOf : public Mox::StateMachine {
public:
   using InputDir = typename Family::InputDir;
   using Input = typename Family::Input;
   using IntfStatus = typename Family::IntfStatus;

   // One input: its interface statuses, and a reactor on each status's VRF.
   class MoxInputStatus : public Family::template MoxInput<Sm> {
   public:
      class MoxIntfStatus
          : public Mox::Reactor<MoxInputStatus, typename IntfStatus::NotifieeConst> {
      public:
         MoxIntfStatus(MoxInputStatus* input, Sm* sm, Konet::IntfId intf)
             : Mox::Reactor<MoxInputStatus, typename IntfStatus::NotifieeConst>(input, sm),
               intf_(std::move(intf)) {}
         void onVrf() override {
            this->owner()->sm()->handleVrf(this->owner()->name(), intf_, this->notifier());
         }

      private:
         Konet::IntfId const intf_;
      };

      MoxInputStatus(Sm* sm, Mox::Name name, Mox::Ptr<Input const> const& input)
          : Family::template MoxInput<Sm>(sm), name_(std::move(name)) {
         this->notifierIs(input);
      }
      Mox::Name const& name() const { return name_; }
      Sm* sm() const { return this->owner(); }

      // Watches the VRF of the input's status of intf.
      void statusIs(Konet::IntfId const& intf, Mox::Ptr<IntfStatus const> const& status) {
         if (!status) Mox::throwRangeException(Family::kNullStatus);
         auto* r = intfStatus_.find(intf);
         if (r && (*r)->notifierRaw() == status.ptr()) return;
         auto reactor = Mox::make<MoxIntfStatus>(this, this->owner(), intf);
         reactor->notifierIs(status);
         intfStatus_.assign(intf, reactor);
      }
      void statusDel(Konet::IntfId const& intf) { intfStatus_.erase(intf); }

   private:
      Mox::Name const name_;
      Mox::HashMap<Konet::IntfId, Mox::Ptr<MoxIntfStatus>> intfStatus_;
   };

   explicit IntfStatusMergeSmOf(Mox::Ptr<InputDir const> inputStatusDir)
       : inputStatusDir_(std::move(inputStatusDir)) {}
   ~IntfStatusMergeSmOf() override { this->moxDoZombieReactors(true); }

   Mox::Ptr<InputDir const> const& inputStatusDir() const { return inputStatusDir_; }

   // Re-points the machine to another directory of inputs and re-syncs.
   void notifierIs(Mox::Ptr<InputDir const> const& inputStatusDir) {
      MOX_TRACE_FN0(Family::th);
      if (inputStatusDir == inputStatusDir_) return;
      inputStatusDir_ = inputStatusDir;
      moxInputStatusDir_->notifierIs(inputStatusDir_);
      inputStatus_.clear();
      initializedSet(false);
      handleInitialized();
   }

   void handleInitialized() {
      MOX_TRACE_FN0(Family::th);
      if (initialized()) return;
      if (!moxInputStatusDir_) {
         moxInputStatusDir_ = Mox::make<MoxInputStatusDir>(sm());
         moxInputStatusDir_->notifierIs(inputStatusDir_);
      }
      if (inputStatusDir_) {
         for (auto const& name : Family::inputNames(*inputStatusDir_))
            handleInput(name);
      }
      handleDeletedInputStatus();
      initializedSet(true);
   }

   // An input appeared or went.
   void handleInput(Mox::Name const& name) {
      MOX_TRACE_FN(Family::th, name);
      auto input = inputStatusDir_ ? Family::input(*inputStatusDir_, name) : nullptr;
      if (!input) {
         MOX_TRACE(Family::th, 5, "Status input for " << name << " is NULL.");
         if (inputStatus_.erase(name)) {
            handleDeletedInputStatus();
            sm()->inputsChanged();
         }
         return;
      }
      auto* existing = inputStatus_.find(name);
      if (existing && (*existing)->notifierRaw() == input.ptr()) return;
      inputStatus_.assign(name, Mox::make<MoxInputStatus>(sm(), name, input));
      for (auto const& intf : Family::intfs(*input))
         handleIntfStatus(name, intf);
      sm()->inputsChanged();
   }

   // An input's status of intf appeared or went.
   void handleIntfStatus(Mox::Name const& inputName, Konet::IntfId const& intf) {
      MOX_TRACE_FN(Family::th, inputName << " " << intf);
      auto* reactor = inputStatus_.find(inputName);
      if (!reactor) return;
      auto status = Family::status(*(*reactor)->notifierRaw(), intf);
      if (status) {
         (*reactor)->statusIs(intf, status);
         publishFrom(intf, inputName, status);
         return;
      }
      (*reactor)->statusDel(intf);
      MOX_TRACE(Family::th, 5, Family::kIntfStatusDeleted << intf);
      auto const* source = source_.find(intf);
      if (source && source->input != inputName) return;  // another input's is the published one
      republish(intf, inputName);
   }

   // The VRF of an input's status of intf changed.
   void handleVrf(Mox::Name const& inputName, Konet::IntfId const& intf,
                  Mox::Ptr<IntfStatus const> const& status) {
      MOX_TRACE_FN(Family::th, " intf " << intf << " vrf " << status->vrf());
      auto const* source = source_.find(intf);
      if (!source || source->status != status) return;  // not the published one
      publishFrom(intf, inputName, status);
   }

   // After an input went: each published interface keeps its source if an input still holds
   // it, else takes another holder's status, else is unpublished.
   void handleDeletedInputStatus() {
      MOX_TRACE_FN0(Family::th);
      for (auto const& intf : sm()->publishedIntfs()) {
         auto const* source = source_.find(intf);
         bool held = source && heldBy(source->input, intf) == source->status;
         MOX_TRACE(Family::th, 7,
                   Family::kSweep << intf << " was " << (held ? "" : "not ") << "found");
         if (!held) republish(intf, Mox::Name());
      }
   }

   // The inputs, for the machine's own sweeps over them.
   template <class F>
   void forEachInput(F&& f) const {
      for (auto const& [name, reactor] : inputStatus_)
         f(name, *reactor->notifierRaw());
   }

private:
   class MoxInputStatusDir : public Mox::Reactor<Sm, typename InputDir::NotifieeConst> {
   public:
      using Mox::Reactor<Sm, typename InputDir::NotifieeConst>::Reactor;
      void onInputStatus(Mox::Name const& name) override { this->owner()->handleInput(name); }
   };
   struct Source {
      Mox::Name input;
      Mox::Ptr<IntfStatus const> status;
   };

   Sm* sm() { return static_cast<Sm*>(this); }

   Mox::Ptr<IntfStatus const> heldBy(Mox::Name const& inputName, Konet::IntfId const& intf) const {
      auto const* reactor = inputStatus_.find(inputName);
      return reactor ? Family::status(*(*reactor)->notifierRaw(), intf) : nullptr;
   }

   void publishFrom(Konet::IntfId const& intf, Mox::Name const& inputName,
                    Mox::Ptr<IntfStatus const> const& status) {
      source_.assign(intf, Source{inputName, status});
      sm()->publish(intf, status);
   }

   // Publishes intf from the latest-added input other than `except` that holds it, or
   // unpublishes it.
   void republish(Konet::IntfId const& intf, Mox::Name const& except) {
      std::optional<std::pair<Mox::Name, Mox::Ptr<IntfStatus const>>> found;
      for (auto const& [name, reactor] : inputStatus_) {
         if (name == except) continue;
         if (auto s = Family::status(*reactor->notifierRaw(), intf)) found.emplace(name, s);
      }
      if (found) {
         publishFrom(intf, found->first, found->second);
         return;
      }
      source_.erase(intf);
      sm()->unpublish(intf);
   }

   Mox::Ptr<InputDir const> inputStatusDir_;
   Mox::Ptr<MoxInputStatusDir> moxInputStatusDir_;
   Mox::HashMap<Mox::Name, Mox::Ptr<MoxInputStatus>> inputStatus_;
   Mox::HashMap<Konet::IntfId, Source> source_;
};

}  // namespace Veld
