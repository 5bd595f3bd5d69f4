#pragma once

#include "read/data_instance.h"
#include "read/providers.h"

namespace cdbd {

/// One entry of a provided list, its containers included: all their leaves are in one row.
class ProvidedInstance final : public DataInstance {
 public:
  explicit ProvidedInstance(const ProvidedRow& row) : row_{row} {}

  [[nodiscard]] std::optional<std::string_view> Leaf(const Node& leaf, std::string*) const override {
    const std::string* text = row_.Find(leaf.id);
    return text == nullptr ? std::nullopt : std::optional<std::string_view>{*text};
  }
  void Instances(const Node& node, const std::vector<EntryKeys>*, VisitInstance visit) const override {
    if (node.kind == cdb_store::NodeKind::kContainer) visit(*this);
  }
  // The data model has leaves and containers only in a provided list.
  void LeafList(const Node&, VisitText) const override {}
  [[nodiscard]] bool HasEntry(const Node&, std::string_view) const override { return false; }

 private:
  const ProvidedRow& row_;
};

}  // namespace cdbd
