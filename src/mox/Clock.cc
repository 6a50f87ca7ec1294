#include "mox/Clock.h"

#include <time.h>

#include <algorithm>
#include <cfloat>

#include "mox/Bolt.h"

namespace Mox {

double RealTimeSource::now() const {
   timespec ts;
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

namespace {
RealTimeSource realTime;
}

TimeSource* ActivityManagerConfig::clock = &realTime;

// ---- TimerNotifiee ----

TimerNotifiee::~TimerNotifiee() {
   if (auto* s = source(); s && queued()) s->remove(this);
}

TimerSource* TimerNotifiee::source() const {
   return const_cast<TimerSource*>(static_cast<TimerSource const*>(notifierBase()));
}

void TimerNotifiee::timeMinIs(double t) {
   if (!(t <= DBL_MAX)) t = kInfinity;  // beyond the largest finite double: no timer
   TimerSource* s = source();
   if (s && queued()) s->remove(this);
   timeMin_ = t;
   if (s && t != kInfinity) s->insert(this);
}

void TimerNotifiee::sourceIs(TimerSource const* src) {
   if (src == notifierBase()) return;
   if (auto* s = source(); s && queued()) s->remove(this);
   notifierBaseIs(src);
   if (src && timeMin_ != kInfinity) src->insert(this);
}

void TimerNotifiee::handleDeliveryResumed() {
   // A deadline that passed meanwhile is still due: queue it for the next run of the timers.
   if (auto* s = source(); s && timeMin_ != kInfinity && !queued()) s->insert(this);
}

// ---- TimerSource: an indexed binary heap, so a timer can be re-armed or removed in place.

TimerSource::TimerSource() { activityManager().timerSourceAdd(this); }

TimerSource::~TimerSource() {
   for (auto* t : heap_)
      t->heapIndex_ = TimerNotifiee::kNotQueued;
   activityManager().timerSourceDel(this);
}

bool TimerSource::before(size_t a, size_t b) const {
   auto* x = heap_[a];
   auto* y = heap_[b];
   return x->timeMin_ < y->timeMin_ || (x->timeMin_ == y->timeMin_ && x->seq_ < y->seq_);
}

void TimerSource::swapAt(size_t a, size_t b) const {
   std::swap(heap_[a], heap_[b]);
   heap_[a]->heapIndex_ = a;
   heap_[b]->heapIndex_ = b;
}

void TimerSource::up(size_t i) const {
   while (i > 0) {
      size_t parent = (i - 1) / 2;
      if (!before(i, parent)) break;
      swapAt(i, parent);
      i = parent;
   }
}

void TimerSource::down(size_t i) const {
   for (;;) {
      size_t l = 2 * i + 1, r = l + 1, m = i;
      if (l < heap_.size() && before(l, m)) m = l;
      if (r < heap_.size() && before(r, m)) m = r;
      if (m == i) return;
      swapAt(i, m);
      i = m;
   }
}

void TimerSource::insert(TimerNotifiee* t) const {
   t->seq_ = nextSeq_++;
   t->heapIndex_ = heap_.size();
   heap_.push_back(t);
   up(t->heapIndex_);
}

void TimerSource::remove(TimerNotifiee* t) const {
   size_t i = t->heapIndex_;
   size_t last = heap_.size() - 1;
   if (i != last) swapAt(i, last);
   heap_.pop_back();
   t->heapIndex_ = TimerNotifiee::kNotQueued;
   if (i < heap_.size()) {
      up(i);
      down(i);
   }
}

bool TimerSource::fireOne(double now) const {
   if (heap_.empty() || heap_.front()->timeMin_ > now) return false;
   Delivery::Scope scope;  // the timer and its source outlive onTime()
   TimerNotifiee* t = heap_.front();
   remove(t);
   // A reactor that takes no deliveries now keeps its deadline; it is queued again when
   // delivery resumes.
   if (!t->wantsDelivery()) return true;
   t->timeMin_ = kInfinity;  // one shot: onTime() may arm it again
   t->onTime();
   return true;
}

// ---- ActivityManager ----

ActivityManager& activityManager() {
   static ActivityManager am;
   return am;
}

double ActivityManager::now() const { return ActivityManagerConfig::clock->now(); }

void ActivityManager::timerSourceAdd(TimerSource const* s) { sources_.push_back(s); }

void ActivityManager::timerSourceDel(TimerSource const* s) {
   sources_.erase(std::remove(sources_.begin(), sources_.end(), s), sources_.end());
}

void ActivityManager::schedulerAdd(Bolt::TaskScheduler* s) { schedulers_.push_back(s); }

void ActivityManager::schedulerDel(Bolt::TaskScheduler* s) {
   schedulers_.erase(std::remove(schedulers_.begin(), schedulers_.end(), s), schedulers_.end());
}

TimerSource const* ActivityManager::earliest() const {
   TimerSource const* best = nullptr;
   for (auto* s : sources_) {
      if (!best || s->nextDeadline() < best->nextDeadline()) best = s;
   }
   return best && best->nextDeadline() != kInfinity ? best : nullptr;
}

bool ActivityManager::tasksReady() const {
   return std::any_of(schedulers_.begin(), schedulers_.end(),
                      [](auto* s) { return s->hasReadyTasks(); });
}

double ActivityManager::nextDeadline() const {
   if (tasksReady()) return now();
   auto* s = earliest();
   return s ? s->nextDeadline() : kInfinity;
}

size_t ActivityManager::runDue() {
   size_t done = 0;
   double t = now();
   // Timers first, in global deadline order; a timer armed for "now" by a handler also runs.
   for (auto* s = earliest(); s && s->nextDeadline() <= t; s = earliest()) {
      s->fireOne(t);
      ++done;
      t = now();
   }
   // Then each scheduler gets one slice; a task that yields waits for the next round so
   // timers and I/O get their turn.
   auto schedulers = schedulers_;
   for (auto* s : schedulers) {
      if (std::find(schedulers_.begin(), schedulers_.end(), s) != schedulers_.end()) {
         done += s->runSlice();
      }
   }
   return done;
}

void ActivityManager::advanceTo(double t) {
   auto* vt = dynamic_cast<VirtualTimeSource*>(ActivityManagerConfig::clock);
   if (!vt) return;
   for (;;) {
      while (tasksReady())
         runDue();
      auto* s = earliest();
      if (!s || s->nextDeadline() > t) break;
      if (s->nextDeadline() > vt->now()) vt->nowIs(s->nextDeadline());
      runDue();
   }
   if (t > vt->now()) vt->nowIs(t);
}

void ActivityManager::advanceBy(double seconds) { advanceTo(now() + seconds); }

void ActivityManager::runUntilIdle(double limit) {
   double end = now() + limit;
   for (;;) {
      while (tasksReady())
         runDue();
      auto* s = earliest();
      if (!s || s->nextDeadline() > end) return;
      advanceTo(s->nextDeadline());
   }
}

namespace System {
double currentTime() { return activityManager().now(); }
}  // namespace System

ScopedVirtualTime::ScopedVirtualTime(double start)
    : source_(start), previous_(ActivityManagerConfig::clock) {
   ActivityManagerConfig::clock = &source_;
}

ScopedVirtualTime::~ScopedVirtualTime() { ActivityManagerConfig::clock = previous_; }

}  // namespace Mox
