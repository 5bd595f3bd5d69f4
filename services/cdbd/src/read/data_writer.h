#pragma once

#include <string>
#include <string_view>

#include "model/model.h"
#include "read/data_instance.h"
#include "read/filter.h"

namespace cdbd {

/// Entries of provided lists that are written already.
class WrittenLists {
 public:
  virtual ~WrittenLists() = default;
  /// The XML of the entries of `list` in the instance with `parent_keys`; null if it was not read.
  [[nodiscard]] virtual const std::string* Entries(const cdb_store::Node& list, std::string_view parent_keys) const = 0;
};

/// Writes what a subtree filter selects of a source of data as XML: nodes in schema order, list entries in the order of
/// the source, keys first. Only what is set is written; defaults are not.
class DataWriter final {
 public:
  /// Writes the configuration only.
  explicit DataWriter(const Model& model) : DataWriter{model, nullptr} {}
  /// Writes state too. Entries of provided lists come from `provided`. Both outlive the writer.
  DataWriter(const Model& model, const WrittenLists* provided)
      : model_{model}, schema_{model.schema()}, provided_{provided} {}

  /// Appends what is selected below `root`.
  void Write(const DataInstance& root, const Selection& selection, std::string* out) const;
  /// Appends one entry of `list`, or nothing if `candidates`, the filter elements of the list's name, do not select it.
  void WriteEntry(const cdb_store::Node& list, const DataInstance& entry, const Selection& candidates,
                  std::string* out) const;

 private:
  using Node = cdb_store::Node;

  // Each returns whether something selected was written.
  bool WriteChildren(const Node& parent, const DataInstance& holder, const Selection& selection,
                     std::string* out) const;
  bool WriteChild(const Node& node, const DataInstance& holder, const Selection& candidates, std::string* out) const;
  bool WriteLeaf(const Node& node, const DataInstance& holder, const Selection& candidates, std::string* out) const;
  bool WriteLeafList(const Node& node, const DataInstance& holder, const Selection& candidates, std::string* out) const;
  bool WriteInstance(const Node& node, const DataInstance& instance, const Selection& selection,
                     std::string* out) const;
  bool WriteKeys(const Node& list, const DataInstance& entry, const Selection& selection, std::string* out) const;

  const Model& model_;
  const cdb_store::Schema& schema_;
  const WrittenLists* const provided_;
};

}  // namespace cdbd
