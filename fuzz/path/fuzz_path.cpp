#include "cdb_store/path.h"
#include "cdb_store_testing/models.h"
#include "require.h"

namespace {

using namespace cdb_store;

void ReadSteps(std::string_view path) {
  PathReader reader(path);
  PathStep step;
  size_t steps = 0;
  while (reader.Next(step)) {
    fuzz::Require(++steps <= path.size(), "a step takes something of the path");
    fuzz::Require(!step.name.empty(), "a step has a name");
    fuzz::Require(step.key_count <= PathStep::kMaxKeys, "there are not more keys than places");
    size_t size = step.name.size() + step.prefix.size();
    for (size_t i = 0; i < step.key_count; ++i) size += step.keys[i].size();
    fuzz::Require(size <= path.size(), "what was read is not longer than the path");
  }
  fuzz::Require(!reader.Next(step), "the end stays the end");
}

/// What a path names is written as a path that names the same.
void Locate(const Schema& schema, std::string_view path) {
  const auto located = LocatePath(schema, path);
  if (!located || !located.value().all_keys) return;
  const Located& at = located.value();
  fuzz::Require(at.keys.size() <= kMaxKeys, "keys fit into a record");
  fuzz::Require(KeysSizeAt(schema, *at.node, at.keys) == at.keys.size(), "keys are those of the node");
  const auto again = LocatePath(schema, InstanceText(schema, *at.node, at.keys));
  fuzz::Require(again.ok(), "the text of an instance is a path");
  fuzz::Require(again.value().node == at.node && again.value().keys == at.keys, "and names that instance");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  static const Schema box = testing::BoxSchema();
  static const Schema anti_spoofing = testing::AntiSpoofingSchema();
  const std::string_view path{reinterpret_cast<const char*>(data), size};
  ReadSteps(path);
  Locate(box, path);
  Locate(anti_spoofing, path);
  return 0;
}
