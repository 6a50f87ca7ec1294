// Where a routing daemon stands in one VRF, as the IP agent sees it: one RibVrfState per
// (VRF, daemon), kept by that pair's RibVrfStateSm, and the VRF's list of them by daemon.
#pragma once

#include <cstdint>
#include <ostream>

#include "konet/VrfName.h"
#include "mox/Entity.h"
#include "mox/Enum.h"
#include "mox/HashMap.h"
#include "mox/Name.h"
#include "mox/Ptr.h"

namespace Veld {

class RibVrfState : public Mox::Entity {
public:
   enum class Enum : uint8_t {
      invalid = 0,    // nothing published for the daemon in this VRF
      initiated = 1,  // asked to run (qualification entry made), not reported yet
      started = 2,    // its status entry for the VRF exists
      stopped = 3,    // its status entry is gone (or never came): told to leave
   };
   friend constexpr auto moxEnumNames(Enum) {
      return Mox::EnumNames<Enum, 4>{{{Enum::invalid, "invalid"},
                                      {Enum::initiated, "initiated"},
                                      {Enum::started, "started"},
                                      {Enum::stopped, "stopped"}}};
   }
   friend std::ostream& operator<<(std::ostream& os, Enum e) { return Mox::streamEnum(os, e); }

   class NotifieeConst : public Mox::EntityNotifiee<RibVrfState> {
   public:
      virtual void onState() {}
   };

   explicit RibVrfState(L3::VrfName vrfName) : vrfName_(std::move(vrfName)) {}
   L3::VrfName const& vrfName() const { return vrfName_; }

   Enum state() const { return state_; }
   void stateIs(Enum s) { setAttr(state_, s, &NotifieeConst::onState); }

private:
   L3::VrfName const vrfName_;
   Enum state_ = Enum::invalid;
};

// One VRF's states, by daemon name.
class RibVrfStateList : public Mox::Entity {
public:
   static constexpr Mox::AttrId kState = 1;
   class NotifieeConst : public Mox::EntityNotifiee<RibVrfStateList> {
   public:
      virtual void onState(Mox::String const&) {}
   };
   using States = Mox::HashMap<Mox::String, Mox::Ptr<RibVrfState>>;

   explicit RibVrfStateList(L3::VrfName vrfName) : vrfName_(std::move(vrfName)) {}
   L3::VrfName const& vrfName() const { return vrfName_; }

   Mox::Ptr<RibVrfState> state(Mox::String const& agent) const {
      return Mox::valueOr(state_, agent);
   }
   // The daemon's state, made (invalid) when absent.
   Mox::Ptr<RibVrfState> stateIs(Mox::String const& agent) {
      if (auto s = state(agent)) return s;
      auto s = Mox::make<RibVrfState>(vrfName_);
      adopt(s.ptr(), kState);
      state_.emplace(agent, s);
      notify(&NotifieeConst::onState, agent);
      return s;
   }
   void stateDel(Mox::String const& agent) { delMember(state_, agent, &NotifieeConst::onState); }
   States const& stateIterator() const { return state_; }

private:
   L3::VrfName const vrfName_;
   States state_;
};

}  // namespace Veld
