// The comparison of the status list, which contradicts itself where rows of one port differ in type, and the sort that
// accepts it.
#include <algorithm>
#include <array>
#include <functional>
#include <random>

#include "daemon_fixture.h"
#include "utils/merge_sort.h"

namespace ip_spoofing_app {
namespace {

using Rows = std::vector<AllowedIpStatusEntry>;

struct Fields {
  uint16_t port;
  uint32_t type;
  uint16_t vlan;
  uint16_t all_vlan;
  std::array<uint8_t, 4> address;
};

AllowedIpStatusEntry Make(const Fields& fields) {
  AllowedIpStatusEntry row{};
  row.limid = limid_t{{0, fields.port}};
  row.type = fields.type;
  row.vlan = fields.vlan;
  row.all_vlan = fields.all_vlan;
  std::copy(fields.address.begin(), fields.address.end(), row.address);
  return row;
}

struct PairCase {
  std::string name;
  Fields a;
  Fields b;
  bool a_first;
  bool b_first;
};

class StatusPair : public DaemonTest, public testing::WithParamInterface<PairCase> {};

TEST_P(StatusPair, IsCompared) {
  EXPECT_EQ(CompareStatusEntries(Make(GetParam().a), Make(GetParam().b)), GetParam().a_first);
  EXPECT_EQ(CompareStatusEntries(Make(GetParam().b), Make(GetParam().a)), GetParam().b_first);
}

constexpr std::array<uint8_t, 4> kNone = {};

INSTANTIATE_TEST_SUITE_P(
    All, StatusPair,
    testing::Values(
        PairCase{"PortFirst", {1, 3, 9, 9, kNone}, {2, 0, 1, 1, kNone}, true, false},
        PairCase{"Same", {1, 0, 5, 0, kNone}, {1, 0, 5, 9, kNone}, false, false},
        PairCase{"AddressesByVlan", {1, 0, 5, 9, {{9, 9, 9, 9}}}, {1, 0, 6, 1, kNone}, true, false},
        PairCase{"VlanIsUnsigned", {1, 0, 0x7fff, 0, kNone}, {1, 0, 0x8000, 0, kNone}, true, false},
        // The first octet is the lowest byte of the number that a little-endian machine reads.
        PairCase{"AddressByRawNumber", {1, 0, 5, 0, {{1, 0, 0, 2}}}, {1, 0, 5, 0, {{2, 0, 0, 1}}}, false, true},
        PairCase{"AddressByFirstOctetOnly", {1, 0, 5, 0, {{10, 0, 0, 1}}}, {1, 0, 5, 0, {{200, 0, 0, 1}}}, true, false},
        PairCase{"RawNumberIsUnsigned", {1, 0, 5, 0, {{0, 0, 0, 127}}}, {1, 0, 5, 0, {{0, 0, 0, 128}}}, true, false},
        PairCase{"AllowAllByItsVlan", {1, 2, 9, 5, kNone}, {1, 2, 1, 6, kNone}, true, false},
        PairCase{"AddressBeforeAllowAllOfAHigherVlan", {1, 0, 5, 99, kNone}, {1, 1, 0, 7, kNone}, true, false},
        PairCase{"AddressBehindAllowAllOfALowerVlan", {1, 0, 8, 0, kNone}, {1, 1, 99, 7, kNone}, false, true},
        PairCase{"AddressAndAllowAllOfOneVlan", {1, 0, 7, 1, kNone}, {1, 1, 1, 7, kNone}, false, false},
        PairCase{"AllowAllByType", {1, 1, 9, 9, kNone}, {1, 2, 1, 1, kNone}, true, false},
        PairCase{"TypeIsSigned", {1, 0xffffffffU, 0, 0, kNone}, {1, 1, 0, 0, kNone}, true, false}),
    [](const auto& row) { return row.param.name; });

using StatusOrder = DaemonTest;

// The library is asked twice: whether the ports differ, then which is first.
TEST_F(StatusOrder, PortsAreOrderedByTheSecondComparison) {
  fakes::TheScript().Return("limid_compare", 1);
  fakes::TheScript().ReturnNth("limid_compare", 2, -1);
  EXPECT_TRUE(CompareStatusEntries(Make({2, 0, 0, 0, kNone}), Make({1, 0, 0, 0, kNone})));
}

/// The rule once more, written as its sentences, for rows on ports of ascending number.
bool Stated(const Fields& a, const Fields& b) {
  if (a.port < b.port) return true;
  if (a.port > b.port) return false;
  const auto raw = [](const Fields& f) {
    return f.address[0] + 256.0 * f.address[1] + 65536.0 * f.address[2] + 16777216.0 * f.address[3];
  };
  if (a.type == 0 && b.type == 0) return a.vlan == b.vlan ? raw(a) < raw(b) : a.vlan < b.vlan;
  if (a.type == b.type) return a.all_vlan < b.all_vlan;
  if (a.type == 0) return a.vlan < b.all_vlan;
  if (b.type == 0) return a.all_vlan < b.vlan;
  return static_cast<int32_t>(a.type) < static_cast<int32_t>(b.type);
}

class RandomRows {
 public:
  explicit RandomRows(uint32_t seed) : random_{seed} {}

  Fields Next() {
    Fields fields{};
    fields.port = Pick({1, 2, 3});
    fields.type = Pick({0, 0, 1, 2, 3, 4});
    if (Pick({0, 0, 0, 1}) == 1) fields.type = 0x80000000U + fields.type;
    fields.vlan = Pick({0, 1, 2, 100, 0x7fff, 0x8000, 0xffff});
    fields.all_vlan = Pick({0, 1, 2, 100, 0x7fff, 0x8000, 0xffff});
    for (uint8_t& byte : fields.address) byte = static_cast<uint8_t>(Pick({0, 1, 127, 128, 255}));
    return fields;
  }

 private:
  uint16_t Pick(std::initializer_list<uint16_t> values) {
    return values.begin()[std::uniform_int_distribution<size_t>(0, values.size() - 1)(random_)];
  }
  std::mt19937 random_;
};

TEST_F(StatusOrder, EveryPairOfRandomRowsIsComparedAsStated) {
  RandomRows random(20261121);
  std::vector<Fields> fields;
  for (int i = 0; i < 400; ++i) fields.push_back(random.Next());
  int differences = 0;
  for (const Fields& a : fields) {
    for (const Fields& b : fields) {
      if (CompareStatusEntries(Make(a), Make(b)) != Stated(a, b)) ++differences;
    }
  }
  EXPECT_EQ(differences, 0);
}

// ---------------------------------------------------------------------------------------------------------- sort

using Less = std::function<bool(int, int)>;

/// The most comparisons that a merge sort of n elements makes.
size_t Bound(size_t n) {
  size_t log2 = 0;
  while ((size_t{1} << log2) < n) ++log2;
  return n * log2;
}

/// Sorts 0, 1, ..., n-1 in a random order under `less`; checks that it ends in time and keeps every element.
void SortAndCheck(size_t n, std::mt19937* random, const Less& less, std::vector<int>* sorted) {
  std::vector<int> items(n);
  for (size_t i = 0; i < n; ++i) items[i] = static_cast<int>(i);
  std::shuffle(items.begin(), items.end(), *random);
  size_t asked = 0;
  merge_sort(items, [&](int a, int b) {
    ++asked;
    return less(a, b);
  });
  EXPECT_LE(asked, Bound(n));
  *sorted = items;
  std::sort(items.begin(), items.end());
  for (size_t i = 0; i < n; ++i) ASSERT_EQ(items[i], static_cast<int>(i));
}

TEST(MergeSort, SortsByAnOrder) {
  std::mt19937 random(1);
  for (size_t n = 0; n < 300; ++n) {
    std::vector<int> sorted;
    SortAndCheck(
        n, &random, [](int a, int b) { return a / 3 < b / 3; }, &sorted);
    EXPECT_TRUE(std::is_sorted(sorted.begin(), sorted.end(), [](int a, int b) { return a / 3 < b / 3; }));
  }
}

TEST(MergeSort, KeepsTheOrderOfEqualElements) {
  for (size_t n = 0; n < 300; ++n) {
    std::vector<std::pair<int, size_t>> items(n);
    for (size_t i = 0; i < n; ++i) items[i] = {static_cast<int>(i * 7 % 5), i};
    merge_sort(items, [](const auto& a, const auto& b) { return a.first < b.first; });
    EXPECT_TRUE(std::is_sorted(items.begin(), items.end())) << n;
  }
}

struct BadOrder {
  std::string name;
  std::function<bool(std::mt19937*, int, int)> less;
};

class MergeSortAccepts : public testing::TestWithParam<BadOrder> {};

TEST_P(MergeSortAccepts, AnyComparison) {
  std::mt19937 random(2);
  for (size_t n = 0; n < 400; ++n) {
    std::vector<int> sorted;
    SortAndCheck(
        n, &random, [&](int a, int b) { return GetParam().less(&random, a, b); }, &sorted);
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, MergeSortAccepts,
    testing::Values(BadOrder{"AlwaysTrue", [](std::mt19937*, int, int) { return true; }},
                    BadOrder{"AlwaysFalse", [](std::mt19937*, int, int) { return false; }},
                    BadOrder{"Reflexive", [](std::mt19937*, int a, int b) { return a <= b; }},
                    BadOrder{"Circular", [](std::mt19937*, int a, int b) { return (b - a + 300) % 3 == 1; }},
                    BadOrder{"Random", [](std::mt19937* random, int, int) { return ((*random)() & 1) != 0; }}),
    [](const auto& row) { return row.param.name; });

class StatusSort : public DaemonTest, public testing::WithParamInterface<uint32_t> {
 public:
  static void Tag(AllowedIpStatusEntry* row, uint32_t tag) {
    row->mac[0] = 1;
    for (int i = 0; i < 4; ++i) row->mac[1 + i] = static_cast<uint8_t>(tag >> (24 - 8 * i));
  }

 protected:
  /// Rows as the manager's list gave them back, in the order in which they are served. The address tells them apart.
  std::vector<uint32_t> Served(const Rows& rows) {
    ConfDAppMgr& confd = Build({Kind::kReply});
    confd.ip_spoofing_register_status_callbacks();
    confd.SetEntryList(rows);
    std::vector<uint32_t> tags;
    for (size_t i = 0; i < rows.size(); ++i) {
      fakes::Keypath key = fakes::Keypath::StatusRow(static_cast<int64_t>(i));
      ConfDAppMgr::handle_get_obj_allowed_ip(fakes::TheProvider().Transaction(1), key.Get());
      const Lines reply = Taken();
      uint32_t mac[4] = {};
      EXPECT_EQ(reply.size(), 1U);
      EXPECT_EQ(
          sscanf(reply[0].c_str(), "reply 1 row 1c4b7396=binary:01:%x:%x:%x:%x", &mac[0], &mac[1], &mac[2], &mac[3]),
          4);
      tags.push_back(mac[0] << 24 | mac[1] << 16 | mac[2] << 8 | mac[3]);
    }
    return tags;
  }
};

// Lists of mixed rows, on which the comparison contradicts itself: every row is served exactly once.
TEST_P(StatusSort, KeepsEveryRow) {
  RandomRows random(GetParam());
  Rows rows;
  const size_t count = GetParam() * 37 % 600;
  for (uint32_t i = 0; i < count; ++i) {
    rows.push_back(Make(random.Next()));
    Tag(&rows.back(), i);
  }
  std::vector<uint32_t> served = Served(rows);
  std::sort(served.begin(), served.end());
  std::vector<uint32_t> wanted(count);
  for (uint32_t i = 0; i < count; ++i) wanted[i] = i;
  EXPECT_EQ(served, wanted);
}

// Rows of one type are in the stated order.
TEST_P(StatusSort, OrdersRowsOfOneType) {
  RandomRows random(GetParam());
  Rows rows;
  std::vector<Fields> fields;
  for (uint32_t i = 0; i < 200; ++i) {
    fields.push_back(random.Next());
    fields.back().type = GetParam() % 4;
    rows.push_back(Make(fields.back()));
    Tag(&rows.back(), i);
  }
  const std::vector<uint32_t> served = Served(rows);
  for (size_t i = 1; i < served.size(); ++i) EXPECT_FALSE(Stated(fields[served[i]], fields[served[i - 1]])) << i;
}

/// An ordinary port: sources on one VLAN and an allow-all row of the same VLAN, which the comparison takes for equal to
/// each of them. Tag 0 is the allow-all row, tag n the source of the n-th address.
struct OrdinaryPort {
  Rows rows;
  std::vector<uint32_t> wanted;
};

enum class ModeRow { kFirst, kLast };

OrdinaryPort MakeOrdinaryPort(size_t sources, ModeRow where, std::mt19937* random) {
  std::vector<uint8_t> hosts(sources);
  for (size_t i = 0; i < sources; ++i) hosts[i] = static_cast<uint8_t>(i + 1);
  std::shuffle(hosts.begin(), hosts.end(), *random);
  OrdinaryPort port;
  for (const uint8_t host : hosts) {
    // The last octet is the highest byte of the number that is compared.
    port.rows.push_back(Make({1, 0, 0, 0, {{10, 0, 0, host}}}));
    StatusSort::Tag(&port.rows.back(), host);
  }
  AllowedIpStatusEntry mode = Make({1, 1, 0, 0, kNone});
  StatusSort::Tag(&mode, 0);
  port.rows.insert(where == ModeRow::kFirst ? port.rows.begin() : port.rows.end(), mode);
  for (uint32_t i = 1; i <= sources; ++i) port.wanted.push_back(i);
  port.wanted.insert(where == ModeRow::kFirst ? port.wanted.begin() : port.wanted.end(), 0U);
  return port;
}

TEST_P(StatusSort, OrdersSourcesBesideAnAllowAllRow) {
  std::mt19937 random(GetParam());
  for (const ModeRow where : {ModeRow::kFirst, ModeRow::kLast}) {
    for (const size_t sources : {size_t{3}, size_t{5}, size_t{GetParam() * 8}}) {
      const OrdinaryPort port = MakeOrdinaryPort(sources, where, &random);
      EXPECT_EQ(Served(port.rows), port.wanted);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seed, StatusSort, testing::Range(1U, 25U), testing::PrintToStringParamName());

}  // namespace
}  // namespace ip_spoofing_app
