// The relation from lenders to their borrowers, kept from the interfaces' IPv4 status.
#include <gtest/gtest.h>

#include "tests/veld/TraceCapture.h"
#include "veld/unnumbered/IpIntfSm.h"

using namespace Veld::IpUnnumbered;
using Konet::IntfId;
using Konet::IpAddrWithMask;
using Mox::make;

namespace {

IpAddrWithMask addr(char const* text) { return *IpAddrWithMask::parse(text); }

// Records the relation's entries appearing and going, and borrowers joining and leaving.
class RelationRecorder : public LenderToBorrowersStatus::NotifieeConst {
public:
   RelationRecorder(Mox::Ptr<LenderToBorrowersStatus> const& s, std::vector<std::string>* log)
       : log_(log) {
      notifierIs(s);
   }
   void onLenderToBorrowersEntry(IntfId const& lender) override {
      auto entry = notifier()->lenderToBorrowersEntry(lender);
      log_->push_back((entry ? "+" : "-") + lender.name());
      if (!entry) return;
      auto r = make<Borrowers>(log_);
      r->notifierIs(entry);
      borrowers_.push_back(r);
   }

private:
   class Borrowers : public LenderToBorrowersEntry::NotifieeConst {
   public:
      explicit Borrowers(std::vector<std::string>* log) : log_(log) {}
      void onBorrowingIntfId(IntfId const& b) override {
         log_->push_back(notifier()->lender().name() +
                         (notifier()->borrowingIntfId(b) ? " +" : " -") + b.name());
      }
      std::vector<std::string>* log_;
   };
   std::vector<std::string>* log_;
   std::vector<Mox::Ptr<Borrowers>> borrowers_;
};

struct IpUnnumberedTest : ::testing::Test {
   Mox::Ptr<Ip::Status> ipStatus = make<Ip::Status>();
   Mox::Ptr<LenderToBorrowersStatus> relation = make<LenderToBorrowersStatus>();
   std::vector<Mox::Ptr<Ip::IpIntfStatus>> statuses;
   Mox::Ptr<IpIntfSm> sm = IpIntfSmIs(ipStatus);

   void start() { sm->lenderToBorrowersStatusIs(relation); }
   Mox::Ptr<Ip::IpIntfStatus> status(char const* name, char const* lender = "",
                                     char const* address = nullptr) {
      auto s = make<Ip::IpIntfStatus>(IntfId(name));
      if (*lender) s->unnumberedIntfIdIs(IntfId(lender));
      if (address) s->addrWithMaskIs(addr(address));
      ipStatus->intfIs(s);
      statuses.push_back(s);
      return s;
   }
   Mox::Ptr<LenderToBorrowersEntry> entry(char const* lender) const {
      return relation->lenderToBorrowersEntry(IntfId(lender));
   }
};

}  // namespace

TEST_F(IpUnnumberedTest, TwoBorrowersShareOneEntryThatGoesWithTheLast) {
   start();
   VeldTest::TraceCapture traces{"VeldIpUnnumbered"};
   status("Loopback0", "", "10.9.9.9/32");
   status("Ethernet1", "Loopback0");
   status("Ethernet2", "Loopback0");
   ASSERT_TRUE(entry("Loopback0"));
   EXPECT_EQ(entry("Loopback0")->addrWithMask(), addr("10.9.9.9/32"));
   EXPECT_EQ(entry("Loopback0")->borrowingIntfIdSize(), 2u);
   EXPECT_EQ(traces.count("First reference to lending intf Loopback0"), 1u);
   EXPECT_EQ(sm->lenderToBorrowersSmTblSize(), 1u);

   ipStatus->intfDel(IntfId("Ethernet1"));
   ASSERT_TRUE(entry("Loopback0"));
   EXPECT_FALSE(entry("Loopback0")->borrowingIntfId(IntfId("Ethernet1")));

   statuses[2]->unnumberedIntfIdIs(IntfId());  // no longer unnumbered
   EXPECT_FALSE(entry("Loopback0"));
   EXPECT_EQ(sm->lenderToBorrowersSmTblSize(), 0u);
   EXPECT_TRUE(traces.contains("Removed last unnumbered intf referring to: Loopback0"));
}

TEST_F(IpUnnumberedTest, MovingABorrowerLeavesTheOldLenderBeforeJoiningTheNew) {
   start();
   std::vector<std::string> log;
   auto rec = make<RelationRecorder>(relation, &log);
   status("Loopback0", "", "10.9.9.9/32");
   status("Loopback1", "", "10.8.8.8/32");
   auto b = status("Ethernet1", "Loopback0");
   log.clear();
   b->unnumberedIntfIdIs(IntfId("Loopback1"));
   EXPECT_EQ(log, (std::vector<std::string>{"Loopback0 -Ethernet1", "-Loopback0", "+Loopback1",
                                            "Loopback1 +Ethernet1"}));
   EXPECT_EQ(entry("Loopback1")->addrWithMask(), addr("10.8.8.8/32"));
   EXPECT_EQ(sm->ipIntfStatus(IntfId("Ethernet1"))->newLenderIntfId(), IntfId("Loopback1"));
}

TEST_F(IpUnnumberedTest, LenderWithoutStatusLendsNothingUntilItHasOne) {
   start();
   status("Ethernet1", "Loopback0");
   ASSERT_TRUE(entry("Loopback0"));
   EXPECT_EQ(entry("Loopback0")->addrWithMask(), IpAddrWithMask());

   auto lender = status("Loopback0");
   EXPECT_EQ(entry("Loopback0")->addrWithMask(), IpAddrWithMask());  // no address yet
   lender->addrWithMaskIs(addr("10.9.9.9/32"));
   EXPECT_EQ(entry("Loopback0")->addrWithMask(), addr("10.9.9.9/32"));
   lender->addrWithMaskIs(addr("10.9.9.10/32"));
   EXPECT_EQ(entry("Loopback0")->addrWithMask(), addr("10.9.9.10/32"));

   // The lender's status goes: no address, the borrower stays; it comes back: followed again.
   ipStatus->intfDel(IntfId("Loopback0"));
   EXPECT_EQ(entry("Loopback0")->addrWithMask(), IpAddrWithMask());
   EXPECT_TRUE(entry("Loopback0")->borrowingIntfId(IntfId("Ethernet1")));
   lender->addrWithMaskIs(addr("10.9.9.11/32"));  // the old entity no longer counts
   EXPECT_EQ(entry("Loopback0")->addrWithMask(), IpAddrWithMask());
   status("Loopback0", "", "10.9.9.12/32");
   EXPECT_EQ(entry("Loopback0")->addrWithMask(), addr("10.9.9.12/32"));
}

TEST_F(IpUnnumberedTest, ContinuesFromThePublishedRelation) {
   // Published before a restart: Ethernet1 borrows Loopback0's address.
   auto published = relation->lenderToBorrowersEntryIs(IntfId("Loopback0"));
   published->addrWithMaskIs(addr("10.9.9.9/32"));
   published->borrowingIntfIdIs(IntfId("Ethernet1"));
   std::vector<std::string> log;
   auto rec = make<RelationRecorder>(relation, &log);

   status("Ethernet1", "Loopback0");  // before the output is attached: nothing happens
   EXPECT_EQ(sm->lenderToBorrowersSmTblSize(), 0u);
   start();
   ASSERT_TRUE(sm->lenderToBorrowersSmTbl(IntfId("Loopback0")));
   EXPECT_EQ(entry("Loopback0"), published);
   EXPECT_EQ(published->addrWithMask(), addr("10.9.9.9/32"));  // kept until the lender says
   EXPECT_TRUE(log.empty()) << log.front();

   status("Loopback0", "", "10.9.9.9/32");
   EXPECT_EQ(published->addrWithMask(), addr("10.9.9.9/32"));
   ipStatus->intfDel(IntfId("Ethernet1"));
   EXPECT_FALSE(entry("Loopback0"));
}

TEST_F(IpUnnumberedTest, NullChildrenAreRefused) {
   start();
   try {
      sm->ipIntfStatusIs(nullptr);
      ADD_FAILURE() << "a null status was accepted";
   } catch (Mox::RangeException const& e) {
      EXPECT_STREQ(e.what(),
                   "null _ipIntfStatus parameter to mutator for "
                   "Veld::IpUnnumbered::IpIntfSm::ipIntfStatus not allowed");
   }
   try {
      sm->lenderToBorrowersSmTblIs(nullptr);
      ADD_FAILURE() << "a null lender machine was accepted";
   } catch (Mox::RangeException const& e) {
      EXPECT_STREQ(e.what(),
                   "null _lenderToBorrowersSmTbl parameter to mutator for "
                   "Veld::IpUnnumbered::IpIntfSm::lenderToBorrowersSmTbl not allowed");
   }
}
