// Choosing each interface's primary address among the command line, DHCP and a lender.
#include <gtest/gtest.h>

#include "tests/veld/TraceCapture.h"
#include "veld/config/IpAddrConfigSelectorSm.h"

using namespace Veld;
using Konet::IntfId;
using Konet::IpAddrWithMask;
using Mox::make;

namespace {

IpAddrWithMask addr(char const* text) { return *IpAddrWithMask::parse(text); }
IpAddrWithMask const kNone;

// Records the output's entries appearing and going as "+<intf>" / "-<intf>", and each
// primary address written as "<intf> <addr>".
class OutputRecorder : public Ip::Config::NotifieeConst {
public:
   OutputRecorder(Mox::Ptr<Ip::Config> const& out, std::vector<std::string>* log) : log_(log) {
      notifierIs(out);
      for (auto const& intf : out->ipIntfConfigIterator().keys())
         watch(intf);
   }
   void onIpIntfConfig(IntfId const& intf) override {
      bool const present = notifier()->ipIntfConfig(intf) != nullptr;
      log_->push_back((present ? "+" : "-") + intf.name());
      if (present) watch(intf);
   }

private:
   class Addr : public Ip::IpIntfConfig::NotifieeConst {
   public:
      explicit Addr(std::vector<std::string>* log) : log_(log) {}
      void onAddrWithMask() override {
         log_->push_back(notifier()->intf().name() + " " + notifier()->addrWithMask().toString());
      }
      std::vector<std::string>* log_;
   };
   void watch(IntfId const& intf) {
      auto r = make<Addr>(log_);
      r->notifierIs(notifier()->ipIntfConfig(intf));
      addrs_.push_back(r);
   }
   std::vector<std::string>* log_;
   std::vector<Mox::Ptr<Addr>> addrs_;
};

struct IpAddrConfigSelectorTest : ::testing::Test {
   Mox::Ptr<Ip::Config> cli = make<Ip::Config>();
   Mox::Ptr<Dhclient::Status> dhcp = make<Dhclient::Status>();
   Mox::Ptr<IpUnnumbered::LenderToBorrowersStatus> lenders =
       make<IpUnnumbered::LenderToBorrowersStatus>();
   Mox::Ptr<Ip::Config> out = make<Ip::Config>();
   Mox::Ptr<IpAddrConfigSelectorSm> sm;

   void start() { sm = IpAddrConfigSelectorSmIs(cli, dhcp, lenders, out); }
   Mox::Ptr<Ip::IpIntfConfig> cliIntf(char const* name, char const* address = nullptr,
                                      Ip::AddrSource source = Ip::AddrSource::cli) {
      auto c = cli->ipIntfConfigIs(IntfId(name));
      c->addrSourceIs(source);
      if (address) c->addrWithMaskIs(addr(address));
      return c;
   }
   Mox::Ptr<Dhclient::IntfStatus> lease(char const* name, char const* address, bool pending) {
      auto s = dhcp->intfStatusIs(IntfId(name));
      s->addrWithMaskIs(addr(address));
      s->pendingIs(pending);
      return s;
   }
   IpAddrWithMask primary(char const* name) const {
      auto o = out->ipIntfConfig(IntfId(name));
      EXPECT_TRUE(o) << name << " has no output entry";
      return o ? o->addrWithMask() : kNone;
   }
};

}  // namespace

TEST_F(IpAddrConfigSelectorTest, DhcpSourceTakesTheLeaseOnlyOnceItIsNoLongerPending) {
   start();
   VeldTest::TraceCapture traces{"VeldAddrSelector"};
   cliIntf("Ethernet1", "10.0.0.1/24", Ip::AddrSource::dhcp);
   EXPECT_EQ(primary("Ethernet1"), kNone);  // DHCP with no status yet: no address

   auto s = lease("Ethernet1", "192.0.2.10/24", true);
   EXPECT_EQ(primary("Ethernet1"), kNone);
   s->pendingIs(false);
   EXPECT_EQ(primary("Ethernet1"), addr("192.0.2.10/24"));
   EXPECT_TRUE(traces.contains(" Intf: Ethernet1 pending: 0"));

   s->addrWithMaskIs(addr("192.0.2.11/24"));  // a new lease
   EXPECT_EQ(primary("Ethernet1"), addr("192.0.2.11/24"));
   s->pendingIs(true);  // renewing from scratch
   EXPECT_EQ(primary("Ethernet1"), kNone);

   // The lease goes (client stopped): still on DHCP, so no address.
   s->pendingIs(false);
   dhcp->intfStatusDel(IntfId("Ethernet1"));
   EXPECT_EQ(primary("Ethernet1"), kNone);
}

TEST_F(IpAddrConfigSelectorTest, SwitchingTheSourceTakesEffectAtOnce) {
   start();
   auto c = cliIntf("Ethernet1", "10.0.0.1/24");
   EXPECT_EQ(primary("Ethernet1"), addr("10.0.0.1/24"));
   lease("Ethernet1", "192.0.2.10/24", false);
   EXPECT_EQ(primary("Ethernet1"), addr("10.0.0.1/24"));  // the lease is ignored on source 0

   c->addrSourceIs(Ip::AddrSource::dhcp);
   EXPECT_EQ(primary("Ethernet1"), addr("192.0.2.10/24"));
   EXPECT_EQ(out->ipIntfConfig(IntfId("Ethernet1"))->addrSource(), Ip::AddrSource::dhcp);
   c->addrWithMaskIs(addr("10.0.0.2/24"));  // the typed address is ignored on source 1
   EXPECT_EQ(primary("Ethernet1"), addr("192.0.2.10/24"));
   c->addrSourceIs(Ip::AddrSource::cli);
   EXPECT_EQ(primary("Ethernet1"), addr("10.0.0.2/24"));

   // 0 -> 1 without a DHCP status; then the lease goes while on the command line.
   auto c2 = cliIntf("Ethernet2", "10.0.2.1/24");
   c2->addrSourceIs(Ip::AddrSource::dhcp);
   EXPECT_EQ(primary("Ethernet2"), kNone);
   dhcp->intfStatusDel(IntfId("Ethernet1"));
   EXPECT_EQ(primary("Ethernet1"), addr("10.0.0.2/24"));
}

TEST_F(IpAddrConfigSelectorTest, EveryAttributeIsCopiedAndSecondariesKeyByKey) {
   start();
   auto l3 = make<L3::Intf::Config>(IntfId("Ethernet1"));
   auto c = cliIntf("Ethernet1", "10.0.0.1/24");
   c->l3ConfigIs(l3);
   c->secondaryWithMaskIs(addr("10.1.0.1/24"));
   c->secondaryWithMaskIs(addr("10.2.0.1/24"));
   c->virtualAddrWithMaskIs(addr("10.3.0.1/24"));
   c->virtualSecondaryWithMaskIs(addr("10.4.0.1/24"));
   c->maxMssIngressIs(1400);
   c->maxMssEgressIs(1300);
   c->configSourceIs(Ip::ConfigSource::unnumbered);
   c->proxyArpEnabledIs(true);
   c->localProxyArpEnabledIs(true);
   c->gratuitousArpAcceptedIs(true);
   c->forwardingIs(false);
   c->noArpIs(Ip::TristateBool::isTrue);
   c->directedBroadcastEnabledIs(true);
   c->attachedRoutesIs(false);
   c->urpfIs(Urpf::UrpfConfig{Urpf::UrpfMode::strict, false});
   c->unnumberedIntfIdIs(IntfId("Loopback0"));
   c->forceDpRoutingEnabledIs(true);
   c->scopeIs(253);

   auto o = out->ipIntfConfig(IntfId("Ethernet1"));
   ASSERT_TRUE(o);
   EXPECT_EQ(o->l3Config(), l3);
   EXPECT_TRUE(o->secondaryWithMask(addr("10.1.0.1/24")));
   EXPECT_TRUE(o->secondaryWithMask(addr("10.2.0.1/24")));
   EXPECT_EQ(o->virtualAddrWithMask(), addr("10.3.0.1/24"));
   EXPECT_TRUE(o->virtualSecondaryWithMask(addr("10.4.0.1/24")));
   EXPECT_EQ(o->maxMssIngress(), 1400);
   EXPECT_EQ(o->maxMssEgress(), 1300);
   EXPECT_EQ(o->configSource(), Ip::ConfigSource::unnumbered);
   EXPECT_TRUE(o->proxyArpEnabled());
   EXPECT_TRUE(o->localProxyArpEnabled());
   EXPECT_TRUE(o->gratuitousArpAccepted());
   EXPECT_FALSE(o->forwarding());
   EXPECT_EQ(o->noArp(), Ip::TristateBool::isTrue);
   EXPECT_TRUE(o->directedBroadcastEnabled());
   EXPECT_FALSE(o->attachedRoutes());
   EXPECT_EQ(o->urpf(), (Urpf::UrpfConfig{Urpf::UrpfMode::strict, false}));
   EXPECT_EQ(o->unnumberedIntfId(), IntfId("Loopback0"));
   EXPECT_TRUE(o->forceDpRoutingEnabled());
   EXPECT_EQ(o->scope(), 253);

   c->secondaryWithMaskDel(addr("10.1.0.1/24"));
   c->virtualSecondaryWithMaskDel(addr("10.4.0.1/24"));
   EXPECT_FALSE(o->secondaryWithMask(addr("10.1.0.1/24")));
   EXPECT_TRUE(o->secondaryWithMask(addr("10.2.0.1/24")));
   EXPECT_FALSE(o->virtualSecondaryWithMask(addr("10.4.0.1/24")));

   cli->ipIntfConfigDel(IntfId("Ethernet1"));
   EXPECT_FALSE(out->ipIntfConfig(IntfId("Ethernet1")));
}

TEST_F(IpAddrConfigSelectorTest, BorrowersFollowTheirLenderAndARemovedOneHasNoAddress) {
   start();
   cliIntf("Ethernet1", nullptr, Ip::AddrSource::none);
   cliIntf("Ethernet2", nullptr, Ip::AddrSource::none);
   auto entry = lenders->lenderToBorrowersEntryIs(IntfId("Loopback0"));
   entry->borrowingIntfIdIs(IntfId("Ethernet1"));
   entry->borrowingIntfIdIs(IntfId("Ethernet2"));
   EXPECT_EQ(primary("Ethernet1"), kNone);  // the lender has no address yet
   entry->addrWithMaskIs(addr("10.9.9.9/32"));
   EXPECT_EQ(primary("Ethernet1"), addr("10.9.9.9/32"));
   EXPECT_EQ(primary("Ethernet2"), addr("10.9.9.9/32"));

   entry->borrowingIntfIdDel(IntfId("Ethernet1"));
   EXPECT_EQ(primary("Ethernet1"), kNone);  // the entry stays, without an address
   EXPECT_EQ(primary("Ethernet2"), addr("10.9.9.9/32"));

   // The last borrower moves to another lender: out of the first, into the second.
   std::vector<std::string> log;
   auto rec = make<OutputRecorder>(out, &log);
   entry->borrowingIntfIdDel(IntfId("Ethernet2"));
   lenders->lenderToBorrowersEntryDel(IntfId("Loopback0"));
   auto other = lenders->lenderToBorrowersEntryIs(IntfId("Loopback1"));
   other->addrWithMaskIs(addr("10.8.8.8/32"));
   other->borrowingIntfIdIs(IntfId("Ethernet2"));
   EXPECT_EQ(log, (std::vector<std::string>{"Ethernet2 0.0.0.0/0", "Ethernet2 10.8.8.8/32"}));

   // An entry that goes with borrowers still in it takes their address away.
   other->borrowingIntfIdIs(IntfId("Ethernet1"));
   lenders->lenderToBorrowersEntryDel(IntfId("Loopback1"));
   EXPECT_EQ(primary("Ethernet1"), kNone);
   EXPECT_EQ(primary("Ethernet2"), kNone);
}

TEST_F(IpAddrConfigSelectorTest, RestartDeletesStaleEntriesFirstThenSettlesEveryAddress) {
   // What the output held before the restart: an interface since removed, a stale secondary,
   // and addresses that are all still right.
   out->ipIntfConfigIs(IntfId("Ethernet9"))->addrWithMaskIs(addr("10.99.0.1/24"));
   auto old1 = out->ipIntfConfigIs(IntfId("Ethernet1"));
   old1->addrWithMaskIs(addr("192.0.2.10/24"));
   old1->secondaryWithMaskIs(addr("10.7.0.1/24"));
   out->ipIntfConfigIs(IntfId("Ethernet2"))->addrWithMaskIs(addr("10.9.9.9/32"));

   auto c1 = cliIntf("Ethernet1", nullptr, Ip::AddrSource::dhcp);
   c1->secondaryWithMaskIs(addr("10.1.0.1/24"));
   cliIntf("Ethernet2", nullptr, Ip::AddrSource::none);
   lease("Ethernet1", "192.0.2.10/24", false);
   auto entry = lenders->lenderToBorrowersEntryIs(IntfId("Loopback0"));
   entry->addrWithMaskIs(addr("10.9.9.9/32"));
   entry->borrowingIntfIdIs(IntfId("Ethernet2"));

   std::vector<std::string> log;
   auto rec = make<OutputRecorder>(out, &log);
   start();
   ASSERT_FALSE(log.empty());
   EXPECT_EQ(log.front(), "-Ethernet9");
   EXPECT_FALSE(out->ipIntfConfig(IntfId("Ethernet9")));
   // Settled by the end of start-up: the lease and the borrowed address are in place.
   EXPECT_EQ(primary("Ethernet1"), addr("192.0.2.10/24"));
   EXPECT_EQ(primary("Ethernet2"), addr("10.9.9.9/32"));
   EXPECT_FALSE(old1->secondaryWithMask(addr("10.7.0.1/24")));
   EXPECT_TRUE(old1->secondaryWithMask(addr("10.1.0.1/24")));
}

TEST_F(IpAddrConfigSelectorTest, NullChildrenAreRefused) {
   start();
   auto expectRefused = [](auto fn, char const* text) {
      try {
         fn();
         ADD_FAILURE() << "accepted: " << text;
      } catch (Mox::RangeException const& e) {
         EXPECT_STREQ(e.what(), text);
      }
   };
   expectRefused([&] { sm->cliConfigReactorIs(nullptr); },
                 "null _cliConfigReactor parameter to mutator for "
                 "Veld::IpAddrConfigSelectorSm::cliConfigReactor not allowed");
   expectRefused([&] { sm->dhclientStatusReactorIs(nullptr); },
                 "null _dhclientStatusReactor parameter to mutator for "
                 "Veld::IpAddrConfigSelectorSm::dhclientStatusReactor not allowed");
   expectRefused([&] { sm->unnumberedIntfStatusReactorIs(nullptr); },
                 "null _unnumberedIntfStatusReactor parameter to mutator for "
                 "Veld::IpAddrConfigSelectorSm::unnumberedIntfStatusReactor not allowed");
}
