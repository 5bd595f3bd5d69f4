#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/result.h"
#include "common/unique_fd.h"

namespace limid_impl {

/// Names and their numbers, from 1 up, in one file that all processes share and that only ever grows. A name once
/// numbered keeps its number. Each name is one record, written whole under a lock of fcntl(2), which belongs to the
/// process, ends with it and is not inherited: processes may be killed at any moment and may fork.
///
/// Records are not forced to the medium, which would stall a program for milliseconds at every new name. A crash of the
/// machine can take the newest names with it, and with them everything that knew their numbers; what it leaves of them
/// is recognised and removed.
///
/// LMDB in its place was measured: 22 us for a new name without sync, where this file takes 10, but then a crash of the
/// machine can take any page of it and not only the end; 0.4 ms as a rule and 28 ms at worst with sync. Nor may an open
/// environment of LMDB cross a fork.
///
/// The whole registry is in memory: a known name costs one hash look-up. Not thread-safe.
class Registry final {
 public:
  /// Opens the registry in `folder`, which is made when it is missing.
  static common::Result<std::unique_ptr<Registry>> Open(const std::string& folder);

  /// The number of `name` (1 to 15 bytes), which is given one now if it has none.
  common::Result<uint32_t> Intern(const std::string& name);
  /// Absent when no name has the number.
  common::Result<std::optional<std::string>> Name(uint32_t number);

 private:
  Registry(std::string path, common::UniqueFd fd) : path_{std::move(path)}, fd_{std::move(fd)} {}
  /// Reads what other processes have added. Called with the lock.
  common::Status Update();
  common::Result<uint32_t> Add(const std::string& name);
  void Remember(const std::string& name);

  std::string path_;
  common::UniqueFd fd_;
  std::unordered_map<std::string, uint32_t> number_of_name_;
  std::vector<std::string> names_;  ///< number 1 first
};

}  // namespace limid_impl
