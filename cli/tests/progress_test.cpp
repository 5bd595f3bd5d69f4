// Standard error of a test is not a terminal.
#include "progress.h"

#include <gtest/gtest.h>

namespace cli {
namespace {

/// What is shown of two phases with some bytes between them.
std::string Shown(Progress::Show show) {
  testing::internal::CaptureStderr();
  {
    Progress progress{show};
    progress.Say("first");
    progress.Bytes("sending", 1'000'000, 2'000'000);  // sooner than half a second after the last line
    progress.Say("second");
    progress.Clear();
  }
  return testing::internal::GetCapturedStderr();
}

TEST(Progress, EachPhaseIsALine) { EXPECT_EQ(Shown(Progress::Show::kAlways), "first\nsecond\n"); }
TEST(Progress, IsSilentWithoutATerminal) { EXPECT_EQ(Shown(Progress::Show::kOnTerminal), ""); }
TEST(Progress, IsSilentIfDisabled) { EXPECT_EQ(Shown(Progress::Show::kNever), ""); }

TEST(Progress, BytesAreShownInMegabytes) {
  testing::internal::CaptureStderr();
  Progress{Progress::Show::kAlways}.Bytes("sending", 1'200'000, 18'000'000);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "sending 1.2 of 18.0 MB\n");
}

}  // namespace
}  // namespace cli
