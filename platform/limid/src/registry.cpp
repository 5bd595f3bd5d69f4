#include "registry.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "common/paths.h"

namespace limid_impl {
namespace {

constexpr mode_t kMode = 0660;
constexpr std::array<char, 24> kHeader = {"limid names, version 1\n"};

/// One name in the file. Its number is its place.
struct Record {
  std::array<char, 16> name;  ///< padded with zeroes
  uint32_t number;
  uint32_t check;  ///< over the rest, so that what a crash left half written is not taken for a name
};
static_assert(sizeof(Record) == 24 && sizeof kHeader == sizeof(Record));

/// FNV-1a.
uint32_t Check(const Record& record) {
  uint32_t hash = 2166136261U;
  std::array<unsigned char, offsetof(Record, check)> bytes;
  std::memcpy(bytes.data(), &record, bytes.size());
  for (const unsigned char byte : bytes) hash = (hash ^ byte) * 16777619U;
  return hash;
}

Record MakeRecord(const std::string& name, uint32_t number) {
  Record record{};
  name.copy(record.name.data(), record.name.size() - 1);
  record.number = number;
  record.check = Check(record);
  return record;
}

bool IsWhole(const Record& record) {
  return record.name.front() != '\0' && record.name.back() == '\0' && record.check == Check(record);
}

off_t OffsetOf(size_t number) { return static_cast<off_t>(number * sizeof(Record)); }  // the header has the place of 0

/// Holds the lock on the whole file.
class Lock final {
 public:
  explicit Lock(int fd) : fd_{fd} {
    while ((held_ = Set(F_WRLCK, F_SETLKW)) == false && errno == EINTR) continue;
  }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock() {
    if (held_) Set(F_UNLCK, F_SETLK);
  }
  [[nodiscard]] bool held() const noexcept { return held_; }

 private:
  bool Set(short type, int command) const {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return ::fcntl(fd_, command, &lock) == 0;
  }
  const int fd_;
  bool held_ = false;
};

/// Everything from `offset` to the end.
common::Result<std::string> ReadFrom(int fd, off_t offset, const std::string& path) {
  std::string bytes;
  std::array<char, 65536> chunk;
  for (;;) {
    const ssize_t length = ::pread(fd, chunk.data(), chunk.size(), offset + static_cast<off_t>(bytes.size()));
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) return common::SystemError("read", path, errno);
    if (length == 0) return bytes;
    bytes.append(chunk.data(), static_cast<size_t>(length));
  }
}

common::Status WriteAt(int fd, off_t offset, const void* data, size_t size, const std::string& path) {
  const ssize_t written = ::pwrite(fd, data, size, offset);
  if (written == static_cast<ssize_t>(size)) return common::Ok();
  const int error = written < 0 ? errno : ENOSPC;
  if (::ftruncate(fd, offset) != 0) return common::SystemError("truncate", path, errno);
  return common::SystemError("write", path, error);
}

/// Writes the header of a new file, and of one whose maker was killed before it had.
common::Status CheckHeader(int fd, const std::string& path) {
  std::array<char, sizeof kHeader> header{};
  const ssize_t length = ::pread(fd, header.data(), header.size(), 0);
  if (length < 0) return common::SystemError("read", path, errno);
  if (!std::equal(header.begin(), header.begin() + length, kHeader.begin())) {
    return common::Error{"open", path, "not a registry of interface names"};
  }
  if (length == static_cast<ssize_t>(header.size())) return common::Ok();
  return WriteAt(fd, 0, kHeader.data(), sizeof kHeader, path);
}

}  // namespace

common::Result<std::unique_ptr<Registry>> Registry::Open(const std::string& folder) {
  if (const auto made = common::EnsureDir(folder); !made) return made.error();
  const std::string path = folder + "/names";
  common::UniqueFd fd{::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kMode)};
  if (!fd) return common::SystemError("open", path, errno);
  std::unique_ptr<Registry> registry{new Registry(path, std::move(fd))};
  const Lock lock{registry->fd_.get()};
  if (!lock.held()) return common::SystemError("lock", path, errno);
  if (auto checked = CheckHeader(registry->fd_.get(), path); !checked) return checked.error();
  if (const auto read = registry->Update(); !read) return read.error();
  return registry;
}

common::Status Registry::Update() {
  const auto read = ReadFrom(fd_.get(), OffsetOf(names_.size() + 1), path_);
  if (!read) return read.error();
  const std::string_view bytes = read.value();
  bool damaged = false;
  for (size_t at = 0; at + sizeof(Record) <= bytes.size(); at += sizeof(Record)) {
    Record record;
    std::memcpy(&record, bytes.data() + at, sizeof record);
    if (!IsWhole(record)) {
      damaged = true;
    } else if (damaged || record.number != names_.size() + 1) {
      // Not the end that a crash leaves: to give numbers anew would change the ids of names in use.
      return common::Error{"read", path_, "record " + std::to_string(names_.size() + 1) + " is damaged"};
    } else {
      Remember(record.name.data());
    }
  }
  if (damaged || bytes.size() % sizeof(Record) != 0) {
    if (::ftruncate(fd_.get(), OffsetOf(names_.size() + 1)) != 0) return common::SystemError("truncate", path_, errno);
  }
  return common::Ok();
}

void Registry::Remember(const std::string& name) {
  names_.push_back(name);
  number_of_name_.emplace(name, static_cast<uint32_t>(names_.size()));
}

common::Result<uint32_t> Registry::Add(const std::string& name) {
  const Lock lock{fd_.get()};
  if (!lock.held()) return common::SystemError("lock", path_, errno);
  if (const auto updated = Update(); !updated) return updated.error();
  if (const auto it = number_of_name_.find(name); it != number_of_name_.end()) return it->second;
  const auto number = static_cast<uint32_t>(names_.size() + 1);
  const Record record = MakeRecord(name, number);
  if (const auto written = WriteAt(fd_.get(), OffsetOf(number), &record, sizeof record, path_); !written) {
    return written.error();
  }
  Remember(name);
  return number;
}

common::Result<uint32_t> Registry::Intern(const std::string& name) {
  if (const auto it = number_of_name_.find(name); it != number_of_name_.end()) return it->second;
  return Add(name);
}

common::Result<std::optional<std::string>> Registry::Name(uint32_t number) {
  if (number > names_.size()) {
    const Lock lock{fd_.get()};
    if (!lock.held()) return common::SystemError("lock", path_, errno);
    if (const auto updated = Update(); !updated) return updated.error();
  }
  if (number == 0 || number > names_.size()) return std::optional<std::string>{};
  return std::optional{names_[number - 1]};
}

}  // namespace limid_impl
