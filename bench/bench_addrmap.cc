// Seeding an address map from the kernel mirror, against a plain loop that puts the same
// entries into standard containers.
#include <benchmark/benchmark.h>

#include <unordered_map>
#include <unordered_set>

#include "BenchMain.h"
#include "veld/addr/AddrMappingSm.h"

namespace {

constexpr uint32_t kEntries = 100000;  // half IPv4, half IPv6, over 1,000 interfaces

Mox::Ptr<KernelNetInfo::Status> mirror() {
   static Mox::Ptr<KernelNetInfo::Status> status = [] {
      auto s = Mox::make<KernelNetInfo::Status>("default");
      s->ipStateTable()->reserve(kEntries);
      for (uint32_t i = 0; i < kEntries; ++i) {
         KernelNetInfo::IpState st;
         st.key.intfKey.ifIndex = 1 + i % 1000;
         if (i % 2) {
            st.key.addr = Konet::IpAddr(0x0a000000u + i);
            st.key.prefixLen = 24;
         } else {
            Konet::Ip6Addr::Bytes b{0x20, 0x01, 0x0d, 0xb8};
            b[12] = uint8_t(i >> 24), b[13] = uint8_t(i >> 16), b[14] = uint8_t(i >> 8);
            b[15] = uint8_t(i);
            st.key.addr = Konet::Ip6Addr(b);
            st.key.prefixLen = 64;
            st.flags = 0x80;
         }
         st.assigned = true;
         s->ipStateIs(st);
      }
      return s;
   }();
   return status;
}

void Seed_ours(benchmark::State& state) {
   Mox::Ptr<KernelNetInfo::Status const> status = mirror();
   for (auto _ : state) {
      auto map = Mox::make<Veld::AddrMap>(status);
      auto sm = Veld::AddrMappingSmIs(status, map);
      benchmark::DoNotOptimize(sm);
   }
   state.SetItemsProcessed(state.iterations() * kEntries);
}
BENCHMARK(Seed_ours)->Name("addrmap_seed/ours")->Unit(benchmark::kMillisecond);

struct PlainIntf {
   std::unordered_set<Konet::IpAddrWithMask> addr;
   std::unordered_set<Konet::Ip6AddrWithMask> addr6;
   std::unordered_map<Konet::Ip6AddrWithMask, uint32_t> addr6Flags;
};

void Seed_baseline(benchmark::State& state) {
   Mox::Ptr<KernelNetInfo::Status const> status = mirror();
   for (auto _ : state) {
      std::unordered_map<uint32_t, PlainIntf> map;
      auto table = status->ipState();
      for (auto it = table.begin(); it != table.end(); ++it) {
         auto const& s = it.value();
         auto& intf = map[s.key.intfKey.ifIndex];
         if (s.key.addr.isV6()) {
            Konet::Ip6AddrWithMask a(s.key.addr.v6(), uint8_t(s.key.prefixLen));
            intf.addr6.insert(a);
            intf.addr6Flags[a] = s.flags;
         } else {
            intf.addr.insert(Konet::IpAddrWithMask(s.key.addr.v4(), uint8_t(s.key.prefixLen)));
         }
      }
      benchmark::DoNotOptimize(map);
   }
   state.SetItemsProcessed(state.iterations() * kEntries);
}
BENCHMARK(Seed_baseline)->Name("addrmap_seed/baseline")->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) { return benchMain(argc, argv); }
