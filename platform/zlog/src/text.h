#pragma once

#include <strings.h>
#include <syslog.h>

#include <array>
#include <cctype>
#include <charconv>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

/// Small readers of the configuration file's words.
namespace zlog_impl {

inline std::string_view Trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n\v\f";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

inline bool SameName(const std::string& a, const std::string& b) { return ::strcasecmp(a.c_str(), b.c_str()) == 0; }

inline std::optional<size_t> ParseNumber(std::string_view text) {
  size_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

/// "512", "512B", "10K", "10KB", "1M", "1MB", "2G", "2GB", small letters too.
inline std::optional<size_t> ParseSize(std::string_view text) {
  if (!text.empty() && std::toupper(static_cast<unsigned char>(text.back())) == 'B') text.remove_suffix(1);
  size_t factor = 1;
  if (!text.empty()) {
    switch (std::toupper(static_cast<unsigned char>(text.back()))) {
      case 'K':
        factor = size_t{1} << 10;
        break;
      case 'M':
        factor = size_t{1} << 20;
        break;
      case 'G':
        factor = size_t{1} << 30;
        break;
      default:
        break;
    }
  }
  if (factor != 1) text.remove_suffix(1);
  const auto number = ParseNumber(Trimmed(text));
  if (!number || *number > std::numeric_limits<size_t>::max() / factor) return std::nullopt;
  return *number * factor;
}

template <size_t N>
std::optional<int> Lookup(const std::array<std::pair<std::string_view, int>, N>& table, std::string_view name) {
  for (const auto& [known, value] : table) {
    if (known == name) return value;
  }
  return std::nullopt;
}

inline std::optional<int> SyslogPriority(std::string_view name) {
  static constexpr std::array<std::pair<std::string_view, int>, 8> kTable = {{{"LOG_EMERG", LOG_EMERG},
                                                                              {"LOG_ALERT", LOG_ALERT},
                                                                              {"LOG_CRIT", LOG_CRIT},
                                                                              {"LOG_ERR", LOG_ERR},
                                                                              {"LOG_WARNING", LOG_WARNING},
                                                                              {"LOG_NOTICE", LOG_NOTICE},
                                                                              {"LOG_INFO", LOG_INFO},
                                                                              {"LOG_DEBUG", LOG_DEBUG}}};
  return Lookup(kTable, name);
}

inline std::optional<int> SyslogFacility(std::string_view name) {
  static constexpr std::array<std::pair<std::string_view, int>, 10> kTable = {{{"LOG_USER", LOG_USER},
                                                                               {"LOG_DAEMON", LOG_DAEMON},
                                                                               {"LOG_LOCAL0", LOG_LOCAL0},
                                                                               {"LOG_LOCAL1", LOG_LOCAL1},
                                                                               {"LOG_LOCAL2", LOG_LOCAL2},
                                                                               {"LOG_LOCAL3", LOG_LOCAL3},
                                                                               {"LOG_LOCAL4", LOG_LOCAL4},
                                                                               {"LOG_LOCAL5", LOG_LOCAL5},
                                                                               {"LOG_LOCAL6", LOG_LOCAL6},
                                                                               {"LOG_LOCAL7", LOG_LOCAL7}}};
  return Lookup(kTable, name);
}

}  // namespace zlog_impl
