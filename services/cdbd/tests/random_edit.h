#pragma once

#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "cdb_store/schema.h"
#include "netconf/xml.h"

/// Random edits, and what they must do to a configuration, told again in the simplest way: a tree of maps.
namespace cdbd::test {

/// A configuration. A child's name carries its keys: "leaf", "list[k1][k2]", "leaf-list[value]".
struct Tree {
  std::map<std::string, Tree> children;
  std::string value;
  [[nodiscard]] std::string Text(int depth = 0) const;
};

/// The configuration in an XML element's content.
Tree TreeOf(const cdb_store::Schema& schema, const cdb_store::Node& node, const netconf::XmlElement& element);

/// One element of an edit.
struct Edit {
  const cdb_store::Node* node = nullptr;
  std::vector<std::string> keys;  ///< of a list entry; the value of a leaf-list entry
  std::string value;
  std::string operation;  ///< "" when it has none
  std::vector<Edit> children;
  [[nodiscard]] std::string Name() const;
};

class EditMaker final {
 public:
  EditMaker(const cdb_store::Schema& schema, uint32_t seed) : schema_{schema}, random_{seed} {}
  /// Elements for below the root, of nodes that come from modules with data to configure.
  std::vector<Edit> Make();
  size_t Below(size_t n) { return random_() % n; }

 private:
  Edit MakeOne(const cdb_store::Node& node);
  std::vector<Edit> MakeChildren(const cdb_store::Node& parent);
  std::string Pick(const cdb_store::Node& leaf);

  const cdb_store::Schema& schema_;
  std::mt19937 random_;
};

/// The edit as the content of <config>.
std::string ToXml(const cdb_store::Schema& schema, const std::vector<Edit>& edits);

/// Applies the edit. The error-tag of the first error, "" on success; `tree` is unspecified after an error.
std::string Apply(const cdb_store::Schema& schema, const std::vector<Edit>& edits, const std::string& default_operation,
                  Tree* tree);

}  // namespace cdbd::test
