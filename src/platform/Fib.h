// The FIB of one VRF as the platform sees it: per address family, a table of the routes
// the kernel forwards with, keyed by prefix. The Linux layer's route mirror fills it; the
// trie builders read it.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "konet/AddressFamily.h"
#include "konet/IpAddr.h"
#include "mox/Entity.h"

namespace Routing {

// A prefix of either family; its host bits are clear.
struct GenPrefix {
   Konet::IpGenAddr network;
   uint8_t len = 0;

   GenPrefix() = default;
   // Clears the host bits; asserts len fits the family.
   GenPrefix(Konet::IpGenAddr const& addr, uint8_t len);
   // The prefix of one address alone (/32 or /128).
   static GenPrefix host(Konet::IpGenAddr const& addr);
   static std::optional<GenPrefix> parse(std::string_view text, std::string* error = nullptr);

   Konet::AddressFamily af() const { return network.af(); }
   bool contains(Konet::IpGenAddr const& a) const;
   std::string toString() const;
   friend bool operator==(GenPrefix const&, GenPrefix const&) = default;
   friend auto operator<=>(GenPrefix const&, GenPrefix const&) = default;
};
std::ostream& operator<<(std::ostream& os, GenPrefix const& p);

// One way out of a route: a gateway (unset for a directly connected route) and a device
// (its ifindex in the VRF's namespace, 0 when none).
struct FibVia {
   Konet::IpGenAddr gateway;
   int ifindex = 0;
   friend bool operator==(FibVia const&, FibVia const&) = default;
};

struct FibRoute {
   std::vector<FibVia> vias;
   friend bool operator==(FibRoute const&, FibRoute const&) = default;
};

}  // namespace Routing

template <>
struct std::hash<Routing::GenPrefix> {
   size_t operator()(Routing::GenPrefix const& p) const noexcept {
      return Konet::hashBytes(p.network.data(), 16, p.len);
   }
};

namespace Routing {

// The routes of one family in one VRF. onRoute(prefix) is delivered for each added,
// replaced or removed route (then route(prefix) is null).
class FibRouteTable : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<FibRouteTable> {
   public:
      virtual void onRoute(GenPrefix const&) {}
   };
   using Routes = std::unordered_map<GenPrefix, FibRoute>;

   explicit FibRouteTable(Konet::AddressFamily af) : af_(af) {}
   Konet::AddressFamily af() const { return af_; }

   FibRoute const* route(GenPrefix const& p) const {
      auto it = routes_.find(p);
      return it == routes_.end() ? nullptr : &it->second;
   }
   // Adds or replaces; a route of the other family is ignored.
   void routeIs(GenPrefix const& p, FibRoute r) {
      if (p.af() != af_) return;
      auto [it, fresh] = routes_.try_emplace(p, r);
      if (!fresh) {
         if (it->second == r) return;
         it->second = std::move(r);
      }
      notify(&NotifieeConst::onRoute, p);
   }
   void routeDel(GenPrefix const& p) {
      if (routes_.erase(p)) notify(&NotifieeConst::onRoute, p);
   }
   Routes const& routes() const { return routes_; }
   size_t size() const { return routes_.size(); }
   void reserve(size_t n) { routes_.reserve(n); }

private:
   Konet::AddressFamily const af_;
   Routes routes_;
};

}  // namespace Routing
