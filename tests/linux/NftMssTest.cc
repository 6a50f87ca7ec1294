// MSS clamps through libnftables in the test's private namespace, read back from the kernel.
#include <gtest/gtest.h>

#include "linux/NftMss.h"
#include "tests/linux/KernelFixture.h"
#include "tests/linux/NftRuleset.h"

namespace KonetTest {
namespace {

using Set = std::set<std::string>;

std::string clamp(char const* match, char const* dev, int mss) {
   auto n = std::to_string(mss);
   return std::string(match) + " \"" + dev + "\" tcp flags syn tcp option maxseg size > " + n +
          " tcp option maxseg size set " + n;
}

class NftMssTest : public KernelFixture {
protected:
   void TearDown() override {
      // The table is the namespace's, which outlives the test: leave it as found.
      std::unique_ptr<nft_ctx, void (*)(nft_ctx*)> ctx(nft_ctx_new(NFT_CTX_DEFAULT), &nft_ctx_free);
      nft_ctx_buffer_error(ctx.get());
      nft_run_cmd_from_buffer(ctx.get(), "delete table inet veld");
      KernelFixture::TearDown();
   }
   Set rules() { return nftRules("inet", Konet::kMssTable, Konet::kMssChain); }
   std::map<std::string, Konet::MssClamp> dump() {
      std::map<std::string, Konet::MssClamp> out;
      EXPECT_EQ(Konet::mssClampDump(&out), 0);
      return out;
   }
};

TEST_F(NftMssTest, EachDevicesRulesAreReplacedWholeAndLeaveTheOthersAlone) {
   EXPECT_TRUE(dump().empty());  // no table yet: no clamps, no error
   ASSERT_EQ(Konet::mssClampSet("et1", {1400, 1300}), 0);
   ASSERT_EQ(Konet::mssClampSet("et2", {0, 1200}), 0);
   EXPECT_EQ(rules(), (Set{clamp("iifname", "et1", 1400), clamp("oifname", "et1", 1300),
                           clamp("oifname", "et2", 1200)}));
   auto held = dump();
   EXPECT_EQ(held.size(), 2u);
   EXPECT_EQ(held["et1"], (Konet::MssClamp{1400, 1300}));
   EXPECT_EQ(held["et2"], (Konet::MssClamp{0, 1200}));

   // Setting again, or changing, leaves one rule per direction.
   ASSERT_EQ(Konet::mssClampSet("et1", {1400, 1300}), 0);
   ASSERT_EQ(Konet::mssClampSet("et1", {0, 1360}), 0);
   EXPECT_EQ(rules(), (Set{clamp("oifname", "et1", 1360), clamp("oifname", "et2", 1200)}));

   // No clamp removes the device's rules only; removing what is not there is no error.
   ASSERT_EQ(Konet::mssClampSet("et1", {}), 0);
   ASSERT_EQ(Konet::mssClampSet("et3", {}), 0);
   EXPECT_EQ(rules(), (Set{clamp("oifname", "et2", 1200)}));
   EXPECT_EQ(dump().size(), 1u);
}

TEST_F(NftMssTest, DuplicatesLeftBehindAreCleanedUpAndUnsafeNamesRefused) {
   std::unique_ptr<nft_ctx, void (*)(nft_ctx*)> ctx(nft_ctx_new(NFT_CTX_DEFAULT), &nft_ctx_free);
   ASSERT_EQ(Konet::mssClampSet("et1", {0, 1300}), 0);
   std::string again = "add rule inet veld mss " + clamp("oifname", "et1", 1300);
   ASSERT_EQ(nft_run_cmd_from_buffer(ctx.get(), again.c_str()), 0);
   ASSERT_EQ(Konet::mssClampSet("et1", {1000, 0}), 0);
   EXPECT_EQ(rules(), (Set{clamp("iifname", "et1", 1000)}));

   std::string error;
   EXPECT_EQ(Konet::mssClampSet("et\"1", {1000, 0}, &error), EINVAL);
   EXPECT_EQ(Konet::mssClampSet("", {1000, 0}, &error), EINVAL);
   EXPECT_EQ(Konet::mssClampSet("a-very-long-device-name", {1000, 0}, &error), EINVAL);
   EXPECT_EQ(rules(), (Set{clamp("iifname", "et1", 1000)}));
}

}  // namespace
}  // namespace KonetTest
