#include "cdb_store/environment.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "meta_records.h"

namespace cdb_store {
namespace {

constexpr mdb_mode_t kFileMode = 0660;
constexpr unsigned kMaxReaders = 510;
constexpr unsigned kTables = 5;

common::Error Foreign(const std::string& path, std::string reason) {
  return {"open configuration store", path, std::move(reason)};
}

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
  return {std::move(operation), std::move(object), mdb_strerror(code)};
}

Environment::~Environment() {
  if (env_ != nullptr) mdb_env_close(env_);
}

common::Status Environment::Open(unsigned flags, size_t map_size) {
  constexpr const char* kOperation = "open configuration store";
  if (const int code = mdb_env_create(&env_); code != 0) return StoreError(kOperation, path_, code);
  mdb_env_set_maxdbs(env_, kTables);
  mdb_env_set_maxreaders(env_, kMaxReaders);
  if (map_size > 0) mdb_env_set_mapsize(env_, map_size);
  const int code = mdb_env_open(env_, path_.c_str(), flags, kFileMode);
  switch (code) {
    case 0:
      break;
    case MDB_INVALID:
      return Foreign(path_, "data.mdb is damaged or no database; nothing was changed");
    case MDB_VERSION_MISMATCH:
      return Foreign(path_, "data.mdb has another format version; nothing was changed");
    default:
      return StoreError(kOperation, path_, code);
  }
  if (IsCutShort(env_, path_)) return Foreign(path_, "data.mdb is damaged (shorter than it says); nothing was changed");
  return common::Ok();
}

common::Status Environment::OpenTables(bool writable) {
  constexpr const char* kOperation = "open configuration store";
  MDB_txn* raw = nullptr;
  if (const int code = mdb_txn_begin(env_, nullptr, writable ? 0 : MDB_RDONLY, &raw); code != 0) {
    return StoreError(kOperation, path_, code);
  }
  TxnHandle txn(raw);
  int code = mdb_dbi_open(raw, "meta", 0, &meta);
  if (code == MDB_NOTFOUND || code == MDB_INCOMPATIBLE) {
    MDB_dbi main = 0;
    MDB_stat stat{};
    const bool empty =
        mdb_dbi_open(raw, nullptr, 0, &main) == 0 && mdb_stat(raw, main, &stat) == 0 && stat.ms_entries == 0;
    if (!empty) return Foreign(path_, "data.mdb holds something else; nothing was changed");
    if (!writable) return Foreign(path_, "data.mdb is empty");
    created_ = true;
    code = mdb_dbi_open(raw, "meta", MDB_CREATE, &meta);
  }
  if (code != 0) return StoreError(kOperation, path_, code);

  MDB_val key = ToVal(kFormatKey);
  MDB_val format = ToVal(kStoreFormat);
  if (created_) {
    code = mdb_put(raw, meta, &key, &format, 0);
  } else {
    code = mdb_get(raw, meta, &key, &format);
    if (code == MDB_NOTFOUND) return Foreign(path_, "data.mdb holds something else; nothing was changed");
    const bool known =
        code != 0 || FromVal(format) == kStoreFormat || (writable && FromVal(format) == kFirstStoreFormat);
    if (!known) {
      return Foreign(path_,
                     "was written by another version (\"" + std::string(FromVal(format)) + "\"); nothing was changed");
    }
  }
  const std::pair<const char*, MDB_dbi*> tables[] = {
      {"running", &running}, {"pre_commit", &pre_commit}, {"diff", &diff}, {"log", &log}};
  for (const auto& [name, dbi] : tables) {
    if (code == 0) code = mdb_dbi_open(raw, name, created_ ? MDB_CREATE : 0, dbi);
  }
  if (code == MDB_NOTFOUND) return Foreign(path_, "data.mdb is damaged (a table is missing); nothing was changed");
  if (code == 0) code = mdb_txn_commit(txn.release());
  if (code != 0) return StoreError(kOperation, path_, code);
  return common::Ok();
}

common::Result<std::unique_ptr<Environment>> Environment::OpenForWriting(const StoreOptions& options) {
  std::unique_ptr<Environment> env(new Environment(options.path));
  const std::string lock = options.path + "/server.lock";
  env->lock_.reset(::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0660));
  if (!env->lock_) return common::SystemError("open", lock, errno);
  if (::flock(env->lock_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) return common::SystemError("lock", lock, errno);
    return common::Error{"open configuration store", options.path, "another server is using it"};
  }
  if (auto status = env->Open(MDB_NOTLS | (options.durable ? 0U : MDB_NOSYNC), options.map_size); !status) {
    return status.error();
  }
  if (auto status = env->OpenTables(true); !status) return status.error();
  env->ReleaseDeadReaders();
  return env;
}

common::Result<std::unique_ptr<Environment>> Environment::OpenForReading(const std::string& path) {
  std::unique_ptr<Environment> env(new Environment(path));
  if (auto status = env->Open(MDB_NOTLS | MDB_RDONLY, 0); !status) return status.error();
  if (auto status = env->OpenTables(false); !status) return status.error();
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
