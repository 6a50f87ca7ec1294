// The kernel mirror of one network namespace: keeps a KernelNetInfo::Status (its interface
// and IP state tables) in step with the kernel, from a dump at start and the kernel's link
// and address notifications after it.
//
// The running-state change count of an interface advances whenever IFF_RUNNING toggles,
// flaps between two observations included: the kernel's own carrier change count
// (IFLA_CARRIER_CHANGES) tells how often the carrier went and came meanwhile. A notification
// overflow (ENOBUFS: the kernel dropped some) triggers a full resync, so the mirror never
// stays wrong.
//
// Single-threaded: the owner's event loop calls processEvents() when fd() is readable.
#pragma once

#include <cstdint>
#include <unordered_map>

#include "konet/NamespaceName.h"
#include "linux/Fd.h"
#include "linux/NetlinkParse.h"
#include "platform/KernelNetInfo.h"

namespace Konet {

class KernelMirror {
public:
   // Mirrors namespace `ns` into `status` (a new one when null).
   explicit KernelMirror(NamespaceName ns, Mox::Ptr<KernelNetInfo::Status> status = nullptr,
                         int rcvBufBytes = 4 << 20);
   KernelMirror(KernelMirror const&) = delete;
   KernelMirror& operator=(KernelMirror const&) = delete;

   // Opens the sockets in the namespace and loads the kernel's state. 0 or an errno.
   int start();
   // The notification socket, for the event loop.
   int fd() const { return events_.get(); }
   // Applies every pending notification; resyncs after an overflow. 0 or an errno.
   int processEvents();
   // Reloads everything from the kernel and drops what the kernel no longer has.
   int resync();

   Mox::Ptr<KernelNetInfo::Status> const& status() const { return status_; }
   NamespaceName const& ns() const { return ns_; }
   uint64_t resyncs() const { return resyncs_; }
   uint64_t overflows() const { return overflows_; }
   uint64_t messages() const { return messages_; }

   // Applies the link and address messages of one datagram from the notification socket;
   // what is malformed is skipped.
   void applyDatagram(void const* buf, size_t len);
   void applyLink(LinkInfo const& link);
   void applyLinkDel(int ifindex);
   void applyAddr(AddrInfo const& addr);
   void applyAddrDel(AddrInfo const& addr);

private:
   void discardQueuedEvents();
   struct LinkState {
      uint32_t flags = 0;
      uint32_t carrierChanges = 0;
      uint32_t runningStateChanges = 0;
   };
   NamespaceName ns_;
   Mox::Ptr<KernelNetInfo::Status> status_;
   int rcvBufBytes_;
   Fd events_;
   Fd requests_;
   std::unordered_map<int, LinkState> links_;
   uint64_t resyncs_ = 0;
   uint64_t overflows_ = 0;
   uint64_t messages_ = 0;
};

}  // namespace Konet
