#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dataplane/dataplane.h"
#include "frames/verdict_corpus.h"
#include "netns/netns.h"

/// A dataplane that is opened in namespaces of the test's own, and opened again as if its process had been replaced.
namespace mgr::test {

struct PlaneUnderTest {
  std::string name;
  netns::As as = netns::As::kRoot;  ///< kernel planes only
  common::Result<std::unique_ptr<Dataplane>> (*open)(const DataplaneOptions& options) = nullptr;
  bool real = true;  ///< filters packets, and outlives its process
};

/// Every plane that this build has; `real_only`: without the ones that filter nothing.
std::vector<PlaneUnderTest> Planes(bool real_only);
/// The forms of one plane, by the name of its kind; none where this build lacks it.
std::vector<PlaneUnderTest> PlanesOf(std::string_view kind);
inline void PrintTo(const PlaneUnderTest& plane, std::ostream* out) { *out << plane.name; }
inline std::string NameOf(const testing::TestParamInfo<PlaneUnderTest>& plane) { return plane.param.name; }

class RealPlane : public testing::TestWithParam<PlaneUnderTest> {
 protected:
  void SetUp() override;  ///< skips where the system does not allow the plane
  void TearDown() override;

  /// Replaces the plane by a new one on the same run directory; what TakeOver() gives, sorted.
  Snapshot Reopen(size_t capacity = kCapacity);
  /// Applies, and fails the test when anything is not in force.
  void MustApply(const Changes& changes);
  /// Frames counted so far per reason and whether they passed, for one port.
  using Counts = std::map<std::pair<std::string, bool>, uint64_t>;
  Counts CountsOf(PortId port);
  /// Waits until `total` frames of the port are counted, up to five seconds.
  Counts WaitForTotal(PortId port, uint64_t total);

  static constexpr size_t kCapacity = 24'576;
  DataplaneOptions options_;
  std::unique_ptr<Dataplane> plane_;
};

PortConfig MakePort(PortId id, const std::string& name, uint32_t ifindex, AllowAll mode = AllowAll::kNone);
Entry MakeEntry(PortId port, uint16_t vlan, uint32_t address_be, const MacAddress& mac = {});
/// The entries that the corpus is judged with, on `port`.
std::vector<Entry> CorpusEntriesOn(PortId port);

}  // namespace mgr::test
