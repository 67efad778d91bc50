// The compression rate limit's arithmetic, driven with chosen clock values.
#include <gtest/gtest.h>

#include "KestrelLib/CompressionRateLimit.h"

namespace {

TEST(CompressionRateLimit, FirstEventAlwaysGoesOut) {
  for (const std::uint32_t start : {0u, 5u, 999u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    tessel::CompressionRateLimit limit(start);
    EXPECT_TRUE(limit.Admit(start)) << start;
  }
}

TEST(CompressionRateLimit, OneEventPerThousandMilliseconds) {
  tessel::CompressionRateLimit limit(10'000);
  ASSERT_TRUE(limit.Admit(10'000));
  EXPECT_FALSE(limit.Admit(10'999));
  EXPECT_FALSE(limit.Admit(10'500));
  EXPECT_EQ(limit.suppressedCompressEvents.load(), 2u);
  EXPECT_TRUE(limit.Admit(11'000));
  EXPECT_EQ(limit.suppressedCompressEvents.load(), 0u);
  EXPECT_EQ(limit.lastCompressEventMs.load(), 11'000u);
}

TEST(CompressionRateLimit, ArithmeticIsThirtyTwoBitsReadAsSigned) {
  tessel::CompressionRateLimit limit(0x7FFFFF00);
  ASSERT_TRUE(limit.Admit(0x7FFFFF00));
  EXPECT_TRUE(limit.Admit(0x800002E8)) << "1000 ms later across the sign boundary";
  EXPECT_FALSE(limit.Admit(0x7FFFFFFF)) << "an earlier clock value is a negative difference";
}

TEST(CompressionRateLimit, AClockStuckAtMinusOneAllowsAtMostOneMoreEvent) {
  tessel::CompressionRateLimit stuckFromTheStart(0xFFFFFFFF);
  EXPECT_TRUE(stuckFromTheStart.Admit(0xFFFFFFFF));
  tessel::CompressionRateLimit stuckLater(5'000);
  ASSERT_TRUE(stuckLater.Admit(5'000));
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(stuckFromTheStart.Admit(0xFFFFFFFF)) << "the difference is 0 from now on";
    EXPECT_FALSE(stuckLater.Admit(0xFFFFFFFF)) << "-1 reads as before the last event";
  }
}

}  // namespace
