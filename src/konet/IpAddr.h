// IPv4 and IPv6 addresses as small values, and the generic address that holds either.
//
// Parsing is strict: dotted quad with four decimal parts of 0..255 and no leading zeros;
// IPv6 in any RFC 4291 text form. Formatting is canonical (RFC 5952, lower case, the
// longest run of zero groups compressed, IPv4-mapped addresses in mixed notation), the way
// the kernel's tools print addresses.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "konet/AddressFamily.h"
#include "mox/TraceArg.h"

namespace Konet {

class IpAddr {
public:
   constexpr IpAddr() = default;
   // `hostOrder` is the address as a number: 10.0.0.1 is 0x0a000001.
   constexpr explicit IpAddr(uint32_t hostOrder) : value_(hostOrder) {}
   static IpAddr fromBytes(uint8_t const* networkOrder);

   static std::optional<IpAddr> parse(std::string_view text, std::string* error = nullptr);
   std::string toString() const;

   constexpr uint32_t value() const { return value_; }
   // The four bytes as they go on the wire and into netlink attributes.
   std::array<uint8_t, 4> bytes() const;

   constexpr bool isZero() const { return value_ == 0; }
   constexpr bool isLinkLocal() const { return (value_ >> 16) == 0xa9fe; }  // 169.254/16
   constexpr bool isMulticast() const { return (value_ >> 28) == 0xe; }     // 224/4
   constexpr bool isLoopback() const { return (value_ >> 24) == 127; }

   friend constexpr auto operator<=>(IpAddr, IpAddr) = default;

private:
   uint32_t value_ = 0;
};
static_assert(sizeof(IpAddr) == 4);

class Ip6Addr {
public:
   using Bytes = std::array<uint8_t, 16>;

   constexpr Ip6Addr() = default;
   constexpr explicit Ip6Addr(Bytes const& bytes) : bytes_(bytes) {}
   static Ip6Addr fromBytes(uint8_t const* networkOrder);

   static std::optional<Ip6Addr> parse(std::string_view text, std::string* error = nullptr);
   std::string toString() const;

   constexpr Bytes const& bytes() const { return bytes_; }
   constexpr uint8_t operator[](size_t i) const { return bytes_[i]; }

   bool isZero() const;
   constexpr bool isLinkLocal() const {  // fe80::/10
      return bytes_[0] == 0xfe && (bytes_[1] & 0xc0) == 0x80;
   }
   constexpr bool isMulticast() const { return bytes_[0] == 0xff; }  // ff00::/8
   bool isLoopback() const;

   // ff02::1:ffXX:XXXX with the low 24 bits of this address.
   Ip6Addr solicitedNodeMulticast() const;
   // ff02::1, the link-local all-nodes group.
   static Ip6Addr allNodes();

   friend constexpr auto operator<=>(Ip6Addr const&, Ip6Addr const&) = default;

private:
   Bytes bytes_{};
};
static_assert(sizeof(Ip6Addr) == 16);

// An IPv4 or IPv6 address; the default one has family unknown and compares below all
// others. IPv4 addresses keep their four bytes at the front of the storage.
class IpGenAddr {
public:
   constexpr IpGenAddr() = default;
   IpGenAddr(IpAddr a);   // NOLINT: an IPv4 address is a generic address
   IpGenAddr(Ip6Addr a);  // NOLINT: so is an IPv6 address

   // Either family, told apart by the text (a ':' means IPv6).
   static std::optional<IpGenAddr> parse(std::string_view text, std::string* error = nullptr);
   std::string toString() const;

   AddressFamily af() const { return af_; }
   bool isV4() const { return af_ == AddressFamily::ipv4; }
   bool isV6() const { return af_ == AddressFamily::ipv6; }
   // The address of its family; asserts the family.
   IpAddr v4() const;
   Ip6Addr v6() const;
   // The address bytes in network order: 4 for IPv4, 16 for IPv6, 0 for unknown.
   uint8_t const* data() const { return bytes_.data(); }
   size_t size() const;

   bool isZero() const;
   bool isLinkLocal() const;
   bool isMulticast() const;

   friend bool operator==(IpGenAddr const&, IpGenAddr const&) = default;
   friend std::strong_ordering operator<=>(IpGenAddr const&, IpGenAddr const&) = default;

private:
   AddressFamily af_ = AddressFamily::unknown;
   std::array<uint8_t, 16> bytes_{};
};

std::ostream& operator<<(std::ostream& os, IpAddr a);
std::ostream& operator<<(std::ostream& os, Ip6Addr const& a);
std::ostream& operator<<(std::ostream& os, IpGenAddr const& a);

}  // namespace Konet

// Addresses are all in their bytes: traces keep them so until a dump prints them.
template <>
inline constexpr bool Mox::traceByValue<Konet::IpAddr> = true;
template <>
inline constexpr bool Mox::traceByValue<Konet::Ip6Addr> = true;
template <>
inline constexpr bool Mox::traceByValue<Konet::IpGenAddr> = true;

namespace Konet {

// Mixes a 64-bit value for hash tables whose keys are addresses (consecutive addresses
// must spread over buckets).
constexpr size_t hashMix(uint64_t x) {
   x ^= x >> 33;
   x *= 0xff51afd7ed558ccdULL;
   x ^= x >> 33;
   x *= 0xc4ceb9fe1a85ec53ULL;
   x ^= x >> 33;
   return static_cast<size_t>(x);
}
size_t hashBytes(uint8_t const* data, size_t size, uint64_t seed);

}  // namespace Konet

template <>
struct std::hash<Konet::IpAddr> {
   size_t operator()(Konet::IpAddr a) const noexcept { return Konet::hashMix(a.value()); }
};
template <>
struct std::hash<Konet::Ip6Addr> {
   size_t operator()(Konet::Ip6Addr const& a) const noexcept {
      return Konet::hashBytes(a.bytes().data(), 16, 6);
   }
};
template <>
struct std::hash<Konet::IpGenAddr> {
   size_t operator()(Konet::IpGenAddr const& a) const noexcept {
      return Konet::hashBytes(a.data(), a.size(), static_cast<uint64_t>(a.af()));
   }
};
