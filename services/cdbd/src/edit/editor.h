#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "cdb_store/store_writer.h"
#include "model/data_error.h"
#include "model/model.h"
#include "netconf/xml.h"

namespace cdbd {

/// What an element of an edit asks for (RFC 6241, section 7.2).
enum class Operation { kMerge, kReplace, kCreate, kDelete, kRemove, kNone };

struct EditOptions {
  Operation default_operation = Operation::kMerge;  ///< kMerge, kReplace or kNone
  bool continue_on_error = false;  ///< what fails is left out and the rest applied; else the first error ends the edit
};

/// Applies the content of <config> to a write transaction, straight from the XML: each element is checked against the
/// data model, looked up and changed in place. Cost follows the edit. After an error the transaction holds what was
/// applied before it.
class Editor final {
 public:
  /// All outlive the editor.
  Editor(const Model& model, cdb_store::WriteTxn& txn, EditOptions options)
      : model_{model}, schema_{model.schema()}, txn_{txn}, options_{options} {}

  /// The errors, none on success.
  DataErrors Apply(const netconf::XmlElement& config);

 private:
  using Node = cdb_store::Node;
  using Element = netconf::XmlElement;

  /// An element with the node and operation that were found for it.
  struct Item {
    const Element* element;
    const Node* node;
    Operation operation;
  };
  /// A node between the root and the current one, for the choices that creating something below decides.
  struct Step {
    const Node* node;
    size_t keys_size;  ///< of its parent's instance
    bool decided;
  };

  void Children(const Node& parent, const Element& holder, Operation inherited);
  [[nodiscard]] bool Resolve(const Node& parent, const Element& element, Operation inherited, Item* item);
  [[nodiscard]] bool CheckTogether(const std::vector<Item>& items);
  void One(const Item& item);
  void Leaf(const Item& item);
  void Container(const Item& item);
  void Instance(const Item& item);
  [[nodiscard]] bool AppendKeys(const Item& item);
  void DecideChoices();

  bool Store(const common::Status& status);
  /// What a read of the store has found. One that failed ends the edit.
  template <class T>
  [[nodiscard]] bool Read(const cdb_store::Answer<T>& result, T* found) {
    if (!result.ok()) return Store(result.error());
    *found = result.value();
    return true;
  }
  void Fail(const Node& node, DataError error);
  void Exists(const Node& node);
  void Missing(const Node& node);
  [[nodiscard]] bool Stopped() const { return fatal_ || (!errors_.empty() && !options_.continue_on_error); }

  const Model& model_;
  const cdb_store::Schema& schema_;
  cdb_store::WriteTxn& txn_;
  const EditOptions options_;
  cdb_store::InstanceKey keys_;
  std::vector<Step> path_;
  DataErrors errors_;
  bool fatal_ = false;
};

/// The operation of that name, for attributes and for <default-operation> alike.
std::optional<Operation> ParseOperation(std::string_view name);

}  // namespace cdbd
