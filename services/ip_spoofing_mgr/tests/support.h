#pragma once

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "control/status.h"
#include "dataplane/memory_dataplane.h"
#include "engine/engine.h"

namespace mgr::test {

using Request = Engine::Request;
using std::chrono::milliseconds;

/// Interface "ethN" has the limid N and, unless it is away, the index 100 + N. "ghost" limids (from 900) have no name.
limid_t LimidOf(const std::string& port);
class FakeNames final : public PortNames {
 public:
  std::optional<std::string> NameOf(limid_t limid) override;
  std::optional<limid_t> IdOf(const std::string& name) override;
};

class FakeInterfaces final : public Interfaces {
 public:
  [[nodiscard]] uint32_t IndexOf(const std::string& name) const override;
  [[nodiscard]] std::string MainNameOf(const std::string&) const override { return ""; }
  std::map<std::string, uint32_t> special;  ///< 0: away
};

Request Enable(const std::string& port);
Request Disable(const std::string& port);
Request Mode(const std::string& port, AllowAll mode);
Request Put(const std::string& port, uint16_t vlan, const std::string& address, uint8_t mac = 0);
Request Remove(const std::string& port, uint16_t vlan, const std::string& address);

/// The memory dataplane, which writes down what it is told: "put eth1/100/10.0.0.1", "put eth1/0/10.0.0.1 mac 7",
/// "port eth1 on ipv4-all", "port eth1 off none absent", "remove eth1/100/10.0.0.1", "drop eth1". One call is one line,
/// its changes joined by ", " in the order of Changes. "release held" is a line too. What is in `refused` fails.
class RecordingDataplane final : public Dataplane {
 public:
  explicit RecordingDataplane(size_t capacity = 1000) : memory{capacity} {}
  [[nodiscard]] std::string_view Name() const override { return "recording"; }
  [[nodiscard]] size_t Capacity() const override { return memory.Capacity(); }
  common::Result<Snapshot> TakeOver() override { return left_behind; }
  common::Status ReleaseHeld() override;
  std::vector<Failure> Apply(const Changes& changes) override;
  common::Status RemoveEverything() override { return memory.RemoveEverything(); }

  /// What is in force: "eth1 on none", "eth1/100/10.0.0.1 mac 7", sorted.
  [[nodiscard]] std::vector<std::string> InForce() const;

  MemoryDataplane memory;
  Snapshot left_behind;
  std::set<std::string> refused;  ///< "eth1/100/10.0.0.1", "eth1" or "release held"
  std::vector<std::string> calls;

 private:
  std::string KeyText(const EntryKey& key) const;
  std::map<PortId, std::string> names_;
};

std::string PortText(const PortConfig& config);

/// An engine with everything around it faked.
struct Bench {
  explicit Bench(size_t capacity = 1000, milliseconds hold = milliseconds{20})
      : plane{capacity}, engine{table, plane, interfaces, hold} {}

  void Batch(const std::vector<Request>& requests) { engine.Submit(requests, false, now); }
  void Full(const std::vector<Request>& requests) { engine.Submit(requests, true, now); }
  /// Lets the time pass; the engine is called when its deadline comes, as its owner would.
  void Wait(milliseconds time);
  /// Every row as a client reads it: "eth1/100/10.0.0.1 mac 7: in force", "eth1 all: no such interface", sorted.
  std::vector<std::string> Rows() const;

  FakeNames names;
  FakeInterfaces interfaces;
  Table table{names};
  RecordingDataplane plane;
  Engine engine;
  Engine::Clock::time_point now{};
};

}  // namespace mgr::test
