#include "checks.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <iterator>
#include <vector>

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

}  // namespace

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
