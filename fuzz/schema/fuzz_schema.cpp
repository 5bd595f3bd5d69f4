#include "cdb_store/instance_key.h"
#include "cdb_store/schema.h"
#include "require.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  using namespace cdb_store;
  const auto parsed = Schema::Parse({reinterpret_cast<const char*>(data), size});
  if (!parsed) return 0;
  const Schema& schema = parsed.value();
  for (size_t id = 0; id < schema.size(); ++id) {
    const Node& node = schema.node(static_cast<NodeId>(id));
    fuzz::Require(node.end > id && node.end <= schema.size(), "a subtree ends inside the schema");
    fuzz::Require(schema.node(node.row).HasRow(), "a node is in a row");
    for (const NodeId key : node.keys) fuzz::Require(schema.node(key).parent == id, "a key is a leaf of its list");
    fuzz::Require(schema.KeyedNodesTo(node).size() <= node.path_elements, "a list is an element of the path");
    InstanceText(schema, node, "some keys, or none");
  }
  const auto again = Schema::Parse(schema.Serialise());
  fuzz::Require(again.ok(), "what was read can be written and read");
  fuzz::Require(again.value().Fingerprint() == schema.Fingerprint(), "and is the same");
  fuzz::Require(again.value().Serialise() == schema.Serialise(), "to the byte");
  return 0;
}
