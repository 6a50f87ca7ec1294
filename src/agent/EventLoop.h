// The agent's event loop: one epoll set, one thread.
//
// Its sources are file descriptors (kernel mirrors' netlink sockets, the configuration
// watch, signals, the control socket and its connections) and the framework's time: a
// timerfd armed at Mox::activityManager().nextDeadline() wakes the loop for the timers,
// timer wheels and tasks, which runDue() then runs. Idle, the loop sleeps in epoll_wait.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

#include "linux/Fd.h"

namespace VeldAgent {

class EventLoop {
public:
   using Handler = std::function<void(uint32_t events)>;

   EventLoop();
   EventLoop(EventLoop const&) = delete;
   EventLoop& operator=(EventLoop const&) = delete;

   // 0 or an errno. `fd` stays the caller's; remove it before closing it.
   int add(int fd, uint32_t events, Handler handler);
   int modify(int fd, uint32_t events);
   void remove(int fd);

   // One round: waits at most `maxWaitSeconds` (negative: until something happens) for I/O
   // or the next framework deadline, then dispatches what is ready and runs what is due.
   void runOnce(double maxWaitSeconds = -1.0);
   // Rounds until stop() is called.
   void run();
   // Rounds until `done()` holds or `timeoutSeconds` pass; true if it held.
   bool runUntil(std::function<bool()> const& done, double timeoutSeconds);
   void stop() { stopped_ = true; }
   bool stopped() const { return stopped_; }

private:
   void armTimer(double waitSeconds);
   Konet::Fd epoll_;
   Konet::Fd timer_;
   std::map<int, Handler> handlers_;
   bool stopped_ = false;
};

}  // namespace VeldAgent
