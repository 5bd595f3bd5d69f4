#include "ctl.h"

#include <CLI/CLI.hpp>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/number_range.h"
#include "common/version.h"
#include "control_client.h"
#include "table_printer.h"

namespace mgr {

using nlohmann::json;

namespace {

const std::map<std::string, std::vector<Column>>& Tables() {
  static const std::vector<Column> kDrop = {{"port", "PORT"},   {"vlan", "VLAN"},     {"source", "SOURCE"},
                                            {"mac", "MAC"},     {"reason", "REASON"}, {"count", "FRAMES"},
                                            {"first", "FIRST"}, {"last", "LAST"}};
  static const std::map<std::string, std::vector<Column>> kTables = {
      {"ports",
       {{"port", "PORT"},
        {"ifindex", "IFINDEX"},
        {"enabled", "ENABLED"},
        {"mode", "ALLOW-ALL"},
        {"monitor", "MONITOR"},
        {"entries", "ENTRIES"},
        {"installed", "INSTALLED"},
        {"state", "STATE"},
        {"reason", "REASON"}}},
      {"entries",
       {{"port", "PORT"},
        {"vlan", "VLAN"},
        {"address", "ADDRESS"},
        {"mac", "MAC"},
        {"state", "STATE"},
        {"reason", "REASON"}}},
      {"counters", {{"port", "PORT"}, {"reason", "REASON"}, {"verdict", "VERDICT"}, {"frames", "FRAMES"}}},
      {"violators", kDrop},
  };
  return kTables;
}

constexpr int kWrongArguments = 2;
constexpr int kNotIntact = 3;

/// What an operator asks for.
struct Question {
  std::string table;  ///< of `show`; empty: the status, ports and entries
  std::string port;
  bool json_output = false;
};

class Tool final {
 public:
  Tool(Question question, std::ostream& out) : question_{std::move(question)}, out_{out} {}

  common::Status Show() {
    if (!question_.table.empty()) return ShowOne(question_.table);
    return question_.json_output ? ShowAllJson() : ShowAll();
  }

  common::Status WatchDrops() {
    return AskManager("watch drops", json::object(), [&](const json& part) {
      for (const json& row : part.value("rows", json::array())) {
        if (question_.json_output) {
          out_ << row.dump() << "\n";
        } else {
          out_ << row.value("last", "") << "  " << row.value("port", "") << "  vlan " << row.value("vlan", 0) << "  "
               << Text(row, "source") << "  " << Text(row, "mac") << "  " << row.value("reason", "") << "  x"
               << row.value("count", 1) << "\n";
        }
      }
      out_.flush();
    });
  }

  common::Status Explain(const json& arguments) {
    return AskManager("explain", arguments, [&](const json& part) {
      if (question_.json_output) {
        out_ << part.dump(2) << "\n";
        return;
      }
      out_ << part.value("verdict", "") << (part.value("monitor", false) ? " (monitor mode: passes)" : "")
           << ", reason " << part.value("reason", "") << "\n  row:    " << part.value("row", "")
           << "\n  source: " << Text(part, "source") << " vlan " << part.value("vlan", 0) << " mac "
           << Text(part, "mac") << "\n  entry:  " << Text(part, "entry") << "\n  plane:  " << Text(part, "dataplane")
           << "\n";
    });
  }

  common::Status WatchGuard() {
    return AskManager("watch guard", json::object(), [&](const json& part) {
      for (const json& row : part.value("rows", json::array())) PrintGuardEvent("", row);
      out_.flush();
    });
  }

  /// False when a status was asked for and says that the kernel does not enforce everything that it should.
  [[nodiscard]] bool Intact() const noexcept { return intact_; }

  common::Status Monitor(bool on) {
    return AskManager("monitor", {{"port", question_.port}, {"on", on}}, [](const json&) {});
  }

 private:
  common::Status AskStatus(json* status) {
    auto asked = AskManager("show status", json::object(), [&](const json& part) { *status = part; });
    if (asked) intact_ = status->value("guard", json::object()).value("intact", false);
    return asked;
  }

  void PrintGuardEvent(const char* indent, const json& row) {
    if (question_.json_output) {
      out_ << row.dump() << "\n";
      return;
    }
    out_ << indent << row.value("time", "") << "  " << row.value("what", "");
    if (row.contains("error") && row["error"].is_string()) out_ << ": " << row["error"].get<std::string>();
    out_ << "\n";
  }

  void PrintGuard(const json& guard) {
    out_ << (intact_ ? "Guard intact" : "GUARD NOT INTACT") << ", " << guard.value("repairs", 0)
         << " changes by others put back\n";
    for (const json& problem : guard.value("problems", json::array()))
      out_ << "  " << problem.get<std::string>() << "\n";
    for (const json& event : guard.value("events", json::array())) PrintGuardEvent("  ", event);
  }

  static std::string Text(const json& row, const char* member) {
    const auto it = row.find(member);
    return it != row.end() && it->is_string() ? it->get<std::string>() : "-";
  }

  common::Status Ask(const std::string& table, json* rows) const {
    *rows = json::array();
    json arguments = json::object();
    if (!question_.port.empty()) arguments["port"] = question_.port;
    return AskManager("show " + table, arguments, [&](const json& part) {
      for (const json& row : part.value("rows", json::array())) rows->push_back(row);
    });
  }

  common::Status ShowOne(const std::string& table) {
    if (table == "status") return ShowStatus();
    json rows;
    if (auto asked = Ask(table, &rows); !asked) return asked;
    if (question_.json_output) {
      out_ << rows.dump(2) << "\n";
    } else {
      PrintTable(out_, Tables().at(table), rows);
    }
    return common::Ok();
  }

  common::Status ShowStatus() {
    json status;
    if (auto asked = AskStatus(&status); !asked) return asked;
    if (question_.json_output) {
      out_ << status.dump(2) << "\n";
      return common::Ok();
    }
    out_ << "Dataplane " << status.value("dataplane", "") << ", " << status.value("entries-in-force", 0) << " of "
         << status.value("entries", 0) << " entries in force on " << status.value("ports", 0) << " ports, room for "
         << status.value("capacity", 0) << "\n";
    PrintGuard(status.value("guard", json::object()));
    for (const json& client : status.value("clients", json::array())) {
      out_ << "Client " << client.value("name", "") << " (process " << client.value("process", 0) << "), "
           << client.value("batches", 0) << " batches, " << client.value("requests", 0) << " requests\n";
    }
    if (status.value("clients", json::array()).empty()) out_ << "No client is connected\n";
    return common::Ok();
  }

  common::Status ShowAll() {
    if (auto shown = ShowStatus(); !shown) return shown;
    for (const char* table : {"ports", "entries"}) {
      out_ << "\n";
      if (auto shown = ShowOne(table); !shown) return shown;
    }
    return common::Ok();
  }

  common::Status ShowAllJson() {
    json all = json::object();
    if (auto asked = AskStatus(&all["status"]); !asked) return asked;
    for (const char* table : {"ports", "entries"}) {
      if (auto asked = Ask(table, &all[table]); !asked) return asked;
    }
    out_ << all.dump(2) << "\n";
    return common::Ok();
  }

  const Question question_;
  std::ostream& out_;
  bool intact_ = true;
};

}  // namespace

int RunCtl(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  Question question;
  std::string on_off;
  CLI::App app{"Shows and steers the ip-spoofing manager"};
  app.set_version_flag("--version", std::string{"ip-spoofing-ctl "} + common::Version());
  app.require_subcommand(1);
  app.fallthrough();  // --json may stand anywhere
  app.add_flag("--json", question.json_output, "Write JSON");

  CLI::App* show = app.add_subcommand("show", "What the manager holds: all, or one table");
  show->add_option("table", question.table, "status, ports, entries, counters or violators")
      ->check(CLI::IsMember({"status", "ports", "entries", "counters", "violators"}));
  show->add_option("--port", question.port, "Only this port");
  CLI::App* watch = app.add_subcommand("watch", "Follow events until interrupted");
  watch->require_subcommand(1);
  watch->add_subcommand("drops", "Frames that are dropped, as they come");
  const CLI::App* watch_guard =
      watch->add_subcommand("guard", "What others change of the filters, and what is done about it");
  CLI::App* monitor = app.add_subcommand("monitor", "Judge and count frames of a port, and drop none");
  monitor->add_option("port", question.port, "Interface name")->required();
  monitor->add_option("state", on_off, "on or off")->required()->check(CLI::IsMember({"on", "off"}));

  json explained = json::object();
  std::string frame, source, mac;
  int vlan = 0;
  CLI::App* explain = app.add_subcommand("explain", "What becomes of a frame on a port, and why");
  explain->add_option("--interface", question.port, "Interface name")->required();
  CLI::Option* whole = explain->add_option("--frame", frame, "The frame in hexadecimal, from the destination MAC on");
  explain->add_option("--source", source, "IPv4 source of a sample frame")->excludes(whole);
  explain->add_option("--vlan", vlan, "Its VLAN, 0 for untagged")->check(common::NumberFrom(0, 4095))->excludes(whole);
  explain->add_option("--mac", mac, "Its source MAC address")->excludes(whole);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error, out, err) == 0 ? 0 : kWrongArguments;
  }
  explained["port"] = question.port;
  if (!frame.empty()) {
    explained["frame"] = frame;
  } else {
    explained.update({{"source", source}, {"vlan", vlan}, {"mac", mac}});
  }
  Tool tool{question, out};
  const common::Status done = show->parsed()          ? tool.Show()
                              : watch_guard->parsed() ? tool.WatchGuard()
                              : watch->parsed()       ? tool.WatchDrops()
                              : explain->parsed()     ? tool.Explain(explained)
                                                      : tool.Monitor(on_off == "on");
  if (done) return tool.Intact() ? 0 : kNotIntact;
  err << "ip-spoofing-ctl: " << done.error().Text() << "\n";
  return 1;
}

}  // namespace mgr
