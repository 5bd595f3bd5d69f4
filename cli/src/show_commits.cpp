#include "show_commits.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <vector>

#include "text_table.h"

namespace cli {
namespace {

constexpr const char* kGet =
    "<get><filter type=\"subtree\"><commits xmlns=\"urn:ip-spoofing:cdb-monitor\"/></filter></get>";

/// `text` for a line of its own.
std::string OneLine(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r' || c == '\t'; }, ' ');
  return text;
}

bool IsCut(const netconf::XmlElement& leaf, std::string_view which) {
  for (const netconf::XmlElement* child = leaf.first_child; child != nullptr; child = child->next)
    if (child->name->local == "cut" && netconf::Trim(child->text) == which) return true;
  return false;
}

/// The value `which` of a changed leaf; one that is cut ends in three dots.
std::optional<std::string> Value(const netconf::XmlElement& leaf, std::string_view which) {
  const netconf::XmlElement* value = Descend(leaf, {which});
  if (value == nullptr) return std::nullopt;
  return OneLine(std::string{value->text}) + (IsCut(leaf, which) ? "..." : "");
}

/// "mac = 2 (was 1)"; "no mac (was 1)", "ipv4-all", "no ipv4-all".
std::string LeafText(const netconf::XmlElement& leaf) {
  std::string text = (ChildText(leaf, "operation") == "deleted" ? "no " : "") + ChildText(leaf, "name");
  if (const auto value = Value(leaf, "new-value")) text += " = " + *value;
  if (const auto value = Value(leaf, "old-value")) text += " (was " + *value + ")";
  return text;
}

/// "created /ais:config/...{10.0.0.1 7}: mac = 00:11:22:33:44:55".
std::string ChangeText(const netconf::XmlElement& change) {
  std::string text = ChildText(change, "operation") + " " + ChildText(change, "path");
  const char* before = ": ";
  const auto add = [&](const std::string& what) {
    text += before + what;
    before = ", ";
  };
  for (const netconf::XmlElement* child = change.first_child; child != nullptr; child = child->next)
    if (child->name->local == "leaf") add(LeafText(*child));
  if (const std::string unnamed = ChildText(change, "unnamed-leaves"); !unnamed.empty()) add(unnamed + " more leaves");
  return text;
}

/// A line for each change that is named, and one that counts the others.
std::vector<std::string> Changes(const netconf::XmlElement& commit) {
  std::vector<std::string> lines;
  for (const netconf::XmlElement* child = commit.first_child; child != nullptr; child = child->next)
    if (child->name->local == "change") lines.push_back(ChangeText(*child));
  const auto count = [&](std::string_view name) { return std::atoi(ChildText(commit, name).c_str()); };
  const int others = count("created") + count("modified") + count("deleted") - static_cast<int>(lines.size());
  if (lines.empty()) return {""};
  if (others > 0) lines.push_back("and " + std::to_string(others) + " more");
  return lines;
}

}  // namespace

std::string CommitsText(const netconf::XmlElement& data) {
  const netconf::XmlElement* commits = Descend(data, {"commits"});
  if (commits == nullptr) return "There was no commit yet\n";
  std::string text;
  TextTable table{{"COMMIT", "TIME", "USER", "SESSION", "CREATED", "MODIFIED", "DELETED", "COMMENT", "WHAT"},
                  [&text](std::string_view lines) { text += lines; }};
  for (const netconf::XmlElement* child = commits->first_child; child != nullptr; child = child->next) {
    if (child->name->local != "commit") continue;
    std::vector<std::string> row;
    for (const char* name : {"transaction", "time", "user", "session", "created", "modified", "deleted", "comment"})
      row.push_back(OneLine(ChildText(*child, name)));
    for (const std::string& change : Changes(*child)) {
      row.push_back(change);
      table.Add(row);
      row.assign(row.size() - 1, "");
    }
  }
  table.End();
  return text;
}

ExitStatus ShowCommits(const Target& target, Format format) {
  if (format != Format::kTable) return Show(target, kGet, format, nullptr);
  const Data answer = AskForData(target, kGet);
  if (answer.data == nullptr) return answer.status;
  std::fputs(CommitsText(*answer.data).c_str(), stdout);
  return kDone;
}

}  // namespace cli
