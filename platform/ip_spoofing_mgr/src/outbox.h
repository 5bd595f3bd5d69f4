#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "ip_spoofing_mgr_wire/messages.h"

namespace ip_spoofing_mgr {

/// The requests that the manager has not acknowledged: those of the current callback, and batches in the order of
/// their callbacks. What cannot be sent at once is joined into one batch of the latest request per object, so that the
/// memory stays that of the objects however long the manager is away.
class Outbox final {
 public:
  /// Adds to the current callback's batch.
  void Add(const wire::Request& request) { collecting_.push_back(request); }
  [[nodiscard]] bool CollectedNothing() const noexcept { return collecting_.empty(); }

  /// Ends the current callback's batch. An empty batch that is not full is none. What an unsent batch said before a
  /// full one does not matter any more.
  void Close(bool full);

  /// The next frame to send, as a kBatch payload; nothing when all is sent.
  std::optional<std::string> NextFrame();

  /// The manager has made all batches up to this one.
  void Acknowledge(uint64_t sequence);

  /// The connection is gone: everything that is not acknowledged is to be sent again, as one batch with a new number,
  /// full if one of its parts was.
  void Restart();

  /// Objects with a request that is not acknowledged, those of the current callback included.
  [[nodiscard]] size_t Objects() const;

 private:
  struct Batch {
    uint64_t sequence = 0;
    bool full = false;
    bool ended = false;  ///< its last frame is sent
    size_t sent = 0;     ///< requests
    std::vector<wire::Request> requests;
    [[nodiscard]] bool Untouched() const noexcept { return sent == 0 && !ended; }
  };
  static void Join(Batch* batch, std::vector<wire::Request> requests, bool full);

  std::vector<wire::Request> collecting_;
  std::deque<Batch> batches_;
  uint64_t last_sequence_ = 0;
  size_t compact_at_ = 0;  ///< size of the untouched batch at which it is worth looking for doubles
};

/// Removes all but the last request of each object; the order of what stays is kept.
void KeepLatest(std::vector<wire::Request>* requests);

}  // namespace ip_spoofing_mgr
