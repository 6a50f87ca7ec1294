#include "agent/RoutingAgentFiles.h"

#include <dirent.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <set>

#include "mox/Trace.h"
#include "platform/Agent.h"
#include "veld/vrf/RibVrfCabinet.h"

namespace VeldAgent {

namespace {

Mox::TraceHandle th("VeldAgentRib");

using LaunchStatus = VrfTypes::VrfProtocolLaunchStatus;

// A file of the handshake is named after a VRF; anything else there (a file being written,
// a name no VRF can have) is none of ours.
bool isVrfFileName(std::string const& name) {
   if (name.empty() || name.size() > L3::VrfName::maxLength || name[0] == '.') return false;
   for (char c : name) {
      bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                c == '_' || c == '-' || c == '.';
      if (!ok) return false;
   }
   return true;
}

// The VRF files in `dir`, with their modification times.
std::map<std::string, double> vrfFiles(std::string const& dir) {
   std::map<std::string, double> out;
   DIR* d = ::opendir(dir.c_str());
   if (!d) return out;
   while (auto* ent = ::readdir(d)) {
      std::string name = ent->d_name;
      if (!isVrfFileName(name)) continue;
      struct stat st;
      if (::stat((dir + "/" + name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
      out[name] = double(st.st_mtim.tv_sec) + double(st.st_mtim.tv_nsec) * 1e-9;
   }
   ::closedir(d);
   return out;
}

int makeDir(std::string const& path) {
   if (::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) return 0;
   return errno;
}

}  // namespace

class RoutingAgentFiles::MoxQualDir : public Mox::Dir::NotifieeConst {
public:
   explicit MoxQualDir(DeferredWork* write) : write_(write) {}
   void onEntry(Mox::Name const&) override { write_->scheduleTaskDelay(0.0); }

private:
   DeferredWork* write_;
};

RoutingAgentFiles::RoutingAgentFiles(EventLoop& loop,
                                     Mox::Ptr<Bolt::TaskScheduler> const& scheduler,
                                     std::string runDir, Mox::Ptr<Mox::Dir> qualRoot,
                                     Mox::Ptr<Mox::Dir> statusRoot)
    : loop_(loop),
      runDir_(std::move(runDir)),
      qualRoot_(std::move(qualRoot)),
      statusRoot_(std::move(statusRoot)),
      writeQual_(Mox::make<DeferredWork>(scheduler, "RibQualFiles", [this] { doWriteQual(); })) {}

RoutingAgentFiles::~RoutingAgentFiles() {
   for (auto& [agent, reactor] : qualReactors_)
      reactor->notifierIs(static_cast<Mox::Dir const*>(nullptr));
   writeQual_->cancelTaskDelay();
   if (inotify_) loop_.remove(inotify_.get());
}

int RoutingAgentFiles::load() {
   MOX_TRACE_FN(th, runDir_);
   for (auto const& dir : {runDir_, runDir_ + "/qual", runDir_ + "/status"}) {
      if (int err = makeDir(dir)) return err;
   }
   for (auto agent : Veld::RibVrfCabinet::kAgentNames) {
      std::string name(agent);
      if (int err = makeDir(runDir_ + "/qual/" + name)) return err;
      if (int err = makeDir(runDir_ + "/status/" + name)) return err;
      readQual(name);
      readStatus(name);
   }
   return 0;
}

void RoutingAgentFiles::readQual(std::string const& agent) {
   auto dir = qualRoot_->dirIs(agent);
   for (auto const& [vrf, mtime] : vrfFiles(runDir_ + "/qual/" + agent)) {
      if (!dir->entry(vrf)) dir->entryIs(vrf, Mox::make<LaunchStatus>(vrf));
   }
}

// A report is dated by its file: that is when the daemon had set itself up in the VRF.
void RoutingAgentFiles::readStatus(std::string const& agent) {
   MOX_TRACE_FN(th, agent);
   auto dir = statusRoot_->dirIs(agent);
   auto files = vrfFiles(runDir_ + "/status/" + agent);
   for (auto const& name : dir->entryIteratorConst().keys()) {
      if (!files.count(name.string())) dir->entryDel(name);
   }
   for (auto const& [vrf, mtime] : files) {
      if (dir->entry(vrf)) continue;
      auto status = Mox::make<LaunchStatus>(vrf);
      dir->entryIs(vrf, status);
      status->initAgentConditionalMountsTimeIs(mtime);
   }
}

int RoutingAgentFiles::follow(std::function<std::string(std::string const& vrf)> nsOf) {
   MOX_TRACE_FN(th, runDir_);
   nsOf_ = std::move(nsOf);
   for (auto agent : Veld::RibVrfCabinet::kAgentNames) {
      auto reactor = Mox::make<MoxQualDir>(writeQual_.ptr());
      reactor->notifierIs(qualRoot_->dirIs(agent));
      qualReactors_.emplace(std::string(agent), reactor);
   }
   doWriteQual();
   inotify_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
   if (!inotify_) return errno;
   for (auto agent : Veld::RibVrfCabinet::kAgentNames) {
      for (bool status : {false, true}) {
         std::string dir = runDir_ + (status ? "/status/" : "/qual/") + std::string(agent);
         int wd = ::inotify_add_watch(inotify_.get(), dir.c_str(),
                                      IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM);
         if (wd < 0) return errno;
         watches_[wd] = {status, std::string(agent)};
      }
   }
   // What changed between load() and now.
   for (auto agent : Veld::RibVrfCabinet::kAgentNames)
      readStatus(std::string(agent));
   return loop_.add(inotify_.get(), EPOLLIN, [this](uint32_t) { onEvents(); });
}

void RoutingAgentFiles::onEvents() {
   alignas(inotify_event) char buf[4096];
   ssize_t n;
   std::set<std::string> statusChanged;
   bool qualChanged = false;
   while ((n = ::read(inotify_.get(), buf, sizeof buf)) > 0) {
      for (char* p = buf; p < buf + n;) {
         auto* ev = reinterpret_cast<inotify_event*>(p);
         p += sizeof(inotify_event) + ev->len;
         auto it = watches_.find(ev->wd);
         if (it == watches_.end()) continue;
         if (it->second.first) {
            statusChanged.insert(it->second.second);
         } else {
            qualChanged = true;
         }
      }
   }
   for (auto const& agent : statusChanged)
      readStatus(agent);
   if (qualChanged) writeQual_->scheduleTaskDelay(0.0);
}

// Each file is written whole under a temporary name, then renamed into place: a daemon's
// unit never sees half a file.
void RoutingAgentFiles::doWriteQual() {
   MOX_TRACE_FN0(th);
   for (auto agent : Veld::RibVrfCabinet::kAgentNames) {
      std::string name(agent);
      std::string dir = runDir_ + "/qual/" + name;
      auto entries = qualRoot_->dirIs(name);
      auto files = vrfFiles(dir);
      for (auto const& [vrf, mtime] : files) {
         if (entries->entry(vrf)) continue;
         if (::unlink((dir + "/" + vrf).c_str()) != 0 && errno != ENOENT) {
            Mox::logFailure("VELD-RIB", "cannot delete " + dir + "/" + vrf, errno);
         }
      }
      for (auto const& [entry, e] : entries->entryIteratorConst()) {
         std::string const& vrf = entry.string();
         if (files.count(vrf) || !isVrfFileName(vrf)) continue;
         std::string path = dir + "/" + vrf;
         std::string tmp = dir + "/." + vrf + ".new";
         {
            std::ofstream out(tmp, std::ios::trunc);
            out << "NETNS=" << (nsOf_ ? nsOf_(vrf) : std::string()) << "\n";
            out.flush();
            if (!out) {
               Mox::logFailure("VELD-RIB", "cannot write " + tmp, errno);
               continue;
            }
         }
         if (std::rename(tmp.c_str(), path.c_str()) != 0) {
            Mox::logFailure("VELD-RIB", "cannot rename " + tmp + " to " + path, errno);
         }
      }
   }
}

}  // namespace VeldAgent
