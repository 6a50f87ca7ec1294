#include "linux/NetlinkParse.h"

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace Konet {
namespace {

template <size_t N>
struct Attrs {
   explicit Attrs(nlmsghdr const* nlh) : end(reinterpret_cast<char const*>(nlh) + nlh->nlmsg_len) {}
   char const* end;
   std::array<nlattr const*, N> tb{};
};

// Keeps the last attribute of each known type; skips unknown ones. libmnl bounds the
// attributes by the message length rounded up to 4 bytes: an attribute must also end
// within the exact length, or the message is refused.
template <size_t N>
int collect(nlattr const* attr, void* data) {
   auto* attrs = static_cast<Attrs<N>*>(data);
   if (reinterpret_cast<char const*>(attr) + mnl_attr_get_len(attr) > attrs->end) {
      return MNL_CB_ERROR;
   }
   uint16_t type = mnl_attr_get_type(attr);
   if (type < N) attrs->tb[type] = attr;
   return MNL_CB_OK;
}

bool u32Attr(nlattr const* attr, uint32_t* out) {
   if (!attr) return true;
   if (mnl_attr_validate(attr, MNL_TYPE_U32) < 0) return false;
   *out = mnl_attr_get_u32(attr);
   return true;
}

// Calls fn on each attribute nested in `nest`, stopping at the first that does not fit.
template <class F>
void forEachNested(nlattr const* nest, F&& fn) {
   auto const* begin = static_cast<char const*>(mnl_attr_get_payload(nest));
   auto const* end = begin + mnl_attr_get_payload_len(nest);
   for (auto const* a = reinterpret_cast<nlattr const*>(begin);
        mnl_attr_ok(a, static_cast<int>(end - reinterpret_cast<char const*>(a)));
        a = mnl_attr_next(a)) {
      fn(a);
   }
}

// Copies the array of 32-bit settings nested as `confType` in the family's nest.
template <class T, size_t N>
void parseConf(nlattr const* family, uint16_t confType, std::array<T, N>* conf, uint32_t* count) {
   forEachNested(family, [&](nlattr const* a) {
      if (mnl_attr_get_type(a) != confType) return;
      size_t n = std::min(mnl_attr_get_payload_len(a) / sizeof(T), N);
      std::memcpy(conf->data(), mnl_attr_get_payload(a), n * sizeof(T));
      *count = static_cast<uint32_t>(n);
   });
}

// IFLA_AF_SPEC holds one nest per family: AF_INET's holds IFLA_INET_CONF, AF_INET6's
// IFLA_INET6_CONF, each an array of 32-bit settings.
void parseDevConf(nlattr const* afSpec, LinkInfo* link) {
   if (!afSpec) return;
   forEachNested(afSpec, [&](nlattr const* a) {
      if (mnl_attr_get_type(a) == AF_INET) {
         parseConf(a, IFLA_INET_CONF, &link->ipv4Conf, &link->ipv4ConfCount);
      } else if (mnl_attr_get_type(a) == AF_INET6) {
         parseConf(a, IFLA_INET6_CONF, &link->ipv6Conf, &link->ipv6ConfCount);
      }
   });
}

}  // namespace

bool wellFramed(void const* buf, size_t len) {
   auto const* bytes = static_cast<char const*>(buf);
   size_t offset = 0;
   while (len - offset >= sizeof(nlmsghdr)) {
      nlmsghdr h;
      std::memcpy(&h, bytes + offset, sizeof h);
      if (h.nlmsg_len < sizeof(nlmsghdr) || h.nlmsg_len > len - offset) return false;
      offset += NLMSG_ALIGN(h.nlmsg_len);
      if (offset >= len) break;
   }
   return true;
}

bool parseLinkMsg(nlmsghdr const* nlh, LinkInfo* out) {
   if (nlh->nlmsg_type != RTM_NEWLINK && nlh->nlmsg_type != RTM_DELLINK) return false;
   if (nlh->nlmsg_len < mnl_nlmsg_size(sizeof(ifinfomsg))) return false;
   auto const* ifi = static_cast<ifinfomsg const*>(mnl_nlmsg_get_payload(nlh));
   Attrs<IFLA_MAX + 1> attrs(nlh);
   if (mnl_attr_parse(nlh, sizeof(ifinfomsg), collect<IFLA_MAX + 1>, &attrs) != MNL_CB_OK)
      return false;
   LinkInfo link;
   link.ifindex = ifi->ifi_index;
   link.flags = ifi->ifi_flags;
   if (auto* name = attrs.tb[IFLA_IFNAME]) {
      if (mnl_attr_validate(name, MNL_TYPE_NUL_STRING) < 0) return false;
      link.name = mnl_attr_get_str(name);
   }
   uint32_t master = 0;
   if (!u32Attr(attrs.tb[IFLA_CARRIER_CHANGES], &link.carrierChanges) ||
       !u32Attr(attrs.tb[IFLA_MTU], &link.mtu) || !u32Attr(attrs.tb[IFLA_MASTER], &master)) {
      return false;
   }
   link.master = static_cast<int>(master);
   // An Ethernet address is 6 bytes; other link layers (none, IP tunnels) are left zero.
   if (auto* addr = attrs.tb[IFLA_ADDRESS]; addr && mnl_attr_get_payload_len(addr) == 6) {
      std::memcpy(link.mac.data(), mnl_attr_get_payload(addr), 6);
   }
   parseDevConf(attrs.tb[IFLA_AF_SPEC], &link);
   *out = std::move(link);
   return true;
}

bool parseAddrMsg(nlmsghdr const* nlh, AddrInfo* out) {
   if (nlh->nlmsg_type != RTM_NEWADDR && nlh->nlmsg_type != RTM_DELADDR) return false;
   if (nlh->nlmsg_len < mnl_nlmsg_size(sizeof(ifaddrmsg))) return false;
   auto const* ifa = static_cast<ifaddrmsg const*>(mnl_nlmsg_get_payload(nlh));
   size_t addrLen;
   if (ifa->ifa_family == AF_INET) {
      addrLen = 4;
   } else if (ifa->ifa_family == AF_INET6) {
      addrLen = 16;
   } else {
      return false;
   }
   if (ifa->ifa_prefixlen > addrLen * 8) return false;
   Attrs<IFA_MAX + 1> attrs(nlh);
   if (mnl_attr_parse(nlh, sizeof(ifaddrmsg), collect<IFA_MAX + 1>, &attrs) != MNL_CB_OK)
      return false;
   nlattr const* addrAttr = attrs.tb[IFA_LOCAL] ? attrs.tb[IFA_LOCAL] : attrs.tb[IFA_ADDRESS];
   if (!addrAttr || mnl_attr_get_payload_len(addrAttr) != addrLen) return false;
   AddrInfo info;
   info.ifindex = static_cast<int>(ifa->ifa_index);
   info.prefixLen = ifa->ifa_prefixlen;
   info.scope = ifa->ifa_scope;
   info.flags = ifa->ifa_flags;
   auto const* bytes = static_cast<uint8_t const*>(mnl_attr_get_payload(addrAttr));
   info.addr =
       addrLen == 4 ? IpGenAddr(IpAddr::fromBytes(bytes)) : IpGenAddr(Ip6Addr::fromBytes(bytes));
   if (!u32Attr(attrs.tb[IFA_FLAGS], &info.flags)) return false;
   *out = info;
   return true;
}

}  // namespace Konet
