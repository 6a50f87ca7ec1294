#include "linux/NetlinkAddr.h"

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>

#include "linux/ProcSys.h"
#include "linux/SafeName.h"
#include "mox/Trace.h"

namespace Konet {
namespace {

Mox::TraceHandle traceAddr("KonetAddr");

constexpr uint16_t kRequestAck = NLM_F_REQUEST | NLM_F_ACK;

nlmsghdr* startAddrMsg(NetlinkBuf& buf, uint16_t type, uint16_t flags, uint8_t family,
                       uint8_t prefixLen, int ifindex) {
   nlmsghdr* nlh = startRequest(buf, type, flags, sizeof(ifaddrmsg));
   auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_get_payload(nlh));
   ifa->ifa_family = family;
   ifa->ifa_prefixlen = prefixLen;
   ifa->ifa_index = static_cast<uint32_t>(ifindex);
   return nlh;
}

uint16_t requestFlags(uint16_t type) {
   return type == RTM_NEWADDR ? kRequestAck | NLM_F_CREATE | NLM_F_EXCL : kRequestAck;
}

// EEXIST on add and EADDRNOTAVAIL on delete leave the kernel as asked.
int addrResult(uint16_t type, int rc) {
   if (type == RTM_NEWADDR && rc == EEXIST) return 0;
   if (type == RTM_DELADDR && rc == EADDRNOTAVAIL) return 0;
   return rc;
}

}  // namespace

nlmsghdr* buildIpAddrMsg(NetlinkBuf& buf, uint16_t type, int ifindex, IpAddrWithMask const& addr,
                         uint32_t ifaFlags) {
   nlmsghdr* nlh = startAddrMsg(buf, type, requestFlags(type), AF_INET, addr.len(), ifindex);
   auto bytes = addr.addr().bytes();
   mnl_attr_put(nlh, IFA_LOCAL, bytes.size(), bytes.data());
   mnl_attr_put(nlh, IFA_ADDRESS, bytes.size(), bytes.data());
   if (ifaFlags != 0) mnl_attr_put_u32(nlh, IFA_FLAGS, ifaFlags);
   return nlh;
}

nlmsghdr* buildIp6AddrMsg(NetlinkBuf& buf, uint16_t type, int ifindex, Ip6AddrWithMask const& addr,
                          uint32_t ifaFlags) {
   nlmsghdr* nlh = startAddrMsg(buf, type, requestFlags(type), AF_INET6, addr.len(), ifindex);
   mnl_attr_put(nlh, IFA_ADDRESS, 16, addr.addr().bytes().data());
   if (ifaFlags != 0) mnl_attr_put_u32(nlh, IFA_FLAGS, ifaFlags);
   return nlh;
}

int ipAddrAdd(int sock, int ifindex, IpAddrWithMask const& addr, uint32_t ifaFlags) {
   NetlinkBuf buf;
   return addrResult(RTM_NEWADDR, netlinkRequest(sock, buildIpAddrMsg(buf, RTM_NEWADDR, ifindex,
                                                                      addr, ifaFlags)));
}

void ipAddrAddAll(int sock, std::vector<IpAddrAdd> const& adds, std::vector<int>* results) {
   std::vector<NetlinkBuf> requests(adds.size());
   for (size_t i = 0; i < adds.size(); ++i)
      buildIpAddrMsg(requests[i], RTM_NEWADDR, adds[i].ifindex, adds[i].addr, adds[i].ifaFlags);
   netlinkRequestAll(sock, requests, results);
   for (int& rc : *results)
      rc = addrResult(RTM_NEWADDR, rc);
}

int ipAddrDel(int sock, int ifindex, IpAddrWithMask const& addr) {
   NetlinkBuf buf;
   return addrResult(RTM_DELADDR,
                     netlinkRequest(sock, buildIpAddrMsg(buf, RTM_DELADDR, ifindex, addr)));
}

int ip6AddrAdd(int sock, int ifindex, Ip6AddrWithMask const& addr, uint32_t ifaFlags) {
   NetlinkBuf buf;
   return addrResult(RTM_NEWADDR, netlinkRequest(sock, buildIp6AddrMsg(buf, RTM_NEWADDR, ifindex,
                                                                       addr, ifaFlags)));
}

int ip6AddrDel(int sock, int ifindex, Ip6AddrWithMask const& addr) {
   NetlinkBuf buf;
   return addrResult(RTM_DELADDR,
                     netlinkRequest(sock, buildIp6AddrMsg(buf, RTM_DELADDR, ifindex, addr)));
}

int ipAddrFlush(int sock, int ifindex, std::string const& devName, std::string const& ns) {
   MOX_TRACE_FN(traceAddr,
                "sd " << sock << " ifindex " << ifindex << " devName " << devName << " ns " << ns);
   NamespaceName nsName(ns);
   if (int rc = checkDeviceName(devName)) return rc;
   if (!nsName.isDefault()) {
      if (int rc = checkNamespaceName(nsName.name())) return rc;
   }
   // With promotion off, deleting a primary takes its secondaries with it instead of
   // promoting one of them (and re-adding its routes) once per delete.
   std::string promote = std::string(V4_PROC_CONF) + "/" + devName + "/promote_secondaries";
   if (int rc = writeProcSysInNetNs(promote, "0", nsName)) return rc;

   // A delete without address attributes removes the device's first address. The kernel
   // answers EADDRNOTAVAIL once none is left; that and EAGAIN end the flush, any other
   // error ends it with that error.
   int rc;
   do {
      NetlinkBuf buf;
      rc = netlinkRequest(sock, startAddrMsg(buf, RTM_DELADDR, kRequestAck, AF_INET, 32, ifindex));
   } while (rc == 0);
   if (rc == EAGAIN || rc == EADDRNOTAVAIL) rc = 0;
   int restored = writeProcSysInNetNs(promote, "1", nsName);
   return rc != 0 ? rc : restored;
}

namespace {

struct AddrDump {
   int ifindex;
   std::vector<AddrInfo>* out;
};

int onAddr(nlmsghdr const* nlh, void* data) {
   auto* dump = static_cast<AddrDump*>(data);
   AddrInfo info;
   if (parseAddrMsg(nlh, &info) && (dump->ifindex == 0 || info.ifindex == dump->ifindex)) {
      dump->out->push_back(info);
   }
   return MNL_CB_OK;
}

}  // namespace

int dumpAddrs(int sock, int family, int ifindex, std::vector<AddrInfo>* out) {
   out->clear();
   NetlinkBuf buf;
   nlmsghdr* nlh = startAddrMsg(buf, RTM_GETADDR, NLM_F_REQUEST | NLM_F_DUMP,
                                static_cast<uint8_t>(family), 0, ifindex);
   AddrDump dump{ifindex, out};
   return netlinkDump(sock, nlh, onAddr, &dump);
}

}  // namespace Konet
