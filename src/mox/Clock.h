// Time, clocks and timers.
//
// All time is read from the activity manager's time source: the real monotonic clock in the
// agent, a virtual one in tests, which advance it and fire due timers in deadline order
// without ever sleeping. Times are absolute seconds (double); +infinity means "no timer".
//
// A timer is a reactor on a timer source (a Mox::Clock, or a Bolt::TimerWheel shared by many
// per-interface timers): the machine sets the reactor's timeMinIs(t) and the reactor's
// onTime() fires once the current time reaches t. A timer fires once per arming; onTime() may
// arm it again. A deadline that passes while the reactor takes no deliveries (notification
// off, or a zombie) is kept: the timer fires as soon as delivery is on again, unless it was
// re-armed or disarmed meanwhile.
#pragma once

#include <cstdint>
#include <limits>
#include <vector>

#include "mox/Entity.h"

namespace Bolt {
class TaskScheduler;
}

namespace Mox {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

class TimeSource {
public:
   virtual ~TimeSource() = default;
   virtual double now() const = 0;
};

// CLOCK_MONOTONIC in seconds.
class RealTimeSource : public TimeSource {
public:
   double now() const override;
};

// Time that moves only when told to.
class VirtualTimeSource : public TimeSource {
public:
   explicit VirtualTimeSource(double start = 1000.0) : now_(start) {}
   double now() const override { return now_; }
   void nowIs(double t) { now_ = t; }
   // Lets time pass without firing anything (work that "takes" time).
   void elapse(double seconds) { now_ += seconds; }

private:
   double now_;
};

class TimerSource;

// The reactor side of a timer.
class TimerNotifiee : public NotifieeBase {
public:
   ~TimerNotifiee() override;
   double timeMin() const { return timeMin_; }
   // Arms the timer at t; +infinity (or any t beyond the largest finite double) disarms it.
   void timeMinIs(double t);
   // Will fire: queued on its source, or due and waiting for delivery to be on again.
   bool armed() const { return timeMin_ != kInfinity && notifierBase(); }
   virtual void onTime() {}

protected:
   TimerNotifiee() { isRegisteredNotifieeIs(false); }
   void sourceIs(TimerSource const* source);
   TimerSource* source() const;
   void handleDeliveryResumed() override;

private:
   friend class TimerSource;
   static constexpr size_t kNotQueued = SIZE_MAX;
   bool queued() const { return heapIndex_ != kNotQueued; }
   double timeMin_ = kInfinity;
   uint64_t seq_ = 0;
   size_t heapIndex_ = kNotQueued;
};

// Orders the armed timers of its reactors by deadline (then by arming order).
class TimerSource : public Entity {
public:
   TimerSource();
   ~TimerSource() override;
   double nextDeadline() const { return heap_.empty() ? kInfinity : heap_.front()->timeMin_; }
   size_t armedTimers() const { return heap_.size(); }
   // Fires the earliest timer if it is due at `now`; false when none is due.
   bool fireOne(double now) const;

private:
   friend class TimerNotifiee;
   void insert(TimerNotifiee* t) const;
   void remove(TimerNotifiee* t) const;
   bool before(size_t a, size_t b) const;
   void swapAt(size_t a, size_t b) const;
   void up(size_t i) const;
   void down(size_t i) const;
   mutable std::vector<TimerNotifiee*> heap_;
   mutable uint64_t nextSeq_ = 0;
};

// The agent's clock.
class Clock : public TimerSource {
public:
   class NotifieeConst : public TimerNotifiee {
   public:
      Ptr<Clock const> notifier() const {
         return Ptr<Clock const>(static_cast<Clock const*>(notifierBase()));
      }
      void notifierIs(Ptr<Clock const> const& c) { sourceIs(c.ptr()); }
   };
};

struct ActivityManagerConfig {
   // The agent's time source; the real clock unless a host or a test sets another.
   static TimeSource* clock;
};

// Runs the timers and task schedulers of the process from the time source.
class ActivityManager {
public:
   double now() const;
   // The earliest armed timer (now if a task is ready; +infinity when idle).
   double nextDeadline() const;
   // Fires every timer due now, in deadline order, and runs ready tasks until none is left or
   // a task slice budget is spent. Returns the number of timers and task runs done.
   size_t runDue();
   bool tasksReady() const;

   // Virtual time only: moves the clock to each due deadline in turn, firing its timers and
   // running ready tasks, then to t.
   void advanceTo(double t);
   void advanceBy(double seconds);
   // Runs until nothing is armed or ready, or until `limit` seconds of virtual time.
   void runUntilIdle(double limit = 3600.0);

   void timerSourceAdd(TimerSource const* s);
   void timerSourceDel(TimerSource const* s);
   void schedulerAdd(Bolt::TaskScheduler* s);
   void schedulerDel(Bolt::TaskScheduler* s);

private:
   TimerSource const* earliest() const;
   std::vector<TimerSource const*> sources_;
   std::vector<Bolt::TaskScheduler*> schedulers_;
};

ActivityManager& activityManager();

namespace System {
double currentTime();
}

// Installs a virtual clock for the lifetime of the object (tests).
class ScopedVirtualTime {
public:
   explicit ScopedVirtualTime(double start = 1000.0);
   ~ScopedVirtualTime();
   VirtualTimeSource& source() { return source_; }
   double now() const { return source_.now(); }

private:
   VirtualTimeSource source_;
   TimeSource* previous_;
};

}  // namespace Mox
