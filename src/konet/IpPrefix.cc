#include "konet/IpPrefix.h"

#include "konet/Quoted.h"
#include "mox/Error.h"

namespace Konet {
namespace {

// Splits "address/len" and parses the length: decimal, no sign, no leading zero, <= max.
bool splitLen(std::string_view text, uint8_t max, std::string_view* addr, uint8_t* len,
              std::string* error) {
   auto slash = text.find('/');
   if (slash == std::string_view::npos) {
      if (error) *error = quoted(text) + " has no prefix length";
      return false;
   }
   *addr = text.substr(0, slash);
   auto digits = text.substr(slash + 1);
   unsigned value = 0;
   bool ok = !digits.empty() && digits.size() <= 3 && !(digits.size() > 1 && digits[0] == '0');
   for (char c : digits) {
      if (c < '0' || c > '9') ok = false;
      value = value * 10 + static_cast<unsigned>(c - '0');
   }
   if (!ok || value > max) {
      if (error) {
         *error = "prefix length '" + std::string(digits) + "' is not in 0.." + std::to_string(max);
      }
      return false;
   }
   *len = static_cast<uint8_t>(value);
   return true;
}

uint32_t maskOf(uint8_t len) { return len == 0 ? 0 : ~uint32_t{0} << (32 - len); }

}  // namespace

Ip6Addr maskedIp6(Ip6Addr const& a, uint8_t len) {
   auto b = a.bytes();
   for (size_t i = 0; i < b.size(); ++i) {
      int keep = static_cast<int>(len) - static_cast<int>(i) * 8;
      if (keep <= 0) {
         b[i] = 0;
      } else if (keep < 8) {
         b[i] &= static_cast<uint8_t>(0xff << (8 - keep));
      }
   }
   return Ip6Addr(b);
}

// IpAddrWithMask

IpAddrWithMask::IpAddrWithMask(IpAddr addr, uint8_t len) : addr_(addr), len_(len) {
   MOX_ASSERT(len <= 32);
}

std::optional<IpAddrWithMask> IpAddrWithMask::parse(std::string_view text, std::string* error) {
   std::string_view a;
   uint8_t len = 0;
   if (!splitLen(text, 32, &a, &len, error)) return std::nullopt;
   auto addr = IpAddr::parse(a, error);
   if (!addr) return std::nullopt;
   return IpAddrWithMask(*addr, len);
}

std::string IpAddrWithMask::toString() const {
   return addr_.toString() + "/" + std::to_string(len_);
}

IpAddr IpAddrWithMask::mask() const { return IpAddr(maskOf(len_)); }

Prefix IpAddrWithMask::subnet() const { return Prefix(addr_, len_); }

IpAddr IpAddrWithMask::broadcast() const {
   if (len_ >= 31) return addr_;
   return IpAddr(addr_.value() | ~maskOf(len_));
}

// Ip6AddrWithMask

Ip6AddrWithMask::Ip6AddrWithMask(Ip6Addr const& addr, uint8_t len) : addr_(addr), len_(len) {
   MOX_ASSERT(len <= 128);
}

std::optional<Ip6AddrWithMask> Ip6AddrWithMask::parse(std::string_view text, std::string* error) {
   std::string_view a;
   uint8_t len = 0;
   if (!splitLen(text, 128, &a, &len, error)) return std::nullopt;
   auto addr = Ip6Addr::parse(a, error);
   if (!addr) return std::nullopt;
   return Ip6AddrWithMask(*addr, len);
}

std::string Ip6AddrWithMask::toString() const {
   return addr_.toString() + "/" + std::to_string(len_);
}

Ip6Prefix Ip6AddrWithMask::subnet() const { return Ip6Prefix(addr_, len_); }

// Prefix

Prefix::Prefix(IpAddr addr, uint8_t len) : network_(addr.value() & maskOf(len)), len_(len) {
   MOX_ASSERT(len <= 32);
}

std::optional<Prefix> Prefix::parse(std::string_view text, std::string* error) {
   auto a = IpAddrWithMask::parse(text, error);
   if (!a) return std::nullopt;
   Prefix p(a->addr(), a->len());
   if (p.network() != a->addr()) {
      if (error) *error = quoted(text) + " has host bits set; the prefix is " + p.toString();
      return std::nullopt;
   }
   return p;
}

std::string Prefix::toString() const { return network_.toString() + "/" + std::to_string(len_); }

bool Prefix::contains(IpAddr a) const { return (a.value() & maskOf(len_)) == network_.value(); }

// Ip6Prefix

Ip6Prefix::Ip6Prefix(Ip6Addr const& addr, uint8_t len) : network_(maskedIp6(addr, len)), len_(len) {
   MOX_ASSERT(len <= 128);
}

std::optional<Ip6Prefix> Ip6Prefix::parse(std::string_view text, std::string* error) {
   auto a = Ip6AddrWithMask::parse(text, error);
   if (!a) return std::nullopt;
   Ip6Prefix p(a->addr(), a->len());
   if (p.network() != a->addr()) {
      if (error) *error = quoted(text) + " has host bits set; the prefix is " + p.toString();
      return std::nullopt;
   }
   return p;
}

std::string Ip6Prefix::toString() const { return network_.toString() + "/" + std::to_string(len_); }

bool Ip6Prefix::contains(Ip6Addr const& a) const { return maskedIp6(a, len_) == network_; }

std::ostream& operator<<(std::ostream& os, IpAddrWithMask const& a) { return os << a.toString(); }
std::ostream& operator<<(std::ostream& os, Ip6AddrWithMask const& a) { return os << a.toString(); }
std::ostream& operator<<(std::ostream& os, Prefix const& p) { return os << p.toString(); }
std::ostream& operator<<(std::ostream& os, Ip6Prefix const& p) { return os << p.toString(); }

}  // namespace Konet
