// The routing daemons' launch handshakes, all VRFs: one RibVrfStateSm and its RibVrfState
// per (VRF, daemon) that the configuration names.
//
// Watches the daemons configured per VRF (MultiAgentVrfProtoConfig) and the VRFs' local
// status entries and their state (AllVrfStatusLocal). Writes its per-VRF lists of states and
// machines; the machines write the qualification directories.
//
// Our choices where the handshake leaves them open:
//  - Directories. The qualification root holds one directory per daemon, named after it
//    ("Ospf", "Ospf3", "Isis", "IpRib", "Bgp", "ConnectedRoute", "StaticRoute",
//    "RouteInput"), made by the cabinet; the status root is laid out the same way by
//    whoever fills it. getQualPathDir(vrf, daemon) is the daemon's directory whatever the
//    VRF: one directory per daemon holds its entries for every VRF.
//  - dirEntryName is the VRF's name as it stands ("default" for the default VRF). VRF names
//    are letters, digits and "_-." where they enter, so an entry name is a usable file name.
//  - Who makes the machines: this cabinet, from the configuration. A daemon configured in a
//    VRF gets its machine at once, whatever the VRF's state (an unready VRF leaves it
//    invalid until the VRF is ready).
//  - Telling a daemon to leave: when the VRF stops being ready (its local status leaves the
//    active state, or goes), the VRF's initiated and started machines are set stopped, which
//    deletes their qualification entries. When a daemon leaves a VRF's configuration (or the
//    VRF leaves it), its machine is set stopped, then removed with its state.
//  - Running again: a stopped machine stays stopped (so a daemon that went away is not asked
//    back at once); it is made anew, from the directories, when its VRF becomes ready again
//    or the daemon is configured in the VRF again.
//  - stopAllAgentsForAllVrfs() sets every machine stopped: every qualification entry goes,
//    and every daemon leaves every VRF until one of the above makes its machine anew.
//  - At start, a qualification entry of a (VRF, daemon) the configuration no longer names
//    is deleted (the configuration changed while the agent was down); the others are taken
//    up by their machines, which keep the entries of running daemons.
//  - Removing the machines (smListDel, smListDelAll, the cabinet's destruction) stops
//    nothing: a restarting agent leaves the daemons running.
// The switchover flag is held for the post-switchover handling of the VRF machines.
#pragma once

#include <array>
#include <string_view>

#include "konet/VrfName.h"
#include "mox/Dir.h"
#include "mox/HashMap.h"
#include "mox/Inputs.h"
#include "mox/StateMachine.h"
#include "platform/Agent.h"
#include "platform/Ip.h"
#include "veld/redundancy/SsoConfig.h"
#include "veld/vrf/RibVrfState.h"
#include "veld/vrf/RibVrfStateSm.h"

namespace Veld {

class RibVrfCabinet : public Mox::StateMachine {
public:
#define VELD_RIB_VRF_CABINET_INPUTS(X)                                             \
   X(Mox::Ptr<VrfTypes::MultiAgentVrfProtoConfig const>, multiAgentVrfProtoConfig) \
   X(Mox::Ptr<Ip::AllVrfStatusLocal const>, allVrfStatusLocal)                     \
   X(Mox::Ptr<SsoConfig const>, ssoConfig)                                         \
   X(Mox::Ptr<Mox::Dir>, qualDir)                                                  \
   X(Mox::Ptr<Mox::Dir const>, statusDir)
   struct Inputs {
      MOX_INPUTS(VELD_RIB_VRF_CABINET_INPUTS)
   };

   // The daemons that can be told to run in a VRF.
   static constexpr std::array<std::string_view, 8> kAgentNames{
       "Ospf", "Ospf3", "Isis", "IpRib", "Bgp", "ConnectedRoute", "StaticRoute", "RouteInput"};
   static constexpr bool isAgentName(std::string_view name) {
      for (auto known : kAgentNames) {
         if (known == name) return true;
      }
      return false;
   }

   explicit RibVrfCabinet(Inputs inputs);
   ~RibVrfCabinet() override;

   Inputs const& inputs() const { return in_; }

   Mox::Ptr<RibVrfStateList> stateList(L3::VrfName const& vrf) const {
      return Mox::valueOr(stateList_, vrf);
   }
   Mox::HashMap<L3::VrfName, Mox::Ptr<RibVrfStateList>> const& stateListIterator() const {
      return stateList_;
   }
   Mox::Ptr<RibVrfStateSmList> smList(L3::VrfName const& vrf) const {
      return Mox::valueOr(smList_, vrf);
   }
   Mox::HashMap<L3::VrfName, Mox::Ptr<RibVrfStateSmList>> const& smListIterator() const {
      return smList_;
   }
   Mox::Ptr<RibVrfStateSm> sm(L3::VrfName const& vrf, Mox::String const& agent) const;
   // The VRF's machines and states go; their qualification entries stay.
   void smListDel(L3::VrfName const& vrf);
   void smListDelAll();

   // The named daemon's qualification directory; an unknown name is a programming error.
   Mox::Ptr<Mox::Dir> getQualPathDir(L3::VrfName const& vrfName,
                                     Mox::String const& agentName) const;
   // Its status directory (null while nobody made it).
   Mox::Ptr<Mox::Dir const> getStatusPathDir(L3::VrfName const& vrfName,
                                             Mox::String const& agentName) const;
   void stopAllAgentsForAllVrfs();

   void handleInitialized();
   void handleVrf(L3::VrfName const& vrf);

private:
   class MoxMultiAgentVrfProtoConfig;
   class MoxAllVrfStatusLocal;
   class MoxVrfStatusLocal;

   Mox::Ptr<RibVrfStateSm> ribVrfStateSmIs(L3::VrfName const& vrf, Mox::String const& agent,
                                           Mox::Ptr<Ip::VrfStatusLocal const> const& vsl);
   void ribVrfStateSmDel(L3::VrfName const& vrf, Mox::String const& agent);
   void doStop(RibVrfStateSm const& sm);
   void watchVrfStatusLocal(L3::VrfName const& vrf,
                            Mox::Ptr<Ip::VrfStatusLocal const> const& status);
   void deleteUnconfiguredQualEntries();

   Inputs const in_;
   Mox::HashMap<L3::VrfName, Mox::Ptr<RibVrfStateList>> stateList_;
   Mox::HashMap<L3::VrfName, Mox::Ptr<RibVrfStateSmList>> smList_;
   // The VRFs with daemons configured whose local status was ready when last seen.
   Mox::HashSet<L3::VrfName> ready_;
   Mox::Ptr<MoxMultiAgentVrfProtoConfig> moxMultiAgentVrfProtoConfig_;
   Mox::Ptr<MoxAllVrfStatusLocal> moxAllVrfStatusLocal_;
   Mox::HashMap<L3::VrfName, Mox::Ptr<MoxVrfStatusLocal>> vrfStatusLocal_;
};

}  // namespace Veld
