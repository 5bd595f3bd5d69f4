#include "cdb_store/environment.h"

#include <sys/stat.h>

#include <utility>

#include "meta_records.h"
#include "store_files.h"

namespace cdb_store {
namespace {

constexpr const char* kOperation = "open configuration store";
constexpr mdb_mode_t kFileMode = 0660;
constexpr unsigned kMaxReaders = 510;
constexpr unsigned kTables = 5;

/// LMDB maps the file: one that was cut short would end the process with SIGBUS at the first read past its end.
bool IsCutShort(MDB_env* env, const std::string& path) {
  MDB_envinfo info{};
  MDB_stat stat{};
  struct stat file {};
  if (mdb_env_info(env, &info) != 0 || mdb_env_stat(env, &stat) != 0) return true;
  if (::stat((path + "/data.mdb").c_str(), &file) != 0) return true;
  return static_cast<uint64_t>(file.st_size) < (static_cast<uint64_t>(info.me_last_pgno) + 1) * stat.ms_psize;
}

}  // namespace

common::Error StoreError(std::string operation, std::string object, int code) {
  if (code > 0) return common::SystemError(std::move(operation), std::move(object), code);
  common::Error error{std::move(operation), std::move(object), mdb_strerror(code)};
  switch (code) {
    case MDB_CORRUPTED:
    case MDB_PAGE_NOTFOUND:
    case MDB_INVALID:
      error.code = common::ErrorCode::kDamaged;
      break;
    case MDB_MAP_FULL:
    case MDB_READERS_FULL:
      error.code = common::ErrorCode::kExhausted;
      break;
    default:
      break;
  }
  return error;
}

Environment::~Environment() {
  if (env_ != nullptr) mdb_env_close(env_);
}

common::Error Environment::Unusable(std::string_view reason) const {
  std::string text{reason};
  if (mode_ != Mode::kRead) text.append(kNothingChanged).append(kBeginAnew);
  return {kOperation, path_, std::move(text)};
}

common::Status Environment::Open(unsigned flags, size_t map_size) {
  if (const int code = mdb_env_create(&env_); code != 0) return StoreError(kOperation, path_, code);
  mdb_env_set_maxdbs(env_, kTables);
  mdb_env_set_maxreaders(env_, kMaxReaders);
  if (map_size > 0) mdb_env_set_mapsize(env_, map_size);
  const int code = mdb_env_open(env_, path_.c_str(), flags, kFileMode);
  switch (code) {
    case 0:
      break;
    case MDB_INVALID:
      return Unusable("data.mdb is damaged or not a database");
    case MDB_VERSION_MISMATCH:
      return Unusable("data.mdb has another format version");
    default:
      return StoreError(kOperation, path_, code);
  }
  if (IsCutShort(env_, path_)) return Unusable("data.mdb is damaged (shorter than it says)");
  return common::Ok();
}

common::Status Environment::CheckFormat(MDB_txn* txn) const {
  MDB_val key = ToVal(kFormatKey);
  MDB_val format{};
  const int code = mdb_get(txn, meta, &key, &format);
  if (code == MDB_NOTFOUND) return Unusable("data.mdb holds something else");
  if (code != 0) return StoreError(kOperation, path_, code);
  const std::string_view found = FromVal(format);
  if (found == kStoreFormat || (mode_ == Mode::kWrite && found == kFirstStoreFormat)) return common::Ok();
  return Unusable("was written by another version (\"" + std::string(found) + "\")");
}

common::Status Environment::OpenTables() {
  MDB_txn* raw = nullptr;
  if (const int code = mdb_txn_begin(env_, nullptr, mode_ == Mode::kRead ? MDB_RDONLY : 0, &raw); code != 0) {
    return StoreError(kOperation, path_, code);
  }
  TxnHandle txn(raw);
  const unsigned flags = mode_ == Mode::kCreate ? MDB_CREATE : 0;
  int code = mdb_dbi_open(raw, "meta", flags, &meta);
  if (code == MDB_NOTFOUND || code == MDB_INCOMPATIBLE) return Unusable("data.mdb holds something else, or nothing");
  if (code != 0) return StoreError(kOperation, path_, code);
  if (mode_ == Mode::kCreate) {
    MDB_val key = ToVal(kFormatKey);
    MDB_val format = ToVal(kStoreFormat);
    code = mdb_put(raw, meta, &key, &format, 0);
  } else if (auto status = CheckFormat(raw); !status) {
    return status;
  }
  const std::pair<const char*, MDB_dbi*> tables[] = {
      {"running", &running}, {"pre_commit", &pre_commit}, {"diff", &diff}, {"log", &log}};
  for (const auto& [name, dbi] : tables) {
    if (code == 0) code = mdb_dbi_open(raw, name, flags, dbi);
  }
  if (code == MDB_NOTFOUND) return Unusable("data.mdb is damaged (a table is missing)");
  if (code == 0) code = mdb_txn_commit(txn.release());
  if (code != 0) return StoreError(kOperation, path_, code);
  return common::Ok();
}

common::Result<std::unique_ptr<Environment>> Environment::OpenForWriting(const StoreOptions& options) {
  std::unique_ptr<Environment> env(new Environment(options.path, Mode::kWrite));
  const unsigned flags = MDB_NOTLS | (options.durable ? 0U : MDB_NOSYNC);
  if (auto status = env->Open(flags, options.map_size); !status) return status.error();
  if (auto status = env->OpenTables(); !status) return status.error();
  env->ReleaseDeadReaders();
  return env;
}

common::Result<std::unique_ptr<Environment>> Environment::Create(const StoreOptions& options) {
  std::unique_ptr<Environment> env(new Environment(options.path, Mode::kCreate));
  const unsigned flags = MDB_NOTLS | (options.durable ? 0U : MDB_NOSYNC);
  if (auto status = env->Open(flags, options.map_size); !status) return status.error();
  if (auto status = env->OpenTables(); !status) return status.error();
  return env;
}

common::Result<std::unique_ptr<Environment>> Environment::OpenForReading(const std::string& path) {
  std::unique_ptr<Environment> env(new Environment(path, Mode::kRead));
  if (auto status = env->Open(MDB_NOTLS | MDB_RDONLY, 0); !status) return status.error();
  if (auto status = env->OpenTables(); !status) return status.error();
  return env;
}

common::Result<TxnHandle> Environment::BeginRead() const {
  MDB_txn* txn = nullptr;
  int code = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn);
  if (code == MDB_READERS_FULL && ReleaseDeadReaders() > 0) code = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn);
  if (code != 0) return StoreError("read configuration store", path_, code);
  return TxnHandle(txn);
}

common::Result<TxnHandle> Environment::BeginWrite() const {
  MDB_txn* txn = nullptr;
  if (const int code = mdb_txn_begin(env_, nullptr, 0, &txn); code != 0) {
    return StoreError("write configuration store", path_, code);
  }
  return TxnHandle(txn);
}

int Environment::ReleaseDeadReaders() const {
  int dead = 0;
  mdb_reader_check(env_, &dead);
  return dead;
}

}  // namespace cdb_store
