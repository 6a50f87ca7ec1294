#include "linux/NetlinkLink.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "linux/NetNs.h"
#include "linux/Netlink.h"
#include "linux/SafeName.h"

namespace Konet {
namespace {

constexpr uint16_t kRequestAck = NLM_F_REQUEST | NLM_F_ACK;
constexpr uint16_t kCreate = kRequestAck | NLM_F_CREATE | NLM_F_EXCL;

nlmsghdr* startLinkMsg(NetlinkBuf& buf, uint16_t type, uint16_t flags, int ifindex) {
   nlmsghdr* nlh = startRequest(buf, type, flags, sizeof(ifinfomsg));
   auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
   ifi->ifi_family = AF_UNSPEC;
   ifi->ifi_index = ifindex;
   return nlh;
}

void putName(nlmsghdr* nlh, std::string_view name) {
   std::string s(name);
   mnl_attr_put_strz(nlh, IFLA_IFNAME, s.c_str());
}

int onLink(nlmsghdr const* nlh, void* data) {
   auto* out = static_cast<std::vector<LinkInfo>*>(data);
   LinkInfo info;
   if (parseLinkMsg(nlh, &info)) out->push_back(std::move(info));
   return MNL_CB_OK;
}

// Gets one link by index or by name.
int getOneLink(int sock, int ifindex, std::string_view name, LinkInfo* out) {
   NetlinkBuf buf;
   nlmsghdr* nlh = startLinkMsg(buf, RTM_GETLINK, kRequestAck, ifindex);
   if (!name.empty()) putName(nlh, name);
   mnl_attr_put_u32(nlh, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
   std::vector<LinkInfo> links;
   if (int rc = netlinkRequest(sock, nlh, onLink, &links)) return rc;
   if (links.empty()) return ENODEV;
   *out = std::move(links.front());
   return 0;
}

}  // namespace

int setKintfFlags(int sock, int ifindex, uint32_t flags, uint32_t mask) {
   NetlinkBuf buf;
   nlmsghdr* nlh = startLinkMsg(buf, RTM_NEWLINK, kRequestAck, ifindex);
   auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
   ifi->ifi_flags = flags & mask;
   ifi->ifi_change = mask;
   return netlinkRequest(sock, nlh);
}

int setLinkUp(int sock, int ifindex, bool up) {
   return setKintfFlags(sock, ifindex, up ? IFF_UP : 0, IFF_UP);
}

int linkIndex(int sock, std::string_view name, int* ifindex) {
   if (int rc = checkDeviceName(name)) return rc;
   LinkInfo link;
   if (int rc = getOneLink(sock, 0, name, &link)) return rc;
   *ifindex = link.ifindex;
   return 0;
}

int getLink(int sock, int ifindex, LinkInfo* out) {
   if (ifindex <= 0) return ENODEV;
   return getOneLink(sock, ifindex, {}, out);
}

int dumpLinks(int sock, std::vector<LinkInfo>* out) {
   out->clear();
   NetlinkBuf buf;
   nlmsghdr* nlh = startLinkMsg(buf, RTM_GETLINK, NLM_F_REQUEST | NLM_F_DUMP, 0);
   mnl_attr_put_u32(nlh, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
   return netlinkDump(sock, nlh, onLink, out);
}

int createVethPair(int sock, std::string_view name, std::string_view peer) {
   if (int rc = checkDeviceName(name)) return rc;
   if (int rc = checkDeviceName(peer)) return rc;
   NetlinkBuf buf;
   nlmsghdr* nlh = startLinkMsg(buf, RTM_NEWLINK, kCreate, 0);
   putName(nlh, name);
   nlattr* linkInfo = mnl_attr_nest_start(nlh, IFLA_LINKINFO);
   mnl_attr_put_strz(nlh, IFLA_INFO_KIND, "veth");
   nlattr* infoData = mnl_attr_nest_start(nlh, IFLA_INFO_DATA);
   nlattr* peerInfo = mnl_attr_nest_start(nlh, VETH_INFO_PEER);
   // The peer's own ifinfomsg, zeroed, then its attributes.
   mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg));
   putName(nlh, peer);
   mnl_attr_nest_end(nlh, peerInfo);
   mnl_attr_nest_end(nlh, infoData);
   mnl_attr_nest_end(nlh, linkInfo);
   return netlinkRequest(sock, nlh);
}

int createBridge(int sock, std::string_view name) {
   if (int rc = checkDeviceName(name)) return rc;
   NetlinkBuf buf;
   nlmsghdr* nlh = startLinkMsg(buf, RTM_NEWLINK, kCreate, 0);
   putName(nlh, name);
   nlattr* linkInfo = mnl_attr_nest_start(nlh, IFLA_LINKINFO);
   mnl_attr_put_strz(nlh, IFLA_INFO_KIND, "bridge");
   mnl_attr_nest_end(nlh, linkInfo);
   return netlinkRequest(sock, nlh);
}

int setLinkMaster(int sock, int ifindex, int masterIfindex) {
   NetlinkBuf buf;
   nlmsghdr* nlh = startLinkMsg(buf, RTM_NEWLINK, kRequestAck, ifindex);
   mnl_attr_put_u32(nlh, IFLA_MASTER, static_cast<uint32_t>(masterIfindex));
   return netlinkRequest(sock, nlh);
}

int deleteLink(int sock, int ifindex) {
   NetlinkBuf buf;
   return netlinkRequest(sock, startLinkMsg(buf, RTM_DELLINK, kRequestAck, ifindex));
}

int moveLinkToNetNs(int sock, int ifindex, int nsFd) {
   NetlinkBuf buf;
   nlmsghdr* nlh = startLinkMsg(buf, RTM_NEWLINK, kRequestAck, ifindex);
   mnl_attr_put_u32(nlh, IFLA_NET_NS_FD, static_cast<uint32_t>(nsFd));
   return netlinkRequest(sock, nlh);
}

int moveLinkToNamedNetNs(int sock, int ifindex, NamespaceName const& ns) {
   Fd fd;
   if (int rc = openNamedNamespace(ns, &fd)) return rc;
   return moveLinkToNetNs(sock, ifindex, fd.get());
}

}  // namespace Konet
