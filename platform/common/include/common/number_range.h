#pragma once

#include <CLI/CLI.hpp>
#include <charconv>
#include <sstream>
#include <string>

namespace common {

/// Check for a numeric command-line option: the whole text is one decimal number from `least` to `most`. Unlike
/// CLI::Range it refuses "nan", and "-1" for an unsigned option.
template <class Number>
CLI::Validator NumberFrom(Number least, Number most) {
  std::ostringstream bounds;
  bounds << least << " to " << most;
  return CLI::Validator{[least, most, text = bounds.str()](const std::string& input) -> std::string {
                          Number number{};
                          const char* end = input.data() + input.size();
                          const auto parsed = std::from_chars(input.data(), end, number);
                          const bool whole = parsed.ec == std::errc{} && parsed.ptr == end;
                          if (whole && number >= least && number <= most) return "";
                          return "'" + input + "' is not a number from " + text;
                        },
                        bounds.str()};
}

}  // namespace common
