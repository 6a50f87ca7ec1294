// A kernel interface record's running state driving address map flushes and updates.
#include <gtest/gtest.h>

#include "veld/addr/KniIntfState.h"

using namespace Veld;
using KernelNetInfo::kIffRunning;

namespace {

// Stands in for the IPv4 machine: records what is scheduled.
class Recorder : public KniIntfStateOwner {
public:
   Recorder() {
      mgr_->deviceIntfIs("et1", Konet::IntfId("Ethernet1"));
      map_->addAddr6(key, *Konet::Ip6AddrWithMask::parse("2001:db8::1/64"));
      map_->addAddr6(key, *Konet::Ip6AddrWithMask::parse("fe80::1/64"));
   }
   void doScheduleKernelAddrUpdate(Konet::IntfId const& intf) override {
      scheduled.push_back(intf.name());
   }
   Mox::Ptr<Interface::KniIntfStatusManager> const& kniIntfStatusManager() const override {
      return mgr_;
   }
   Mox::Ptr<AddrMap> const& addrMap() const override { return map_; }

   bool flushed() const {
      return !map_->genAddr(key)->addr6(*Konet::Ip6AddrWithMask::parse("2001:db8::1/64"));
   }
   KernelNetInfo::Interface record(uint32_t flags, uint32_t count, char const* dev = "et1") const {
      KernelNetInfo::Interface r;
      r.key = key;
      r.deviceName = dev;
      r.flags = flags;
      r.runningStateChanges = count;
      return r;
   }

   KernelNetInfo::InterfaceKey key{5};
   std::vector<std::string> scheduled;

private:
   Mox::Ptr<Interface::KniIntfStatusManager> mgr_ =
       Mox::make<Interface::KniIntfStatusManager>("default", nullptr);
   Mox::Ptr<AddrMap> map_ = Mox::make<AddrMap>(nullptr);
};

struct Case {
   uint32_t fromCount, toCount, toFlags;
   bool flush, schedule;
};

}  // namespace

TEST(KniIntfState, NewStateSchedulesAtOnceOnlyForARunningInterface) {
   Recorder r;
   auto running = Mox::make<KniIntfState>(&r, nullptr, r.record(kIffRunning | 1, 3));
   EXPECT_TRUE(running->initialized());
   EXPECT_EQ(r.scheduled, std::vector<std::string>{"Ethernet1"});
   r.scheduled.clear();
   auto down = Mox::make<KniIntfState>(&r, nullptr, r.record(1, 3));
   EXPECT_TRUE(r.scheduled.empty());
   EXPECT_FALSE(r.flushed());
   auto unknown = Mox::make<KniIntfState>(&r, nullptr, r.record(kIffRunning, 3, "et9"));
   EXPECT_TRUE(r.scheduled.empty());  // no interface for the device: nothing to schedule
}

TEST(KniIntfState, RunningStateChangesFlushAndScheduleAsTheCountSays) {
   Case const cases[] = {
       {5, 6, kIffRunning, false, true},  // came up: one change
       {5, 7, kIffRunning, true, true},   // went down and up between two observations
       {5, 6, 0, true, true},             // went down
       {6, 5, kIffRunning, true, true},   // the count went backwards
       {5, 5, 0x100, false, false},       // flags changed, running state did not
   };
   for (auto const& c : cases) {
      Recorder r;
      auto s = Mox::make<KniIntfState>(&r, nullptr, r.record(0, c.fromCount));
      s->handleUpdate(r.record(c.toFlags, c.toCount));
      EXPECT_EQ(r.flushed(), c.flush) << c.fromCount << "->" << c.toCount;
      EXPECT_EQ(r.scheduled.size(), c.schedule ? 1u : 0u) << c.fromCount << "->" << c.toCount;
      EXPECT_EQ(s->runningStateChanges(), c.toCount);
   }
}

// The state keeps what the machines ask of it after the record moved on: the device's
// current name (a renamed device is looked up by its new name when it goes).
TEST(KniIntfState, FollowsTheRecordsNameAndCount) {
   Recorder r;
   auto s = Mox::make<KniIntfState>(&r, nullptr, r.record(kIffRunning, 3));
   EXPECT_EQ(s->deviceName(), "et1");
   s->handleUpdate(r.record(kIffRunning, 3, "et2"));
   EXPECT_EQ(s->deviceName(), "et2");
   EXPECT_EQ(s->runningStateChanges(), 3u);
   r.scheduled.clear();
   s->handleUpdate(r.record(0, 4, "et2"));  // et2 carries no interface: nothing scheduled
   EXPECT_TRUE(r.scheduled.empty());
   EXPECT_TRUE(r.flushed());
}
