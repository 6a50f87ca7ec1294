#include "tests/agent/VeldProcess.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "agent/ControlServer.h"
#include "tests/linux/KernelFixture.h"

namespace VeldTest {

VeldProcess::VeldProcess() {
   char tmpl[] = "/tmp/veldtest.XXXXXX";
   char* d = ::mkdtemp(tmpl);
   dir_ = d ? d : "/tmp";
}

VeldProcess::~VeldProcess() {
   if (running()) kill9();
   std::system(("rm -rf '" + dir_ + "'").c_str());
}

void VeldProcess::writeConfig(std::string const& text) const {
   std::string tmp = dir_ + "/.veld.json.new";
   std::ofstream(tmp, std::ios::trunc) << text;
   std::rename(tmp.c_str(), configPath().c_str());
}

void VeldProcess::start() {
   pid_ = ::fork();
   if (pid_ == 0) {
      int err = ::open((dir_ + "/veld.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      ::dup2(err, 2);
      if (withoutFileOverride) {
         ::prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0);
         ::prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0);
      }
      ::execl(VELD_BINARY, "veld", "run", "--config", configPath().c_str(), "--run-dir",
              runDir().c_str(), nullptr);
      ::_exit(127);
   }
}

void VeldProcess::signal(int sig) const {
   if (pid_ > 0) ::kill(pid_, sig);
}

int VeldProcess::wait() {
   int status = 0;
   if (pid_ <= 0 || ::waitpid(pid_, &status, 0) != pid_) return -1;
   pid_ = -1;
   return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int VeldProcess::command(std::vector<std::string> const& args, std::string* out) {
   std::string cmd = VELD_BINARY;
   for (auto const& a : args)
      cmd += " '" + a + "'";
   FILE* p = ::popen((cmd + " 2>&1").c_str(), "r");
   if (!p) return -1;
   char buf[4096];
   size_t n;
   out->clear();
   while ((n = std::fread(buf, 1, sizeof buf, p)) > 0)
      out->append(buf, n);
   int status = ::pclose(p);
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

nlohmann::json VeldProcess::show(std::string const& what) const {
   std::string out;
   if (command({"show", what, "--json", "--run-dir", runDir()}, &out) != 0) return nullptr;
   return nlohmann::json::parse(out, nullptr, false);
}

bool VeldProcess::waitConverged(double seconds) const {
   return KonetTest::waitFor(
       [&] {
          auto b = show("backlog");
          return b.is_object() && b.value("converged", false);
       },
       std::chrono::milliseconds(static_cast<int>(seconds * 1000)));
}

bool VeldProcess::alive() const { return pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0; }

std::string VeldProcess::request(std::string const& line) const {
   std::string answer;
   VeldAgent::controlRequest(runDir() + "/veld.sock", line, &answer);
   return answer;
}

std::string VeldProcess::log() const {
   std::ifstream in(dir_ + "/veld.log");
   std::stringstream s;
   s << in.rdbuf();
   return s.str();
}

}  // namespace VeldTest
