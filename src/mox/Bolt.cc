#include "mox/Bolt.h"

#include <algorithm>

namespace Bolt {

// ---- Task ----

Task::Task(Mox::Ptr<TaskScheduler> const& scheduler, Mox::Name name, Mox::Ptr<TaskGroup> group)
    : scheduler_(scheduler),
      name_(std::move(name)),
      group_(group ? std::move(group) : scheduler->defaultGroup()) {}

Task::~Task() { unscheduleTask(); }

void Task::handleZeroRef() const noexcept {
   // Leave the queue now, not when the delivery that keeps the memory ends: the slice in
   // progress may already have picked this task's group.
   const_cast<Task*>(this)->unscheduleTask();
   Notifier::handleZeroRef();
}

void Task::scheduleTask() {
   if (queued_ || references() == 0) return;
   scheduler_->enqueue(this);
}

void Task::unscheduleTask() {
   if (queued_) scheduler_->dequeue(this);
}

bool Task::taskShouldYield() const {
   if (!running_) return false;
   if (workCount_ >= group_->taskGroupQuantum()) return true;
   return Mox::System::currentTime() - runStart_ >= group_->taskGroupTimeQuantum();
}

void Task::run() {
   notifyEach<NotifieeConst>([](NotifieeConst* n) { n->onRun(); });
}

void Task::runNow() {
   Mox::Delivery::Scope scope;  // the task outlives run()
   running_ = true;
   workCount_ = 0;
   runStart_ = Mox::System::currentTime();
   ++runs_;
   struct Done {
      Task* t;
      ~Done() { t->running_ = false; }
   } done{this};
   run();
}

// ---- TimerTask ----

class TimerTask::Timer : public Mox::Clock::NotifieeConst {
public:
   explicit Timer(TimerTask* task) : task_(task) {}
   void onTime() override {
      if (task_) task_->scheduleTask();
   }
   TimerTask* task_;
};

TimerTask::TimerTask(Mox::Ptr<TaskScheduler> const& scheduler, Mox::Name name,
                     Mox::Ptr<TaskGroup> group)
    : Task(scheduler, std::move(name), std::move(group)), timer_(Mox::make<Timer>(this)) {
   timer_->notifierIs(scheduler->clock());
}

TimerTask::~TimerTask() {
   timer_->task_ = nullptr;
   timer_->timeMinIs(Mox::kInfinity);
}

void TimerTask::scheduleTaskDelay(double seconds) {
   timer_->timeMinIs(Mox::System::currentTime() + seconds);
}

void TimerTask::cancelTaskDelay() { timer_->timeMinIs(Mox::kInfinity); }

double TimerTask::taskDeadline() const { return timer_->timeMin(); }

// ---- TaskScheduler ----

TaskScheduler::TaskScheduler()
    : defaultGroup_(Mox::make<TaskGroup>("default", 0)), clock_(Mox::make<Mox::Clock>()) {
   Mox::activityManager().schedulerAdd(this);
}

TaskScheduler::~TaskScheduler() { Mox::activityManager().schedulerDel(this); }

TaskScheduler::Queue& TaskScheduler::queueOf(TaskGroup* g) {
   auto it = std::find_if(queues_.begin(), queues_.end(), [g](Queue& q) { return q.group == g; });
   if (it != queues_.end()) return *it;
   // Keep queues ordered by descending priority; equal priorities in creation order.
   auto pos = std::find_if(queues_.begin(), queues_.end(),
                           [g](Queue& q) { return q.group->priority() < g->priority(); });
   return *queues_.insert(pos, Queue{g, {}});
}

void TaskScheduler::enqueue(Task* t) {
   queueOf(t->group_.ptr()).tasks.push_back(t);
   t->queued_ = true;
   ++ready_;
}

void TaskScheduler::dequeue(Task* t) {
   auto& q = queueOf(t->group_.ptr()).tasks;
   q.erase(std::remove(q.begin(), q.end(), t), q.end());
   t->queued_ = false;
   --ready_;
}

size_t TaskScheduler::runSlice() {
   if (ready_ == 0) return 0;
   Mox::Delivery::Scope scope;
   size_t runs = 0;
   // Pick this slice's groups up front: tasks queued by the runs wait for the next slice.
   std::vector<TaskGroup*> groups;
   for (auto& q : queues_) {
      if (q.tasks.empty()) continue;
      groups.push_back(q.group.ptr());
      if (enforcePriority_) break;
   }
   for (auto* g : groups) {
      auto& q = queueOf(g).tasks;
      if (q.empty()) continue;
      Task* t = q.front();
      q.pop_front();
      t->queued_ = false;
      --ready_;
      t->runNow();
      ++runs;
   }
   return runs;
}

size_t TaskScheduler::runUntilIdle() {
   size_t runs = 0;
   while (hasReadyTasks())
      runs += runSlice();
   return runs;
}

}  // namespace Bolt
