// Nexthop resolution on a synthetic Internet-like FIB: 1,000,000 IPv4 and 223,000 IPv6
// prefixes with the length mix of today's global tables (/24 the most frequent IPv4 length,
// /48 the IPv6 one), generated from a fixed seed.
//
// Counters: lookups_per_s_v4 and lookups_per_s_v6 (random longest-match lookups, one
// core), build_s (both tries from the route tables), bytes_per_route (the IPv4 trie),
// resolve_100k_s (100,000 configured nexthops resolved from scratch, with max_run_s the
// longest task run the event loop waited for), reresolved_per_change next to
// nexthops_under_prefix (one route change), and lpm_vs_binary_trie (our lookup time over a
// one-bit-per-level binary trie's on the same routes and addresses, in the same run).
#include <benchmark/benchmark.h>

#include <time.h>

#include <chrono>
#include <random>
#include <vector>

#include "BenchMain.h"
#include "mox/Clock.h"
#include "veld/nexthop/NexthopResolverSm.h"
#include "veld/nexthop/TrieBuilderContainer.h"

namespace {

using Routing::GenPrefix;
using Clock = std::chrono::steady_clock;

// Seconds of CPU this thread used: what a figure costs on one core, whatever else the
// machine runs meanwhile.
double cpuNow() {
   timespec ts;
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
   return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

constexpr size_t kRoutes4 = 1000000;
constexpr size_t kRoutes6 = 223000;
constexpr size_t kLookups = 1 << 20;
constexpr size_t kNexthops = 100000;

// Share of each prefix length, in thousandths, after the published distributions.
constexpr std::pair<int, int> kMix4[] = {
    {8, 1},   {11, 1},  {12, 2},  {13, 4},  {14, 7},   {15, 12}, {16, 13},  {17, 8},
    {18, 14}, {19, 25}, {20, 40}, {21, 45}, {22, 100}, {23, 75}, {24, 600}, {25, 2},
    {26, 2},  {27, 1},  {28, 1},  {29, 1},  {30, 1},   {32, 45}};
constexpr std::pair<int, int> kMix6[] = {
    {19, 1},  {20, 2},  {24, 5},  {28, 10}, {29, 40}, {32, 100}, {33, 10},  {34, 10}, {35, 5},
    {36, 30}, {40, 60}, {44, 70}, {45, 10}, {46, 30}, {47, 30},  {48, 520}, {56, 30}, {64, 37}};

template <size_t N>
int drawLength(std::mt19937_64& rng, std::pair<int, int> const (&mix)[N]) {
   int total = 0;
   for (auto const& [len, share] : mix)
      total += share;
   int r = static_cast<int>(rng() % static_cast<uint64_t>(total));
   for (auto const& [len, share] : mix) {
      if (r < share) return len;
      r -= share;
   }
   return mix[N - 1].first;
}

struct World {
   Mox::Ptr<Routing::FibRouteTable> routes4 =
       Mox::make<Routing::FibRouteTable>(Konet::AddressFamily::ipv4);
   Mox::Ptr<Routing::FibRouteTable> routes6 =
       Mox::make<Routing::FibRouteTable>(Konet::AddressFamily::ipv6);
   Mox::Ptr<Routing::TrieGen> trie4 =
       Mox::make<Routing::TrieGen>(Mox::Name("fib4"), Konet::AddressFamily::ipv4);
   Mox::Ptr<Routing::TrieGen> trie6 =
       Mox::make<Routing::TrieGen>(Mox::Name("fib6"), Konet::AddressFamily::ipv6);
   std::vector<uint32_t> keys4;
   std::vector<unsigned __int128> keys6;
   std::vector<std::pair<uint32_t, int>> list4;

   World() {
      std::mt19937_64 rng(20261124);
      Routing::FibRoute route{{Routing::FibVia{Konet::IpAddr(0xc0000201), 2}}};
      routes4->reserve(kRoutes4);
      // IPv4: unicast space 1/8 to 223/8, the /8s themselves rare.
      while (routes4->size() < kRoutes4) {
         int len = drawLength(rng, kMix4);
         uint32_t a =
             static_cast<uint32_t>(1 + rng() % 223) << 24 | static_cast<uint32_t>(rng() & 0xffffff);
         GenPrefix p(Konet::IpAddr(a), static_cast<uint8_t>(len));
         if (routes4->route(p)) continue;
         routes4->routeIs(p, route);
         list4.emplace_back(p.network.v4().value(), len);
      }
      // IPv6: as in the global table, more specifics inside some 30,000 allocations (/29 to
      // /32 under the RIRs' blocks), the allocations themselves among them.
      Routing::FibRoute route6{{Routing::FibVia{*Konet::IpGenAddr::parse("fe80::1"), 2}}};
      routes6->reserve(kRoutes6);
      static constexpr uint16_t kTops[] = {0x2001, 0x2400, 0x2600, 0x2800, 0x2a00, 0x2c0f};
      std::vector<unsigned __int128> allocations;
      for (int i = 0; i < 30000; ++i) {
         unsigned __int128 k = static_cast<unsigned __int128>(kTops[rng() % 6] | (rng() % 0x200))
                               << 112;
         k |= static_cast<unsigned __int128>(rng() & 0xffff) << 96;
         allocations.push_back(k);
      }
      while (routes6->size() < kRoutes6) {
         int len = drawLength(rng, kMix6);
         unsigned __int128 k = allocations[rng() % allocations.size()];
         if (len > 32) k |= static_cast<unsigned __int128>(rng()) << 32;
         GenPrefix p(Routing::lpmAddr6(k), static_cast<uint8_t>(len));
         if (routes6->route(p)) continue;
         routes6->routeIs(p, route6);
      }
      trie4->tableIs(routes4);
      trie6->tableIs(routes6);
      trie4->load();
      trie6->load();
      // Lookups: half inside a random route, half anywhere.
      std::vector<GenPrefix> all6;
      for (auto const& [p, r] : routes6->routes())
         all6.push_back(p);
      for (size_t i = 0; i < kLookups; ++i) {
         if (i % 2) {
            keys4.push_back(static_cast<uint32_t>(rng()));
            keys6.push_back(static_cast<unsigned __int128>(0x2000 | (rng() % 0xc10)) << 112 |
                            static_cast<unsigned __int128>(rng()) << 48 | rng() % 0xffff);
         } else {
            auto const& [net, len] = list4[rng() % list4.size()];
            keys4.push_back(net | (len == 32 ? 0 : static_cast<uint32_t>(rng()) >> len));
            auto const& p6 = all6[rng() % all6.size()];
            auto host = rng();
            keys6.push_back(Routing::lpmKey6(p6.network) |
                            (p6.len >= 64
                                 ? host >> (p6.len - 64)
                                 : (static_cast<unsigned __int128>(host) << 64 | rng()) >> p6.len));
         }
      }
   }
};

World& world() {
   static World w;
   return w;
}

// A plain binary trie, one bit per level: the baseline of the lookup.
class BinaryTrie {
public:
   BinaryTrie() { nodes_.push_back({{0, 0}, kNone}); }
   void insert(uint32_t net, int len, uint32_t id) {
      uint32_t n = 0;
      for (int i = 0; i < len; ++i) {
         int bit = net >> (31 - i) & 1;
         if (!nodes_[n].child[bit]) {
            nodes_[n].child[bit] = static_cast<uint32_t>(nodes_.size());
            nodes_.push_back({{0, 0}, kNone});
         }
         n = nodes_[n].child[bit];
      }
      nodes_[n].route = id;
   }
   uint32_t lookup(uint32_t k) const {
      uint32_t n = 0, best = nodes_[0].route;
      for (int i = 0; i < 32; ++i) {
         n = nodes_[n].child[k >> (31 - i) & 1];
         if (!n) break;
         if (nodes_[n].route != kNone) best = nodes_[n].route;
      }
      return best;
   }

private:
   static constexpr uint32_t kNone = ~0u;
   struct Node {
      uint32_t child[2];
      uint32_t route;
   };
   std::vector<Node> nodes_;
};

void Lookup4(benchmark::State& state) {
   auto& w = world();
   auto const& lpm = w.trie4->lpm4();
   uint64_t sum = 0;
   for (auto _ : state) {
      for (uint32_t k : w.keys4)
         sum += lpm.lookup(k);
   }
   benchmark::DoNotOptimize(sum);
   state.counters["lookups_per_s_v4"] =
       benchmark::Counter(double(state.iterations() * w.keys4.size()), benchmark::Counter::kIsRate);
   state.counters["bytes_per_route"] = double(lpm.memoryBytes()) / double(lpm.routes());
}
BENCHMARK(Lookup4)->Name("nexthop_lookup_v4")->Unit(benchmark::kMillisecond);

void Lookup6(benchmark::State& state) {
   auto& w = world();
   auto const& lpm = w.trie6->lpm6();
   uint64_t sum = 0;
   for (auto _ : state) {
      for (auto k : w.keys6)
         sum += lpm.lookup(k);
   }
   benchmark::DoNotOptimize(sum);
   state.counters["lookups_per_s_v6"] =
       benchmark::Counter(double(state.iterations() * w.keys6.size()), benchmark::Counter::kIsRate);
   state.counters["bytes_per_route_v6"] = double(lpm.memoryBytes()) / double(lpm.routes());
}
BENCHMARK(Lookup6)->Name("nexthop_lookup_v6")->Unit(benchmark::kMillisecond);

void LpmVsBinary(benchmark::State& state) {
   auto& w = world();
   BinaryTrie binary;
   for (auto const& [net, len] : w.list4)
      binary.insert(net, len, net);
   auto const& lpm = w.trie4->lpm4();
   double ours = 0, theirs = 0;
   uint64_t sum = 0;
   for (auto _ : state) {
      auto t0 = Clock::now();
      for (uint32_t k : w.keys4)
         sum += lpm.lookup(k);
      auto t1 = Clock::now();
      for (uint32_t k : w.keys4)
         sum += binary.lookup(k);
      auto t2 = Clock::now();
      ours += std::chrono::duration<double>(t1 - t0).count();
      theirs += std::chrono::duration<double>(t2 - t1).count();
   }
   benchmark::DoNotOptimize(sum);
   state.counters["lpm_vs_binary_trie"] = ours / theirs;
}
BENCHMARK(LpmVsBinary)->Name("nexthop_lpm_vs_binary")->Unit(benchmark::kMillisecond);

void Build(benchmark::State& state) {
   auto& w = world();
   double total = 0, wall = 0;
   for (auto _ : state) {
      auto t0 = Clock::now();
      double c0 = cpuNow();
      w.trie4->load();
      w.trie6->load();
      total += cpuNow() - c0;
      wall += std::chrono::duration<double>(Clock::now() - t0).count();
   }
   state.counters["build_s"] = total / double(state.iterations());
   state.counters["build_wall_s"] = wall / double(state.iterations());
}
BENCHMARK(Build)->Name("nexthop_build")->Unit(benchmark::kMillisecond)->Iterations(3);

// The resolver in the agent's shape: a container with one client, 100,000 nexthops of both
// families spread over the table, the scheduler run slice by slice as the event loop does.
void Resolve(benchmark::State& state) {
   auto& w = world();
   L3::VrfName vrf("default");
   for (auto _ : state) {
      auto scheduler = Mox::make<Bolt::TaskScheduler>();
      auto config = Veld::trieBuilderContainerConfigFactory(false);
      auto status = Veld::trieBuilderContainerStatusFactory();
      auto dir = Mox::make<Mox::Dir>(Mox::Name("nexthop"));
      auto client = Mox::make<Routing::NexthopConfig>(Mox::Name("bench"));
      auto vrfConfig = client->vrfIs(vrf);
      std::mt19937_64 rng(7);
      for (size_t i = 0; i < kNexthops; ++i) {
         if (i % 5 == 0) {
            vrfConfig->nexthopIs({Routing::lpmAddr6(w.keys6[rng() % w.keys6.size()])});
         } else {
            vrfConfig->nexthopIs({Konet::IpAddr(w.keys4[rng() % w.keys4.size()])});
         }
      }
      dir->entryIs(Mox::Name("bench"), client);
      auto routing4 = Mox::make<Routing::InfoConfig>(vrf);
      auto routing6 = Mox::make<Routing6::InfoConfig>(vrf);
      routing4->routingIs(true);
      routing6->routingIs(true);
      auto nhStatus = Mox::make<Routing::NexthopVrfStatus>(vrf);

      auto container =
          Veld::trieBuilderContainerFactory(vrf, {config, status, w.routes4, w.routes6, dir});
      auto t0 = Clock::now();
      double c0 = cpuNow();
      auto resolver = Routing::nexthopResolverSmFactory(
          vrf, Mox::Name("bench"), {vrfConfig, status, routing4, routing6, nhStatus, scheduler});
      double maxRun = cpuNow() - c0;
      double maxRunWall = std::chrono::duration<double>(Clock::now() - t0).count();
      while (scheduler->hasReadyTasks()) {
         auto s = Clock::now();
         double cs = cpuNow();
         scheduler->runSlice();
         maxRun = std::max(maxRun, cpuNow() - cs);
         maxRunWall = std::max(maxRunWall, std::chrono::duration<double>(Clock::now() - s).count());
      }
      double resolve = cpuNow() - c0;
      double resolveWall = std::chrono::duration<double>(Clock::now() - t0).count();

      // One route change: a more specific route under a resolved nexthop's prefix.
      Konet::IpGenAddr probe;
      for (auto const& [a, e] : nhStatus->nexthopIterator()) {
         if (a.isV4() && e.prefix.len <= 16) {
            probe = a;
            break;
         }
      }
      GenPrefix changed(probe, 17);
      size_t inside = 0;
      for (auto const& [a, e] : vrfConfig->nexthopIterator())
         inside += changed.contains(a);
      uint64_t runsBefore = resolver->reviewNexthopTask()->taskRuns();
      w.routes4->routeIs(changed, {{Routing::FibVia{Konet::IpAddr(0xc0000202), 3}}});
      size_t reviewed = resolver->reviewNexthops();
      scheduler->runUntilIdle();
      w.routes4->routeDel(changed);
      scheduler->runUntilIdle();
      benchmark::DoNotOptimize(runsBefore);

      state.counters["resolve_100k_s"] = resolve;
      state.counters["max_run_s"] = maxRun;
      state.counters["resolve_wall_s"] = resolveWall;
      state.counters["max_run_wall_s"] = maxRunWall;
      state.counters["reresolved_per_change"] = double(reviewed);
      state.counters["nexthops_under_prefix"] = double(inside);
      state.counters["resolved"] = double(nhStatus->nexthopIterator().size());
      resolver = nullptr;
      container = nullptr;
   }
}
BENCHMARK(Resolve)->Name("nexthop_resolve_100k")->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

int main(int argc, char** argv) { return benchMain(argc, argv); }
