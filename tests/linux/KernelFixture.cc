#include "tests/linux/KernelFixture.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "linux/NetNs.h"
#include "linux/Netlink.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"

namespace KonetTest {
namespace {

std::string makeSandbox() {
   if (::geteuid() != 0) return "kernel tests need root (network and mount namespaces)";
   if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
      return std::string("unshare(CLONE_NEWNET | CLONE_NEWNS) failed: ") + std::strerror(errno);
   }
   // Our mounts must not propagate to the host's mount namespace.
   if (::mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0) {
      return std::string("making / a slave mount failed: ") + std::strerror(errno);
   }
   if (::mkdir(Konet::kNetNsDir, 0755) != 0 && errno != EEXIST) {
      return std::string("mkdir /run/netns failed: ") + std::strerror(errno);
   }
   if (::mount("veldtest", Konet::kNetNsDir, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC,
               "mode=0755") != 0) {
      return std::string("mounting a private /run/netns failed: ") + std::strerror(errno);
   }
   return {};
}

// What the tests of this process created and have not removed yet.
struct Registry {
   std::mutex mutex;
   std::vector<std::string> devices;
   std::vector<Konet::NamespaceName> namespaces;
};

// Never destroyed: removeAll runs at exit, after static objects may be gone.
Registry& registry() {
   static auto* r = new Registry;
   return *r;
}

// Removes devices, then named namespaces. Also run at exit, for a test that never got to
// its TearDown; the private namespaces then go with the process anyway.
void removeAll() {
   auto& r = registry();
   std::lock_guard lock(r.mutex);
   if (!r.devices.empty()) {
      int error = 0;
      auto sock = Konet::createNetlinkSocket(Konet::NamespaceName(), 0, 2, true, 0, &error);
      for (auto const& name : r.devices) {
         int ifindex = 0;
         if (sock && Konet::linkIndex(sock.get(), name, &ifindex) == 0) {
            Konet::deleteLink(sock.get(), ifindex);
         }
      }
      r.devices.clear();
   }
   for (auto const& ns : r.namespaces)
      Konet::deleteNamedNamespace(ns);
   r.namespaces.clear();
}

}  // namespace

std::string const& kernelSandboxProblem() {
   static std::string const problem = [] {
      std::string p = makeSandbox();
      if (p.empty()) std::atexit(removeAll);
      return p;
   }();
   return problem;
}

bool kernelRequired() {
   char const* v = std::getenv("VELD_REQUIRE_KERNEL");
   return v && std::strcmp(v, "1") == 0;
}

uint64_t currentNetNsInode() {
   struct stat st {};
   if (::stat("/proc/thread-self/ns/net", &st) != 0) return 0;
   return st.st_ino;
}

LogCapture::LogCapture() {
   previous_ = Mox::logSinkIs([this](Mox::LogRecord const& r) { lines_.push_back(r.text); });
}

LogCapture::~LogCapture() { Mox::logSinkIs(std::move(previous_)); }

bool LogCapture::contains(std::string const& text) const {
   for (auto const& l : lines_) {
      if (l.find(text) != std::string::npos) return true;
   }
   return false;
}

void KernelFixture::SetUp() {
   auto const& problem = kernelSandboxProblem();
   if (!problem.empty()) {
      if (kernelRequired()) FAIL() << "VELD_REQUIRE_KERNEL=1 but " << problem;
      GTEST_SKIP() << problem;
   }
   int error = 0;
   sock_ = Konet::createNetlinkSocket(Konet::NamespaceName(), 0, 2, true, 0, &error);
   ASSERT_TRUE(sock_) << "netlink socket: " << std::strerror(error);
}

void KernelFixture::TearDown() {
   removeAll();
   sock_.reset();
}

std::string KernelFixture::uniqueName(char const* prefix) {
   static std::atomic<unsigned> counter{0};
   std::string name = std::string(prefix) + std::to_string(::getpid()) + "_" +
                      std::to_string(counter.fetch_add(1) % 10000);
   return name;
}

Konet::NamespaceName KernelFixture::createNamespace() {
   Konet::NamespaceName ns("veldtest-" + uniqueName(""));
   int rc = Konet::createNamedNamespace(ns);
   EXPECT_EQ(rc, 0) << "createNamedNamespace " << ns << ": " << std::strerror(rc);
   if (rc == 0) {
      std::lock_guard lock(registry().mutex);
      registry().namespaces.push_back(ns);
   }
   return ns;
}

KernelFixture::Veth KernelFixture::createVeth() {
   Veth v;
   std::string base = uniqueName("t");
   v.name = base + "a";
   v.peer = base + "b";
   int rc = Konet::createVethPair(sock(), v.name, v.peer);
   EXPECT_EQ(rc, 0) << "createVethPair " << v.name << ": " << std::strerror(rc);
   if (rc == 0) {
      std::lock_guard lock(registry().mutex);
      registry().devices.push_back(v.name);
      registry().devices.push_back(v.peer);
   }
   EXPECT_EQ(Konet::linkIndex(sock(), v.name, &v.ifindex), 0);
   EXPECT_EQ(Konet::linkIndex(sock(), v.peer, &v.peerIfindex), 0);
   return v;
}

std::string KernelFixture::createBridge(int* ifindex) {
   std::string name = uniqueName("br");
   int rc = Konet::createBridge(sock(), name);
   EXPECT_EQ(rc, 0) << "createBridge " << name << ": " << std::strerror(rc);
   if (rc == 0) {
      std::lock_guard lock(registry().mutex);
      registry().devices.push_back(name);
   }
   EXPECT_EQ(Konet::linkIndex(sock(), name, ifindex), 0);
   return name;
}

std::vector<Konet::AddrInfo> KernelFixture::addrs(int ifindex, int family, int sock) {
   std::vector<Konet::AddrInfo> out;
   int rc = Konet::dumpAddrs(sock >= 0 ? sock : this->sock(), family, ifindex, &out);
   EXPECT_EQ(rc, 0) << "dumpAddrs: " << std::strerror(rc);
   return out;
}

Konet::LinkInfo KernelFixture::link(int ifindex, int sock) {
   Konet::LinkInfo info;
   int rc = Konet::getLink(sock >= 0 ? sock : this->sock(), ifindex, &info);
   EXPECT_EQ(rc, 0) << "getLink " << ifindex << ": " << std::strerror(rc);
   return info;
}

}  // namespace KonetTest
