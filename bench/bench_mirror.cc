// The kernel mirror's full resync of a namespace holding 10,000 addresses, against the bare
// dump of the same addresses (the kernel's share of the work).
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <cstring>

#include "BenchMain.h"
#include "linux/KernelMirror.h"
#include "linux/Netlink.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"

namespace {

constexpr int kAddrs = 10000;

struct World {
   std::string problem;
   Konet::Fd sock;
   World() {
      if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
         problem = std::string("unshare: ") + strerror(errno);
         return;
      }
      sock = Konet::createNetlinkSocket("default", 0, 5, true, 0);
      int ifindex = 0;
      if (Konet::createVethPair(sock.get(), "mb0a", "mb0b") ||
          Konet::linkIndex(sock.get(), "mb0a", &ifindex)) {
         problem = "veth set-up failed";
         return;
      }
      for (int i = 0; i < kAddrs / 2; ++i) {
         Konet::ipAddrAdd(sock.get(), ifindex,
                          Konet::IpAddrWithMask(Konet::IpAddr(0x0a000000u + uint32_t(i)), 32));
         Konet::Ip6Addr::Bytes b{0x20, 0x01, 0x0d, 0xb8};
         b[14] = uint8_t(i >> 8);
         b[15] = uint8_t(i);
         Konet::ip6AddrAdd(sock.get(), ifindex, Konet::Ip6AddrWithMask(Konet::Ip6Addr(b), 128));
      }
   }
};

World& world() {
   static World w;
   return w;
}

void Resync_ours(benchmark::State& state) {
   if (!world().problem.empty()) return state.SkipWithError(world().problem.c_str());
   Konet::KernelMirror mirror("default");
   mirror.start();
   for (auto _ : state)
      mirror.resync();
   state.counters["addresses"] = double(mirror.status()->ipState().size());
}
BENCHMARK(Resync_ours)->Name("mirror_resync/ours")->Unit(benchmark::kMillisecond);

void Resync_baseline(benchmark::State& state) {
   if (!world().problem.empty()) return state.SkipWithError(world().problem.c_str());
   auto sock = Konet::createNetlinkSocket("default", 0, 5, true, 0);
   for (auto _ : state) {
      std::vector<Konet::LinkInfo> links;
      std::vector<Konet::AddrInfo> addrs;
      Konet::dumpLinks(sock.get(), &links);
      Konet::dumpAddrs(sock.get(), AF_UNSPEC, 0, &addrs);
      benchmark::DoNotOptimize(addrs);
   }
}
BENCHMARK(Resync_baseline)->Name("mirror_resync/baseline")->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) { return benchMain(argc, argv); }
