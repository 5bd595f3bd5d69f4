#include "outbox.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace ip_spoofing_mgr {
namespace {

constexpr size_t kCompactFrom = 1024;

}  // namespace

void KeepLatest(std::vector<wire::Request>* requests) {
  std::vector<uint32_t> order(requests->size());
  std::iota(order.begin(), order.end(), 0U);
  std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
    const int by = wire::CompareObjects((*requests)[a], (*requests)[b]);
    return by != 0 ? by < 0 : a < b;
  });
  std::vector<bool> keep(requests->size(), true);
  for (size_t i = 0; i + 1 < order.size(); ++i) {
    if (wire::CompareObjects((*requests)[order[i]], (*requests)[order[i + 1]]) == 0) keep[order[i]] = false;
  }
  size_t at = 0;
  std::erase_if(*requests, [&](const wire::Request&) { return !keep[at++]; });
}

void Outbox::Join(Batch* batch, std::vector<wire::Request> requests, bool full) {
  if (full || batch->requests.empty()) {
    batch->requests = std::move(requests);
  } else {
    batch->requests.insert(batch->requests.end(), requests.begin(), requests.end());
  }
  batch->full = batch->full || full;
}

void Outbox::Close(bool full) {
  if (collecting_.empty() && !full) return;
  if (batches_.empty() || !batches_.back().Untouched()) {
    batches_.push_back({.sequence = ++last_sequence_, .full = full, .requests = std::exchange(collecting_, {})});
    compact_at_ = kCompactFrom;
    return;
  }
  Batch& batch = batches_.back();
  Join(&batch, std::exchange(collecting_, {}), full);
  if (batch.requests.size() < compact_at_) return;
  KeepLatest(&batch.requests);
  compact_at_ = std::max(kCompactFrom, 2 * batch.requests.size());
}

std::optional<std::string> Outbox::NextFrame() {
  const auto batch = std::find_if(batches_.begin(), batches_.end(), [](const Batch& b) { return !b.ended; });
  if (batch == batches_.end()) return std::nullopt;
  const size_t count = std::min(batch->requests.size() - batch->sent, wire::kRequestsPerFrame);
  const bool last = batch->sent + count == batch->requests.size();
  auto payload =
      wire::EncodeBatchPart(batch->sequence, batch->full, last, {batch->requests.data() + batch->sent, count});
  batch->sent += count;
  batch->ended = last;
  return payload;
}

void Outbox::Acknowledge(uint64_t sequence) {
  while (!batches_.empty() && batches_.front().ended && batches_.front().sequence <= sequence) batches_.pop_front();
}

void Outbox::Restart() {
  if (batches_.empty()) return;
  Batch joined;
  for (Batch& batch : batches_) Join(&joined, std::move(batch.requests), batch.full);
  const bool unsent = batches_.size() == 1 && batches_.front().Untouched();
  joined.sequence = unsent ? batches_.front().sequence : ++last_sequence_;
  KeepLatest(&joined.requests);
  compact_at_ = std::max(kCompactFrom, 2 * joined.requests.size());
  batches_.clear();
  batches_.push_back(std::move(joined));
}

size_t Outbox::Objects() const {
  std::vector<wire::Request> all = collecting_;
  for (const Batch& batch : batches_) all.insert(all.end(), batch.requests.begin(), batch.requests.end());
  KeepLatest(&all);
  return all.size();
}

}  // namespace ip_spoofing_mgr
