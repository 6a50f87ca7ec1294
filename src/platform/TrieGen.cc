#include "platform/TrieGen.h"

#include <algorithm>

#include "mox/Error.h"

namespace Routing {

unsigned __int128 lpmKey6(Konet::IpGenAddr const& a) {
   unsigned __int128 k = 0;
   for (size_t i = 0; i < 16; ++i)
      k = k << 8 | a.data()[i];
   return k;
}

Konet::IpGenAddr lpmAddr6(unsigned __int128 k) {
   Konet::Ip6Addr::Bytes b{};
   for (int i = 15; i >= 0; --i, k >>= 8)
      b[static_cast<size_t>(i)] = static_cast<uint8_t>(k);
   return Konet::IpGenAddr(Konet::Ip6Addr(b));
}

TrieGen::TrieGen(Mox::Name name, Konet::AddressFamily af) : name_(std::move(name)), af_(af) {
   MOX_ASSERT(af == Konet::AddressFamily::ipv4 || af == Konet::AddressFamily::ipv6);
}

std::optional<GenPrefix> TrieGen::longestMatch(Konet::IpGenAddr const& addr) const {
   if (addr.af() != af_) return std::nullopt;
   if (af_ == Konet::AddressFamily::ipv4) {
      auto id = lpm4_.lookup(lpmKey4(addr));
      if (id == Lpm4::kNoRoute) return std::nullopt;
      return GenPrefix(Konet::IpAddr(lpm4_.network(id)), static_cast<uint8_t>(lpm4_.length(id)));
   }
   auto id = lpm6_.lookup(lpmKey6(addr));
   if (id == Lpm6::kNoRoute) return std::nullopt;
   return GenPrefix(lpmAddr6(lpm6_.network(id)), static_cast<uint8_t>(lpm6_.length(id)));
}

bool TrieGen::hasRoute(GenPrefix const& p) const {
   if (p.af() != af_) return false;
   if (af_ == Konet::AddressFamily::ipv4)
      return lpm4_.find(lpmKey4(p.network), p.len) != Lpm4::kNoRoute;
   return lpm6_.find(lpmKey6(p.network), p.len) != Lpm6::kNoRoute;
}

FibRoute const* TrieGen::route(GenPrefix const& p) const {
   return table_ && hasRoute(p) ? table_->route(p) : nullptr;
}

size_t TrieGen::routes() const {
   return af_ == Konet::AddressFamily::ipv4 ? lpm4_.routes() : lpm6_.routes();
}

void TrieGen::routeIs(GenPrefix const& p, uint32_t marks) {
   if (marks == 0) return;
   marks_[p] += marks;
}

void TrieGen::routeDel(GenPrefix const& p) {
   auto* n = marks_.find(p);
   if (!n) return;
   if (--*n == 0) marks_.erase(p);
}

uint32_t TrieGen::routeMarks(GenPrefix const& p) const {
   auto const* n = marks_.find(p);
   return n ? *n : 0;
}

void TrieGen::load() {
   lpm4_.clear();
   lpm6_.clear();
   if (!table_) return;
   if (af_ == Konet::AddressFamily::ipv4) {
      std::vector<std::pair<uint32_t, uint8_t>> routes;
      routes.reserve(table_->size());
      for (auto const& [p, r] : table_->routes())
         routes.emplace_back(lpmKey4(p.network), p.len);
      lpm4_.build(std::move(routes));
   } else {
      std::vector<std::pair<unsigned __int128, uint8_t>> routes;
      routes.reserve(table_->size());
      for (auto const& [p, r] : table_->routes())
         routes.emplace_back(lpmKey6(p.network), p.len);
      lpm6_.build(std::move(routes));
   }
}

void TrieGen::fibRouteChanged(GenPrefix const& p) {
   if (p.af() != af_) return;
   bool present = table_ && table_->route(p);
   if (af_ == Konet::AddressFamily::ipv4) {
      if (present) {
         lpm4_.insert(lpmKey4(p.network), p.len);
      } else {
         lpm4_.erase(lpmKey4(p.network), p.len);
      }
   } else {
      if (present) {
         lpm6_.insert(lpmKey6(p.network), p.len);
      } else {
         lpm6_.erase(lpmKey6(p.network), p.len);
      }
   }
   notify(&NotifieeConst::onChangedRoute, p);
}

size_t TrieGen::memoryBytes() const {
   return af_ == Konet::AddressFamily::ipv4 ? lpm4_.memoryBytes() : lpm6_.memoryBytes();
}

// ---- TrieGenBuilder

class TrieGenBuilder::MoxRoutes : public FibRouteTable::NotifieeConst {
public:
   explicit MoxRoutes(TrieGen* trie) : trie_(trie) {}
   void onRoute(GenPrefix const& p) override {
      if (trie_) trie_->fibRouteChanged(p);
   }
   TrieGen* trie_;
};

TrieGenBuilder::TrieGenBuilder(Mox::Ptr<FibRouteTable const> routes4,
                               Mox::Ptr<FibRouteTable const> routes6, Mox::Ptr<TrieGen> trie)
    : trie_(std::move(trie)) {
   MOX_ASSERT(trie_);
   auto table = trie_->af() == Konet::AddressFamily::ipv4 ? routes4 : routes6;
   trie_->tableIs(table);
   trie_->load();
   moxRoutes_ = Mox::make<MoxRoutes>(trie_.ptr());
   moxRoutes_->notifierIs(table);
}

TrieGenBuilder::~TrieGenBuilder() {
   moxRoutes_->trie_ = nullptr;
   moxRoutes_->notifierIs(nullptr);
}

}  // namespace Routing
