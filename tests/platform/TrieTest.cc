// The longest-match trie against a linear longest match over the same routes, and the
// nexthop trie's walk below a prefix.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

#include "platform/LpmTrie.h"
#include "platform/Nexthop.h"
#include "platform/TrieGen.h"

namespace {

template <class Key, int Bits>
struct Reference {
   std::set<std::pair<int, Key>> routes;  // (len, net)
   // The longest route containing k, as (len, net); len -1 when none.
   std::pair<int, Key> lookup(Key k) const {
      std::pair<int, Key> best{-1, 0};
      for (auto const& [len, net] : routes) {
         if (Routing::LpmTrie<Key, Bits>::mask(k, len) == net && len > best.first)
            best = {len, net};
      }
      return best;
   }
};

template <class Key, int Bits>
void checkAgainstReference(uint32_t seed, int routes, int rounds, bool bulk) {
   using Lpm = Routing::LpmTrie<Key, Bits>;
   std::mt19937_64 rng(seed);
   auto randKey = [&] {
      if constexpr (Bits == 32) {
         return static_cast<Key>(rng());
      } else {
         return static_cast<Key>(static_cast<Key>(rng()) << 64 | rng());
      }
   };
   // Routes cluster under a few /8s so that they nest, overlap and share nodes; lengths
   // cover /0, the node boundaries and host routes.
   std::vector<Key> bases;
   for (int i = 0; i < 4; ++i)
      bases.push_back(Lpm::mask(randKey(), 8));
   auto randRoute = [&] {
      int len = static_cast<int>(rng() % (Bits + 1));
      if (rng() % 4 == 0) len = std::vector<int>{0, 8, 16, 17, 24, 25, Bits}[rng() % 7];
      Key k = bases[rng() % bases.size()] | (randKey() & (~Key{0} >> 8));
      return std::pair<int, Key>{len, Lpm::mask(k, len)};
   };
   auto probe = [&](Lpm const& t, Reference<Key, Bits> const& ref) {
      for (int i = 0; i < 400; ++i) {
         Key k = bases[rng() % bases.size()] | (randKey() & (~Key{0} >> 8));
         if (i % 3 == 0 && !ref.routes.empty()) {
            // A probe right at or next to a route's edges.
            auto it = ref.routes.begin();
            std::advance(it, rng() % ref.routes.size());
            k = it->second + (i % 2 ? 0 : Key{1});
         }
         auto want = ref.lookup(k);
         auto id = t.lookup(k);
         if (want.first < 0) {
            ASSERT_EQ(id, Lpm::kNoRoute);
         } else {
            ASSERT_NE(id, Lpm::kNoRoute);
            ASSERT_EQ(t.length(id), want.first);
            ASSERT_TRUE(t.network(id) == want.second);
         }
      }
   };
   Lpm t;
   Reference<Key, Bits> ref;
   for (int i = 0; i < routes; ++i)
      ref.routes.insert(randRoute());
   if (bulk) {
      std::vector<std::pair<Key, uint8_t>> all;
      for (auto const& [len, net] : ref.routes)
         all.emplace_back(net, static_cast<uint8_t>(len));
      t.build(all);
   } else {
      for (auto const& [len, net] : ref.routes)
         t.insert(net, len);
   }
   ASSERT_EQ(t.routes(), ref.routes.size());
   probe(t, ref);
   for (int round = 0; round < rounds; ++round) {
      for (int i = 0; i < 20; ++i) {
         if (rng() % 2 && !ref.routes.empty()) {
            auto it = ref.routes.begin();
            std::advance(it, rng() % ref.routes.size());
            ASSERT_TRUE(t.erase(it->second, it->first));
            ref.routes.erase(it);
         } else {
            auto r = randRoute();
            t.insert(r.second, r.first);
            ref.routes.insert(r);
         }
      }
      ASSERT_EQ(t.routes(), ref.routes.size());
      probe(t, ref);
   }
   // Everything deleted: nothing matches and no node is left.
   for (auto const& r : ref.routes)
      ASSERT_TRUE(t.erase(r.second, r.first));
   EXPECT_EQ(t.routes(), 0u);
   EXPECT_EQ(t.nodes(), 0u);
   EXPECT_EQ(t.lookup(randKey()), Lpm::kNoRoute);
}

TEST(LpmTrie, Ipv4MatchesLinearLongestMatch) {
   for (uint32_t seed = 1; seed <= 6; ++seed)
      checkAgainstReference<uint32_t, 32>(seed, 300, 30, seed % 2);
}

TEST(LpmTrie, Ipv6MatchesLinearLongestMatch) {
   for (uint32_t seed = 1; seed <= 6; ++seed)
      checkAgainstReference<unsigned __int128, 128>(seed, 300, 30, seed % 2);
}

TEST(LpmTrie, DefaultRouteHostRouteAndReplacement) {
   Routing::Lpm4 t;
   EXPECT_EQ(t.lookup(0x0a000001), Routing::Lpm4::kNoRoute);
   auto def = t.insert(0, 0);
   auto host = t.insert(0x0a000001, 32);
   EXPECT_EQ(t.insert(0x0a000001, 32), host);  // present already
   EXPECT_EQ(t.lookup(0x0a000001), host);
   EXPECT_EQ(t.lookup(0x0a000002), def);
   EXPECT_EQ(t.lookup(0xffffffff), def);
   EXPECT_FALSE(t.erase(0x0a000000, 24));
   EXPECT_TRUE(t.erase(0, 0));
   EXPECT_EQ(t.lookup(0x0a000002), Routing::Lpm4::kNoRoute);
   EXPECT_EQ(t.lookup(0x0a000001), host);
}

Konet::IpGenAddr addr(char const* s) { return *Konet::IpGenAddr::parse(s); }
Routing::GenPrefix prefix(char const* s) { return *Routing::GenPrefix::parse(s); }

class Collect : public Routing::NexthopTrieWalker {
public:
   void handlePrefix(Konet::IpGenAddr const& a) override { seen.push_back(a.toString()); }
   std::vector<std::string> seen;
};

TEST(NexthopTrie, WalkVisitsExactlyTheNexthopsBelowThePrefixInPreOrder) {
   Routing::NexthopTrie t;
   for (auto const* a :
        {"10.1.2.3", "10.1.2.200", "10.1.3.1", "10.0.255.255", "10.1.2.0", "11.0.0.0"})
      t.nexthopIs(addr(a));
   Collect c;
   EXPECT_EQ(t.walk(prefix("10.1.2.0/24"), c), 3u);
   EXPECT_EQ(c.seen, (std::vector<std::string>{"10.1.2.0", "10.1.2.3", "10.1.2.200"}));
   Collect all;
   EXPECT_EQ(t.walk(prefix("0.0.0.0/0"), all), 6u);
   Collect host;
   EXPECT_EQ(t.walk(prefix("10.1.3.1/32"), host), 1u);
   Collect none;
   EXPECT_EQ(t.walk(prefix("10.2.0.0/16"), none), 0u);
   t.nexthopDel(addr("10.1.2.3"));
   Collect after;
   EXPECT_EQ(t.walk(prefix("10.1.2.0/24"), after), 2u);
}

TEST(TrieGen, FollowsItsTableAndCountsMarks) {
   auto table = Mox::make<Routing::FibRouteTable>(Konet::AddressFamily::ipv6);
   table->routeIs(prefix("2001:db8::/32"), {});
   auto trie = Mox::make<Routing::TrieGen>(Mox::Name("t6"), Konet::AddressFamily::ipv6);
   auto builder = Mox::make<Routing::TrieGenBuilder>(nullptr, table, trie);
   EXPECT_EQ(trie->longestMatch(addr("2001:db8::1")), prefix("2001:db8::/32"));
   table->routeIs(prefix("2001:db8:1::/48"), {});
   EXPECT_EQ(trie->longestMatch(addr("2001:db8:1::1")), prefix("2001:db8:1::/48"));
   EXPECT_EQ(trie->longestMatch(addr("10.0.0.1")), std::nullopt);  // the other family
   trie->routeIs(prefix("2001:db8::/32"), 1);
   trie->routeIs(prefix("2001:db8::/32"), 1);
   trie->routeDel(prefix("2001:db8::/32"));
   EXPECT_EQ(trie->routeMarks(prefix("2001:db8::/32")), 1u);
   trie->routeDel(prefix("2001:db8::/32"));
   EXPECT_EQ(trie->markedRoutes(), 0u);
   builder = nullptr;  // no builder, no updates
   table->routeDel(prefix("2001:db8:1::/48"));
   EXPECT_EQ(trie->longestMatch(addr("2001:db8:1::1")), prefix("2001:db8:1::/48"));
}

}  // namespace
