// The route mirror of one network namespace: keeps the namespace's main-table unicast
// routes of both families in two Routing::FibRouteTable, from a dump at start and the
// kernel's route notifications after it.
//
// The kernel may hold several routes for one prefix with different metrics; the tables
// show the one with the lowest metric, and when it goes, the next. Cached clones and
// routes of other tables and types (local, broadcast, blackhole...) are left out. The
// kernel drops a device's IPv4 routes without a word when the device goes down or away, so
// the mirror watches links too and reloads when one does. A
// notification overflow (ENOBUFS) is followed by a full resync, which publishes exactly
// the differences, so no change is lost and none is reported twice.
//
// Single-threaded: the owner's event loop calls processEvents() when fd() is readable.
#pragma once

#include <cstdint>
#include <map>
#include <unordered_map>

#include "konet/NamespaceName.h"
#include "linux/Fd.h"
#include "platform/Fib.h"

struct nlmsghdr;

namespace Konet {

// One route message, parsed.
struct RouteInfo {
   Routing::GenPrefix prefix;
   uint32_t table = 0;
   uint8_t type = 0;
   uint32_t metric = 0;
   bool cloned = false;
   Routing::FibRoute route;
};

// False when the message is not an IPv4/IPv6 route message or is malformed.
bool parseRouteMsg(nlmsghdr const* nlh, RouteInfo* out);

class RouteMirror {
public:
   RouteMirror(NamespaceName ns, Mox::Ptr<Routing::FibRouteTable> routes4 = nullptr,
               Mox::Ptr<Routing::FibRouteTable> routes6 = nullptr, int rcvBufBytes = 8 << 20);
   RouteMirror(RouteMirror const&) = delete;
   RouteMirror& operator=(RouteMirror const&) = delete;

   // Opens the sockets in the namespace and loads the kernel's routes. 0 or an errno.
   int start();
   int fd() const { return events_.get(); }
   // Applies every pending notification; resyncs after an overflow. 0 or an errno.
   int processEvents();
   // Reloads every route and publishes what differs.
   int resync();

   Mox::Ptr<Routing::FibRouteTable> const& routes4() const { return routes4_; }
   Mox::Ptr<Routing::FibRouteTable> const& routes6() const { return routes6_; }
   NamespaceName const& ns() const { return ns_; }
   uint64_t resyncs() const { return resyncs_; }
   uint64_t overflows() const { return overflows_; }

   void applyDatagram(void const* buf, size_t len);
   void applyRoute(RouteInfo const& r, bool add);
   // A link went down or away: its routes left the kernel unannounced.
   void linkGone(int ifindex);
   void linkUp(int ifindex) { linkUp_[ifindex] = true; }

private:
   using ByMetric = std::map<uint32_t, Routing::FibRoute>;
   void publish(Routing::GenPrefix const& p);
   Routing::FibRouteTable& tableOf(Routing::GenPrefix const& p) {
      return p.af() == AddressFamily::ipv4 ? *routes4_ : *routes6_;
   }

   NamespaceName ns_;
   Mox::Ptr<Routing::FibRouteTable> routes4_;
   Mox::Ptr<Routing::FibRouteTable> routes6_;
   int rcvBufBytes_;
   Fd events_;
   Fd requests_;
   std::unordered_map<Routing::GenPrefix, ByMetric> kernel_;
   std::unordered_map<int, bool> linkUp_;
   bool reload_ = false;
   uint64_t resyncs_ = 0;
   uint64_t overflows_ = 0;
};

}  // namespace Konet
