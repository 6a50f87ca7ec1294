#include "agent/Demo.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "agent/Agent.h"
#include "agent/ShowTables.h"
#include "linux/NetNs.h"
#include "linux/Netlink.h"
#include "linux/NetlinkLink.h"
#include "mox/Trace.h"

namespace VeldAgent {

namespace {

constexpr double kConvergeTimeout = 10.0;

void heading(std::string const& text) { std::printf("\n\033[1m== %s\033[0m\n\n", text.c_str()); }

std::string sandbox() {
   if (::geteuid() != 0) return "the demo needs root (it makes network namespaces)";
   if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
      return std::string("cannot make a private network namespace: ") + std::strerror(errno);
   }
   if (::mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0) {
      return std::string("cannot make the mounts private: ") + std::strerror(errno);
   }
   ::mkdir(Konet::kNetNsDir, 0755);
   if (::mount("veld-demo", Konet::kNetNsDir, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC,
               "mode=0755") != 0) {
      return std::string("cannot mount a private /run/netns: ") + std::strerror(errno);
   }
   return {};
}

// The demo's devices: a veth pair per configured device, its peer up in the demo's own
// namespace so that the device has carrier wherever the agent moves it.
class DemoDevices {
public:
   explicit DemoDevices(int sock) : sock_(sock) {}
   ~DemoDevices() { remove(); }
   int add(std::string const& dev) {
      std::string peer = "p-" + dev.substr(0, 13);
      if (int rc = Konet::createVethPair(sock_, dev, peer)) return rc;
      peers_.push_back(peer);
      int a = 0, b = 0;
      Konet::linkIndex(sock_, dev, &a);
      Konet::linkIndex(sock_, peer, &b);
      Konet::setLinkUp(sock_, b, true);
      return Konet::setLinkUp(sock_, a, true);
   }
   // Deleting the peer deletes the pair, wherever its other end is now.
   size_t remove() {
      size_t n = 0;
      for (auto const& p : peers_) {
         int i = 0;
         if (Konet::linkIndex(sock_, p, &i) == 0 && Konet::deleteLink(sock_, i) == 0) ++n;
      }
      peers_.clear();
      return n;
   }

private:
   int sock_;
   std::vector<std::string> peers_;
};

void showKernel(Agent& agent) {
   Table t({"Namespace", "Device", "State", "IPv4 addresses (kernel)"});
   for (auto const& ns : agent.mirrors().namespaces()) {
      auto* m = agent.mirrors().mirror(ns);
      auto byIndex = kernelIpv4ByIfindex(*m);
      auto table = m->status()->interface();
      std::vector<KernelNetInfo::Interface> devs;
      for (auto it = table.begin(); it != table.end(); ++it)
         devs.push_back(it.value());
      std::sort(devs.begin(), devs.end(),
                [](auto const& a, auto const& b) { return a.deviceName < b.deviceName; });
      for (auto const& d : devs) {
         if (d.deviceName == "lo" || d.deviceName.starts_with("p-")) continue;
         std::string list;
         auto found = byIndex.find(d.key.ifIndex);
         if (found != byIndex.end()) {
            auto v = found->second;
            std::sort(v.begin(), v.end());
            for (auto const& a : v) {
               if (!list.empty()) list += ' ';
               list += a.toString();
            }
         }
         t.row({ns.name(), d.deviceName, d.running() ? "up" : "down", list.empty() ? "-" : list});
      }
   }
   std::fputs(t.render().c_str(), stdout);
}

void showAll(Agent& agent, bool vrfs) {
   if (vrfs) {
      std::printf("show vrfs\n");
      std::fputs(renderVrfs(agent.showVrfs()).c_str(), stdout);
      std::printf("\n");
   }
   std::printf("show interfaces\n");
   std::fputs(renderInterfaces(agent.showInterfaces()).c_str(), stdout);
   std::printf("\nthe kernel, namespace by namespace\n");
   showKernel(agent);
}

bool converge(Agent& agent) {
   auto start = std::chrono::steady_clock::now();
   bool ok = agent.loop().runUntil([&] { return agent.converged(); }, kConvergeTimeout);
   double ms =
       std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
   if (ok) {
      std::printf("(converged in %.0f ms)\n\n", ms);
   } else {
      std::printf("(not converged after %.0f s: showing where it stands)\n\n", kConvergeTimeout);
   }
   return ok;
}

}  // namespace

int runDemo(std::string const& configPath) {
   LoadResult loaded =
       configPath.empty() ? parseConfiguration(kDemoConfig) : loadConfigurationFile(configPath);
   if (!loaded.config) {
      for (auto const& e : loaded.errors)
         std::fprintf(stderr, "%s\n", e.toString().c_str());
      return 1;
   }
   std::setvbuf(stdout, nullptr, _IOLBF, 0);
   // The agent's log lines go with the demo's output, in its order, dimmed.
   Mox::logSinkIs([](Mox::LogRecord const& r) {
      if (r.severity == Mox::LogSeverity::info) return;
      std::printf("\033[2m  %%%s: %s\033[0m\n", r.id.c_str(), r.text.c_str());
   });
   if (auto problem = sandbox(); !problem.empty()) {
      std::fprintf(stderr, "veld demo: %s\n", problem.c_str());
      return 1;
   }
   // Everything below is in the demo's own namespaces: nothing reaches the host.
   int err = 0;
   auto sock = Konet::createNetlinkSocket(Konet::NamespaceName(), 0, 2, true, 0, &err);
   if (!sock) {
      std::fprintf(stderr, "veld demo: netlink: %s\n", std::strerror(err));
      return 1;
   }
   int lo = 0;
   if (Konet::linkIndex(sock.get(), "lo", &lo) == 0) Konet::setLinkUp(sock.get(), lo, true);

   Configuration config = *loaded.config;
   std::string const prefix = "veld-demo-" + std::to_string(::getpid()) + "-";
   heading("veld demo: a private network namespace, " + std::to_string(config.interfaces.size()) +
           " veth devices, " + std::to_string(config.vrfs.size() - 1) + " VRF namespaces (" +
           prefix + "*)");
   DemoDevices devices(sock.get());
   for (auto const& [id, s] : config.interfaces) {
      if (int rc = devices.add(s.device)) {
         std::fprintf(stderr, "veld demo: cannot create device %s: %s\n", s.device.c_str(),
                      std::strerror(rc));
         return 1;
      }
   }
   std::vector<Konet::NamespaceName> namespaces;
   int status = 0;
   {
      Agent agent(AgentOptions{"", "", prefix});
      if (agent.start(config) != 0) return 1;
      for (auto const& [name, v] : config.vrfs) {
         if (!name.isDefault()) namespaces.push_back(agent.vrfNamespaces().nsOf(name, v));
      }
      heading("The agent starts on the configuration");
      bool ok = converge(agent);
      showAll(agent, true);

      heading("Live change 1: a secondary address on Ethernet1");
      auto& e1 = config.interfaces.at(Konet::IntfId("Ethernet1"));
      e1.ipv4.secondaries.insert(*Konet::IpAddrWithMask::parse("10.0.21.1/24"));
      agent.apply(config);
      ok = converge(agent) && ok;
      showAll(agent, false);

      heading("Live change 2: Ethernet2 moves from VRF red to VRF blue");
      config.interfaces.at(Konet::IntfId("Ethernet2")).vrf = L3::VrfName("blue");
      agent.apply(config);
      ok = converge(agent) && ok;
      showAll(agent, true);

      heading("Live change 3: Ethernet3 becomes unrouted (a bridge port)");
      config.interfaces.at(Konet::IntfId("Ethernet3")).routed = false;
      agent.apply(config);
      ok = converge(agent) && ok;
      showAll(agent, false);

      std::printf("\nshow backlog\n");
      std::fputs(renderBacklog(agent.showBacklog()).c_str(), stdout);
      status = ok ? 0 : 2;
   }
   heading("Clean-up");
   size_t pairs = devices.remove();
   size_t gone = 0;
   for (auto const& ns : namespaces)
      gone += Konet::deleteNamedNamespace(ns) == 0;
   std::printf("removed %zu veth pairs and %zu namespaces; the host was never touched\n", pairs,
               gone);
   return status;
}

}  // namespace VeldAgent
