// Clocks, timer wheels and tasks in virtual time.
#include <gtest/gtest.h>

#include <cfloat>

#include "mox/Bolt.h"
#include "mox/Clock.h"

using Mox::make;
using Mox::Ptr;

namespace {

struct Timer : Mox::Clock::NotifieeConst {
   Timer(std::string n, std::vector<std::string>* log) : name(std::move(n)), log(log) {}
   void onTime() override {
      log->push_back(name + "@" + std::to_string(Mox::System::currentTime()));
      if (then) then();
   }
   std::string name;
   std::vector<std::string>* log;
   std::function<void()> then;
};

struct WheelTimer : Bolt::TimerWheel::NotifieeConst {
   int fired = 0;
   void onTime() override { ++fired; }
};

}  // namespace

TEST(Clock, TimersFireInDeadlineOrderThenArmingOrder) {
   Mox::ScopedVirtualTime vt(100.0);
   auto clock = make<Mox::Clock>();
   std::vector<std::string> log;
   auto a = make<Timer>("a", &log), b = make<Timer>("b", &log), c = make<Timer>("c", &log);
   for (auto* t : {a.ptr(), b.ptr(), c.ptr()})
      t->notifierIs(clock);
   c->timeMinIs(102.0);
   b->timeMinIs(101.0);
   a->timeMinIs(101.0);
   Mox::activityManager().advanceTo(101.5);
   EXPECT_EQ(log, (std::vector<std::string>{"b@101.000000", "a@101.000000"}));
   EXPECT_EQ(vt.now(), 101.5);
   Mox::activityManager().advanceBy(10);
   EXPECT_EQ(log.back(), "c@102.000000");
   EXPECT_EQ(a->timeMin(), Mox::kInfinity);  // one shot
}

TEST(Clock, RearmDisarmAndDestroyedTimers) {
   Mox::ScopedVirtualTime vt(0.0);
   auto clock = make<Mox::Clock>();
   std::vector<std::string> log;
   auto periodic = make<Timer>("p", &log);
   periodic->notifierIs(clock);
   periodic->then = [&] {
      if (log.size() < 3) periodic->timeMinIs(Mox::System::currentTime() + 1.0);
   };
   periodic->timeMinIs(1.0);
   auto disarmed = make<Timer>("d", &log);
   disarmed->notifierIs(clock);
   disarmed->timeMinIs(1.5);
   disarmed->timeMinIs(Mox::kInfinity);
   auto gone = make<Timer>("g", &log);
   gone->notifierIs(clock);
   gone->timeMinIs(2.5);
   gone = nullptr;
   auto beyond = make<Timer>("x", &log);
   beyond->notifierIs(clock);
   beyond->timeMinIs(DBL_MAX * 2);  // beyond the largest finite double: no timer
   EXPECT_FALSE(beyond->armed());
   Mox::activityManager().runUntilIdle();
   EXPECT_EQ(log, (std::vector<std::string>{"p@1.000000", "p@2.000000", "p@3.000000"}));
   EXPECT_EQ(clock->armedTimers(), 0u);
}

TEST(Clock, MovingATimerToAnotherSourceCarriesItsDeadline) {
   Mox::ScopedVirtualTime vt(0.0);
   auto c1 = make<Mox::Clock>();
   auto c2 = make<Mox::Clock>();
   std::vector<std::string> log;
   auto t = make<Timer>("t", &log);
   t->notifierIs(c1);
   t->timeMinIs(5.0);
   t->notifierIs(c2);
   EXPECT_EQ(c1->armedTimers(), 0u);
   EXPECT_EQ(c2->armedTimers(), 1u);
   Mox::activityManager().advanceTo(5.0);
   EXPECT_EQ(log.size(), 1u);
}

// A deadline that passes while the reactor takes no deliveries is kept for it: the timer
// fires once delivery is switched on again, unless it was moved or disarmed meanwhile.
TEST(Clock, TimerDueWhileNotificationIsOffFiresWhenItIsOnAgain) {
   Mox::ScopedVirtualTime vt(0.0);
   auto clock = make<Mox::Clock>();
   auto wheel = make<Bolt::TimerWheel>();
   std::vector<std::string> log;
   auto held = make<Timer>("held", &log), early = make<Timer>("early", &log),
        moved = make<Timer>("moved", &log), disarmed = make<Timer>("disarmed", &log);
   for (auto* t : {held.ptr(), early.ptr(), moved.ptr(), disarmed.ptr()}) {
      t->notifierIs(clock);
      t->timeMinIs(1.0);
      t->hasNotificationActiveIs(false);
   }
   auto onWheel = make<WheelTimer>();
   onWheel->notifierIs(wheel);
   onWheel->timeMinIs(1.0);
   onWheel->hasNotificationActiveIs(false);

   Mox::activityManager().advanceTo(0.5);
   early->hasNotificationActiveIs(true);  // back before its deadline: fires on time
   Mox::activityManager().advanceTo(2.0);
   EXPECT_EQ(log, (std::vector<std::string>{"early@1.000000"}));
   EXPECT_TRUE(held->armed());
   EXPECT_EQ(held->timeMin(), 1.0);

   moved->timeMinIs(3.0);
   disarmed->timeMinIs(Mox::kInfinity);
   for (auto* t : {held.ptr(), moved.ptr(), disarmed.ptr()})
      t->hasNotificationActiveIs(true);
   onWheel->hasNotificationActiveIs(true);
   Mox::activityManager().runDue();
   EXPECT_EQ(log, (std::vector<std::string>{"early@1.000000", "held@2.000000"}));
   EXPECT_EQ(onWheel->fired, 1);
   Mox::activityManager().runUntilIdle();
   EXPECT_EQ(log, (std::vector<std::string>{"early@1.000000", "held@2.000000", "moved@3.000000"}));
   EXPECT_EQ(onWheel->fired, 1);  // once, not again
   EXPECT_FALSE(held->armed());
}

TEST(TimerWheel, ManyTimersFireOnceEachAtTheirDeadline) {
   Mox::ScopedVirtualTime vt(0.0);
   auto wheel = make<Bolt::TimerWheel>();
   std::vector<Ptr<WheelTimer>> timers;
   for (int i = 0; i < 1000; ++i) {
      auto t = make<WheelTimer>();
      t->notifierIs(wheel);
      t->timeMinIs(0.001 * (i % 100));
      timers.push_back(t);
   }
   Mox::activityManager().advanceTo(0.05);
   int fired = 0;
   for (auto& t : timers)
      fired += t->fired;
   EXPECT_EQ(fired, 510);  // deadlines 0.000 .. 0.050, ten timers each
   Mox::activityManager().runUntilIdle();
   for (auto& t : timers)
      EXPECT_EQ(t->fired, 1);
}

namespace {

// Counts to `total` in runs of at most its group's quantum.
class Counter : public Bolt::Task {
public:
   Counter(Ptr<Bolt::TaskScheduler> const& s, Ptr<Bolt::TaskGroup> g, int total,
           std::vector<std::string>* log, std::string name)
       : Task(s, name, std::move(g)), total_(total), log_(log), name_(std::move(name)) {}
   int done = 0;

protected:
   void run() override {
      EXPECT_TRUE(taskCurrentlyRunning());
      int start = done;
      while (done < total_) {
         ++done;
         taskWorkCountInc();
         if (done < total_ && taskShouldYield()) {
            scheduleTask();
            break;
         }
      }
      log_->push_back(name_ + ":" + std::to_string(done - start));
   }

private:
   int total_;
   std::vector<std::string>* log_;
   std::string name_;
};

}  // namespace

TEST(Bolt, TaskYieldsAfterItsQuantumAndResumes) {
   Mox::ScopedVirtualTime vt(0.0);
   auto sched = make<Bolt::TaskScheduler>();
   auto group = make<Bolt::TaskGroup>("g", 1, 10);
   std::vector<std::string> log;
   auto t = make<Counter>(sched, group, 25, &log, "t");
   t->scheduleTask();
   t->scheduleTask();  // queued once
   EXPECT_EQ(sched->readyTasks(), 1u);
   sched->runUntilIdle();
   EXPECT_EQ(log, (std::vector<std::string>{"t:10", "t:10", "t:5"}));
   EXPECT_FALSE(t->taskCurrentlyRunning());
   EXPECT_EQ(t->taskRuns(), 3u);
}

TEST(Bolt, GroupsTakeTurnsUnlessPriorityIsEnforced) {
   Mox::ScopedVirtualTime vt(0.0);
   for (bool enforce : {false, true}) {
      auto sched = make<Bolt::TaskScheduler>();
      sched->enforceTaskGroupPriority(enforce);
      auto high = make<Bolt::TaskGroup>("high", 10, 5);
      auto low = make<Bolt::TaskGroup>("low", 1, 5);
      std::vector<std::string> log;
      auto l = make<Counter>(sched, low, 10, &log, "l");
      auto h = make<Counter>(sched, high, 10, &log, "h");
      l->scheduleTask();
      h->scheduleTask();
      sched->runUntilIdle();
      if (enforce) {
         EXPECT_EQ(log, (std::vector<std::string>{"h:5", "h:5", "l:5", "l:5"}));
      } else {
         EXPECT_EQ(log, (std::vector<std::string>{"h:5", "l:5", "h:5", "l:5"}));
      }
   }
}

// A group may go with its last task while the scheduler lives on; groups made later still
// take their place by priority.
TEST(Bolt, AGroupMayGoBeforeItsScheduler) {
   Mox::ScopedVirtualTime vt(0.0);
   auto sched = make<Bolt::TaskScheduler>();
   std::vector<std::string> log;
   {
      auto gone = make<Bolt::TaskGroup>("gone", 5);
      auto t = make<Counter>(sched, gone, 1, &log, "gone");
      t->scheduleTask();
      sched->runUntilIdle();
   }
   auto low = make<Bolt::TaskGroup>("low", 1);
   auto high = make<Bolt::TaskGroup>("high", 10);
   auto l = make<Counter>(sched, low, 1, &log, "l");
   auto h = make<Counter>(sched, high, 1, &log, "h");
   l->scheduleTask();
   h->scheduleTask();
   sched->runSlice();
   EXPECT_EQ(log, (std::vector<std::string>{"gone:1", "h:1", "l:1"}));
}

TEST(Bolt, TaskYieldsWhenItsTimeQuantumIsUsed) {
   Mox::ScopedVirtualTime vt(0.0);
   auto sched = make<Bolt::TaskScheduler>();
   struct Slow : Bolt::Task {
      using Task::Task;
      int steps = 0;
      void run() override {
         while (steps < 100) {
            ++steps;
            static_cast<Mox::VirtualTimeSource*>(Mox::ActivityManagerConfig::clock)->elapse(0.004);
            if (taskShouldYield()) {
               scheduleTask();
               return;
            }
         }
      }
   };
   auto t = make<Slow>(sched, "slow");
   t->scheduleTask();
   sched->runSlice();
   EXPECT_EQ(t->steps, 3);  // 0.012 s >= the default 0.01 s quantum
}

namespace {

// A task that logs its runs and its end; `work` runs inside it.
class Probe : public Bolt::Task {
public:
   Probe(Ptr<Bolt::TaskScheduler> const& s, Ptr<Bolt::TaskGroup> g, std::string name,
         std::vector<std::string>* log)
       : Task(s, name, std::move(g)), name_(std::move(name)), log_(log) {}
   ~Probe() override { log_->push_back(name_ + " gone"); }
   std::function<void()> work;
   bool runsAgain = false;  // once

protected:
   void run() override {
      log_->push_back(name_ + " runs");
      if (work) work();
      if (std::exchange(runsAgain, false)) scheduleTask();
   }

private:
   std::string name_;
   std::vector<std::string>* log_;
};

}  // namespace

// A task nobody holds any more never runs again, though a delivery may keep its memory until
// it ends: not when the slice that lost it has already picked its group, not in a later
// slice, and not when it asks to run again after letting go of itself.
TEST(Bolt, TaskWhoseLastReferenceGoesDoesNotRun) {
   Mox::ScopedVirtualTime vt(0.0);
   auto sched = make<Bolt::TaskScheduler>();
   auto high = make<Bolt::TaskGroup>("high", 10);
   auto low = make<Bolt::TaskGroup>("low", 1);
   std::vector<std::string> log;

   auto victim = make<Probe>(sched, low, "victim", &log);
   auto shared = make<Probe>(sched, low, "shared", &log);
   auto killer = make<Probe>(sched, high, "killer", &log);
   Ptr<Probe> otherHolder = shared;
   killer->work = [&] {
      victim = nullptr;
      shared = nullptr;  // not the last reference: it still runs
   };
   victim->scheduleTask();
   shared->scheduleTask();
   killer->scheduleTask();
   sched->runSlice();  // picks both groups; the low one runs its next task still held
   EXPECT_EQ(log, (std::vector<std::string>{"killer runs", "shared runs", "victim gone"}));
   EXPECT_FALSE(sched->hasReadyTasks());

   // Inside a longer delivery (a handler that drains the scheduler) the memory stays until
   // that delivery ends; the tasks still do not run.
   log.clear();
   auto next = make<Probe>(sched, high, "next", &log);
   auto self = make<Probe>(sched, high, "self", &log);
   killer->work = [&] { next = nullptr; };
   self->work = [&] { self = nullptr; };
   self->runsAgain = true;
   {
      Mox::Delivery::Scope handler;
      killer->scheduleTask();
      next->scheduleTask();
      self->scheduleTask();
      sched->runUntilIdle();
      EXPECT_EQ(log, (std::vector<std::string>{"killer runs", "self runs"}));
   }
   EXPECT_EQ(log, (std::vector<std::string>{"killer runs", "self runs", "next gone", "self gone"}));
}

TEST(Bolt, TimerTaskRunsAfterItsDelay) {
   Mox::ScopedVirtualTime vt(0.0);
   auto sched = make<Bolt::TaskScheduler>();
   std::vector<std::string> log;
   auto t = make<Bolt::TimerTask>(sched, "later");
   struct OnRun : Bolt::Task::NotifieeConst {
      std::vector<std::string>* log;
      void onRun() override { log->push_back(std::to_string(Mox::System::currentTime())); }
   };
   auto r = make<OnRun>();
   r->log = &log;
   r->notifierIs(t.ptr());
   t->scheduleTaskDelay(0.5);
   Mox::activityManager().advanceTo(0.4);
   EXPECT_TRUE(log.empty());
   Mox::activityManager().advanceTo(1.0);
   EXPECT_EQ(log, (std::vector<std::string>{"0.500000"}));
   t->scheduleTaskDelay(1.0);
   t->cancelTaskDelay();
   Mox::activityManager().runUntilIdle();
   EXPECT_EQ(log.size(), 1u);
}
