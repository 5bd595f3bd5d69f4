#include "dataplane/nft/entry_sets.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "dataplane/nft/layout.h"
#include "dataplane/nft/port_rules.h"

namespace mgr::nft {
namespace {

/// The elements of a step, by set.
struct SetChanges {
  std::vector<Element> any_mac, bound, bound_keys;
  void Add(const EntryKey& key, const MacAddress& mac) {
    if (mac == MacAddress{}) {
      any_mac.push_back(KeyElement(key));
    } else {
      bound.push_back(BoundElement(key, mac));
      bound_keys.push_back(KeyElement(key));
    }
  }
};

}  // namespace

void EntrySets::Load(const std::vector<Entry>& entries) {
  for (const Entry& entry : entries) entries_.insert_or_assign(entry.key, entry.mac);
}

void EntrySets::Put(const std::vector<Entry>& puts, const Failed& failed) {
  InPieces(
      puts.size(), [&](size_t begin, size_t end) { return CommitPuts(puts, begin, end); }, failed);
}

void EntrySets::Remove(const std::vector<EntryKey>& removes, const Failed& failed) {
  InPieces(
      removes.size(), [&](size_t begin, size_t end) { return CommitRemoves(removes, begin, end); }, failed);
}

void EntrySets::RemoveAllOf(PortId port) {
  std::vector<EntryKey> left;
  for (const auto& [key, mac] : entries_)
    if (key.port == port) left.push_back(key);
  Remove(left, [](size_t, int) {});  // an entry of a port that is not known is never looked at
}

void EntrySets::AddAll(Batch& batch) const {
  SetChanges all;
  for (const auto& [key, mac] : entries_) all.Add(key, mac);
  table_->AddElements(batch, kAnyMac, all.any_mac);
  table_->AddElements(batch, kBound, all.bound);
  table_->AddElements(batch, kBoundKeys, all.bound_keys);
}

void EntrySets::Refill() {
  std::vector<Entry> all;
  all.reserve(entries_.size());
  for (const auto& [key, mac] : entries_) all.push_back({key, mac});
  entries_.clear();
  Put(all, [](size_t, int) {});  // what is missing is found by the next comparison
}

template <class Commit>
void EntrySets::InPieces(size_t count, const Commit& commit, const Failed& failed) {
  for (size_t begin = 0, size = piece_; begin < count;) {
    const size_t end = std::min(count, begin + size);
    const int error = commit(begin, end);
    if (error == 0) {
      begin = end;
      size = std::min(piece_, size * 2);
      continue;
    }
    if (end - begin == 1) {
      failed(begin, error);
      begin = end;
      continue;
    }
    size = (end - begin) / 2;
    if (error == EMSGSIZE || error == ENOBUFS) piece_ = size;
  }
}

int EntrySets::CommitPuts(const std::vector<Entry>& puts, size_t begin, size_t end) {
  SetChanges add, remove;
  for (size_t i = begin; i < end; ++i) {
    const auto known = entries_.find(puts[i].key);
    if (known != entries_.end()) {
      if (known->second == puts[i].mac) continue;
      remove.Add(known->first, known->second);
    }
    add.Add(puts[i].key, puts[i].mac);
  }
  Batch batch;
  table_->DeleteElements(batch, kAnyMac, remove.any_mac);
  table_->DeleteElements(batch, kBound, remove.bound);
  table_->DeleteElements(batch, kBoundKeys, remove.bound_keys);
  table_->AddElements(batch, kAnyMac, add.any_mac);
  table_->AddElements(batch, kBound, add.bound);
  table_->AddElements(batch, kBoundKeys, add.bound_keys);
  if (const int error = socket_->Commit(std::move(batch)); error != 0) return error;
  for (size_t i = begin; i < end; ++i) entries_.insert_or_assign(puts[i].key, puts[i].mac);
  return 0;
}

int EntrySets::CommitRemoves(const std::vector<EntryKey>& removes, size_t begin, size_t end) {
  SetChanges gone;
  for (size_t i = begin; i < end; ++i)
    if (const auto known = entries_.find(removes[i]); known != entries_.end()) gone.Add(known->first, known->second);
  Batch batch;
  table_->DeleteElements(batch, kAnyMac, gone.any_mac);
  table_->DeleteElements(batch, kBound, gone.bound);
  table_->DeleteElements(batch, kBoundKeys, gone.bound_keys);
  if (const int error = socket_->Commit(std::move(batch)); error != 0) return error;
  for (size_t i = begin; i < end; ++i) entries_.erase(removes[i]);
  return 0;
}

}  // namespace mgr::nft
