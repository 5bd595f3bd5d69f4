#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/result.h"
#include "pattern.h"

namespace zlog_impl {

enum class Target { kStandardOutput, kStandardError, kSyslog, kFile };
enum class Match { kAll, kAtOrAbove, kExactly, kAllBut };

/// One line of [rules].
struct Rule {
  std::string category;  ///< a name; "name_" for it and all that start so; "*" for all; "!" for those without a rule
  Match match = Match::kAll;
  int level = 0;
  Target target = Target::kStandardOutput;
  int facility = 0;          ///< kSyslog: of syslog(3)
  Pattern path;              ///< kFile
  bool sync = false;         ///< kFile: on the medium before the call returns
  size_t max_size = 0;       ///< kFile: bytes before the file is rotated; 0 for never
  int max_archives = 0;      ///< kFile: rotated files kept; 0 for all
  std::string archive_name;  ///< kFile: with "#r" (newest is 0) or "#s" (newest is highest), or "" for path.#r
  Pattern format;

  [[nodiscard]] bool Wants(std::string_view category_name) const;  ///< "!" wants none here
  [[nodiscard]] bool Writes(int level_number) const;
};

struct Config {
  Levels levels;
  std::vector<Rule> rules;
  size_t max_line = 2 * 1024 * 1024;  ///< "buffer max": longer lines are cut
  mode_t file_mode = 0600;            ///< "file perms"
  size_t fsync_period = 0;            ///< "fsync period": lines per fsync(2) of a file, 0 for none
};

/// The rules when there is no file: every line to standard output.
Config DefaultConfig();
/// `origin` is the file's name for error texts, which start "origin:line".
common::Result<Config> ParseConfig(std::string_view text, const std::string& origin);
common::Result<Config> ReadConfig(const std::string& path);

}  // namespace zlog_impl
