// The inputs of the RIB VRF machines, as the agent gives them: the daemons configured per
// VRF, the VRFs' local status, and the qualification and status roots with one directory
// per daemon.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "mox/Clock.h"
#include "veld/vrf/RibVrfCabinet.h"

namespace VeldTest {

using State = Veld::RibVrfState::Enum;
using LaunchStatus = VrfTypes::VrfProtocolLaunchStatus;

// Every state a RibVrfState goes through, in order.
class StateRecorder : public Veld::RibVrfState::NotifieeConst {
public:
   void onState() override { seen.push_back(notifierRaw()->state()); }
   std::vector<State> seen;
};

// The names of the entries deleted from a directory, in order.
class DeletionRecorder : public Mox::Dir::NotifieeConst {
public:
   void onEntry(Mox::Name const& name) override {
      if (!notifierRaw()->entry(name)) deleted.push_back(name.string());
   }
   std::vector<std::string> deleted;
};

struct RibVrfFixture : ::testing::Test {
   RibVrfFixture() {
      for (auto agent : Veld::RibVrfCabinet::kAgentNames)
         statusRoot->dirIs(agent);
   }

   Mox::Ptr<Veld::RibVrfCabinet> makeCabinet() {
      cabinet = Mox::make<Veld::RibVrfCabinet>(
          Veld::RibVrfCabinet::Inputs{.multiAgentVrfProtoConfig = config,
                                      .allVrfStatusLocal = vsls,
                                      .ssoConfig = Veld::ssoConfigFactory(),
                                      .qualDir = qualRoot,
                                      .statusDir = statusRoot});
      return cabinet;
   }

   void vrfStateIs(char const* vrf, Ip::VrfState state) {
      vsls->vrfIs(L3::VrfName(vrf))->stateIs(state);
   }
   Mox::Ptr<Mox::Dir> qual(char const* agent) const { return qualRoot->dirIs(agent); }
   Mox::Ptr<Mox::Dir> status(char const* agent) const { return statusRoot->dirIs(agent); }
   bool hasQual(char const* agent, char const* vrf) const { return bool(qual(agent)->entry(vrf)); }
   // The daemon reports that it runs in the VRF, or that it left.
   Mox::Ptr<LaunchStatus> daemonRuns(char const* agent, char const* vrf) const {
      auto s = Mox::make<LaunchStatus>(vrf);
      status(agent)->entryIs(vrf, s);
      return s;
   }
   void daemonLeaves(char const* agent, char const* vrf) const { status(agent)->entryDel(vrf); }
   void qualIs(char const* agent, char const* vrf) const {
      qual(agent)->entryIs(vrf, Mox::make<LaunchStatus>(vrf));
   }
   void configure(char const* vrf, std::set<Mox::String> agents) {
      config->agentsIs(L3::VrfName(vrf), agents);
   }
   State stateOf(char const* vrf, char const* agent) const {
      auto sm = cabinet->sm(L3::VrfName(vrf), agent);
      return sm ? sm->state() : State::invalid;
   }

   Mox::ScopedVirtualTime time;
   Mox::Ptr<VrfTypes::MultiAgentVrfProtoConfig> config =
       Mox::make<VrfTypes::MultiAgentVrfProtoConfig>();
   Mox::Ptr<Ip::AllVrfStatusLocal> vsls = Mox::make<Ip::AllVrfStatusLocal>();
   Mox::Ptr<Mox::Dir> qualRoot = Mox::make<Mox::Dir>("qual");
   Mox::Ptr<Mox::Dir> statusRoot = Mox::make<Mox::Dir>("status");
   Mox::Ptr<Veld::RibVrfCabinet> cabinet;
};

}  // namespace VeldTest
