// The table of entries against std::map, on keys that stand close together and on keys that do not.
#include "table/entry_table.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace mgr::test {
namespace {

EntryKey Key(PortId port, uint16_t vlan, uint32_t address) { return {port, vlan, htonl(address)}; }

/// Keys with their wanted MAC's first byte, in key order.
std::map<EntryKey, int> Contents(const EntryTable& table) {
  std::map<EntryKey, int> contents;
  for (const auto& [key, row] : table) contents[key] = row.wanted_mac[0];
  return contents;
}

TEST(EntryTable, IsEmptyAtFirst) {
  EntryTable table;
  EXPECT_TRUE(table.empty());
  EXPECT_EQ(table.Find(Key(1, 0, 0)), nullptr);
  EXPECT_TRUE(Contents(table).empty());
}

TEST(EntryTable, TellsKeysApartByEveryMember) {
  const std::vector<EntryKey> keys = {Key(1, 0, 0), Key(2, 0, 0),    Key(1, 1, 0),          Key(1, 0, 1),
                                      Key(1, 1, 1), Key(1, 4094, 0), Key(1, 0, 0xffffffff), Key(kMaxPortId, 4094, 7)};
  EntryTable table;
  std::map<EntryKey, int> expected;
  for (const EntryKey& key : keys) {
    EXPECT_EQ(table.Find(key), nullptr);
    expected[key] = static_cast<int>(expected.size()) + 1;
    table.FindOrMake(key)->second.wanted_mac[0] = static_cast<uint8_t>(expected[key]);
  }
  EXPECT_EQ(Contents(table), expected);
  for (const EntryKey& key : keys) {
    ASSERT_NE(table.Find(key), nullptr);
    EXPECT_EQ(table.Find(key)->second.wanted_mac[0], expected[key]);
  }
}

TEST(EntryTable, MakesARowOnceAndGivesAnErasedOneAnew) {
  EntryTable table;
  EntryTable::Node* first = table.FindOrMake(Key(1, 0, 1));
  first->second.wanted = true;
  EXPECT_EQ(table.FindOrMake(Key(1, 0, 1)), first);
  EXPECT_EQ(table.size(), 1U);
  table.FindOrMake(Key(1, 0, 2));
  table.Erase(first);
  EXPECT_EQ(table.size(), 1U);
  EXPECT_EQ(table.Find(Key(1, 0, 1)), nullptr);
  EXPECT_FALSE(table.FindOrMake(Key(1, 0, 1))->second.wanted);
  EXPECT_EQ(table.size(), 2U);
}

TEST(EntryTable, KeepsRowsWhereTheyAreWhileItGrows) {
  EntryTable table;
  std::vector<EntryTable::Node*> nodes;
  for (uint32_t i = 0; i < 5000; ++i) nodes.push_back(table.FindOrMake(Key(1, 0, i)));
  table.Reserve(100'000);
  for (uint32_t i = 0; i < 5000; ++i) ASSERT_EQ(table.Find(Key(1, 0, i)), nodes[i]) << i;
}

TEST(EntryTable, StartsAnewWhenTheLastRowIsGone) {
  EntryTable table;
  std::set<const EntryTable::Node*> rows;
  for (int round = 0; round < 3; ++round) {
    for (uint32_t i = 0; i < 3000; ++i) rows.insert(table.FindOrMake(Key(1, 0, i * 7)));
    for (uint32_t i = 0; i < 3000; ++i) table.Erase(table.Find(Key(1, 0, i * 7)));
    EXPECT_TRUE(table.empty());
    EXPECT_TRUE(Contents(table).empty());
  }
  EXPECT_EQ(rows.size(), 3000U);  // the same memory again
}

struct Keys {
  std::string name;
  EntryKey (*of)(uint32_t number);
};

class EntryTableRandom : public testing::TestWithParam<Keys> {};

TEST_P(EntryTableRandom, HoldsWhatAMapHolds) {
  for (uint32_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random{seed};
    EntryTable table;
    std::map<EntryKey, int> expected;
    for (int step = 0; step < 4000; ++step) {
      const EntryKey key = GetParam().of(random() % 400);
      // Grows to most of the keys, then shrinks to few of them.
      const bool make = random() % 10 < (step % 2000 < 1000 ? 7 : 3);
      EntryTable::Node* node = make ? table.FindOrMake(key) : table.Find(key);
      ASSERT_EQ(node != nullptr, make || expected.contains(key));
      if (make) {
        node->second.wanted_mac[0] = static_cast<uint8_t>(step);
        expected[key] = step & 0xff;
      } else if (node != nullptr) {
        table.Erase(node);
        expected.erase(key);
      }
      ASSERT_EQ(table.size(), expected.size());
      if (step % 50 != 0) continue;
      ASSERT_EQ(Contents(table), expected);
    }
    EXPECT_EQ(Contents(table), expected);
    for (uint32_t i = 0; i < 400; ++i) {
      EXPECT_EQ(table.Find(GetParam().of(i)) != nullptr, expected.contains(GetParam().of(i))) << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Keys, EntryTableRandom,
    testing::Values(Keys{"Neighbours", [](uint32_t i) { return Key(1, 0, 0x0A000000 + i); }},
                    Keys{"NeighboursOnManyPorts", [](uint32_t i) { return Key(1 + i / 20, 0, i % 20); }},
                    Keys{"OneVlanEach", [](uint32_t i) { return Key(3, static_cast<uint16_t>(i), 5); }},
                    Keys{"FarApart", [](uint32_t i) { return Key(1, 0, i * 0x9E3779B9U); }},
                    Keys{"EveryEighthAddress", [](uint32_t i) { return Key(1, 0, i * 8); }},
                    Keys{"TheTopOfTheRange", [](uint32_t i) { return Key(kMaxPortId, 4094, ~i); }}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace mgr::test
