#include "real_plane.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "dataplane/dataplanes.h"

namespace mgr::test {
namespace {

void Sort(Snapshot& snapshot) {
  std::sort(snapshot.ports.begin(), snapshot.ports.end(),
            [](const PortConfig& a, const PortConfig& b) { return a.id < b.id; });
  std::sort(snapshot.entries.begin(), snapshot.entries.end(),
            [](const Entry& a, const Entry& b) { return a.key < b.key; });
}

}  // namespace

std::vector<PlaneUnderTest> Planes(bool real_only) {
  std::vector<PlaneUnderTest> planes;
  for (const DataplaneKind& kind : DataplaneKinds()) {
    if (kind.name == "memory" && real_only) continue;
    const std::vector<PlaneUnderTest> forms = PlanesOf(kind.name);
    planes.insert(planes.end(), forms.begin(), forms.end());
  }
  return planes;
}

std::vector<PlaneUnderTest> PlanesOf(std::string_view wanted) {
  std::vector<PlaneUnderTest> planes;
  for (const DataplaneKind& kind : DataplaneKinds()) {
    if (kind.name != wanted) continue;
    std::string name{kind.name};
    name[0] = static_cast<char>(std::toupper(name[0]));
    planes.push_back({name, netns::As::kRoot, kind.open, kind.name != "memory"});
    if (kind.name == "nft") planes.push_back({name + "Unprivileged", netns::As::kUnprivileged, kind.open, true});
  }
  return planes;
}

void RealPlane::SetUp() {
  if (const auto reason = netns::Enter(GetParam().as)) GTEST_SKIP() << "no namespaces of its own: " << *reason;
  char dir[] = "/tmp/plane-test-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  options_.run_dir = dir;
  options_.capacity = kCapacity;
  auto opened = GetParam().open(options_);
  if (!opened.ok()) GTEST_SKIP() << "the system does not allow " << GetParam().name << ": " << opened.error().Text();
  plane_ = std::move(opened).value();
  ASSERT_TRUE(plane_->TakeOver().ok());
}

void RealPlane::TearDown() {
  if (plane_ != nullptr) {
    EXPECT_TRUE(plane_->RemoveEverything().ok());
  }
  plane_.reset();
  if (!options_.run_dir.empty()) std::filesystem::remove_all(options_.run_dir);
}

Snapshot RealPlane::Reopen(size_t capacity) {
  plane_.reset();
  options_.capacity = capacity;
  auto opened = GetParam().open(options_);
  EXPECT_TRUE(opened.ok()) << opened.error().Text();
  if (!opened.ok()) return {};
  plane_ = std::move(opened).value();
  auto taken = plane_->TakeOver();
  EXPECT_TRUE(taken.ok()) << taken.error().Text();
  if (!taken.ok()) return {};
  Sort(taken.value());
  return taken.value();
}

void RealPlane::MustApply(const Changes& changes) {
  for (const Failure& failure : plane_->Apply(changes))
    ADD_FAILURE() << "change " << failure.index << ": " << failure.error.Text();
}

RealPlane::Counts RealPlane::CountsOf(PortId port) {
  Counts counts;
  const auto counters = plane_->Counters();
  EXPECT_TRUE(counters.ok()) << counters.error().Text();
  if (!counters.ok()) return counts;
  for (const PortCounter& counter : counters.value())
    if (counter.port == port) counts[{counter.reason, counter.passed}] += counter.frames;
  return counts;
}

RealPlane::Counts RealPlane::WaitForTotal(PortId port, uint64_t total) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{5};
  while (true) {
    Counts counts = CountsOf(port);
    uint64_t sum = 0;
    for (const auto& [what, frames] : counts) sum += frames;
    if (sum >= total || std::chrono::steady_clock::now() > deadline) return counts;
    std::this_thread::yield();
  }
}

PortConfig MakePort(PortId id, const std::string& name, uint32_t ifindex, AllowAll mode) {
  PortConfig port;
  port.id = id;
  port.name = name;
  port.ifindex = ifindex;
  port.enabled = true;
  port.mode = mode;
  return port;
}

Entry MakeEntry(PortId port, uint16_t vlan, uint32_t address_be, const MacAddress& mac) {
  return {{port, vlan, address_be}, mac};
}

std::vector<Entry> CorpusEntriesOn(PortId port) {
  std::vector<Entry> entries;
  for (const frames::Entry& entry : frames::CorpusEntries())
    entries.push_back(MakeEntry(port, entry.vlan, entry.source_be, entry.mac.value_or(MacAddress{})));
  return entries;
}

}  // namespace mgr::test
