#include "keypath_builder.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "cdb_store/instance_key.h"
#include "values.h"

namespace confd {

using cdb_store::Node;

void KeypathBuilder::PushNode(const Node& node) {
  assert(size_ < MAXDEPTH);
  Element& element = elements_[size_++];
  element.count = 1;
  CONFD_SET_XMLTAG(&element.values[0], node.tag, schema_->ns(node).hash);
}

void KeypathBuilder::PushKeys(const Node& node, std::string_view keys) {
  assert(size_ < MAXDEPTH);
  Element& element = elements_[size_++];
  element.strings = cdb_store::OwnKeys(*schema_, node, keys);
  const std::vector<std::string>& own = element.strings;
  for (size_t i = 0; i < own.size(); ++i) {
    const Node& leaf = node.kind == cdb_store::NodeKind::kLeafList ? node : schema_->node(node.keys[i]);
    element.values[i] = BorrowValue(*schema_, leaf, own[i]);
  }
  CONFD_SET_NOEXISTS(&element.values[own.size()]);
  element.count = own.size() + 1;
}

confd_hkeypath_t* KeypathBuilder::Build() {
  keypath_.len = static_cast<int>(size_);
  for (size_t i = 0; i < size_; ++i) {
    const Element& element = elements_[size_ - 1 - i];
    std::copy_n(element.values.begin(), element.count, keypath_.v[i]);
  }
  return &keypath_;
}

void PushPath(KeypathBuilder& builder, const cdb_store::Schema& schema, const Node& node, std::string_view keys) {
  if (node.id == cdb_store::kRootId) return;
  const Node& parent = schema.node(node.parent);
  PushPath(builder, schema, parent, keys);
  builder.PushNode(node);
  const auto above = cdb_store::KeysSizeAt(schema, parent, keys);
  if (node.IsKeyed() && above && keys.size() > *above) builder.PushKeys(node, keys);
}

}  // namespace confd
