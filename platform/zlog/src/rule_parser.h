#pragma once

#include <string>
#include <string_view>

#include "config.h"

namespace zlog_impl {

struct ParsedRule {
  Rule rule;                ///< without its format
  std::string format_name;  ///< "": the default format
};

/// One line of [rules], `selector output` or `selector output; format`. Errors name no place.
///
///   selector   category.LEVEL (at or above)  category.=LEVEL  category.!LEVEL  category.*
///   output     >stdout  >stderr  >syslog, FACILITY  "path"  "path", SIZE * COUNT  "path", SIZE * COUNT ~ "archive"
///              -"path": on the medium before the call returns
common::Result<ParsedRule> ParseRule(std::string_view line, const Levels& levels);

}  // namespace zlog_impl
