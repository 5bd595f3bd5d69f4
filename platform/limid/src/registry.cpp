#include "registry.h"

#include <arpa/inet.h>

#include <cstring>

#include "common/paths.h"

namespace limid_impl {
namespace {

constexpr size_t kMapSize = size_t{64} << 20;  // address space, not disk: room for half a million names
constexpr unsigned kMaxDatabases = 2;
constexpr mode_t kMode = 0660;
constexpr const char* kNumbers = "numbers";
constexpr const char* kNames = "names";

struct AbortTxn {
  void operator()(MDB_txn* txn) const noexcept { ::mdb_txn_abort(txn); }
};
using TxnPtr = std::unique_ptr<MDB_txn, AbortTxn>;  ///< aborts unless committed

common::Error Failed(const char* operation, int code) { return {operation, "", ::mdb_strerror(code)}; }

common::Result<TxnPtr> Begin(MDB_env* env, unsigned flags) {
  MDB_txn* txn = nullptr;
  if (const int code = ::mdb_txn_begin(env, nullptr, flags, &txn); code != 0) return Failed("begin", code);
  return TxnPtr{txn};
}

/// Commits and ends `txn`, whose handle is gone on failure too.
common::Status Commit(TxnPtr txn) {
  if (const int code = ::mdb_txn_commit(txn.release()); code != 0) return Failed("commit", code);
  return common::Ok();
}

MDB_val ToVal(const std::string& text) { return {text.size(), const_cast<char*>(text.data())}; }
MDB_val ToVal(uint32_t& big_endian) { return {sizeof big_endian, &big_endian}; }

uint32_t ToNumber(const MDB_val& value) {
  uint32_t big_endian = 0;
  if (value.mv_size == sizeof big_endian) std::memcpy(&big_endian, value.mv_data, sizeof big_endian);
  return ntohl(big_endian);
}

/// The number of `name` in the snapshot of `txn`.
common::Result<std::optional<uint32_t>> FindIn(MDB_txn* txn, MDB_dbi numbers, const std::string& name) {
  MDB_val key = ToVal(name);
  MDB_val value{};
  const int code = ::mdb_get(txn, numbers, &key, &value);
  if (code == MDB_NOTFOUND) return std::optional<uint32_t>{};
  if (code != 0) return Failed("read", code);
  return std::optional{ToNumber(value)};
}

/// The highest number given so far, 0 when there is none.
common::Result<uint32_t> LastNumber(MDB_txn* txn, MDB_dbi names) {
  MDB_cursor* cursor = nullptr;
  if (const int code = ::mdb_cursor_open(txn, names, &cursor); code != 0) return Failed("read", code);
  MDB_val key{};
  MDB_val value{};
  const int code = ::mdb_cursor_get(cursor, &key, &value, MDB_LAST);
  ::mdb_cursor_close(cursor);
  if (code == MDB_NOTFOUND) return 0U;
  if (code != 0) return Failed("read", code);
  return ToNumber(key);
}

}  // namespace

common::Result<std::unique_ptr<Registry>> Registry::Open(const std::string& folder) {
  if (const auto made = common::EnsureDir(folder); !made) return made.error();
  MDB_env* raw = nullptr;
  if (const int code = ::mdb_env_create(&raw); code != 0) return Failed("create", code);
  EnvPtr env{raw};
  ::mdb_env_set_mapsize(env.get(), kMapSize);
  ::mdb_env_set_maxdbs(env.get(), kMaxDatabases);
  if (const int code = ::mdb_env_open(env.get(), folder.c_str(), MDB_NOTLS | MDB_NOMETASYNC, kMode); code != 0) {
    return common::Error{"open", folder, ::mdb_strerror(code)};
  }
  auto txn = Begin(env.get(), 0);
  if (!txn) return txn.error();
  MDB_dbi numbers = 0;
  MDB_dbi names = 0;
  for (const auto& [name, dbi] : {std::pair{kNumbers, &numbers}, std::pair{kNames, &names}}) {
    if (const int code = ::mdb_dbi_open(txn.value().get(), name, MDB_CREATE, dbi); code != 0) {
      return common::Error{"open", folder, ::mdb_strerror(code)};
    }
  }
  if (const auto committed = Commit(std::move(txn).value()); !committed) return committed.error();
  return std::unique_ptr<Registry>(new Registry(std::move(env), numbers, names));
}

common::Result<std::optional<uint32_t>> Registry::Find(const std::string& name) {
  const auto txn = Begin(env_.get(), MDB_RDONLY);
  if (!txn) return txn.error();
  return FindIn(txn.value().get(), numbers_, name);
}

common::Result<uint32_t> Registry::Add(const std::string& name) {
  auto txn = Begin(env_.get(), 0);  // waits for other processes' writers
  if (!txn) return txn.error();
  const auto found = FindIn(txn.value().get(), numbers_, name);
  if (!found) return found.error();
  if (found.value()) return *found.value();  // another process was faster
  const auto last = LastNumber(txn.value().get(), names_);
  if (!last) return last.error();
  const uint32_t number = last.value() + 1;
  if (number == 0) return common::Error{"add", name, "no number is left"};
  uint32_t big_endian = htonl(number);
  MDB_val number_val = ToVal(big_endian);
  MDB_val name_val = ToVal(name);
  if (const int code = ::mdb_put(txn.value().get(), numbers_, &name_val, &number_val, MDB_NOOVERWRITE); code != 0) {
    return Failed("add", code);
  }
  if (const int code = ::mdb_put(txn.value().get(), names_, &number_val, &name_val, MDB_APPEND); code != 0) {
    return Failed("add", code);
  }
  if (const auto committed = Commit(std::move(txn).value()); !committed) return committed.error();
  return number;
}

void Registry::Remember(const std::string& name, uint32_t number) {
  number_of_name_.emplace(name, number);
  name_of_number_.emplace(number, name);
}

common::Result<uint32_t> Registry::Intern(const std::string& name) {
  if (const auto it = number_of_name_.find(name); it != number_of_name_.end()) return it->second;
  const auto found = Find(name);
  if (!found) return found.error();
  const auto number = found.value() ? common::Result<uint32_t>{*found.value()} : Add(name);
  if (number) Remember(name, number.value());
  return number;
}

common::Result<std::optional<std::string>> Registry::Name(uint32_t number) {
  if (const auto it = name_of_number_.find(number); it != name_of_number_.end()) return std::optional{it->second};
  const auto txn = Begin(env_.get(), MDB_RDONLY);
  if (!txn) return txn.error();
  uint32_t big_endian = htonl(number);
  MDB_val key = ToVal(big_endian);
  MDB_val value{};
  const int code = ::mdb_get(txn.value().get(), names_, &key, &value);
  if (code == MDB_NOTFOUND) return std::optional<std::string>{};
  if (code != 0) return Failed("read", code);
  const std::string name(static_cast<const char*>(value.mv_data), value.mv_size);
  Remember(name, number);
  return std::optional{name};
}

}  // namespace limid_impl
