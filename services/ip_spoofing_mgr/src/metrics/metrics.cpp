#include "metrics/metrics.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "common/version.h"
#include "control/status.h"
#include "dataplane/verdict_text.h"

namespace mgr {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Families = std::vector<MetricFamily>;
using Labels = std::vector<ClientMetric::Label>;

MetricFamily& Add(Families* families, MetricType type, const char* name, const char* help) {
  return families->emplace_back(MetricFamily{.name = name, .help = help, .type = type, .metric = {}});
}

void AddValue(MetricFamily* family, Labels labels, double value) {
  ClientMetric& metric = family->metric.emplace_back();
  metric.label = std::move(labels);
  (family->type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
}

template <class Number>
void AddGauge(Families* families, const char* name, const char* help, Number value) {
  AddValue(&Add(families, MetricType::Gauge, name, help), {}, static_cast<double>(value));
}

bool PassesByItsReason(std::string_view name) {
  for (int reason = 0; reason < VERDICT_REASONS; ++reason) {
    if (ReasonName(static_cast<verdict_reason>(reason)) == name) return Passes(static_cast<verdict_reason>(reason));
  }
  return false;
}

std::string_view VerdictText(const PortCounter& counter) {
  if (!counter.passed) return "drop";
  return PassesByItsReason(counter.reason) ? "pass" : "would-drop";
}

void AddFrames(Families* families, const MetricsSources& sources) {
  const auto counters = sources.dataplane.Counters();
  if (!counters) return spdlog::warn("metrics without frames: {}", counters.error().Text());
  std::vector<std::tuple<std::string_view, std::string_view, std::string_view, uint64_t>> rows;
  for (const PortCounter& counter : counters.value()) {
    const Port* port = sources.table.Find(counter.port);
    if (port != nullptr) rows.emplace_back(port->name, VerdictText(counter), counter.reason, counter.frames);
  }
  std::sort(rows.begin(), rows.end());
  MetricFamily& family =
      Add(families, MetricType::Counter, "ip_spoofing_frames_total", "Frames judged, by port, verdict and reason");
  for (const auto& [port, verdict, reason, frames] : rows) {
    AddValue(&family, {{"port", std::string{port}}, {"verdict", std::string{verdict}}, {"reason", std::string{reason}}},
             static_cast<double>(frames));
  }
}

void AddEntries(Families* families, const MetricsSources& sources) {
  const EntryTally tally = TallyEntries(sources.table);
  AddGauge(families, "ip_spoofing_entries", "Entries that are wanted", tally.wanted);
  AddGauge(families, "ip_spoofing_entries_in_force", "Entries that are wanted and in force", tally.InForce());
  MetricFamily& family = Add(families, MetricType::Gauge, "ip_spoofing_entries_not_in_force",
                             "Entries that are wanted and not in force, by reason");
  for (size_t i = 1; i < kHindrances; ++i) {
    const auto hindrance = static_cast<Hindrance>(i);
    AddValue(&family, {{"reason", std::string{NameOf(hindrance)}}}, static_cast<double>(tally.Of(hindrance)));
  }
  AddGauge(families, "ip_spoofing_entries_installed", "Entries that the dataplane holds",
           sources.engine.InstalledEntries());
  AddGauge(families, "ip_spoofing_entries_capacity", "Entries that the dataplane can hold",
           sources.dataplane.Capacity());
}

void AddPorts(Families* families, const Table& table) {
  const auto count = [&table](auto matches) {
    return std::count_if(table.ports().begin(), table.ports().end(),
                         [&matches](const auto& item) { return matches(item.second); });
  };
  AddGauge(families, "ip_spoofing_ports", "Ports that are known", table.ports().size());
  AddGauge(families, "ip_spoofing_ports_enabled", "Ports that are wanted enabled",
           count([](const Port& port) { return port.wanted_enabled; }));
  AddGauge(families, "ip_spoofing_ports_present", "Ports whose interface is there",
           count([](const Port& port) { return port.ifindex != 0; }));
  AddGauge(families, "ip_spoofing_ports_filtering", "Ports that filter as they are wanted to",
           count([](const Port& port) { return HindranceOf(port) == Hindrance::kNone; }));
  AddGauge(families, "ip_spoofing_ports_monitored", "Ports in monitor mode, which drop nothing",
           count([](const Port& port) { return port.monitor; }));
}

void AddGuard(Families* families, const Guard& guard) {
  AddGauge(families, "ip_spoofing_guard_intact",
           "1 when the kernel was found to enforce everything that it was told to at the last comparison",
           guard.Intact() ? 1 : 0);
  AddGauge(families, "ip_spoofing_ports_unguarded", "Enabled ports whose frames are not judged as they should be",
           guard.UnguardedPorts());
  AddValue(&Add(families, MetricType::Counter, "ip_spoofing_guard_checks_total",
                "Complete comparisons of the kernel's state with the desired one"),
           {}, static_cast<double>(guard.checks()));
  AddValue(&Add(families, MetricType::Counter, "ip_spoofing_guard_repairs_total",
                "Changes by other programs that were put back"),
           {}, static_cast<double>(guard.repairs()));
}

}  // namespace

void BatchMeter::Record(bool full, size_t requests, std::chrono::nanoseconds took) {
  Kind& kind = full ? full_ : change_;
  ++kind.batches;
  kind.requests += requests;
  seconds_.Observe(std::chrono::duration<double>{took}.count());
}

void BatchMeter::AddTo(Families* families) const {
  const auto add = [&](const char* name, const char* help, uint64_t Kind::*member) {
    MetricFamily& family = Add(families, MetricType::Counter, name, help);
    AddValue(&family, {{"kind", "change"}}, static_cast<double>(change_.*member));
    AddValue(&family, {{"kind", "full"}}, static_cast<double>(full_.*member));
  };
  add("ip_spoofing_batches_total", "Batches applied; full ones replace the whole configuration", &Kind::batches);
  add("ip_spoofing_batch_requests_total", "Requests in them", &Kind::requests);
  Add(families, MetricType::Histogram, "ip_spoofing_batch_duration_seconds",
      "Time from the last byte of a batch until the dataplane had what it adds")
      .metric.push_back(seconds_.Collect());
}

std::vector<MetricFamily> MetricFamilies(const MetricsSources& sources) {
  Families families;
  AddValue(
      &Add(&families, MetricType::Gauge, "ip_spoofing_build_info", "The manager's version and dataplane; always 1"),
      {{"version", common::Version()}, {"dataplane", std::string{sources.dataplane.Name()}}}, 1);
  AddFrames(&families, sources);
  AddEntries(&families, sources);
  AddPorts(&families, sources.table);
  AddGuard(&families, sources.guard);
  sources.batches.AddTo(&families);
  AddGauge(&families, "ip_spoofing_client_connected", "1 when a client that configures is connected",
           sources.clients.HasConfiguring() ? 1 : 0);
  const Commands::DropEvents& events = sources.commands.drop_events();
  AddValue(&Add(&families, MetricType::Counter, "ip_spoofing_drop_events_total", "Events about dropped frames"), {},
           static_cast<double>(events.read));
  AddValue(&Add(&families, MetricType::Counter, "ip_spoofing_drop_events_lost_total",
                "Dropped frames without an event of their own, held back by the rate limit or for want of room"),
           {}, static_cast<double>(events.lost));
  return families;
}

}  // namespace mgr
