// Delivery of changes to reactors, and what handlers may do during delivery.
#include <gtest/gtest.h>

#include "TestEntities.h"

using namespace MoxTest;
using Mox::make;
using Mox::Ptr;

namespace {

int64_t live(char const* type) {
   int64_t n = 0;
   for (auto const* info : Mox::AllocTrackTypeInfo::all()) {
      if (info->name() == type) n += info->liveObjects();
   }
   return n;
}

Ptr<Recorder> recorderOn(Ptr<Port> const& port, std::string name,
                         std::vector<std::string>* log = nullptr) {
   auto r = make<Recorder>(std::move(name));
   r->log = log;
   r->notifierIs(port);
   return r;
}

}  // namespace

TEST(Ptr, CountsReferencesAndTracksLiveObjectsPerType) {
   int64_t before = live("MoxTest::SubPort");
   {
      auto s = make<SubPort>(1);
      EXPECT_EQ(s->references(), 1u);
      {
         Ptr<SubPort const> c = s;
         EXPECT_EQ(s->references(), 2u);
      }
      EXPECT_EQ(live("MoxTest::SubPort"), before + 1);
   }
   EXPECT_EQ(live("MoxTest::SubPort"), before);
}

TEST(Ptr, ThreadSafeFlagSelectsAtomicCountingWithSameResult) {
   for (bool flag : {false, true}) {
      Mox::VFPtrInterface::threadSafePointers_ = flag;
      auto s = make<SubPort>(1);
      std::vector<Ptr<SubPort>> copies(100, s);
      EXPECT_EQ(s->references(), 101u);
      copies.clear();
      EXPECT_EQ(s->references(), 1u);
   }
   Mox::VFPtrInterface::threadSafePointers_ = false;
}

TEST(Delivery, ValueChangeIsDeliveredOnceAndUnchangedWriteIsSilent) {
   auto port = make<Port>();
   auto r = recorderOn(port, "r");
   port->speedIs(100);
   port->speedIs(100);
   port->descriptionIs("uplink");
   EXPECT_EQ(r->seen, (std::vector<std::string>{"speed", "description"}));
}

TEST(Delivery, CollectionsDeliverPerKeyIncludingDeletion) {
   auto port = make<Port>();
   auto r = recorderOn(port, "r");
   std::vector<bool> presentAtDelivery;
   r->action = [&] { presentAtDelivery.push_back(port->vlan(10)); };
   port->vlanIs(10);
   port->vlanIs(10);  // already there: silent
   port->vlanDel(10);
   port->vlanDel(10);  // already gone: silent
   EXPECT_EQ(r->seen, (std::vector<std::string>{"vlan:10", "vlan:10"}));
   EXPECT_EQ(presentAtDelivery, (std::vector<bool>{true, false}));

   r->action = nullptr;
   port->counterIs("a", 1);
   port->counterIs("a", 1);
   port->counterIs("a", 2);
   port->subIs(3);
   port->subIs(3);
   port->subDelAll();
   EXPECT_EQ(r->seen, (std::vector<std::string>{"vlan:10", "vlan:10", "counter:a", "counter:a",
                                                "sub:3", "sub:3"}));
}

TEST(Delivery, InactiveUnregisteredAndZombieReactorsAreSkipped) {
   auto port = make<Port>();
   auto a = recorderOn(port, "a");
   auto b = recorderOn(port, "b");
   auto c = recorderOn(port, "c");
   a->hasNotificationActiveIs(false);
   b->isRegisteredNotifieeIs(false);
   c->moxDoZombieReactors(true);
   port->speedIs(1);
   EXPECT_TRUE(a->seen.empty() && b->seen.empty() && c->seen.empty());
   a->hasNotificationActiveIs(true);
   b->isRegisteredNotifieeIs(true);
   c->moxDoZombieReactors(false);
   port->speedIs(2);
   EXPECT_EQ(a->seen.size() + b->seen.size() + c->seen.size(), 3u);
   EXPECT_EQ(b->notifier(), port);
}

TEST(Delivery, ChildrenKnowTheirParentAndAttribute) {
   auto port = make<Port>();
   auto s = port->subIs(7);
   EXPECT_EQ(s->parent(), port.ptr());
   EXPECT_EQ(s->parentAttrId(), Port::kSub);
}

// ---- Re-entry: each case checks that a reactor that stays registered sees each change
// exactly once, and the sanitizer build checks that nothing is used after it is freed.

TEST(Reentry, HandlerDeletesItself) {
   auto port = make<Port>();
   std::vector<std::string> log;
   auto a = recorderOn(port, "a", &log);
   auto b = recorderOn(port, "b", &log);
   auto c = recorderOn(port, "c", &log);
   b->action = [&] { b = nullptr; };  // drops the only reference to the running reactor
   port->speedIs(1);
   port->speedIs(2);
   EXPECT_EQ(log,
             (std::vector<std::string>{"a speed", "b speed", "c speed", "a speed", "c speed"}));
}

TEST(Reentry, HandlerDeletesReactorsBeforeAndAfterItsTurn) {
   auto port = make<Port>();
   std::vector<std::string> log;
   auto a = recorderOn(port, "a", &log);
   auto b = recorderOn(port, "b", &log);
   auto c = recorderOn(port, "c", &log);
   b->action = [&] {
      a = nullptr;
      c = nullptr;
   };
   port->speedIs(1);
   EXPECT_EQ(log, (std::vector<std::string>{"a speed", "b speed"}));
   EXPECT_EQ(port->notifieeList().size(), 1u);
}

TEST(Reentry, ReactorCreatedDuringDeliveryWaitsForTheNextChange) {
   auto port = make<Port>();
   std::vector<std::string> log;
   auto a = recorderOn(port, "a", &log);
   Ptr<Recorder> late;
   a->action = [&] {
      if (!late) late = recorderOn(port, "late", &log);
   };
   port->speedIs(1);
   port->speedIs(2);
   EXPECT_EQ(log, (std::vector<std::string>{"a speed", "a speed", "late speed"}));
}

TEST(Reentry, NestedWritesAreDeliveredToEveryoneOnceEach) {
   auto port = make<Port>();
   std::vector<std::string> log;
   auto a = recorderOn(port, "a", &log);
   auto b = recorderOn(port, "b", &log);
   a->action = [&] {
      if (port->speed() == 1) port->speedIs(2);  // a handler that writes the same attribute
   };
   port->speedIs(1);
   // The nested change reaches a and b first; then the outer delivery resumes with b.
   EXPECT_EQ(log, (std::vector<std::string>{"a speed", "a speed", "b speed", "b speed"}));
   EXPECT_EQ(a->seen.size(), 2u);
   EXPECT_EQ(b->seen.size(), 2u);
}

TEST(Reentry, HandlerDropsTheLastReferenceToItsNotifier) {
   int64_t before = live("MoxTest::Port");
   std::vector<std::string> log;
   Ptr<Recorder> a, b;
   {
      auto port = make<Port>();
      a = recorderOn(port, "a", &log);
      b = recorderOn(port, "b", &log);
      a->action = [&] {
         a->notifierIs(Ptr<Port const>());
         b->notifierIs(Ptr<Port const>());
         port = nullptr;  // now nothing but the delivery holds the port
      };
      port->speedIs(5);
   }
   EXPECT_EQ(log, (std::vector<std::string>{"a speed"}));
   EXPECT_EQ(live("MoxTest::Port"), before);  // destroyed once the delivery ended
}

TEST(Reentry, HandlerDeletesTheMachineThatOwnsIt) {
   auto port = make<Port>();
   auto owner = make<Owner>();
   auto sm = owner->portSmIs(port, false);
   port->subIs(1);
   port->subIs(2);
   EXPECT_EQ(sm->subReactors(), 2u);
   int calls = 0;
   sm->onVlan = [&](int) {
      ++calls;
      owner->portSmDel();
   };
   Ptr<SubPort> s1 = port->sub(1);
   sm = nullptr;
   s1->vlanIdIs(100);  // the handler deletes the machine; its reactor returns into nothing
   EXPECT_EQ(calls, 1);
   EXPECT_EQ(owner->portSm(), nullptr);
   s1->vlanIdIs(200);
   port->sub(2)->vlanIdIs(3);
   port->speedIs(9);
   EXPECT_EQ(calls, 1);
}

TEST(Reentry, ManyReactorsChurningDuringDeliveryStayConsistent) {
   auto port = make<Port>();
   std::vector<Ptr<Recorder>> rs;
   for (int i = 0; i < 50; ++i)
      rs.push_back(recorderOn(port, std::to_string(i)));
   for (int i = 0; i < 50; ++i) {
      rs[i]->action = [&, i] {
         if (i % 3 == 0 && i + 1 < 50) rs[i + 1] = nullptr;
         if (i % 7 == 0) rs.push_back(recorderOn(port, "new"));
      };
   }
   port->speedIs(1);
   size_t registered = 0;
   for (auto& r : rs)
      registered += r ? 1 : 0;
   EXPECT_EQ(port->notifieeList().size(), registered);
   for (auto& r : rs) {
      if (!r) continue;
      r->seen.clear();
      r->action = nullptr;
   }
   port->speedIs(2);
   for (auto& r : rs) {
      if (r) {
         EXPECT_EQ(r->seen.size(), 1u) << r->name_;
      }
   }
}

// A lone reactor is kept in place; one that brings others during its turn moves the list to
// an array of its own mid-visit, and one that leaves it empty can be followed by new ones.
TEST(Reentry, ListGrowsFromOneReactorDuringItsDeliveryAndEmptiesAgain) {
   auto port = make<Port>();
   std::vector<std::string> log;
   auto first = recorderOn(port, "first", &log);
   std::vector<Ptr<Recorder>> added;
   first->action = [&] {
      for (int i = 0; i < 5; ++i)
         added.push_back(recorderOn(port, "n" + std::to_string(i), &log));
      first->notifierIs(Ptr<Port const>());  // leaves while the list moves
   };
   port->speedIs(1);
   EXPECT_EQ(log, (std::vector<std::string>{"first speed"}));
   EXPECT_EQ(port->notifieeList().size(), 5u);
   log.clear();
   port->speedIs(2);
   EXPECT_EQ(
       log, (std::vector<std::string>{"n0 speed", "n1 speed", "n2 speed", "n3 speed", "n4 speed"}));
   added.clear();
   EXPECT_TRUE(port->notifieeList().empty());
   log.clear();
   auto again = recorderOn(port, "again", &log);
   port->speedIs(3);
   EXPECT_EQ(log, (std::vector<std::string>{"again speed"}));
}

// ---- Machines and create-or-update

// Nested reactors leave their machine's list in any order (newest, oldest, in between); the
// machine still reaches every one left, and its end silences one kept alive elsewhere.
TEST(StateMachine, NestedReactorsUnhookInAnyOrder) {
   auto port = make<Port>();
   for (int k = 1; k <= 5; ++k)
      port->subIs(k);
   auto sm = make<PortSm>(port, false);
   EXPECT_EQ(sm->nestedReactors(), 6u);  // the port's and one per sub-port
   port->subDel(5);                      // the newest
   port->subDel(1);                      // the oldest sub-port's
   port->subDel(3);
   EXPECT_EQ(sm->nestedReactors(), 3u);
   sm->hasNotificationActiveIs(false);
   port->sub(2)->vlanIdIs(7);
   EXPECT_EQ(sm->events.back(), "sub:3");
   sm->hasNotificationActiveIs(true);
   port->sub(4)->vlanIdIs(8);
   EXPECT_EQ(sm->events.back(), "vlan:4=8");
   port->subIs(6);
   EXPECT_EQ(sm->nestedReactors(), 4u);
   Ptr<PortSm::MoxSubPort> kept;
   {
      auto r = make<PortSm::MoxSubPort>(sm.ptr(), 9);
      kept = r;
   }
   EXPECT_EQ(sm->nestedReactors(), 5u);
   sm = nullptr;
   EXPECT_TRUE(kept->moxZombie());
   kept = nullptr;  // unhooked from a machine that is gone: nothing to unlink
}

TEST(StateMachine, ConstructorRunsTheInitialPassOnce) {
   auto port = make<Port>();
   port->speedIs(10);
   port->subIs(1)->vlanIdIs(5);
   auto sm = make<PortSm>(port, false);
   EXPECT_TRUE(sm->initialized());
   EXPECT_EQ(sm->events, (std::vector<std::string>{"speed=10", "sub:1"}));
   sm->handleInitialized();
   EXPECT_EQ(sm->events.size(), 2u);
   port->sub(1)->vlanIdIs(6);
   port->subDel(1);
   EXPECT_EQ(sm->subReactors(), 0u);
   EXPECT_EQ(sm->events.back(), "sub:1");
}

TEST(StateMachine, InitializedIsStoresAndNotifiesOnlyOnChange) {
   struct Watch : Mox::StateMachine::NotifieeConst {
      int n = 0;
      void onInitialized() override { ++n; }
   };
   auto owner = make<Owner>();
   auto w = make<Watch>();
   w->notifierIs(owner);
   owner->initializedIs(true);
   owner->initializedIs(true);
   owner->initializedIs(false);
   EXPECT_EQ(w->n, 2);
}

TEST(CreateOrUpdate, SameParametersReturnTheSameChildWithMutablesApplied) {
   auto port = make<Port>();
   auto owner = make<Owner>();
   auto first = owner->portSmIs(port, true);
   EXPECT_TRUE(first->standbyMode());
   auto second = owner->portSmIs(port, false);
   EXPECT_EQ(first, second);
   EXPECT_FALSE(second->standbyMode());
}

TEST(CreateOrUpdate, ChangedConstructorParameterIsANameInUseError) {
   auto owner = make<Owner>();
   auto p1 = make<Port>();
   auto p2 = make<Port>();
   owner->portSmIs(p1, false);
   try {
      owner->portSmIs(p2, false);
      FAIL() << "expected a name-in-use error";
   } catch (Mox::NameInUseException const& e) {
      std::ostringstream expected;
      expected << "Reinstantiating the pointer interface where constructor parameter attribute "
                  "_port has a different value of "
               << static_cast<void const*>(p2.ptr()) << " than the current value of "
               << static_cast<void const*>(p1.ptr()) << " not allowed";
      EXPECT_EQ(e.what(), expected.str());
   }
   EXPECT_EQ(owner->portSm()->port(), p1);
}

TEST(CreateOrUpdate, DeletedChildStopsReactingAndIsDestroyed) {
   int64_t before = live("MoxTest::PortSm");
   auto port = make<Port>();
   auto owner = make<Owner>();
   owner->portSmIs(port, false);
   EXPECT_EQ(live("MoxTest::PortSm"), before + 1);
   owner->portSmDel();
   EXPECT_EQ(live("MoxTest::PortSm"), before);
   EXPECT_TRUE(port->notifieeList().empty());
}

TEST(Errors, NullParameterTextAndAssertionCarryTheirText) {
   try {
      Mox::requireNonNull(Ptr<Port>(), "_vrfStatusLocal", "Veld::VrfRootSm::vrfStatusLocal");
      FAIL();
   } catch (Mox::RangeException const& e) {
      EXPECT_STREQ(e.what(),
                   "null _vrfStatusLocal parameter to mutator for Veld::VrfRootSm::vrfStatusLocal "
                   "not allowed");
   }
   bool initialized = false;
   try {
      MOX_ASSERT(initialized);
      FAIL();
   } catch (Cinder::AssertException const& e) {
      EXPECT_EQ(e.expression(), "initialized");
   }
}

TEST(Reentry, MachineDroppedDuringDeliveryIsSilencedAtOnceAndFreedAfter) {
   int64_t before = live("MoxTest::PortSm");
   auto port = make<Port>();
   port->subIs(1);
   auto sm = make<PortSm>(port, false);
   // Two reactors of the same machine on one sub-port: the first drops the machine.
   auto second = make<PortSm::MoxSubPort>(sm.ptr(), 1);
   second->notifierIs(port->sub(1));
   int calls = 0;
   sm->onVlan = [&](int) {
      ++calls;
      sm = nullptr;  // no zombie call first: dropping the last reference must be enough
      EXPECT_EQ(live("MoxTest::PortSm"), before + 1);  // still here while we run
   };
   port->sub(1)->vlanIdIs(5);
   EXPECT_EQ(calls, 1);
   EXPECT_EQ(live("MoxTest::PortSm"), before);
   EXPECT_TRUE(second->moxZombie());
}
