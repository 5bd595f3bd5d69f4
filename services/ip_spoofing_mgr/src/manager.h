#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "common/event_loop.h"
#include "common/result.h"
#include "common/unique_fd.h"
#include "dataplane/dataplane.h"

namespace mgr {

inline constexpr size_t kMaxCapacity = 4'000'000;

struct ManagerOptions {
  std::string run_dir;
  std::string dataplane = "auto";
  std::chrono::milliseconds hold{20};
  std::optional<size_t> capacity{};        ///< entries; by default what the element's description says
  bool assume_interfaces = false;          ///< only with the memory dataplane
  std::optional<uint16_t> metrics_port{};  ///< where metrics are served; none: nowhere
  std::string metrics_address = "127.0.0.1";
};

/// The whole manager on one loop: takes over what is in force, then serves clients and operators.
class Manager final {
 public:
  /// Fails with one line for a person when the directory, the sockets or the dataplane cannot be had; nothing in force
  /// has changed then. `loop` outlives the manager.
  static common::Result<std::unique_ptr<Manager>> Start(common::EventLoop& loop, const ManagerOptions& options);
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;
  ~Manager();

 private:
  struct Parts;
  explicit Manager(std::unique_ptr<Parts> parts);
  std::unique_ptr<Parts> parts_;
};

}  // namespace mgr
