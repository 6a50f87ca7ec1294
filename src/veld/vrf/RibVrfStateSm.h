// The launch handshake of one routing daemon in one VRF.
//
// Watches its own RibVrfState, the VRF's local status (VrfStatusLocal), the daemon's
// status directory (an entry named dirEntryName says the daemon runs in the VRF) and, once
// the daemon runs, that status entry. Writes the RibVrfState and the entry dirEntryName of
// the daemon's qualification directory (the request to run; deleted to make it leave).
//
//    invalid --VRF ready--> initiated --status entry appears--> started
//                           (qual entry made)                      |
//                                                      status entry goes
//                                                                  v
//                                                               stopped (qual entry deleted)
//
// The first state comes from the directories as they stand (evaluateInitState), so that a
// restarted agent takes up a running daemon without disturbing it. A stopped machine stays
// stopped; the cabinet makes a new one when the daemon is to run again. The cabinet also
// stops the machine when the VRF stops being ready or the daemon leaves the VRF's
// configuration.
#pragma once

#include "konet/VrfName.h"
#include "mox/Dir.h"
#include "mox/HashMap.h"
#include "mox/Inputs.h"
#include "mox/StateMachine.h"
#include "platform/Agent.h"
#include "platform/Ip.h"
#include "veld/vrf/RibVrfState.h"

namespace Veld {

class RibVrfCabinet;

class RibVrfStateSm : public Mox::StateMachine {
public:
#define VELD_RIB_VRF_STATE_SM_INPUTS(X)                                            \
   X(L3::VrfName, vrfName)                                                         \
   X(Mox::String, agentName)                                                       \
   X(Mox::Name, dirEntryName)                                                      \
   X(Mox::Ptr<RibVrfState>, state)                                                 \
   X(Mox::Ptr<Mox::Dir const>, statusDir)                                          \
   X(Mox::Ptr<VrfTypes::MultiAgentVrfProtoConfig const>, multiAgentVrfProtoConfig) \
   X(RibVrfCabinet*, ribVrfCabinet)
   struct Inputs {
      MOX_INPUTS(VELD_RIB_VRF_STATE_SM_INPUTS)
   };

   // `vsl` is the VRF's local status, null while the VRF has none.
   RibVrfStateSm(Inputs inputs, Mox::Ptr<Ip::VrfStatusLocal const> const& vsl);
   ~RibVrfStateSm() override;

   Inputs const& inputs() const { return in_; }
   L3::VrfName const& vrfName() const { return in_.vrfName; }
   Mox::String const& agentName() const { return in_.agentName; }
   Mox::Name const& dirEntryName() const { return in_.dirEntryName; }
   RibVrfState::Enum state() const { return in_.state->state(); }

   Mox::Ptr<Ip::VrfStatusLocal const> vsl() const;
   void vslIs(Mox::Ptr<Ip::VrfStatusLocal const> const& vsl);
   // The daemon's status entry, watched once it runs.
   Mox::Ptr<VrfTypes::VrfProtocolLaunchStatus const> vrfStatus() const;
   void vrfStatusIs(Mox::Ptr<VrfTypes::VrfProtocolLaunchStatus const> const& status);
   // The qualification entry this machine made.
   Mox::Ptr<VrfTypes::VrfProtocolLaunchStatus> const& qualPathStatus() const {
      return qualPathStatus_;
   }
   void qualPathStatusIs(Mox::Ptr<VrfTypes::VrfProtocolLaunchStatus> const& s) {
      qualPathStatus_ = s;
   }

   void handleInitialized();
   void evaluateInitState();
   void handleState();
   void handleVrfStatusLocal();
   void handleVrfStatusDir();
   void handleInitiatedState();
   void handleStartedState();
   void handleStoppedState();
   void handleInitAgentConditionalMountsTime();

private:
   class MoxState;
   class MoxVsl;
   class MoxStatusDir;
   class MoxVrfStatus;

   Mox::Ptr<Mox::Dir> qualDir() const;
   bool vslActive() const;
   bool statusExists() const;

   Inputs const in_;
   Mox::Ptr<VrfTypes::VrfProtocolLaunchStatus> qualPathStatus_;
   Mox::Ptr<MoxState> moxState_;
   Mox::Ptr<MoxVsl> moxVsl_;
   Mox::Ptr<MoxStatusDir> moxStatusDir_;
   Mox::Ptr<MoxVrfStatus> moxVrfStatus_;
};

// One VRF's machines, by daemon name.
class RibVrfStateSmList : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<RibVrfStateSmList> {
   public:
      virtual void onSm(Mox::String const&) {}
   };
   using Sms = Mox::HashMap<Mox::String, Mox::Ptr<RibVrfStateSm>>;

   explicit RibVrfStateSmList(L3::VrfName vrfName) : vrfName_(std::move(vrfName)) {}
   L3::VrfName const& vrfName() const { return vrfName_; }

   Mox::Ptr<RibVrfStateSm> sm(Mox::String const& agent) const { return Mox::valueOr(sm_, agent); }
   void smIs(Mox::String const& agent, Mox::Ptr<RibVrfStateSm> const& sm) {
      setMember(sm_, agent, sm, &NotifieeConst::onSm);
   }
   void smDel(Mox::String const& agent) { delMember(sm_, agent, &NotifieeConst::onSm); }
   Sms const& smIterator() const { return sm_; }

private:
   L3::VrfName const vrfName_;
   Sms sm_;
};

}  // namespace Veld
