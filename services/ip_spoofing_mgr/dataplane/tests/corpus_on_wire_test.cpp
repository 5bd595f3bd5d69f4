#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "dataplane/verdict_text.h"
#include "real_plane.h"

/// Every row of the verdict table on a real wire, through every plane that filters.
namespace mgr::test {
namespace {

using frames::VerdictRow;

constexpr PortId kPort = 3;

/// A frame with a tag and an 802.3 length, which the nft plane cannot see and drops.
bool HasTaggedLength(const frames::Frame& frame) {
  const frames::Bytes bytes = netns::OnTheWire(frame);
  const auto word = [&bytes](size_t at) { return bytes.at(at) << 8 | bytes.at(at + 1); };
  return bytes.size() >= 18 && (word(12) == 0x8100 || word(12) == 0x88a8) && word(16) < 0x0600;
}

class CorpusOnWire : public RealPlane {
 protected:
  void Judge(const VerdictRow& row, bool monitor);

 private:
  [[nodiscard]] verdict_reason Expected(const VerdictRow& row) const {
    if (plane_->HidesTaggedLength() && row.enabled && row.mode != VERDICT_MODE_ALL && HasTaggedLength(row.frame))
      return VERDICT_MALFORMED;
    return row.reason;
  }
  netns::Receiver& ReceiverOf(uint16_t type) {
    auto& receiver = receivers_[type];
    if (!receiver) receiver.emplace(wire_->port(), type);
    return *receiver;
  }
  std::optional<netns::Wire> wire_;
  std::optional<netns::Sender> sender_;
  std::map<uint16_t, std::optional<netns::Receiver>> receivers_;
  PortConfig config_;
  Counts counts_;
  uint64_t total_ = 0;
};

/// A wire does not carry frames without a header, and a receiving kernel drops those whose tag is cut by itself.
bool CanBeSent(const frames::Frame& frame) {
  const frames::Bytes bytes = netns::OnTheWire(frame);
  if (bytes.size() <= 14) return false;
  const bool tagged = (bytes[12] == 0x81 && bytes[13] == 0x00) || (bytes[12] == 0x88 && bytes[13] == 0xa8);
  return !tagged || bytes.size() >= 20;
}

void CorpusOnWire::Judge(const VerdictRow& row, bool monitor) {
  if (!wire_) {
    wire_.emplace("port0");
    sender_.emplace(wire_->station());
    Changes changes;
    changes.puts = CorpusEntriesOn(kPort);
    config_ = MakePort(kPort, wire_->port(), wire_->ifindex());
    changes.ports = {config_};
    MustApply(changes);
  }
  PortConfig wanted = config_;
  wanted.enabled = row.enabled;
  wanted.mode = static_cast<AllowAll>(row.mode);
  wanted.monitor = monitor;
  if (wanted != config_) {
    config_ = wanted;
    Changes changes;
    changes.ports = {wanted};
    MustApply(changes);
  }
  netns::Receiver& receiver = ReceiverOf(netns::ReceivedType(row.frame));
  ASSERT_TRUE(sender_->Send(row.frame)) << row.name;
  const verdict_reason reason = Expected(row);
  const bool drop = frames::Drops(reason);
  if (row.enabled) {
    ++total_;
    ++counts_[{std::string{ReasonName(reason)}, !drop || monitor}];
    EXPECT_EQ(WaitForTotal(kPort, total_), counts_) << row.name;
  }
  const size_t passing = drop && !monitor ? 0 : 1;
  EXPECT_EQ(receiver.Count(passing), passing) << row.name;
}

TEST_P(CorpusOnWire, IsJudgedCountedAndDroppedAsTheTableSays) {
  size_t judged = 0;
  for (const VerdictRow& row : frames::VerdictCorpus()) {
    if (!CanBeSent(row.frame)) continue;
    Judge(row, false);
    ++judged;
    if (HasFailure()) break;  // the counts of the rows after it would not fit either
  }
  EXPECT_GT(judged, 300U);
}

TEST_P(CorpusOnWire, PassesInMonitorModeCountedUnderTheSameReasons) {
  for (const VerdictRow& row : frames::VerdictCorpus()) {
    if (!CanBeSent(row.frame)) continue;
    Judge(row, true);
    if (HasFailure()) break;
  }
}

INSTANTIATE_TEST_SUITE_P(Planes, CorpusOnWire, testing::ValuesIn(Planes(true)), NameOf);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(CorpusOnWire);

}  // namespace
}  // namespace mgr::test
