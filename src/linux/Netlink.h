// rtnetlink sockets and the request/acknowledgement exchange every helper here uses.
//
// A socket is a plain NETLINK_ROUTE descriptor. Requests go one at a time: send, then read
// until the kernel's acknowledgement (or the end of a dump) with the request's sequence
// number. Datagrams with another sequence number are not ours (multicast notifications,
// the tail of an earlier request that timed out) and are skipped.
//
// Functions return 0 or a positive errno. A missing acknowledgement (the socket's receive
// timeout passed) is ETIMEDOUT.
#pragma once

#include <libmnl/libmnl.h>
#include <linux/netlink.h>

#include <cstdint>
#include <vector>

#include "konet/NamespaceName.h"
#include "linux/Fd.h"

namespace Konet {

// Opens a NETLINK_ROUTE socket inside namespace `ns` (the default name: the caller's own)
// and returns with the thread back where it was; the socket stays in `ns`.
//   groups             RTMGRP_* multicast groups to join (0: requests only).
//   ackTimeoutSeconds  how long a request waits for its acknowledgement before it fails
//                      with ETIMEDOUT (0: wait forever).
//   strictChecking     the kernel validates requests strictly and filters dumps itself
//                      (NETLINK_GET_STRICT_CHK), e.g. an address dump by ifindex.
//   rcvBufBytes        receive buffer size (0: the kernel's default); worth raising for a
//                      socket that listens to groups.
// Extended acknowledgements are always asked for and requests are not echoed in them.
// The agent's request socket: createNetlinkSocket(ns, 0, 2, true, 0).
// Returns an invalid Fd on failure, with the errno in *error when given.
Fd createNetlinkSocket(NamespaceName const& ns, uint32_t groups, int ackTimeoutSeconds,
                       bool strictChecking, int rcvBufBytes, int* error = nullptr);

// A fresh sequence number (never 0).
uint32_t nextNetlinkSeq();

// Sends the request in `nlh` (its sequence number is set here) and reads the answer.
// Messages other than the acknowledgement go to `cb` (may be null); a request that wants
// an answer besides the acknowledgement (a get) sets NLM_F_ACK too. Answers are read into
// one 32 KiB buffer per thread: `cb` must not issue requests itself.
int netlinkRequest(int sock, nlmsghdr* nlh, mnl_cb_t cb = nullptr, void* data = nullptr);
// Like netlinkRequest for a dump (NLM_F_DUMP): every message goes to `cb` until the end.
inline int netlinkDump(int sock, nlmsghdr* nlh, mnl_cb_t cb, void* data) {
   return netlinkRequest(sock, nlh, cb, data);
}

// Room for any request built here, aligned for nlmsghdr.
struct NetlinkBuf {
   nlmsghdr* header() { return reinterpret_cast<nlmsghdr*>(bytes); }
   alignas(nlmsghdr) char bytes[512];
};

// Starts a request in `buf`: header with type and flags, then a zeroed family header of
// `extraHeader` bytes. Returns the header; the family header follows it.
nlmsghdr* startRequest(NetlinkBuf& buf, uint16_t type, uint16_t flags, size_t extraHeader);

// Sends every request of `requests` (built with startRequest, each with NLM_F_ACK; sequence
// numbers are set here), several to a datagram, and reads their acknowledgements, matched
// by sequence number: (*results)[i] is 0 or the errno of requests[i]. The kernel takes a
// datagram's requests one after the other, each as if it came alone: a failed one does not
// stop the next, and the order is kept. A failure of the exchange itself (send, receive,
// timeout) is the result of every request not answered yet. About twice the rate of one
// request per round trip.
void netlinkRequestAll(int sock, std::vector<NetlinkBuf>& requests, std::vector<int>* results);

}  // namespace Konet
