/// One commit: what it costs with more and more in the database, alone and through the whole element, against a bare
/// durable transaction of the same records. Memory. A bulk commit and its rollback.
#include <spdlog/spdlog.h>
#include <sys/epoll.h>

#include <array>
#include <cstdio>
#include <cstdlib>

#include "common/paths.h"
#include "harness.h"
#include "in_process_manager.h"
#include "netconf/client.h"
#include "netconf/xml.h"
#include "support/element/checks.h"
#include "support/netconf_client.h"

namespace bench {
namespace {

constexpr std::array kSizes{0, 1000, 24576, 262144};
constexpr int kCommits = 200;
constexpr int kPorts = 64;
constexpr std::chrono::milliseconds kLimit{60000};

/// An edit of one source that nothing else uses.
std::string OneSource(int number, const char* operation) {
  const test::Source source{0xac100000U + static_cast<uint32_t>(number), 0};
  return test::InContainers("<interface><interface-name>sp" + std::to_string(number % kPorts) +
                            "</interface-name><allowed-ip>" + test::ToXml(source, "", operation) +
                            "</allowed-ip></interface>");
}
std::string EditConfig(const std::string& config) {
  return "<edit-config><target><running/></target><config>" + config + "</config></edit-config>";
}

netconf::Client Connect(const test::Element& element) {
  auto client = netconf::Client::Connect(element.NetconfSocket(), kLimit);
  if (!client.ok()) std::exit(2);
  return std::move(client).value();
}

void Rpc(netconf::Client& client, const std::string& operation) {
  const auto reply = client.Rpc(operation, kLimit);
  if (reply.ok() && test::IsOk(reply.value())) return;
  std::fprintf(stderr, "benchmark: refused: %s\n", reply.ok() ? reply.value().c_str() : reply.error().Text().c_str());
  std::exit(2);
}

std::string Label(int size) { return std::to_string(size) + " entries present: "; }

/// Commits of one entry with nobody subscribed.
void Alone(Report& report) {
  report.Heading("One-entry edit-config on running, nobody subscribed");
  test::Element element;
  element.Start(test::Part::kCdbd);
  std::vector<double> ratios;
  double memory_empty = 0;
  for (const int size : kSizes) {
    test::CommitInPlace(element, Sources(size, kPorts));
    netconf::Client client = Connect(element);
    const pid_t cdbd = element.Process(test::Part::kCdbd)->pid();
    const double processor_before = ProcessorTime(cdbd);
    BareStore bare{element.File("bare" + std::to_string(size)), size};
    std::vector<double> commits;
    std::vector<double> bares;
    for (int i = 0; i < kCommits; ++i) {
      commits.push_back(TimeOf([&] { Rpc(client, EditConfig(OneSource(i, "create"))); }));
      bares.push_back(TimeOf([&] { bare.Commit(); }));
    }
    ratios.push_back(Median(commits) / Median(bares));
    report.Figure(Label(size) + "median", Median(commits), "us");
    report.Figure(Label(size) + "processor time of cdbd", (ProcessorTime(cdbd) - processor_before) / kCommits, "us");
    report.Figure(Label(size) + "bare durable transaction", Median(bares), "us");
    report.AtMost(Label(size) + "against the bare transaction", Median(commits), Median(bares), 2);
    const double memory = ResidentKilobytes(cdbd);
    if (size == 0) memory_empty = memory;
    if (size > 1000) report.AtMost(Label(size) + "memory of cdbd, kB an entry", memory - memory_empty, size, 1);
  }
  // The disk is faster in one second than in the next: each size is held against what the bare transaction took then.
  report.AtMost("with 262,144 entries against none, by the bare transaction", ratios.back(), ratios.front(), 1.25);
}

/// The whole element, the manager on this process's loop.
class Whole final {
 public:
  Whole() {
    ::setenv(common::kRunDirVariable, element.RunDir().c_str(), 1);
    ::setenv(common::kStateDirVariable, element.StateDir().c_str(), 1);
    manager_ = std::make_unique<InProcessManager>(*loop_);
    element.Start(test::Part::kCdbd);
    if (!element.WaitForSocket(test::Part::kCdbd)) std::exit(2);
  }

  /// Pumps the loop until `condition`.
  template <class Condition>
  void Until(Condition condition) {
    const auto deadline = Clock::now() + kLimit;
    while (!condition()) {
      if (loop_->RunOnce(std::chrono::milliseconds{100}) != 0 || Clock::now() > deadline) {
        std::fprintf(stderr, "benchmark: no progress within a minute\n");
        std::exit(2);
      }
    }
  }

  struct Times {
    double reply = 0;
    double in_force = 0;
  };
  /// Commits `config`, after which `entries` are in force.
  Times Commit(netconf::Client& client, const std::string& config, size_t entries) {
    Times times;
    bool replied = false;
    std::string reply;
    const std::string message =
        "<rpc message-id=\"1\" xmlns=\"" + std::string{netconf::kBaseNs} + "\">" + EditConfig(config) + "</rpc>";
    const Clock::time_point start = Clock::now();
    const auto since = [&] { return std::chrono::duration<double, std::micro>(Clock::now() - start).count(); };
    if (!client.Send(message, kLimit).ok()) std::exit(2);
    const common::FdWatch watch = loop_->Watch(client.fd(), EPOLLIN, [&](uint32_t) {
      reply = std::move(client.Receive(kLimit)).value();
      times.reply = since();
      replied = true;
    });
    Until([&] {
      if (times.in_force == 0 && manager_->EntriesInForce() == entries) times.in_force = since();
      return replied && times.in_force != 0;
    });
    if (!test::IsOk(reply)) std::exit(2);
    return times;
  }
  [[nodiscard]] size_t EntriesInForce() const { return manager_->EntriesInForce(); }
  [[nodiscard]] pid_t Daemon() const { return element.Process(test::Part::kDaemon)->pid(); }

  test::Element element;

 private:
  std::unique_ptr<common::EventLoop> loop_ = common::EventLoop::Create(false);
  std::unique_ptr<InProcessManager> manager_;
};

struct Figures {
  double reply = 0;
  double in_force = 0;
};

Figures CommitsOf(Whole& whole, Report& report, int size, double round_trip) {
  netconf::Client client = Connect(whole.element);
  BareStore bare{whole.element.File("bare" + std::to_string(size)), size};
  std::vector<double> replies;
  std::vector<double> in_force;
  std::vector<double> bares;
  const size_t present = whole.EntriesInForce();
  for (int i = 0; i < kCommits; ++i) {
    const Whole::Times times = whole.Commit(client, OneSource(i, "create"), present + static_cast<size_t>(i) + 1);
    replies.push_back(times.reply);
    in_force.push_back(times.in_force);
    bares.push_back(TimeOf([&] { bare.Commit(); }));
  }
  const double base = Median(bares) + 3 * round_trip;
  const Figures figures{Median(replies), Median(in_force)};
  report.Figure(Label(size) + "to the reply", figures.reply, "us");
  report.Figure(Label(size) + "to being in force", figures.in_force, "us");
  report.Figure(Label(size) + "bare transaction and three round trips", base, "us");
  report.AtMost(Label(size) + "to the reply, against that", figures.reply, base, 3);
  report.AtMost(Label(size) + "to being in force, against that", figures.in_force, base, 3);
  return figures;
}

/// A commit of 10,000 sources on one port, and its rollback by one delete.
void Bulk(Whole& whole, Report& report) {
  constexpr int kEntries = 10000;
  report.Heading("10,000 entries in one commit, and their removal by one delete");
  test::Configuration bulk;
  for (int i = 0; i < kEntries; ++i) bulk["bulk"].sources[{0xac200000U + static_cast<uint32_t>(i), 0}] = "";
  netconf::Client client = Connect(whole.element);
  const size_t present = whole.EntriesInForce();
  const std::string create = test::InContainers(test::ToXml("bulk", bulk["bulk"]));
  const std::string remove = test::InContainers(test::ToXml("bulk", {}, "delete"));
  std::vector<double> created;
  std::vector<double> removed;
  for (int i = 0; i < 5; ++i) {
    double before = ProcessorTime(whole.Daemon());
    whole.Commit(client, create, present + kEntries);
    created.push_back(ProcessorTime(whole.Daemon()) - before);
    before = ProcessorTime(whole.Daemon());
    whole.Commit(client, remove, present);
    removed.push_back(ProcessorTime(whole.Daemon()) - before);
  }
  report.AtMost("processor time of the daemon, us an entry created", Median(created), kEntries, 10);
  report.AtMost("processor time of the daemon, us an entry removed", Median(removed), kEntries, 10);
}

void WithTheElement(Report& report) {
  report.Heading("One-entry edit-config through the whole element, memory dataplane");
  EchoPeer peer;
  const double round_trip = peer.RoundTrip(64);
  report.Figure("one round trip over a Unix socket", round_trip, "us");
  Whole whole;
  std::vector<Figures> figures;
  double memory_empty = 0;
  for (const int size : kSizes) {
    test::CommitInPlace(whole.element, Sources(size, kPorts));
    // A new daemon replaces what the manager holds.
    whole.element.Kill(test::Part::kDaemon);
    whole.element.Start(test::Part::kDaemon);
    whole.Until([&] { return whole.EntriesInForce() == static_cast<size_t>(size); });
    netconf::Client client = Connect(whole.element);
    whole.Commit(client, OneSource(kCommits, "create"), static_cast<size_t>(size) + 1);
    figures.push_back(CommitsOf(whole, report, size, round_trip));
    const double memory = ResidentKilobytes(whole.Daemon());
    if (size == 0) memory_empty = memory;
    if (size > 1000) {
      report.AtMost(Label(size) + "memory of the daemon, kB an entry", memory - memory_empty, size, 0.1);
    }
    if (size == 24576) Bulk(whole, report);
  }
  report.AtMost("to the reply, with 262,144 entries against 1,000", figures[3].reply, figures[1].reply, 1.5);
  report.AtMost("to being in force, with 262,144 entries against 1,000", figures[3].in_force, figures[1].in_force, 1.5);
}

}  // namespace
}  // namespace bench

int main() {
  spdlog::set_level(spdlog::level::off);
  bench::Report report;
  bench::Alone(report);
  bench::WithTheElement(report);
  return report.ExitStatus();
}
