#include "path_format.h"

#include <charconv>
#include <cstring>

#include "last_error.h"

namespace confd {
namespace {

template <class T>
void AppendNumber(std::string& out, T value, int base) {
  char digits[16];
  const auto result = std::to_chars(digits, digits + sizeof digits, value, base);
  out.append(digits, result.ptr);
}

std::nullopt_t Bad(const char* fmt, const std::string& why) {
  Fail(CONFD_ERR_PROTOUSAGE, "path format \"" + std::string(fmt) + "\": " + why);
  return std::nullopt;
}

}  // namespace

std::optional<std::string_view> FormatPath(std::string& buffer, int nargs, const char* fmt, va_list args) {
  if (fmt == nullptr) {
    Fail(CONFD_ERR_PROTOUSAGE, "the path is a null pointer");
    return std::nullopt;
  }
  const char* percent = strchrnul(fmt, '%');
  if (*percent == '\0') return std::string_view(fmt, static_cast<size_t>(percent - fmt));
  buffer.clear();
  int left = nargs - 1;
  const char* at = fmt;
  for (; *percent != '\0'; percent = strchrnul(at, '%')) {
    buffer.append(at, percent);
    const char conversion = percent[1];
    if (conversion == '\0') return Bad(fmt, "ends in a lone '%'");
    at = percent + 2;
    if (conversion == '%') {
      buffer.push_back('%');
      continue;
    }
    if (std::strchr("sdux", conversion) == nullptr) {
      return Bad(fmt, std::string("'%") + conversion + "' is no conversion known here (%s %d %u %x %%)");
    }
    if (left-- <= 0) return Bad(fmt, std::string("'%") + conversion + "' has no argument");
    switch (conversion) {
      case 's': {
        const char* const text = va_arg(args, const char*);
        if (text == nullptr) return Bad(fmt, "the argument of '%s' is a null pointer");
        buffer.append(text);
        break;
      }
      case 'd':
        AppendNumber(buffer, va_arg(args, int), 10);
        break;
      case 'u':
        AppendNumber(buffer, va_arg(args, unsigned), 10);
        break;
      default:
        AppendNumber(buffer, va_arg(args, unsigned), 16);
        break;
    }
  }
  buffer.append(at);
  return buffer;
}

}  // namespace confd
