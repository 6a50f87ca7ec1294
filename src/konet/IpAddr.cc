#include "konet/IpAddr.h"

#include <arpa/inet.h>

#include <cstring>

#include "konet/Quoted.h"
#include "mox/Error.h"

namespace Konet {
namespace {

bool fail(std::string* error, std::string message) {
   if (error) *error = std::move(message);
   return false;
}

bool parseV4(std::string_view text, uint32_t* out, std::string* error) {
   auto bad = [&](char const* why) {
      return fail(error, quoted(text) + " is not an IPv4 address: " + why);
   };
   if (text.empty()) return fail(error, "empty IPv4 address");
   uint32_t value = 0;
   int parts = 0;
   size_t i = 0;
   while (true) {
      size_t start = i;
      unsigned part = 0;
      while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
         part = part * 10 + static_cast<unsigned>(text[i] - '0');
         if (part > 255) return bad("a part is above 255");
         ++i;
      }
      if (i == start) return bad("want four dotted decimal parts");
      if (i - start > 1 && text[start] == '0') return bad("a part has a leading zero");
      value = value << 8 | part;
      if (++parts == 4) break;
      if (i == text.size() || text[i] != '.') return bad("want four dotted decimal parts");
      ++i;
   }
   if (i != text.size()) return bad("want four dotted decimal parts");
   *out = value;
   return true;
}

bool parseV6(std::string_view text, Ip6Addr::Bytes* out, std::string* error) {
   if (text.empty()) return fail(error, "empty IPv6 address");
   char buf[INET6_ADDRSTRLEN];
   bool fits = text.size() < sizeof buf && text.find('\0') == std::string_view::npos;
   if (fits) {
      std::memcpy(buf, text.data(), text.size());
      buf[text.size()] = '\0';
   }
   if (!fits || inet_pton(AF_INET6, buf, out->data()) != 1) {
      return fail(error, quoted(text) + " is not an IPv6 address");
   }
   return true;
}

}  // namespace

std::string_view toString(AddressFamily af) {
   switch (af) {
      case AddressFamily::ipv4:
         return "ipv4";
      case AddressFamily::ipv6:
         return "ipv6";
      case AddressFamily::unknown:
         break;
   }
   return "unknown";
}

std::optional<AddressFamily> parseAddressFamily(std::string_view text) {
   for (auto af : {AddressFamily::unknown, AddressFamily::ipv4, AddressFamily::ipv6}) {
      if (toString(af) == text) return af;
   }
   return std::nullopt;
}

std::ostream& operator<<(std::ostream& os, AddressFamily af) { return os << toString(af); }

size_t hashBytes(uint8_t const* data, size_t size, uint64_t seed) {
   uint64_t h = hashMix(seed + size);
   for (size_t i = 0; i < size; i += 8) {
      uint64_t word = 0;
      std::memcpy(&word, data + i, std::min<size_t>(8, size - i));
      h = hashMix(h ^ word);
   }
   return static_cast<size_t>(h);
}

// IpAddr

IpAddr IpAddr::fromBytes(uint8_t const* b) {
   return IpAddr(uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3]);
}

std::optional<IpAddr> IpAddr::parse(std::string_view text, std::string* error) {
   uint32_t value = 0;
   if (!parseV4(text, &value, error)) return std::nullopt;
   return IpAddr(value);
}

std::array<uint8_t, 4> IpAddr::bytes() const {
   return {static_cast<uint8_t>(value_ >> 24), static_cast<uint8_t>(value_ >> 16),
           static_cast<uint8_t>(value_ >> 8), static_cast<uint8_t>(value_)};
}

std::string IpAddr::toString() const {
   char buf[INET_ADDRSTRLEN];
   auto b = bytes();
   inet_ntop(AF_INET, b.data(), buf, sizeof buf);
   return buf;
}

std::ostream& operator<<(std::ostream& os, IpAddr a) { return os << a.toString(); }

// Ip6Addr

Ip6Addr Ip6Addr::fromBytes(uint8_t const* networkOrder) {
   Bytes b;
   std::memcpy(b.data(), networkOrder, b.size());
   return Ip6Addr(b);
}

std::optional<Ip6Addr> Ip6Addr::parse(std::string_view text, std::string* error) {
   Bytes b{};
   if (!parseV6(text, &b, error)) return std::nullopt;
   return Ip6Addr(b);
}

// The C library prints IPv6 the RFC 5952 way, as the kernel's tools do.
std::string Ip6Addr::toString() const {
   char buf[INET6_ADDRSTRLEN];
   inet_ntop(AF_INET6, bytes_.data(), buf, sizeof buf);
   return buf;
}

bool Ip6Addr::isZero() const { return *this == Ip6Addr(); }

bool Ip6Addr::isLoopback() const {
   Bytes one{};
   one[15] = 1;
   return bytes_ == one;
}

Ip6Addr Ip6Addr::solicitedNodeMulticast() const {
   Bytes b{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0xff};
   b[13] = bytes_[13];
   b[14] = bytes_[14];
   b[15] = bytes_[15];
   return Ip6Addr(b);
}

Ip6Addr Ip6Addr::allNodes() {
   Bytes b{0xff, 0x02};
   b[15] = 1;
   return Ip6Addr(b);
}

std::ostream& operator<<(std::ostream& os, Ip6Addr const& a) { return os << a.toString(); }

// IpGenAddr

IpGenAddr::IpGenAddr(IpAddr a) : af_(AddressFamily::ipv4) {
   auto b = a.bytes();
   std::memcpy(bytes_.data(), b.data(), b.size());
}

IpGenAddr::IpGenAddr(Ip6Addr a) : af_(AddressFamily::ipv6), bytes_(a.bytes()) {}

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text, std::string* error) {
   if (text.find(':') != std::string_view::npos) {
      if (auto a = Ip6Addr::parse(text, error)) return IpGenAddr(*a);
   } else if (auto a = IpAddr::parse(text, error)) {
      return IpGenAddr(*a);
   }
   return std::nullopt;
}

std::string IpGenAddr::toString() const {
   switch (af_) {
      case AddressFamily::ipv4:
         return v4().toString();
      case AddressFamily::ipv6:
         return v6().toString();
      case AddressFamily::unknown:
         break;
   }
   return "unknown";
}

IpAddr IpGenAddr::v4() const {
   MOX_ASSERT(isV4());
   return IpAddr::fromBytes(bytes_.data());
}

Ip6Addr IpGenAddr::v6() const {
   MOX_ASSERT(isV6());
   return Ip6Addr(bytes_);
}

size_t IpGenAddr::size() const { return isV4() ? 4 : isV6() ? 16 : 0; }

bool IpGenAddr::isZero() const { return bytes_ == std::array<uint8_t, 16>{}; }

bool IpGenAddr::isLinkLocal() const {
   return isV4() ? v4().isLinkLocal() : isV6() && v6().isLinkLocal();
}

bool IpGenAddr::isMulticast() const {
   return isV4() ? v4().isMulticast() : isV6() && v6().isMulticast();
}

std::ostream& operator<<(std::ostream& os, IpGenAddr const& a) { return os << a.toString(); }

}  // namespace Konet
