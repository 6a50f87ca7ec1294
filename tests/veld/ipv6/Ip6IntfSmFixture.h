// One VRF's IPv6 machine against the real kernel of the test's private namespace: the
// machine's inputs as the roots build them, a kernel mirror fed from netlink, veth devices as
// interfaces, and virtual time driving the backlog. Duplicate address detection runs in the
// kernel's real time, so tests that wait for it poll the kernel with a deadline.
#pragma once

#include <linux/if.h>
#include <sys/socket.h>

#include <set>

#include "linux/KernelMirror.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"
#include "linux/ProcSys.h"
#include "mox/Trace.h"
#include "platform/NetNsIntfStatusManagerRoot.h"
#include "tests/linux/KernelFixture.h"
#include "veld/addr/AddrMappingSm.h"
#include "veld/ipv6/Ip6IntfSm.h"

namespace VeldTest {

using Konet::IntfId;
using Konet::Ip6AddrWithMask;
using Mox::make;
using Set = std::set<std::string>;

inline Ip6AddrWithMask v6(char const* s) { return *Ip6AddrWithMask::parse(s); }

// Records the kernel work in its order, and lets a test fail chosen /proc paths.
class Ip6RecordingIo : public Veld::KernelIoDecorator {
public:
   Ip6RecordingIo() : KernelIoDecorator(Veld::KernelIo::current()) {}
   int writeProcSys(std::string_view path, std::string_view value) override {
      int err = failPath.empty() || path.find(failPath) == std::string_view::npos
                    ? inner_.writeProcSys(path, value)
                    : failWith;
      ops.push_back("write " + std::string(path) + "=" + std::string(value));
      if (err == 0) ++writes;
      return err;
   }
   int readProcSys(std::string_view path, std::string* value) override {
      ops.push_back("read " + std::string(path));
      return inner_.readProcSys(path, value);
   }
   int ip6AddrAdd(int sock, int ifindex, Ip6AddrWithMask const& a) override {
      ops.push_back("add " + a.toString());
      ++adds;
      return inner_.ip6AddrAdd(sock, ifindex, a);
   }
   int ip6AddrDel(int sock, int ifindex, Ip6AddrWithMask const& a) override {
      ops.push_back("del " + a.toString());
      ++dels;
      return inner_.ip6AddrDel(sock, ifindex, a);
   }
   // The index of the first operation that begins with `prefix` (ops.size() if none).
   size_t first(std::string const& prefix) const {
      for (size_t i = 0; i < ops.size(); ++i)
         if (ops[i].starts_with(prefix)) return i;
      return ops.size();
   }
   size_t count(std::string const& prefix) const {
      size_t n = 0;
      for (auto const& o : ops)
         n += o.starts_with(prefix);
      return n;
   }

   std::vector<std::string> ops;
   std::string failPath;
   int failWith = EIO;
   int writes = 0, adds = 0, dels = 0;
};

class Ip6IntfSmFixture : public KonetTest::KernelFixture {
protected:
   void SetUp() override {
      KernelFixture::SetUp();
      if (IsSkipped() || HasFatalFailure()) return;
      previousIo_ = Veld::KernelIo::currentIs(&io);
      mirror = std::make_unique<Konet::KernelMirror>("default");
      ASSERT_EQ(mirror->start(), 0);
      int err = 0;
      netlink_ = Konet::createNetlinkSocket("default", 0, 2, true, 0, &err);
      ASSERT_TRUE(netlink_);
      managerRoot = make<Interface::NetNsIntfStatusManagerRoot>(allIntfStatus, nullptr, false);
      manager = managerRoot->intfStatusManagerIs("default");
      addrMap = make<Veld::AddrMap>(mirror->status());
      addrMapSm = Veld::AddrMappingSmIs(mirror->status(), addrMap);
      routing->routingIs(true);
   }
   void TearDown() override {
      sm = nullptr;
      if (previousIo_) Veld::KernelIo::currentIs(previousIo_);
      KernelFixture::TearDown();
   }

   void makeSm(bool standby = false) {
      sm = make<Veld::Ip6IntfSm>(
          Veld::Ip6IntfSm::Inputs{.ip6Config = ip6Config,
                                  .vrfIp6IntfConfig = view,
                                  .addrMap = addrMap,
                                  .kernelIntfDir = manager->deviceIntfStatusDir(),
                                  .routingInfoConfig = routing,
                                  .systemIntfIp6Status = systemStatus,
                                  .localIntfIp6Status = localStatus,
                                  .systemL3IntfStatus = systemL3,
                                  .localL3IntfStatus = localL3,
                                  .multicastGroups = groups,
                                  .netlinkSocket = netlink_.get(),
                                  .allIntfStatusDir = allIntfStatus,
                                  .kniIntfStatusManager = manager,
                                  .vrfName = view->vrfName(),
                                  .warpState = warp,
                                  .timerWheel = wheel,
                                  .urpfOnAllIntfStat = urpf,
                                  .ip6Enable = enable,
                                  .ownAddrs = own,
                                  .vrfIpIntfConfig = ipView},
          standby);
   }
   // A restarted agent: a new machine and a new address map seeded from the kernel, the
   // record of its own addresses kept.
   void restart() {
      sm = nullptr;
      mirror->processEvents();
      addrMap = make<Veld::AddrMap>(mirror->status());
      addrMapSm = Veld::AddrMappingSmIs(mirror->status(), addrMap);
      makeSm();
   }

   // The EUI-64 the platform publishes for a MAC: ff:fe between its halves, or the MAC-48
   // form with ff:ff.
   static Interface::Eui64 eui64Of(std::array<uint8_t, 6> const& m, bool mac48 = false) {
      return {m[0], m[1], m[2], 0xff, uint8_t(mac48 ? 0xff : 0xfe), m[3], m[4], m[5]};
   }

   // An interface on a fresh veth whose peer is up, routed and configured for IPv6 in this
   // VRF, without DAD unless a test asks for it.
   struct Intf {
      IntfId id;
      Veth veth;
      Mox::Ptr<Ip6::IntfConfig> config;
      Mox::Ptr<Interface::IntfStatus> status;
      std::array<uint8_t, 6> mac{};
   };
   Intf addIntf(char const* id, bool mac48 = false) {
      Intf i{IntfId(id), createVeth(), nullptr, nullptr, {}};
      devs_.push_back(i.veth.ifindex);
      EXPECT_EQ(Konet::setLinkUp(sock(), i.veth.peerIfindex, true), 0);
      EXPECT_EQ(Konet::setLinkUp(sock(), i.veth.ifindex, true), 0);
      EXPECT_TRUE(KonetTest::waitFor([&] { return link(i.veth.ifindex).flags & IFF_RUNNING; }));
      i.mac = link(i.veth.ifindex).mac;
      i.status = allIntfStatus->intfStatusIs(i.id);
      i.status->deviceNameIs(i.veth.name);
      i.status->eui64Is(eui64Of(i.mac, mac48));
      i.status->forwardingModelIs(Interface::IntfForwardingModel::intfForwardingModelRouted);
      auto l3 = l3Config->intfConfigIs(i.id);
      l3->vrfIs("default");
      i.config = ip6Config->intfIs(i.id);
      i.config->l3ConfigIs(l3);
      i.config->enableIs(true);
      i.config->acceptDadIs(Ip6::AcceptDadMode::dadDisabled);
      return i;
   }
   void place(Intf const& i) { view->ipIntfConfigIs(i.config); }

   // The kernel's link-local address for a MAC (what it generates itself too).
   static std::string linkLocalOf(std::array<uint8_t, 6> const& m) {
      Konet::Ip6Addr::Bytes b{0xfe, 0x80, 0,    0,    0,    0,    0,   0, uint8_t(m[0] ^ 2),
                              m[1], m[2], 0xff, 0xfe, m[3], m[4], m[5]};
      return Konet::Ip6Addr(b).toString() + "/64";
   }

   // Lets the kernel's notifications and the backlog run until nothing is left to do, also
   // of the kernel's own work that follows (link-local addresses, DAD), on every device.
   void settle(int rounds = 60) {
      settleVirtual(rounds);
      if (!sm) return;
      EXPECT_TRUE(KonetTest::waitFor([&] {
         settleVirtual(4);
         // Work still queued may be the status update for what the mirror just reported.
         if (sm->ip6IntfKernelUpdateCodefListSize()) return false;
         for (int i : devs_) {
            // The machine must have seen the end of DAD too: it adds globals after it.
            if (!tentative(i).empty() || knownAddrs(i) != kernelAddrs(i) || knownTentative(i))
               return false;
         }
         return true;
      })) << "the kernel did not settle";
   }
   // Addresses in DAD, not failed.
   Set tentative(int ifindex) {
      Set out;
      for (auto const& a : addrs(ifindex, AF_INET6)) {
         if ((a.flags & 0x48) == 0x40) out.insert(a.addr.toString());
      }
      return out;
   }
   void settleVirtual(int rounds) {
      for (int n = 0; n < rounds; ++n) {
         mirror->processEvents();
         Mox::activityManager().advanceBy(0.011);
         if (sm && sm->ip6IntfKernelUpdateCodefListSize() == 0 && n > 2) {
            mirror->processEvents();
            if (sm->ip6IntfKernelUpdateCodefListSize() == 0) return;
         }
      }
   }
   // Settles until `pred` holds, for kernel work that takes real time (DAD, RAs).
   template <class Pred>
   bool settleUntil(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(8)) {
      return KonetTest::waitFor(
          [&] {
             settle(4);
             return pred();
          },
          timeout);
   }
   // The kernel's IPv6 addresses of a device, and those it flags as DAD-failed.
   Set kernelAddrs(int ifindex, uint32_t withFlags = 0) {
      Set out;
      for (auto const& a : addrs(ifindex, AF_INET6)) {
         if ((a.flags & withFlags) != withFlags) continue;
         out.insert(a.addr.toString() + "/" + std::to_string(a.prefixLen));
      }
      return out;
   }
   // The device's addresses as the machine knows them from the mirror.
   Set knownAddrs(int ifindex) {
      Set out;
      auto const* k =
          sm ? sm->kernelAddrs6(KernelNetInfo::InterfaceKey{uint32_t(ifindex)}) : nullptr;
      for (auto const& [a, flags] : k ? *k : Veld::KernelAddrs6())
         out.insert(a.toString());
      return out;
   }
   bool knownTentative(int ifindex) {
      auto const* k =
          sm ? sm->kernelAddrs6(KernelNetInfo::InterfaceKey{uint32_t(ifindex)}) : nullptr;
      for (auto const& [a, flags] : k ? *k : Veld::KernelAddrs6()) {
         if ((flags & 0x48) == 0x40) return true;
      }
      return false;
   }
   Set statusAddrs(IntfId const& id) {
      Set out;
      if (auto s = systemStatus->ip6IntfStatus(id)) {
         for (auto const& a : s->addrIterator())
            out.insert(a.toString());
      }
      return out;
   }
   std::string proc(std::string const& dev, char const* file, char const* dir = "conf") {
      std::string value;
      Konet::readProcSys(std::string("/proc/sys/net/ipv6/") + dir + "/" + dev + "/" + file, &value);
      return value;
   }
   void sh(std::string const& cmd) {
      ASSERT_EQ(std::system((cmd + " >/dev/null 2>&1").c_str()), 0) << cmd;
   }

   Mox::ScopedVirtualTime time{1000.0};
   Ip6RecordingIo io;
   std::unique_ptr<Konet::KernelMirror> mirror;
   Mox::Ptr<Ip6::Config> ip6Config = make<Ip6::Config>();
   Mox::Ptr<L3::Intf::ConfigDir> l3Config = make<L3::Intf::ConfigDir>();
   Mox::Ptr<Veld::VrfIp6IntfConfig> view = make<Veld::VrfIp6IntfConfig>(L3::VrfName("default"));
   // The VRF's IPv4 view, which the machine reads for IFF_NOARP.
   Mox::Ptr<Veld::VrfIpIntfConfig> ipView = make<Veld::VrfIpIntfConfig>(L3::VrfName("default"));
   Mox::Ptr<Interface::AllIntfStatusDir> allIntfStatus = make<Interface::AllIntfStatusDir>();
   Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> managerRoot;
   Mox::Ptr<Interface::KniIntfStatusManager> manager;
   Mox::Ptr<Veld::AddrMap> addrMap;
   Mox::Ptr<Veld::AddrMappingSm> addrMapSm;
   Mox::Ptr<Routing6::InfoConfig> routing = make<Routing6::InfoConfig>();
   Mox::Ptr<Ip6::Input::Status> systemStatus = make<Ip6::Input::Status>("veld");
   Mox::Ptr<Ip6::Input::Status> localStatus = make<Ip6::Input::Status>("veld-local");
   Mox::Ptr<L3::Intf::Input::StatusDir> systemL3 = make<L3::Intf::Input::StatusDir>("veld");
   Mox::Ptr<L3::Intf::Input::StatusDir> localL3 = make<L3::Intf::Input::StatusDir>("veld-local");
   Mox::Ptr<Ip6::MulticastGroupsForApplications> groups =
       make<Ip6::MulticastGroupsForApplications>();
   Mox::Ptr<Veld::WarpState> warp = make<Veld::WarpState>("warp");
   Mox::Ptr<Bolt::TimerWheel> wheel = make<Bolt::TimerWheel>();
   Mox::Ptr<Ip6::Ip6Enable> enable = make<Ip6::Ip6Enable>();
   Mox::Ptr<Urpf::UrpfOnAllIntfStat> urpf = make<Urpf::UrpfOnAllIntfStat>();
   Mox::Ptr<Veld::Ip6OwnAddrs> own = make<Veld::Ip6OwnAddrs>();
   Mox::Ptr<Veld::Ip6IntfSm> sm;

private:
   std::vector<int> devs_;
   Konet::Fd netlink_;
   Veld::KernelIo* previousIo_ = nullptr;
};

}  // namespace VeldTest
