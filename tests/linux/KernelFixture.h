// Kernel tests against the real kernel, in throwaway namespaces.
//
// The first kernel test of a process moves the process into a private network namespace
// and a private mount namespace with its own /run/netns (a tmpfs), so nothing a test does
// reaches the host: not its devices, not its namespaces, not its /proc/sys/net, and all of
// it goes with the process however it ends. Inside, each test creates what it needs with
// unique names (pid + counter) through the fixture, which removes it in TearDown.
//
// Where the sandbox cannot be made (not root, unshare refused) the tests skip with the
// reason; with VELD_REQUIRE_KERNEL=1 they fail instead.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "konet/NamespaceName.h"
#include "linux/Fd.h"
#include "linux/NetlinkParse.h"
#include "mox/Trace.h"

namespace KonetTest {

// Empty when kernel tests can run here; else why not. Sets up the sandbox on first call.
std::string const& kernelSandboxProblem();
bool kernelRequired();

// The inode of the calling thread's network namespace: equal inodes, same namespace.
uint64_t currentNetNsInode();

// Polls `pred` until it holds or `timeout` passes; true if it held.
template <class Pred>
bool waitFor(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
   auto deadline = std::chrono::steady_clock::now() + timeout;
   while (!pred()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
   }
   return true;
}

// Collects operator log messages while alive.
class LogCapture {
public:
   LogCapture();
   ~LogCapture();
   std::vector<std::string> const& lines() const { return lines_; }
   bool contains(std::string const& text) const;

private:
   std::vector<std::string> lines_;
   Mox::LogSink previous_;
};

class KernelFixture : public ::testing::Test {
protected:
   struct Veth {
      std::string name, peer;
      int ifindex = 0, peerIfindex = 0;
   };

   void SetUp() override;
   void TearDown() override;

   // A netlink socket in the test's own (private) namespace.
   int sock() const { return sock_.get(); }
   // A device name of at most 15 bytes that no other test of any process uses.
   static std::string uniqueName(char const* prefix);

   Konet::NamespaceName createNamespace();
   Veth createVeth();
   std::string createBridge(int* ifindex);

   // The kernel's state, read back over `sock` (default: the fixture's socket).
   std::vector<Konet::AddrInfo> addrs(int ifindex, int family, int sock = -1);
   Konet::LinkInfo link(int ifindex, int sock = -1);

private:
   Konet::Fd sock_;
};

}  // namespace KonetTest
