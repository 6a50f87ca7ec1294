// Nexthop resolution's configuration and status, per client of the resolver and per VRF,
// and the trie of configured nexthop addresses.
//
// A client (a routing daemon, a tracked object) names the addresses it wants resolved in
// each VRF (NexthopConfig -> vrf -> NexthopVrfConfig -> nexthop); the resolver publishes,
// per client and VRF, one NexthopStatusEntry for each address a route covers now.
#pragma once

#include <functional>
#include <map>
#include <ostream>
#include <vector>

#include "konet/IpAddr.h"
#include "konet/VrfName.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"
#include "mox/Name.h"
#include "platform/Fib.h"

namespace Routing {

struct NexthopConfigEntry {
   Konet::IpGenAddr addr;
   friend bool operator==(NexthopConfigEntry const&, NexthopConfigEntry const&) = default;
};

// One client's nexthops in one VRF.
class NexthopVrfConfig : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<NexthopVrfConfig> {
   public:
      virtual void onNexthop(Konet::IpGenAddr const&) {}
   };
   explicit NexthopVrfConfig(L3::VrfName vrf = L3::VrfName()) : vrfName_(std::move(vrf)) {}
   L3::VrfName const& vrfName() const { return vrfName_; }
   // The entry for `addr`, or the default entry (unknown family) when none.
   NexthopConfigEntry nexthop(Konet::IpGenAddr const& addr) const {
      auto const* e = nexthop_.find(addr);
      return e ? *e : NexthopConfigEntry{};
   }
   void nexthopIs(NexthopConfigEntry const& e) {
      setMember(nexthop_, e.addr, e, &NotifieeConst::onNexthop);
   }
   void nexthopDel(Konet::IpGenAddr const& addr) {
      delMember(nexthop_, addr, &NotifieeConst::onNexthop);
   }
   Mox::HashMap<Konet::IpGenAddr, NexthopConfigEntry> const& nexthopIterator() const {
      return nexthop_;
   }

private:
   L3::VrfName const vrfName_;
   Mox::HashMap<Konet::IpGenAddr, NexthopConfigEntry> nexthop_;
};

// One client's nexthop configuration, per VRF.
class NexthopConfig : public Mox::Entity {
public:
   static constexpr Mox::AttrId kVrf = 1;
   class NotifieeConst : public Mox::EntityNotifiee<NexthopConfig> {
   public:
      virtual void onVrf(L3::VrfName const&) {}
   };
   explicit NexthopConfig(Mox::Name name = Mox::Name()) : name_(std::move(name)) {}
   Mox::Name const& name() const { return name_; }
   Mox::Ptr<NexthopVrfConfig> vrf(L3::VrfName const& n) const { return Mox::valueOr(vrf_, n); }
   Mox::Ptr<NexthopVrfConfig> vrfIs(L3::VrfName const& n) {
      return instantiateMember<NexthopVrfConfig>(vrf_, n, kVrf, &NotifieeConst::onVrf);
   }
   void vrfDel(L3::VrfName const& n) { delMember(vrf_, n, &NotifieeConst::onVrf); }
   Mox::HashMap<L3::VrfName, Mox::Ptr<NexthopVrfConfig>> const& vrfIterator() const { return vrf_; }

private:
   Mox::Name const name_;
   Mox::HashMap<L3::VrfName, Mox::Ptr<NexthopVrfConfig>> vrf_;
};

// A resolved nexthop: the covering prefix and its route's ways out.
struct NexthopStatusEntry {
   Konet::IpGenAddr addr;
   GenPrefix prefix;
   std::vector<FibVia> vias;
   friend bool operator==(NexthopStatusEntry const&, NexthopStatusEntry const&) = default;
};
std::ostream& operator<<(std::ostream& os, NexthopStatusEntry const& e);

class NexthopVrfStatus : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<NexthopVrfStatus> {
   public:
      virtual void onNexthop(Konet::IpGenAddr const&) {}
   };
   explicit NexthopVrfStatus(L3::VrfName vrf = L3::VrfName()) : vrfName_(std::move(vrf)) {}
   L3::VrfName const& vrfName() const { return vrfName_; }
   NexthopStatusEntry const* nexthop(Konet::IpGenAddr const& addr) const {
      return nexthop_.find(addr);
   }
   void nexthopIs(NexthopStatusEntry const& e) {
      setMember(nexthop_, e.addr, e, &NotifieeConst::onNexthop);
   }
   void nexthopDel(Konet::IpGenAddr const& addr) {
      delMember(nexthop_, addr, &NotifieeConst::onNexthop);
   }
   Mox::HashMap<Konet::IpGenAddr, NexthopStatusEntry> const& nexthopIterator() const {
      return nexthop_;
   }

private:
   L3::VrfName const vrfName_;
   Mox::HashMap<Konet::IpGenAddr, NexthopStatusEntry> nexthop_;
};

// What a walk of the nexthop trie calls for each nexthop it visits.
class NexthopTrieWalker {
public:
   virtual ~NexthopTrieWalker() = default;
   virtual void handlePrefix(Konet::IpGenAddr const& addr) = 0;
};

// The configured nexthop addresses of one family. Every key is a host address, so the
// pre-order of their binary trie is their ascending order, and the nexthops below a prefix
// are one contiguous run of it: the walk finds its start in O(log n) and visits only them.
class NexthopTrie {
public:
   void nexthopIs(Konet::IpGenAddr const& a) { addrs_.emplace(a, 0); }
   void nexthopDel(Konet::IpGenAddr const& a) { addrs_.erase(a); }
   bool contains(Konet::IpGenAddr const& a) const { return addrs_.count(a) != 0; }
   size_t size() const { return addrs_.size(); }
   // Calls w.handlePrefix for each nexthop inside `p`, in pre-order. Returns how many.
   size_t walk(GenPrefix const& p, NexthopTrieWalker& w) const;
   size_t walkAll(NexthopTrieWalker& w) const;

private:
   std::map<Konet::IpGenAddr, char> addrs_;
};

}  // namespace Routing
