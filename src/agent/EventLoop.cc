#include "agent/EventLoop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <time.h>

#include <cerrno>
#include <cmath>
#include <vector>

#include "mox/Clock.h"
#include "mox/Error.h"

namespace VeldAgent {

EventLoop::EventLoop()
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
   MOX_ASSERT(epoll_.valid() && timer_.valid());
   add(timer_.get(), EPOLLIN, [this](uint32_t) {
      uint64_t expirations;
      while (::read(timer_.get(), &expirations, sizeof expirations) > 0) {
      }
   });
}

int EventLoop::add(int fd, uint32_t events, Handler handler) {
   epoll_event ev{};
   ev.events = events;
   ev.data.fd = fd;
   if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &ev) != 0) return errno;
   handlers_[fd] = std::move(handler);
   return 0;
}

int EventLoop::modify(int fd, uint32_t events) {
   epoll_event ev{};
   ev.events = events;
   ev.data.fd = fd;
   return ::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &ev) == 0 ? 0 : errno;
}

void EventLoop::remove(int fd) {
   if (handlers_.erase(fd)) ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

// The timerfd fires at the framework's next deadline; a deadline already past fires at once.
void EventLoop::armTimer(double waitSeconds) {
   itimerspec when{};
   if (std::isfinite(waitSeconds)) {
      if (waitSeconds < 1e-6) waitSeconds = 1e-6;
      when.it_value.tv_sec = static_cast<time_t>(waitSeconds);
      when.it_value.tv_nsec =
          static_cast<long>((waitSeconds - static_cast<double>(when.it_value.tv_sec)) * 1e9);
      if (when.it_value.tv_sec == 0 && when.it_value.tv_nsec == 0) when.it_value.tv_nsec = 1000;
   }
   ::timerfd_settime(timer_.get(), 0, &when, nullptr);
}

void EventLoop::runOnce(double maxWaitSeconds) {
   auto& am = Mox::activityManager();
   double wait = am.nextDeadline() - am.now();
   armTimer(wait);
   int timeoutMs = -1;
   if (maxWaitSeconds >= 0) timeoutMs = static_cast<int>(std::ceil(maxWaitSeconds * 1000.0));
   if (std::isfinite(wait) && wait <= 0) timeoutMs = 0;
   epoll_event events[32];
   int n = ::epoll_wait(epoll_.get(), events, 32, timeoutMs);
   for (int i = 0; i < n; ++i) {
      auto it = handlers_.find(events[i].data.fd);
      if (it == handlers_.end()) continue;  // removed by an earlier handler of this round
      auto handler = it->second;            // a handler may remove itself
      handler(events[i].events);
   }
   am.runDue();
}

void EventLoop::run() {
   stopped_ = false;
   while (!stopped_)
      runOnce();
}

bool EventLoop::runUntil(std::function<bool()> const& done, double timeoutSeconds) {
   struct timespec ts;
   auto now = [&] {
      ::clock_gettime(CLOCK_MONOTONIC, &ts);
      return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
   };
   double const deadline = now() + timeoutSeconds;
   while (!done()) {
      double left = deadline - now();
      if (left <= 0 || stopped_) return done();
      runOnce(left < 0.05 ? left : 0.05);
   }
   return true;
}

}  // namespace VeldAgent
