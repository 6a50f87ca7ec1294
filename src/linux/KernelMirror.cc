#include "linux/KernelMirror.h"

#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <unordered_set>
#include <vector>

#include "linux/Netlink.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"
#include "linux/ProcSys.h"
#include "mox/Clock.h"

namespace Konet {

namespace {

KernelNetInfo::IpKey keyOf(AddrInfo const& a) {
   return KernelNetInfo::IpKey{KernelNetInfo::InterfaceKey{static_cast<uint32_t>(a.ifindex)},
                               a.addr, a.prefixLen};
}

// How often the running state toggled between two observations: at least the toggle we
// see, and as many carrier changes as the kernel counted, with the parity the two states
// imply (a carrier change while the device was down changes nothing).
constexpr int kDumpAttempts = 20;

uint32_t runningToggles(bool toggled, uint32_t carrierDelta) {
   if (toggled) return carrierDelta % 2 ? carrierDelta : carrierDelta + 1;
   return carrierDelta % 2 ? carrierDelta - 1 : carrierDelta;
}

}  // namespace

KernelMirror::KernelMirror(NamespaceName ns, Mox::Ptr<KernelNetInfo::Status> status,
                           int rcvBufBytes)
    : ns_(std::move(ns)),
      status_(status ? std::move(status) : Mox::make<KernelNetInfo::Status>(ns_)),
      rcvBufBytes_(rcvBufBytes) {}

int KernelMirror::start() {
   int err = 0;
   events_ = createNetlinkSocket(ns_, RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR, 0,
                                 false, rcvBufBytes_, &err);
   if (!events_) return err;
   requests_ = createNetlinkSocket(ns_, 0, 2, true, 0, &err);
   if (!requests_) return err;
   return resync();
}

void KernelMirror::applyLink(LinkInfo const& link) {
   auto [it, fresh] = links_.try_emplace(link.ifindex);
   LinkState& s = it->second;
   if (fresh) {
      s.runningStateChanges = link.carrierChanges;
   } else {
      bool toggled = ((s.flags ^ link.flags) & IFF_RUNNING) != 0;
      uint32_t delta = link.carrierChanges >= s.carrierChanges
                           ? link.carrierChanges - s.carrierChanges
                           : 0;  // the device was re-created under the same index
      s.runningStateChanges += runningToggles(toggled, delta);
   }
   s.flags = link.flags;
   s.carrierChanges = link.carrierChanges;

   KernelNetInfo::Interface rec;
   rec.key.ifIndex = static_cast<uint32_t>(link.ifindex);
   rec.deviceName = link.name;
   rec.flags = link.flags;
   rec.runningStateChanges = s.runningStateChanges;
   rec.mtu = link.mtu;
   rec.mac = link.mac;
   static_assert(sizeof(rec.ipv4Conf) == sizeof(link.ipv4Conf));
   rec.ipv4Conf = link.ipv4Conf;
   rec.ipv4ConfCount = link.ipv4ConfCount;
   // Where each kept setting sits in the kernel's array, found once.
   static auto const kIndexOf = [] {
      std::array<int, KernelNetInfo::kIp6ConfFiles.size()> out{};
      for (size_t slot = 0; slot < out.size(); ++slot)
         out[slot] = ipv6DevconfIndex(KernelNetInfo::kIp6ConfFiles[slot]) - 1;
      return out;
   }();
   for (size_t slot = 0; slot < KernelNetInfo::kIp6ConfFiles.size(); ++slot) {
      int index = kIndexOf[slot];
      if (index < 0 || uint32_t(index) >= link.ipv6ConfCount) continue;
      rec.ipv6Conf[slot] = link.ipv6Conf[size_t(index)];
      rec.ipv6ConfKnown |= uint16_t(1u << slot);
   }
   rec.confReportedAt = Mox::System::currentTime();
   status_->interfaceIs(rec);
}

void KernelMirror::applyLinkDel(int ifindex) {
   links_.erase(ifindex);
   KernelNetInfo::InterfaceKey key{static_cast<uint32_t>(ifindex)};
   // The record goes first, so that a watcher of the addresses sees a device that went, not
   // addresses deleted from a device that stays.
   status_->interfaceDel(key);
   // The kernel sends no address deletions for a device that goes: drop them here.
   std::vector<KernelNetInfo::IpKey> gone;
   auto table = status_->ipState();
   for (auto it = table.begin(); it != table.end(); ++it) {
      if (it.key().intfKey == key) gone.push_back(it.key());
   }
   for (auto const& k : gone)
      status_->ipStateDel(k);
}

void KernelMirror::applyAddr(AddrInfo const& addr) {
   status_->ipStateIs(KernelNetInfo::IpState{keyOf(addr), addr.flags, true});
}

void KernelMirror::applyAddrDel(AddrInfo const& addr) { status_->ipStateDel(keyOf(addr)); }

int KernelMirror::resync() {
   ++resyncs_;
   // What is queued is older than the dump that follows, which holds its effect: applied
   // after it, a link message would put back settings changed since (no message tells of a
   // changed /proc file) and pass them for fresh.
   discardQueuedEvents();
   std::vector<LinkInfo> links;
   std::vector<AddrInfo> addrs;
   // A dump that met a change of what it lists is marked inconsistent by the kernel
   // (NLM_F_DUMP_INTR, EINTR here): it is taken again, as many times as a busy kernel needs.
   int err = EINTR;
   for (int attempt = 0; attempt < kDumpAttempts && err == EINTR; ++attempt) {
      links.clear();
      addrs.clear();
      err = dumpLinks(requests_.get(), &links);
      if (err == 0) err = dumpAddrs(requests_.get(), AF_UNSPEC, 0, &addrs);
   }
   if (err) return err;

   std::unordered_set<int> seen;
   for (auto const& l : links) {
      seen.insert(l.ifindex);
      applyLink(l);
   }
   std::vector<int> goneLinks;
   auto intfs = status_->interface();
   for (auto it = intfs.begin(); it != intfs.end(); ++it) {
      if (!seen.count(static_cast<int>(it.key().ifIndex))) goneLinks.push_back(it.key().ifIndex);
   }
   for (int i : goneLinks)
      applyLinkDel(i);

   std::unordered_set<KernelNetInfo::IpKey> seenAddrs;
   for (auto const& a : addrs) {
      seenAddrs.insert(keyOf(a));
      applyAddr(a);
   }
   std::vector<KernelNetInfo::IpKey> goneAddrs;
   auto ips = status_->ipState();
   for (auto it = ips.begin(); it != ips.end(); ++it) {
      if (!seenAddrs.count(it.key())) goneAddrs.push_back(it.key());
   }
   for (auto const& k : goneAddrs)
      status_->ipStateDel(k);
   return 0;
}

namespace {

int onEvent(nlmsghdr const* nlh, void* data) {
   auto* mirror = static_cast<KernelMirror*>(data);
   switch (nlh->nlmsg_type) {
      case RTM_NEWLINK: {
         LinkInfo l;
         if (parseLinkMsg(nlh, &l)) mirror->applyLink(l);
         break;
      }
      case RTM_DELLINK: {
         LinkInfo l;
         if (parseLinkMsg(nlh, &l)) mirror->applyLinkDel(l.ifindex);
         break;
      }
      case RTM_NEWADDR:
      case RTM_DELADDR: {
         AddrInfo a;
         if (!parseAddrMsg(nlh, &a)) break;
         if (nlh->nlmsg_type == RTM_NEWADDR) {
            mirror->applyAddr(a);
         } else {
            mirror->applyAddrDel(a);
         }
         break;
      }
      default:
         break;
   }
   return MNL_CB_OK;
}

}  // namespace

void KernelMirror::applyDatagram(void const* buf, size_t len) {
   ++messages_;
   if (wellFramed(buf, len)) mnl_cb_run(buf, len, 0, 0, onEvent, this);
}

void KernelMirror::discardQueuedEvents() {
   alignas(nlmsghdr) char buf[1 << 16];
   for (;;) {
      ssize_t n = ::recv(events_.get(), buf, sizeof buf, MSG_DONTWAIT);
      if (n == 0 || (n < 0 && errno != EINTR && errno != ENOBUFS)) return;
   }
}

int KernelMirror::processEvents() {
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
   return overflow ? resync() : 0;
}

}  // namespace Konet
