// The Linux layer against the bare minimum the kernel needs, measured in the same run.
//
//   addr4/N, addr6/N      add then delete N addresses, one request at a time with its
//                         acknowledgement, through the layer (ipAddrAdd/Del,
//                         ip6AddrAdd/Del) and through a bare libmnl loop sending the same
//                         requests. N is 10,000, where the kernel's own work per request
//                         grows with the addresses it holds and dominates, and 100, where
//                         the layer's own cost per request is easier to see.
//   setns/ScopedNetNs     enter a named namespace and return, by name
//   setns/rawFds          the same with two descriptors opened beforehand
//   proc/writeProcSysDev  one /proc/sys/net write
//
// The layer and the bare loop take turns inside each iteration (the order alternates) and
// each is timed on its own, by the monotonic clock and by the thread's CPU clock (which
// counts the requests' work in the kernel, done in this thread, but not waiting for other
// processes of a busy machine). Counters: layer_rps and mnl_rps (requests per second, real
// time), ratio_real and ratio_cpu (the layer's rate as a share of the bare loop's).
//
// Everything runs in a private network and mount namespace on a veth pair. The veth stays
// down: on an up device the kernel sends MLD reports for each new address's
// solicited-node group from background workers that contend for the RTNL lock with the
// next requests, which measures the kernel's multicast, not this layer, and makes the
// runs noisy (and ten times longer).
#include <benchmark/benchmark.h>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "linux/NetNs.h"
#include "linux/Netlink.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"
#include "linux/ProcSys.h"

namespace {

using namespace Konet;

constexpr int kMaxAddrs = 10000;

struct World {
   Fd sock;
   int ifindex = 0;
   std::string dev = "bench0a";
   NamespaceName ns{"veldbench"};
   std::vector<IpAddrWithMask> v4;
   std::vector<Ip6AddrWithMask> v6;
   std::map<std::string, std::pair<double, double>> ratios;  // name -> (real, cpu)
};
World world;

std::string makeSandbox() {
   if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0)
      return std::string("unshare: ") + strerror(errno);
   if (::mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0) return "mount / slave";
   if (::mkdir(kNetNsDir, 0755) != 0 && errno != EEXIST) return "mkdir /run/netns";
   if (::mount("veldbench", kNetNsDir, "tmpfs", 0, "mode=0755") != 0) return "tmpfs /run/netns";
   int error = 0;
   world.sock = createNetlinkSocket(NamespaceName(), 0, 2, true, 0, &error);
   if (!world.sock) return "netlink socket: " + std::string(strerror(error));
   if (createVethPair(world.sock.get(), world.dev, "bench0b") != 0 ||
       linkIndex(world.sock.get(), world.dev, &world.ifindex) != 0) {
      return "veth set-up failed";
   }
   if (createNamedNamespace(world.ns) != 0) return "named namespace";
   for (int i = 0; i < kMaxAddrs; ++i) {
      world.v4.emplace_back(IpAddr(0x0a000000u + static_cast<uint32_t>(i) + 1), 32);
      Ip6Addr::Bytes b{0x20, 0x01, 0x0d, 0xb8, 0, 1};
      b[14] = static_cast<uint8_t>(i >> 8);
      b[15] = static_cast<uint8_t>(i + 1);
      world.v6.emplace_back(Ip6Addr(b), 64);
   }
   return {};
}

// The layer: add all, then delete all. False on any failure.
template <class A>
bool layerAddDel(std::span<A const> addrs) {
   bool ok = true;
   for (auto const& a : addrs) {
      if constexpr (std::is_same_v<A, IpAddrWithMask>) {
         ok &= ipAddrAdd(world.sock.get(), world.ifindex, a) == 0;
      } else {
         ok &= ip6AddrAdd(world.sock.get(), world.ifindex, a) == 0;
      }
   }
   for (auto const& a : addrs) {
      if constexpr (std::is_same_v<A, IpAddrWithMask>) {
         ok &= ipAddrDel(world.sock.get(), world.ifindex, a) == 0;
      } else {
         ok &= ip6AddrDel(world.sock.get(), world.ifindex, a) == 0;
      }
   }
   return ok;
}

// The bare loop: the same requests, built and acknowledged with libmnl and nothing else.
class Bare {
public:
   Bare() {
      nl_ = mnl_socket_open(NETLINK_ROUTE);
      if (nl_ && mnl_socket_bind(nl_, 0, MNL_SOCKET_AUTOPID) == 0) {
         portid_ = mnl_socket_get_portid(nl_);
      }
   }
   ~Bare() {
      if (nl_) mnl_socket_close(nl_);
   }
   Bare(Bare const&) = delete;
   Bare& operator=(Bare const&) = delete;

   template <class A>
   bool addDel(std::span<A const> addrs) {
      bool ok = true;
      for (uint16_t type : {RTM_NEWADDR, RTM_DELADDR}) {
         for (auto const& a : addrs) {
            if constexpr (std::is_same_v<A, IpAddrWithMask>) {
               auto b = a.addr().bytes();
               ok &= request(type, AF_INET, a.len(), b.data(), 4) == 0;
            } else {
               ok &= request(type, AF_INET6, a.len(), a.addr().bytes().data(), 16) == 0;
            }
         }
      }
      return ok;
   }

private:
   int request(uint16_t type, uint8_t family, uint8_t prefixLen, uint8_t const* addr,
               size_t addrLen) {
      alignas(nlmsghdr) char buf[8192];
      nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
      nlh->nlmsg_type = type;
      nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
      if (type == RTM_NEWADDR) nlh->nlmsg_flags |= NLM_F_CREATE | NLM_F_EXCL;
      nlh->nlmsg_seq = ++seq_;
      auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
      ifa->ifa_family = family;
      ifa->ifa_prefixlen = prefixLen;
      ifa->ifa_index = static_cast<unsigned>(world.ifindex);
      if (family == AF_INET) mnl_attr_put(nlh, IFA_LOCAL, addrLen, addr);
      mnl_attr_put(nlh, IFA_ADDRESS, addrLen, addr);
      if (mnl_socket_sendto(nl_, nlh, nlh->nlmsg_len) < 0) return errno;
      ssize_t n = mnl_socket_recvfrom(nl_, buf, sizeof buf);
      if (n < 0) return errno;
      return mnl_cb_run(buf, static_cast<size_t>(n), seq_, portid_, nullptr, nullptr) < 0 ? errno
                                                                                          : 0;
   }

   mnl_socket* nl_ = nullptr;
   unsigned portid_ = 0;
   unsigned seq_ = 1;
};

double seconds(clockid_t clock) {
   timespec ts;
   clock_gettime(clock, &ts);
   return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

struct Meter {
   double real = 0;
   double cpu = 0;
   template <class F>
   bool run(F&& f) {
      double r0 = seconds(CLOCK_MONOTONIC), c0 = seconds(CLOCK_THREAD_CPUTIME_ID);
      bool ok = f();
      real += seconds(CLOCK_MONOTONIC) - r0;
      cpu += seconds(CLOCK_THREAD_CPUTIME_ID) - c0;
      return ok;
   }
};

template <class A>
void addrPair(benchmark::State& state, char const* name, std::vector<A> const& all) {
   auto addrs = std::span<A const>(all).first(static_cast<size_t>(state.range(0)));
   Bare bare;
   Meter layer, mnl;
   bool ok = true;
   bool layerFirst = true;
   for (auto _ : state) {
      auto runLayer = [&] { ok &= layer.run([&] { return layerAddDel(addrs); }); };
      auto runMnl = [&] { ok &= mnl.run([&] { return bare.addDel(addrs); }); };
      if (layerFirst) {
         runLayer();
         runMnl();
      } else {
         runMnl();
         runLayer();
      }
      layerFirst = !layerFirst;
   }
   if (!ok) state.SkipWithError("a request failed");
   double requests = 2.0 * static_cast<double>(addrs.size() * state.iterations());
   state.counters["layer_rps"] = requests / layer.real;
   state.counters["mnl_rps"] = requests / mnl.real;
   state.counters["ratio_real"] = mnl.real / layer.real;
   state.counters["ratio_cpu"] = mnl.cpu / layer.cpu;
   world.ratios[name + ("/" + std::to_string(state.range(0)))] = {mnl.real / layer.real,
                                                                  mnl.cpu / layer.cpu};
}

void addr4(benchmark::State& state) { addrPair(state, "addr4", world.v4); }
void addr6(benchmark::State& state) { addrPair(state, "addr6", world.v6); }

void setnsScoped(benchmark::State& state) {
   for (auto _ : state) {
      ScopedNetNs inNs(world.ns);
      if (!inNs.ok()) state.SkipWithError("setns");
   }
}

void setnsRawFds(benchmark::State& state) {
   Fd home = getns();
   Fd there;
   openNamedNamespace(world.ns, &there);
   for (auto _ : state) {
      if (::setns(there.get(), CLONE_NEWNET) != 0 || ::setns(home.get(), CLONE_NEWNET) != 0) {
         state.SkipWithError("setns");
      }
   }
}

void procWrite(benchmark::State& state) {
   bool on = false;
   for (auto _ : state) {
      on = !on;
      if (writeProcSysDev(V4_PROC_CONF, world.dev, "forwarding", on ? "1" : "0") != 0) {
         state.SkipWithError("write");
      }
   }
}

}  // namespace

int main(int argc, char** argv) {
   benchmark::Initialize(&argc, argv);
   if (std::string problem = makeSandbox(); !problem.empty()) {
      std::printf("bench_linux skipped: %s (needs root and network namespaces)\n", problem.c_str());
      return 0;
   }
   // Iterations are fixed: each one is a full add-and-delete of N addresses by both loops,
   // and an even count gives each loop the first turn equally often.
   struct Pair {
      char const* name;
      void (*fn)(benchmark::State&);
      int addrs;
      int iterations;
   };
   for (Pair p : {Pair{"addr4", addr4, kMaxAddrs, 4}, Pair{"addr6", addr6, kMaxAddrs, 4},
                  Pair{"addr4", addr4, 100, 400}, Pair{"addr6", addr6, 100, 400}}) {
      benchmark::RegisterBenchmark(p.name, p.fn)
          ->Arg(p.addrs)
          ->Iterations(p.iterations)
          ->Unit(benchmark::kMillisecond);
   }
   benchmark::RegisterBenchmark("setns/ScopedNetNs", setnsScoped);
   benchmark::RegisterBenchmark("setns/rawFds", setnsRawFds);
   benchmark::RegisterBenchmark("proc/writeProcSysDev", procWrite);
   benchmark::RunSpecifiedBenchmarks();
   for (auto const& [name, ratio] : world.ratios) {
      std::printf("ratio %s: layer rate = %.3f x bare libmnl loop (real time), %.3f x (CPU time)\n",
                  name.c_str(), ratio.first, ratio.second);
   }
   benchmark::Shutdown();
   return 0;
}
