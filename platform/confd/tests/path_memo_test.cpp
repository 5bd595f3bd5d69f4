#include "path_memo.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace confd {
namespace {

using cdb_store::Node;

/// The steps of a path that was resolved: where each ends, and how many bytes of keys there are then.
struct Known {
  std::string path;
  std::vector<size_t> ends;
  std::vector<std::string> keys;  ///< each step's own
};

/// A memo that has resolved `known`. The node of step n has the id n + 1.
void Fill(PathMemo& memo, const Known& known, int ns, std::vector<Node>& nodes) {
  nodes.resize(known.ends.size());
  ASSERT_EQ(memo.TurnTo(known.path, ns), 0U);
  for (size_t i = 0; i < known.ends.size(); ++i) {
    nodes[i].id = static_cast<cdb_store::NodeId>(i + 1);
    Place place;
    place.node = &nodes[i];
    ASSERT_TRUE(memo.keys().AppendEncoded(known.keys[i]));
    place.keys_size = memo.keys().size();
    memo.Add(known.ends[i], place);
  }
}

const Known kEntry = {"/config/list{\"a/b\" \"}\"}/ipv4[12]/mac", {7, 23, 32, 36}, {"", "LIST", "POS", ""}};

struct Row {
  const char* name;
  std::string path;
  size_t steps;  ///< that stay
  std::string keys;
  int ns = 3;
};

class Memo : public ::testing::TestWithParam<Row> {};

TEST_P(Memo, KeepsTheWholeStepsInCommon) {
  PathMemo memo;
  std::vector<Node> nodes;
  Fill(memo, kEntry, 3, nodes);
  const Row& row = GetParam();
  EXPECT_EQ(memo.TurnTo(row.path, row.ns), row.steps == 0 ? 0 : kEntry.ends[row.steps - 1]);
  EXPECT_EQ(memo.last().node, row.steps == 0 ? nullptr : &nodes[row.steps - 1]);
  EXPECT_EQ(memo.keys().keys(), row.keys);
  // What did not stay is gone for good.
  EXPECT_EQ(memo.TurnTo(kEntry.path, row.ns), row.steps == 0 ? 0 : kEntry.ends[row.steps - 1]);
}

INSTANTIATE_TEST_SUITE_P(
    Path, Memo,
    ::testing::Values(
        Row{"TheSame", kEntry.path, 4, "LISTPOS"},
        Row{"OtherLeaf", "/config/list{\"a/b\" \"}\"}/ipv4[12]/vlan", 3, "LISTPOS"},
        Row{"LeafWithThisOneInFront", "/config/list{\"a/b\" \"}\"}/ipv4[12]/macro", 3, "LISTPOS"},
        Row{"LeafInFrontOfThisOne", "/config/list{\"a/b\" \"}\"}/ipv4[12]/ma", 3, "LISTPOS"},
        Row{"Above", "/config/list{\"a/b\" \"}\"}/ipv4[12]", 3, "LISTPOS"},
        Row{"Below", kEntry.path + "/x", 4, "LISTPOS"}, Row{"EndsInSlash", kEntry.path + "/", 4, "LISTPOS"},
        Row{"SomethingBehind", kEntry.path + "{k}", 3, "LISTPOS"},
        Row{"OtherPosition", "/config/list{\"a/b\" \"}\"}/ipv4[13]/mac", 2, "LIST"},
        Row{"PositionInFrontOfThisOne", "/config/list{\"a/b\" \"}\"}/ipv4[1]/mac", 2, "LIST"},
        Row{"PositionWithThisOneInFront", "/config/list{\"a/b\" \"}\"}/ipv4[123]/mac", 2, "LIST"},
        Row{"TheListOnly", "/config/list{\"a/b\" \"}\"}/ipv4", 2, "LIST"},
        Row{"KeyCutAtItsSlash", "/config/list{\"a", 1, ""}, Row{"KeyCutAtItsBrace", "/config/list{\"a/b\" \"}", 1, ""},
        Row{"OtherKey", "/config/list{\"a/c\" \"}\"}/ipv4[12]/mac", 1, ""},
        Row{"ListWithoutKeys", "/config/list", 1, ""}, Row{"PartOfAName", "/conf", 0, ""},
        Row{"OtherName", "/configs/list", 0, ""}, Row{"NoSlashInFront", "config/list", 0, ""}, Row{"Empty", "", 0, ""},
        Row{"OtherNamespace", kEntry.path, 0, "", 4}, Row{"NoNamespace", kEntry.path, 0, "", -1}),
    [](const auto& row) { return row.param.name; });

TEST(PathMemo, KeysOfAStepThatFailedAreForgotten) {
  PathMemo memo;
  std::vector<Node> nodes;
  Fill(memo, kEntry, -1, nodes);
  memo.TurnTo("/config/list{\"a/b\" \"}\"}/ipv4{1 x}", -1);
  ASSERT_TRUE(memo.keys().AppendEncoded("HALF"));  // the second key was none
  EXPECT_EQ(memo.TurnTo("/config/list{\"a/b\" \"}\"}/ipv4", -1), 23U);
  EXPECT_EQ(memo.keys().keys(), "LIST");
}

}  // namespace
}  // namespace confd
