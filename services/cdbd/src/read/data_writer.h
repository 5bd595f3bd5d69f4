#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "cdb_store/packed_row.h"
#include "cdb_store/view.h"
#include "model/model.h"
#include "read/filter.h"

namespace cdbd {

/// Where the entries of provided lists come from.
class ProvidedLists {
 public:
  virtual ~ProvidedLists() = default;
  /// What `candidates` select of the entries of `list` below the instance with `parent_keys`, as XML; null when that is
  /// not known (yet).
  virtual const std::string* Entries(const cdb_store::Node& list, std::string_view parent_keys,
                                     const Selection& candidates) = 0;
};

/// Writes a configuration as XML: nodes in schema order, list entries in key order, keys first. Only what was set is
/// there; defaults are not. Cost follows what is selected: entries named by all their keys are looked up.
class DataWriter final {
 public:
  /// `provided` null: configuration only. All outlive the writer.
  DataWriter(const Model& model, const cdb_store::View& view, ProvidedLists* provided)
      : model_{model}, schema_{model.schema()}, view_{view}, provided_{provided} {}

  /// Appends it. Fails when the store does; what was appended is then not the whole.
  [[nodiscard]] common::Status Write(const Selection& selection, std::string* out);

 private:
  using Node = cdb_store::Node;
  /// The instance that holds the nodes being written.
  struct Holder {
    std::string_view keys;
    std::string_view row;
  };

  bool WriteChildren(const Node& parent, const Holder& holder, const Selection& selection, std::string* out);
  bool WriteChild(const Node& node, const Holder& holder, const Selection& candidates, std::string* out);
  bool WriteLeaf(const Node& node, const Holder& holder, const Selection& candidates, std::string* out);
  bool WriteLeafList(const Node& node, const Holder& holder, const Selection& candidates, std::string* out);
  bool WriteList(const Node& node, const Holder& holder, const Selection& candidates, std::string* out);
  bool WriteInstance(const Node& node, const Holder& instance, const Selection& candidates, std::string* out);
  bool WriteNamed(const Node& list, const Holder& holder, const Selection& candidates, std::string* out, bool* wrote);

  [[nodiscard]] std::optional<std::string> LeafText(const Node& leaf, const Holder& holder) const;
  [[nodiscard]] bool Matches(const Node& parent, const Holder& holder, const netconf::XmlElement& element) const;

  const Model& model_;
  const cdb_store::Schema& schema_;
  const cdb_store::View view_;
  ProvidedLists* provided_;
};

}  // namespace cdbd
