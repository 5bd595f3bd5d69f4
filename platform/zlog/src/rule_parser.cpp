#include "rule_parser.h"

#include <algorithm>
#include <cctype>

#include "text.h"

namespace zlog_impl {
namespace {

common::Error Wrong(std::string reason) { return {"", "", std::move(reason)}; }

bool IsCategoryName(std::string_view name) {
  if (name == "*" || name == "!") return true;
  return !name.empty() && std::all_of(name.begin(), name.end(),
                                      [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_'; });
}

common::Status ParseSelector(std::string_view selector, const Levels& levels, Rule& rule) {
  const size_t dot = selector.find('.');
  rule.category = selector.substr(0, dot);
  if (dot == std::string_view::npos || !IsCategoryName(rule.category)) {
    return Wrong("expected category.level, not '" + std::string(selector) + "'");
  }
  std::string_view level = selector.substr(dot + 1);
  if (level == "*") return common::Ok();
  rule.match = Match::kAtOrAbove;
  if (level.starts_with('=') || level.starts_with('!')) {
    rule.match = level.front() == '=' ? Match::kExactly : Match::kAllBut;
    level.remove_prefix(1);
  }
  const auto known = std::find_if(levels.begin(), levels.end(),
                                  [&](const auto& entry) { return SameName(entry.second.name, std::string(level)); });
  if (known == levels.end()) return Wrong("unknown level '" + std::string(level) + "'");
  rule.level = known->first;
  return common::Ok();
}

common::Status ParseStream(std::string_view output, Rule& rule) {
  const size_t comma = output.find(',');
  const std::string_view name = Trimmed(output.substr(1, comma == std::string_view::npos ? comma : comma - 1));
  const std::string_view option = comma == std::string_view::npos ? "" : Trimmed(output.substr(comma + 1));
  if (name == "syslog") {
    const auto facility = SyslogFacility(option);
    if (!facility) return Wrong(">syslog wants a facility, as in '>syslog, LOG_DAEMON'");
    rule.target = Target::kSyslog;
    rule.facility = *facility;
    return common::Ok();
  }
  if (name != "stdout" && name != "stderr") return Wrong("unknown output '>" + std::string(name) + "'");
  if (!option.empty()) return Wrong(">" + std::string(name) + " takes no option");
  rule.target = name == "stdout" ? Target::kStandardOutput : Target::kStandardError;
  return common::Ok();
}

/// Takes a text in double quotes off the front.
common::Result<std::string> TakeQuoted(std::string_view& text) {
  const size_t end = text.starts_with('"') ? text.find('"', 1) : std::string_view::npos;
  if (end == std::string_view::npos || end == 1) return Wrong("expected a file name in double quotes");
  std::string quoted{text.substr(1, end - 1)};
  text = Trimmed(text.substr(end + 1));
  return quoted;
}

/// "SIZE", "SIZE * COUNT", then maybe ~ "archive".
common::Status ParseRotation(std::string_view text, Rule& rule) {
  const size_t tilde = text.find('~');
  const std::string_view limit = Trimmed(text.substr(0, tilde));
  const size_t star = limit.find('*');
  const auto size = ParseSize(Trimmed(limit.substr(0, star)));
  if (!size || *size == 0) return Wrong("expected a file size, as in 10MB * 3");
  rule.max_size = *size;
  if (star != std::string_view::npos) {
    const auto count = ParseNumber(Trimmed(limit.substr(star + 1)));
    if (!count || *count > 100'000) return Wrong("expected a number of files, as in 10MB * 3");
    rule.max_archives = static_cast<int>(*count);
  }
  if (tilde == std::string_view::npos) return common::Ok();
  std::string_view rest = Trimmed(text.substr(tilde + 1));
  auto archive = TakeQuoted(rest);
  if (!archive) return archive.error();
  const auto compiled = Pattern::Compile(archive.value());
  if (!compiled) return compiled.error();
  if (!compiled.value().IsConstant()) return Wrong("a rotated file's name has no conversions other than %E(NAME)");
  compiled.value().Append({}, {}, rule.archive_name);
  if (!rest.empty()) return Wrong("unexpected '" + std::string(rest) + "'");
  const size_t mark = rule.archive_name.find('#');
  if (mark == std::string::npos || (rule.archive_name[mark + 1] != 'r' && rule.archive_name[mark + 1] != 's')) {
    return Wrong("a rotated file's name has #r or #s in it");
  }
  return common::Ok();
}

common::Status ParseFile(std::string_view output, Rule& rule) {
  rule.target = Target::kFile;
  rule.sync = output.starts_with('-');
  if (rule.sync) output.remove_prefix(1);
  const auto path = TakeQuoted(output);
  if (!path) return path.error();
  auto compiled = Pattern::Compile(path.value());
  if (!compiled) return compiled.error();
  rule.path = std::move(compiled).value();
  if (output.empty()) return common::Ok();
  if (!output.starts_with(',')) return Wrong("unexpected '" + std::string(output) + "'");
  return ParseRotation(Trimmed(output.substr(1)), rule);
}

/// Where the output ends and the format begins: the first semicolon outside double quotes.
size_t FindFormat(std::string_view text) {
  bool quoted = false;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '"') quoted = !quoted;
    if (text[at] == ';' && !quoted) return at;
  }
  return std::string_view::npos;
}

}  // namespace

common::Result<ParsedRule> ParseRule(std::string_view line, const Levels& levels) {
  ParsedRule parsed;
  const size_t blank = line.find_first_of(" \t");
  if (const auto done = ParseSelector(line.substr(0, blank), levels, parsed.rule); !done) return done.error();
  const std::string_view rest = blank == std::string_view::npos ? "" : Trimmed(line.substr(blank));
  const size_t semicolon = FindFormat(rest);
  const std::string_view output = Trimmed(rest.substr(0, semicolon));
  if (semicolon != std::string_view::npos) {
    parsed.format_name = Trimmed(rest.substr(semicolon + 1));
    if (parsed.format_name.empty()) return Wrong("expected the name of a format after ';'");
  }
  if (output.empty()) return Wrong("expected an output");
  const auto done = output.starts_with('>') ? ParseStream(output, parsed.rule)
                    : output.starts_with('"') || output.starts_with("-\"")
                        ? ParseFile(output, parsed.rule)
                        : common::Status{Wrong("unknown output '" + std::string(output) + "'")};
  if (!done) return done.error();
  return parsed;
}

}  // namespace zlog_impl
