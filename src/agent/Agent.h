// The agent: the library's root and machines on the configuration, in the current network
// namespace, with the platform's part done by the agent's own helpers.
//
// start() builds, in order: the kernel mirror of the default namespace; the configuration
// written to the library's inputs (interfaces, VRFs); the VRF namespaces and their mirrors;
// then the library through its root in the documented calling order (rootFactory;
// schedulerIs, kniStatusIs; the shared entities; the machines that feed them; those that use
// them), VrfRootSm and IpIntfVrfReactor. The address maps are seeded from the mirrors, so a
// restarted agent starts from what the kernel holds and changes only what differs.
//
// With a run directory, the configuration in force is recorded there (applied.json), and a
// start first takes up the recorded one, then applies the configuration as a change of it.
// The routing daemons' launch handshake runs through files there too (RoutingAgentFiles),
// read before the RIB VRF cabinet starts, so that running daemons are taken up as they are.
//
// serve() adds what `veld run` needs: signals (TERM and INT stop, HUP reloads, USR1 dumps the
// ring log), the configuration file's watch and the control socket. Stopping leaves the
// kernel as it is.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "agent/Config.h"
#include "agent/ConfigDiff.h"
#include "agent/ConfigWriter.h"
#include "agent/ControlRequest.h"
#include "agent/ControlServer.h"
#include "agent/DhcpClients.h"
#include "agent/Entities.h"
#include "agent/EventLoop.h"
#include "agent/IntfNamespaceMover.h"
#include "agent/IntfStatusPublisher.h"
#include "agent/KernelMirrors.h"
#include "agent/Nexthops.h"
#include "agent/RoutingAgentFiles.h"
#include "agent/VrfNamespaces.h"
#include "veld/config/IpAddrConfigSelectorSm.h"
#include "veld/config/IpIntfVrfReactor.h"
#include "veld/ipv4/IpIntfSm.h"
#include "veld/root/Root.h"
#include "veld/root/VrfRootSm.h"
#include "veld/unnumbered/IpIntfSm.h"
#include "veld/vrf/RibVrfCabinet.h"

namespace VeldAgent {

struct AgentOptions {
   std::string configPath;        // the file reloads read ("": none)
   std::string runDir;            // the control socket and ring-log dumps
   std::string nsPrefix = "ns-";  // namespace names of VRFs that name none
};

class Agent {
public:
   explicit Agent(AgentOptions options);
   ~Agent();
   Agent(Agent const&) = delete;
   Agent& operator=(Agent const&) = delete;

   // 0, or an errno after logging what failed.
   int start(Configuration const& config);
   int serve();
   // Until SIGTERM or SIGINT.
   void run() { loop_.run(); }

   ConfigDiff apply(Configuration const& config);
   // Reads the configuration file again and applies it; a configuration that fails its
   // checks is logged with its errors and refused, and the one in force stays.
   bool reload();
   Configuration const& config() const { return writer_->current(); }

   EventLoop& loop() { return loop_; }
   Entities& entities() { return e_; }
   KernelMirrors& mirrors() { return mirrors_; }
   VrfNamespaces& vrfNamespaces() { return *vrfs_; }
   // The DHCP clients; null without a run directory.
   DhcpClients* dhcpClients() { return dhcp_.get(); }
   Nexthops& nexthops() { return *nexthops_; }

   // Every configured address is in the kernel and published, every device in its VRF's
   // namespace (up there when its interface is routed), every backlog empty.
   bool converged() const;

   nlohmann::json showInterfaces() const;
   // Where an interface's primary address comes from: configured, DHCP (with the lease's
   // time left) or borrowed from its lender.
   nlohmann::json addressSource(Konet::IntfId const& id, InterfaceSettings const& s) const;
   nlohmann::json showVrfs() const;
   nlohmann::json showBacklog() const;
   // The configuration file, what is in force, and the errors of the last reload if it was
   // refused.
   nlohmann::json showConfig() const;
   // Each routing daemon configured in a VRF, with its launch state; the switchover flag.
   nlohmann::json showRoutingAgents() const;
   nlohmann::json showNexthops(std::string const& vrf) const;
   // The programs' requests for IPv6 on interfaces and what the library made of them.
   nlohmann::json showIp6Enable() const;
   // Each interface's multicast groups, with the applications that use each.
   nlohmann::json showMulticast() const;
   // The answer to a show request.
   nlohmann::json show(ControlRequest const& request) const;
   // Answers one control-socket request line with a JSON document.
   std::string handleRequest(std::string const& line);
   // A program's request for IPv6 on `interfaces` (replacing its earlier one), and its
   // withdrawal (false when the program has none).
   void ip6EnableRequestIs(std::string const& program,
                           std::vector<Konet::IntfId> const& interfaces);
   bool ip6EnableRequestDel(std::string const& program);
   // A program's multicast groups on one interface (replacing its earlier groups there), and
   // its withdrawal from every group (false when it has declared none).
   void multicastRequestIs(std::string const& program, Konet::IntfId const& intf,
                           std::vector<Konet::IpGenAddr> const& groups);
   bool multicastRequestDel(std::string const& program);
   // The programs' requests, recorded in the run directory at each change
   // (ip6-enable.json) and taken up again by the next start.
   static std::string ip6EnableRequestsPath(std::string const& runDir) {
      return runDir + "/ip6-enable.json";
   }
   static std::string socketPath(std::string const& runDir) { return runDir + "/veld.sock"; }

private:
   void buildLibrary();
   // The configuration in force when the agent last stopped (kept in the run directory).
   std::optional<Configuration> appliedBefore(std::string const& configText, bool* unchanged) const;
   void seedIp6OwnAddrs(Configuration const& applied);
   void recordApplied(std::string const& text) const;
   std::string appliedPath() const { return options_.runDir + "/applied.json"; }
   void recordIp6EnableRequests() const;
   void restoreIp6EnableRequests();
   void dumpRingLog();
   int watchConfig();
   // The IPv4 machines by VRF.
   std::vector<std::pair<L3::VrfName, Mox::Ptr<Veld::IpIntfSm>>> ipIntfSms() const;

   AgentOptions const options_;
   EventLoop loop_;
   Entities e_;
   KernelMirrors mirrors_;
   std::unique_ptr<VrfNamespaces> vrfs_;
   std::unique_ptr<IntfStatusPublisher> intfs_;
   std::unique_ptr<ConfigWriter> writer_;
   std::unique_ptr<IntfNamespaceMover> mover_;
   std::unique_ptr<DhcpClients> dhcp_;
   Mox::Ptr<Veld::IpAddrConfigSelectorSm> addrSelector_;
   Mox::Ptr<Veld::IpUnnumbered::IpIntfSm> unnumbered_;
   Mox::Ptr<Veld::Root> root_;
   Mox::Ptr<Veld::VrfRootSm> vrfRootSm_;
   Mox::Ptr<Veld::IpIntfVrfReactor> ipIntfVrfReactor_;
   std::unique_ptr<RoutingAgentFiles> ribFiles_;  // with a run directory
   Mox::Ptr<Veld::RibVrfCabinet> ribVrfCabinet_;
   std::unique_ptr<Nexthops> nexthops_;
   std::unique_ptr<ControlServer> control_;
   Konet::Fd signals_;
   Konet::Fd inotify_;
   Mox::Ptr<DeferredWork> reload_;
   uint64_t reloads_ = 0;
   std::vector<DocError> refusedErrors_;  // of the last reload, when it was refused
};

}  // namespace VeldAgent
