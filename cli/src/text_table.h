#pragma once

#include <string>
#include <vector>

namespace cli {

/// Rows of text in aligned columns, two blanks between them. Widths count characters, not bytes, of UTF-8.
class TextTable final {
 public:
  explicit TextTable(std::vector<std::string> heading) { rows_.push_back(std::move(heading)); }
  /// As many cells as the heading has.
  void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  /// The heading and the rows, a line each, without blanks at the ends of lines.
  [[nodiscard]] std::string Text() const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace cli
