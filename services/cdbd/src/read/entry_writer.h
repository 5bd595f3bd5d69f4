#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "model/model.h"
#include "read/filter.h"
#include "read/providers.h"

namespace cdbd {

/// Writes entries of one list that a data provider serves as XML: keys first, the rest in schema order, and of it what
/// is selected. What is the same for all entries is made once.
class EntryWriter final {
 public:
  /// `candidates` are the filter elements of the list's name; what they point at, and the model, outlive the writer.
  EntryWriter(const Model& model, const cdb_store::Node& list, Selection candidates);

  /// Appends the entry, or nothing when it is not selected.
  void Write(const ProvidedRow& row, std::string* out) const { WriteInstance(entry_, candidates_, row, out); }

 private:
  using Node = cdb_store::Node;
  /// A leaf, or a container (the entry itself, too) with what is in it.
  struct Part {
    const Node* node = nullptr;
    std::string xmlns;
    std::vector<Part> parts;
  };

  [[nodiscard]] Part PartOf(const Node& node) const;
  bool WriteInstance(const Part& part, const Selection& candidates, const ProvidedRow& row, std::string* out) const;
  bool WriteLeaf(const Part& leaf, const Selection& selection, const ProvidedRow& row, std::string* out) const;
  [[nodiscard]] bool Matches(const Part& part, const ProvidedRow& row, const netconf::XmlElement& element) const;

  const Model& model_;
  const Selection candidates_;
  const Part entry_;
};

}  // namespace cdbd
