#include "dataplane/verdict.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>

#include "dataplane/judge.h"
#include "dataplane/verdict_text.h"
#include "frames/reference_verdict.h"
#include "frames/verdict_corpus.h"

using frames::CorpusEntries;
using frames::Frame;
using frames::VerdictCorpus;
using frames::VerdictRow;
using mgr::ReasonName;
using mgr::RowText;

namespace {

/// Judges a copy of the frame that ends where its allocation ends, so a sanitizer catches a read beyond it.
mgr::Judgement Judge(const Frame& frame, const verdict_port& port, const std::vector<frames::Entry>& entries) {
  const auto bytes = std::make_unique<uint8_t[]>(frame.bytes.size());
  std::copy(frame.bytes.begin(), frame.bytes.end(), bytes.get());
  std::optional<mgr::MetadataTag> tag;
  if (frame.metadata_tag) tag = mgr::MetadataTag{frame.metadata_tag->tci, frame.metadata_tag->protocol};
  return mgr::Judge({bytes.get(), frame.bytes.size()}, tag, port,
                    [&entries](uint16_t vlan, uint32_t source_be) -> std::optional<mgr::MacAddress> {
                      for (const frames::Entry& entry : entries)
                        if (entry.vlan == vlan && entry.source_be == source_be)
                          return entry.mac.value_or(mgr::MacAddress{});
                      return std::nullopt;
                    });
}

verdict_port PortOf(const VerdictRow& row) {
  return {static_cast<uint8_t>(row.enabled), static_cast<uint8_t>(row.mode), 0};
}

std::string Text(bool drop, unsigned reason, unsigned row) {
  return std::string{drop ? "drop " : "pass "} + std::string{ReasonName(static_cast<verdict_reason>(reason))} +
         " by \"" + std::string{RowText(static_cast<verdict_row>(row))} + "\"";
}

TEST(VerdictTable, EveryRowOfTheCorpusIsJudgedAsWritten) {
  for (const VerdictRow& row : VerdictCorpus()) {
    const verdict result = Judge(row.frame, PortOf(row), CorpusEntries()).result;
    EXPECT_EQ(Text(result.drop != 0, result.reason, result.row), Text(frames::Drops(row.reason), row.reason, row.row))
        << row.name;
  }
}

TEST(VerdictTable, TheReferenceReadsTheTableTheSame) {
  for (const VerdictRow& row : VerdictCorpus()) {
    const auto reference = frames::ReferenceVerdict(row.frame, row.enabled, row.mode, CorpusEntries());
    EXPECT_EQ(Text(false, reference.reason, reference.row), Text(false, row.reason, row.row)) << row.name;
  }
}

TEST(VerdictTable, TheCorpusReachesEveryReasonAndEveryRow) {
  std::set<unsigned> reasons, lines;
  std::set<std::string> names;
  for (const VerdictRow& row : VerdictCorpus()) {
    reasons.insert(row.reason);
    lines.insert(row.row);
    EXPECT_TRUE(names.insert(row.name).second) << "two rows are named " << row.name;
    EXPECT_EQ(frames::Drops(row.reason), !mgr::Passes(row.reason)) << row.name;
  }
  EXPECT_EQ(reasons.size(), size_t{VERDICT_REASONS});
  EXPECT_EQ(lines.size(), size_t{VERDICT_ROWS});
}

TEST(VerdictTable, MonitorModeDoesNotChangeTheJudgement) {
  for (const VerdictRow& row : VerdictCorpus()) {
    verdict_port port = PortOf(row);
    const verdict plain = Judge(row.frame, port, CorpusEntries()).result;
    port.monitor = 1;
    const verdict monitored = Judge(row.frame, port, CorpusEntries()).result;
    EXPECT_EQ(Text(monitored.drop != 0, monitored.reason, monitored.row),
              Text(plain.drop != 0, plain.reason, plain.row))
        << row.name;
  }
}

TEST(VerdictKeys, TellWhoSent) {
  struct Case {
    std::string name;
    Frame frame;
    uint16_t vlan;
    uint16_t ethertype;
    uint32_t source_be;
  };
  using frames::Ip;
  const auto from = [] { return frames::FrameBuilder{frames::kStation}; };
  const Case cases[] = {
      {"IPv4", from().With(frames::Ipv4{.source_be = Ip("10.1.2.3")}), 0, 0x0800, Ip("10.1.2.3")},
      {"tagged", from().VlanTag(0xe064).With(frames::Ipv4{.source_be = Ip("10.1.2.3")}), 100, 0x0800, Ip("10.1.2.3")},
      {"tag in metadata", from().MetadataTag(0x1064).With(frames::Ipv4{.source_be = Ip("10.1.2.3")}), 100, 0x0800,
       Ip("10.1.2.3")},
      {"ARP", from().With(frames::Arp{.sender_mac = frames::kStation, .sender_be = Ip("10.1.2.4")}), 0, 0x0806,
       Ip("10.1.2.4")},
      {"LLDP", from().Type(0x88cc), 0, 0x88cc, 0},
      {"two tags", from().VlanTag(7).VlanTag(8).Type(0x88cc), 7, 0x8100, 0},
  };
  for (const Case& c : cases) {
    const verdict_keys keys = Judge(c.frame, {1, VERDICT_MODE_NONE, 0}, {}).keys;
    EXPECT_EQ(keys.vlan, c.vlan) << c.name;
    EXPECT_EQ(keys.ethertype, c.ethertype) << c.name;
    EXPECT_EQ(keys.source_be, c.source_be) << c.name;
    EXPECT_EQ(mgr::FromVerdictMac(keys.mac), frames::kStation) << c.name;
  }
}

/// The nft plane does not see the length that follows a tag.
TEST(VerdictTable, HiddenTaggedLengthIsMalformed) {
  const auto judge = [](const Frame& frame, uint8_t mode) {
    std::optional<mgr::MetadataTag> tag;
    if (frame.metadata_tag) tag = mgr::MetadataTag{frame.metadata_tag->tci, frame.metadata_tag->protocol};
    const auto none = [](uint16_t, uint32_t) { return std::optional<mgr::MacAddress>{}; };
    const verdict result = mgr::Judge(frame.bytes, tag, {1, mode, 0}, none, mgr::Sight::kNoTaggedLength).result;
    return std::string{ReasonName(static_cast<verdict_reason>(result.reason))};
  };
  const auto from = [] { return frames::FrameBuilder{frames::kStation}; };
  EXPECT_EQ(judge(from().VlanTag(7).Llc(0x42, 0x42), VERDICT_MODE_NONE), "malformed");
  EXPECT_EQ(judge(from().MetadataTag(7).Llc(0x42, 0x42), VERDICT_MODE_NONE), "malformed");
  EXPECT_EQ(judge(from().VlanTag(7).Llc(0xaa, 0xaa), VERDICT_MODE_IPV4_ALL), "malformed");
  EXPECT_EQ(judge(from().VlanTag(7).Llc(0x42, 0x42), VERDICT_MODE_ALL), "allow-all");
  EXPECT_EQ(judge(from().Llc(0x42, 0x42), VERDICT_MODE_NONE), "non-ip");
  EXPECT_EQ(judge(from().VlanTag(7).Type(0x0600), VERDICT_MODE_NONE), "non-ip");
}

/// The kernel sets total length 0 in TCP packets above 65,535 bytes that it holds as aggregated, and in no others.
TEST(VerdictKeys, TotalLengthZeroOfAggregatedTcp) {
  const auto read = [](uint8_t protocol, uint16_t total, bool aggregated) {
    const Frame frame = frames::FrameBuilder{frames::kStation}.With(
        frames::Ipv4{.source_be = frames::Ip("10.0.0.1"), .protocol = protocol, .total_length = total, .payload = 100});
    verdict_frame input{};
    input.data = frame.bytes.data();
    input.data_end = input.data + frame.bytes.size();
    input.length = static_cast<uint32_t>(frame.bytes.size());
    input.aggregated = static_cast<uint8_t>(aggregated);
    verdict_keys keys{};
    verdict_parse(&input, &keys);
    return keys.fault == 0 && keys.source_be == frames::Ip("10.0.0.1");
  };
  EXPECT_TRUE(read(6, 0, true));
  EXPECT_TRUE(read(6, 120, true));
  EXPECT_FALSE(read(6, 0, false));
  EXPECT_FALSE(read(17, 0, true));
  EXPECT_FALSE(read(6, 1, true));
  EXPECT_FALSE(read(6, 19, true));
  EXPECT_FALSE(read(6, 121, true));
}

/// Cuts and changes frames of the corpus at random; the seed is fixed.
TEST(VerdictTable, MutatedFramesAreJudgedAsByTheReference) {
  std::mt19937 random{20240511};
  const auto pick = [&random](size_t limit) { return std::uniform_int_distribution<size_t>{0, limit - 1}(random); };
  for (int round = 0; round < 200'000; ++round) {
    const VerdictRow& row = VerdictCorpus()[pick(VerdictCorpus().size())];
    Frame frame = row.frame;
    for (size_t i = pick(4); i > 0 && !frame.bytes.empty(); --i)
      frame.bytes[pick(std::min<size_t>(frame.bytes.size(), 64))] = static_cast<uint8_t>(pick(256));
    if (pick(4) == 0) frame.bytes.resize(pick(frame.bytes.size() + 1));
    if (pick(8) == 0) frame.metadata_tag = frames::Tag{static_cast<uint16_t>(pick(0x10000)), 0x8100};
    constexpr verdict_mode kModes[] = {VERDICT_MODE_NONE, VERDICT_MODE_IPV4_ALL, VERDICT_MODE_IPV6_ALL,
                                       VERDICT_MODE_IPV4_AND_IPV6, VERDICT_MODE_ALL};
    const verdict_mode mode = kModes[pick(std::size(kModes))];
    const verdict result =
        Judge(frame, {1, static_cast<uint8_t>(mode), static_cast<uint8_t>(pick(2))}, CorpusEntries()).result;
    const auto reference = frames::ReferenceVerdict(frame, true, mode, CorpusEntries());
    ASSERT_EQ(Text(result.drop != 0, result.reason, result.row),
              Text(frames::Drops(reference.reason), reference.reason, reference.row))
        << row.name << ", changed to " << frames::Hex(frame.bytes);
    if (mode == VERDICT_MODE_NONE || mode == VERDICT_MODE_IPV6_ALL) {
      ASSERT_TRUE(result.drop != 0 || !frames::IsSpoofedIpv4(frame, CorpusEntries())) << frames::Hex(frame.bytes);
    }
  }
}

}  // namespace
