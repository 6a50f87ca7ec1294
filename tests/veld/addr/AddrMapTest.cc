#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "mox/Trace.h"
#include "veld/addr/AddrMap.h"
#include "veld/addr/AddrMappingSm.h"

using namespace Veld;
using KernelNetInfo::InterfaceKey;
using Konet::Ip6AddrWithMask;
using Konet::IpAddrWithMask;

namespace {

IpAddrWithMask v4(char const* s) { return *IpAddrWithMask::parse(s); }
Ip6AddrWithMask v6(char const* s) { return *Ip6AddrWithMask::parse(s); }

KernelNetInfo::IpState ipState(uint32_t ifIndex, char const* addr, uint32_t flags, bool assigned) {
   auto a =
       *Konet::IpGenAddr::parse(std::string_view(addr).substr(0, std::string_view(addr).find('/')));
   uint32_t len =
       std::stoul(std::string(std::string_view(addr).substr(std::string_view(addr).find('/') + 1)));
   return KernelNetInfo::IpState{KernelNetInfo::IpKey{InterfaceKey{ifIndex}, a, len}, flags,
                                 assigned};
}

// Records what an IntfGenAddr delivers.
struct Watch : IntfGenAddr::NotifieeConst {
   std::vector<std::string> seen;
   void onAddr(IpAddrWithMask const& a) override { seen.push_back("addr " + a.toString()); }
   void onAddr6(Ip6AddrWithMask const& a) override { seen.push_back("addr6 " + a.toString()); }
   void onAddr6Flags(Ip6AddrWithMask const& a) override { seen.push_back("flags " + a.toString()); }
};

struct Traces : Mox::TraceSink {
   std::vector<std::string> lines;
   Traces() {
      Mox::traceSinkIs(this);
      Mox::traceLevelIs("AddrMap", 8);
   }
   ~Traces() override {
      Mox::traceLevelIs("AddrMap", -1);
      Mox::traceSinkIs(nullptr);
   }
   void write(Mox::TraceRecord const& r) override { lines.push_back(r.text); }
};

}  // namespace

TEST(AddrMappingSm, SeedsFromAssignedAndUnassignedEntriesWithFlags) {
   auto status = Mox::make<KernelNetInfo::Status>("default");
   auto map = Mox::make<AddrMap>(status);
   map->addAddr(InterfaceKey{9}, v4("192.0.2.1/24"));  // known before, unassigned in the table
   status->ipStateIs(ipState(3, "10.0.0.1/24", 0, true));
   status->ipStateIs(ipState(3, "2001:db8::1/64", 0x80, true));
   status->ipStateIs(ipState(3, "2001:db8::2/64", 0x40, false));  // not in the map: no change
   status->ipStateIs(ipState(9, "192.0.2.1/24", 0, false));
   status->ipStateIs(ipState(4, "fe80::1/64", 0x88, true));
   auto sm = AddrMappingSmIs(status, map);
   EXPECT_TRUE(sm->initialized());

   auto g3 = map->genAddr(InterfaceKey{3});
   ASSERT_TRUE(g3);
   EXPECT_TRUE(g3->addr(v4("10.0.0.1/24")));
   EXPECT_TRUE(g3->addr6(v6("2001:db8::1/64")));
   EXPECT_EQ(g3->addr6Flags(v6("2001:db8::1/64")), 0x80u);
   EXPECT_FALSE(g3->addr6(v6("2001:db8::2/64")));
   EXPECT_EQ(g3->addr6FlagsIterator().size(), 1u);
   EXPECT_EQ(map->genAddr(InterfaceKey{4})->addr6Flags(v6("fe80::1/64")), 0x88u);
   auto g9 = map->genAddr(InterfaceKey{9});
   ASSERT_TRUE(g9);  // emptied, not removed
   EXPECT_TRUE(g9->addrIterator().empty());

   // Seeding is never repeated.
   status->ipStateIs(ipState(5, "10.5.0.1/24", 0, true));
   sm->handleInitialized();
   EXPECT_FALSE(map->genAddr(InterfaceKey{5}));
}

TEST(AddrMappingSm, CorruptionMidwayKeepsWhatWasReadAndStillInitialises) {
   auto dir = std::filesystem::temp_directory_path() / ("addrmap-" + std::to_string(getpid()));
   Tessera::Util::corruptionDirIs(dir.string());
   auto status = Mox::make<KernelNetInfo::Status>("ns1");
   for (uint32_t i = 1; i <= 6; ++i) {
      status->ipStateIs(ipState(i, ("10.0." + std::to_string(i) + ".1/24").c_str(), 0, true));
   }
   status->ipStateTable()->corruptEntryIs(ipState(4, "10.0.4.1/24", 0, true).key);
   auto map = Mox::make<AddrMap>(status);
   Mox::Ptr<AddrMappingSm> sm;
   ASSERT_NO_THROW(sm = AddrMappingSmIs(status, map));
   EXPECT_TRUE(sm->initialized());
   EXPECT_EQ(map->genAddrIterator().size(), 3u);  // entries 1-3, in table order
   EXPECT_TRUE(map->genAddr(InterfaceKey{3}));
   EXPECT_FALSE(map->genAddr(InterfaceKey{5}));
   EXPECT_TRUE(std::filesystem::exists(dir / "kni_ns_ns1_ip.corruption"));
   std::filesystem::remove_all(dir);
}

TEST(AddrMap, SettersAreSilentWhenNothingChanges) {
   auto map = Mox::make<AddrMap>(nullptr);
   auto g = map->genAddrIs(InterfaceKey{1});
   auto w = Mox::make<Watch>();
   w->notifierIs(g);
   map->addAddr(InterfaceKey{1}, v4("10.0.0.1/24"));
   map->addAddr(InterfaceKey{1}, v4("10.0.0.1/24"));
   map->addAddr6(InterfaceKey{1}, v6("2001:db8::1/64"));
   map->addAddr6(InterfaceKey{1}, v6("2001:db8::1/64"));  // flags already 0: silent
   map->updateAddr6Flags(KernelNetInfo::IpKey{InterfaceKey{1}, v6("2001:db8::1/64").addr(), 64},
                         0x80);
   map->updateAddr6Flags(KernelNetInfo::IpKey{InterfaceKey{1}, v6("2001:db8::1/64").addr(), 64},
                         0x80);
   map->addAddr6(InterfaceKey{1}, v6("2001:db8::1/64"));  // re-adding resets the flags to 0
   EXPECT_EQ(g->addr6Flags(v6("2001:db8::1/64")), 0u);
   EXPECT_EQ(w->seen, (std::vector<std::string>{"addr 10.0.0.1/24", "addr6 2001:db8::1/64",
                                                "flags 2001:db8::1/64", "flags 2001:db8::1/64",
                                                "flags 2001:db8::1/64"}));
   // Flags are never recorded for an address the map does not hold, nor for an unknown
   // interface.
   map->updateAddr6Flags(KernelNetInfo::IpKey{InterfaceKey{1}, v6("2001:db8::9/64").addr(), 64}, 1);
   map->updateAddr6Flags(KernelNetInfo::IpKey{InterfaceKey{7}, v6("2001:db8::1/64").addr(), 64}, 1);
   EXPECT_EQ(g->addr6FlagsIterator().size(), 1u);
   EXPECT_FALSE(map->genAddr(InterfaceKey{7}));
}

TEST(AddrMap, FlushesKeepTheOtherFamilyAndLinkLocalAddresses) {
   auto map = Mox::make<AddrMap>(nullptr);
   InterfaceKey k{2};
   map->addAddr(k, v4("10.0.0.1/24"));
   map->addAddr(k, v4("10.0.1.1/24"));
   map->addAddr6(k, v6("2001:db8::1/64"));
   map->addAddr6(k, v6("fe80::1/64"));
   map->updateAddr6Flags(KernelNetInfo::IpKey{k, v6("fe80::1/64").addr(), 64}, 0x08);
   map->updateAddr6Flags(KernelNetInfo::IpKey{k, v6("2001:db8::1/64").addr(), 64}, 0x80);

   map->flushAddr6(k);
   auto g = map->genAddr(k);
   EXPECT_FALSE(g->addr6(v6("2001:db8::1/64")));
   EXPECT_TRUE(g->addr6(v6("fe80::1/64")));
   EXPECT_EQ(g->addr6Flags(v6("fe80::1/64")), 0u);
   EXPECT_EQ(g->addr6FlagsIterator().size(), 1u);
   EXPECT_EQ(g->addrIterator().size(), 2u);

   map->flushAddr(k);
   EXPECT_TRUE(g->addrIterator().empty());
   EXPECT_TRUE(g->addr6(v6("fe80::1/64")));

   map->delAddr(k, v4("10.9.9.9/8"));  // absent: nothing
   map->flushAddr(InterfaceKey{99});
   map->flushAddr6(InterfaceKey{99});
   EXPECT_FALSE(map->genAddr(InterfaceKey{99}));
   map->genAddrDel(k);
   EXPECT_FALSE(map->genAddr(k));
}

TEST(AddrMap, TracesNameTheAddressAndTheIndex) {
   Traces t;
   auto map = Mox::make<AddrMap>(nullptr);
   map->addAddr(InterfaceKey{3}, v4("10.0.0.1/24"));
   map->addAddr6(InterfaceKey{3}, v6("2001:db8::1/64"));
   map->updateAddr6Flags(KernelNetInfo::IpKey{InterfaceKey{3}, v6("2001:db8::1/64").addr(), 64},
                         0xc0);
   map->delAddr(InterfaceKey{3}, v4("10.0.0.1/24"));
   map->delAddr6(InterfaceKey{4}, v6("2001:db8::1/64"));  // no entry: the trace still comes first
   EXPECT_EQ(t.lines, (std::vector<std::string>{
                          "Adding ipv4 addr 10.0.0.1/24 from index: 3",
                          "Adding ipv6 addr 2001:db8::1/64 at index 3",
                          "Update addr6 2001:db8::1/64 at index 3 flags: 0xc0",
                          "Deleting ipv4 addr 10.0.0.1/24 from index: 3",
                          "Deleting ipv6 addr 2001:db8::1/64 from index: 4",
                      }));
}

TEST(IntfGenAddr, FlagsAreSetThroughTheGenericAttributeInterfaceOnly) {
   auto g = Mox::make<IntfGenAddr>(InterfaceKey{1});
   EXPECT_TRUE(g->attributeIs("flags", 0x41));
   EXPECT_EQ(g->flags(), 0x41u);
   EXPECT_FALSE(g->attributeIs("nosuch", 1));
}
