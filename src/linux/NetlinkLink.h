// Network devices over rtnetlink, in the namespace of the socket: flags, lookup, creation
// of veth pairs and bridges, moves between namespaces. Device names are checked before
// they go into a request. Everything returns 0 or a positive errno.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "konet/NamespaceName.h"
#include "linux/NetlinkParse.h"

namespace Konet {

// Sets the device flags selected by `mask` to their value in `flags` and leaves the others
// (RTM_NEWLINK with ifi_change = mask): setKintfFlags(sock, i, IFF_NOARP, IFF_NOARP) sets
// IFF_NOARP, setKintfFlags(sock, i, 0, IFF_NOARP) clears it.
int setKintfFlags(int sock, int ifindex, uint32_t flags, uint32_t mask);
int setLinkUp(int sock, int ifindex, bool up);

// The ifindex of device `name`; ENODEV when there is none.
int linkIndex(int sock, std::string_view name, int* ifindex);
int getLink(int sock, int ifindex, LinkInfo* out);
int dumpLinks(int sock, std::vector<LinkInfo>* out);

// A veth pair `name` <-> `peer`; EEXIST when a name is taken.
int createVethPair(int sock, std::string_view name, std::string_view peer);
int createBridge(int sock, std::string_view name);
// Makes `ifindex` a port of `masterIfindex` (0: releases it from its master).
int setLinkMaster(int sock, int ifindex, int masterIfindex);
int deleteLink(int sock, int ifindex);

// Moves a device into the namespace of `nsFd` (a descriptor from getns or
// openNamedNamespace), or into a named namespace. The device gets a new ifindex there only
// if its own is taken.
int moveLinkToNetNs(int sock, int ifindex, int nsFd);
int moveLinkToNamedNetNs(int sock, int ifindex, NamespaceName const& ns);

}  // namespace Konet
