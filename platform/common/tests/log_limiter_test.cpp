#include "common/log_limiter.h"

#include <gtest/gtest.h>

namespace common {
namespace {

using std::chrono::seconds;

const LogLimiter::Clock::time_point kStart{};

TEST(LogLimiterTest, AdmitsOneLineAPeriodAndCountsTheRest) {
  LogLimiter limiter{seconds{10}};
  EXPECT_EQ(limiter.Admit("a", kStart), 0U);
  EXPECT_EQ(limiter.Admit("a", kStart + seconds{1}), std::nullopt);
  EXPECT_EQ(limiter.Admit("a", kStart + seconds{9}), std::nullopt);
  EXPECT_EQ(limiter.Admit("a", kStart + seconds{10}), 2U);
  EXPECT_EQ(limiter.Admit("a", kStart + seconds{11}), std::nullopt);
  EXPECT_EQ(limiter.Admit("a", kStart + seconds{20}), 1U);
}

TEST(LogLimiterTest, KeysDoNotDisturbEachOther) {
  LogLimiter limiter{seconds{10}};
  EXPECT_EQ(limiter.Admit("a", kStart), 0U);
  EXPECT_EQ(limiter.Admit("b", kStart), 0U);
  EXPECT_EQ(limiter.Admit("a", kStart), std::nullopt);
}

TEST(LogLimiterTest, ManyKeysAreNotKept) {
  LogLimiter limiter{seconds{10}, 2};
  EXPECT_EQ(limiter.Admit("a", kStart), 0U);
  EXPECT_EQ(limiter.Admit("b", kStart), 0U);
  // No room: written each time, and the known ones stay limited.
  EXPECT_EQ(limiter.Admit("c", kStart + seconds{1}), 0U);
  EXPECT_EQ(limiter.Admit("c", kStart + seconds{1}), 0U);
  EXPECT_EQ(limiter.Admit("a", kStart + seconds{1}), std::nullopt);
  // Keys whose period is over make room.
  EXPECT_EQ(limiter.Admit("c", kStart + seconds{12}), 0U);
  EXPECT_EQ(limiter.Admit("c", kStart + seconds{13}), std::nullopt);
}

TEST(LogLimiterTest, SuffixTellsHowManyWereLeftOut) {
  EXPECT_EQ(LogLimiter::Suffix(0), "");
  EXPECT_EQ(LogLimiter::Suffix(12), " (12 more like this left out)");
}

}  // namespace
}  // namespace common
