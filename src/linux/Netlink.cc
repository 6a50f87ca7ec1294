#include "linux/Netlink.h"

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "linux/NetNs.h"
#include "linux/NetlinkParse.h"

namespace Konet {
namespace {

// One receive buffer per thread: large enough for any dump datagram the kernel sends
// (it sizes them by what we read, up to 32 KiB).
constexpr size_t kRxBufSize = 32768;
alignas(nlmsghdr) thread_local char rxBuf[kRxBufSize];

int setOpt(int fd, int level, int name, void const* value, socklen_t len) {
   return ::setsockopt(fd, level, name, value, len) == 0 ? 0 : errno;
}

}  // namespace

uint32_t nextNetlinkSeq() {
   static std::atomic<uint32_t> seq{0};
   uint32_t s;
   do {
      s = seq.fetch_add(1, std::memory_order_relaxed) + 1;
   } while (s == 0);
   return s;
}

Fd createNetlinkSocket(NamespaceName const& ns, uint32_t groups, int ackTimeoutSeconds,
                       bool strictChecking, int rcvBufBytes, int* error) {
   int rc = 0;
   Fd fd;
   {
      ScopedNetNs inNs(ns, "createNetlinkSocket");
      rc = inNs.error();
      if (rc == 0) {
         fd.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
         if (!fd) rc = errno;
      }
   }
   int one = 1;
   if (rc == 0) rc = setOpt(fd.get(), SOL_NETLINK, NETLINK_EXT_ACK, &one, sizeof one);
   if (rc == 0) rc = setOpt(fd.get(), SOL_NETLINK, NETLINK_CAP_ACK, &one, sizeof one);
   if (rc == 0 && strictChecking) {
      rc = setOpt(fd.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &one, sizeof one);
   }
   if (rc == 0 && ackTimeoutSeconds > 0) {
      timeval tv{ackTimeoutSeconds, 0};
      rc = setOpt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
   }
   if (rc == 0 && rcvBufBytes > 0) {
      rc = setOpt(fd.get(), SOL_SOCKET, SO_RCVBUF, &rcvBufBytes, sizeof rcvBufBytes);
   }
   if (rc == 0) {
      sockaddr_nl addr{};
      addr.nl_family = AF_NETLINK;
      addr.nl_groups = groups;
      if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) rc = errno;
   }
   if (error) *error = rc;
   if (rc != 0) fd.reset();
   return fd;
}

nlmsghdr* startRequest(NetlinkBuf& buf, uint16_t type, uint16_t flags, size_t extraHeader) {
   std::memset(buf.bytes, 0, MNL_ALIGN(sizeof(nlmsghdr)) + MNL_ALIGN(extraHeader));
   nlmsghdr* nlh = mnl_nlmsg_put_header(buf.bytes);
   nlh->nlmsg_type = type;
   nlh->nlmsg_flags = flags;
   if (extraHeader) mnl_nlmsg_put_extra_header(nlh, extraHeader);
   return nlh;
}

int netlinkRequest(int sock, nlmsghdr* nlh, mnl_cb_t cb, void* data) {
   uint32_t seq = nextNetlinkSeq();
   nlh->nlmsg_seq = seq;
   ssize_t sent;
   do {
      sent = ::send(sock, nlh, nlh->nlmsg_len, 0);
   } while (sent < 0 && errno == EINTR);
   if (sent < 0) return errno;
   if (static_cast<size_t>(sent) != nlh->nlmsg_len) return EIO;

   while (true) {
      ssize_t n = ::recv(sock, rxBuf, kRxBufSize, MSG_TRUNC);
      if (n < 0) {
         if (errno == EINTR) continue;
         return errno == EAGAIN || errno == EWOULDBLOCK ? ETIMEDOUT : errno;
      }
      auto const* first = reinterpret_cast<nlmsghdr const*>(rxBuf);
      bool truncated = static_cast<size_t>(n) > kRxBufSize;
      size_t len = truncated ? kRxBufSize : static_cast<size_t>(n);
      if (truncated) {
         if (len >= sizeof(nlmsghdr) && first->nlmsg_seq == seq) return EMSGSIZE;
         continue;
      }
      if (!wellFramed(rxBuf, len) || !mnl_nlmsg_ok(first, static_cast<int>(len)) ||
          first->nlmsg_seq != seq) {
         continue;
      }
      // Port id 0: the socket only receives what is addressed to it.
      errno = 0;
      int rc = mnl_cb_run(rxBuf, len, seq, 0, cb, data);
      if (rc == MNL_CB_ERROR) return errno ? errno : EPROTO;
      if (rc == MNL_CB_STOP) return 0;
   }
}

void netlinkRequestAll(int sock, std::vector<NetlinkBuf>& requests, std::vector<int>* results) {
   // A datagram's acknowledgements wait in the socket's receive buffer until read: a few
   // dozen fit in any buffer, whatever its size.
   constexpr size_t kPerDatagram = 32;
   results->assign(requests.size(), 0);
   alignas(nlmsghdr) static thread_local char txBuf[kPerDatagram * sizeof(NetlinkBuf)];
   uint32_t seqs[kPerDatagram];
   for (size_t first = 0; first < requests.size(); first += kPerDatagram) {
      size_t count = std::min(kPerDatagram, requests.size() - first);
      size_t len = 0;
      for (size_t i = 0; i < count; ++i) {
         nlmsghdr* nlh = requests[first + i].header();
         nlh->nlmsg_seq = seqs[i] = nextNetlinkSeq();
         std::memcpy(txBuf + len, nlh, nlh->nlmsg_len);
         len += MNL_ALIGN(nlh->nlmsg_len);
      }
      bool answered[kPerDatagram] = {};
      // The exchange failed: whatever is not answered yet failed with it.
      auto fail = [&](int err) {
         for (size_t i = first; i < requests.size(); ++i) {
            if (i >= first + count || !answered[i - first]) (*results)[i] = err;
         }
      };
      ssize_t sent;
      do {
         sent = ::send(sock, txBuf, len, 0);
      } while (sent < 0 && errno == EINTR);
      if (sent < 0) return fail(errno);
      if (static_cast<size_t>(sent) != len) return fail(EIO);
      for (size_t open = count; open;) {
         ssize_t n = ::recv(sock, rxBuf, kRxBufSize, 0);
         if (n < 0) {
            if (errno == EINTR) continue;
            return fail(errno == EAGAIN || errno == EWOULDBLOCK ? ETIMEDOUT : errno);
         }
         if (!wellFramed(rxBuf, static_cast<size_t>(n))) continue;
         int left = static_cast<int>(n);
         for (auto const* nlh = reinterpret_cast<nlmsghdr const*>(rxBuf); mnl_nlmsg_ok(nlh, left);
              nlh = mnl_nlmsg_next(nlh, &left)) {
            if (nlh->nlmsg_type != NLMSG_ERROR || nlh->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) {
               continue;
            }
            auto i = static_cast<size_t>(std::find(seqs, seqs + count, nlh->nlmsg_seq) - seqs);
            if (i == count || answered[i]) continue;  // a late answer to something else
            auto const* err = static_cast<nlmsgerr const*>(mnl_nlmsg_get_payload(nlh));
            (*results)[first + i] = -err->error;
            answered[i] = true;
            --open;
         }
      }
   }
}

}  // namespace Konet
