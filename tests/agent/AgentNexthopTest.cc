// Nexthop resolution in the running agent against the kernel's routes of the test's own
// namespace, changed with `ip route`: what `veld show nexthops` reports next to what the
// kernel's own lookup says, control clients, and the subscription's pushed lines.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/JsonRead.h"
#include "linux/NetlinkLink.h"
#include "tests/agent/VeldProcess.h"
#include "tests/linux/KernelFixture.h"

namespace {

using VeldTest::VeldProcess;
using Json = nlohmann::json;

std::string run(std::string const& cmd) {
   std::string out;
   FILE* f = popen(cmd.c_str(), "r");
   if (!f) return out;
   char buf[4096];
   size_t n;
   while ((n = fread(buf, 1, sizeof buf, f)) > 0)
      out.append(buf, n);
   pclose(f);
   return out;
}

// A subscriber on the control socket: reads the pushed lines.
class Subscriber {
public:
   Subscriber(std::string const& socketPath, std::string const& client) {
      fd_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      sockaddr_un sa{};
      sa.sun_family = AF_UNIX;
      std::strncpy(sa.sun_path, socketPath.c_str(), sizeof sa.sun_path - 1);
      EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
      std::string line = R"({"subscribe": ")" + client + "\"}\n";
      EXPECT_EQ(::send(fd_.get(), line.data(), line.size(), MSG_NOSIGNAL), ssize_t(line.size()));
   }
   // The next line, or null after `ms` without one.
   Json next(int ms = 5000) {
      for (;;) {
         if (auto nl = buf_.find('\n'); nl != std::string::npos) {
            auto line = buf_.substr(0, nl);
            buf_.erase(0, nl + 1);
            return Json::parse(line);
         }
         pollfd p{fd_.get(), POLLIN, 0};
         if (::poll(&p, 1, ms) <= 0) return nullptr;
         char b[4096];
         ssize_t n = ::read(fd_.get(), b, sizeof b);
         if (n <= 0) return nullptr;
         buf_.append(b, size_t(n));
      }
   }
   // The next line about `nexthop`.
   Json nextFor(std::string const& nexthop) {
      for (Json j = next(); !j.is_null(); j = next()) {
         if (j.value("nexthop", "") == nexthop) return j;
      }
      return nullptr;
   }

private:
   Konet::Fd fd_;
   std::string buf_;
};

class AgentNexthops : public KonetTest::KernelFixture {
protected:
   void SetUp() override {
      KernelFixture::SetUp();
      if (IsSkipped() || HasFatalFailure()) return;
      et1 = createVeth();
      ASSERT_EQ(Konet::setLinkUp(sock(), et1.peerIfindex, true), 0);
      ASSERT_EQ(Konet::setLinkUp(sock(), et1.ifindex, true), 0);
   }
   void TearDown() override {
      if (veld.running()) veld.kill9();
      if (HasFailure()) std::printf("veld's log:\n%s\n", veld.log().c_str());
      std::system("ip route flush 10.77.0.0/16 2>/dev/null");
      KernelFixture::TearDown();
   }
   std::string config(bool ipv4Routing = true) const {
      return R"({"vrfs": {"default": {"ipv4Routing": )" +
             std::string(ipv4Routing ? "true" : "false") +
             R"(, "nexthops": ["10.77.1.5", "10.99.0.1"]}},
         "interfaces": {"Ethernet1": {"device": ")" +
             et1.name + R"(", "ipv4": {"address": "10.9.0.1/24"}}}})";
   }
   static void ip(std::string const& args) {
      ASSERT_EQ(std::system(("ip " + args).c_str()), 0) << args;
   }
   // The agent's entry for one nexthop.
   Json shown(std::string const& nexthop, std::string const& client = "config") {
      auto const all = veld.show("nexthops");
      for (auto const& n : all.at("nexthops")) {
         if (n.at("nexthop") == nexthop && n.at("client") == client) return n;
      }
      return nullptr;
   }
   bool waitShown(std::string const& nexthop, std::function<bool(Json const&)> pred,
                  std::string const& client = "config") {
      return KonetTest::waitFor([&] {
         auto n = shown(nexthop, client);
         return !n.is_null() && pred(n);
      });
   }
   // The kernel's own answer for the address: its gateway and device.
   std::pair<std::string, std::string> kernelRoute(std::string const& addr) {
      auto j = Json::parse(run("ip -j route get " + addr));
      return {j.at(0).value("gateway", ""), j.at(0).value("dev", "")};
   }

   Veth et1;
   VeldProcess veld;
};

TEST_F(AgentNexthops, ResolvesThroughTheKernelsRoutesAndFollowsThem) {
   veld.writeConfig(config());
   veld.start();
   ASSERT_TRUE(veld.waitConverged());
   ip("route add 10.77.0.0/16 via 10.9.0.2");
   ASSERT_TRUE(waitShown("10.77.1.5", [](Json const& n) { return n.at("resolved") == true; }))
       << veld.show("nexthops").dump() << run("ip route");
   auto n = shown("10.77.1.5");
   EXPECT_EQ(n.at("prefix"), "10.77.0.0/16");
   auto [gw, dev] = kernelRoute("10.77.1.5");
   EXPECT_EQ(n.at("vias").at(0).at("gateway"), gw);
   EXPECT_EQ(n.at("vias").at(0).at("device"), dev);
   EXPECT_EQ(shown("10.99.0.1").at("reason"), "no route");

   Subscriber sub(veld.runDir() + "/veld.sock", "config");
   ASSERT_EQ(sub.next().value("subscribed", ""), "config");

   // A more specific route takes over; then it goes, and the shorter one is back.
   ip("route add 10.77.1.0/24 via 10.9.0.3");
   auto line = sub.nextFor("10.77.1.5");
   ASSERT_FALSE(line.is_null());
   EXPECT_EQ(line.at("prefix"), "10.77.1.0/24");
   EXPECT_EQ(line.at("vias").at(0).at("gateway"), kernelRoute("10.77.1.5").first);
   ip("route del 10.77.1.0/24");
   line = sub.nextFor("10.77.1.5");
   ASSERT_FALSE(line.is_null());
   EXPECT_EQ(line.at("prefix"), "10.77.0.0/16");
   ip("route del 10.77.0.0/16");
   line = sub.nextFor("10.77.1.5");
   ASSERT_FALSE(line.is_null());
   EXPECT_EQ(line.at("resolved"), false);
   EXPECT_EQ(line.at("reason"), "no route");
   // A route that covers no nexthop pushes nothing.
   ip("route add 10.88.0.0/16 via 10.9.0.2");
   EXPECT_TRUE(sub.next(300).is_null());
   ip("route del 10.88.0.0/16");

   // Routing off for IPv4: unresolved for that reason, then resolved again.
   ip("route add 10.77.0.0/16 via 10.9.0.2");
   line = sub.nextFor("10.77.1.5");
   ASSERT_FALSE(line.is_null());
   veld.writeConfig(config(false));
   veld.signal(SIGHUP);
   line = sub.nextFor("10.77.1.5");
   ASSERT_FALSE(line.is_null());
   EXPECT_EQ(line.at("reason"), "routing disabled");
   veld.writeConfig(config(true));
   veld.signal(SIGHUP);
   line = sub.nextFor("10.77.1.5");
   ASSERT_FALSE(line.is_null());
   EXPECT_EQ(line.at("prefix"), "10.77.0.0/16");
}

TEST_F(AgentNexthops, ControlClientsAreTrackedApartAndLeaveCleanly) {
   veld.writeConfig(config());
   veld.start();
   ASSERT_TRUE(veld.waitConverged());
   ip("route add 10.77.0.0/16 via 10.9.0.2");
   auto answer = Json::parse(veld.request(
       R"({"nexthops": {"client": "bgp", "vrf": "default", "set": ["10.77.3.3", "10.9.0.7"]}})"));
   EXPECT_EQ(answer.at("nexthops"), 2) << answer.dump();
   ASSERT_TRUE(waitShown(
       "10.77.3.3", [](Json const& n) { return n.at("resolved") == true; }, "bgp"));
   ASSERT_TRUE(waitShown(
       "10.9.0.7", [](Json const& n) { return n.at("resolved") == true; }, "bgp"));
   EXPECT_EQ(shown("10.9.0.7", "bgp").at("prefix"), "10.9.0.0/24");  // connected
   EXPECT_EQ(shown("10.9.0.7", "bgp").at("vias").at(0).at("gateway"), "");
   EXPECT_EQ(shown("10.9.0.7", "bgp").at("vias").at(0).at("device"), et1.name);
   // The configuration's own client cannot be set from outside; bad requests name the place.
   EXPECT_NE(veld.request(R"({"nexthops": {"client": "config", "vrf": "default", "set": []}})")
                 .find("error"),
             std::string::npos);
   EXPECT_NE(veld.request(R"({"nexthops": {"client": "bgp", "vrf": "default", "set": ["x"]}})")
                 .find("/nexthops/set/0"),
             std::string::npos);
   // Leaving: an empty set.
   veld.request(R"({"nexthops": {"client": "bgp", "vrf": "default", "set": []}})");
   EXPECT_TRUE(shown("10.77.3.3", "bgp").is_null());
   EXPECT_FALSE(shown("10.77.1.5").is_null());
   std::string table;
   EXPECT_EQ(VeldProcess::command(
                 {"show", "nexthops", "--vrf", "default", "--run-dir", veld.runDir()}, &table),
             0);
   EXPECT_NE(table.find("10.77.0.0/16"), std::string::npos) << table;
   EXPECT_NE(table.find("unresolved: no route"), std::string::npos) << table;
}

}  // namespace
