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

/// One reading of a provided list, entry by entry: what to ask the provider next, and what its answers mean. The object
/// of an entry and the key after it are asked for together; a provider that has both at hand may go on with the entries
/// after it, so that an entry costs one round trip at most. At most one object and one key are open at a time. Sends
/// and waits for nothing itself.
///
/// The packet that follows is sent before the entries that came are written: the provider works meanwhile.
class ListReading final {
 public:
  /// `thandle`, more than 0, is part of the number of every request: TransactionOf() tells it.
  ListReading(const cdb_store::Schema& schema, Providers::Request request, int32_t thandle);

  static int32_t TransactionOf(uint64_t request) { return static_cast<int32_t>(request >> 32); }
  [[nodiscard]] const Providers::Request& request() const noexcept { return request_; }
  [[nodiscard]] bool IsOpen(uint64_t request) const {
    return request != 0 && (request == open_key_ || request == open_object_);
  }

  /// Asks for the first key: the packet to send.
  std::string Begin();
  /// The answer to an open request.
  void OnAnswer(uint64_t request, std::string_view message);
  /// The packet to send now, "" when there is something to wait for or nothing more to ask.
  std::string Ask();
  /// Hands on the entries that are complete.
  void HandOn();

  /// Everything was handed on.
  [[nodiscard]] bool ended() const noexcept { return end_ && open_object_ == 0 && complete_.empty(); }
  [[nodiscard]] const std::optional<std::string>& error() const noexcept { return error_; }

 private:
  using Keys = std::vector<confd_wire::Value>;
  struct Next {
    Keys keys;
    std::string encoded;  ///< with those of the lists above
  };
  struct Entry {
    Keys keys;
    std::string object;  ///< the message with its values
  };

  void OnKey(std::string_view message);
  void HandOn(const Entry& entry);
  void AddGetNext(confd_wire::PacketOfSeveral* packet);
  uint64_t NewRequest();
  /// Nothing, with the error set, when they are none of the list's.
  std::optional<std::string> EncodeKeys(const Keys& keys);
  void Fail(std::string why);

  const cdb_store::Schema& schema_;
  const Providers::Request request_;
  const int32_t thandle_;
  uint32_t last_number_ = 0;
  uint64_t open_key_ = 0;        ///< the open GetNext, 0: none
  uint64_t open_object_ = 0;     ///< the open GetObject, 0: none
  Keys asked_;                   ///< keys of the entry whose object is open
  std::optional<Next> next_;     ///< the entry to be asked for after it
  int64_t position_ = -1;        ///< for the GetNext after that
  std::vector<Entry> complete_;  ///< not yet handed on
  size_t entries_ = 0;
  bool end_ = false;
  std::optional<std::string> error_;
};

}  // namespace cdbd
