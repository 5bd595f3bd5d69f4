#include "checks.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <nlohmann/json.hpp>
#include <vector>

#include "common/paths.h"
#include "control_client.h"

#include "support/netconf_client.h"

namespace test {
namespace {

/// The lines of `a` that are not in `b`, at most 20 of them.
std::string Difference(const Table& a, const Table& b) {
  std::vector<std::string> lines;
  std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(lines));
  std::string text;
  for (size_t i = 0; i < std::min<size_t>(lines.size(), 20); ++i) text += "\n  " + lines[i];
  if (lines.size() > 20) text += "\n  and " + std::to_string(lines.size() - 20) + " more";
  return lines.empty() ? " nothing" : text;
}

using nlohmann::json;

/// Rows of one of the manager's tables.
common::Status AskRows(const std::string& command, json* rows) {
  *rows = json::array();
  return mgr::AskManager(command, json::object(), [&](const json& part) {
    for (const json& row : part.value("rows", json::array())) rows->push_back(row);
  });
}

/// Why the row is not in force, as a tail for its line; "" when it is.
std::string Reason(const json& row) {
  return row.value("state", 0) == 1 ? "" : " (" + row.value("reason", json{}).dump() + ")";
}

void AddPort(const json& row, Table* table) {
  const std::string name = row.value("port", "");
  if (row.value("enabled", false)) table->insert(PortLine(name) + Reason(row));
  if (const std::string mode = row.value("mode", ""); mode != "none") table->insert(ModeLine(name, mode));
}

void AddEntry(const json& row, Table* table) {
  const json mac = row.value("mac", json{});
  table->insert(SourceLine(row.value("port", ""), row.value("address", ""), row.value("vlan", -1),
                           mac.is_string() ? mac.get<std::string>() : "") +
                Reason(row));
}

}  // namespace

Table ManagerTable(const Element& element) {
  // The client of the control socket finds it by the environment. One element at a time is asked.
  ::setenv(common::kRunDirVariable, element.RunDir().c_str(), 1);
  json ports;
  json entries;
  if (common::Status asked = AskRows("show ports", &ports); !asked) return {"unreadable: " + asked.error().Text()};
  if (common::Status asked = AskRows("show entries", &entries); !asked) return {"unreadable: " + asked.error().Text()};
  Table table;
  for (const json& row : ports) AddPort(row, &table);
  for (const json& row : entries) AddEntry(row, &table);
  return table;
}

void ExpectManagerHolds(const Element& element, const Configuration& configuration) {
  const Table wanted = TableOf(configuration);
  Table held;
  if (Eventually([&] { return (held = ManagerTable(element)) == wanted; }, Element::kLimit)) return;
  ADD_FAILURE() << "the manager lacks:" << Difference(wanted, held)
                << "\nthe manager holds too:" << Difference(held, wanted);
}

void Commit(const Element& element, const std::string& config, const std::string& options) {
  NetconfClient client{element.NetconfSocket()};
  const std::string reply = client.EditConfig(config, options);
  EXPECT_TRUE(IsOk(reply)) << config << "\n" << reply;
}

void CommitInPlace(const Element& element, const Configuration& configuration) {
  Commit(element, ToXml(configuration), "<default-operation>replace</default-operation>");
}

int Rounds(int rounds) { return IP_SPOOFING_SANITIZED != 0 ? std::max(1, rounds / 5) : rounds; }

}  // namespace test
