/// Reading the status list over NETCONF against bare round trips over the same kind of socket.
#include <cstdio>
#include <cstdlib>

#include "harness.h"
#include "netconf/client.h"
#include "support/element/checks.h"

namespace bench {
namespace {

constexpr int kRows = 24576;
constexpr std::chrono::milliseconds kLimit{120000};
constexpr const char* kGet =
    "<get><filter type=\"subtree\"><state xmlns=\"urn:ip-spoofing:anti-ip-spoofing\"><anti-ip-spoofing><allowed-ip/>"
    "</anti-ip-spoofing></state></filter></get>";

size_t RowsIn(const std::string& reply) {
  size_t rows = 0;
  for (size_t at = reply.find("<allowed-ip>"); at != std::string::npos; at = reply.find("<allowed-ip>", at + 1)) ++rows;
  return rows;
}

int Main() {
  Report report;
  report.Heading("Status list of 24,576 rows over NETCONF");
  const test::Configuration configuration = Sources(kRows, 64);
  test::Element element;
  element.Start(test::Part::kCdbd);
  test::CommitInPlace(element, configuration);
  element.StartAll();
  test::ExpectManagerHolds(element, configuration);
  auto client = netconf::Client::Connect(element.NetconfSocket(), kLimit);
  if (!client.ok()) return 2;
  EchoPeer peer;
  std::vector<double> readings;
  std::vector<double> round_trips;
  for (int i = 0; i < 5; ++i) {
    round_trips.push_back(peer.RoundTrip(128));
    size_t rows = 0;
    readings.push_back(TimeOf([&] {
      const auto reply = client.value().Rpc(kGet, kLimit);
      rows = reply.ok() ? RowsIn(reply.value()) : 0;
    }));
    if (rows != kRows) {
      std::fprintf(stderr, "benchmark: %zu rows instead of %d\n", rows, kRows);
      return 2;
    }
  }
  const double row = Median(readings) / kRows;
  report.Figure("one reading", Median(readings) / 1000, "ms");
  report.Figure("rows a second", 1e6 / row, "");
  report.Figure("bare round trips a second", 1e6 / Median(round_trips), "");
  report.AtMost("time of a row against one round trip", row, Median(round_trips), 1.3);
  return report.ExitStatus();
}

}  // namespace
}  // namespace bench

int main() { return bench::Main(); }
