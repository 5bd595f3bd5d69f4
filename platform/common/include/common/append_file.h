#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "common/result.h"
#include "common/unique_fd.h"

namespace common {

/// One file that lines are appended to, each with one write(2), so that several processes may share it. It is opened
/// anew when its path changes or when somebody has moved or removed it, and rotated when the next line would not fit;
/// a lock on its folder keeps two processes from rotating it at once.
class AppendFile final {
 public:
  struct Limits {
    mode_t mode = 0600;
    bool sync = false;
    size_t fsync_period = 0;
    size_t max_size = 0;       ///< 0: never rotated
    int max_archives = 0;      ///< 0: all are kept
    std::string archive_name;  ///< with "#r" or "#s"; "": the path with ".#r"
  };

  explicit AppendFile(Limits limits) : limits_{std::move(limits)} {}
  Status Open(const std::string& path);
  Status Write(const std::string& path, std::string_view line);

 private:
  /// Opens the file again unless `path_` still names the open one. Its size goes to `size_`.
  Status Refresh();
  Status Rotate(size_t line_size);

  Limits limits_;
  std::string path_;
  UniqueFd fd_;
  size_t size_ = 0;
  size_t lines_ = 0;
};

/// Renames `path` to its place in the numbered series `archive_name` and removes what is beyond `max_archives`.
Status MoveToArchive(const std::string& path, const std::string& archive_name, int max_archives);

}  // namespace common
