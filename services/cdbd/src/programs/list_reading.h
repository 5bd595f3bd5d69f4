#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cdb_store/schema.h"
#include "confd_wire/codec.h"
#include "read/providers.h"

namespace cdbd {

/// One reading of a provided list, page by page: what to ask the provider next, and what its answers mean. One page is
/// under way at a time. Sends and waits for nothing itself.
///
/// The next page is asked for before the rows of the last one are handed on: the provider works meanwhile.
class ListReading final {
 public:
  /// `thandle`, more than 0, is part of the number of every request: TransactionOf() tells it.
  ListReading(const cdb_store::Schema& schema, Providers::Request request, int32_t thandle);

  static int32_t TransactionOf(uint64_t request) { return static_cast<int32_t>(request >> 32); }
  [[nodiscard]] const Providers::Request& request() const noexcept { return request_; }
  [[nodiscard]] bool IsOpen(uint64_t request) const noexcept { return request != 0 && request == open_; }

  /// The packet that asks for the next page. Empty while one is under way, and when there is nothing more to ask for.
  std::string Ask();
  /// The answer to the open request.
  void OnRows(confd_wire::Rows page);
  void OnFailure(const confd_wire::ReadFailed& failure);
  /// Hands on the rows that have come.
  void HandOn();

  /// Everything was handed on.
  [[nodiscard]] bool ended() const noexcept { return end_ && rows_.empty(); }
  [[nodiscard]] const std::optional<std::string>& error() const noexcept { return error_; }

 private:
  void HandOn(const confd_wire::Row& row);
  void Fail(std::string why);

  const cdb_store::Schema& schema_;
  const Providers::Request request_;
  const int32_t thandle_;
  uint32_t last_number_ = 0;
  uint64_t open_ = 0;                  ///< the open request, 0: none
  int64_t position_ = -1;              ///< where the next page starts
  std::vector<confd_wire::Row> rows_;  ///< not yet handed on
  size_t count_ = 0;                   ///< rows and pages that came
  bool end_ = false;
  std::optional<std::string> error_;
};

}  // namespace cdbd
