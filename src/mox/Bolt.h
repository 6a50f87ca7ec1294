// Cooperative tasks and the shared timer wheel.
//
// A task is a unit of deferred work: scheduleTask() queues it, the scheduler later calls its
// run(), which does a bounded amount of work, counts it with taskWorkCountInc() and asks
// taskShouldYield(); when told to yield it calls scheduleTask() again and returns, so a long
// scan never holds the event loop. Tasks belong to groups; a group has a priority and a
// quantum (work units per run). Each slice of the scheduler runs one task of every busy group,
// highest priority first; with enforceTaskGroupPriority(true) only the busy group of highest
// priority runs. A task runs only while something holds it: once its last reference goes it
// leaves the queue and is not queued again, even while a delivery keeps its memory.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "mox/Clock.h"
#include "mox/Name.h"

namespace Bolt {

class TaskScheduler;

class TaskGroup : public Mox::PtrInterface {
public:
   TaskGroup(Mox::Name name, int priority, uint32_t quantum = 100)
       : name_(std::move(name)), priority_(priority), quantum_(quantum) {}
   Mox::Name const& name() const { return name_; }
   int priority() const { return priority_; }
   uint32_t taskGroupQuantum() const { return quantum_; }
   void taskGroupQuantumIs(uint32_t q) { quantum_ = q ? q : 1; }
   // Longest run of one task before it is told to yield, whatever its work count.
   double taskGroupTimeQuantum() const { return timeQuantum_; }
   void taskGroupTimeQuantumIs(double s) { timeQuantum_ = s; }

private:
   friend class TaskScheduler;
   Mox::Name name_;
   int priority_;
   uint32_t quantum_;
   double timeQuantum_ = 0.01;
};

class Task : public Mox::Notifier {
public:
   class NotifieeConst : public Mox::NotifieeOf<Task> {
   public:
      virtual void onRun() {}
   };

   Task(Mox::Ptr<TaskScheduler> const& scheduler, Mox::Name name,
        Mox::Ptr<TaskGroup> group = nullptr);
   ~Task() override;
   void handleZeroRef() const noexcept override;

   Mox::Name const& name() const { return name_; }
   Mox::Ptr<TaskGroup> const& group() const { return group_; }

   // Queues the task; a task already queued stays queued once, one that nobody holds is not.
   void scheduleTask();
   void unscheduleTask();
   bool taskScheduled() const { return queued_; }
   bool taskCurrentlyRunning() const { return running_; }

   void taskWorkCountInc(uint32_t n = 1) { workCount_ += n; }
   uint32_t taskWorkCount() const { return workCount_; }
   // True once this run has done its group's quantum of work or used its time.
   bool taskShouldYield() const;
   uint64_t taskRuns() const { return runs_; }

protected:
   // The work. The default delivers onRun() to the task's reactors.
   virtual void run();

private:
   friend class TaskScheduler;
   void runNow();
   Mox::Ptr<TaskScheduler> scheduler_;
   Mox::Name name_;
   Mox::Ptr<TaskGroup> group_;
   bool queued_ = false;
   bool running_ = false;
   uint32_t workCount_ = 0;
   double runStart_ = 0.0;
   uint64_t runs_ = 0;
};

// A task that becomes ready after a delay.
class TimerTask : public Task {
public:
   TimerTask(Mox::Ptr<TaskScheduler> const& scheduler, Mox::Name name,
             Mox::Ptr<TaskGroup> group = nullptr);
   ~TimerTask() override;
   void scheduleTaskDelay(double seconds);
   void cancelTaskDelay();
   double taskDeadline() const;

private:
   class Timer;
   Mox::Ptr<Timer> timer_;
};

class TaskScheduler : public Mox::PtrInterface {
public:
   TaskScheduler();
   ~TaskScheduler() override;

   Mox::Ptr<TaskGroup> defaultGroup() const { return defaultGroup_; }
   void enforceTaskGroupPriority(bool enforce) { enforcePriority_ = enforce; }
   bool taskGroupPriorityEnforced() const { return enforcePriority_; }
   // The clock that delays TimerTasks.
   Mox::Ptr<Mox::Clock> clock() const { return clock_; }

   bool hasReadyTasks() const { return ready_ > 0; }
   size_t readyTasks() const { return ready_; }
   // Runs up to one task per group, highest priority first (only the highest non-idle group
   // when priority is enforced). Returns the number of task runs.
   size_t runSlice();
   // Runs until no task is ready (tests and tools).
   size_t runUntilIdle();

private:
   friend class Task;
   struct Queue {
      Mox::Ptr<TaskGroup> group;  // kept while its queue is: its tasks may all be gone
      std::deque<Task*> tasks;
   };
   Queue& queueOf(TaskGroup* g);
   void enqueue(Task* t);
   void dequeue(Task* t);
   std::vector<Queue> queues_;  // by descending priority
   size_t ready_ = 0;
   bool enforcePriority_ = false;
   Mox::Ptr<TaskGroup> defaultGroup_;
   Mox::Ptr<Mox::Clock> clock_;
};

// The shared timer wheel for many per-object timers (per-interface kernel update scheduling,
// enable timers). Same contract as Mox::Clock.
class TimerWheel : public Mox::TimerSource {
public:
   class NotifieeConst : public Mox::TimerNotifiee {
   public:
      Mox::Ptr<TimerWheel const> notifier() const {
         return Mox::Ptr<TimerWheel const>(static_cast<TimerWheel const*>(notifierBase()));
      }
      void notifierIs(Mox::Ptr<TimerWheel const> const& w) { sourceIs(w.ptr()); }
   };
};

}  // namespace Bolt
