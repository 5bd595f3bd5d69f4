#pragma once

#include <lmdb.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "common/result.h"

namespace limid_impl {

/// Names and their numbers, from 1 up, in one LMDB environment that all processes share. A name once numbered keeps its
/// number. Safe against processes that are killed; a crash of the machine may undo the newest numbers, and nothing else
/// of the registry.
///
/// Both directions are cached: a known name costs one hash look-up. Not thread-safe.
class Registry final {
 public:
  /// Opens the registry in `folder`, which is made when it is missing.
  static common::Result<std::unique_ptr<Registry>> Open(const std::string& folder);

  /// The number of `name`, which is given one now if it has none.
  common::Result<uint32_t> Intern(const std::string& name);
  /// Absent when no name has the number.
  common::Result<std::optional<std::string>> Name(uint32_t number);

 private:
  struct CloseEnv {
    void operator()(MDB_env* env) const noexcept { ::mdb_env_close(env); }
  };
  using EnvPtr = std::unique_ptr<MDB_env, CloseEnv>;

  explicit Registry(EnvPtr env, MDB_dbi numbers, MDB_dbi names)
      : env_{std::move(env)}, numbers_{numbers}, names_{names} {}
  common::Result<std::optional<uint32_t>> Find(const std::string& name);
  common::Result<uint32_t> Add(const std::string& name);
  void Remember(const std::string& name, uint32_t number);

  EnvPtr env_;
  MDB_dbi numbers_;  ///< name -> number, big-endian
  MDB_dbi names_;    ///< number, big-endian -> name
  std::unordered_map<std::string, uint32_t> number_of_name_;
  std::unordered_map<uint32_t, std::string> name_of_number_;
};

}  // namespace limid_impl
