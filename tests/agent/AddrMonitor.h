// Every address the kernel adds or deletes in a namespace from the monitor's creation on (IPv4,
// or the families of `groups`).
#pragma once

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "linux/Netlink.h"
#include "linux/NetlinkParse.h"

namespace VeldTest {

class AddrMonitor {
public:
   explicit AddrMonitor(Konet::NamespaceName const& ns = Konet::NamespaceName(),
                        uint32_t groups = RTMGRP_IPV4_IFADDR) {
      int err = 0;
      sock_ = Konet::createNetlinkSocket(ns, groups, 0, false, 1 << 20, &err);
      EXPECT_TRUE(sock_) << err;
   }
   // The events received so far: "+10.0.0.1/24" or "-10.0.0.1/24".
   std::vector<std::string> const& events() {
      char buf[65536];
      ssize_t n;
      while ((n = ::recv(sock_.get(), buf, sizeof buf, MSG_DONTWAIT)) > 0) {
         for (auto* h = reinterpret_cast<nlmsghdr*>(buf); NLMSG_OK(h, n); h = NLMSG_NEXT(h, n)) {
            Konet::AddrInfo a;
            if (!Konet::parseAddrMsg(h, &a)) continue;
            events_.push_back((h->nlmsg_type == RTM_NEWADDR ? "+" : "-") + a.addr.toString() + "/" +
                              std::to_string(a.prefixLen));
         }
      }
      return events_;
   }

private:
   Konet::Fd sock_;
   std::vector<std::string> events_;
};

}  // namespace VeldTest
