// Kernel work of the agent's own classes, as the library does it: a handler only schedules
// (now, or after a delay), and the task scheduler runs the work from the event loop.
#pragma once

#include <functional>

#include "mox/Bolt.h"

namespace VeldAgent {

class DeferredWork : public Bolt::TimerTask {
public:
   DeferredWork(Mox::Ptr<Bolt::TaskScheduler> const& scheduler, Mox::Name name,
                std::function<void()> work)
       : TimerTask(scheduler, std::move(name)), work_(std::move(work)) {}

protected:
   void run() override { work_(); }

private:
   std::function<void()> work_;
};

}  // namespace VeldAgent
