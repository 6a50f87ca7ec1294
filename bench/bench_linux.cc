// The Linux layer against the bare minimum the kernel needs, measured in the same run.
//
//   addr4/layer/N, addr6/layer/N  add then delete N addresses through ipAddrAdd/Del,
//                                 ip6AddrAdd/Del (one request at a time, acknowledged)
//   addr4/mnl/N, addr6/mnl/N      the same requests in a bare libmnl loop
// N is 10,000, where the kernel's own cost per request grows with the addresses it holds
// and dominates, and 100, where this layer's per-request cost is easier to see.
//   setns/ScopedNetNs          enter a named namespace and return, by name
//   setns/rawFds               the same with two descriptors opened beforehand
//   proc/writeProcSysDev       one /proc/sys/net write
//
// Everything runs in a private network and mount namespace on a veth pair. The veth stays
// down: on an up device the kernel sends MLD reports for each new address's
// solicited-node group from background workers that contend for the RTNL lock with the
// next requests, which measures the kernel's multicast, not this layer, and makes the
// runs noisy (and ten times longer). The run ends with the layer's rate as a share of the
// bare loop's ("ratio").
#include <benchmark/benchmark.h>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <utility>
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
   int peer = 0;
   if (createVethPair(world.sock.get(), world.dev, "bench0b") != 0 ||
       linkIndex(world.sock.get(), world.dev, &world.ifindex) != 0 ||
       linkIndex(world.sock.get(), "bench0b", &peer) != 0 ||
       setLinkUp(world.sock.get(), peer, true) != 0) {
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

// The first state.range(0) addresses of `all`.
template <class T>
std::span<T const> first(std::vector<T> const& all, benchmark::State const& state) {
   return std::span<T const>(all).first(static_cast<size_t>(state.range(0)));
}

// The layer.

void addr4Layer(benchmark::State& state) {
   for (auto _ : state) {
      for (auto const& a : first(world.v4, state)) {
         if (ipAddrAdd(world.sock.get(), world.ifindex, a) != 0) state.SkipWithError("add");
      }
      for (auto const& a : first(world.v4, state)) {
         if (ipAddrDel(world.sock.get(), world.ifindex, a) != 0) state.SkipWithError("del");
      }
   }
   state.SetItemsProcessed(state.iterations() * 2 * state.range(0));
}

void addr6Layer(benchmark::State& state) {
   for (auto _ : state) {
      for (auto const& a : first(world.v6, state)) {
         if (ip6AddrAdd(world.sock.get(), world.ifindex, a) != 0) state.SkipWithError("add");
      }
      for (auto const& a : first(world.v6, state)) {
         if (ip6AddrDel(world.sock.get(), world.ifindex, a) != 0) state.SkipWithError("del");
      }
   }
   state.SetItemsProcessed(state.iterations() * 2 * state.range(0));
}

// The bare loop: the same requests, built and acknowledged with libmnl and nothing else.

struct Bare {
   mnl_socket* nl = nullptr;
   unsigned portid = 0;
   unsigned seq = 1;
   Bare() {
      nl = mnl_socket_open(NETLINK_ROUTE);
      if (nl && mnl_socket_bind(nl, 0, MNL_SOCKET_AUTOPID) == 0) portid = mnl_socket_get_portid(nl);
   }
   ~Bare() {
      if (nl) mnl_socket_close(nl);
   }

   int request(uint16_t type, uint8_t family, uint8_t prefixLen, uint8_t const* addr, bool v4) {
      alignas(nlmsghdr) char buf[8192];
      nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
      nlh->nlmsg_type = type;
      nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
      if (type == RTM_NEWADDR) nlh->nlmsg_flags |= NLM_F_CREATE | NLM_F_EXCL;
      nlh->nlmsg_seq = ++seq;
      auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
      ifa->ifa_family = family;
      ifa->ifa_prefixlen = prefixLen;
      ifa->ifa_index = static_cast<unsigned>(world.ifindex);
      if (v4) mnl_attr_put(nlh, IFA_LOCAL, 4, addr);
      mnl_attr_put(nlh, IFA_ADDRESS, v4 ? 4 : 16, addr);
      if (mnl_socket_sendto(nl, nlh, nlh->nlmsg_len) < 0) return errno;
      ssize_t n = mnl_socket_recvfrom(nl, buf, sizeof buf);
      if (n < 0) return errno;
      return mnl_cb_run(buf, static_cast<size_t>(n), seq, portid, nullptr, nullptr) < 0 ? errno : 0;
   }
};

void addr4Mnl(benchmark::State& state) {
   Bare bare;
   std::vector<std::array<uint8_t, 4>> bytes;
   for (auto const& a : first(world.v4, state))
      bytes.push_back(a.addr().bytes());
   for (auto _ : state) {
      for (auto const& b : bytes) {
         if (bare.request(RTM_NEWADDR, AF_INET, 32, b.data(), true)) state.SkipWithError("add");
      }
      for (auto const& b : bytes) {
         if (bare.request(RTM_DELADDR, AF_INET, 32, b.data(), true)) state.SkipWithError("del");
      }
   }
   state.SetItemsProcessed(state.iterations() * 2 * state.range(0));
}

void addr6Mnl(benchmark::State& state) {
   Bare bare;
   for (auto _ : state) {
      for (auto const& a : first(world.v6, state)) {
         if (bare.request(RTM_NEWADDR, AF_INET6, 64, a.addr().bytes().data(), false)) {
            state.SkipWithError("add");
         }
      }
      for (auto const& a : first(world.v6, state)) {
         if (bare.request(RTM_DELADDR, AF_INET6, 64, a.addr().bytes().data(), false)) {
            state.SkipWithError("del");
         }
      }
   }
   state.SetItemsProcessed(state.iterations() * 2 * state.range(0));
}

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

// Prints as usual and keeps each benchmark's median time for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
   std::map<std::string, double> median;
   void ReportRuns(std::vector<Run> const& runs) override {
      ConsoleReporter::ReportRuns(runs);
      for (auto const& r : runs) {
         if (r.error_occurred) continue;
         bool single = r.run_type == Run::RT_Iteration && r.repetitions <= 1;
         if (single || (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median")) {
            median[r.run_name.function_name + "/" + r.run_name.args] = r.GetAdjustedRealTime();
         }
      }
   }
};

}  // namespace

int main(int argc, char** argv) {
   // Repetitions of all benchmarks run interleaved, in random order, so that load from
   // elsewhere on the machine falls on the layer and the bare loop alike.
   std::vector<char*> args(argv, argv + argc);
   char interleave[] = "--benchmark_enable_random_interleaving=true";
   args.insert(args.begin() + 1, interleave);
   int count = static_cast<int>(args.size());
   benchmark::Initialize(&count, args.data());
   if (std::string problem = makeSandbox(); !problem.empty()) {
      std::printf("bench_linux skipped: %s (needs root and network namespaces)\n", problem.c_str());
      return 0;
   }
   // Each pair runs in turn; medians are compared.
   using Fn = void (*)(benchmark::State&);
   std::pair<char const*, Fn> const pairs[] = {{"addr4/layer", addr4Layer},
                                               {"addr4/mnl", addr4Mnl},
                                               {"addr6/layer", addr6Layer},
                                               {"addr6/mnl", addr6Mnl}};
   for (int n : {kMaxAddrs, 100}) {
      for (auto [name, fn] : pairs) {
         benchmark::RegisterBenchmark(name, fn)
             ->Arg(n)
             ->Unit(benchmark::kMillisecond)
             ->UseRealTime()
             ->Iterations(n == kMaxAddrs ? 1 : 50)
             ->Repetitions(n == kMaxAddrs ? 3 : 7)
             ->ReportAggregatesOnly(true);
      }
   }
   benchmark::RegisterBenchmark("setns/ScopedNetNs", setnsScoped);
   benchmark::RegisterBenchmark("setns/rawFds", setnsRawFds);
   benchmark::RegisterBenchmark("proc/writeProcSysDev", procWrite);

   RatioReporter reporter;
   benchmark::RunSpecifiedBenchmarks(&reporter);
   for (std::string n : {std::to_string(kMaxAddrs), std::string("100")}) {
      for (std::string family : {"addr4", "addr6"}) {
         auto layer = reporter.median.find(family + "/layer/" + n);
         auto mnl = reporter.median.find(family + "/mnl/" + n);
         if (layer != reporter.median.end() && mnl != reporter.median.end()) {
            std::printf("ratio %s/%s: layer rate = %.3f x bare libmnl loop\n", family.c_str(),
                        n.c_str(), mnl->second / layer->second);
         }
      }
   }
   benchmark::Shutdown();
   return 0;
}
