// Converging routed interfaces' IPv6 addresses from configuration to kernel and status,
// against a bare libmnl loop adding the same addresses.
//
//   converge/ours       1,000 routed interfaces with 4 global IPv6 addresses each, plus their
//                       link-local addresses, on veth devices: from the IPv6 machine's
//                       creation, its configuration in place, to every address in the kernel
//                       and in the published status, run by an event loop like the agent's
//   converge/baseline   the same 5,000 addresses added one request at a time with its
//                       acknowledgement, by a bare libmnl loop
//
// Counters: max_run_s (the longest backlog run), max_busy_s (the longest the event loop was
// busy in one go), runs. DAD is off, as the configuration asks, so that neither side waits
// for it. Everything runs in a private network and mount namespace.
#include <benchmark/benchmark.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>

#include "BenchLoop.h"
#include "BenchMain.h"
#include "linux/KernelMirror.h"
#include "linux/NetNs.h"
#include "linux/Netlink.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"
#include "linux/ProcSys.h"
#include "platform/NetNsIntfStatusManagerRoot.h"
#include "veld/addr/AddrMappingSm.h"
#include "veld/ipv6/Ip6IntfSm.h"
#include "veld/redundancy/WarpState.h"

namespace {

using Konet::IntfId;
using Konet::Ip6AddrWithMask;
using Mox::make;

constexpr int kIntfs = 1000;

// The interfaces, their devices and their configuration, made once.
struct World {
   std::string problem;
   Konet::Fd sock;
   std::vector<int> ifindex;
   std::vector<std::string> dev;
   std::unique_ptr<Konet::KernelMirror> mirror;
   Mox::Ptr<Ip6::Config> ip6Config = make<Ip6::Config>();
   Mox::Ptr<L3::Intf::ConfigDir> l3Config = make<L3::Intf::ConfigDir>();
   Mox::Ptr<Veld::VrfIp6IntfConfig> view = make<Veld::VrfIp6IntfConfig>(L3::VrfName("default"));
   Mox::Ptr<Interface::AllIntfStatusDir> allIntfStatus = make<Interface::AllIntfStatusDir>();
   Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> managerRoot;
   Mox::Ptr<Interface::KniIntfStatusManager> manager;
   std::vector<Ip6AddrWithMask> globals;  // 4 per interface, in interface order
   std::vector<Ip6AddrWithMask> linkLocals;

   static Ip6AddrWithMask addr(int intf, int host) {
      Konet::Ip6Addr::Bytes b{0x20, 0x01, 0x0d, 0xb8, uint8_t(intf >> 8), uint8_t(intf)};
      b[15] = uint8_t(host);
      return Ip6AddrWithMask(Konet::Ip6Addr(b), 64);
   }

   World() {
      if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
         problem = std::string("unshare: ") + strerror(errno);
         return;
      }
      ::mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr);
      for (auto const* conf : {"all", "default"})
         Konet::writeProcSys(std::string("/proc/sys/net/ipv6/conf/") + conf + "/accept_dad", "0");
      int err = 0;
      sock = Konet::createNetlinkSocket("default", 0, 5, true, 0, &err);
      for (int i = 0; i < kIntfs; ++i) {
         std::string a = "vb" + std::to_string(i) + "a", b = "vb" + std::to_string(i) + "b";
         int ia = 0, ib = 0;
         if (Konet::createVethPair(sock.get(), a, b) || Konet::linkIndex(sock.get(), a, &ia) ||
             Konet::linkIndex(sock.get(), b, &ib) || Konet::setLinkUp(sock.get(), ib, true) ||
             Konet::setLinkUp(sock.get(), ia, true)) {
            problem = "veth set-up failed";
            return;
         }
         ifindex.push_back(ia);
         dev.push_back(a);
         IntfId id("Ethernet" + std::to_string(i + 1));
         auto status = allIntfStatus->intfStatusIs(id);
         status->deviceNameIs(a);
         status->forwardingModelIs(Interface::IntfForwardingModel::intfForwardingModelRouted);
         auto l3 = l3Config->intfConfigIs(id);
         l3->vrfIs("default");
         auto c = ip6Config->intfIs(id);
         c->l3ConfigIs(l3);
         c->acceptDadIs(Ip6::AcceptDadMode::dadDisabled);
         for (int h = 1; h <= 4; ++h) {
            c->addrIs(addr(i, h));
            globals.push_back(addr(i, h));
         }
         c->enableIs(true);
         view->ipIntfConfigIs(c);
      }
      managerRoot = make<Interface::NetNsIntfStatusManagerRoot>(allIntfStatus, nullptr, false);
      manager = managerRoot->intfStatusManagerIs("default");
      mirror = std::make_unique<Konet::KernelMirror>("default");
      if (mirror->start()) problem = "kernel mirror";
      // Wait for every device to report carrier, then publish its EUI-64.
      for (int tries = 0; tries < 2000; ++tries) {
         mirror->processEvents();
         int running = 0;
         for (int i : ifindex) {
            running +=
                mirror->status()->interface(KernelNetInfo::InterfaceKey{uint32_t(i)}).running();
         }
         if (running == kIntfs) break;
         ::usleep(5000);
      }
      for (int i = 0; i < kIntfs; ++i) {
         auto m =
             mirror->status()->interface(KernelNetInfo::InterfaceKey{uint32_t(ifindex[i])}).mac;
         auto status = allIntfStatus->intfStatus(IntfId("Ethernet" + std::to_string(i + 1)));
         status->eui64Is({m[0], m[1], m[2], 0xff, 0xfe, m[3], m[4], m[5]});
         linkLocals.push_back(Veld::ip6LinkLocal(status, nullptr));
      }
   }

   void removeAddrs() {
      for (int i = 0; i < kIntfs; ++i) {
         for (int h = 1; h <= 4; ++h)
            Konet::ip6AddrDel(sock.get(), ifindex[i], addr(i, h));
      }
      mirror->processEvents();
      mirror->resync();  // as the agent's mirror at its start
   }
};

World& world() {
   static World w;
   return w;
}

// One VRF's IPv6 machine and what it needs, made for each run.
struct Machine {
   Konet::Fd sock = Konet::createNetlinkSocket("default", 0, 5, true, 0);
   Mox::Ptr<Veld::AddrMap> addrMap = make<Veld::AddrMap>(world().mirror->status());
   Mox::Ptr<Veld::AddrMappingSm> seed = Veld::AddrMappingSmIs(world().mirror->status(), addrMap);
   Mox::Ptr<Ip6::Input::Status> status = make<Ip6::Input::Status>("veld");
   Mox::Ptr<Bolt::TimerWheel> wheel = make<Bolt::TimerWheel>();
   Mox::Ptr<Routing6::InfoConfig> routing = make<Routing6::InfoConfig>();
   Mox::Ptr<Veld::Ip6IntfSm> sm;
   BenchLoop loop;

   Machine() {
      routing->routingIs(true);
      auto& w = world();
      sm = make<Veld::Ip6IntfSm>(
          Veld::Ip6IntfSm::Inputs{.ip6Config = w.ip6Config,
                                  .vrfIp6IntfConfig = w.view,
                                  .addrMap = addrMap,
                                  .kernelIntfDir = w.manager->deviceIntfStatusDir(),
                                  .routingInfoConfig = routing,
                                  .systemIntfIp6Status = status,
                                  .localIntfIp6Status = make<Ip6::Input::Status>("local"),
                                  .systemL3IntfStatus = make<L3::Intf::Input::StatusDir>("veld"),
                                  .localL3IntfStatus = make<L3::Intf::Input::StatusDir>("local"),
                                  .multicastGroups = make<Ip6::MulticastGroupsForApplications>(),
                                  .netlinkSocket = sock.get(),
                                  .allIntfStatusDir = w.allIntfStatus,
                                  .kniIntfStatusManager = w.manager,
                                  .vrfName = L3::VrfName("default"),
                                  .warpState = make<Veld::WarpState>("w"),
                                  .timerWheel = wheel,
                                  .ownAddrs = make<Veld::Ip6OwnAddrs>()},
          false);
   }

   void turn() {
      loop.turn(*world().mirror, [&] { return sm->ip6IntfKernelUpdateCodefListProcessed(); });
   }

   bool converged() const {
      if (sm->ip6IntfKernelUpdateCodefListSize()) return false;
      size_t n = 0;
      for (auto const& [id, s] : status->ip6IntfStatusIterator()) {
         if (s->addrIterator().size() != 5) return false;
         ++n;
      }
      return n == size_t(kIntfs);
   }
};

void Converge_ours(benchmark::State& state) {
   auto& w = world();
   if (!w.problem.empty()) return state.SkipWithError(w.problem.c_str());
   double maxBusy = 0, maxRun = 0;
   uint64_t runs = 0;
   for (auto _ : state) {
      state.PauseTiming();
      w.removeAddrs();
      state.ResumeTiming();
      Machine m;
      while (!m.converged())
         m.turn();
      state.PauseTiming();
      maxBusy = std::max(maxBusy, m.loop.maxBusy);
      maxRun = std::max(maxRun, m.loop.maxRun);
      runs = m.sm->ip6IntfKernelUpdateCodefListProcessed();
      m.sm = nullptr;
      state.ResumeTiming();
   }
   state.counters["max_busy_s"] = maxBusy;
   state.counters["max_run_s"] = maxRun;
   state.counters["runs"] = double(runs);
}
BENCHMARK(Converge_ours)->Name("converge/ours")->Unit(benchmark::kMillisecond)->Iterations(3);

// The bare minimum: one RTM_NEWADDR per address, each acknowledged, straight through libmnl
// (the link-local ones are there already: the kernel answers EEXIST, as it does to the agent).
void Converge_baseline(benchmark::State& state) {
   auto& w = world();
   if (!w.problem.empty()) return state.SkipWithError(w.problem.c_str());
   mnl_socket* nl = mnl_socket_open(NETLINK_ROUTE);
   mnl_socket_bind(nl, 0, MNL_SOCKET_AUTOPID);
   uint32_t portid = mnl_socket_get_portid(nl);
   alignas(nlmsghdr) char buf[MNL_SOCKET_BUFFER_SIZE];
   uint32_t seq = 1;
   auto add = [&](int ifindex, Ip6AddrWithMask const& a) {
      nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
      nlh->nlmsg_type = RTM_NEWADDR;
      nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL;
      nlh->nlmsg_seq = ++seq;
      auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
      ifa->ifa_family = AF_INET6;
      ifa->ifa_prefixlen = a.len();
      ifa->ifa_index = uint32_t(ifindex);
      mnl_attr_put(nlh, IFA_ADDRESS, 16, a.addr().bytes().data());
      mnl_socket_sendto(nl, nlh, nlh->nlmsg_len);
      int n = int(mnl_socket_recvfrom(nl, buf, sizeof buf));
      mnl_cb_run(buf, size_t(n), seq, portid, nullptr, nullptr);
   };
   for (auto _ : state) {
      state.PauseTiming();
      w.removeAddrs();
      state.ResumeTiming();
      for (int i = 0; i < kIntfs; ++i) {
         add(w.ifindex[i], w.linkLocals[i]);
         for (int h = 0; h < 4; ++h)
            add(w.ifindex[i], w.globals[size_t(i) * 4 + size_t(h)]);
      }
   }
   mnl_socket_close(nl);
}
BENCHMARK(Converge_baseline)
    ->Name("converge/baseline")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

}  // namespace

int main(int argc, char** argv) { return benchMain(argc, argv); }
