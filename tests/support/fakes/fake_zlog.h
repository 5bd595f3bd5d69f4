/// @file fake_zlog.h
/// zlog with a switch for the detail level. Every line that reaches zlog is traced, whatever its level.
#pragma once

#include <string>
#include <vector>

#include "zlog.h"

namespace fakes {

struct LogLine {
  zlog_category_t* category;
  std::string file;
  std::string function;
  long line;
  int level;
  std::string text;
};

struct Zlog {
  bool detail_enabled = true;     ///< what zlog_level_enabled() says of level 10
  std::vector<LogLine> lines;     ///< all that reached zlog()
  std::vector<int> asked_levels;  ///< arguments of zlog_level_enabled()

  /// Lines of level 10 that were formatted and written although the level was off: a mistake of the caller.
  int detail_lines_while_disabled = 0;
};

Zlog& TheZlog();
/// The category that qmmw_trace_register_category() hands out.
zlog_category_t* TheCategory();

}  // namespace fakes
