// One VRF's IPv4 machine against the real kernel of the test's private namespace: the
// machine's inputs as the roots would build them, a kernel mirror fed from netlink, veth
// devices as interfaces, and virtual time driving the backlog.
#pragma once

#include <linux/if.h>
#include <sys/socket.h>

#include <map>
#include <set>

#include "linux/KernelMirror.h"
#include "linux/NetlinkAddr.h"
#include "linux/NetlinkLink.h"
#include "linux/ProcSys.h"
#include "mox/Trace.h"
#include "platform/NetNsIntfStatusManagerRoot.h"
#include "tests/linux/KernelFixture.h"
#include "veld/addr/AddrMappingSm.h"
#include "veld/config/VrfIpIntfConfig.h"
#include "veld/ipv4/IpIntfConfigReactors.h"
#include "veld/ipv4/IpIntfSm.h"
#include "veld/redundancy/WarpState.h"

namespace VeldTest {

using Konet::IntfId;
using Konet::IpAddrWithMask;
using Mox::make;

inline IpAddrWithMask v4(char const* s) { return *IpAddrWithMask::parse(s); }

// Records every /proc write and lets a test fail chosen paths or charge time per operation.
class RecordingIo : public Veld::KernelIoDecorator {
public:
   RecordingIo() : KernelIoDecorator(Veld::KernelIo::current()) {}
   int writeProcSys(std::string_view path, std::string_view value) override {
      if (elapsePerOp) elapse();
      int err = failPath.empty() || path.find(failPath) == std::string_view::npos
                    ? inner_.writeProcSys(path, value)
                    : failWith;
      writes.emplace_back(std::string(path), std::string(value), err);
      return err;
   }
   // A setting the kernel lacks can be made to look present when "all" is asked for it.
   int readProcSys(std::string_view path, std::string* value) override {
      if (!pretendPresent.empty() && path.ends_with("/all/" + pretendPresent)) {
         *value = "0";
         return 0;
      }
      return inner_.readProcSys(path, value);
   }
   int ipAddrAdd(int sock, int ifindex, IpAddrWithMask const& a, uint32_t ifaFlags) override {
      if (elapsePerOp) elapse();
      ++addrOps;
      return inner_.ipAddrAdd(sock, ifindex, a, ifaFlags);
   }
   int ipAddrDel(int sock, int ifindex, IpAddrWithMask const& a) override {
      if (elapsePerOp) elapse();
      ++addrOps;
      return inner_.ipAddrDel(sock, ifindex, a);
   }
   // The writes to paths ending in `suffix`.
   std::vector<std::pair<std::string, int>> writesTo(std::string const& suffix) const {
      std::vector<std::pair<std::string, int>> out;
      for (auto const& [p, v, e] : writes) {
         if (p.size() >= suffix.size() &&
             p.compare(p.size() - suffix.size(), suffix.size(), suffix) == 0) {
            out.emplace_back(v, e);
         }
      }
      return out;
   }
   void elapse() {
      static_cast<Mox::VirtualTimeSource*>(Mox::ActivityManagerConfig::clock)->elapse(elapsePerOp);
   }

   std::vector<std::tuple<std::string, std::string, int>> writes;
   std::string failPath;
   std::string pretendPresent;
   int failWith = EIO;
   double elapsePerOp = 0.0;
   int addrOps = 0;
};

class IpIntfSmFixture : public KonetTest::KernelFixture {
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
      routingInfo->routingIs(true);
   }
   void TearDown() override {
      sm = nullptr;
      if (previousIo_) Veld::KernelIo::currentIs(previousIo_);
      KernelFixture::TearDown();
   }

   void makeSm(bool standby = false) {
      sm = newSm(view, addrMap, manager, netlink_.get(), standby);
   }
   // A machine for the VRF of `vrfView`, sharing every other input with the fixture's.
   Mox::Ptr<Veld::IpIntfSm> newSm(Mox::Ptr<Veld::VrfIpIntfConfig> const& vrfView,
                                  Mox::Ptr<Veld::AddrMap> const& map,
                                  Mox::Ptr<Interface::KniIntfStatusManager> const& mgr, int netlink,
                                  bool standby = false) {
      return make<Veld::IpIntfSm>(
          Veld::IpIntfSm::Inputs{.ipConfig = ipConfig,
                                 .vrfIpIntfConfig = vrfView,
                                 .addrMap = map,
                                 .kernelIntfDir = mgr->deviceIntfStatusDir(),
                                 .kernelProtoConfig = kernelProto,
                                 .routingInfoConfig = routingInfo,
                                 .systemIntfIpStatus = systemStatus,
                                 .localIntfIpStatus = localStatus,
                                 .systemL3IntfStatus = systemL3,
                                 .localL3IntfStatus = localL3,
                                 .netlinkSocket = netlink,
                                 .allIntfStatusDir = allIntfStatus,
                                 .kniIntfStatusManager = mgr,
                                 .vrfName = vrfView->vrfName(),
                                 .routingHardwareStatus = hardware,
                                 .warpState = warp,
                                 .timerWheel = wheel,
                                 .updateIpIntfStatusVrfReq = updateVrfReq,
                                 .updateIpIntfStatusReq = updateReq,
                                 .urpfOnAllIntfStat = urpfStat,
                                 .proxyArpVirtualMac = virtualMac},
          standby);
   }

   // An interface on a fresh veth whose peer is up, configured for IPv4 in this VRF.
   struct Intf {
      IntfId id;
      Veth veth;
      Mox::Ptr<Ip::IpIntfConfig> config;
      Mox::Ptr<Interface::IntfStatus> status;
   };
   Intf addIntf(char const* id, bool routed = true, bool up = true) {
      Intf i{IntfId(id), createVeth(), nullptr, nullptr};
      if (up) {
         EXPECT_EQ(Konet::setLinkUp(sock(), i.veth.peerIfindex, true), 0);
         EXPECT_EQ(Konet::setLinkUp(sock(), i.veth.ifindex, true), 0);
         // The kernel reports carrier a little later (link watch); wait for it.
         EXPECT_TRUE(KonetTest::waitFor([&] { return link(i.veth.ifindex).flags & IFF_RUNNING; }));
      }
      i.status = allIntfStatus->intfStatusIs(i.id);
      i.status->deviceNameIs(i.veth.name);
      i.status->forwardingModelIs(routed
                                      ? Interface::IntfForwardingModel::intfForwardingModelRouted
                                      : Interface::IntfForwardingModel::intfForwardingModelBridged);
      auto l3 = l3Config->intfConfigIs(i.id);
      l3->vrfIs("default");
      i.config = ipConfig->ipIntfConfigIs(i.id);
      i.config->l3ConfigIs(l3);
      return i;
   }
   void place(Intf const& i) { view->ipIntfConfigIs(i.config); }

   // Lets the kernel's notifications and the backlog run until nothing is left to do.
   void settle(int rounds = 40) {
      for (int n = 0; n < rounds; ++n) {
         mirror->processEvents();
         Mox::activityManager().advanceBy(0.011);
         if (sm && sm->ipIntfKernelUpdateCodefListSize() == 0 && n > 2) {
            mirror->processEvents();
            if (sm->ipIntfKernelUpdateCodefListSize() == 0) return;
         }
      }
   }
   // The kernel's IPv4 addresses of a device, in the kernel's order.
   std::vector<std::string> kernelAddrs(int ifindex) {
      std::vector<std::string> out;
      for (auto const& a : addrs(ifindex, AF_INET)) {
         out.push_back(a.addr.toString() + "/" + std::to_string(a.prefixLen));
      }
      return out;
   }
   std::set<std::string> kernelAddrSet(int ifindex) {
      auto v = kernelAddrs(ifindex);
      return {v.begin(), v.end()};
   }
   std::string proc(std::string const& dev, char const* file) {
      std::string value;
      Konet::readProcSys("/proc/sys/net/ipv4/conf/" + dev + "/" + file, &value);
      return value;
   }
   Mox::Ptr<Ip::IpIntfStatus> ipStatus(IntfId const& id) { return systemStatus->ipIntfStatus(id); }

   Mox::ScopedVirtualTime time{1000.0};
   RecordingIo io;
   std::unique_ptr<Konet::KernelMirror> mirror;
   Mox::Ptr<Ip::Config> ipConfig = make<Ip::Config>();
   Mox::Ptr<L3::Intf::ConfigDir> l3Config = make<L3::Intf::ConfigDir>();
   Mox::Ptr<Veld::VrfIpIntfConfig> view = make<Veld::VrfIpIntfConfig>(L3::VrfName("default"));
   Mox::Ptr<Interface::AllIntfStatusDir> allIntfStatus = make<Interface::AllIntfStatusDir>();
   Mox::Ptr<Interface::NetNsIntfStatusManagerRoot> managerRoot;
   Mox::Ptr<Interface::KniIntfStatusManager> manager;
   Mox::Ptr<Veld::AddrMap> addrMap;
   Mox::Ptr<Veld::AddrMappingSm> addrMapSm;
   Mox::Ptr<Routing::KernelProtoConfig> kernelProto = make<Routing::KernelProtoConfig>();
   Mox::Ptr<Routing::InfoConfig> routingInfo = make<Routing::InfoConfig>();
   Mox::Ptr<Routing::Hardware::Status> hardware = make<Routing::Hardware::Status>();
   Mox::Ptr<Ip::Input::Status> systemStatus = make<Ip::Input::Status>("veld");
   Mox::Ptr<Ip::Input::Status> localStatus = make<Ip::Input::Status>("veld-local");
   Mox::Ptr<L3::Intf::Input::StatusDir> systemL3 = make<L3::Intf::Input::StatusDir>("veld");
   Mox::Ptr<L3::Intf::Input::StatusDir> localL3 = make<L3::Intf::Input::StatusDir>("veld-local");
   Mox::Ptr<Veld::WarpState> warp = make<Veld::WarpState>("warp");
   Mox::Ptr<Bolt::TimerWheel> wheel = make<Bolt::TimerWheel>();
   Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests> updateVrfReq =
       make<L3::UpdateIpIntfStatusVrfRequests>();
   Mox::Ptr<L3::UpdateIpIntfStatusRequests> updateReq = make<L3::UpdateIpIntfStatusRequests>();
   Mox::Ptr<Urpf::UrpfOnAllIntfStat> urpfStat = make<Urpf::UrpfOnAllIntfStat>();
   Mox::Ptr<ProxyArp::VirtualMacStatus> virtualMac = make<ProxyArp::VirtualMacStatus>();
   Mox::Ptr<Veld::IpIntfSm> sm;

private:
   Konet::Fd netlink_;
   Veld::KernelIo* previousIo_ = nullptr;
};

}  // namespace VeldTest
