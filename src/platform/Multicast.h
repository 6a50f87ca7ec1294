// Multicast group membership, the same for both address families: the groups each
// application wants joined on each interface, and the set of applications that use a group
// on an interface's status. Ip.h and Ip6.h name these types for their family.
#pragma once

#include <functional>
#include <ostream>
#include <set>
#include <vector>

#include "konet/IntfId.h"
#include "mox/Entity.h"
#include "mox/HashMap.h"
#include "mox/Name.h"

namespace Mcast {

// One group an application wants joined: the interface and the multicast address.
template <class Addr>
struct IntfAddrInfoOf {
   Konet::IntfId intf;
   Addr addr;
   bool operator==(IntfAddrInfoOf const&) const = default;
   friend std::ostream& operator<<(std::ostream& os, IntfAddrInfoOf const& i) {
      return os << i.intf << " " << i.addr;
   }
};

template <class Addr>
struct IntfAddrInfoHash {
   size_t operator()(IntfAddrInfoOf<Addr> const& i) const noexcept {
      return std::hash<Konet::IntfId>()(i.intf) * 31 + std::hash<Addr>()(i.addr);
   }
};

// The applications that use one group on one interface (never empty while the group is
// listed), in name order.
class MulticastGroupInfo {
public:
   using Applications = std::set<Mox::String>;
   MulticastGroupInfo() = default;
   explicit MulticastGroupInfo(Applications applications)
       : applications_(std::move(applications)) {}
   Applications const& applications() const { return applications_; }
   bool application(Mox::String const& name) const { return applications_.count(name) != 0; }
   // A copy with the application added or removed.
   MulticastGroupInfo with(Mox::String const& name) const {
      auto copy = *this;
      copy.applications_.insert(name);
      return copy;
   }
   MulticastGroupInfo without(Mox::String const& name) const {
      auto copy = *this;
      copy.applications_.erase(name);
      return copy;
   }
   bool operator==(MulticastGroupInfo const&) const = default;

private:
   Applications applications_;
};

// The groups one application wants joined, on any interface.
template <class Addr>
class MulticastApplicationOf : public Mox::Entity {
public:
   using IntfAddrInfo = IntfAddrInfoOf<Addr>;
   using Members = Mox::HashSet<IntfAddrInfo, IntfAddrInfoHash<Addr>>;
   class NotifieeConst : public Mox::EntityNotifiee<MulticastApplicationOf> {
   public:
      virtual void onMulticastAddr(IntfAddrInfo const&) {}
   };
   explicit MulticastApplicationOf(Mox::String name) : name_(std::move(name)) {}
   Mox::String const& name() const { return name_; }
   bool multicastAddr(IntfAddrInfo const& i) const { return multicastAddr_.contains(i); }
   void multicastAddrIs(IntfAddrInfo const& i) {
      this->insertMember(multicastAddr_, i, &NotifieeConst::onMulticastAddr);
   }
   void multicastAddrDel(IntfAddrInfo const& i) {
      this->delMember(multicastAddr_, i, &NotifieeConst::onMulticastAddr);
   }
   // Every group of the application on one interface.
   void multicastAddrDelIntf(Konet::IntfId const& intf) {
      for (auto const& i : multicastAddrOf(intf))
         multicastAddrDel(i);
   }
   Members const& multicastAddrIterator() const { return multicastAddr_; }
   std::vector<IntfAddrInfo> multicastAddrOf(Konet::IntfId const& intf) const {
      std::vector<IntfAddrInfo> out;
      for (auto const& i : multicastAddr_) {
         if (i.intf == intf) out.push_back(i);
      }
      return out;
   }

private:
   Mox::String const name_;
   Members multicastAddr_;
};

// The applications, by name.
template <class Addr>
class MulticastGroupsForApplicationsOf : public Mox::Entity {
public:
   static constexpr Mox::AttrId kApplication = 1;
   using Application = MulticastApplicationOf<Addr>;
   using Members = Mox::HashMap<Mox::String, Mox::Ptr<Application>>;
   class NotifieeConst : public Mox::EntityNotifiee<MulticastGroupsForApplicationsOf> {
   public:
      virtual void onApplication(Mox::String const&) {}
   };
   Mox::Ptr<Application> application(Mox::String const& name) const {
      return Mox::valueOr(application_, name);
   }
   Mox::Ptr<Application> applicationIs(Mox::String const& name) {
      return this->template instantiateMember<Application>(application_, name, kApplication,
                                                           &NotifieeConst::onApplication);
   }
   void applicationDel(Mox::String const& name) {
      this->delMember(application_, name, &NotifieeConst::onApplication);
   }
   Members const& applicationIterator() const { return application_; }

private:
   Members application_;
};

// The agent's own application: the groups the kernel joins for the interfaces' addresses.
inline Mox::String const& veldApplication() {
   static Mox::String const name("veld");
   return name;
}

}  // namespace Mcast
