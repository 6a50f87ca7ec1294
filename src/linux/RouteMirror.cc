#include "linux/RouteMirror.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "linux/Netlink.h"
#include "linux/NetlinkParse.h"

namespace Konet {

namespace {

constexpr int kDumpAttempts = 20;

bool addrOf(nlattr const* a, uint8_t family, IpGenAddr* out) {
   auto len = mnl_attr_get_payload_len(a);
   auto const* p = static_cast<uint8_t const*>(mnl_attr_get_payload(a));
   if (family == AF_INET && len == 4) {
      *out = IpAddr(uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]);
      return true;
   }
   if (family == AF_INET6 && len == 16) {
      Ip6Addr::Bytes b;
      std::memcpy(b.data(), p, 16);
      *out = Ip6Addr(b);
      return true;
   }
   return false;
}

struct Attrs {
   nlattr const* tb[RTA_MAX + 1] = {};
};

int collect(nlattr const* a, void* data) {
   auto* attrs = static_cast<Attrs*>(data);
   int type = mnl_attr_get_type(a);
   if (type <= RTA_MAX) attrs->tb[type] = a;
   return MNL_CB_OK;
}

// RTA_MULTIPATH: a run of rtnexthop, each followed by its own attributes.
bool parseMultipath(nlattr const* mp, uint8_t family, Routing::FibRoute* out) {
   auto const* p = static_cast<uint8_t const*>(mnl_attr_get_payload(mp));
   size_t left = mnl_attr_get_payload_len(mp);
   while (left >= sizeof(rtnexthop)) {
      rtnexthop nh;
      std::memcpy(&nh, p, sizeof nh);
      if (nh.rtnh_len < sizeof(rtnexthop) || nh.rtnh_len > left) return false;
      Routing::FibVia via;
      via.ifindex = nh.rtnh_ifindex;
      size_t attrLeft = nh.rtnh_len - RTNH_ALIGN(sizeof(rtnexthop));
      auto const* a = reinterpret_cast<nlattr const*>(p + RTNH_ALIGN(sizeof(rtnexthop)));
      while (attrLeft >= sizeof(nlattr)) {
         if (a->nla_len < sizeof(nlattr) || a->nla_len > attrLeft) return false;
         if ((a->nla_type & NLA_TYPE_MASK) == RTA_GATEWAY && !addrOf(a, family, &via.gateway))
            return false;
         size_t step = NLA_ALIGN(a->nla_len);
         if (step >= attrLeft) break;
         attrLeft -= step;
         a = reinterpret_cast<nlattr const*>(reinterpret_cast<uint8_t const*>(a) + step);
      }
      out->vias.push_back(via);
      size_t step = RTNH_ALIGN(nh.rtnh_len);
      if (step >= left) break;
      left -= step;
      p += step;
   }
   return true;
}

}  // namespace

bool parseRouteMsg(nlmsghdr const* nlh, RouteInfo* out) {
   if (nlh->nlmsg_type != RTM_NEWROUTE && nlh->nlmsg_type != RTM_DELROUTE) return false;
   if (nlh->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return false;
   auto const* rtm = static_cast<rtmsg const*>(mnl_nlmsg_get_payload(nlh));
   uint8_t const family = rtm->rtm_family;
   uint8_t const maxLen = family == AF_INET ? 32 : 128;
   if ((family != AF_INET && family != AF_INET6) || rtm->rtm_dst_len > maxLen) return false;
   Attrs attrs;
   if (mnl_attr_parse(nlh, sizeof(rtmsg), collect, &attrs) < 0) return false;
   *out = RouteInfo{};
   IpGenAddr dst = family == AF_INET ? IpGenAddr(IpAddr(0)) : IpGenAddr(Ip6Addr());
   if (attrs.tb[RTA_DST] && !addrOf(attrs.tb[RTA_DST], family, &dst)) return false;
   out->prefix = Routing::GenPrefix(dst, rtm->rtm_dst_len);
   out->table = rtm->rtm_table;
   if (attrs.tb[RTA_TABLE]) {
      if (mnl_attr_validate(attrs.tb[RTA_TABLE], MNL_TYPE_U32) < 0) return false;
      out->table = mnl_attr_get_u32(attrs.tb[RTA_TABLE]);
   }
   if (attrs.tb[RTA_PRIORITY]) {
      if (mnl_attr_validate(attrs.tb[RTA_PRIORITY], MNL_TYPE_U32) < 0) return false;
      out->metric = mnl_attr_get_u32(attrs.tb[RTA_PRIORITY]);
   }
   out->type = rtm->rtm_type;
   out->cloned = rtm->rtm_flags & RTM_F_CLONED;
   if (attrs.tb[RTA_MULTIPATH]) {
      if (!parseMultipath(attrs.tb[RTA_MULTIPATH], family, &out->route)) return false;
   } else {
      Routing::FibVia via;
      if (attrs.tb[RTA_GATEWAY] && !addrOf(attrs.tb[RTA_GATEWAY], family, &via.gateway))
         return false;
      if (attrs.tb[RTA_OIF]) {
         if (mnl_attr_validate(attrs.tb[RTA_OIF], MNL_TYPE_U32) < 0) return false;
         via.ifindex = static_cast<int>(mnl_attr_get_u32(attrs.tb[RTA_OIF]));
      }
      out->route.vias.push_back(via);
   }
   return true;
}

RouteMirror::RouteMirror(NamespaceName ns, Mox::Ptr<Routing::FibRouteTable> routes4,
                         Mox::Ptr<Routing::FibRouteTable> routes6, int rcvBufBytes)
    : ns_(std::move(ns)),
      routes4_(routes4 ? std::move(routes4)
                       : Mox::make<Routing::FibRouteTable>(AddressFamily::ipv4)),
      routes6_(routes6 ? std::move(routes6)
                       : Mox::make<Routing::FibRouteTable>(AddressFamily::ipv6)),
      rcvBufBytes_(rcvBufBytes) {}

int RouteMirror::start() {
   int err = 0;
   events_ = createNetlinkSocket(ns_, RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE, 0, false,
                                 rcvBufBytes_, &err);
   if (!events_) return err;
   requests_ = createNetlinkSocket(ns_, 0, 2, true, 0, &err);
   if (!requests_) return err;
   return resync();
}

void RouteMirror::publish(Routing::GenPrefix const& p) {
   auto it = kernel_.find(p);
   if (it == kernel_.end() || it->second.empty()) {
      if (it != kernel_.end()) kernel_.erase(it);
      tableOf(p).routeDel(p);
      return;
   }
   tableOf(p).routeIs(p, it->second.begin()->second);  // the lowest metric
}

void RouteMirror::applyRoute(RouteInfo const& r, bool add) {
   // Only what forwards: unicast routes of the main table, not cached clones.
   if (r.table != RT_TABLE_MAIN || r.type != RTN_UNICAST || r.cloned) return;
   if (add) {
      kernel_[r.prefix][r.metric] = r.route;
   } else {
      auto it = kernel_.find(r.prefix);
      if (it == kernel_.end()) return;
      it->second.erase(r.metric);
   }
   publish(r.prefix);
}

namespace {

int onRoute(nlmsghdr const* nlh, void* data) {
   auto* mirror = static_cast<RouteMirror*>(data);
   if (nlh->nlmsg_type == RTM_NEWLINK || nlh->nlmsg_type == RTM_DELLINK) {
      LinkInfo l;
      if (!parseLinkMsg(nlh, &l)) return MNL_CB_OK;
      if (nlh->nlmsg_type == RTM_DELLINK || !(l.flags & IFF_UP)) {
         mirror->linkGone(l.ifindex);
      } else {
         mirror->linkUp(l.ifindex);
      }
      return MNL_CB_OK;
   }
   RouteInfo r;
   if (parseRouteMsg(nlh, &r))
      static_cast<RouteMirror*>(data)->applyRoute(r, nlh->nlmsg_type == RTM_NEWROUTE);
   return MNL_CB_OK;
}

struct Dump {
   std::vector<RouteInfo>* out;
};

int onDumped(nlmsghdr const* nlh, void* data) {
   RouteInfo r;
   if (parseRouteMsg(nlh, &r)) static_cast<Dump*>(data)->out->push_back(std::move(r));
   return MNL_CB_OK;
}

}  // namespace

int RouteMirror::resync() {
   ++resyncs_;
   std::vector<RouteInfo> routes;
   int err = EINTR;
   for (int attempt = 0; attempt < kDumpAttempts && err == EINTR; ++attempt) {
      routes.clear();
      NetlinkBuf buf;
      nlmsghdr* nlh = startRequest(buf, RTM_GETROUTE, NLM_F_REQUEST | NLM_F_DUMP, sizeof(rtmsg));
      Dump dump{&routes};
      err = netlinkDump(requests_.get(), nlh, onDumped, &dump);
   }
   if (err) return err;
   auto old = std::move(kernel_);
   kernel_.clear();
   for (auto const& r : routes) {
      if (r.table != RT_TABLE_MAIN || r.type != RTN_UNICAST || r.cloned) continue;
      kernel_[r.prefix][r.metric] = r.route;
   }
   for (auto const& [p, unused] : old)
      if (!kernel_.count(p)) publish(p);
   std::vector<Routing::GenPrefix> now;
   now.reserve(kernel_.size());
   for (auto const& [p, unused] : kernel_)
      now.push_back(p);
   for (auto const& p : now)
      publish(p);
   return 0;
}

void RouteMirror::linkGone(int ifindex) {
   // Only a link we saw up can take routes with it.
   auto it = linkUp_.find(ifindex);
   if (it == linkUp_.end() || it->second) reload_ = true;
   linkUp_[ifindex] = false;
}

void RouteMirror::applyDatagram(void const* buf, size_t len) {
   if (wellFramed(buf, len)) mnl_cb_run(buf, len, 0, 0, onRoute, this);
}

int RouteMirror::processEvents() {
   alignas(nlmsghdr) char buf[1 << 16];
   bool overflow = false;
   for (;;) {
      ssize_t n = ::recv(events_.get(), buf, sizeof buf, MSG_DONTWAIT);
      if (n < 0) {
         if (errno == EINTR) continue;
         if (errno == EAGAIN || errno == EWOULDBLOCK) break;
         if (errno == ENOBUFS) {
            overflow = true;  // some notifications are lost: read on, then reload
            ++overflows_;
            continue;
         }
         return errno;
      }
      applyDatagram(buf, static_cast<size_t>(n));
   }
   if (!overflow && !reload_) return 0;
   reload_ = false;
   return resync();
}

}  // namespace Konet
