// veld: the IP agent.
//
//    veld run --config FILE [--run-dir DIR] [--trace Facility/level,...]
//    veld demo [--config FILE] [--trace ...]
//    veld check FILE
//    veld show interfaces|vrfs|backlog|config|routing-agents|nexthops [--vrf V] [--json]
//              [--run-dir DIR]
//    veld switchover [--clear] [--run-dir DIR]
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "agent/Agent.h"
#include "agent/Demo.h"
#include "agent/ShowTables.h"
#include "linux/SafeName.h"
#include "mox/Trace.h"

namespace {

using namespace VeldAgent;

constexpr char kDefaultRunDir[] = "/run/veld";

int traceLevels(std::string const& levels) {
   if (levels.empty() || Mox::traceLevelsFromString(levels)) return 0;
   std::fprintf(stderr, "veld: --trace %s: expected Facility/level[,Facility/level...]\n",
                levels.c_str());
   return 2;
}

// The prefix becomes part of namespace names, with a VRF name of up to 100 bytes after it.
int namespacePrefix(std::string const& prefix) {
   char const* why =
       prefix.size() > 40 ? "at most 40 bytes" : Konet::namespaceNameProblem(prefix + "vrf");
   if (!why) return 0;
   std::fprintf(stderr, "veld: --namespace-prefix '%s': %s\n", Konet::escapedName(prefix).c_str(),
                why);
   return 2;
}

int check(std::string const& path) {
   auto result = loadConfigurationFile(path);
   for (auto const& e : result.errors)
      std::printf("%s: %s\n", path.c_str(), e.toString().c_str());
   if (!result.config) {
      std::printf("%s: %zu error%s\n", path.c_str(), result.errors.size(),
                  result.errors.size() == 1 ? "" : "s");
      return 1;
   }
   auto const& c = *result.config;
   std::printf("%s: valid (%zu VRFs, %zu interfaces)\n", path.c_str(), c.vrfs.size(),
               c.interfaces.size());
   return 0;
}

int run(std::string const& path, std::string const& runDir, std::string const& nsPrefix,
        int ringLogLevel) {
   auto result = loadConfigurationFile(path);
   if (!result.config) {
      for (auto const& e : result.errors)
         Mox::logMessage(Mox::LogSeverity::error, "VELD-CONFIG", path + ": " + e.toString());
      Mox::logMessage(Mox::LogSeverity::error, "VELD-START",
                      "refusing to start on an invalid configuration");
      return 1;
   }
   if (ringLogLevel >= 0) {
      Ringlog::open();
      Ringlog::levelIs(ringLogLevel);
   }
   VeldAgent::Agent agent(AgentOptions{path, runDir, nsPrefix});
   if (agent.serve() != 0 || agent.start(*result.config) != 0) return 1;
   auto const interfaces = result.config->interfaces.size();
   result.config.reset();  // the agent keeps what it applied: no second copy for the run
   Mox::logMessage(Mox::LogSeverity::notice, "VELD-START",
                   "veld running on " + path + " (" + std::to_string(interfaces) + " interfaces)");
   agent.run();
   return 0;
}

int show(std::string const& what, std::string const& vrf, bool json, std::string const& runDir) {
   std::string answer;
   auto path = VeldAgent::Agent::socketPath(runDir);
   ControlRequest request(*showWhatFromName(what));
   if (!vrf.empty() && request.show != ShowWhat::nexthops) {
      std::fprintf(stderr, "veld show: --vrf goes with nexthops only\n");
      return 1;
   }
   request.vrf = vrf;
   if (int err = controlRequest(path, controlRequestText(request), &answer)) {
      std::fprintf(stderr, "veld show: no agent answers at %s: %s\n", path.c_str(),
                   std::strerror(err));
      return 1;
   }
   if (json) {
      std::fputs(answer.c_str(), stdout);
      return 0;
   }
   std::vector<DocError> errors;
   auto doc = readJson(answer, size_t{1} << 30, &errors);
   std::string text;
   if (doc && !doc->contains("error")) text = renderAnswer(request.show, *doc);
   if (text.empty()) {
      std::fprintf(stderr, "veld show: unexpected answer: %s\n",
                   quotedForMessage(answer, 400).c_str());
      return 1;
   }
   std::fputs(text.c_str(), stdout);
   return 0;
}

// Tells the running agent that a switchover has happened (or, with --clear, that it has not).
int switchover(bool on, std::string const& runDir) {
   std::string answer;
   auto path = VeldAgent::Agent::socketPath(runDir);
   if (int err =
           controlRequest(path, controlRequestText(ControlRequest::switchoverTo(on)), &answer)) {
      std::fprintf(stderr, "veld switchover: no agent answers at %s: %s\n", path.c_str(),
                   std::strerror(err));
      return 1;
   }
   std::vector<DocError> errors;
   auto doc = readJson(answer, size_t{1} << 20, &errors);
   if (!doc || !doc->contains("switchover")) {
      std::fprintf(stderr, "veld switchover: unexpected answer: %s\n",
                   quotedForMessage(answer, 400).c_str());
      return 1;
   }
   return 0;
}

}  // namespace

int main(int argc, char** argv) {
   CLI::App app{"veld: the IP agent of the switch"};
   app.require_subcommand(1);
   std::string trace, configPath, runDir = kDefaultRunDir, nsPrefix = "ns-", what;
   bool json = false;
   int ringLogLevel = Mox::kTraceFunctionLevel;

   auto* runCmd = app.add_subcommand("run", "run the agent in this network namespace");
   runCmd->add_option("--config", configPath, "the configuration file (JSON)")->required();
   runCmd->add_option("--run-dir", runDir, "where the control socket and ring-log dumps go")
       ->capture_default_str();
   runCmd->add_option("--trace", trace, "trace levels, e.g. Veld/8,VeldAgent/7");
   runCmd
       ->add_option("--ring-log-level", ringLogLevel,
                    "traces up to this level go to the ring log dumped on SIGUSR1 (-1: none)")
       ->capture_default_str();
   runCmd
       ->add_option("--namespace-prefix", nsPrefix,
                    "prefix of the namespaces of VRFs that name none")
       ->capture_default_str();

   auto* demoCmd = app.add_subcommand("demo", "the agent on the example configuration, sandboxed");
   demoCmd->add_option("--config", configPath, "another configuration (default: the embedded one)");
   demoCmd->add_option("--trace", trace, "trace levels, e.g. Veld/8");

   auto* checkCmd = app.add_subcommand("check", "validate a configuration file");
   checkCmd->add_option("file", configPath, "the configuration file")->required();

   auto* showCmd = app.add_subcommand("show", "ask a running agent");
   std::string showVrf;
   showCmd
       ->add_option(
           "what", what,
           "interfaces, vrfs, backlog, config, routing-agents, nexthops, ip6-enable or multicast")
       ->required()
       ->check(CLI::IsMember({"interfaces", "vrfs", "backlog", "config", "routing-agents",
                              "nexthops", "ip6-enable", "multicast"}));
   showCmd->add_option("--vrf", showVrf, "nexthops: of this VRF only");
   showCmd->add_flag("--json", json, "print the agent's JSON answer");
   showCmd->add_option("--run-dir", runDir, "the running agent's run directory")
       ->capture_default_str();

   bool clear = false;
   auto* ssoCmd =
       app.add_subcommand("switchover", "tell the running agent that a switchover has happened");
   ssoCmd->add_flag("--clear", clear, "clear the switchover flag instead");
   ssoCmd->add_option("--run-dir", runDir, "the running agent's run directory")
       ->capture_default_str();

   CLI11_PARSE(app, argc, argv);
   if (int rc = traceLevels(trace)) return rc;
   if (*runCmd) {
      if (int rc = namespacePrefix(nsPrefix)) return rc;
      return run(configPath, runDir, nsPrefix, ringLogLevel);
   }
   if (*demoCmd) return runDemo(configPath);
   if (*checkCmd) return check(configPath);
   if (*ssoCmd) return switchover(!clear, runDir);
   return show(what, showVrf, json, runDir);
}
