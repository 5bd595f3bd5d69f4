#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <optional>

#include "dataplane/verdict_text.h"
#include "frames/frame_builder.h"
#include "frames/verdict_corpus.h"
#include "real_plane.h"
#include "support.h"

/// A change of the allow-all mode, judged by real frames at every step of it.
namespace mgr::test {
namespace {

using frames::Frame;
using frames::FrameBuilder;
using frames::Ip;

FrameBuilder From() { return FrameBuilder{frames::kStation}; }

class ModeChange : public RealPlane {
 protected:
  void SetUp() override {
    RealPlane::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    wire_.emplace("eth1");
    sender_.emplace(wire_->station());
    interfaces_.special["eth1"] = wire_->ifindex();
    engine_.emplace(table_, *plane_, interfaces_, milliseconds{20});
    ipv4_.emplace("eth1", 0x0800);
    ipv6_.emplace("eth1", 0x86dd);
    for (const uint16_t type : {0x8847, 0x8848, 0x8863, 0x8864, 0x88e7, 0x894f, 0x88a8})
      others_.emplace_back("eth1", type);
    others_.emplace_back("eth1", 4);  // LLC
  }

  void Batch(const std::vector<Request>& requests) { engine_->Submit(requests, false, now_); }
  void EndHold() { engine_->Advance(now_ += milliseconds{20}); }

  /// Sends one frame of every kind and counts what passes. The kernel hands on the IPv4 frame with an 802.1ad tag as
  /// IPv4, too.
  struct Passed {
    size_t ipv4, ipv6, others;
    bool operator==(const Passed&) const = default;
  };
  Passed Send() {
    const std::vector<Frame> frames = {From().With(frames::Ipv4{.source_be = Ip("192.0.2.66")}),
                                       From().Type(0x86dd),
                                       From().Type(0x8847),
                                       From().Type(0x8848),
                                       From().Type(0x8863),
                                       From().Type(0x8864),
                                       From().Type(0x88e7),
                                       From().Type(0x894f),
                                       From().Llc(0xaa, 0xaa, {0, 0, 0, 8, 0, 0x45, 0, 0, 20}),
                                       From().VlanTag(7, 0x88a8).With(frames::Ipv4{.source_be = Ip("192.0.2.66")})};
    for (const Frame& frame : frames) EXPECT_TRUE(sender_->Send(frame));
    sent_ += frames.size();
    EXPECT_EQ(TotalOf(WaitForTotal(1, sent_)), sent_);
    Passed passed{ipv4_->Count(0), ipv6_->Count(0), 0};
    for (netns::Receiver& receiver : others_) passed.others += receiver.Count(0);
    return passed;
  }
  static uint64_t TotalOf(const Counts& counts) {
    uint64_t total = 0;
    for (const auto& [what, frames] : counts) total += frames;
    return total;
  }

  FakeNames names_;
  FakeInterfaces interfaces_;
  Table table_{names_};
  std::optional<Engine> engine_;
  Engine::Clock::time_point now_{};
  std::optional<netns::Wire> wire_;
  std::optional<netns::Sender> sender_;
  std::optional<netns::Receiver> ipv4_, ipv6_;
  std::vector<netns::Receiver> others_;
  uint64_t sent_ = 0;
};

TEST_P(ModeChange, PassesNeverWhatNeitherModeAllows) {
  Batch({Enable("eth1"), Mode("eth1", AllowAll::kIpv4)});
  EndHold();
  EXPECT_EQ(Send(), (Passed{1, 0, 0})) << "ipv4-all";
  Batch({Mode("eth1", AllowAll::kIpv6)});
  EXPECT_EQ(Send(), (Passed{1, 1, 0})) << "both, until the hold is over";
  EndHold();
  EXPECT_EQ(Send(), (Passed{0, 1, 0})) << "ipv6-all";
  Batch({Mode("eth1", AllowAll::kIpv4)});
  EXPECT_EQ(Send(), (Passed{1, 1, 0})) << "both again";
  EndHold();
  EXPECT_EQ(Send(), (Passed{1, 0, 0})) << "ipv4-all again";
}

TEST_P(ModeChange, PassesEverythingWithBothSwitches) {
  Batch({Enable("eth1"), Mode("eth1", AllowAll::kAll)});
  EndHold();
  EXPECT_EQ(Send(), (Passed{2, 1, 7}));
  Batch({Mode("eth1", AllowAll::kIpv4)});
  EXPECT_EQ(Send(), (Passed{2, 1, 7})) << "until the hold is over";
  EndHold();
  EXPECT_EQ(Send(), (Passed{1, 0, 0}));
}

TEST_P(ModeChange, TakesOverWhatIsInForceInTheHold) {
  Batch({Enable("eth1"), Mode("eth1", AllowAll::kIpv4)});
  EndHold();
  Batch({Mode("eth1", AllowAll::kIpv6)});
  plane_.reset();  // killed in the hold
  auto opened = GetParam().open(options_);
  ASSERT_TRUE(opened.ok()) << opened.error().Text();
  plane_ = std::move(opened).value();
  Table next_table{names_};
  Engine next{next_table, *plane_, interfaces_, milliseconds{20}};
  ASSERT_TRUE(next.TakeOver().ok());
  EXPECT_EQ(Send(), (Passed{1, 1, 0}));
  next.Submit(std::vector<Request>{Enable("eth1"), Mode("eth1", AllowAll::kIpv6)}, true, now_);
  EXPECT_EQ(Send(), (Passed{1, 1, 0}));
  next.Advance(now_ + milliseconds{20});
  EXPECT_EQ(Send(), (Passed{0, 1, 0}));
}

INSTANTIATE_TEST_SUITE_P(Planes, ModeChange, testing::ValuesIn(Planes(true)), NameOf);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(ModeChange);

}  // namespace
}  // namespace mgr::test
