#include "pattern.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <ctime>

namespace zlog_impl {
namespace {

constexpr std::string_view kDefaultTime = "%F %T";
constexpr std::string_view kPlainConversions = "cVvmnFfLUptTkH";
constexpr std::string_view kTimeConversions = "aAbBcCdDeFgGhHIjklmMnprRsStTuUVwWxXyYzZ%";

long Micros(std::chrono::system_clock::time_point time) {
  const auto since_epoch = std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
  return since_epoch % 1'000'000;
}

std::string Digits(long value, size_t count) {
  std::string text = std::to_string(value);
  return text.size() < count ? std::string(count - text.size(), '0') + text : text;
}

std::string Fraction(char conversion, std::chrono::system_clock::time_point time) {
  return conversion == '3' ? Digits(Micros(time) / 1000, 3) : Digits(Micros(time), 6);
}

/// %ms and %us at the start of `text`, as '3' and '6'; 0 for anything else. `text` starts after the percent sign.
char FractionConversion(std::string_view text) {
  if (text.starts_with("ms")) return '3';
  if (text.starts_with("us")) return '6';
  return 0;
}

common::Status CheckTimeFormat(std::string_view format) {
  for (size_t at = format.find('%'); at != std::string_view::npos; at = format.find('%', at + 2)) {
    const std::string_view rest = format.substr(at + 1);
    if (FractionConversion(rest) != 0) continue;
    if (rest.empty() || kTimeConversions.find(rest.front()) == std::string_view::npos) {
      return common::Error{"", "", "unknown time conversion '%" + std::string(rest.substr(0, 1)) + "'"};
    }
  }
  return common::Ok();
}

std::string TimeText(const std::string& format, std::chrono::system_clock::time_point time) {
  std::string expanded;
  for (size_t at = 0; at < format.size(); ++at) {
    const char fraction = format[at] == '%' ? FractionConversion(std::string_view{format}.substr(at + 1)) : '\0';
    if (fraction != 0) {
      expanded += Fraction(fraction, time);
      at += 2;
    } else {
      expanded += format[at];
      if (format[at] == '%' && at + 1 < format.size()) expanded += format[++at];
    }
  }
  const time_t seconds = std::chrono::system_clock::to_time_t(time);
  tm local{};
  ::localtime_r(&seconds, &local);
  std::array<char, 512> text{};
  return {text.data(), std::strftime(text.data(), text.size(), expanded.c_str(), &local)};
}

std::string HostName() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

std::string LevelName(int level, const Levels& levels) {
  const auto it = levels.find(level);
  return it != levels.end() ? it->second.name : "UNKNOWN";
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

std::string Value(char conversion, const std::string& argument, const Line& line, const Levels& levels) {
  switch (conversion) {
    case 'd':
      return TimeText(argument, line.time);
    case '3':
    case '6':
      return Fraction(conversion, line.time);
    case 'c':
      return std::string{line.category};
    case 'V':
      return LevelName(line.level, levels);
    case 'v':
      return Lower(LevelName(line.level, levels));
    case 'm':
      return std::string{line.message};
    case 'n':
      return "\n";
    case 'F':
      return std::string{line.file};
    case 'f':
      return std::string{line.file.substr(line.file.rfind('/') + 1)};
    case 'L':
      return std::to_string(line.number);
    case 'U':
      return std::string{line.function};
    case 'p':
      return std::to_string(::getpid());
    case 'H':
      return HostName();
    default:
      return std::to_string(::syscall(SYS_gettid));
  }
}

/// Takes decimal digits off the front.
size_t TakeNumber(std::string_view& text) {
  size_t value = 0;
  while (!text.empty() && std::isdigit(static_cast<unsigned char>(text.front())) != 0) {
    value = std::min<size_t>(value * 10 + static_cast<size_t>(text.front() - '0'), 4096);
    text.remove_prefix(1);
  }
  return value;
}

/// Takes "(argument)", which `text` starts with, off the front.
common::Result<std::string> TakeArgument(std::string_view& text) {
  const size_t end = text.find(')');
  if (end == std::string_view::npos) return common::Error{"", "", "missing ')'"};
  std::string argument{text.substr(1, end - 1)};
  text.remove_prefix(end + 1);
  return argument;
}

}  // namespace

void Pattern::AddLiteral(std::string_view text) {
  if (text.empty()) return;
  if (pieces_.empty() || pieces_.back().conversion != 0) pieces_.emplace_back();
  pieces_.back().text += text;
}

common::Result<Pattern> Pattern::Compile(std::string_view text) {
  Pattern pattern;
  while (!text.empty()) {
    const size_t percent = text.find('%');
    pattern.AddLiteral(text.substr(0, percent));
    if (percent == std::string_view::npos) break;
    text.remove_prefix(percent + 1);
    Piece piece;
    while (!text.empty() && (text.front() == '-' || text.front() == '0')) {
      (text.front() == '-' ? piece.left : piece.zeroes) = true;
      text.remove_prefix(1);
    }
    piece.width = TakeNumber(text);
    if (text.starts_with(".")) {
      text.remove_prefix(1);
      piece.precision = TakeNumber(text);
    }
    if (text.empty()) return common::Error{"", "", "'%' at the end of a format"};
    const char conversion = text.front();
    if (const char fraction = FractionConversion(text); fraction != 0) {
      piece.conversion = fraction;
      text.remove_prefix(2);
    } else if (conversion == '%') {
      pattern.AddLiteral("%");
      text.remove_prefix(1);
      continue;
    } else if (conversion == 'd' || conversion == 'D') {
      text.remove_prefix(1);
      piece.conversion = 'd';
      piece.text = kDefaultTime;
      if (conversion == 'd' && text.starts_with("(")) {
        auto argument = TakeArgument(text);
        if (!argument) return argument.error();
        piece.text = std::move(argument).value();
      }
      if (const auto checked = CheckTimeFormat(piece.text); !checked) return checked.error();
    } else if (conversion == 'E' && text.substr(1).starts_with("(")) {
      text.remove_prefix(1);
      const auto name = TakeArgument(text);
      if (!name) return name.error();
      const char* value = std::getenv(name.value().c_str());
      pattern.AddLiteral(value != nullptr ? value : "");
      continue;
    } else if (kPlainConversions.find(conversion) != std::string_view::npos) {
      piece.conversion = conversion;
      text.remove_prefix(1);
    } else {
      return common::Error{"", "", "unknown conversion '%" + std::string(1, conversion) + "'"};
    }
    pattern.pieces_.push_back(std::move(piece));
  }
  return pattern;
}

bool Pattern::IsConstant() const {
  return std::all_of(pieces_.begin(), pieces_.end(), [](const Piece& piece) { return piece.conversion == 0; });
}

void Pattern::Append(const Line& line, const Levels& levels, std::string& out) const {
  for (const Piece& piece : pieces_) {
    if (piece.conversion == 0) {
      out += piece.text;
      continue;
    }
    const std::string value = Value(piece.conversion, piece.text, line, levels).substr(0, piece.precision);
    const std::string padding(piece.width > value.size() ? piece.width - value.size() : 0,
                              piece.zeroes && !piece.left ? '0' : ' ');
    if (piece.left) {
      out.append(value).append(padding);
    } else {
      out.append(padding).append(value);
    }
  }
}

}  // namespace zlog_impl
