// One (VRF, daemon) machine on its own: its first state from the directories, its string
// forms, the pass from invalid and the daemon's start time.
#include "veld/vrf/RibVrfStateSm.h"

#include <gtest/gtest.h>

#include "mox/Error.h"
#include "tests/veld/vrf/RibVrfFixture.h"

namespace VeldTest {
namespace {

TEST(RibVrfStateTest, EveryStateRoundTripsThroughItsName) {
   struct Row {
      State state;
      uint8_t value;
      char const* name;
   };
   for (auto const& r : {Row{State::invalid, 0, "invalid"}, Row{State::initiated, 1, "initiated"},
                         Row{State::started, 2, "started"}, Row{State::stopped, 3, "stopped"}}) {
      EXPECT_EQ(Mox::stringValue(r.state), r.name);
      EXPECT_EQ(Mox::enumFromName<State>(r.name), r.state);
      EXPECT_EQ(Mox::enumFromValue<State>(r.value), r.state);
   }
   EXPECT_EQ(Mox::enumFromValue<State>(4), std::nullopt);
   EXPECT_EQ(Mox::enumFromName<State>("running"), std::nullopt);
}

// The machine under test is made apart from the cabinet (which only lends it the
// qualification directories), with a configuration of its own.
struct RibVrfStateSmTest : RibVrfFixture {
   RibVrfStateSmTest() { makeCabinet(); }

   Mox::Ptr<Veld::RibVrfStateSm> makeSm(bool configured) {
      auto ownConfig = Mox::make<VrfTypes::MultiAgentVrfProtoConfig>();
      if (configured) ownConfig->agentsIs(L3::VrfName("red"), {"Bgp"});
      state = Mox::make<Veld::RibVrfState>(L3::VrfName("red"));
      recorder = Mox::make<StateRecorder>();
      recorder->notifierIs(state);
      return Mox::make<Veld::RibVrfStateSm>(
          Veld::RibVrfStateSm::Inputs{.vrfName = L3::VrfName("red"),
                                      .agentName = "Bgp",
                                      .dirEntryName = "red",
                                      .state = state,
                                      .statusDir = status("Bgp"),
                                      .multiAgentVrfProtoConfig = ownConfig,
                                      .ribVrfCabinet = cabinet.ptr()},
          vsls->vrf(L3::VrfName("red")));
   }

   Mox::Ptr<Veld::RibVrfState> state;
   Mox::Ptr<StateRecorder> recorder;
};

TEST_F(RibVrfStateSmTest, FirstStateFollowsTheTableRowByRow) {
   struct Row {
      bool ready, configured, qual, status, watched;
      State expected;
   };
   // The first state written; "watched" rows evaluate again once the status is followed.
   Row const rows[] = {
       {false, false, false, false, false, State::invalid},
       {false, true, false, true, false, State::invalid},
       {true, false, false, false, false, State::invalid},
       {false, true, true, false, false, State::stopped},
       {true, false, true, false, false, State::stopped},
       {false, true, true, true, true, State::started},
       {false, false, true, true, false, State::initiated},
       {true, true, false, false, false, State::initiated},
       {true, true, false, true, false, State::initiated},
       {true, true, true, false, false, State::initiated},
       {true, true, true, true, true, State::started},
       {true, true, true, true, false, State::initiated},
   };
   for (auto const& r : rows) {
      SCOPED_TRACE(::testing::Message()
                   << "ready " << r.ready << " configured " << r.configured << " qual " << r.qual
                   << " status " << r.status << " watched " << r.watched);
      vrfStateIs("red", r.ready ? Ip::VrfState::active : Ip::VrfState::initializing);
      qual("Bgp")->entryDelAll();
      status("Bgp")->entryDelAll();
      if (r.qual) qualIs("Bgp", "red");
      if (r.status) daemonRuns("Bgp", "red");
      auto sm = makeSm(r.configured);
      if (r.watched) {
         ASSERT_NE(sm->vrfStatus(), nullptr);
         recorder->seen.clear();
         sm->evaluateInitState();
      } else {
         EXPECT_EQ(sm->vrfStatus() != nullptr, r.expected == State::initiated && r.status);
      }
      State first = recorder->seen.empty() ? state->state() : recorder->seen.front();
      EXPECT_EQ(first, r.expected);
   }
}

TEST_F(RibVrfStateSmTest, InvalidTurnsInitiatedWhenTheVrfBecomesReady) {
   vrfStateIs("red", Ip::VrfState::initializing);
   auto sm = makeSm(true);
   EXPECT_EQ(sm->state(), State::invalid);
   EXPECT_FALSE(hasQual("Bgp", "red"));
   daemonRuns("Bgp", "blue");  // another VRF's entry is not this machine's
   EXPECT_EQ(sm->state(), State::invalid);
   vrfStateIs("red", Ip::VrfState::active);
   EXPECT_EQ(sm->state(), State::initiated);
   EXPECT_TRUE(hasQual("Bgp", "red"));
   EXPECT_EQ(sm->qualPathStatus(), qual("Bgp")->entry<LaunchStatus>("red"));
}

TEST_F(RibVrfStateSmTest, HandleStateFromInvalidAnnouncesTheDaemonEvenInAnUnreadyVrf) {
   vrfStateIs("red", Ip::VrfState::initializing);
   auto sm = makeSm(true);
   sm->handleState();
   EXPECT_EQ(sm->state(), State::invalid);
   EXPECT_TRUE(hasQual("Bgp", "red"));
   EXPECT_TRUE(recorder->seen.empty());
   // The VRF turning ready moves it on, keeping the entry made.
   vrfStateIs("red", Ip::VrfState::active);
   EXPECT_EQ(recorder->seen, (std::vector<State>{State::initiated}));
   EXPECT_TRUE(hasQual("Bgp", "red"));
}

TEST_F(RibVrfStateSmTest, StatusTimeStampsTheQualificationAndGoingAwayStops) {
   vrfStateIs("red", Ip::VrfState::active);
   auto sm = makeSm(true);
   auto qualEntry = qual("Bgp")->entry<LaunchStatus>("red");
   ASSERT_NE(qualEntry, nullptr);
   auto report = daemonRuns("Bgp", "red");
   EXPECT_EQ(sm->state(), State::started);
   EXPECT_EQ(sm->vrfStatus(), report);
   EXPECT_EQ(qualEntry->loadPluginsTime(), 0.0);
   time.source().elapse(5.0);
   report->initAgentConditionalMountsTimeIs(1.0);
   EXPECT_EQ(qualEntry->loadPluginsTime(), time.now());
   // A status entry of another kind is not the daemon's report.
   status("Bgp")->entryIs("red", Mox::make<Mox::Dir>("red"));
   EXPECT_EQ(sm->state(), State::started);
   daemonLeaves("Bgp", "red");
   EXPECT_EQ(sm->state(), State::stopped);
   EXPECT_FALSE(hasQual("Bgp", "red"));
   EXPECT_EQ(sm->qualPathStatus(), nullptr);
   // Stopped stays stopped: the daemon coming back is not asked again by this machine.
   daemonRuns("Bgp", "red");
   EXPECT_EQ(sm->state(), State::stopped);
   EXPECT_FALSE(hasQual("Bgp", "red"));
}

TEST_F(RibVrfStateSmTest, AnUnknownDaemonNameIsAProgrammingError) {
   try {
      cabinet->getQualPathDir(L3::VrfName("red"), "Rip");
      FAIL() << "no assertion";
   } catch (Cinder::AssertException const& e) {
      EXPECT_EQ(e.expression(), "!\"Invalid agent name\"");
   }
   for (auto agent : Veld::RibVrfCabinet::kAgentNames)
      EXPECT_NE(cabinet->getQualPathDir(L3::VrfName("red"), agent), nullptr);
}

}  // namespace
}  // namespace VeldTest
