#pragma once

#include <chrono>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/result.h"

namespace zlog_impl {

struct Level {
  std::string name;
  int syslog_priority;
};
using Levels = std::map<int, Level>;

/// One log line before it is rendered. The texts are the caller's.
struct Line {
  std::chrono::system_clock::time_point time;
  int level = 0;
  std::string_view category;
  std::string_view file;
  std::string_view function;
  long number = 0;
  std::string_view message;
};

/// A format of the configuration file, compiled once. Knows, after %, the flags '-' and '0', a width and a precision:
///
///   %d, %d(strftime format, with %ms and %us too), %D, %ms, %us   time of the line, local
///   %c category  %V %v level, as written and in small letters  %m message  %n newline  %% percent sign
///   %F file  %f file without folders  %L line  %U function
///   %p process  %t %T %k thread  %H host  %E(NAME) variable of the environment, read when the format is compiled
class Pattern final {
 public:
  /// Fails when a conversion is unknown or incomplete.
  static common::Result<Pattern> Compile(std::string_view text);
  void Append(const Line& line, const Levels& levels, std::string& out) const;
  /// Gives the same text for every line.
  [[nodiscard]] bool IsConstant() const;

 private:
  struct Piece {
    char conversion = 0;  ///< 0: `text` itself; 'd', 'c', ...; '3' and '6' for %ms and %us
    std::string text;     ///< literal, or strftime(3) format
    bool left = false;
    bool zeroes = false;
    size_t width = 0;
    size_t precision = std::string::npos;
  };
  void AddLiteral(std::string_view text);
  std::vector<Piece> pieces_;
};

}  // namespace zlog_impl
