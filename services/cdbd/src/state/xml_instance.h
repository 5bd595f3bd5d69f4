#pragma once

#include "model/model.h"
#include "netconf/xml.h"
#include "read/data_instance.h"

namespace cdbd {

/// An instance that is written as XML already, in whatever order. What the data model does not know is not visited.
class XmlInstance final : public DataInstance {
 public:
  /// Both outlive it.
  XmlInstance(const Model& model, const netconf::XmlElement& element) : model_{model}, element_{element} {}

  [[nodiscard]] std::optional<std::string_view> Leaf(const Node& leaf, std::string* buffer) const override;
  void LeafList(const Node& list, VisitText visit) const override;
  [[nodiscard]] bool HasEntry(const Node& list, std::string_view text) const override;
  void Instances(const Node& node, const std::vector<EntryKeys>* named, VisitInstance visit) const override;

 private:
  [[nodiscard]] const std::string& NamespaceOf(const Node& node) const { return model_.schema().ns(node).uri; }

  const Model& model_;
  const netconf::XmlElement& element_;
};

}  // namespace cdbd
