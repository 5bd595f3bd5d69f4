// Random batches against a plain statement of what they mean.
#include <gmock/gmock.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <map>
#include <random>

#include "control/text.h"
#include "support.h"

namespace mgr::test {
namespace {

/// What requests mean, without batches, holds or capacity.
struct Model {
  std::map<std::string, bool> enabled;
  std::map<std::string, AllowAll> modes;
  std::map<std::string, std::string> entries;  ///< "eth1/5/10.0.0.1" to " mac 7" or nothing

  std::vector<std::string> InForce() const {
    std::map<std::string, PortConfig> ports;
    for (const auto& [name, on] : enabled) {
      if (on) ports[name].enabled = true;
    }
    for (const auto& [name, mode] : modes) {
      if (mode != AllowAll::kNone) ports[name].mode = mode;
    }
    std::vector<std::string> lines;
    for (const auto& [key, mac] : entries) {
      ports[key.substr(0, key.find('/'))];
      lines.push_back(key + mac);
    }
    for (auto& [name, config] : ports) {
      config.name = name;
      config.ifindex = 1;
      lines.push_back(PortText(config));
    }
    std::sort(lines.begin(), lines.end());
    return lines;
  }
};

class Driver {
 public:
  explicit Driver(uint32_t seed) : random_{seed} {}

  void OneBatch() {
    const bool full = Pick(6) == 0;
    if (full) model_ = {};
    std::vector<Request> requests;
    const int count = Pick(12);
    for (int i = 0; i < count; ++i) requests.push_back(OneRequest());
    full ? bench_.Full(requests) : bench_.Batch(requests);
    CheckNothingIsCut();
    if (testing::Test::HasFailure()) return;
    if (Pick(3) == 0) bench_.Wait(milliseconds{Pick(40)});
    if (Pick(5) == 0) {
      bench_.plane.refused = {"eth" + std::to_string(1 + Pick(3)), Key()};
    } else {
      bench_.plane.refused.clear();
    }
  }

  void Finish() {
    bench_.plane.refused.clear();
    bench_.Wait(milliseconds{3000});
    EXPECT_THAT(bench_.plane.InForce(), testing::ElementsAreArray(model_.InForce()));
    EXPECT_EQ(bench_.engine.Deadline(), std::nullopt);
    size_t wanted = 0;
    for (const auto& [key, row] : bench_.table.entries()) wanted += row.wanted && row.installed ? 1 : 0;
    EXPECT_EQ(wanted, bench_.table.entries().size());
  }

 private:
  int Pick(int n) { return static_cast<int>(random_() % static_cast<uint32_t>(n)); }
  std::string Port() { return "eth" + std::to_string(1 + Pick(3)); }
  std::string Key() { return Port() + "/" + std::to_string(Pick(2)) + "/10.0.0." + std::to_string(1 + Pick(4)); }

  Request OneRequest() {
    const std::string port = Port();
    switch (Pick(6)) {
      case 0:
        model_.enabled[port] = true;
        return Enable(port);
      case 1:
        model_.enabled[port] = false;
        return Disable(port);
      case 2: {
        const AllowAll mode = ModeOfRequest(static_cast<uint8_t>(Pick(4)));
        model_.modes[port] = mode;
        return Mode(port, mode);
      }
      default: {
        const auto vlan = static_cast<uint16_t>(Pick(2));
        const std::string address = "10.0.0." + std::to_string(1 + Pick(4));
        const std::string key = port + "/" + std::to_string(vlan) + "/" + address;
        if (Pick(3) == 0) {
          model_.entries.erase(key);
          return Remove(port, vlan, address);
        }
        const auto mac = static_cast<uint8_t>(Pick(3));
        model_.entries[key] = mac == 0 ? "" : " mac " + std::to_string(mac);
        return Put(port, vlan, address, mac);
      }
    }
  }

  /// Whatever is wanted and was not refused is in the plane already when a batch has been handed over.
  void CheckNothingIsCut() {
    for (const auto& [key, row] : bench_.table.entries()) {
      EXPECT_TRUE(!row.wanted || row.failed || row.installed)
          << AddressText(key.address_be) << " vlan " << key.vlan << " of port " << key.port << ": "
          << testing::PrintToString(bench_.plane.calls);
    }
    for (const auto& [id, port] : bench_.table.ports()) {
      if (!port.failure.empty() || !port.installed) continue;
      EXPECT_TRUE(!port.installed->enabled || port.wanted_enabled) << port.name;
      EXPECT_EQ(static_cast<int>(port.installed->mode) | static_cast<int>(port.wanted_mode),
                static_cast<int>(port.installed->mode))
          << port.name;
    }
  }

  std::mt19937 random_;
  Bench bench_;
  Model model_;
};

TEST(RandomBatches, EndInExactlyWhatWasAskedFor) {
  spdlog::set_level(spdlog::level::off);  // refusals by the hundred
  for (uint32_t seed = 1; seed <= 400; ++seed) {
    SCOPED_TRACE(seed);
    Driver driver{seed};
    for (int i = 0; i < 30; ++i) driver.OneBatch();
    driver.Finish();
    if (testing::Test::HasFailure()) break;
  }
  spdlog::set_level(spdlog::level::info);
}

}  // namespace
}  // namespace mgr::test
