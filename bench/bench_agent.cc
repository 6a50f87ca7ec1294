// The whole agent: `veld run` from its start to converged (every configured address in the
// kernel and published) for 1,000 interfaces with 4 addresses each (a primary and three
// secondaries), against a bare libmnl loop that adds the same 4,000 addresses one request
// at a time with its acknowledgement (mnl_*), and against a bare program doing the kernel
// work the agent must do (kw_*): one dump of the devices and addresses, the /proc writes the
// agent's first run made, the same adds in batches, and reading their 4,000 notifications.
// Also the agent's peak memory (VmHWM), in all and per interface.
//
// Every run is a first start: before each, the devices lose their addresses and get back the
// /proc settings they had before the agent first ran (not timed).
//
// Everything runs in a private network and mount namespace: 1,000 veth pairs whose peers
// are ports of one bridge, all up. Between runs every address is taken away again (not
// timed). The agent's run ends when it reports itself converged on its control socket,
// polled once the address monitor has seen the 4,000 additions.
//
//    build/bench/bench_agent [--benchmark_repetitions=N]
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "BenchMain.h"
#include "agent/ControlServer.h"
#include "linux/NetNs.h"
#include "linux/Netlink.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"
#include "linux/ProcSys.h"

namespace {

using namespace Konet;

int const kIntfs = benchIntfs(1000);  // BENCH_INTFS=4096 for more
constexpr int kAddrsPerIntf = 4;

double now() {
   timespec ts;
   ::clock_gettime(CLOCK_MONOTONIC, &ts);
   return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

struct World {
   Fd sock;
   std::vector<int> ifindex;
   std::vector<std::vector<IpAddrWithMask>> addrs;  // per interface, primary first
   std::string dir;
   std::string problem;
   // Each per-device /proc setting of the interfaces' devices as the kernel had it before the
   // agent ran, and what the agent's first run changed: (path, the agent's value).
   std::map<std::string, std::string> procBefore;
   std::vector<std::pair<std::string, std::string>> agentWrites;
};

// The readable settings of the interfaces' devices, IPv4 and IPv6, by path.
std::map<std::string, std::string> procSettings() {
   std::map<std::string, std::string> out;
   for (int i = 0; i < kIntfs; ++i) {
      char dev[16];
      std::snprintf(dev, sizeof dev, "ba%04d", i);
      for (char const* dir : {"/proc/sys/net/ipv4/conf/", "/proc/sys/net/ipv6/conf/"}) {
         std::error_code ec;
         for (auto const& e : std::filesystem::directory_iterator(dir + std::string(dev), ec)) {
            std::string value;
            if (readProcSys(e.path().string(), &value) == 0) out[e.path().string()] = value;
         }
      }
   }
   return out;
}

World& world() {
   static World w = [] {
      World w;
      if (::geteuid() != 0) {
         w.problem = "needs root";
         return w;
      }
      if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
          ::mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0) {
         w.problem = std::string("no private namespaces: ") + std::strerror(errno);
         return w;
      }
      benchIpv6Off();
      ::mkdir(kNetNsDir, 0755);
      ::mount("veldbench", kNetNsDir, "tmpfs", 0, "mode=0755");
      int err = 0;
      w.sock = createNetlinkSocket(NamespaceName(), 0, 5, true, 0, &err);
      int lo = 0, br = 0;
      linkIndex(w.sock.get(), "lo", &lo);
      setLinkUp(w.sock.get(), lo, true);
      createBridge(w.sock.get(), "bbr");
      linkIndex(w.sock.get(), "bbr", &br);
      setLinkUp(w.sock.get(), br, true);
      char dirTmpl[] = "/tmp/veldbench.XXXXXX";
      w.dir = ::mkdtemp(dirTmpl);
      nlohmann::json intfs = nlohmann::json::object();
      for (int i = 0; i < kIntfs; ++i) {
         char dev[16], peer[16], id[32];
         std::snprintf(dev, sizeof dev, "ba%04d", i);
         std::snprintf(peer, sizeof peer, "bb%04d", i);
         std::snprintf(id, sizeof id, "Ethernet%d", i + 1);
         int a = 0, b = 0;
         if (int rc = createVethPair(w.sock.get(), dev, peer)) {
            w.problem = std::string("veth: ") + std::strerror(rc);
            return w;
         }
         linkIndex(w.sock.get(), dev, &a);
         linkIndex(w.sock.get(), peer, &b);
         setLinkMaster(w.sock.get(), b, br);
         setLinkUp(w.sock.get(), b, true);
         setLinkUp(w.sock.get(), a, true);
         w.ifindex.push_back(a);
         std::vector<IpAddrWithMask> list;
         uint32_t subnet = 0x0a000000u | (static_cast<uint32_t>(i) << 8);
         for (uint32_t h = 1; h <= kAddrsPerIntf; ++h)
            list.emplace_back(IpAddr(subnet | h), 24);
         nlohmann::json secondaries = nlohmann::json::array();
         for (size_t k = 1; k < list.size(); ++k)
            secondaries.push_back(list[k].toString());
         intfs[id] = {{"device", dev},
                      {"ipv4", {{"address", list[0].toString()}, {"secondaries", secondaries}}}};
         w.addrs.push_back(std::move(list));
      }
      std::ofstream(w.dir + "/veld.json") << nlohmann::json{{"interfaces", intfs}}.dump(1);
      // Carrier comes a little after "up" (link watch): wait for all of it.
      double deadline = now() + 30;
      for (int a : w.ifindex) {
         LinkInfo info;
         while (getLink(w.sock.get(), a, &info) == 0 && !(info.flags & IFF_RUNNING) &&
                now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
         }
      }
      w.procBefore = procSettings();
      return w;
   }();
   return w;
}

// What the agent's first run changed in the devices' settings.
void learnAgentWrites(World& w) {
   for (auto const& [path, value] : procSettings()) {
      if (w.procBefore[path] != value) w.agentWrites.emplace_back(path, value);
   }
}

// Every run starts as the first start after boot does.
void flushAll(World& w) {
   for (size_t i = 0; i < w.ifindex.size(); ++i) {
      for (auto it = w.addrs[i].rbegin(); it != w.addrs[i].rend(); ++it)
         ipAddrDel(w.sock.get(), w.ifindex[i], *it);
   }
   for (auto const& [path, value] : w.agentWrites)
      writeProcSys(path, w.procBefore[path]);
}

// The bare minimum: one libmnl request per address, each waiting for its acknowledgement.
class BareLoop {
public:
   BareLoop() {
      nl_ = mnl_socket_open(NETLINK_ROUTE);
      mnl_socket_bind(nl_, 0, MNL_SOCKET_AUTOPID);
      portid_ = mnl_socket_get_portid(nl_);
   }
   ~BareLoop() { mnl_socket_close(nl_); }
   int add(int ifindex, IpAddrWithMask const& a) {
      char buf[MNL_SOCKET_BUFFER_SIZE];
      nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
      nlh->nlmsg_type = RTM_NEWADDR;
      nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK;
      nlh->nlmsg_seq = ++seq_;
      auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
      ifa->ifa_family = AF_INET;
      ifa->ifa_prefixlen = a.len();
      ifa->ifa_index = static_cast<unsigned>(ifindex);
      uint32_t be = htonl(a.addr().value());
      mnl_attr_put_u32(nlh, IFA_LOCAL, be);
      mnl_attr_put_u32(nlh, IFA_ADDRESS, be);
      if (mnl_socket_sendto(nl_, nlh, nlh->nlmsg_len) < 0) return errno;
      ssize_t n = mnl_socket_recvfrom(nl_, buf, sizeof buf);
      if (n < 0) return errno;
      return mnl_cb_run(buf, static_cast<size_t>(n), seq_, portid_, nullptr, nullptr) < 0 ? errno
                                                                                          : 0;
   }

private:
   mnl_socket* nl_;
   unsigned portid_;
   unsigned seq_ = 0;
};

struct Times {
   double real = 0, cpu = 0;
   double sys = 0;  // of cpu, what the kernel did for the process
};

// This thread's CPU time: user and system, and system alone.
std::pair<double, double> threadCpu() {
   rusage ru{};
   ::getrusage(RUSAGE_THREAD, &ru);
   auto seconds = [](timeval tv) { return double(tv.tv_sec) + double(tv.tv_usec) * 1e-6; };
   return {seconds(ru.ru_utime) + seconds(ru.ru_stime), seconds(ru.ru_stime)};
}

// The bare loop; its CPU time is this thread's (the kernel's work for each request is done
// in it).
int runBare(World& w, BareLoop& bare, Times* t) {
   double t0 = now();
   auto c0 = threadCpu();
   for (size_t i = 0; i < w.ifindex.size(); ++i) {
      for (auto const& a : w.addrs[i]) {
         if (int rc = bare.add(w.ifindex[i], a)) return rc;
      }
   }
   t->real = now() - t0;
   auto c1 = threadCpu();
   t->cpu = c1.first - c0.first;
   t->sys = c1.second - c0.second;
   return 0;
}

// The kernel work the agent must do, done by a bare program: the dump its kernel mirror
// takes, the /proc writes of its first run, the same adds in batches, and the adds'
// notifications read back as the mirror reads them.
int runKernelWork(World& w, Times* t) {
   int err = 0;
   double t0 = now();
   auto c0 = threadCpu();
   auto events = createNetlinkSocket(NamespaceName(), RTMGRP_LINK | RTMGRP_IPV4_IFADDR, 0, false,
                                     16 << 20, &err);
   auto requests = createNetlinkSocket(NamespaceName(), 0, 2, true, 0, &err);
   if (!events || !requests) return err;
   std::vector<LinkInfo> links;
   std::vector<AddrInfo> addrs;
   if (int rc = dumpLinks(requests.get(), &links)) return rc;
   if (int rc = dumpAddrs(requests.get(), AF_UNSPEC, 0, &addrs)) return rc;
   {
      ScopedNetNs inNs(NamespaceName("default"), "kernel_work");  // /proc directories kept open
      for (auto const& [path, value] : w.agentWrites)
         writeProcSys(path, value);
   }
   std::vector<IpAddrAdd> adds;
   for (size_t i = 0; i < w.ifindex.size(); ++i) {
      for (auto const& a : w.addrs[i])
         adds.push_back({w.ifindex[i], a});
   }
   std::vector<int> results;
   ipAddrAddAll(requests.get(), adds, &results);
   int seen = 0;
   alignas(nlmsghdr) char buf[1 << 16];
   while (seen < int(adds.size()) && now() - t0 < 60) {
      ssize_t n = ::recv(events.get(), buf, sizeof buf, 0);
      if (n <= 0) continue;
      for (auto* h = reinterpret_cast<nlmsghdr*>(buf); NLMSG_OK(h, n); h = NLMSG_NEXT(h, n))
         seen += h->nlmsg_type == RTM_NEWADDR;
   }
   t->real = now() - t0;
   auto c1 = threadCpu();
   t->cpu = c1.first - c0.first;
   t->sys = c1.second - c0.second;
   return seen == int(adds.size()) ? 0 : ETIMEDOUT;
}

// VmHWM of a process, in kB.
long peakKb(pid_t pid) {
   std::ifstream in("/proc/" + std::to_string(pid) + "/status");
   std::string line;
   while (std::getline(in, line)) {
      if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
   }
   return 0;
}

// `veld run` until it reports itself converged; its CPU time is the process's, user and
// system, up to that point (read from /proc before it is stopped).
// `expectAdds` addresses are counted as they arrive before the agent is asked whether it
// has converged; `events`, when set, counts every address event until then.
std::string runAgent(World& w, Times* t, long* hwm, int expectAdds = kIntfs * kAddrsPerIntf,
                     int* events = nullptr) {
   int err = 0;
   auto monitor =
       createNetlinkSocket(NamespaceName(), RTMGRP_IPV4_IFADDR, 0, false, 16 << 20, &err);
   timeval tv{1, 0};
   ::setsockopt(monitor.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
   double t0 = now();
   pid_t pid = ::fork();
   if (pid == 0) {
      int log = ::open((w.dir + "/veld.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(log, 2);
      // BENCH_RING_LOG_LEVEL=-1 runs the agent without its ring log, to see what it costs.
      char const* ring = std::getenv("BENCH_RING_LOG_LEVEL");
      ::execl(VELD_BINARY, "veld", "run", "--config", (w.dir + "/veld.json").c_str(), "--run-dir",
              (w.dir + "/run").c_str(), "--ring-log-level", ring ? ring : "8", nullptr);
      ::_exit(127);
   }
   int added = 0;
   char buf[1 << 16];
   while (added < expectAdds && now() - t0 < 120) {
      ssize_t n = ::recv(monitor.get(), buf, sizeof buf, 0);
      if (n <= 0 && ::waitpid(pid, nullptr, WNOHANG) == pid) {
         return "veld ended; its log: " + w.dir + "/veld.log";
      }
      if (n <= 0) continue;
      for (auto* h = reinterpret_cast<nlmsghdr*>(buf); NLMSG_OK(h, n); h = NLMSG_NEXT(h, n))
         added += h->nlmsg_type == RTM_NEWADDR;
   }
   bool converged = false;
   std::string answer;
   // Asked every millisecond: a tighter loop would take the agent's CPU for its answers.
   while (!converged && now() - t0 < 120) {
      if (VeldAgent::controlRequest(w.dir + "/run/veld.sock", R"({"show": "backlog"})", &answer) ==
          0) {
         auto doc = nlohmann::json::parse(answer, nullptr, false);
         converged = doc.is_object() && doc.value("converged", false);
      }
      if (!converged) std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
   t->real = now() - t0;
   if (events) {
      ::fcntl(monitor.get(), F_SETFL, O_NONBLOCK);
      ssize_t n;
      while ((n = ::recv(monitor.get(), buf, sizeof buf, 0)) > 0) {
         for (auto* h = reinterpret_cast<nlmsghdr*>(buf); NLMSG_OK(h, n); h = NLMSG_NEXT(h, n))
            *events += h->nlmsg_type == RTM_NEWADDR || h->nlmsg_type == RTM_DELADDR;
      }
   }
   std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
   std::string field;
   for (int i = 1; i <= 15 && stat >> field; ++i) {
      double seconds =
          std::stod(i >= 14 ? field : "0") / static_cast<double>(::sysconf(_SC_CLK_TCK));
      if (i == 14 || i == 15) t->cpu += seconds;
      if (i == 15) t->sys += seconds;
   }
   *hwm = std::max(*hwm, peakKb(pid));
   ::kill(pid, SIGTERM);
   ::waitpid(pid, nullptr, 0);
   return converged ? "" : "the agent did not converge";
}

// Each iteration runs both, in alternating order, so that both meet the same machine.
void startup(benchmark::State& state) {
   auto& w = world();
   if (!w.problem.empty()) return state.SkipWithError(w.problem.c_str());
   BareLoop bare;
   Times ours, base, kw, sumOurs, sumBase, sumKw;
   long hwm = 0;
   // One run, not timed, to learn what the agent writes to /proc on a first start.
   if (w.agentWrites.empty()) {
      flushAll(w);
      if (auto problem = runAgent(w, &ours, &hwm); !problem.empty())
         return state.SkipWithError(problem.c_str());
      learnAgentWrites(w);
   }
   int first = 0;
   for (auto _ : state) {
      for (int k = 0; k < 3; ++k) {
         flushAll(w);
         int turn = (first + k) % 3;
         if (turn == 0) {
            ours = Times{};
            if (auto problem = runAgent(w, &ours, &hwm); !problem.empty()) {
               return state.SkipWithError(problem.c_str());
            }
         } else if (turn == 1 && runBare(w, bare, &base) != 0) {
            return state.SkipWithError("address add failed");
         } else if (turn == 2 && runKernelWork(w, &kw) != 0) {
            return state.SkipWithError("kernel work failed");
         }
      }
      first = (first + 1) % 3;  // each meets the machine in each position in turn
      state.SetIterationTime(ours.real);
      for (auto [sum, one] : {std::pair{&sumOurs, &ours}, {&sumBase, &base}, {&sumKw, &kw}}) {
         sum->real += one->real;
         sum->cpu += one->cpu;
         sum->sys += one->sys;
      }
   }
   double n = static_cast<double>(state.iterations());
   state.counters["veld_ms"] = sumOurs.real / n * 1e3;
   state.counters["mnl_ms"] = sumBase.real / n * 1e3;
   state.counters["ratio_real"] = sumOurs.real / sumBase.real;
   state.counters["veld_cpu_ms"] = sumOurs.cpu / n * 1e3;
   state.counters["veld_sys_ms"] = sumOurs.sys / n * 1e3;
   state.counters["mnl_cpu_ms"] = sumBase.cpu / n * 1e3;
   state.counters["mnl_sys_ms"] = sumBase.sys / n * 1e3;
   state.counters["ratio_cpu"] = sumOurs.cpu / sumBase.cpu;
   state.counters["kw_ms"] = sumKw.real / n * 1e3;
   state.counters["kw_cpu_ms"] = sumKw.cpu / n * 1e3;
   state.counters["kw_sys_ms"] = sumKw.sys / n * 1e3;
   state.counters["kw_proc_writes"] = static_cast<double>(w.agentWrites.size());
   state.counters["ratio_kw_real"] = sumOurs.real / sumKw.real;
   state.counters["ratio_kw_cpu"] = sumOurs.cpu / sumKw.cpu;
   state.counters["VmHWM_kB"] = static_cast<double>(hwm);
   state.counters["kB_per_intf"] = static_cast<double>(hwm) / kIntfs;
}

// One dump of the namespace's devices and addresses, as a program that learns the kernel's
// state must do at least once.
double kernelDump() {
   mnl_socket* nl = mnl_socket_open(NETLINK_ROUTE);
   mnl_socket_bind(nl, 0, MNL_SOCKET_AUTOPID);
   std::vector<char> buf(1 << 16);
   double t0 = now();
   unsigned seq = 0;
   for (uint16_t type : {uint16_t(RTM_GETLINK), uint16_t(RTM_GETADDR)}) {
      nlmsghdr* nlh = mnl_nlmsg_put_header(buf.data());
      nlh->nlmsg_type = type;
      nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
      nlh->nlmsg_seq = ++seq;
      auto* gen = static_cast<rtgenmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtgenmsg)));
      gen->rtgen_family = AF_UNSPEC;
      mnl_socket_sendto(nl, nlh, nlh->nlmsg_len);
      ssize_t n;
      while ((n = mnl_socket_recvfrom(nl, buf.data(), buf.size())) > 0) {
         if (mnl_cb_run(buf.data(), size_t(n), seq, mnl_socket_get_portid(nl), nullptr, nullptr) <=
             MNL_CB_STOP)
            break;
      }
   }
   double t = now() - t0;
   mnl_socket_close(nl);
   return t;
}

// A restart on the configuration in force: from `veld run` to converged, against one dump of
// the kernel's devices and addresses; and the address events of the restart (none).
void restart(benchmark::State& state) {
   auto& w = world();
   if (!w.problem.empty()) return state.SkipWithError(w.problem.c_str());
   Times first, ours;
   long hwm = 0;
   flushAll(w);
   if (auto problem = runAgent(w, &first, &hwm); !problem.empty())
      return state.SkipWithError(problem.c_str());
   if (w.agentWrites.empty()) learnAgentWrites(w);
   double sumOurs = 0, sumDump = 0;
   int events = 0;
   for (auto _ : state) {
      ours = Times{};
      if (auto problem = runAgent(w, &ours, &hwm, 0, &events); !problem.empty())
         return state.SkipWithError(problem.c_str());
      double dump = kernelDump();
      state.SetIterationTime(ours.real);
      sumOurs += ours.real;
      sumDump += dump;
   }
   double n = static_cast<double>(state.iterations());
   state.counters["restart_ms"] = sumOurs / n * 1e3;
   state.counters["dump_ms"] = sumDump / n * 1e3;
   state.counters["ratio_to_dump"] = sumOurs / sumDump;
   state.counters["addr_events"] = events;
}

}  // namespace

BENCHMARK(restart)
    ->Name("restart1000x4")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(4);

BENCHMARK(startup)
    ->Name("start1000x4")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(4);

int main(int argc, char** argv) { return benchMain(argc, argv); }
