#include "store_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>

namespace cdb_store {
namespace {

namespace fs = std::filesystem;

constexpr const char* kOperation = "open configuration store";
constexpr std::string_view kIdentityPrefix = "cdb-store ";

std::string Hex(uint32_t number) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (int shift = 28; shift >= 0; shift -= 4) text.push_back(kDigits[number >> shift & 15]);
  return text;
}

/// The store number of an identity file. Returns nullopt if the file does not exist or says something else.
std::optional<uint32_t> ReadIdentityFile(const std::string& path) {
  std::string line;
  std::ifstream file{path};
  if (!std::getline(file, line) || !line.starts_with(kIdentityPrefix)) return std::nullopt;
  uint32_t number = 0;
  const char* const end = line.data() + line.size();
  const auto [rest, code] = std::from_chars(line.data() + kIdentityPrefix.size(), end, number, 16);
  if (code != std::errc{} || rest != end) return std::nullopt;
  return number;
}

}  // namespace

StoreFiles::StoreFiles(const StoreOptions& options)
    : options_{options},
      data_{options.path + "/data.mdb"},
      draft_{options.path + "/draft"},
      identity_{options.identity_file.empty() ? options.path + "/identity" : options.identity_file} {}

common::Result<common::UniqueFd> StoreFiles::Lock() const {
  const std::string path = options_.path + "/server.lock";
  common::UniqueFd lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0660));
  if (!lock) return common::SystemError("open", path, errno);
  if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) return common::SystemError("lock", path, errno);
    return common::Error{kOperation, options_.path, "another server is using it"};
  }
  return lock;
}

common::Result<bool> StoreFiles::NeedsCreation() const {
  std::error_code error;
  const fs::file_status status = fs::status(data_, error);
  if (error && status.type() != fs::file_type::not_found) return common::SystemError("open", data_, error.value());
  const bool exists = status.type() != fs::file_type::not_found;
  const uintmax_t size = exists ? fs::file_size(data_, error) : 0;
  if (error && exists) return common::SystemError("open", data_, error.value());
  if (size > 0) {
    if (!options_.new_database) return false;
    return common::Error{kOperation, options_.path, "data.mdb exists; move it away first to begin with a new one"};
  }
  if (options_.new_database) return true;
  // No creation leaves an empty data.mdb behind, or a lock.mdb without one.
  if (!exists && !fs::exists(identity_, error) && !fs::exists(options_.path + "/lock.mdb", error)) return true;
  return common::Error{kOperation, options_.path,
                       std::string(exists ? "data.mdb is empty" : "data.mdb is gone") +
                           ", but a configuration was stored here" + kNothingChanged +
                           "To begin with an empty configuration on purpose, start once with --new-database"};
}

common::Result<std::string> StoreFiles::PrepareDraft() const {
  std::error_code error;
  fs::remove_all(draft_, error);
  if (!error) fs::create_directory(draft_, error);
  if (error) return common::SystemError("create directory", draft_, error.value());
  return draft_;
}

common::Status StoreFiles::Sync(const std::string& path) const {
  if (!options_.durable) return common::Ok();
  const common::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd || ::fsync(fd.get()) != 0) return common::SystemError("sync", path, errno);
  return common::Ok();
}

common::Status StoreFiles::PublishDraft() const {
  const std::string from = draft_ + "/data.mdb";
  if (auto synced = Sync(from); !synced) return synced;
  // With a former database's identity file the new one would be refused if the server ended before it wrote its own.
  if (::unlink(identity_.c_str()) != 0 && errno != ENOENT) return common::SystemError("remove", identity_, errno);
  if (auto synced = Sync(fs::path(identity_).parent_path().string()); !synced) return synced;
  if (::rename(from.c_str(), data_.c_str()) != 0) return common::SystemError("rename", from, errno);
  std::error_code ignored;  // what is left of the draft is removed by the next creation at the latest
  fs::remove_all(draft_, ignored);
  return Sync(options_.path);
}

common::Status StoreFiles::CheckIdentity(uint32_t store) const {
  const std::optional<uint32_t> known = ReadIdentityFile(identity_);
  if (!known || known == store) return common::Ok();
  return common::Error{kOperation, options_.path,
                       "data.mdb (" + Hex(store) + ") is not the database that this directory held (" + Hex(*known) +
                           ")" + kNothingChanged + "To use it, remove " + identity_};
}

common::Status StoreFiles::WriteIdentity(uint32_t store) const {
  if (ReadIdentityFile(identity_) == store) return common::Ok();
  const std::string draft = identity_ + ".draft";
  const std::string text = std::string(kIdentityPrefix) + Hex(store) + "\n";
  const common::UniqueFd file(::open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640));
  if (!file) return common::SystemError("create", draft, errno);
  if (::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    return common::SystemError("write", draft, errno);
  }
  if (auto synced = Sync(draft); !synced) return synced;
  if (::rename(draft.c_str(), identity_.c_str()) != 0) return common::SystemError("rename", draft, errno);
  return Sync(fs::path(identity_).parent_path().string());
}

}  // namespace cdb_store
