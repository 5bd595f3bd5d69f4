#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "common/result.h"

/// Many elements of a kernel map in few system calls.
namespace mgr::tcx {

/// Called with the index of an element that could not be written or removed, and the errno.
using ElementFailed = std::function<void(size_t index, int error)>;

/// Writes `count` elements from two packed arrays. What fails is reported, and the rest goes on.
void UpdateAll(int map, const void* keys, size_t key_size, const void* values, size_t value_size, size_t count,
               const ElementFailed& failed);
/// Removes `count` elements; one that is absent is no failure.
void DeleteAll(int map, const void* keys, size_t key_size, size_t count, const ElementFailed& failed);

/// All elements of a hash map, once each while nobody writes to it.
template <class Key, class Value>
struct Dump {
  std::vector<Key> keys;
  std::vector<Value> values;
};
common::Status DumpInto(int map, size_t key_size, size_t value_size,
                        const std::function<void(const void* keys, const void* values, size_t count)>& take);

template <class Key, class Value>
common::Result<Dump<Key, Value>> DumpAll(int map) {
  Dump<Key, Value> dump;
  common::Status status =
      DumpInto(map, sizeof(Key), sizeof(Value), [&dump](const void* keys, const void* values, size_t count) {
        const auto* key = static_cast<const Key*>(keys);
        const auto* value = static_cast<const Value*>(values);
        dump.keys.insert(dump.keys.end(), key, key + count);
        dump.values.insert(dump.values.end(), value, value + count);
      });
  if (!status.ok()) return status.error();
  return dump;
}

}  // namespace mgr::tcx
