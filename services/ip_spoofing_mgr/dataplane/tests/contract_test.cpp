#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "frames/frame_builder.h"
#include "real_plane.h"

/// What the port table relies on, the same for every plane. The planes of the kernel also show what they hold to the
/// process behind them.
namespace mgr::test {
namespace {

using frames::Ip;
using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr MacAddress kMac = {2, 0, 0, 0, 0, 0x0a};
constexpr MacAddress kOtherMac = {2, 0, 0, 0, 0, 0x0b};

class DataplaneContract : public RealPlane {
 protected:
  /// What the next process finds, for planes that outlive theirs.
  void ExpectHeld(const std::vector<PortConfig>& ports, const std::vector<Entry>& entries) {
    if (!GetParam().real) return;
    const Snapshot snapshot = Reopen();
    EXPECT_THAT(snapshot.ports, ElementsAreArray(ports));
    EXPECT_EQ(snapshot.entries, entries);
  }
  static std::vector<Entry> Many(PortId port, size_t count, uint32_t from = 0x0A000000) {
    std::vector<Entry> entries;
    for (size_t i = 0; i < count; ++i)
      entries.push_back(MakeEntry(port, static_cast<uint16_t>(i % 4), htonl(from + static_cast<uint32_t>(i))));
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.key < b.key; });
    return entries;
  }
};

TEST_P(DataplaneContract, StartsEmpty) {
  EXPECT_EQ(plane_->Capacity(), kCapacity);
  EXPECT_GE(plane_->MaxPorts(), 1000U);
  ExpectHeld({}, {});
}

TEST_P(DataplaneContract, KeepsPortsAndEntriesInAllTheirForms) {
  netns::Wire wire{"port0"};
  PortConfig filtered = MakePort(1, "port0", wire.ifindex(), AllowAll::kIpv6);
  filtered.monitor = true;
  PortConfig off = MakePort(2, "port1", 0);
  off.enabled = false;
  const PortConfig absent = MakePort(3, "fifteen-letters", 0, AllowAll::kAll);
  const std::vector<Entry> entries = {MakeEntry(1, 0, Ip("0.0.0.0")), MakeEntry(1, 0, Ip("10.0.0.1"), kMac),
                                      MakeEntry(1, 4094, Ip("255.255.255.255")), MakeEntry(2, 7, Ip("10.0.0.1")),
                                      MakeEntry(3, 0, Ip("10.0.0.1"), kOtherMac)};
  MustApply({.puts = entries, .ports = {filtered, off, absent}, .removes = {}, .drop_ports = {}});
  ExpectHeld({filtered, off, absent}, entries);
}

TEST_P(DataplaneContract, ReplacesTheMacOfAnEntryAndThePortsState) {
  const PortConfig port = MakePort(1, "port0", 0);
  MustApply({.puts = {MakeEntry(1, 0, Ip("10.0.0.1"), kMac), MakeEntry(1, 0, Ip("10.0.0.2"))},
             .ports = {port},
             .removes = {},
             .drop_ports = {}});
  PortConfig wider = port;
  wider.mode = AllowAll::kIpv4;
  const std::vector<Entry> after = {MakeEntry(1, 0, Ip("10.0.0.1")), MakeEntry(1, 0, Ip("10.0.0.2"), kOtherMac)};
  MustApply({.puts = after, .ports = {wider}, .removes = {}, .drop_ports = {}});
  ExpectHeld({wider}, after);
  MustApply({.puts = {MakeEntry(1, 0, Ip("10.0.0.2"), kMac)}, .ports = {}, .removes = {}, .drop_ports = {}});
  ExpectHeld({wider}, {MakeEntry(1, 0, Ip("10.0.0.1")), MakeEntry(1, 0, Ip("10.0.0.2"), kMac)});
}

TEST_P(DataplaneContract, RemovesEntriesAndTakesAbsentOnesForRemoved) {
  const PortConfig port = MakePort(1, "port0", 0);
  MustApply({.puts = Many(1, 10), .ports = {port}, .removes = {}, .drop_ports = {}});
  std::vector<EntryKey> keys = {{1, 9, Ip("192.0.2.1")}};
  for (const Entry& entry : Many(1, 9)) keys.push_back(entry.key);
  keys.push_back({1, 9, Ip("192.0.2.2")});
  MustApply({.puts = {}, .ports = {}, .removes = keys, .drop_ports = {}});
  MustApply({.puts = {}, .ports = {}, .removes = keys, .drop_ports = {}});
  ExpectHeld({port}, {MakeEntry(1, 1, htonl(0x0A000009))});
}

TEST_P(DataplaneContract, ForgetsPortsWithTheirEntries) {
  const PortConfig stays = MakePort(2, "port1", 0);
  MustApply({.puts = Many(1, 3000), .ports = {MakePort(1, "port0", 0), stays}, .removes = {}, .drop_ports = {}});
  MustApply({.puts = {MakeEntry(2, 0, Ip("10.0.0.1"))}, .ports = {}, .removes = {}, .drop_ports = {1}});
  ExpectHeld({stays}, {MakeEntry(2, 0, Ip("10.0.0.1"))});
  const PortConfig again = MakePort(1, "other", 0);
  MustApply({.puts = {}, .ports = {again}, .removes = {}, .drop_ports = {}});
  ExpectHeld({again, stays}, {MakeEntry(2, 0, Ip("10.0.0.1"))});
}

TEST_P(DataplaneContract, TakesWhatIsAddedAndRemovedInOneCall) {
  const PortConfig port = MakePort(1, "port0", 0);
  MustApply({.puts = Many(1, 100), .ports = {port}, .removes = {}, .drop_ports = {}});
  std::vector<EntryKey> old;
  for (const Entry& entry : Many(1, 100)) old.push_back(entry.key);
  MustApply({.puts = Many(1, 100, 0x0B000000), .ports = {}, .removes = old, .drop_ports = {}});
  ExpectHeld({port}, Many(1, 100, 0x0B000000));
}

TEST_P(DataplaneContract, HoldsItsCapacityAndReplacesItInOneCall) {
  const PortConfig port = MakePort(1, "port0", 0);
  MustApply({.puts = Many(1, kCapacity), .ports = {port}, .removes = {}, .drop_ports = {}});
  ExpectHeld({port}, Many(1, kCapacity));
  if (!GetParam().real) return;  // the memory plane has room for its capacity alone
  std::vector<EntryKey> old;
  for (const Entry& entry : Many(1, kCapacity)) old.push_back(entry.key);
  MustApply({.puts = Many(1, kCapacity, 0x0B000000), .ports = {}, .removes = old, .drop_ports = {}});
  ExpectHeld({port}, Many(1, kCapacity, 0x0B000000));
}

TEST_P(DataplaneContract, ReportsTheEntriesBeyondItsRoomAndNoOthers) {
  auto small = options_;
  small.run_dir += "/small";
  small.capacity = 8;
  auto opened = GetParam().open(small);
  ASSERT_TRUE(opened.ok()) << opened.error().Text();
  const auto plane = std::move(opened).value();
  ASSERT_TRUE(plane->TakeOver().ok());
  // Planes may have room for more than the table sends, so that a replacement fits beside what it replaces.
  const std::vector<Entry> many = Many(1, 64);
  const auto failures =
      plane->Apply({.puts = many, .ports = {MakePort(1, "port0", 0)}, .removes = {}, .drop_ports = {}});
  EXPECT_GE(failures.size(), 64U - 2 * 8U);
  EXPECT_LE(failures.size(), 64U - 8U);
  for (const Failure& failure : failures) {
    EXPECT_EQ(failure.of, Failure::Of::kPut);
    EXPECT_FALSE(failure.error.reason.empty());
  }
  EXPECT_TRUE(plane->RemoveEverything().ok());
}

TEST_P(DataplaneContract, TakesAnInterfaceThatIsGoneForAbsent) {
  const PortConfig gone = MakePort(1, "gone", 4321);
  MustApply({.puts = {}, .ports = {gone}, .removes = {}, .drop_ports = {}});
  ExpectHeld({gone}, {});
}

TEST_P(DataplaneContract, HasRoomForManyPorts) {
  Changes changes;
  for (PortId id = 1; id <= 1000; ++id) changes.ports.push_back(MakePort(id, "p" + std::to_string(id), 0));
  if (plane_->Name() == "nft") changes.ports.resize(50);  // a transaction each, some milliseconds
  for (PortConfig& port : changes.ports) port.enabled = plane_->Name() != "nft";
  MustApply(changes);
  ExpectHeld(changes.ports, {});
}

TEST_P(DataplaneContract, LeavesNothingAfterItIsRemoved) {
  netns::Wire wire{"port0"};
  MustApply({.puts = Many(1, 100), .ports = {MakePort(1, "port0", wire.ifindex())}, .removes = {}, .drop_ports = {}});
  EXPECT_TRUE(plane_->RemoveEverything().ok());
  ExpectHeld({}, {});
  EXPECT_TRUE(plane_->RemoveEverything().ok());
}

TEST_P(DataplaneContract, KeepsEverythingWhenItsRoomGrows) {
  if (!GetParam().real) GTEST_SKIP() << "nothing outlives the process";
  const PortConfig port = MakePort(1, "port0", 0);
  MustApply({.puts = Many(1, 1000), .ports = {port}, .removes = {}, .drop_ports = {}});
  Snapshot snapshot = Reopen(2 * kCapacity);
  EXPECT_THAT(snapshot.ports, ElementsAre(port));
  EXPECT_EQ(snapshot.entries, Many(1, 1000));
  MustApply({.puts = Many(1, 2 * kCapacity, 0x0B000000), .ports = {}, .removes = {}, .drop_ports = {}});
  snapshot = Reopen(kCapacity);
  EXPECT_THAT(snapshot.ports, ElementsAre(port));
  EXPECT_EQ(snapshot.entries.size(), 2 * kCapacity + 1000);
}

INSTANTIATE_TEST_SUITE_P(Planes, DataplaneContract, testing::ValuesIn(Planes(false)), NameOf);

}  // namespace
}  // namespace mgr::test
