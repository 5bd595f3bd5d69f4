#include "cdb_store/path.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace cdb_store {
namespace {

/// "prefix:name{key|key}" or "name[3]" of each step, and what is wrong at the end.
std::vector<std::string> Steps(PathReader& reader, std::vector<size_t>* ends = nullptr) {
  std::vector<std::string> texts;
  PathStep step;
  while (reader.Next(step)) {
    std::string text = (step.prefix.empty() ? "" : std::string(step.prefix) + ":") + std::string(step.name);
    if (step.selector == PathStep::Selector::kPosition) text += "[" + std::to_string(step.position) + "]";
    for (size_t k = 0; k < step.key_count; ++k) text += (k == 0 ? "{" : "|") + std::string(step.keys[k]);
    texts.push_back(text + (step.key_count > 0 ? "}" : ""));
    if (ends != nullptr) ends->push_back(reader.end());
  }
  if (reader.problem() != nullptr) texts.push_back(std::string("problem: ") + reader.problem());
  return texts;
}

struct Row {
  const char* name;
  std::string path;
  std::vector<std::string> steps;
  std::vector<size_t> ends;
};

class PathSteps : public ::testing::TestWithParam<Row> {};

TEST_P(PathSteps, IsTheseSteps) {
  PathReader reader(GetParam().path);
  std::vector<size_t> ends;
  EXPECT_EQ(Steps(reader, &ends), GetParam().steps);
  EXPECT_EQ(ends, GetParam().ends);
}

TEST_P(PathSteps, GoesOnBehindEveryWholeStep) {
  for (size_t known = 0; known < GetParam().ends.size(); ++known) {
    PathReader reader(GetParam().path, GetParam().ends[known]);
    const std::vector<std::string> rest(GetParam().steps.begin() + static_cast<long>(known) + 1,
                                        GetParam().steps.end());
    EXPECT_EQ(Steps(reader), rest) << "from " << GetParam().ends[known];
  }
  PathReader from_the_start(GetParam().path, 0);
  EXPECT_EQ(Steps(from_the_start), GetParam().steps);
}

INSTANTIATE_TEST_SUITE_P(
    Path, PathSteps,
    ::testing::Values(
        Row{"Empty", "", {"problem: is empty"}, {}}, Row{"Slash", "/", {"problem: names no node"}, {}},
        Row{"Names", "/a/b/cc", {"a", "b", "cc"}, {2, 4, 7}}, Row{"NoSlashInFront", "a/b", {"a", "b"}, {1, 3}},
        Row{"Prefixes", "/p:a/q:b", {"p:a", "q:b"}, {4, 8}}, Row{"Keys", "/a{x}/b{y zz}", {"a{x}", "b{y|zz}"}, {5, 13}},
        Row{"Positions", "/a[0]/b[17]/c", {"a[0]", "b[17]", "c"}, {5, 11, 13}},
        Row{"SlashInAQuotedKey", "/a{\"x/y\"}/b", {"a{x/y}", "b"}, {9, 11}},
        Row{"SlashInAPlainKey", "/a{x/y}/b", {"a{x/y}", "b"}, {7, 9}},
        Row{"BraceInAQuotedKey", "/a{\"x}/b\"}/c", {"a{x}/b}", "c"}, {10, 12}},
        Row{"EscapesInSeveralKeys", R"(/a{"q\"1" p "\\" "t\t"}/b{"\"" z})", {"a{q\"1|p|\\|t\t}", "b{\"|z}"}, {23, 33}},
        Row{"EndsInSlash", "/a/", {"problem: ends in '/'"}, {}},
        Row{"LaterEndsInSlash", "/a/b/", {"a", "problem: ends in '/'"}, {2}},
        Row{"TwoSlashes", "/a//b", {"a", "problem: has an empty node name"}, {2}},
        Row{"TextBehindKeys", "/a{x}b", {"problem: has something other than '/' after a node"}, {}},
        Row{"OpenQuoteBehindAWholeStep", "/a/b{\"x", {"a", "problem: has a quote without its end"}, {2}}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace cdb_store
