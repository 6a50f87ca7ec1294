// rtnetlink link and address messages as plain records, for dumps, notifications and the
// kernel mirror. Parsing trusts nothing in the message beyond what mnl_cb_run already
// checked (the header fits its datagram): a short family header, an attribute that runs
// past the message, an address of the wrong size or a malformed known attribute refuses
// the message.
#pragma once

#include <linux/netlink.h>

#include <array>
#include <cstdint>
#include <string>

#include "konet/IpAddr.h"

namespace Konet {

// RTM_NEWLINK / RTM_DELLINK.
struct LinkInfo {
   int ifindex = 0;
   std::string name;             // IFLA_IFNAME
   uint32_t flags = 0;           // ifi_flags: IFF_UP, IFF_RUNNING (0x40), IFF_NOARP (0x80)...
   uint32_t carrierChanges = 0;  // IFLA_CARRIER_CHANGES: advances when carrier comes or goes
   uint32_t mtu = 0;             // IFLA_MTU
   int master = 0;               // IFLA_MASTER: ifindex of the bridge or bond, 0 if none
   // IFLA_ADDRESS of an Ethernet device, else zero.
   std::array<uint8_t, 6> mac{};
   // The device's IPv4 settings (IFLA_AF_SPEC / AF_INET / IFLA_INET_CONF): ipv4Conf[i] is
   // the setting IPV4_DEVCONF_* number i + 1 (forwarding, rp_filter, ...), what
   // /proc/sys/net/ipv4/conf/<device> shows.
   static constexpr size_t kIpv4ConfMax = 48;
   std::array<uint32_t, kIpv4ConfMax> ipv4Conf{};
   uint32_t ipv4ConfCount = 0;  // settings present; 0 when the message had none
   // The device's IPv6 settings (IFLA_AF_SPEC / AF_INET6 / IFLA_INET6_CONF): ipv6Conf[i] is
   // the setting DEVCONF_* number i (forwarding, accept_ra, ...), what
   // /proc/sys/net/ipv6/conf/<device> shows. None for a device without IPv6 (a small MTU).
   static constexpr size_t kIpv6ConfMax = 64;
   std::array<int32_t, kIpv6ConfMax> ipv6Conf{};
   uint32_t ipv6ConfCount = 0;
};

// RTM_NEWADDR / RTM_DELADDR.
struct AddrInfo {
   int ifindex = 0;
   IpGenAddr addr;  // IFA_LOCAL when present (the local end of a peer address), else
                    // IFA_ADDRESS
   uint8_t prefixLen = 0;
   uint32_t flags = 0;  // IFA_FLAGS when present, else ifa_flags: IFA_F_SECONDARY (0x01),
                        // IFA_F_DADFAILED (0x08), IFA_F_TENTATIVE (0x40), IFA_F_PERMANENT
                        // (0x80)...
   uint8_t scope = 0;
};

// True when the datagram is a run of whole messages: each header's length covers at least
// the header and ends within the datagram (bytes after the last whole message, fewer than
// a header, are ignored). Check this before walking a datagram with libmnl: its own check
// reads a length above 2 GiB as a negative number and walks past the end.
bool wellFramed(void const* buf, size_t len);

// False when the message is not a link message or is malformed.
bool parseLinkMsg(nlmsghdr const* nlh, LinkInfo* out);
// False when the message is not an IPv4/IPv6 address message or is malformed.
bool parseAddrMsg(nlmsghdr const* nlh, AddrInfo* out);

}  // namespace Konet
