#include "dataplane/tcx/maps.h"

#include <bpf/bpf.h>

#include <algorithm>
#include <cerrno>

namespace mgr::tcx {
namespace {

constexpr size_t kChunk = 4096;

/// Runs `batch(offset, &count)` over `total` elements. On an error the kernel leaves in `count` how many were done
/// before the one that failed; that one is reported and passed over.
template <class Batch>
void InChunks(size_t total, const Batch& batch, const ElementFailed& failed) {
  size_t done = 0;
  while (done < total) {
    const auto asked = static_cast<uint32_t>(std::min(kChunk, total - done));
    uint32_t count = asked;
    const int error = -batch(done, &count);
    if (error == 0) {
      done += asked;
      continue;
    }
    if (count >= asked) count = 0;  // refused as a whole: nothing was written to `count`
    done += count;
    failed(done, error);
    ++done;
  }
}

const char* At(const void* base, size_t index, size_t size) { return static_cast<const char*>(base) + index * size; }

}  // namespace

void UpdateAll(int map, const void* keys, size_t key_size, const void* values, size_t value_size, size_t count,
               const ElementFailed& failed) {
  LIBBPF_OPTS(bpf_map_batch_opts, options);
  InChunks(
      count,
      [&](size_t from, uint32_t* some) {
        return bpf_map_update_batch(map, At(keys, from, key_size), At(values, from, value_size), some, &options);
      },
      failed);
}

void DeleteAll(int map, const void* keys, size_t key_size, size_t count, const ElementFailed& failed) {
  LIBBPF_OPTS(bpf_map_batch_opts, options);
  InChunks(
      count,
      [&](size_t from, uint32_t* some) { return bpf_map_delete_batch(map, At(keys, from, key_size), some, &options); },
      [&failed](size_t index, int error) {
        if (error != ENOENT) failed(index, error);
      });
}

common::Status DumpInto(int map, size_t key_size, size_t value_size,
                        const std::function<void(const void* keys, const void* values, size_t count)>& take) {
  size_t room = kChunk;
  std::vector<char> keys(room * key_size), values(room * value_size);
  uint64_t position = 0;
  bool first = true;
  LIBBPF_OPTS(bpf_map_batch_opts, options);
  while (true) {
    auto count = static_cast<uint32_t>(room);
    const int error = -bpf_map_lookup_batch(map, first ? nullptr : &position, &position, keys.data(), values.data(),
                                            &count, &options);
    if (error == ENOSPC && room < (size_t{1} << 20)) {  // one bucket holds more than there is room for
      room *= 2;
      keys.resize(room * key_size);
      values.resize(room * value_size);
      continue;
    }
    if (error != 0 && error != ENOENT) return common::SystemError("map_lookup_batch", {}, error);
    take(keys.data(), values.data(), count);
    if (error == ENOENT) return common::Ok();
    first = false;
  }
}

}  // namespace mgr::tcx
