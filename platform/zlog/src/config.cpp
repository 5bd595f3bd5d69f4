#include "config.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <optional>

#include "common/unique_fd.h"
#include "rule_parser.h"
#include "text.h"

namespace zlog_impl {
namespace {

constexpr std::string_view kDefaultFormat = "%D %V [%p:%F:%L] %m%n";
constexpr int kMinLevel = 1;
constexpr int kMaxLevel = 253;

Levels BuiltInLevels() {
  return {{20, {"DEBUG", LOG_DEBUG}},  {40, {"INFO", LOG_INFO}},  {60, {"NOTICE", LOG_NOTICE}},
          {80, {"WARN", LOG_WARNING}}, {100, {"ERROR", LOG_ERR}}, {120, {"FATAL", LOG_ALERT}}};
}

Pattern Compiled(std::string_view text) { return Pattern::Compile(text).value(); }

/// Reads one line after the other into a Config. Every error is without the place, which ParseConfig() adds.
class Parser final {
 public:
  Parser() : default_format_{Compiled(kDefaultFormat)} { config_.levels = BuiltInLevels(); }

  common::Status Take(std::string_view line) {
    if (line.front() == '[') return Section(line);
    if (section_ == "rules") return RuleLine(line);
    if (section_.empty()) return common::Error{"", "", "this line is in no section"};
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) return common::Error{"", "", "expected name = value"};
    const std::string name{Trimmed(line.substr(0, equals))};
    const std::string_view value = Trimmed(line.substr(equals + 1));
    if (name.empty() || value.empty()) return common::Error{"", "", "expected name = value"};
    if (section_ == "global") return Global(name, value);
    if (section_ == "levels") return LevelLine(name, value);
    return FormatLine(name, value);
  }

  Config Finish() { return std::move(config_); }

 private:
  common::Status Section(std::string_view line) {
    static constexpr std::array<std::string_view, 4> kNames = {"global", "levels", "formats", "rules"};
    if (line.back() != ']') return common::Error{"", "", "expected [section]"};
    section_ = Trimmed(line.substr(1, line.size() - 2));
    if (std::find(kNames.begin(), kNames.end(), section_) == kNames.end()) {
      return common::Error{"", "", "unknown section [" + section_ + "]"};
    }
    return common::Ok();
  }

  common::Status Global(const std::string& name, std::string_view value) {
    if (name == "strict init") {
      if (value == "true" || value == "false") return common::Ok();  // an error in the file always fails here
      return common::Error{"", "", "strict init is true or false"};
    }
    if (name == "default format") {
      auto format = FormatText(value);
      if (!format) return format.error();
      default_format_ = std::move(format).value();
      return common::Ok();
    }
    if (name == "file perms") {
      unsigned mode = 0;
      const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), mode, 8);
      if (error != std::errc{} || end != value.data() + value.size() || mode > 0777) {
        return common::Error{"", "", "file perms is an octal number up to 777"};
      }
      config_.file_mode = mode;
      return common::Ok();
    }
    if (name == "rotate lock file") return common::Ok();  // rotation locks the folder of the file itself
    if (name == "buffer min" || name == "buffer max" || name == "fsync period" || name == "reload conf period") {
      const auto size = ParseSize(value);
      if (!size) return common::Error{"", "", name + " is a number with K, M or G after it, if anything"};
      if (name == "buffer max" && *size > 0) config_.max_line = *size;
      if (name == "fsync period") config_.fsync_period = *size;
      if (name == "reload conf period" && *size != 0) {
        return common::Error{"", "", "reload conf period other than 0 is not supported"};
      }
      return common::Ok();
    }
    return common::Error{"", "", "unknown setting '" + name + "'"};
  }

  common::Status LevelLine(const std::string& name, std::string_view value) {
    const size_t comma = value.find(',');
    const auto number = ParseNumber(Trimmed(value.substr(0, comma)));
    if (!number || *number < kMinLevel || *number > kMaxLevel) {
      return common::Error{"", "", "level " + name + " is a number from 1 to 253"};
    }
    int priority = LOG_DEBUG;
    if (comma != std::string_view::npos) {
      const std::string_view priority_name = Trimmed(value.substr(comma + 1));
      const auto found = SyslogPriority(priority_name);
      if (!found) return common::Error{"", "", "unknown syslog level '" + std::string(priority_name) + "'"};
      priority = *found;
    }
    std::erase_if(config_.levels, [&](const auto& level) { return SameName(level.second.name, name); });
    config_.levels[static_cast<int>(*number)] = Level{name, priority};
    return common::Ok();
  }

  common::Result<Pattern> FormatText(std::string_view value) {
    if (value.size() < 2 || value.front() != '"' || value.back() != '"') {
      return common::Error{"", "", "expected a format in double quotes"};
    }
    return Pattern::Compile(value.substr(1, value.size() - 2));
  }

  common::Status FormatLine(const std::string& name, std::string_view value) {
    auto format = FormatText(value);
    if (!format) return format.error();
    formats_.insert_or_assign(name, std::move(format).value());
    return common::Ok();
  }

  common::Status RuleLine(std::string_view line) {
    auto parsed = ParseRule(line, config_.levels);
    if (!parsed) return parsed.error();
    ParsedRule rule = std::move(parsed).value();
    rule.rule.format = default_format_;
    if (!rule.format_name.empty()) {
      const auto it = formats_.find(rule.format_name);
      if (it == formats_.end()) return common::Error{"", "", "unknown format '" + rule.format_name + "'"};
      rule.rule.format = it->second;
    }
    config_.rules.push_back(std::move(rule.rule));
    return common::Ok();
  }

  std::string section_;
  Pattern default_format_;
  std::map<std::string, Pattern> formats_;
  Config config_;
};

}  // namespace

bool Rule::Wants(std::string_view category_name) const {
  if (category == "*") return true;
  if (category == category_name) return true;
  if (!category.ends_with('_')) return false;
  return category_name.starts_with(category) || category_name == category.substr(0, category.size() - 1);
}

bool Rule::Writes(int level_number) const {
  switch (match) {
    case Match::kAll:
      return true;
    case Match::kAtOrAbove:
      return level_number >= level;
    case Match::kExactly:
      return level_number == level;
    case Match::kAllBut:
      return level_number != level;
  }
  return false;
}

Config DefaultConfig() {
  Config config;
  config.levels = BuiltInLevels();
  Rule rule;
  rule.category = "*";
  rule.format = Compiled(kDefaultFormat);
  config.rules.push_back(std::move(rule));
  return config;
}

common::Result<Config> ParseConfig(std::string_view text, const std::string& origin) {
  Parser parser;
  std::string joined;  // lines that end in a backslash, and the one after them
  size_t number = 0;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string_view line = Trimmed(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    ++number;
    if (line.starts_with('#')) continue;
    const bool goes_on = line.ends_with('\\') && !text.empty();
    if (goes_on) line.remove_suffix(1);
    joined += line;
    if (goes_on || joined.empty()) continue;
    if (const auto taken = parser.Take(joined); !taken) {
      return common::Error{origin + ":" + std::to_string(number), "", taken.error().reason};
    }
    joined.clear();
  }
  return parser.Finish();
}

common::Result<Config> ReadConfig(const std::string& path) {
  const common::UniqueFd fd{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  if (!fd) return common::SystemError("open", path, errno);
  std::string text;
  std::array<char, 4096> chunk{};
  ssize_t length = 0;
  while ((length = ::read(fd.get(), chunk.data(), chunk.size())) > 0)
    text.append(chunk.data(), static_cast<size_t>(length));
  if (length < 0) return common::SystemError("read", path, errno);
  return ParseConfig(text, path);
}

}  // namespace zlog_impl
