// What the interface machines remember of a /proc setting.
#include "veld/ProcValue.h"

#include <gtest/gtest.h>

#include <string>

#include "veld/ipv4/IntfIpKernelState.h"

using Veld::ProcValue;

TEST(ProcValue, KeepsShortValuesAndForgetsOnesTooLongToKeep) {
   ProcValue v;
   EXPECT_FALSE(v);
   EXPECT_FALSE(v.is(""));  // nothing written is not an empty value
   v = "1";
   EXPECT_TRUE(v.is("1"));
   EXPECT_FALSE(v.is("10"));
   v = "";
   EXPECT_TRUE(v && v.is(""));
   v = "-2147483648";
   EXPECT_EQ(v.view(), "-2147483648");
   std::string const longest(ProcValue::kMaxSize, '7');
   v = longest;
   EXPECT_TRUE(v.is(longest));
   v = longest + "7";  // not kept: the next pass writes it again
   EXPECT_FALSE(v);
   EXPECT_EQ(v.view(), "");
}

TEST(ProcValue, KernelStateAsksForAWriteUntilTheValueIsWritten) {
   Veld::IntfIpKernelState s;
   EXPECT_TRUE(s.needsWrite(0, "1"));
   s.writtenIs(0, "1");
   EXPECT_FALSE(s.needsWrite(0, "1"));
   EXPECT_TRUE(s.needsWrite(0, "0"));
   EXPECT_EQ(s.numForwardingUpdates(), 1u);
   std::string const tooLong(ProcValue::kMaxSize + 1, '1');
   s.heldIs(1, tooLong);
   EXPECT_TRUE(s.needsWrite(1, tooLong));
   s.clear();
   EXPECT_TRUE(s.needsWrite(0, "1"));
   EXPECT_FALSE(s.written(0));
}
