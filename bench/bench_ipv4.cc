// Converging routed interfaces from configuration to kernel and status, against a bare
// libmnl loop adding the same addresses; and the steady state: one change among many.
//
//   converge/ours       1,000 routed interfaces with 4 addresses each (a primary, three
//                       secondaries) on veth devices: from the IPv4 machine's creation, its
//                       configuration in place, to every address in the kernel and in the
//                       published status, run by an event loop like the agent's
//   converge/baseline   the same 4,000 addresses added one request at a time with its
//                       acknowledgement, by a bare libmnl loop
//   converge/kernel_work  exactly the kernel work the machine does, replayed by a bare loop:
//                       the same /proc reads and writes and the same batches of address adds,
//                       recorded from one run of the machine; what converge/ours takes beyond
//                       it is the framework's own; max_op_s is its longest single piece (a
//                       write, a read or a batch of adds), which no backlog run can cut short
//   steady              one secondary added to one interface of the 1,000: from the
//                       configuration write to the kernel holding it
//
// Counters: max_run_s (the longest backlog run), max_busy_s (the longest the event loop was
// busy in one go), runs. Everything runs in a private network and mount namespace. Before
// each run the devices lose their addresses and get the kernel's defaults back in /proc, so
// that every run is a first start.
#include <benchmark/benchmark.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <dirent.h>
#include <chrono>
#include <cstring>
#include <map>

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
#include "veld/config/VrfIpIntfConfig.h"
#include "veld/ipv4/IpIntfSm.h"
#include "veld/redundancy/WarpState.h"

namespace {

using Konet::IntfId;
using Konet::IpAddrWithMask;
using Mox::make;

int const kIntfs = benchIntfs(1000);  // BENCH_INTFS=4096 for more

double now() { return Mox::System::currentTime(); }

// The interfaces, their devices and their configuration, made once.
struct World {
   std::string problem;
   Konet::Fd sock;
   std::vector<int> ifindex;
   std::vector<std::string> dev;
   std::unique_ptr<Konet::KernelMirror> mirror;
   Mox::Ptr<Ip::Config> ipConfig = make<Ip::Config>();
   Mox::Ptr<L3::Intf::ConfigDir> l3Config = make<L3::Intf::ConfigDir>();
   Mox::Ptr<Veld::VrfIpIntfConfig> view = make<Veld::VrfIpIntfConfig>(L3::VrfName("default"));
   Mox::Ptr<Interface::AllIntfStatusDir> allIntfStatus = make<Interface::AllIntfStatusDir>();
   Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> managerRoot;
   Mox::Ptr<Interface::KniIntfStatusManager> manager;
   std::vector<IpAddrWithMask> addrs;  // 4 per interface, in interface order

   static IpAddrWithMask addr(int intf, int host) {
      return IpAddrWithMask(Konet::IpAddr(0x0a000000u | (uint32_t(intf) << 8) | uint32_t(host)),
                            24);
   }

   World() {
      if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
         problem = std::string("unshare: ") + strerror(errno);
         return;
      }
      ::mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr);
      benchIpv6Off();
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
         auto c = ipConfig->ipIntfConfigIs(id);
         c->l3ConfigIs(l3);
         c->addrWithMaskIs(addr(i, 1));
         for (int h = 2; h <= 4; ++h)
            c->secondaryWithMaskIs(addr(i, h));
         view->ipIntfConfigIs(c);
         for (int h = 1; h <= 4; ++h)
            addrs.push_back(addr(i, h));
      }
      managerRoot = make<Interface::NetNsIntfStatusManagerRoot>(allIntfStatus, nullptr, false);
      manager = managerRoot->intfStatusManagerIs("default");
      mirror = std::make_unique<Konet::KernelMirror>("default");
      if (mirror->start()) problem = "kernel mirror";
      // Wait for every device to report carrier.
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
   }

   void removeAddrs() {
      for (int i = 0; i < kIntfs; ++i)
         Konet::ipAddrFlush(sock.get(), ifindex[i], dev[i], "default");
      mirror->processEvents();
   }

   // The kernel's own values of the files a run may write: the namespace's IPv4 knobs, "all",
   // and those of a device (every device starts alike).
   std::map<std::string, std::string> defaults;  // path (device files: under "DEV") -> value
   static constexpr char kConf[] = "/proc/sys/net/ipv4/conf/";

   void snapshot(std::string const& dir, std::string const& as) {
      DIR* d = ::opendir(dir.c_str());
      if (!d) return;
      while (dirent* e = ::readdir(d)) {
         std::string value;
         if (e->d_type == DT_REG && Konet::readProcSys(dir + e->d_name, &value) == 0)
            defaults[as + e->d_name] = value;
      }
      ::closedir(d);
   }
   void snapshotDefaults() {
      snapshot("/proc/sys/net/ipv4/", "/proc/sys/net/ipv4/");
      snapshot(std::string(kConf) + "all/", std::string(kConf) + "all/");
      snapshot(std::string(kConf) + dev[0] + "/", "DEV/");
   }
   // Puts back every value that differs from the kernel's default.
   void resetProcs() {
      auto put = [](std::string const& path, std::string const& value) {
         std::string held;
         if (Konet::readProcSys(path, &held) == 0 && held != value)
            Konet::writeProcSys(path, value);
      };
      for (auto const& [path, value] : defaults) {
         if (path.compare(0, 4, "DEV/") != 0) {
            put(path, value);
            continue;
         }
         for (auto const& d : dev)
            put(kConf + d + "/" + path.substr(4), value);
      }
      mirror->processEvents();
   }
   // Each run starts as the first start after boot does, with the agent's mirror just dumped.
   void reset() {
      if (defaults.empty()) snapshotDefaults();
      removeAddrs();
      resetProcs();
      mirror->resync();
   }
};

World& world() {
   static World w;
   return w;
}

// One piece of the machine's kernel work, as converge/kernel_work replays it.
struct KernelOp {
   enum Kind { read, write, addAll } kind;
   std::string path, value;
   std::vector<Konet::IpAddrAdd> adds;
};

// Where the machine's kernel time goes; and, while `ops` is set, what it asks of the kernel.
struct TimingIo : Veld::KernelIoDecorator {
   TimingIo() : KernelIoDecorator(Veld::KernelIo::current()) {}
   double proc = 0, addr = 0, ns = 0;
   int procN = 0, addrN = 0;
   std::vector<KernelOp>* ops = nullptr;
   int writeProcSys(std::string_view p, std::string_view v) override {
      if (ops) ops->push_back({KernelOp::write, std::string(p), std::string(v), {}});
      double t = now();
      int r = inner_.writeProcSys(p, v);
      proc += now() - t;
      ++procN;
      return r;
   }
   int readProcSys(std::string_view p, std::string* v) override {
      if (ops) ops->push_back({KernelOp::read, std::string(p), {}, {}});
      return inner_.readProcSys(p, v);
   }
   void ipAddrAddAll(int s, std::vector<Konet::IpAddrAdd> const& adds,
                     std::vector<int>* results) override {
      if (ops) ops->push_back({KernelOp::addAll, {}, {}, adds});
      double t = now();
      inner_.ipAddrAddAll(s, adds, results);
      addr += now() - t;
      addrN += int(adds.size());
   }
};
TimingIo* timing() {
   static TimingIo* t = [] {
      auto* io = new TimingIo;
      if (getenv("BENCH_TIMING")) Veld::KernelIo::currentIs(io);
      return io;
   }();
   return t;
}

// One VRF's IPv4 machine and what it needs, made for each run.
struct Machine {
   Konet::Fd sock = Konet::createNetlinkSocket("default", 0, 5, true, 0);
   Mox::Ptr<Veld::AddrMap> addrMap = make<Veld::AddrMap>(world().mirror->status());
   Mox::Ptr<Veld::AddrMappingSm> seed = Veld::AddrMappingSmIs(world().mirror->status(), addrMap);
   Mox::Ptr<Ip::Input::Status> status = make<Ip::Input::Status>("veld");
   Mox::Ptr<Bolt::TimerWheel> wheel = make<Bolt::TimerWheel>();
   Mox::Ptr<Routing::InfoConfig> routing = make<Routing::InfoConfig>();
   Mox::Ptr<Veld::IpIntfSm> sm;
   BenchLoop loop;

   Machine() {
      routing->routingIs(true);
      auto& w = world();
      sm = make<Veld::IpIntfSm>(
          Veld::IpIntfSm::Inputs{.ipConfig = w.ipConfig,
                                 .vrfIpIntfConfig = w.view,
                                 .addrMap = addrMap,
                                 .kernelIntfDir = w.manager->deviceIntfStatusDir(),
                                 .kernelProtoConfig = make<Routing::KernelProtoConfig>(),
                                 .routingInfoConfig = routing,
                                 .systemIntfIpStatus = status,
                                 .localIntfIpStatus = make<Ip::Input::Status>("local"),
                                 .systemL3IntfStatus = make<L3::Intf::Input::StatusDir>("veld"),
                                 .localL3IntfStatus = make<L3::Intf::Input::StatusDir>("local"),
                                 .netlinkSocket = sock.get(),
                                 .allIntfStatusDir = w.allIntfStatus,
                                 .kniIntfStatusManager = w.manager,
                                 .vrfName = L3::VrfName("default"),
                                 .routingHardwareStatus = make<Routing::Hardware::Status>(),
                                 .warpState = make<Veld::WarpState>("w"),
                                 .timerWheel = wheel,
                                 .urpfOnAllIntfStat = make<Urpf::UrpfOnAllIntfStat>()},
          false);
   }

   void turn() {
      loop.turn(*world().mirror, [&] { return sm->ipIntfKernelUpdateCodefListProcessed(); });
   }

   bool converged() const {
      if (sm->ipIntfKernelUpdateCodefListSize()) return false;
      for (auto const& [id, s] : status->ipIntfStatusIterator()) {
         if (!s->addrWithMask().len() || s->activeSecondaryWithMaskIterator().size() != 3)
            return false;
      }
      return status->ipIntfStatusSize() == size_t(kIntfs);
   }
};

void Converge_ours(benchmark::State& state) {
   auto& w = world();
   if (!w.problem.empty()) return state.SkipWithError(w.problem.c_str());
   timing();
   double maxBusy = 0, maxRun = 0;
   uint64_t runs = 0;
   for (auto _ : state) {
      state.PauseTiming();
      w.reset();
      state.ResumeTiming();
      benchProfile(true);
      Machine m;
      while (!m.converged())
         m.turn();
      benchProfile(false);
      state.PauseTiming();
      maxBusy = std::max(maxBusy, m.loop.maxBusy);
      maxRun = std::max(maxRun, m.loop.maxRun);
      runs = m.sm->ipIntfKernelUpdateCodefListProcessed();
      m.sm = nullptr;
      state.ResumeTiming();
   }
   state.counters["max_busy_s"] = maxBusy;
   state.counters["max_run_s"] = maxRun;
   state.counters["runs"] = double(runs);
   if (getenv("BENCH_TIMING")) {
      state.counters["proc_s"] = timing()->proc / state.iterations();
      state.counters["proc_n"] = timing()->procN / state.iterations();
      state.counters["addr_s"] = timing()->addr / state.iterations();
   }
}
BENCHMARK(Converge_ours)->Name("converge/ours")->Unit(benchmark::kMillisecond)->Iterations(3);

// The bare minimum: one RTM_NEWADDR per address, each acknowledged, straight through libmnl.
void Converge_baseline(benchmark::State& state) {
   auto& w = world();
   if (!w.problem.empty()) return state.SkipWithError(w.problem.c_str());
   mnl_socket* nl = mnl_socket_open(NETLINK_ROUTE);
   mnl_socket_bind(nl, 0, MNL_SOCKET_AUTOPID);
   uint32_t portid = mnl_socket_get_portid(nl);
   alignas(nlmsghdr) char buf[MNL_SOCKET_BUFFER_SIZE];
   uint32_t seq = 1;
   for (auto _ : state) {
      state.PauseTiming();
      w.reset();
      state.ResumeTiming();
      for (size_t k = 0; k < w.addrs.size(); ++k) {
         nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
         nlh->nlmsg_type = RTM_NEWADDR;
         nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL;
         nlh->nlmsg_seq = ++seq;
         auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
         ifa->ifa_family = AF_INET;
         ifa->ifa_prefixlen = w.addrs[k].len();
         ifa->ifa_index = uint32_t(w.ifindex[k / 4]);
         auto bytes = w.addrs[k].addr().bytes();
         mnl_attr_put(nlh, IFA_LOCAL, 4, bytes.data());
         mnl_attr_put(nlh, IFA_ADDRESS, 4, bytes.data());
         mnl_socket_sendto(nl, nlh, nlh->nlmsg_len);
         int n = int(mnl_socket_recvfrom(nl, buf, sizeof buf));
         mnl_cb_run(buf, size_t(n), seq, portid, nullptr, nullptr);
      }
   }
   mnl_socket_close(nl);
}
BENCHMARK(Converge_baseline)
    ->Name("converge/baseline")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

// The machine's kernel work without the machine: recorded from one run, then replayed
// straight through the Linux layer in the same order and the same batches.
void Converge_kernelWork(benchmark::State& state) {
   auto& w = world();
   if (!w.problem.empty()) return state.SkipWithError(w.problem.c_str());
   std::vector<KernelOp> ops;
   {
      w.reset();
      TimingIo recorder;
      recorder.ops = &ops;
      auto* before = Veld::KernelIo::currentIs(&recorder);
      Machine m;
      while (!m.converged())
         m.turn();
      m.sm = nullptr;
      Veld::KernelIo::currentIs(before);
   }
   auto sock = Konet::createNetlinkSocket("default", 0, 5, true, 0);
   size_t writes = 0, reads = 0, adds = 0;
   double maxOp = 0;  // the longest single piece of kernel work
   for (auto _ : state) {
      state.PauseTiming();
      w.reset();
      writes = reads = adds = 0;
      state.ResumeTiming();
      std::string value;
      std::vector<int> results;
      // Inside the namespace as the backlog is, with its /proc directories kept open.
      auto inNs =
          Veld::KernelIo::current().enterNamespace(Konet::NamespaceName("default"), "kernel_work");
      for (auto const& op : ops) {
         double opStart = now();
         switch (op.kind) {
            case KernelOp::read:
               Konet::readProcSys(op.path, &value);
               ++reads;
               break;
            case KernelOp::write:
               Konet::writeProcSys(op.path, op.value);
               ++writes;
               break;
            case KernelOp::addAll:
               Konet::ipAddrAddAll(sock.get(), op.adds, &results);
               adds += op.adds.size();
               break;
         }
         maxOp = std::max(maxOp, now() - opStart);
      }
   }
   state.counters["proc_writes"] = double(writes);
   state.counters["proc_reads"] = double(reads);
   state.counters["addr_adds"] = double(adds);
   state.counters["max_op_s"] = maxOp;
}
BENCHMARK(Converge_kernelWork)
    ->Name("converge/kernel_work")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

void Steady(benchmark::State& state) {
   auto& w = world();
   if (!w.problem.empty()) return state.SkipWithError(w.problem.c_str());
   w.reset();
   Machine m;
   while (!m.converged())
      m.turn();
   auto config = w.ipConfig->ipIntfConfig(IntfId("Ethernet500"));
   KernelNetInfo::InterfaceKey key{uint32_t(w.ifindex[499])};
   auto extra = World::addr(499, 100);
   for (auto _ : state) {
      double start = now();
      config->secondaryWithMaskIs(extra);
      while (!m.addrMap->genAddr(key)->addr(extra))
         m.turn();
      state.SetIterationTime(now() - start);
      state.PauseTiming();
      config->secondaryWithMaskDel(extra);
      while (m.addrMap->genAddr(key)->addr(extra) || !m.converged())
         m.turn();
      state.ResumeTiming();
   }
}
BENCHMARK(Steady)
    ->Name("steady_one_secondary")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(20);

}  // namespace

int main(int argc, char** argv) { return benchMain(argc, argv); }
