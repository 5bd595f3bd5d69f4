#include "control/commands.h"

#include <sys/epoll.h>

#include <algorithm>
#include <tuple>

#include "control/explain.h"
#include "control/status.h"
#include "control/text.h"

namespace mgr {

using nlohmann::json;

namespace {

/// Sends rows in parts.
class Rows final {
 public:
  explicit Rows(std::shared_ptr<ControlServer::Reply> reply) : reply_{std::move(reply)} {}
  void Add(json row) {
    rows_.push_back(std::move(row));
    if (rows_.size() >= kControlRowsPerPart) Flush();
  }
  void End() {
    Flush();
    reply_->End();
  }

 private:
  void Flush() {
    if (!rows_.empty()) reply_->Part({{"rows", std::exchange(rows_, json::array())}});
  }
  const std::shared_ptr<ControlServer::Reply> reply_;
  json rows_ = json::array();
};

std::string PortArgument(const json& arguments) {
  const auto port = arguments.find("port");
  return port != arguments.end() && port->is_string() ? port->get<std::string>() : "";
}

bool Selected(const std::string& wanted, const std::string& name) { return wanted.empty() || wanted == name; }

json OrNull(const std::string& text) { return text.empty() ? json{} : json(text); }  // braces would make an array

json EventJson(const Guard::Event& event) {
  return {{"time", TimeText(event.time)}, {"what", event.what}, {"error", OrNull(event.error)}};
}

}  // namespace

Commands::Commands(const CommandContext& context, ControlServer& server) : context_{context} {
  server.Register("show status", [this](const json&, const Reply& reply) {
    context_.guard.Check([this, reply] { ShowStatus(reply); });
  });
  server.Register("show ports", [this](const json& arguments, const Reply& reply) { ShowPorts(arguments, reply); });
  server.Register("show entries", [this](const json& arguments, const Reply& reply) { ShowEntries(arguments, reply); });
  server.Register("show counters",
                  [this](const json& arguments, const Reply& reply) { ShowCounters(arguments, reply); });
  server.Register("show violators",
                  [this](const json& arguments, const Reply& reply) { ShowViolators(arguments, reply); });
  server.Register("watch drops", [this](const json&, const Reply& reply) { WatchDrops(reply); });
  server.Register("watch guard", [this](const json&, const Reply& reply) { guard_watchers_.push_back(reply); });
  server.Register("monitor", [this](const json& arguments, const Reply& reply) { Monitor(arguments, reply); });
  server.Register("explain", [this](const json& arguments, const Reply& reply) { ShowExplanation(arguments, reply); });
  context_.guard.OnEvent([this](const Guard::Event& event) { OnGuardEvent(event); });
  if (const int fd = context_.dataplane.DropEventFd(); fd >= 0) {
    drops_ = context_.loop.Watch(fd, EPOLLIN, [this](uint32_t) { OnDrops(); });
  }
}

Commands::~Commands() { context_.guard.OnEvent({}); }

void Commands::ShowStatus(const Reply& reply) const {
  json clients = json::array();
  for (const auto& client : context_.clients.Clients()) {
    clients.push_back({{"name", client.name},
                       {"process", client.pid},
                       {"configures", client.configures},
                       {"batches", client.batches},
                       {"requests", client.requests}});
  }
  const EntryTally tally = TallyEntries(context_.table);
  reply->Part({{"dataplane", context_.dataplane.Name()},
               {"capacity", context_.dataplane.Capacity()},
               {"ports", context_.table.ports().size()},
               {"entries", tally.wanted},
               {"entries-in-force", tally.InForce()},
               {"entries-installed", context_.engine.InstalledEntries()},
               {"entries-beyond-capacity", context_.engine.WaitingEntries()},
               {"guard", GuardJson()},
               {"clients", clients}});
  reply->End();
}

json Commands::GuardJson() const {
  const Guard& guard = context_.guard;
  json events = json::array();
  for (const Guard::Event& event : guard.last_events()) events.push_back(EventJson(event));
  return {{"intact", guard.Intact()}, {"problems", guard.Problems()}, {"ports-unguarded", guard.UnguardedPorts()},
          {"checks", guard.checks()}, {"repairs", guard.repairs()},   {"events", events}};
}

void Commands::OnGuardEvent(const Guard::Event& event) {
  std::erase_if(guard_watchers_, [](const Reply& reply) { return !reply->Wanted(); });
  for (const Reply& reply : guard_watchers_) reply->Part({{"rows", json::array({EventJson(event)})}});
}

void Commands::ShowPorts(const json& arguments, const Reply& reply) const {
  const std::string wanted = PortArgument(arguments);
  std::vector<const Port*> ports;
  for (const auto& [id, port] : context_.table.ports()) {
    if (Selected(wanted, port.name)) ports.push_back(&port);
  }
  std::sort(ports.begin(), ports.end(), [](const Port* a, const Port* b) { return a->name < b->name; });
  Rows rows{reply};
  for (const Port* port : ports) {
    const std::string reason = ReasonOf(*port);
    rows.Add({{"port", port->name},
              {"ifindex", port->ifindex},
              {"enabled", port->wanted_enabled},
              {"mode", ModeText(port->wanted_mode)},
              {"monitor", port->monitor},
              {"entries", port->wanted_entries},
              {"installed", port->installed_entries},
              {"state", reason.empty() ? 1 : 0},
              {"reason", OrNull(reason)}});
  }
  rows.End();
}

void Commands::ShowEntries(const json& arguments, const Reply& reply) const {
  const std::string wanted = PortArgument(arguments);
  using Sortable = std::tuple<std::string_view, uint16_t, uint32_t, const EntryKey*, const EntryRow*>;
  std::vector<Sortable> entries;
  for (const auto& [key, row] : context_.table.entries()) {
    const std::string& name = context_.table.Find(key.port)->name;
    if (row.wanted && Selected(wanted, name)) {
      entries.emplace_back(name, key.vlan, __builtin_bswap32(key.address_be), &key, &row);
    }
  }
  std::sort(entries.begin(), entries.end());
  Rows rows{reply};
  const auto add = [&](std::string_view port, uint16_t vlan, const std::string& address, const MacAddress& mac,
                       const std::string& reason) {
    rows.Add({{"port", port},
              {"vlan", vlan},
              {"address", address},
              {"mac", mac == MacAddress{} ? json{} : json(MacText(mac))},
              {"state", reason.empty() ? 1 : 0},
              {"reason", OrNull(reason)}});
  };
  for (const auto& [name, vlan, address, key, row] : entries) {
    add(name, vlan, AddressText(key->address_be), row->wanted_mac,
        ReasonOf(context_.table, context_.engine, *key, *row));
  }
  for (const auto& [key, row] : context_.table.odd_entries()) {
    const std::string& name = context_.table.Find(key.port)->name;
    if (!Selected(wanted, name)) continue;
    uint32_t ipv4 = 0;
    std::memcpy(&ipv4, key.address.data(), sizeof ipv4);
    add(name, key.vlan, key.ipv6 ? Ipv6Text(key.address) : AddressText(ipv4), row.mac, ReasonOf(context_.table, key));
  }
  rows.End();
}

void Commands::ShowCounters(const json& arguments, const Reply& reply) const {
  const auto counters = context_.dataplane.Counters();
  if (!counters) return reply->Fail(counters.error().Text());
  const std::string wanted = PortArgument(arguments);
  Rows rows{reply};
  for (const PortCounter& counter : counters.value()) {
    const std::string name = NameOf(counter.port);
    if (!Selected(wanted, name)) continue;
    rows.Add({{"port", name},
              {"reason", counter.reason},
              {"verdict", counter.passed ? "pass" : "drop"},
              {"frames", counter.frames}});
  }
  rows.End();
}

void Commands::ShowViolators(const json& arguments, const Reply& reply) const {
  const auto violators = context_.dataplane.Violators();
  if (!violators) return reply->Fail(violators.error().Text());
  const std::string wanted = PortArgument(arguments);
  Rows rows{reply};
  for (const Drop& drop : violators.value()) {
    if (Selected(wanted, NameOf(drop.port))) rows.Add(DropJson(drop));
  }
  rows.End();
}

void Commands::Monitor(const json& arguments, const Reply& reply) const {
  const auto on = arguments.find("on");
  if (on == arguments.end() || !on->is_boolean()) return reply->Fail("on or off?");
  const std::string port = PortArgument(arguments);
  if (!context_.engine.SetMonitor(port, on->get<bool>(), Engine::Clock::now())) {
    return reply->Fail("port " + port + " is not configured");
  }
  reply->End();
}

void Commands::ShowExplanation(const json& arguments, const Reply& reply) const {
  auto explanation = ExplainCommand(context_.table, context_.dataplane, arguments);
  if (!explanation) return reply->Fail(explanation.error().Text());
  reply->Part(explanation.value());
  reply->End();
}

void Commands::WatchDrops(const Reply& reply) {
  if (context_.dataplane.DropEventFd() < 0) {
    return reply->Fail("the " + std::string{context_.dataplane.Name()} + " dataplane reports no drops");
  }
  watchers_.push_back(reply);
}

void Commands::OnDrops() {
  const std::vector<Drop> drops = context_.dataplane.ReadDropEvents();
  for (const Drop& drop : drops) {
    ++drop_events_.read;
    drop_events_.lost += drop.count - 1;
  }
  std::erase_if(watchers_, [](const Reply& reply) { return !reply->Wanted(); });
  if (watchers_.empty() || drops.empty()) return;
  json rows = json::array();
  for (const Drop& drop : drops) rows.push_back(DropJson(drop));
  for (const Reply& reply : watchers_) reply->Part({{"rows", rows}});
}

std::string Commands::NameOf(PortId id) const {
  const Port* port = context_.table.Find(id);
  return port != nullptr ? port->name : "";
}

json Commands::DropJson(const Drop& drop) const {
  return {{"port", NameOf(drop.port)},   {"vlan", drop.vlan},
          {"ethertype", drop.ethertype}, {"source", drop.source_be ? json(AddressText(*drop.source_be)) : json{}},
          {"mac", MacText(drop.mac)},    {"reason", drop.reason},
          {"count", drop.count},         {"first", TimeText(drop.first)},
          {"last", TimeText(drop.last)}};
}

}  // namespace mgr
