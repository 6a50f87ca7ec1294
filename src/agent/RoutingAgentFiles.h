// The routing daemons' side of the launch handshake, as files under the run directory:
//
//    <run-dir>/qual/<Daemon>/<vrf>     made by the agent: the daemon is to run in the VRF
//                                      (it holds "NETNS=<namespace>", empty for the default
//                                      VRF); deleted: the daemon is to leave the VRF.
//    <run-dir>/status/<Daemon>/<vrf>   made by the daemon once it runs in the VRF, deleted
//                                      when it leaves.
//
// <Daemon> is one of the cabinet's daemon names ("Bgp", "Ospf", ...), <vrf> the VRF's name.
// The files mirror the library's qualification and status directories (Entities::ribQualDir,
// ribStatusDir): load() reads both sides as they stand, before the machines start, so that
// a restarted agent takes up running daemons; then the status directories are followed
// with inotify on the event loop (a status file appearing or going is delivered at once),
// and the qualification directory is written out as files by a task scheduled on each of
// its changes. The qualification directories are watched too: a file made or deleted there
// behind the agent's back is put right by the same task.
#pragma once

#include <map>
#include <string>

#include "agent/DeferredWork.h"
#include "agent/EventLoop.h"
#include "linux/Fd.h"
#include "mox/Dir.h"

namespace VeldAgent {

class RoutingAgentFiles {
public:
   RoutingAgentFiles(EventLoop& loop, Mox::Ptr<Bolt::TaskScheduler> const& scheduler,
                     std::string runDir, Mox::Ptr<Mox::Dir> qualRoot,
                     Mox::Ptr<Mox::Dir> statusRoot);
   ~RoutingAgentFiles();
   RoutingAgentFiles(RoutingAgentFiles const&) = delete;
   RoutingAgentFiles& operator=(RoutingAgentFiles const&) = delete;

   // Makes the directories and reads the files into both directories. 0 or an errno.
   int load();
   // Follows both sides from now on and writes the qualification entries out. `nsOf` names
   // a VRF's namespace for the qualification files.
   int follow(std::function<std::string(std::string const& vrf)> nsOf);

   std::string qualPath(std::string const& agent, std::string const& vrf) const {
      return runDir_ + "/qual/" + agent + "/" + vrf;
   }
   std::string statusPath(std::string const& agent, std::string const& vrf) const {
      return runDir_ + "/status/" + agent + "/" + vrf;
   }

private:
   class MoxQualDir;
   void readQual(std::string const& agent);
   void readStatus(std::string const& agent);
   void doWriteQual();
   void onEvents();

   EventLoop& loop_;
   std::string const runDir_;
   Mox::Ptr<Mox::Dir> qualRoot_;
   Mox::Ptr<Mox::Dir> statusRoot_;
   std::function<std::string(std::string const&)> nsOf_;
   Konet::Fd inotify_;
   // Watch descriptor -> (is a status directory, daemon).
   std::map<int, std::pair<bool, std::string>> watches_;
   std::map<std::string, Mox::Ptr<MoxQualDir>> qualReactors_;
   Mox::Ptr<DeferredWork> writeQual_;
};

}  // namespace VeldAgent
