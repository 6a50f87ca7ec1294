// The real veld program, run by a test inside the test's private namespaces (the child
// inherits them): started on a configuration file in a scratch directory, asked with
// `veld show --json`, stopped with SIGTERM or killed.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace VeldTest {

class VeldProcess {
public:
   // A scratch directory with the configuration file and the run directory.
   VeldProcess();
   ~VeldProcess();

   std::string const& dir() const { return dir_; }
   std::string configPath() const { return dir_ + "/veld.json"; }
   std::string runDir() const { return dir_ + "/run"; }
   // Replaces the configuration file as editors do: a new file renamed over the old one.
   void writeConfig(std::string const& text) const;

   void start();
   // Runs the agent without the capabilities that let root read any file, so that a file
   // of mode 0000 is unreadable to it as to any other program.
   bool withoutFileOverride = false;
   void signal(int sig) const;
   // Waits for the process to end; its exit status, or -signal.
   int wait();
   void kill9() {
      signal(SIGKILL);
      wait();
   }
   bool running() const { return pid_ > 0; }

   // `veld <args>`: its exit status and standard output.
   static int command(std::vector<std::string> const& args, std::string* out);
   nlohmann::json show(std::string const& what) const;
   // Polls `veld show backlog --json` until the agent reports convergence.
   bool waitConverged(double seconds = 20.0) const;
   // The agent's standard error so far.
   std::string log() const;
   // Whether the process still runs (it has not exited or been killed).
   bool alive() const;
   // Sends `line` to the control socket as it stands; the agent's answer.
   std::string request(std::string const& line) const;

private:
   std::string dir_;
   pid_t pid_ = -1;
};

}  // namespace VeldTest
