#pragma once

#include <string>
#include <string_view>

#include "cdb_store/view.h"
#include "model/model.h"
#include "read/data_instance.h"
#include "read/filter.h"

namespace cdbd {

/// An instance of a configuration in the store, list entries in key order. Containers of state are there too, without
/// content of their own. What the store fails to read looks absent: ask the view for its error afterwards.
class StoredInstance final : public DataInstance {
 public:
  /// The root. `view` outlives it.
  explicit StoredInstance(const cdb_store::View& view);

  [[nodiscard]] std::optional<std::string_view> Leaf(const Node& leaf, std::string* buffer) const override;
  void LeafList(const Node& list, VisitText visit) const override;
  [[nodiscard]] bool HasEntry(const Node& list, std::string_view text) const override;
  void Instances(const Node& node, const std::vector<EntryKeys>* named, VisitInstance visit) const override;
  [[nodiscard]] std::string_view keys() const override { return keys_; }

 private:
  StoredInstance(const cdb_store::View& view, std::string_view keys, std::string_view row)
      : view_{view}, keys_{keys}, row_{row} {}
  void NamedEntries(const Node& list, const std::vector<EntryKeys>& named, VisitInstance visit) const;

  const cdb_store::View& view_;
  const std::string_view keys_;
  const std::string_view row_;  ///< of the node whose row holds this one
};

/// Appends what `selection` selects of the configuration that `view` shows. Fails if the store does; what was appended
/// is then incomplete.
[[nodiscard]] common::Status WriteConfiguration(const Model& model, const cdb_store::View& view,
                                                const Selection& selection, std::string* out);

}  // namespace cdbd
