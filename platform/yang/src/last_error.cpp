#include "yang/last_error.h"

#include <libyang/version.h>

#include <algorithm>
#include <charconv>

namespace yang {

namespace {

std::string text_of(const char* text) { return text != nullptr ? text : ""; }

/// The text between the quotes after `label`.
std::string quoted_after(std::string_view label, std::string_view text) {
  const size_t at = text.find(label);
  if (at == std::string_view::npos) return {};
  const size_t begin = at + label.size();
  const size_t end = std::min(text.find("\", ", begin), text.rfind('"'));
  return end == std::string_view::npos || end < begin ? "" : std::string{text.substr(begin, end - begin)};
}

LastError read_error(const ly_err_item* item) {
  LastError error;
  if (item == nullptr) {
    error.message = "unknown error";
    return error;
  }
#if LY_VERSION_MAJOR < 3
  error = SplitLocations(item->path != nullptr ? item->path : "");
#else
  error.data_path = text_of(item->data_path);
  error.schema_path = text_of(item->schema_path);
  if (item->line > 0) error.line = item->line;
#endif
  error.message = text_of(item->msg);
  error.app_tag = text_of(item->apptag);
  return error;
}

}  // namespace

LastError SplitLocations(std::string_view text) {
  LastError error;
  if (!text.empty() && text.front() == '/') {
    error.data_path = text;
    return error;
  }
  // Capitalized at the start of the text, not after another location.
  error.data_path = quoted_after("ata location \"", text);
  error.schema_path = quoted_after("chema location \"", text);
  constexpr std::string_view kLine = "ine number ";
  // A path may hold these words; the line comes last.
  if (const size_t at = text.rfind(kLine); at != std::string_view::npos) {
    uint64_t line = 0;
    const auto parsed = std::from_chars(text.data() + at + kLine.size(), text.data() + text.size(), line);
    if (parsed.ec == std::errc{} && line > 0) error.line = line;
  }
  return error;
}

LastError ReadFirstError(const ly_ctx* context) { return read_error(ly_err_first(context)); }

LastError ReadLastError(const ly_ctx* context) {
  const ly_err_item* const first = ly_err_first(context);
  return read_error(first != nullptr ? first->prev : nullptr);  // the first one's predecessor is the last one
}

}  // namespace yang
