#include "veld/redundancy/SsoConfig.h"

#include <gtest/gtest.h>

namespace {

class Reader : public Veld::SsoConfig::NotifieeConst {
public:
   void onSwitchover() override { ++calls; }
   int calls = 0;
};

TEST(SsoConfigTest, ReadersHearOfRealChangesOnly) {
   auto sso = Veld::ssoConfigFactory();
   auto reader = Mox::make<Reader>();
   reader->notifierIs(sso);
   EXPECT_FALSE(sso->switchover());
   sso->switchoverIs(false);
   EXPECT_EQ(reader->calls, 0);
   sso->switchoverIs(true);
   sso->switchoverIs(true);
   EXPECT_TRUE(sso->switchover());
   EXPECT_EQ(reader->calls, 1);
   sso->switchoverIs(false);
   EXPECT_EQ(reader->calls, 2);
}

}  // namespace
