// Addresses and prefixes: strict parsing, canonical text, ordering, hashing, helpers.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <random>
#include <unordered_map>
#include <unordered_set>

#include "konet/IpPrefix.h"
#include "mox/Error.h"

namespace Konet {
namespace {

template <class T>
void expectRoundTrip(char const* text, char const* canonical) {
   std::string error;
   auto v = T::parse(text, &error);
   ASSERT_TRUE(v.has_value()) << text << ": " << error;
   EXPECT_EQ(v->toString(), canonical) << text;
   EXPECT_EQ(T::parse(v->toString()), v) << text;
   std::ostringstream os;
   os << *v;
   EXPECT_EQ(os.str(), canonical);
}

template <class T>
void expectRefused(std::string const& text, char const* errorPart = "") {
   std::string error;
   EXPECT_FALSE(T::parse(text, &error).has_value()) << "'" << text << "' was accepted";
   EXPECT_NE(error.find(errorPart), std::string::npos) << text << ": " << error;
   EXPECT_FALSE(error.empty()) << text;
}

TEST(IpAddr, ParseAndFormat) {
   for (auto t : {"0.0.0.0", "10.0.0.1", "192.168.1.10", "255.255.255.255"}) {
      expectRoundTrip<IpAddr>(t, t);
   }
   EXPECT_EQ(IpAddr::parse("10.1.2.3")->value(), 0x0a010203u);
   for (auto t : {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.4 ", " 1.2.3.4", "1..2.3",
                  "a.b.c.d", "1.2.3.-4", "1.2.3.4/24", "0x1.2.3.4", "1.2.3.", "::1"}) {
      expectRefused<IpAddr>(t);
   }
   expectRefused<IpAddr>("01.2.3.4", "leading zero");
   expectRefused<IpAddr>("1.2.3", "four dotted decimal parts");
}

TEST(Ip6Addr, ParseAndCanonicalFormat) {
   struct Case {
      char const* in;
      char const* canonical;
   } const cases[] = {
       {"::", "::"},
       {"::1", "::1"},
       {"2001:DB8::1", "2001:db8::1"},
       {"2001:0db8:0000:0000:0000:0000:0000:0001", "2001:db8::1"},
       {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},     // first of equal runs
       {"1:0:0:2:0:0:0:3", "1:0:0:2::3"},                 // longest run
       {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // one zero group stays
       {"fe80::0202:b3ff:fe1e:8329", "fe80::202:b3ff:fe1e:8329"},
       {"::ffff:192.0.2.1", "::ffff:192.0.2.1"},
       {"ff02::1:ff00:1", "ff02::1:ff00:1"},
   };
   for (auto const& c : cases)
      expectRoundTrip<Ip6Addr>(c.in, c.canonical);
   for (auto t : {"", ":::", "1::2::3", "fe80::1%eth0", "12345::", "g::1", "1:2:3:4:5:6:7:8:9",
                  "fe80::1/64", "10.0.0.1", "::ffff:01.2.3.4"}) {
      expectRefused<Ip6Addr>(t);
   }
   expectRefused<Ip6Addr>(std::string("::1\0", 4));
}

// The formatter agrees with the C library on addresses with every pattern of zero groups.
TEST(Ip6Addr, FormatsLikeTheCLibrary) {
   std::mt19937 rng(7);
   for (int i = 0; i < 5000; ++i) {
      Ip6Addr::Bytes b{};
      for (int g = 0; g < 8; ++g) {
         if (rng() % 2) continue;  // leave a zero group
         b[2 * g] = rng() % 3 ? 0 : static_cast<uint8_t>(rng());
         b[2 * g + 1] = static_cast<uint8_t>(rng());
      }
      char expected[INET6_ADDRSTRLEN];
      inet_ntop(AF_INET6, b.data(), expected, sizeof expected);
      Ip6Addr a(b);
      ASSERT_EQ(a.toString(), expected);
      ASSERT_EQ(Ip6Addr::parse(expected), a);
   }
}

TEST(IpAddrWithMask, ParseAndSubnet) {
   expectRoundTrip<IpAddrWithMask>("10.0.0.1/24", "10.0.0.1/24");
   expectRoundTrip<IpAddrWithMask>("10.0.0.1/32", "10.0.0.1/32");
   expectRoundTrip<IpAddrWithMask>("0.0.0.0/0", "0.0.0.0/0");
   expectRefused<IpAddrWithMask>("10.0.0.1/33", "not in 0..32");
   for (auto t : {"10.0.0.1", "10.0.0.1/", "10.0.0.1/-1", "10.0.0.1/08", "10.0.0.1/2 4", "/24",
                  "10.0.0.1/24/24", "10.0.0.1/1000", "1.2.3/8"}) {
      expectRefused<IpAddrWithMask>(t);
   }
   auto a = *IpAddrWithMask::parse("10.1.2.3/22");
   EXPECT_EQ(a.subnet().toString(), "10.1.0.0/22");
   EXPECT_EQ(a.mask().toString(), "255.255.252.0");
   EXPECT_EQ(a.broadcast().toString(), "10.1.3.255");
   EXPECT_EQ(IpAddrWithMask::parse("10.1.2.3/31")->broadcast().toString(), "10.1.2.3");
}

TEST(Ip6AddrWithMask, ParseAndSubnet) {
   expectRoundTrip<Ip6AddrWithMask>("FE80::1/64", "fe80::1/64");
   expectRoundTrip<Ip6AddrWithMask>("fe80::1/128", "fe80::1/128");
   expectRefused<Ip6AddrWithMask>("fe80::1/129", "not in 0..128");
   for (auto t : {"", "fe80::1", "fe80::1/", "/64", "10.0.0.1/24"}) {
      expectRefused<Ip6AddrWithMask>(t);
   }
   EXPECT_EQ(Ip6AddrWithMask::parse("2001:db8:ab:cdef::1/60")->subnet().toString(),
             "2001:db8:ab:cde0::/60");
   EXPECT_EQ(Ip6AddrWithMask(), *Ip6AddrWithMask::parse("::/0"));
}

TEST(Prefix, NetworksHaveNoHostBits) {
   expectRoundTrip<Prefix>("10.0.0.0/8", "10.0.0.0/8");
   expectRoundTrip<Prefix>("0.0.0.0/0", "0.0.0.0/0");
   expectRefused<Prefix>("10.0.0.1/8", "host bits set; the prefix is 10.0.0.0/8");
   expectRefused<Prefix>("10.0.0.0/33");
   EXPECT_EQ(Prefix(*IpAddr::parse("10.1.2.3"), 12).toString(), "10.0.0.0/12");
   Prefix p = *Prefix::parse("192.168.0.0/16");
   EXPECT_TRUE(p.contains(*IpAddr::parse("192.168.255.1")));
   EXPECT_FALSE(p.contains(*IpAddr::parse("192.169.0.1")));

   expectRoundTrip<Ip6Prefix>("2001:db8::/32", "2001:db8::/32");
   expectRefused<Ip6Prefix>("2001:db8::1/32", "host bits set");
   EXPECT_EQ(Ip6Prefix(*Ip6Addr::parse("ffff:ffff::"), 10).toString(), "ffc0::/10");
   EXPECT_TRUE(Ip6Prefix::parse("fe80::/10")->contains(*Ip6Addr::parse("febf::1")));
   EXPECT_FALSE(Ip6Prefix::parse("fe80::/10")->contains(*Ip6Addr::parse("fec0::1")));
}

TEST(Addr, LinkLocalMulticastAndGroups) {
   auto v4 = [](char const* t) { return *IpAddr::parse(t); };
   auto v6 = [](char const* t) { return *Ip6Addr::parse(t); };
   EXPECT_TRUE(v4("169.254.0.1").isLinkLocal());
   EXPECT_FALSE(v4("169.255.0.1").isLinkLocal());
   EXPECT_TRUE(v4("224.0.0.1").isMulticast());
   EXPECT_TRUE(v4("239.255.255.255").isMulticast());
   EXPECT_FALSE(v4("240.0.0.1").isMulticast());
   EXPECT_TRUE(v6("fe80::1").isLinkLocal());
   EXPECT_TRUE(v6("febf:ffff::1").isLinkLocal());
   EXPECT_FALSE(v6("fec0::1").isLinkLocal());
   EXPECT_TRUE(v6("ff02::1").isMulticast());
   EXPECT_FALSE(v6("fe02::1").isMulticast());
   EXPECT_EQ(v6("2001:db8::aabb:ccdd").solicitedNodeMulticast().toString(), "ff02::1:ffbb:ccdd");
   EXPECT_EQ(v6("fe80::1").solicitedNodeMulticast().toString(), "ff02::1:ff00:1");
   EXPECT_EQ(Ip6Addr::allNodes().toString(), "ff02::1");
   EXPECT_TRUE(IpGenAddr(v6("fe80::5")).isLinkLocal());
   EXPECT_TRUE(IpGenAddr(v4("224.1.1.1")).isMulticast());
   EXPECT_FALSE(IpGenAddr().isLinkLocal());
}

TEST(IpGenAddr, FamiliesOrderAndBytes) {
   auto a4 = *IpGenAddr::parse("10.0.0.1");
   auto a6 = *IpGenAddr::parse("::a00:1");
   EXPECT_TRUE(a4.isV4());
   EXPECT_EQ(a4.af(), AddressFamily::ipv4);
   EXPECT_EQ(a4.size(), 4u);
   EXPECT_EQ(a4.v4(), *IpAddr::parse("10.0.0.1"));
   EXPECT_TRUE(a6.isV6());
   EXPECT_EQ(a6.size(), 16u);
   EXPECT_NE(a4, a6) << "same low bytes, other family";
   EXPECT_LT(IpGenAddr(), a4);
   EXPECT_LT(a4, a6);
   EXPECT_THROW(a4.v6(), Cinder::AssertException);
   EXPECT_EQ(IpGenAddr().toString(), "unknown");
   expectRefused<IpGenAddr>("10.0.0");
   expectRefused<IpGenAddr>("fe80:::1");
}

TEST(Addr, OrderingIsNumeric) {
   EXPECT_LT(*IpAddr::parse("9.255.255.255"), *IpAddr::parse("10.0.0.0"));
   EXPECT_LT(*IpAddrWithMask::parse("10.0.0.1/8"), *IpAddrWithMask::parse("10.0.0.1/24"));
   EXPECT_LT(*IpAddrWithMask::parse("10.0.0.1/24"), *IpAddrWithMask::parse("10.0.0.2/8"));
   EXPECT_LT(*Ip6Addr::parse("fe80::ffff"), *Ip6Addr::parse("fe80::1:0"));
}

TEST(Addr, HashKeys) {
   std::unordered_set<IpAddr> v4;
   std::unordered_set<Ip6AddrWithMask> v6;
   std::unordered_map<IpGenAddr, int> gen;
   for (uint32_t i = 0; i < 4096; ++i) {
      v4.insert(IpAddr(0x0a000000 + i));
      Ip6Addr::Bytes b{0x20, 0x01, 0x0d, 0xb8};
      b[14] = static_cast<uint8_t>(i >> 8);
      b[15] = static_cast<uint8_t>(i);
      v6.insert(Ip6AddrWithMask(Ip6Addr(b), 64));
      v6.insert(Ip6AddrWithMask(Ip6Addr(b), 128));
      gen[IpGenAddr(IpAddr(i))] = 4;
      gen[IpGenAddr(Ip6Addr(b))] = 6;
   }
   EXPECT_EQ(v4.size(), 4096u);
   EXPECT_EQ(v6.size(), 8192u);
   EXPECT_EQ(gen.size(), 8192u);
   EXPECT_TRUE(v6.contains(*Ip6AddrWithMask::parse("2001:db8::ff/128")));
   EXPECT_EQ(gen.at(*IpGenAddr::parse("0.0.0.255")), 4);
   EXPECT_EQ(std::hash<Prefix>()(*Prefix::parse("10.0.0.0/8")),
             std::hash<Prefix>()(Prefix(*IpAddr::parse("10.9.9.9"), 8)));
   // Consecutive addresses spread over buckets.
   size_t maxBucket = 0;
   for (size_t b = 0; b < v4.bucket_count(); ++b)
      maxBucket = std::max(maxBucket, v4.bucket_size(b));
   EXPECT_LE(maxBucket, 12u);
}

TEST(AddressFamily, StringRoundTrip) {
   for (auto af : {AddressFamily::unknown, AddressFamily::ipv4, AddressFamily::ipv6}) {
      EXPECT_EQ(parseAddressFamily(toString(af)), af);
   }
   EXPECT_EQ(toString(AddressFamily::ipv6), "ipv6");
   EXPECT_FALSE(parseAddressFamily("IPv4").has_value());
}

}  // namespace
}  // namespace Konet
