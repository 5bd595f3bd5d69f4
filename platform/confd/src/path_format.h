#pragma once

#include <cstdarg>
#include <optional>
#include <string>
#include <string_view>

namespace confd {

/// The path that a format and its arguments give: %s, %d, %u, %x and %%. `nargs` counts the format too; nothing is
/// read that was not passed. The view is into `fmt` or `buffer`. Nothing, with the last error set, when a conversion is
/// unknown or lacks its argument.
std::optional<std::string_view> FormatPath(std::string& buffer, int nargs, const char* fmt, va_list args);

}  // namespace confd
