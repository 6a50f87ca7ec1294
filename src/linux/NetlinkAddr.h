// Interface addresses over rtnetlink: add, delete, flush, dump.
//
// One request at a time, acknowledged (or many in one go, ipAddrAddAll). Adding an address the
// device already has (EEXIST) and deleting one it does not have (EADDRNOTAVAIL) are successes: the
// kernel is in the state asked for. Everything returns 0 or a positive errno.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <string>
#include <vector>

#include "konet/IpPrefix.h"
#include "linux/Netlink.h"
#include "linux/NetlinkParse.h"

namespace Konet {

// `ifaFlags` (IFA_F_NOPREFIXROUTE...) go in an IFA_FLAGS attribute when set.
int ipAddrAdd(int sock, int ifindex, IpAddrWithMask const& addr, uint32_t ifaFlags = 0);
int ipAddrDel(int sock, int ifindex, IpAddrWithMask const& addr);
// Many adds at once, in their order, several to a datagram (netlinkRequestAll):
// (*results)[i] is what ipAddrAdd would have returned for adds[i].
struct IpAddrAdd {
   int ifindex;
   IpAddrWithMask addr;
   uint32_t ifaFlags = 0;
};
void ipAddrAddAll(int sock, std::vector<IpAddrAdd> const& adds, std::vector<int>* results);
// `ifaFlags` (IFA_F_NODAD, IFA_F_NOPREFIXROUTE...) go in an IFA_FLAGS attribute when set.
int ip6AddrAdd(int sock, int ifindex, Ip6AddrWithMask const& addr, uint32_t ifaFlags = 0);
int ip6AddrDel(int sock, int ifindex, Ip6AddrWithMask const& addr);

// The requests themselves, for the functions above and for tests that check the bytes.
// IPv4: ifaddrmsg, then IFA_LOCAL and IFA_ADDRESS and, when ifaFlags is set, IFA_FLAGS. IPv6:
// ifaddrmsg, then IFA_ADDRESS (16 bytes) and, when ifaFlags is set, IFA_FLAGS. An IPv6 delete is 44
// bytes. The sequence number is left 0 (netlinkRequest sets it).
nlmsghdr* buildIpAddrMsg(NetlinkBuf& buf, uint16_t type, int ifindex, IpAddrWithMask const& addr,
                         uint32_t ifaFlags = 0);
nlmsghdr* buildIp6AddrMsg(NetlinkBuf& buf, uint16_t type, int ifindex, Ip6AddrWithMask const& addr,
                          uint32_t ifaFlags = 0);

// Removes every IPv4 address of a device, as when it goes down. The device is `devName`
// in namespace `ns`, the namespace of `sock`. Secondaries are not promoted meanwhile:
// "promote_secondaries" of the device is "0" during the flush and "1" after it. Throws
// Mox::RangeException for a namespace name over 150 bytes; EINVAL for unsafe names.
int ipAddrFlush(int sock, int ifindex, std::string const& devName, std::string const& ns);

// The addresses of `family` (AF_INET, AF_INET6, AF_UNSPEC for both) on device `ifindex`
// (0: all devices), in the kernel's order.
int dumpAddrs(int sock, int family, int ifindex, std::vector<AddrInfo>* out);

}  // namespace Konet
