#include "cdb_store/diff.h"

#include <gtest/gtest.h>

#include <functional>

#include "cdb_store/path.h"
#include "cdb_store/store_writer.h"
#include "cdb_store_testing/models.h"
#include "cdb_store_testing/tree.h"
#include "temp_dir/temp_dir.h"

namespace cdb_store {
namespace {

using testing::Put;
using testing::Remove;

TEST(Change, SurvivesPacking) {
  const std::optional<std::string_view> rows[] = {std::nullopt, "", "a", std::string_view("\0b", 2)};
  for (const auto& old_row : rows) {
    for (const auto& new_row : rows) {
      const std::string packed = PackChange({"key", old_row, new_row});
      const auto change = UnpackChange("key", packed);
      ASSERT_TRUE(change.has_value());
      EXPECT_EQ(change->old_row, old_row);
      EXPECT_EQ(change->new_row, new_row);
    }
  }
  EXPECT_FALSE(UnpackChange("key", "abc").has_value());
  EXPECT_FALSE(UnpackChange("key", std::string("\3\0\0\0\x9xx", 7)).has_value());
}

struct TriggerCase {
  const char* name;
  std::function<void(WriteTxn&)> edit;
  const char* target;
  bool triggers;
};

class Trigger : public ::testing::TestWithParam<TriggerCase> {};

TEST_P(Trigger, FollowsWhatIsAtBelowAndAbove) {
  const test::TempDir dir;
  auto store = StoreWriter::Open({.path = dir.path(), .durable = false}, testing::BoxSchema(), "server").value();
  testing::CommitTree(*store, {{"/tb:box/name", "one"},
                               {"/tb:box/clock/zone", "z"},
                               {"/tb:box/site{a}/where/latitude", "1"},
                               {"/tb:box/site{a}/where/floor{1}/label", "x"},
                               {"/tb:box/login/banner", "b"}});
  auto txn = store->Begin();
  GetParam().edit(txn.value());
  const Located at = LocatePath(store->schema(), GetParam().target).value();
  const SubscriptionTarget target{at.node->id, at.keys};
  bool triggered = false;
  const std::vector<OwnedChange> changes = txn.value().Changes(true).value();
  for (const OwnedChange& change : changes) {
    triggered = triggered || Triggers(store->schema(), target, change.view());
  }
  EXPECT_EQ(triggered, GetParam().triggers);
}

void SetLabel(WriteTxn& txn) { Put(txn, "/tb:box/site{a}/where/floor{1}/label", "y"); }
void DeleteSite(WriteTxn& txn) { Remove(txn, "/tb:box/site{a}"); }
void AddSite(WriteTxn& txn) { Put(txn, "/tb:box/site{b}/height", "1"); }
void SetZone(WriteTxn& txn) { Put(txn, "/tb:box/clock/zone", "y"); }
void DeleteLogin(WriteTxn& txn) { Remove(txn, "/tb:box/login"); }

INSTANTIATE_TEST_SUITE_P(
    All, Trigger,
    ::testing::Values(TriggerCase{"NothingChanged", [](WriteTxn&) {}, "/tb:box", false},
                      TriggerCase{"BelowAList", SetLabel, "/tb:box/site", true},
                      TriggerCase{"BelowAnInstance", SetLabel, "/tb:box/site{a}", true},
                      TriggerCase{"BelowAnotherInstance", SetLabel, "/tb:box/site{b}", false},
                      TriggerCase{"TheLeafItself", SetLabel, "/tb:box/site/where/floor/label", true},
                      TriggerCase{"ASiblingLeaf", SetLabel, "/tb:box/site/where/latitude", false},
                      TriggerCase{"BelowTheTop", SetLabel, "/tb:box", true},
                      TriggerCase{"BelowASiblingContainer", SetLabel, "/tb:box/clock", false},
                      TriggerCase{"AncestorDeleted", DeleteSite, "/tb:box/site/where/floor", true},
                      TriggerCase{"AncestorDeletedWithNothingBelow", DeleteSite, "/tb:box/site/where/floor/room", true},
                      TriggerCase{"OtherAncestorDeleted", DeleteSite, "/tb:box/site{b}/where/floor", false},
                      TriggerCase{"NamedAncestorDeleted", DeleteSite, "/tb:box/site{a}/where/floor{9}", true},
                      TriggerCase{"AncestorCreated", AddSite, "/tb:box/site/where/floor", false},
                      TriggerCase{"LeafOfARowThatWasCreated", AddSite, "/tb:box/site/height", true},
                      TriggerCase{"OtherLeafOfARowThatWasCreated", AddSite, "/tb:box/site/address", false},
                      TriggerCase{"LeafUnderContainers", SetZone, "/tb:box/clock", true},
                      TriggerCase{"LeafUnderOtherContainers", SetZone, "/tb:box/name", false},
                      TriggerCase{"PresenceDeleted", DeleteLogin, "/tb:box/login/strict/level", true},
                      TriggerCase{"PresenceItself", DeleteLogin, "/tb:box/login", true}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace cdb_store
