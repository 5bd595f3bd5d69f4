#include "show_subscribers.h"

#include <cstdio>

#include "text_table.h"

namespace cli {
namespace {

constexpr const char* kGet =
    "<get><filter type=\"subtree\"><database xmlns=\"urn:ip-spoofing:cdb-monitor\"><transactions/><subscriber/>"
    "</database></filter></get>";

std::string Summary(const netconf::XmlElement& transactions) {
  std::string text = "Last commit: " + ChildText(transactions, "last");
  if (const std::string number = ChildText(transactions, "delivering"); !number.empty()) {
    text += "; subscribers are being told of " + number + " since " + ChildText(transactions, "delivering-since");
  }
  if (const std::string waiting = ChildText(transactions, "waiting"); !waiting.empty() && waiting != "0") {
    text += "; edits waiting: " + waiting;
  }
  return text + "\n";
}

std::string Subscriptions(const netconf::XmlElement& subscriber) {
  std::string text;
  for (const netconf::XmlElement* child = subscriber.first_child; child != nullptr; child = child->next) {
    if (child->name->local != "subscription") continue;
    text += (text.empty() ? "" : ", ") + ChildText(*child, "path");
  }
  return text;
}

}  // namespace

std::string SubscribersText(const netconf::XmlElement& data) {
  const netconf::XmlElement* database = Descend(data, {"database"});
  if (database == nullptr) return "The element says nothing of its database\n";
  std::string text;
  if (const netconf::XmlElement* transactions = Descend(*database, {"transactions"}); transactions != nullptr) {
    text = Summary(*transactions);
  }
  TextTable table{{"PROGRAM", "PROCESS", "STATE", "SINCE", "LAST COMMIT", "TOLD OF"},
                  [&text](std::string_view lines) { text += lines; }};
  for (const netconf::XmlElement* child = database->first_child; child != nullptr; child = child->next) {
    if (child->name->local != "subscriber") continue;
    table.Add({ChildText(*child, "name"), ChildText(*child, "process"), ChildText(*child, "state"),
               ChildText(*child, "since"), ChildText(*child, "last-transaction"), Subscriptions(*child)});
  }
  table.End();
  return text;
}

ExitStatus ShowSubscribers(const Target& target, Format format) {
  if (format != Format::kTable) return Show(target, kGet, format, nullptr);
  const Data answer = AskForData(target, kGet);
  if (answer.data == nullptr) return answer.status;
  std::fputs(SubscribersText(*answer.data).c_str(), stdout);
  return kDone;
}

}  // namespace cli
