#pragma once

#include <string>
#include <string_view>

#include "cdb_store/view.h"
#include "model/model.h"
#include "read/data_instance.h"
#include "read/filter.h"

namespace cdbd {

/// An instance of a configuration in the store, list entries in key order. Containers of state are there too, without
/// content of their own. Made by ReadStored() only, which tells whether the store failed.
class StoredInstance final : public DataInstance {
 public:
  [[nodiscard]] std::optional<std::string_view> Leaf(const Node& leaf, std::string* buffer) const override;
  void LeafList(const Node& list, VisitText visit) const override;
  [[nodiscard]] bool HasEntry(const Node& list, std::string_view text) const override;
  void Instances(const Node& node, const std::vector<EntryKeys>* named, VisitInstance visit) const override;
  [[nodiscard]] std::string_view keys() const override { return keys_; }

 private:
  friend common::Status ReadStored(const cdb_store::View& view,
                                   common::FunctionRef<void(const StoredInstance& root)> read);
  /// One call of ReadStored().
  struct Reading {
    const cdb_store::View& view;
    common::Status status = common::Ok();
    /// The answer of the store; nothing, and the reading fails, if it has none.
    template <class T>
    T Take(const cdb_store::Answer<T>& answer) {
      if (answer.ok()) return answer.value();
      if (status.ok()) status = answer.error();
      return {};
    }
  };

  StoredInstance(Reading& reading, std::string_view keys, std::string_view row)
      : reading_{reading}, keys_{keys}, row_{row} {}
  void NamedEntries(const Node& list, const std::vector<EntryKeys>& named, VisitInstance visit) const;

  Reading& reading_;
  const std::string_view keys_;
  const std::string_view row_;  ///< of the node whose row holds this one
};

/// Hands the root of the configuration that `view` shows to `read`. Fails if the store could not answer all that was
/// asked: what `read` saw is then incomplete, and must not be used.
[[nodiscard]] common::Status ReadStored(const cdb_store::View& view,
                                        common::FunctionRef<void(const StoredInstance& root)> read);

/// Appends what `selection` selects of the configuration that `view` shows. Fails if the store does; what was appended
/// is then incomplete.
[[nodiscard]] common::Status WriteConfiguration(const Model& model, const cdb_store::View& view,
                                                const Selection& selection, std::string* out);

}  // namespace cdbd
