#include "text_table.h"

#include <algorithm>
#include <cstdio>

namespace cli {
namespace {

constexpr size_t kFlushSize = 65536;

/// Bytes that do not continue a character.
size_t Width(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

}  // namespace

void WriteToStdout(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

void TextTable::Add(const std::vector<std::string>& row) {
  if (!widths_.empty()) {
    Append(row);
    if (text_.size() >= kFlushSize) Flush();
    return;
  }
  first_.push_back(row);
  if (first_.size() == kSizingRows) Size();
}

void TextTable::End() {
  if (widths_.empty()) Size();
  Flush();
}

void TextTable::Size() {
  for (size_t i = 0; i < heading_.size(); ++i) {
    size_t width = Width(heading_[i]);
    for (const auto& row : first_) width = std::max(width, Width(row[i]));
    widths_.push_back(width);
  }
  Append(heading_);
  for (const auto& row : first_) Append(row);
  first_ = {};
  Flush();
}

void TextTable::Append(const std::vector<std::string>& row) {
  for (size_t i = 0; i < row.size(); ++i) {
    const size_t width = Width(row[i]);
    text_ += row[i];
    text_.append((widths_[i] > width ? widths_[i] - width : 0) + 2, ' ');
  }
  text_.erase(text_.find_last_not_of(' ') + 1);
  text_ += '\n';
}

void TextTable::Flush() {
  if (!text_.empty()) write_(text_);
  text_.clear();
}

}  // namespace cli
