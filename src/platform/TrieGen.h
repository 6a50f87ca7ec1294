// The routing library's longest-prefix-match tries over a VRF's FIB.
//
// TrieGen holds the routes of one family of one FIB route table in an LpmTrie and tells
// its reactors of each prefix whose route changed (onChangedRoute), after the trie has the
// change. Clients mark interest in the prefixes they resolve through (routeIs(prefix, n)
// adds n marks, routeDel(prefix) drops one); the marks are counted, and a prefix is
// marked while its count is above zero.
//
// TrieGenBuilder fills one TrieGen from its family's table: a bulk load when it is made,
// then each change of the table as it comes. Deleting the builder stops the updates; the
// trie keeps what it had.
#pragma once

#include <optional>

#include "konet/AddressFamily.h"
#include "mox/HashMap.h"
#include "mox/Name.h"
#include "mox/Notifiee.h"
#include "platform/Fib.h"
#include "platform/LpmTrie.h"

namespace Routing {

class TrieGen : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<TrieGen> {
   public:
      virtual void onChangedRoute(GenPrefix const&) {}
   };

   TrieGen(Mox::Name name, Konet::AddressFamily af);
   Mox::Name const& name() const { return name_; }
   Konet::AddressFamily af() const { return af_; }

   // The longest prefix in the trie that contains `addr` (of the trie's family).
   std::optional<GenPrefix> longestMatch(Konet::IpGenAddr const& addr) const;
   bool hasRoute(GenPrefix const& p) const;
   // The route of a prefix the trie holds, from its table; null when none.
   FibRoute const* route(GenPrefix const& p) const;
   size_t routes() const;

   // Interest marks.
   void routeIs(GenPrefix const& p, uint32_t marks);
   void routeDel(GenPrefix const& p);
   uint32_t routeMarks(GenPrefix const& p) const;
   size_t markedRoutes() const { return marks_.size(); }

   // ---- for the builder
   void tableIs(Mox::Ptr<FibRouteTable const> const& table) { table_ = table; }
   Mox::Ptr<FibRouteTable const> const& table() const { return table_; }
   // Loads every route of the table, replacing what the trie had; delivers nothing.
   void load();
   // The table's route for `p` changed: the trie follows it and reports it.
   void fibRouteChanged(GenPrefix const& p);
   size_t memoryBytes() const;
   // The lookup structures themselves (benchmarks).
   Lpm4 const& lpm4() const { return lpm4_; }
   Lpm6 const& lpm6() const { return lpm6_; }

private:
   Mox::Name const name_;
   Konet::AddressFamily const af_;
   Mox::Ptr<FibRouteTable const> table_;
   Lpm4 lpm4_;
   Lpm6 lpm6_;
   Mox::HashMap<GenPrefix, uint32_t> marks_;
};

class TrieGenBuilder : public Mox::PtrInterface {
public:
   TrieGenBuilder(Mox::Ptr<FibRouteTable const> routes4, Mox::Ptr<FibRouteTable const> routes6,
                  Mox::Ptr<TrieGen> trie);
   ~TrieGenBuilder() override;
   Mox::Ptr<TrieGen> const& trie() const { return trie_; }

private:
   class MoxRoutes;
   Mox::Ptr<TrieGen> trie_;
   Mox::Ptr<MoxRoutes> moxRoutes_;
};

// The key of an address in its family's trie.
inline uint32_t lpmKey4(Konet::IpGenAddr const& a) { return a.v4().value(); }
unsigned __int128 lpmKey6(Konet::IpGenAddr const& a);
Konet::IpGenAddr lpmAddr6(unsigned __int128 k);

}  // namespace Routing
