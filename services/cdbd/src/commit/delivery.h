#pragma once

#include <functional>

#include "cdb_store/store_writer.h"
#include "model/data_error.h"

namespace cdbd {

/// Tells subscribers of a commit and waits for them.
class Delivery {
 public:
  using Done = std::function<void(DataErrors warnings)>;
  virtual ~Delivery() = default;
  /// A program is subscribed: the difference of the next commit has to be kept for it.
  [[nodiscard]] virtual bool HasSubscribers() const = 0;
  /// Delivers the store's last commit. `done` is called once, perhaps from within; the warnings are for the author.
  virtual void Deliver(const cdb_store::Txid& txid, Done done) = 0;
};

}  // namespace cdbd
