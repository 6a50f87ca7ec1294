#include "platform/Fib.h"

#include <sstream>

#include "konet/IpPrefix.h"
#include "mox/Error.h"

namespace Routing {

GenPrefix::GenPrefix(Konet::IpGenAddr const& addr, uint8_t l) : len(l) {
   if (addr.isV4()) {
      network = Konet::Prefix(addr.v4(), l).network();
   } else if (addr.isV6()) {
      network = Konet::maskedIp6(addr.v6(), l);
   } else {
      MOX_ASSERT(l == 0);
   }
}

GenPrefix GenPrefix::host(Konet::IpGenAddr const& addr) {
   return GenPrefix(addr, static_cast<uint8_t>(addr.isV4() ? 32 : 128));
}

std::optional<GenPrefix> GenPrefix::parse(std::string_view text, std::string* error) {
   if (text.find(':') == std::string_view::npos) {
      auto p = Konet::Prefix::parse(text, error);
      if (!p) return std::nullopt;
      return GenPrefix(p->network(), p->len());
   }
   auto p = Konet::Ip6Prefix::parse(text, error);
   if (!p) return std::nullopt;
   return GenPrefix(p->network(), p->len());
}

bool GenPrefix::contains(Konet::IpGenAddr const& a) const {
   if (a.af() != network.af()) return false;
   return GenPrefix(a, len) == *this;
}

std::string GenPrefix::toString() const {
   std::ostringstream os;
   os << network << '/' << int{len};
   return os.str();
}

std::ostream& operator<<(std::ostream& os, GenPrefix const& p) { return os << p.toString(); }

}  // namespace Routing
