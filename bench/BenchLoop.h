// One turn of an event loop like the agent's, for benchmarks that drive a machine against
// the kernel: wait for the kernel mirror's socket or the next deadline, read the mirror, then
// do what is due. Records the longest the loop was busy in one go and the longest turn in
// which the machine's backlog ran.
#pragma once

#include <poll.h>

#include <algorithm>
#include <cstdint>

#include "linux/KernelMirror.h"
#include "mox/Clock.h"

struct BenchLoop {
   double maxBusy = 0.0;
   double maxRun = 0.0;

   // `runs()` is the machine's count of backlog runs.
   template <class Runs>
   void turn(Konet::KernelMirror& mirror, Runs runs) {
      auto now = [] { return Mox::System::currentTime(); };
      double wait = Mox::activityManager().nextDeadline() - now();
      pollfd p{mirror.fd(), POLLIN, 0};
      ::poll(&p, 1, wait <= 0 ? 0 : std::min(1000, int(wait * 1000) + 1));
      double start = now();
      mirror.processEvents();
      double runStart = now();
      uint64_t before = runs();
      Mox::activityManager().runDue();
      double end = now();
      if (runs() != before) maxRun = std::max(maxRun, end - runStart);
      maxBusy = std::max(maxBusy, end - start);
   }
};
