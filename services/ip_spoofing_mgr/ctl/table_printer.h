#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

namespace mgr {

/// A column of a table: the member of the row that it shows, and its heading.
struct Column {
  std::string member;
  std::string heading;
};

/// Writes rows as a table with aligned columns: numbers to the right, an absent value as "-". The last column is not
/// padded. With no row, only the headings.
void PrintTable(std::ostream& out, const std::vector<Column>& columns, const nlohmann::json& rows);

}  // namespace mgr
