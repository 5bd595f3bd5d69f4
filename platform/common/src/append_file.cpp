#include "common/append_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <set>
#include <system_error>

namespace common {
namespace {

/// The number that is written so and not otherwise: no sign, blank or leading zero.
std::optional<size_t> PlainNumber(std::string_view text) {
  size_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return std::to_string(value).size() == text.size() ? std::optional{value} : std::nullopt;
}

/// "dir/name.#r.log" split at its mark.
struct Series {
  std::filesystem::path folder;
  std::string before;
  std::string after;
  bool rolling;  ///< #r: 0 is the newest; #s: the highest is

  explicit Series(const std::string& archive_name) {
    const std::filesystem::path path{archive_name};
    folder = path.has_parent_path() ? path.parent_path() : ".";
    const std::string name = path.filename();
    const size_t mark = name.find('#');
    before = name.substr(0, mark);
    rolling = name[mark + 1] == 'r';
    after = name.substr(mark + 2);
  }

  [[nodiscard]] std::string Path(size_t number) const { return folder / (before + std::to_string(number) + after); }

  [[nodiscard]] std::set<size_t> Numbers() const {
    std::set<size_t> numbers;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator{folder, error}) {
      std::string name = entry.path().filename();
      if (name.size() <= before.size() + after.size() || !name.starts_with(before) || !name.ends_with(after)) continue;
      const size_t digits = name.size() - before.size() - after.size();
      const auto number = PlainNumber(std::string_view{name}.substr(before.size(), digits));
      if (number) numbers.insert(*number);
    }
    return numbers;
  }
};

Status Rename(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) return SystemError("rename", from + " to " + to, errno);
  return Ok();
}

Status Roll(const std::string& path, const Series& series, int max_archives) {
  const auto numbers = series.Numbers();
  for (auto it = numbers.rbegin(); it != numbers.rend(); ++it) {
    if (max_archives > 0 && *it + 1 >= static_cast<size_t>(max_archives)) {
      ::unlink(series.Path(*it).c_str());
    } else if (const auto renamed = Rename(series.Path(*it), series.Path(*it + 1)); !renamed) {
      return renamed;
    }
  }
  return Rename(path, series.Path(0));
}

Status AppendToSeries(const std::string& path, const Series& series, int max_archives) {
  auto numbers = series.Numbers();
  const size_t next = numbers.empty() ? 0 : *numbers.rbegin() + 1;
  if (const auto renamed = Rename(path, series.Path(next)); !renamed) return renamed;
  numbers.insert(next);
  while (max_archives > 0 && numbers.size() > static_cast<size_t>(max_archives)) {
    ::unlink(series.Path(*numbers.begin()).c_str());
    numbers.erase(numbers.begin());
  }
  return Ok();
}

}  // namespace

Status MoveToArchive(const std::string& path, const std::string& archive_name, int max_archives) {
  const Series series{archive_name.empty() ? path + ".#r" : archive_name};
  return series.rolling ? Roll(path, series, max_archives) : AppendToSeries(path, series, max_archives);
}

Status AppendFile::Open(const std::string& path) {
  if (path != path_) fd_.reset();
  path_ = path;
  return Refresh();
}

Status AppendFile::Refresh() {
  struct stat named {};
  struct stat open {};
  const bool same = fd_ && ::stat(path_.c_str(), &named) == 0 && ::fstat(fd_.get(), &open) == 0 &&
                    named.st_ino == open.st_ino && named.st_dev == open.st_dev;
  if (!same) {
    const int sync = limits_.sync ? O_SYNC : 0;
    fd_.reset(::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | sync, limits_.mode));
    if (!fd_) return SystemError("open", path_, errno);
    if (::fstat(fd_.get(), &open) != 0) return SystemError("stat", path_, errno);
  }
  size_ = static_cast<size_t>(open.st_size);
  return Ok();
}

Status AppendFile::Rotate(size_t line_size) {
  const std::filesystem::path parent = std::filesystem::path{path_}.parent_path();
  const std::string folder = parent.empty() ? "." : parent.string();
  const UniqueFd lock{::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  if (!lock || ::flock(lock.get(), LOCK_EX) != 0) return SystemError("lock", folder, errno);
  if (const auto current = Refresh(); !current) return current;  // another process may have rotated it just now
  if (size_ + line_size <= limits_.max_size) return Ok();
  if (auto moved = MoveToArchive(path_, limits_.archive_name, limits_.max_archives); !moved) return moved;
  return Refresh();
}

Status AppendFile::Write(const std::string& path, std::string_view line) {
  if (const auto opened = Open(path); !opened) return opened;
  if (limits_.max_size > 0 && size_ > 0 && size_ + line.size() > limits_.max_size) {
    if (const auto rotated = Rotate(line.size()); !rotated) return rotated;
  }
  while (!line.empty()) {  // more than one turn only when a signal or a full device cuts the write short
    const ssize_t written = ::write(fd_.get(), line.data(), line.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return SystemError("write", path, errno);
    line.remove_prefix(static_cast<size_t>(written));
  }
  if (limits_.fsync_period > 0 && ++lines_ % limits_.fsync_period == 0) ::fsync(fd_.get());
  return Ok();
}

}  // namespace common
