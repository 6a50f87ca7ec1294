#include "agent/Agent.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "agent/JsonRead.h"
#include "mox/Trace.h"

namespace VeldAgent {

namespace {
Mox::TraceHandle th("VeldAgent");
constexpr double kReloadSettle = 0.1;  // editors write a file in several steps
}  // namespace

Agent::Agent(AgentOptions options) : options_(std::move(options)), mirrors_(loop_, e_.larder) {}

Agent::~Agent() {
   // The machines go before the helpers whose entities they watch; the kernel stays.
   ribVrfCabinet_ = nullptr;  // leaves the daemons as they are
   ribFiles_.reset();
   control_.reset();
   nexthops_.reset();
   ipIntfVrfReactor_ = nullptr;
   vrfRootSm_ = nullptr;
   root_ = nullptr;
   unnumbered_ = nullptr;
   addrSelector_ = nullptr;
   dhcp_.reset();
   mover_.reset();
   control_.reset();
   if (signals_) loop_.remove(signals_.get());
   if (inotify_) loop_.remove(inotify_.get());
}

int Agent::start(Configuration const& config) {
   MOX_TRACE_FN0(th);
   if (int err = mirrors_.mirrorIs(Konet::NamespaceName::defaultNamespace())) {
      Mox::logFailure("VELD-START", "cannot mirror the kernel", err);
      return err;
   }
   vrfs_ = std::make_unique<VrfNamespaces>(e_, mirrors_, options_.nsPrefix);
   intfs_ = std::make_unique<IntfStatusPublisher>(e_, mirrors_);
   writer_ = std::make_unique<ConfigWriter>(e_, *vrfs_, *intfs_);
   // The machines start from what the agent applied before it stopped, which is what the
   // kernel holds, and the configuration follows as a change of it: what was removed
   // meanwhile (an interface, a VRF) is taken out of the kernel like any other change.
   std::string const configText = configurationToJson(config);
   bool unchanged = false;
   auto recorded = appliedBefore(configText, &unchanged);
   Configuration const* applied = unchanged ? &config : recorded ? &*recorded : nullptr;
   if (applied) seedIp6OwnAddrs(*applied);
   if (!options_.runDir.empty()) {
      dhcp_ = std::make_unique<DhcpClients>(loop_, e_, mirrors_, *vrfs_, options_.runDir);
      if (dhcp_->start() != 0) dhcp_.reset();
   }
   writer_->apply(applied ? *applied : config);
   if (dhcp_) dhcp_->sync(applied ? *applied : config);
   vrfs_->runPending();  // the VRFs' namespaces and statuses before the machines
   restoreIp6EnableRequests();
   if (!options_.runDir.empty()) {
      ribFiles_ = std::make_unique<RoutingAgentFiles>(loop_, e_.scheduler, options_.runDir,
                                                      e_.ribQualDir, e_.ribStatusDir);
      if (int err = ribFiles_->load()) {
         Mox::logFailure("VELD-START", "cannot read the routing daemons' files", err);
         return err;
      }
   }
   buildLibrary();
   ribVrfCabinet_ = Mox::make<Veld::RibVrfCabinet>(
       Veld::RibVrfCabinet::Inputs{.multiAgentVrfProtoConfig = e_.routingAgents,
                                   .allVrfStatusLocal = e_.vrfStatusLocal,
                                   .ssoConfig = e_.ssoConfig,
                                   .qualDir = e_.ribQualDir,
                                   .statusDir = e_.ribStatusDir});
   if (ribFiles_) {
      int err = ribFiles_->follow([this](std::string const& vrf) {
         L3::VrfName name(vrf);
         return name.isDefault() ? std::string() : vrfs_->ns(name).name();
      });
      if (err) {
         Mox::logFailure("VELD-START", "cannot follow the routing daemons' files", err);
         return err;
      }
   }
   mover_ = std::make_unique<IntfNamespaceMover>(e_, mirrors_);
   nexthops_ = std::make_unique<Nexthops>(e_, loop_, mirrors_, *vrfs_);
   nexthops_->pushIs([this](int stream, std::string const& text) {
      if (control_) control_->push(stream, text);
   });
   nexthops_->configIs(writer_->current());
   if (unchanged) return 0;  // the record already says what is applied
   if (applied && !(*applied == config)) {
      apply(config);
   } else {
      recordApplied(configText);
   }
   return 0;
}

// The IPv6 addresses the agent put on the interfaces before it stopped are its own: a
// configuration changed meanwhile takes them out, and nobody else's are touched.
void Agent::seedIp6OwnAddrs(Configuration const& applied) {
   for (auto const& [id, s] : applied.interfaces) {
      if (!s.ipv6.enable) continue;
      for (auto const& a : s.ipv6.addresses)
         e_.ip6OwnAddrs->addrIs(id, a);
      if (s.ipv6.linkLocal) e_.ip6OwnAddrs->addrIs(id, *s.ipv6.linkLocal);
   }
}

// A record that reads exactly as the configuration would be written is that configuration
// (`unchanged`, and nothing is returned): a restart on an unchanged configuration parses and
// checks it once.
std::optional<Configuration> Agent::appliedBefore(std::string const& configText,
                                                  bool* unchanged) const {
   *unchanged = false;
   if (options_.runDir.empty()) return std::nullopt;
   std::string path = appliedPath();
   if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) return std::nullopt;  // first start
   std::string text;
   LoadResult result;
   if (auto refused = readDocumentFile(path, kMaxConfigBytes, &text)) {
      result.errors.push_back(std::move(*refused));
   } else if (text == configText) {
      *unchanged = true;
      return std::nullopt;
   } else {
      result = parseConfiguration(text);
   }
   if (!result.config) {
      Mox::logMessage(Mox::LogSeverity::warning, "VELD-START",
                      path + " is unusable (" + result.errors.front().toString() +
                          "); starting from what the kernel holds");
   }
   return result.config;
}

// Written to a new file and renamed over the old one, so that a crash mid-write leaves the
// previous record whole. The next start depends on it: a failure is logged.
void Agent::recordApplied(std::string const& text) const {
   if (options_.runDir.empty()) return;
   std::string path = appliedPath();
   std::string tmp = path + ".new";
   auto failed = [](std::string const& what) {
      Mox::logFailure("VELD-CONFIG", what + " (the next start reads the kernel as it finds it)",
                      errno);
   };
   {
      std::ofstream out(tmp, std::ios::trunc);
      out << text;
      out.flush();
      if (!out) return failed("cannot write " + tmp);
   }
   if (std::rename(tmp.c_str(), path.c_str()) != 0) failed("cannot rename " + tmp + " to " + path);
}

void Agent::buildLibrary() {
   MOX_TRACE_FN0(th);
   auto const defaultNs = Konet::NamespaceName::defaultNamespace();
   auto const defaultVrf = L3::VrfName::defaultVrf();
   Mox::Ptr<KernelNetInfo::Status const> kni = mirrors_.mirror(defaultNs)->status();

   // The address selection first: the IPv4 configuration that the machines below read is
   // complete, with every primary address from its source, before they start.
   addrSelector_ = Veld::IpAddrConfigSelectorSmIs(e_.cliIpConfig, e_.dhclientStatus,
                                                  e_.lenderToBorrowers, e_.ipConfig);

   root_ = Veld::rootFactory();
   root_->schedulerIs(e_.scheduler);
   root_->kniStatusIs(kni);

   auto warp = root_->warpStateIs("veld");
   auto netNsInfo = root_->kernelNetNsInfoRootIs("veld");
   auto addrMap = root_->addrMapIs(kni);
   auto vrfIpDir = root_->vrfIpIntfConfigDirIs();
   auto vrfIp6Dir = root_->vrfIp6IntfConfigDirIs();
   auto urpf = root_->urpfOnAllIntfStatIs();
   auto urpf6 = root_->urpfOnAllIntfStat6Is();

   root_->addrMapSmIs(kni, addrMap);
   root_->vrfIpIntfConfigSmIs(e_.ipConfig, vrfIpDir);
   root_->vrfIp6IntfConfigSmIs(e_.ip6Config, vrfIp6Dir);
   root_->kernelNetNsInfoManagerIs(netNsInfo);
   auto managers = root_->intfStatusManagerRootIs(e_.allIntfStatus, e_.allIntfStatusLocal, false);
   root_->netNsIntfStatusManagerRootIs(e_.allIntfStatus, e_.allIntfStatusLocal, true);

   // The default VRF is the root's: its views of the interface configuration are made here,
   // the other VRFs' by their VRF roots.
   auto defaultView = vrfIpDir->vrfIpIntfConfigIs(defaultVrf);
   vrfIp6Dir->vrfIpIntfConfigIs(defaultVrf);
   auto kniMgr = managers->intfStatusManagerIs(defaultNs);
   root_->ipIntfSmIs({.ipConfig = e_.ipConfig,
                      .vrfIpIntfConfig = defaultView,
                      .addrMap = addrMap,
                      .kernelIntfDir = kniMgr->deviceIntfStatusDir(),
                      .kernelProtoConfig = e_.kernelProto,
                      .routingInfoConfig = e_.routingVrfConfig->vrfConfig(defaultVrf),
                      .systemIntfIpStatus = e_.systemIpStatus,
                      .localIntfIpStatus = e_.localIpStatus,
                      .systemL3IntfStatus = e_.systemL3Status,
                      .localL3IntfStatus = e_.localL3Status,
                      .ip6Status = e_.ip6Status,
                      .allVrfStatusLocal = e_.vrfStatusLocal,
                      .netlinkSocket = root_->netlinkSocket(),
                      .allIntfStatusDir = e_.allIntfStatus,
                      .kniIntfStatusManager = kniMgr,
                      .vrfName = defaultVrf,
                      .routingHardwareStatus = e_.routingHardware,
                      .warpState = warp,
                      .timerWheel = e_.timerWheel,
                      .updateIpIntfStatusVrfReq = e_.updateIpVrfRequests,
                      .updateIpIntfStatusReq = e_.updateIpRequests,
                      .urpfOnAllIntfStat = urpf,
                      .proxyArpVirtualMac = e_.virtualMac,
                      .vrfIp6IntfConfig = vrfIp6Dir->vrfIpIntfConfig(defaultVrf)},
                     false);
   root_->ip6IntfSmIs({.ip6Config = e_.ip6Config,
                       .vrfIp6IntfConfig = vrfIp6Dir->vrfIpIntfConfig(defaultVrf),
                       .addrMap = addrMap,
                       .kernelIntfDir = kniMgr->deviceIntfStatusDir(),
                       .routingInfoConfig = e_.routing6VrfConfig->vrfConfig(defaultVrf),
                       .systemIntfIp6Status = e_.systemIp6Status,
                       .localIntfIp6Status = e_.localIp6Status,
                       .systemL3IntfStatus = e_.systemL3Status,
                       .localL3IntfStatus = e_.localL3Status,
                       .allVrfStatusLocal = e_.vrfStatusLocal,
                       .multicastGroups = e_.ip6MulticastGroups,
                       .netlinkSocket = root_->netlinkSocket(),
                       .allIntfStatusDir = e_.allIntfStatus,
                       .kniIntfStatusManager = kniMgr,
                       .vrfName = defaultVrf,
                       .warpState = warp,
                       .timerWheel = e_.timerWheel,
                       .updateIp6IntfStatusVrfReq = e_.updateIp6VrfRequests,
                       .updateIp6IntfStatusReq = e_.updateIp6Requests,
                       .urpfOnAllIntfStat = urpf6,
                       .ip6Enable = e_.ip6Enable,
                       .ownAddrs = e_.ip6OwnAddrs,
                       .vrfIpIntfConfig = defaultView},
                      false);
   root_->ipIntfStatusSmIs(e_.ipInputStatus, e_.ipConfig, e_.ipStatus);
   // Borrowers follow their lenders' published status.
   unnumbered_ = Veld::IpUnnumbered::IpIntfSmIs(e_.ipStatus);
   unnumbered_->lenderToBorrowersStatusIs(e_.lenderToBorrowers);
   root_->ip6IntfStatusSmIs(e_.ip6InputStatus, e_.ip6Config, e_.ip6Status);
   root_->l3IntfStatusSmIs(e_.l3InputStatus, e_.l3Status);
   root_->ip6EnableSmIs(e_.ip6EnableDir, e_.ip6Enable);
   root_->multicastGroupAppDirSmIs({.groups = e_.ip6MulticastGroups,
                                    .systemIntfStatus = e_.systemIp6Status,
                                    .localIntfStatus = e_.localIp6Status});
   root_->multicastIpGroupAppDirSmIs({.groups = e_.ipMulticastGroups,
                                      .systemIntfStatus = e_.systemIpStatus,
                                      .localIntfStatus = e_.localIpStatus});
   root_->l3IntfStatusVrfSmIs({.updateIpIntfStatusVrfReq = e_.updateIpVrfRequests,
                               .updateIp6IntfStatusVrfReq = e_.updateIp6VrfRequests,
                               .ipStatus = e_.ipStatus,
                               .ip6Status = e_.ip6Status,
                               .clock = e_.clock,
                               .systemL3IntfStatus = e_.systemL3Status,
                               .localL3IntfStatus = e_.localL3Status,
                               .updateIpIntfStatusReq = e_.updateIpRequests,
                               .updateIp6IntfStatusReq = e_.updateIp6Requests},
                              false);
   root_->loopbackIntfSmIs({.loopbackIntfConfigDir = e_.loopbackConfig,
                            .allIntfNamespaceConfigDir = e_.intfNamespaceConfig,
                            .loopbackIntfStatusDir = e_.loopbackStatus,
                            .loopbackIntfStatusLocalDir = e_.loopbackStatusLocal,
                            .clock = e_.clock,
                            .intfStatusPtrDir = e_.intfStatusPtrDir},
                           false);
   root_->cleanupLoopbackIntfSmIs(kni, e_.loopbackConfig, defaultNs);
   root_->warpSmIs({.ipConfig = e_.ipConfig,
                    .ipStatus = e_.ipStatus,
                    .ip6Config = e_.ip6Config,
                    .ip6Status = e_.ip6Status,
                    .allIntfStatusDir = e_.allIntfStatus,
                    .allVrfStatusGlobal = e_.vrfStatusGlobal,
                    .agentConfig = e_.agentConfig,
                    .stagesHelper = e_.stagesHelper,
                    .warpState = warp,
                    .clock = e_.clock});

   vrfRootSm_ = Veld::VrfRootSm::VrfRootSmIs(
       {.routingVrfInfoConfigDir = e_.routingVrfConfig,
        .routingHardwareStatus = e_.routingHardware,
        .kernelProtoConfig = e_.kernelProto,
        .allVrfStatusGlobal = e_.vrfStatusGlobal,
        .allVrfStatusLocal = e_.vrfStatusLocal,
        .ipConfig = e_.ipConfig,
        .systemIntfIpStatus = e_.systemIpStatus,
        .localIntfIpStatus = e_.localIpStatus,
        .systemL3IntfStatus = e_.systemL3Status,
        .localL3IntfStatus = e_.localL3Status,
        .allIntfStatusDir = e_.allIntfStatus,
        .allIntfStatusLocalDir = e_.allIntfStatusLocal,
        .ip6Config = e_.ip6Config,
        .ip6Status = e_.ip6Status,
        .routing6InfoConfig = e_.routing6VrfConfig->vrfConfig(defaultVrf),
        .routing6VrfInfoConfigDir = e_.routing6VrfConfig,
        .systemIntfIp6Status = e_.systemIp6Status,
        .localIntfIp6Status = e_.localIp6Status,
        .ip6MulticastGroupsVeld = e_.ip6MulticastGroups,
        .updateIpIntfStatusVrfReq = e_.updateIpVrfRequests,
        .updateIp6IntfStatusVrfReq = e_.updateIp6VrfRequests,
        .updateIpIntfStatusReq = e_.updateIpRequests,
        .updateIp6IntfStatusReq = e_.updateIp6Requests,
        .warpState = warp,
        .entityMgr = e_.larder,
        .timerWheel = e_.timerWheel,
        .vrfIpIntfConfigDir = vrfIpDir,
        .vrfIp6IntfConfigDir = vrfIp6Dir,
        .urpfOnAllIntfStat = urpf,
        .urpfOnAllIntfStat6 = urpf6,
        .ip6EnableOverride = e_.ip6Enable,
        .intfStatusManagerRoot = managers,
        .proxyArpVirtualMac = e_.virtualMac,
        .ip6OwnAddrs = e_.ip6OwnAddrs},
       false);
   ipIntfVrfReactor_ =
       Veld::IpIntfVrfReactorIs(e_.ipConfig, e_.vrfStatusLocal, e_.intfNamespaceConfig);
}

// DHCP clients leave before the configuration changes (an address taken away first, so
// that the new source writes last) and come after it (their VRF's namespace known).
ConfigDiff Agent::apply(Configuration const& config) {
   if (dhcp_) dhcp_->stopUnwanted(config);
   auto diff = writer_->apply(config);
   if (dhcp_) dhcp_->sync(config);
   if (nexthops_) nexthops_->configIs(config);
   recordApplied(configurationToJson(config));
   Mox::logMessage(Mox::LogSeverity::notice, "VELD-CONFIG",
                   "configuration applied: " + diff.summary());
   return diff;
}

bool Agent::reload() {
   if (options_.configPath.empty()) return false;
   ++reloads_;
   auto result = loadConfigurationFile(options_.configPath);
   refusedErrors_ = result.errors;
   if (!result.config) {
      for (auto const& e : result.errors) {
         Mox::logMessage(Mox::LogSeverity::error, "VELD-CONFIG",
                         options_.configPath + ": " + e.toString());
      }
      Mox::logMessage(Mox::LogSeverity::error, "VELD-CONFIG",
                      "configuration refused (" + std::to_string(result.errors.size()) +
                          " errors); the configuration in force stays");
      return false;
   }
   if (*result.config == config()) return true;
   apply(*result.config);
   return true;
}

// ---- veld run

int Agent::serve() {
   sigset_t set;
   sigemptyset(&set);
   for (int s : {SIGTERM, SIGINT, SIGHUP, SIGUSR1})
      sigaddset(&set, s);
   ::sigprocmask(SIG_BLOCK, &set, nullptr);
   signals_.reset(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
   if (!signals_) return errno;
   loop_.add(signals_.get(), EPOLLIN, [this](uint32_t) {
      signalfd_siginfo si;
      while (::read(signals_.get(), &si, sizeof si) == sizeof si) {
         switch (si.ssi_signo) {
            case SIGTERM:
            case SIGINT:
               Mox::logMessage(Mox::LogSeverity::notice, "VELD-STOP",
                               "stopping; the kernel keeps its configuration");
               loop_.stop();
               break;
            case SIGHUP:
               reload();
               break;
            case SIGUSR1:
               dumpRingLog();
               break;
         }
      }
   });
   if (!options_.configPath.empty()) {
      if (int err = watchConfig()) {
         Mox::logMessage(Mox::LogSeverity::warning, "VELD-CONFIG",
                         "cannot watch " + options_.configPath + " (" + std::strerror(err) +
                             "); reload with SIGHUP");
      }
   }
   if (!options_.runDir.empty()) {
      ::mkdir(options_.runDir.c_str(), 0755);
      control_ = std::make_unique<ControlServer>(
          loop_, [this](std::string const& r) { return handleRequest(r); });
      if (int err = control_->listenAt(socketPath(options_.runDir))) {
         Mox::logMessage(
             Mox::LogSeverity::error, "VELD-START",
             "cannot listen at " + socketPath(options_.runDir) + ": " +
                 (err == EADDRINUSE ? "another veld answers there" : std::strerror(err)));
         return err;
      }
      // A subscription keeps its connection: its client's changes are pushed there.
      control_->streamHandlerIs(
          [this](std::string const& line, int stream) -> std::optional<std::string> {
             auto parsed = parseControlRequest(line);
             if (!parsed.request || parsed.request->kind != RequestKind::subscribe || !nexthops_)
                return std::nullopt;
             nexthops_->subscriberIs(stream, parsed.request->program);
             return dumpJson(nlohmann::json{{"subscribed", parsed.request->program}}) + "\n";
          },
          [this](int stream) {
             if (nexthops_) nexthops_->subscriberDel(stream);
          });
   }
   return 0;
}

// The directory is watched, not the file: editors replace a file by renaming a new one
// over it, which a watch on the old file would never see.
int Agent::watchConfig() {
   inotify_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
   if (!inotify_) return errno;
   auto slash = options_.configPath.rfind('/');
   std::string dir = slash == std::string::npos ? "." : options_.configPath.substr(0, slash);
   if (dir.empty()) dir = "/";
   std::string base =
       slash == std::string::npos ? options_.configPath : options_.configPath.substr(slash + 1);
   if (::inotify_add_watch(inotify_.get(), dir.c_str(),
                           IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE) < 0) {
      return errno;
   }
   reload_ = Mox::make<DeferredWork>(e_.scheduler, "ConfigReload", [this] { reload(); });
   return loop_.add(inotify_.get(), EPOLLIN, [this, base](uint32_t) {
      alignas(inotify_event) char buf[4096];
      ssize_t n;
      bool ours = false;
      while ((n = ::read(inotify_.get(), buf, sizeof buf)) > 0) {
         for (char* p = buf; p < buf + n;) {
            auto* ev = reinterpret_cast<inotify_event*>(p);
            if (ev->len && base == ev->name && !(ev->mask & IN_DELETE)) ours = true;
            p += sizeof(inotify_event) + ev->len;
         }
      }
      if (ours) reload_->scheduleTaskDelay(kReloadSettle);
   });
}

void Agent::dumpRingLog() {
   auto* buf = Ringlog::defaultBuf();
   std::string text = buf ? buf->dump() : std::string("(the ring log is closed)\n");
   if (options_.runDir.empty()) {
      std::fputs(text.c_str(), stderr);
      return;
   }
   std::string path = options_.runDir + "/ringlog.txt";
   std::ofstream(path, std::ios::trunc) << text;
   Mox::logMessage(Mox::LogSeverity::notice, "VELD-RINGLOG", "ring log written to " + path);
}

}  // namespace VeldAgent
