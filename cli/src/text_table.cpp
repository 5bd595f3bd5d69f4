#include "text_table.h"

#include <algorithm>

namespace cli {
namespace {

/// Bytes that do not continue a character.
size_t Width(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

}  // namespace

std::string TextTable::Text() const {
  std::vector<size_t> widths(rows_.front().size());
  for (const auto& row : rows_) {
    for (size_t i = 0; i < widths.size(); ++i) widths[i] = std::max(widths[i], Width(row[i]));
  }
  std::string text;
  for (const auto& row : rows_) {
    for (size_t i = 0; i < widths.size(); ++i) text += row[i] + std::string(widths[i] - Width(row[i]) + 2, ' ');
    text.erase(text.find_last_not_of(' ') + 1);
    text += '\n';
  }
  return text;
}

}  // namespace cli
