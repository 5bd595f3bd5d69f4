#include "show_commits.h"

#include <cstdio>
#include <cstdlib>

#include "text_table.h"

namespace cli {
namespace {

constexpr const char* kGet =
    "<get><filter type=\"subtree\"><commits xmlns=\"urn:ip-spoofing:cdb-monitor\"/></filter></get>";

/// "created /ais:config/...{sp1} and 2 more".
std::string Changes(const netconf::XmlElement& commit) {
  int named = 0;
  std::string first;
  for (const netconf::XmlElement* child = commit.first_child; child != nullptr; child = child->next) {
    if (child->name->local != "change") continue;
    if (named++ == 0) first = ChildText(*child, "operation") + " " + ChildText(*child, "path");
  }
  const auto count = [&](std::string_view name) { return std::atoi(ChildText(commit, name).c_str()); };
  const int others = count("created") + count("modified") + count("deleted") - 1;
  if (first.empty() || others <= 0) return first;
  return first + " and " + std::to_string(others) + " more";
}

}  // namespace

std::string CommitsText(const netconf::XmlElement& data) {
  const netconf::XmlElement* commits = Descend(data, {"commits"});
  if (commits == nullptr) return "There was no commit yet\n";
  TextTable table{{"COMMIT", "TIME", "USER", "SESSION", "CREATED", "MODIFIED", "DELETED", "WHAT"}};
  for (const netconf::XmlElement* child = commits->first_child; child != nullptr; child = child->next) {
    if (child->name->local != "commit") continue;
    table.Add({ChildText(*child, "transaction"), ChildText(*child, "time"), ChildText(*child, "user"),
               ChildText(*child, "session"), ChildText(*child, "created"), ChildText(*child, "modified"),
               ChildText(*child, "deleted"), Changes(*child)});
  }
  return table.Text();
}

ExitStatus ShowCommits(const Target& target, Format format) {
  const Data answer = AskForData(target, kGet);
  if (answer.data == nullptr) return answer.status;
  if (format != Format::kTable) return PrintData(target, *answer.data, format);
  std::fputs(CommitsText(*answer.data).c_str(), stdout);
  return kDone;
}

}  // namespace cli
