#include "agent/Demo.h"

#include <linux/if_addr.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "agent/Agent.h"
#include "agent/ShowTables.h"
#include "linux/NetNs.h"
#include "linux/Netlink.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"
#include "linux/ProcSys.h"
#include "mox/Trace.h"

namespace VeldAgent {

namespace {

constexpr double kConvergeTimeout = 10.0;
// The device whose veth peer holds one of its configured IPv6 addresses.
constexpr char kDuplicateDevice[] = "et3";
Konet::Ip6AddrWithMask const kDuplicateAddr = *Konet::Ip6AddrWithMask::parse("2001:db8:3::1/64");

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
   static std::string peerOf(std::string const& dev) { return "p-" + dev.substr(0, 13); }
   int add(std::string const& dev) {
      std::string peer = peerOf(dev);
      if (int rc = Konet::createVethPair(sock_, dev, peer)) return rc;
      peers_.push_back(peer);
      int a = 0, b = 0;
      Konet::linkIndex(sock_, dev, &a);
      Konet::linkIndex(sock_, peer, &b);
      Konet::setLinkUp(sock_, b, true);
      return Konet::setLinkUp(sock_, a, true);
   }
   // The peer end of `dev` holds `addr` (at once, without duplicate address detection).
   int holdOnPeer(std::string const& dev, Konet::Ip6AddrWithMask const& addr) {
      int i = 0;
      if (int rc = Konet::linkIndex(sock_, peerOf(dev), &i)) return rc;
      return Konet::ip6AddrAdd(sock_, i, addr, IFA_F_NODAD);
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

// The IPv6 addresses a namespace's kernel holds, by ifindex, each with "(dad-failed)" or
// "(tentative)" when the kernel flags it so.
std::map<uint32_t, std::vector<std::string>> kernelIpv6ByIfindex(Konet::KernelMirror const& m) {
   std::map<uint32_t, std::vector<std::string>> out;
   auto table = m.status()->ipState();
   for (auto it = table.begin(); it != table.end(); ++it) {
      auto const& k = it.key();
      if (!k.addr.isV6() || !it.value().assigned) continue;
      std::string text = Konet::Ip6AddrWithMask(k.addr.v6(), uint8_t(k.prefixLen)).toString();
      if (it.value().flags & 0x08) {
         text += " (dad-failed)";
      } else if (it.value().flags & 0x40) {
         text += " (tentative)";
      }
      out[k.intfKey.ifIndex].push_back(text);
   }
   return out;
}

void showKernel(Agent& agent) {
   Table t({"Namespace", "Device", "State", "IPv4 addresses (kernel)", "IPv6 addresses (kernel)"});
   for (auto const& ns : agent.mirrors().namespaces()) {
      auto* m = agent.mirrors().mirror(ns);
      auto byIndex = kernelIpv4ByIfindex(*m);
      auto byIndex6 = kernelIpv6ByIfindex(*m);
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
         std::string list6;
         if (auto found6 = byIndex6.find(d.key.ifIndex); found6 != byIndex6.end()) {
            auto v = found6->second;
            std::sort(v.begin(), v.end());
            for (auto const& a : v)
               list6 += (list6.empty() ? "" : " ") + a;
         }
         t.row({ns.name(), d.deviceName, d.running() ? "up" : "down", list.empty() ? "-" : list,
                list6.empty() ? "-" : list6});
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

// Every configured IPv6 address of a routed interface with IPv6 on is published, or listed
// as DAD-failed, every such interface has its link-local address, and the kernel holds no
// address in DAD or failed: the kernel's duplicate address detection, which runs after the
// agent's work, is through and the agent has acted on its outcome.
bool ipv6Settled(Agent& agent) {
   // No address of the kernel is still in DAD, or failed it and waits to be taken out.
   for (auto const& ns : agent.mirrors().namespaces()) {
      auto table = agent.mirrors().mirror(ns)->status()->ipState();
      for (auto it = table.begin(); it != table.end(); ++it) {
         if (it.key().addr.isV6() && it.value().assigned && (it.value().flags & 0x48)) {
            return false;
         }
      }
   }
   auto answer = agent.showInterfaces();
   for (auto const& i : answer.at("interfaces")) {
      auto const& s =
          agent.config().interfaces.at(Konet::IntfId(i.at("interface").get<std::string>()));
      if (!s.routed || !s.ipv6.enable) continue;
      auto const& ip6 = i.at("ipv6");
      if (ip6.is_null() || ip6.at("linkLocal").empty()) return false;
      for (auto const& a : s.ipv6.addresses) {
         auto text = a.toString();
         auto has = [&](char const* list) {
            auto const& l = ip6.at(list);
            return std::find(l.begin(), l.end(), text) != l.end();
         };
         if (!has("addresses") && !has("dadFailed")) return false;
      }
   }
   return true;
}

bool converge(Agent& agent) {
   auto start = std::chrono::steady_clock::now();
   bool ok = agent.loop().runUntil([&] { return agent.converged() && ipv6Settled(agent); },
                                   kConvergeTimeout);
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
   size_t dadFailedLogs = 0;
   // The demo's sink counts on this frame: the previous one is back when the demo returns.
   struct SinkRestore {
      Mox::LogSink previous;
      ~SinkRestore() { Mox::logSinkIs(std::move(previous)); }
   } restore;
   restore.previous = Mox::logSinkIs([&dadFailedLogs](Mox::LogRecord const& r) {
      if (r.id == "IP6ROUTING_DAD_FAILED") ++dadFailedLogs;
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
   // Duplicate address detection in the sandbox: one probe, 0.1 s apart instead of 1 s, for
   // the devices made below (those the agent moves to VRF namespaces take the interval from
   // their nsInterval configuration).
   Konet::writeProcSys("/proc/sys/net/ipv6/conf/default/dad_transmits", "1");
   Konet::writeProcSys("/proc/sys/net/ipv6/neigh/default/retrans_time_ms", "100");
   DemoDevices devices(sock.get());
   for (auto const& [id, s] : config.interfaces) {
      if (int rc = devices.add(s.device)) {
         std::fprintf(stderr, "veld demo: cannot create device %s: %s\n", s.device.c_str(),
                      std::strerror(rc));
         return 1;
      }
   }
   if (int rc = devices.holdOnPeer(kDuplicateDevice, kDuplicateAddr)) {
      std::fprintf(stderr, "veld demo: cannot put %s on the peer of %s: %s\n",
                   kDuplicateAddr.toString().c_str(), kDuplicateDevice, std::strerror(rc));
      return 1;
   }
   std::printf("the peer end of %s already holds %s: its duplicate address detection fails\n",
               kDuplicateDevice, kDuplicateAddr.toString().c_str());
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

      heading("IPv6: a duplicate address on " + std::string(kDuplicateDevice));
      auto shown = agent.showInterfaces();
      for (auto const& i : shown.at("interfaces")) {
         if (i.at("device") != std::string(kDuplicateDevice) || i.at("ipv6").is_null()) continue;
         std::printf(
             "the agent logged %%IP6ROUTING_DAD_FAILED %zu time(s) (above); %s's published IPv6 "
             "status:\n%s\n",
             dadFailedLogs, i.at("interface").get<std::string>().c_str(),
             i.at("ipv6").dump(2).c_str());
      }

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
