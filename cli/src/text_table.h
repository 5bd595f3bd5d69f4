#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace cli {

/// Where a command's output goes, piece by piece.
using Write = std::function<void(std::string_view text)>;

/// To standard output.
void WriteToStdout(std::string_view text);

/// Rows of text in aligned columns with two blanks between them, written while they are added. The first rows decide on
/// the widths; a wider cell further down shifts the rest of its line. Widths count characters, not bytes, of UTF-8.
class TextTable final {
 public:
  static constexpr size_t kSizingRows = 1000;

  TextTable(std::vector<std::string> heading, Write write) : heading_{std::move(heading)}, write_{std::move(write)} {}
  /// As many cells as the heading has.
  void Add(const std::vector<std::string>& row);
  /// Writes what was kept back: the heading too, if no row came.
  void End();

 private:
  void Size();
  /// Without blanks at the end of the line.
  void Append(const std::vector<std::string>& row);
  void Flush();

  const std::vector<std::string> heading_;
  const Write write_;
  std::vector<std::vector<std::string>> first_;  ///< kept back until the widths are known
  std::vector<size_t> widths_;                   ///< empty: not known yet
  std::string text_;                             ///< lines that are not written yet
};

}  // namespace cli
