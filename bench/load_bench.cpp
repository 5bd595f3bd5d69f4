/// The daemon's full load: from the connection to the last request handed to the manager's client, against programs
/// that know nothing but LMDB (bare_load.h) and against the same reads made as round trips.
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>

#include "app/confd_mgr/confd_app_mgr.h"
#include "bare_load.h"
#include "common/config_reads.h"
#include "common/paths.h"
#include "harness.h"
#include "support/element/checks.h"

namespace ip_spoofing_mgr {

/// The manager's client of this benchmark: counts the requests and says that it is connected.
class IpSpoofingPreventionMgrClient::Impl {
 public:
  ConnectionStatus status{1, 1, 0};
  uint64_t requests = 0;
};

namespace {

bench::Handed handed_on;  // since it was cleared last

}  // namespace

IpSpoofingPreventionMgrClient::IpSpoofingPreventionMgrClient(qmmw_t* /*mw*/, CallbackItf* /*cb*/)
    : impl_{std::make_unique<Impl>()} {}
IpSpoofingPreventionMgrClient::~IpSpoofingPreventionMgrClient() = default;
int IpSpoofingPreventionMgrClient::SendIpSpoofing(const limid_t* /*limid*/, bool /*enable*/) {
  ++impl_->requests;
  return 0;
}
int IpSpoofingPreventionMgrClient::SendAllowedIpAll(const limid_t* /*limid*/, AllowedAllMode /*mode*/) {
  ++impl_->requests;
  return 0;
}
int IpSpoofingPreventionMgrClient::SendAddEntry(const AllowedIpEntry* entry, const uint8_t* /*mac*/) {
  ++impl_->requests;
  handed_on.Add(*entry);
  return 0;
}
int IpSpoofingPreventionMgrClient::SendRemoveEntry(const AllowedIpEntry* /*entry*/, const uint8_t* /*mac*/) {
  return -1;
}
int IpSpoofingPreventionMgrClient::SendUpdateEntry(const AllowedIpEntry* /*entry*/, const uint8_t* /*mac*/) {
  return -1;
}
int IpSpoofingPreventionMgrClient::RequestAllowedIpList() { return static_cast<int>(impl_->requests); }
int32_t IpSpoofingPreventionMgrClient::Connect() { return 0; }
void IpSpoofingPreventionMgrClient::Disconnect() {}
const ConnectionStatus* IpSpoofingPreventionMgrClient::GetConnectionStatus() { return &impl_->status; }

}  // namespace ip_spoofing_mgr

namespace bench {
namespace {

constexpr int kLoads = 7;

/// Times its own connection, then some more loads.
class TimedManager final : public ip_spoofing_app::ConfDAppMgr {
 public:
  TimedManager(qmmw_t* mw, ip_spoofing_mgr::IpSpoofingPreventionMgrClient* client)
      : ConfDAppMgr{mw, client, "ip-spoofing-app"} {}
  void AppConnect() override {
    connect = TimeOf([this] { ConfDAppMgr::AppConnect(); });
    ip_spoofing_mgr::handed_on = {};
    LoadConfDCfg(true);
    handed = ip_spoofing_mgr::handed_on;
    const uint64_t before = common::ProcessConfigReads().reads;
    load = MedianOf(kLoads, [this] { LoadConfDCfg(true); });
    reads = (common::ProcessConfigReads().reads - before) / (kLoads + 1);
    running = false;
  }
  double connect = 0;
  double load = 0;
  uint64_t reads = 0;
  Handed handed;  ///< by one load
  bool running = true;
};

struct Times {
  double walk = 0;
  double bare = 0;
  double bare_with_texts = 0;
  double connect = 0;
  double load = 0;
  double reads = 0;
  double requests = 0;
  Handed handed;
};

Times DaemonLoad() {
  Times times;
  qmmw_t* mw = qmmw_init("load-bench");
  {
    ip_spoofing_mgr::IpSpoofingPreventionMgrClient client{mw, nullptr};
    TimedManager manager{mw, &client};
    qmmw_loop_while(mw, &manager.running);
    times = {.connect = manager.connect,
             .load = manager.load,
             .reads = static_cast<double>(manager.reads),
             .requests = static_cast<double>(client.RequestAllowedIpList()) / (kLoads + 3),
             .handed = manager.handed};
  }
  qmmw_finish(&mw);
  return times;
}

/// What `measure` gives in a process of its own.
template <class Measure>
auto InAProcess(Measure measure) {
  decltype(measure()) result{};
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) std::exit(2);
  const pid_t child = ::fork();
  if (child == 0) {
    result = measure();
    ::_exit(::write(ends[1], &result, sizeof result) == sizeof result ? 0 : 2);
  }
  ::close(ends[1]);
  if (::read(ends[0], &result, sizeof result) != sizeof result) std::exit(2);
  ::close(ends[0]);
  ::waitpid(child, nullptr, 0);
  return result;
}

Times Measure(int entries) {
  test::Element element;
  ::setenv(common::kRunDirVariable, element.RunDir().c_str(), 1);
  ::setenv(common::kStateDirVariable, element.StateDir().c_str(), 1);
  element.Start(test::Part::kCdbd);
  test::CommitInPlace(element, Sources(entries, 64));
  const double walk = InAProcess([] { return BareWalk(kLoads); });
  const BareLoad bare = InAProcess([] { return BareLoadOfTheSameReads(kLoads); });
  const BareLoad with_texts = InAProcess([] { return BareLoadWithTexts(kLoads); });
  Times times = InAProcess(DaemonLoad);
  times.walk = walk;
  times.bare = bare.time;
  times.bare_with_texts = with_texts.time;
  if (bare.handed == times.handed && bare.handed.entries == static_cast<uint64_t>(entries)) return times;
  std::fprintf(stderr, "benchmark: the bare load hands on something else than the daemon\n");
  std::exit(2);
}

int Main() {
  constexpr int kSmall = 24576;
  constexpr int kLarge = 262144;
  Report report;
  EchoPeer peer;
  const double round_trip = peer.RoundTrip(64);
  report.Heading("Full load of the daemon");
  const Times small = Measure(kSmall);
  report.Figure("24,576 entries, 64 interfaces: load", small.load / 1000, "ms");
  report.Figure("  with the connection's registration and subscriptions, first time", small.connect / 1000, "ms");
  report.Figure("  requests", small.requests, "");
  report.Figure("  reads", small.reads, "");
  report.Figure("  bare: a cursor over the rows, nothing decoded", small.walk / 1000, "ms");
  report.Figure("  bare: the same reads into the same entries, without paths", small.bare / 1000, "ms");
  report.Figure("    bare: the same, and the texts that the daemon writes of each source", small.bare_with_texts / 1000,
                "ms");
  report.Figure("  one round trip over a Unix socket", round_trip, "us");
  report.Figure("load against the bare cursor", small.load / small.walk, "times");
  report.Figure("  those texts alone, against the same reads made bare",
                (small.bare_with_texts - small.bare) / small.bare, "times");
  report.AtMost("load against the same reads made bare", small.load, small.bare, 5);
  report.AtLeast("round trips for the same reads against the load", small.reads * round_trip, small.load, 20);
  const Times large = Measure(kLarge);
  report.Figure("262,144 entries, 64 interfaces: load", large.load / 1000, "ms");
  report.Figure("  bare: the same reads into the same entries, without paths", large.bare / 1000, "ms");
  report.AtMost("time per entry, 262,144 against 24,576", large.load / kLarge, small.load / kSmall, 1.5);
  return report.ExitStatus();
}

}  // namespace
}  // namespace bench

int main() { return bench::Main(); }
