// Addresses with a prefix length, and prefixes (networks).
//
// An address with mask is an interface address: "10.1.2.3/24" keeps its host bits. A
// prefix is a network: its host bits are zero. Parsing a prefix refuses host bits rather
// than clearing them, so that a typo in configuration is not silently turned into another
// network; the constructors from an address and a length clear them.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "konet/IpAddr.h"
#include "mox/TraceArg.h"

namespace Konet {

class Prefix;
class Ip6Prefix;

class IpAddrWithMask {
public:
   constexpr IpAddrWithMask() = default;
   // Asserts len <= 32.
   IpAddrWithMask(IpAddr addr, uint8_t len);

   static std::optional<IpAddrWithMask> parse(std::string_view text, std::string* error = nullptr);
   std::string toString() const;

   IpAddr addr() const { return addr_; }
   uint8_t len() const { return len_; }
   IpAddr mask() const;
   Prefix subnet() const;
   // The subnet's broadcast address (the address itself for /31 and /32).
   IpAddr broadcast() const;

   friend constexpr auto operator<=>(IpAddrWithMask const&, IpAddrWithMask const&) = default;

private:
   IpAddr addr_;
   uint8_t len_ = 0;
};

class Ip6AddrWithMask {
public:
   Ip6AddrWithMask() = default;
   // Asserts len <= 128.
   Ip6AddrWithMask(Ip6Addr const& addr, uint8_t len);

   static std::optional<Ip6AddrWithMask> parse(std::string_view text, std::string* error = nullptr);
   std::string toString() const;

   Ip6Addr const& addr() const { return addr_; }
   uint8_t len() const { return len_; }
   Ip6Prefix subnet() const;

   friend constexpr auto operator<=>(Ip6AddrWithMask const&, Ip6AddrWithMask const&) = default;

private:
   Ip6Addr addr_;
   uint8_t len_ = 0;
};

class Prefix {
public:
   constexpr Prefix() = default;
   // Clears the host bits; asserts len <= 32.
   Prefix(IpAddr addr, uint8_t len);

   static std::optional<Prefix> parse(std::string_view text, std::string* error = nullptr);
   std::string toString() const;

   IpAddr network() const { return network_; }
   uint8_t len() const { return len_; }
   bool contains(IpAddr a) const;

   friend constexpr auto operator<=>(Prefix const&, Prefix const&) = default;

private:
   IpAddr network_;
   uint8_t len_ = 0;
};

class Ip6Prefix {
public:
   Ip6Prefix() = default;
   // Clears the host bits; asserts len <= 128.
   Ip6Prefix(Ip6Addr const& addr, uint8_t len);

   static std::optional<Ip6Prefix> parse(std::string_view text, std::string* error = nullptr);
   std::string toString() const;

   Ip6Addr const& network() const { return network_; }
   uint8_t len() const { return len_; }
   bool contains(Ip6Addr const& a) const;

   friend constexpr auto operator<=>(Ip6Prefix const&, Ip6Prefix const&) = default;

private:
   Ip6Addr network_;
   uint8_t len_ = 0;
};

// The address with the low `128 - len` bits cleared.
Ip6Addr maskedIp6(Ip6Addr const& a, uint8_t len);

std::ostream& operator<<(std::ostream& os, IpAddrWithMask const& a);
std::ostream& operator<<(std::ostream& os, Ip6AddrWithMask const& a);
std::ostream& operator<<(std::ostream& os, Prefix const& p);
std::ostream& operator<<(std::ostream& os, Ip6Prefix const& p);

}  // namespace Konet

template <>
inline constexpr bool Mox::traceByValue<Konet::IpAddrWithMask> = true;
template <>
inline constexpr bool Mox::traceByValue<Konet::Ip6AddrWithMask> = true;
template <>
inline constexpr bool Mox::traceByValue<Konet::Prefix> = true;
template <>
inline constexpr bool Mox::traceByValue<Konet::Ip6Prefix> = true;

template <>
struct std::hash<Konet::IpAddrWithMask> {
   size_t operator()(Konet::IpAddrWithMask const& a) const noexcept {
      return Konet::hashMix(uint64_t{a.addr().value()} << 8 | a.len());
   }
};
template <>
struct std::hash<Konet::Ip6AddrWithMask> {
   size_t operator()(Konet::Ip6AddrWithMask const& a) const noexcept {
      return Konet::hashBytes(a.addr().bytes().data(), 16, a.len());
   }
};
template <>
struct std::hash<Konet::Prefix> {
   size_t operator()(Konet::Prefix const& p) const noexcept {
      return Konet::hashMix(uint64_t{p.network().value()} << 8 | p.len());
   }
};
template <>
struct std::hash<Konet::Ip6Prefix> {
   size_t operator()(Konet::Ip6Prefix const& p) const noexcept {
      return Konet::hashBytes(p.network().bytes().data(), 16, p.len());
   }
};
