#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "manager_under_test.h"
#include "netns/netns.h"
#include "probe.h"

namespace kernel_test {

/// A manager that guards `port0`, where 10.0.0.1 and 10.0.0.2 are allowed.
class GuardUnderTest : public testing::Test {
 protected:
  explicit GuardUnderTest(std::string plane) : plane_{std::move(plane)} {}
  void SetUp() override {
    if (const auto reason = netns::Enter(netns::As::kRoot)) GTEST_SKIP() << "no namespaces of its own: " << *reason;
    manager_.emplace(plane_);
    if (!manager_->Start()) GTEST_SKIP() << "the system does not allow the dataplane " << plane_;
    wire_.emplace("port0");
    PreparePort();
    ASSERT_TRUE(manager_->Submit(Configuration(), true));
    ASSERT_TRUE(manager_->WaitForPorts("\"state\": 1")) << manager_->Ctl({"show", "ports"}) << manager_->Log();
  }
  /// What stands on the port before it is enabled.
  virtual void PreparePort() {}

  static std::vector<Request> Configuration() {
    return {EnablePort("port0"), Put("port0", 0, frames::Ip("10.0.0.1")), Put("port0", 0, frames::Ip("10.0.0.2"))};
  }
  [[nodiscard]] nlohmann::json GuardStatus() const {
    const auto status = nlohmann::json::parse(manager_->Ctl({"show", "status", "--json"}), nullptr, false);
    return status.value("guard", nlohmann::json::object());
  }
  [[nodiscard]] bool WaitForRepairs(uint64_t count) const {
    return test::Eventually([&] { return GuardStatus().value("repairs", uint64_t{0}) >= count; },
                            std::chrono::seconds{20});
  }
  void ExpectJudged() {
    Probe probe{"port0", wire_->station()};
    EXPECT_EQ(probe.Passes(From("10.0.0.1")), true);
    EXPECT_EQ(probe.Passes(From("10.0.0.2")), true);
    EXPECT_EQ(probe.Passes(From("192.0.2.66")), false);
  }
  /// The last event of the guard has `text` in it, and so has the log.
  void ExpectTold(const std::string& text) {
    const nlohmann::json guard = GuardStatus();
    ASSERT_FALSE(guard.value("events", nlohmann::json::array()).empty());
    const std::string what = guard["events"].back().value("what", "");
    EXPECT_NE(what.find(text), std::string::npos) << what;
    EXPECT_NE(manager_->Log().find(what), std::string::npos) << manager_->Log();
  }

  const std::string plane_;
  std::optional<ManagerUnderTest> manager_;
  std::optional<netns::Wire> wire_;
};

}  // namespace kernel_test
