#include "platform/Nexthop.h"

#include <vector>

namespace Routing {

std::ostream& operator<<(std::ostream& os, NexthopStatusEntry const& e) {
   os << e.addr << " via " << e.prefix;
   for (auto const& v : e.vias) {
      os << " [";
      if (v.gateway.af() != Konet::AddressFamily::unknown) os << v.gateway;
      os << " if " << v.ifindex << "]";
   }
   return os;
}

size_t NexthopTrie::walk(GenPrefix const& p, NexthopTrieWalker& w) const {
   // Collected first: a handler may change the trie.
   std::vector<Konet::IpGenAddr> found;
   for (auto it = addrs_.lower_bound(p.network); it != addrs_.end() && p.contains(it->first); ++it)
      found.push_back(it->first);
   for (auto const& a : found)
      w.handlePrefix(a);
   return found.size();
}

size_t NexthopTrie::walkAll(NexthopTrieWalker& w) const {
   std::vector<Konet::IpGenAddr> found;
   for (auto const& [a, unused] : addrs_)
      found.push_back(a);
   for (auto const& a : found)
      w.handlePrefix(a);
   return found.size();
}

}  // namespace Routing
