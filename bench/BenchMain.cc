#include "BenchMain.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

namespace {

class RatioReporter : public benchmark::ConsoleReporter {
public:
   void ReportRuns(std::vector<Run> const& runs) override {
      ConsoleReporter::ReportRuns(runs);
      for (auto const& r : runs) {
         if (r.run_type != Run::RT_Iteration || r.error_occurred) continue;
         times_[r.benchmark_name()] = r.GetAdjustedRealTime();
      }
   }
   // Each "ours" case against every baseline of the same case measured in this run:
   // "baseline" and, where a case has one, "kernel_work".
   void Finalize() override {
      ConsoleReporter::Finalize();
      std::printf("\n%-48s %-12s %12s\n", "case", "against", "ours/it");
      for (auto const& [name, t] : times_) {
         auto slash = name.rfind("/ours");
         if (slash == std::string::npos) continue;
         for (char const* against : {"baseline", "kernel_work"}) {
            std::string base = name.substr(0, slash) + "/" + against + name.substr(slash + 5);
            auto it = times_.find(base);
            if (it == times_.end() || it->second <= 0) continue;
            std::printf("%-48s %-12s %12.3f\n",
                        (name.substr(0, slash) + name.substr(slash + 5)).c_str(), against,
                        t / it->second);
         }
      }
   }

private:
   std::map<std::string, double> times_;
};

}  // namespace

int benchMain(int argc, char** argv) {
   benchmark::Initialize(&argc, argv);
   if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
   RatioReporter reporter;
   benchmark::RunSpecifiedBenchmarks(&reporter);
   benchmark::Shutdown();
   return 0;
}

void benchIpv6Off() {
   for (char const* conf : {"all", "default"}) {
      std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + conf + "/disable_ipv6") << "1";
   }
}

void benchProfile(bool on) {
   static char const* fifo = std::getenv("BENCH_PERF_CTL");
   if (fifo) std::ofstream(fifo) << (on ? "enable\n" : "disable\n") << std::flush;
}
