#include "veld/vrf/RibVrfStateSm.h"

#include "mox/Clock.h"
#include "mox/Trace.h"
#include "veld/vrf/RibVrfCabinet.h"

namespace Veld {

static Mox::TraceHandle th("VeldRibVrfState");

using State = RibVrfState::Enum;
using LaunchStatus = VrfTypes::VrfProtocolLaunchStatus;

class RibVrfStateSm::MoxState : public Mox::Reactor<RibVrfStateSm, RibVrfState::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onState() override { owner()->handleState(); }
};

class RibVrfStateSm::MoxVsl
    : public Mox::Reactor<RibVrfStateSm, Ip::VrfStatusLocal::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onState() override { owner()->handleVrfStatusLocal(); }
};

class RibVrfStateSm::MoxStatusDir : public Mox::Reactor<RibVrfStateSm, Mox::Dir::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onEntry(Mox::Name const& name) override {
      if (name == owner()->dirEntryName()) owner()->handleVrfStatusDir();
   }
};

class RibVrfStateSm::MoxVrfStatus
    : public Mox::Reactor<RibVrfStateSm, LaunchStatus::NotifieeConst> {
public:
   using Reactor::Reactor;
   void onInitAgentConditionalMountsTime() override {
      owner()->handleInitAgentConditionalMountsTime();
   }
};

RibVrfStateSm::RibVrfStateSm(Inputs inputs, Mox::Ptr<Ip::VrfStatusLocal const> const& vsl)
    : in_(std::move(inputs)) {
   MOX_TRACE_FN(th, "for vrf " << vrfName() << " agent " << agentName());
   MOX_ASSERT(in_.state);
   MOX_ASSERT(in_.ribVrfCabinet);
   moxState_ = Mox::make<MoxState>(this);
   moxState_->notifierIs(in_.state);
   moxVsl_ = Mox::make<MoxVsl>(this);
   moxVsl_->notifierIs(vsl);
   moxStatusDir_ = Mox::make<MoxStatusDir>(this);
   moxStatusDir_->notifierIs(in_.statusDir);
   moxVrfStatus_ = Mox::make<MoxVrfStatus>(this);
   handleInitialized();
}

RibVrfStateSm::~RibVrfStateSm() { moxDoZombieReactors(true); }

Mox::Ptr<Ip::VrfStatusLocal const> RibVrfStateSm::vsl() const { return moxVsl_->notifier(); }

// A VRF whose status appears already ready counts as becoming ready.
void RibVrfStateSm::vslIs(Mox::Ptr<Ip::VrfStatusLocal const> const& vsl) {
   if (vsl == this->vsl()) return;
   moxVsl_->notifierIs(vsl);
   handleVrfStatusLocal();
}

Mox::Ptr<LaunchStatus const> RibVrfStateSm::vrfStatus() const { return moxVrfStatus_->notifier(); }

// A status entry that already carries its time is taken as if the time had just been set.
void RibVrfStateSm::vrfStatusIs(Mox::Ptr<LaunchStatus const> const& status) {
   if (status == vrfStatus()) return;
   moxVrfStatus_->notifierIs(status);
   if (status && status->initAgentConditionalMountsTime() != 0.0) {
      handleInitAgentConditionalMountsTime();
   }
}

Mox::Ptr<Mox::Dir> RibVrfStateSm::qualDir() const {
   return in_.ribVrfCabinet->getQualPathDir(vrfName(), agentName());
}

// Ready is the VRF local status's state 1 (active).
bool RibVrfStateSm::vslActive() const {
   auto status = vsl();
   return status && status->state() == Ip::VrfState::active;
}

bool RibVrfStateSm::statusExists() const {
   return in_.statusDir && in_.statusDir->entry(dirEntryName());
}

void RibVrfStateSm::handleInitialized() {
   MOX_TRACE_FN(th, "for vrf " << vrfName() << " agent " << agentName());
   if (initialized()) return;
   initializedSet(true);
   evaluateInitState();
}

// The table below is the contract; "watched" is whether the daemon's status entry is
// already followed (vrfStatus). An inactive VRF or an unconfigured daemon that still runs is
// recorded as initiated/started here; the cabinet's pass that follows stops it.
//
//    VRF ready and configured | qual entry | status entry | watched | state
//    no                       | no         | any          | any     | invalid
//    no                       | yes        | no           | any     | stopped
//    no                       | yes        | yes          | yes     | started
//    no                       | yes        | yes          | no      | initiated, then watch
//    yes                      | no         | any          | any     | initiated
//    yes                      | yes        | no           | any     | initiated
//    yes                      | yes        | yes          | yes     | started
//    yes                      | yes        | yes          | no      | initiated, then watch
void RibVrfStateSm::evaluateInitState() {
   MOX_TRACE_FN(th, "for vrf " << vrfName() << " agent " << agentName());
   bool const vslActive = this->vslActive();
   bool const agentConfigPresent =
       in_.multiAgentVrfProtoConfig && in_.multiAgentVrfProtoConfig->agent(vrfName(), agentName());
   auto const qual = qualDir();
   bool const qualPathExists = qual && qual->entry(dirEntryName());
   bool const statusExists = this->statusExists();
   MOX_TRACE(th, 7,
             " for " << vrfName() << " " << agentName() << " vslActive " << vslActive
                     << " agentConfigPresent " << agentConfigPresent << " qualPathExists "
                     << qualPathExists << " statusExists " << statusExists);
   bool const wanted = vslActive && agentConfigPresent;
   bool const watched = vrfStatus() != nullptr;
   bool watch = false;
   State next;
   if (!qualPathExists) {
      next = wanted ? State::initiated : State::invalid;
   } else if (!statusExists) {
      next = wanted ? State::initiated : State::stopped;
   } else if (watched) {
      next = State::started;
   } else {
      next = State::initiated;
      watch = true;
   }
   in_.state->stateIs(next);
   if (watch) vrfStatusIs(in_.statusDir->entry<LaunchStatus>(dirEntryName()));
}

// After every change of this machine's state.
void RibVrfStateSm::handleState() {
   MOX_TRACE_FN(th, "for vrf " << vrfName() << " agent " << agentName() << " state " << state());
   switch (state()) {
      case State::invalid:
         // A machine back at invalid checks its VRF, then announces the daemon again all
         // the same.
         handleVrfStatusLocal();
         [[fallthrough]];
      case State::initiated:
         handleInitiatedState();
         break;
      case State::started:
         handleStartedState();
         break;
      case State::stopped:
         handleStoppedState();
         break;
   }
}

void RibVrfStateSm::handleVrfStatusLocal() {
   MOX_TRACE_FN(th, "for vrf " << vrfName() << " agent " << agentName());
   if (state() != State::invalid) return;
   if (vslActive()) in_.state->stateIs(State::initiated);
}

// The qualification entry is the daemon's signal to start in the VRF.
void RibVrfStateSm::handleInitiatedState() {
   MOX_TRACE_FN(th, "for vrf " << vrfName() << " agent " << agentName());
   auto const qual = qualDir();
   if (!qual->entry<LaunchStatus>(dirEntryName())) {
      qual->entryIs(dirEntryName(), Mox::make<LaunchStatus>(dirEntryName()));
   }
   qualPathStatusIs(qual->entry<LaunchStatus>(dirEntryName()));
   handleVrfStatusDir();
}

void RibVrfStateSm::handleVrfStatusDir() {
   MOX_TRACE_FN(th, "for vrf " << vrfName() << " agent " << agentName());
   bool const exists = statusExists();
   if (exists && state() == State::initiated) {
      in_.state->stateIs(State::started);
      vrfStatusIs(in_.statusDir->entry<LaunchStatus>(dirEntryName()));
   } else if (!exists && state() == State::started) {
      in_.state->stateIs(State::stopped);
   }
}

void RibVrfStateSm::handleStartedState() {
   MOX_TRACE_FN(th, "for vrf " << vrfName() << " agent " << agentName());
}

// Deleting the qualification entry tells the daemon to leave the VRF.
void RibVrfStateSm::handleStoppedState() {
   MOX_TRACE_FN(th, "for vrf " << vrfName() << " agent " << agentName());
   qualDir()->entryDel(dirEntryName());
   qualPathStatusIs(nullptr);
}

void RibVrfStateSm::handleInitAgentConditionalMountsTime() {
   MOX_TRACE_FN(th, "for vrf " << vrfName() << " agent " << agentName());
   if (qualPathStatus_) qualPathStatus_->loadPluginsTimeIs(Mox::System::currentTime());
}

}  // namespace Veld
