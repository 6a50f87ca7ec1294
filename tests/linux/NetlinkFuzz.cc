// libFuzzer target: the kernel mirror's reading of netlink notifications. A datagram is
// parsed message by message into link and address records and applied to a mirror; it
// must be taken or refused, never read out of bounds.
//
// Inputs of two kinds, chosen by the first byte:
//  - even: the rest is the datagram, as it came;
//  - odd: a datagram of well-formed messages (a link with its IPv4 settings, IPv4 and IPv6
//    addresses, an address and a link deleted), mutated by the rest: each three bytes
//    (offset low, offset high, mask) flip bits of one byte; a last lone byte cuts the
//    datagram short. This reaches the attributes behind valid headers, which random bytes
//    rarely do.
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "linux/KernelMirror.h"
#include "linux/NetlinkParse.h"

namespace {

nlmsghdr* header(std::vector<uint8_t>* buf, uint16_t type, void const* family, size_t size) {
   size_t at = buf->size();
   buf->resize(at + 1024);
   nlmsghdr* nlh = mnl_nlmsg_put_header(buf->data() + at);
   nlh->nlmsg_type = type;
   std::memcpy(mnl_nlmsg_put_extra_header(nlh, size), family, size);
   return nlh;
}

void done(std::vector<uint8_t>* buf, nlmsghdr const* nlh) {
   size_t at = reinterpret_cast<uint8_t const*>(nlh) - buf->data();
   buf->resize(at + nlh->nlmsg_len);
}

void link(std::vector<uint8_t>* buf, uint16_t type, int ifindex, char const* name) {
   ifinfomsg ifi{};
   ifi.ifi_family = AF_UNSPEC;
   ifi.ifi_index = ifindex;
   ifi.ifi_flags = IFF_UP | IFF_RUNNING;
   nlmsghdr* nlh = header(buf, type, &ifi, sizeof ifi);
   mnl_attr_put_strz(nlh, IFLA_IFNAME, name);
   mnl_attr_put_u32(nlh, IFLA_MTU, 1500);
   mnl_attr_put_u32(nlh, IFLA_CARRIER_CHANGES, 3);
   mnl_attr_put_u32(nlh, IFLA_MASTER, 0);
   uint8_t mac[6] = {2, 0, 0, 0, 0, 1};
   mnl_attr_put(nlh, IFLA_ADDRESS, sizeof mac, mac);
   nlattr* perFamily = mnl_attr_nest_start(nlh, IFLA_AF_SPEC);
   nlattr* inet = mnl_attr_nest_start(nlh, AF_INET);
   uint32_t conf[32];
   for (uint32_t i = 0; i < 32; ++i)
      conf[i] = i & 1;
   mnl_attr_put(nlh, IFLA_INET_CONF, sizeof conf, conf);
   mnl_attr_nest_end(nlh, inet);
   mnl_attr_nest_end(nlh, perFamily);
   done(buf, nlh);
}

void addr(std::vector<uint8_t>* buf, uint16_t type, int family, int ifindex, uint8_t len,
          uint8_t last, uint32_t flags) {
   ifaddrmsg ifa{};
   ifa.ifa_family = static_cast<uint8_t>(family);
   ifa.ifa_prefixlen = len;
   ifa.ifa_index = static_cast<uint32_t>(ifindex);
   nlmsghdr* nlh = header(buf, type, &ifa, sizeof ifa);
   uint8_t bytes[16] = {10, 0, 0, last};
   if (family == AF_INET6) {
      bytes[0] = 0x20;
      bytes[1] = 0x01;
      bytes[15] = last;
   }
   size_t n = family == AF_INET ? 4 : 16;
   mnl_attr_put(nlh, IFA_ADDRESS, n, bytes);
   mnl_attr_put(nlh, IFA_LOCAL, n, bytes);
   mnl_attr_put_u32(nlh, IFA_FLAGS, flags);
   done(buf, nlh);
}

std::vector<uint8_t> wellFormed() {
   std::vector<uint8_t> buf;
   link(&buf, RTM_NEWLINK, 7, "et1");
   addr(&buf, RTM_NEWADDR, AF_INET, 7, 24, 1, IFA_F_PERMANENT);
   addr(&buf, RTM_NEWADDR, AF_INET, 7, 24, 2, IFA_F_PERMANENT | IFA_F_SECONDARY);
   addr(&buf, RTM_NEWADDR, AF_INET6, 7, 64, 1, IFA_F_PERMANENT | IFA_F_TENTATIVE);
   addr(&buf, RTM_DELADDR, AF_INET, 7, 24, 2, 0);
   link(&buf, RTM_NEWLINK, 8, "et2");
   link(&buf, RTM_DELLINK, 8, "et2");
   return buf;
}

// What a parser that took a message may never hand on.
void checkRecords(uint8_t const* data, size_t size) {
   if (!Konet::wellFramed(data, size)) return;
   auto const* nlh = reinterpret_cast<nlmsghdr const*>(data);
   int left = static_cast<int>(size);
   while (mnl_nlmsg_ok(nlh, left)) {
      Konet::LinkInfo l;
      if (Konet::parseLinkMsg(nlh, &l) && l.ipv4ConfCount > Konet::LinkInfo::kIpv4ConfMax) {
         __builtin_trap();
      }
      Konet::AddrInfo a;
      if (Konet::parseAddrMsg(nlh, &a) && a.prefixLen > (a.addr.isV4() ? 32 : 128)) {
         __builtin_trap();
      }
      nlh = mnl_nlmsg_next(nlh, &left);
   }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
   if (size == 0) return 0;
   std::vector<uint8_t> datagram;
   if (data[0] % 2 == 0) {
      datagram.assign(data + 1, data + size);
   } else {
      static std::vector<uint8_t> const kWellFormed = wellFormed();
      datagram = kWellFormed;
      size_t i = 1;
      for (; i + 3 <= size; i += 3) {
         size_t offset = (data[i] | (data[i + 1] << 8)) % datagram.size();
         datagram[offset] ^= data[i + 2];
      }
      if (i < size) datagram.resize(data[i] % (datagram.size() + 1));
   }
   // A datagram arrives in an aligned buffer; the vector's storage is one.
   checkRecords(datagram.data(), datagram.size());
   Konet::KernelMirror mirror(Konet::NamespaceName("fuzz"));
   mirror.applyDatagram(datagram.data(), datagram.size());
   return 0;
}
