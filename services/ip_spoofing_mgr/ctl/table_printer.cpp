#include "table_printer.h"

#include <algorithm>
#include <iomanip>

namespace mgr {
namespace {

std::string CellText(const nlohmann::json& row, const std::string& member) {
  const auto it = row.find(member);
  if (it == row.end() || it->is_null()) return "-";
  if (it->is_boolean()) return it->get<bool>() ? "yes" : "no";
  return it->is_string() ? it->get<std::string>() : it->dump();
}

}  // namespace

void PrintTable(std::ostream& out, const std::vector<Column>& columns, const nlohmann::json& rows) {
  std::vector<size_t> widths;
  std::vector<bool> numbers;
  for (const Column& column : columns) {
    size_t width = column.heading.size();
    bool number = !rows.empty();
    for (const auto& row : rows) {
      width = std::max(width, CellText(row, column.member).size());
      number = number && row.contains(column.member) && row[column.member].is_number();
    }
    widths.push_back(width);
    numbers.push_back(number);
  }
  const auto line = [&](const std::vector<std::string>& cells) {
    for (size_t i = 0; i < cells.size(); ++i) {
      const bool last = i + 1 == cells.size();
      out << (numbers[i] ? std::right : std::left) << std::setw(last && !numbers[i] ? 0 : static_cast<int>(widths[i]))
          << cells[i] << (last ? "\n" : "  ");
    }
  };
  std::vector<std::string> headings;
  for (const Column& column : columns) headings.push_back(column.heading);
  line(headings);
  for (const auto& row : rows) {
    std::vector<std::string> cells;
    for (const Column& column : columns) cells.push_back(CellText(row, column.member));
    line(cells);
  }
}

}  // namespace mgr
