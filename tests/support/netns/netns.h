#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "frames/frame_builder.h"

/// Network of a test's own: a process enters namespaces that end with it, so that nothing is left behind however it
/// ends, and nothing of the machine is touched.
namespace netns {

enum class As : uint8_t {
  kRoot,         ///< network and mount namespace; needs CAP_SYS_ADMIN
  kUnprivileged  ///< in a user namespace, as any user may
};

/// Moves this process into namespaces of its own; once, before it has threads. The reason why not, or nothing.
std::optional<std::string> Enter(As as);

/// Runs a shell command; its output and a false when it fails.
struct Ran {
  bool ok = false;
  std::string output;
};
Ran Run(const std::string& command);
/// The same for a command that must work; the test process ends with a message otherwise.
std::string MustRun(const std::string& command);

/// Another network namespace, kept by a process of its own.
class OtherNamespace final {
 public:
  OtherNamespace();
  OtherNamespace(const OtherNamespace&) = delete;
  OtherNamespace& operator=(const OtherNamespace&) = delete;
  ~OtherNamespace();
  [[nodiscard]] pid_t pid() const noexcept { return keeper_; }

 private:
  pid_t keeper_ = -1;
};

/// A wire: the interface `port` here, and its other end `station` from which frames are sent into it.
class Wire final {
 public:
  /// Makes the pair, both ends up, with room for frames of 3,000 bytes and without traffic of their own.
  explicit Wire(std::string port);
  [[nodiscard]] const std::string& port() const noexcept { return port_; }
  [[nodiscard]] const std::string& station() const noexcept { return station_; }
  [[nodiscard]] uint32_t ifindex() const;

 private:
  std::string port_;
  std::string station_;
};

/// Waits until an interface that is up can send: the kernel gets it ready a little later. Up to ten seconds.
void WaitUntilRunning(const std::string& interface);

/// Sends frames out of an interface. The first tag of a frame that has it in metadata goes into the bytes: what
/// receives it takes the tag out again.
class Sender final {
 public:
  explicit Sender(const std::string& interface);
  /// False when the kernel refuses the frame.
  bool Send(const frames::Frame& frame);

 private:
  common::UniqueFd socket_;
};

/// Receives, behind the filters of `interface`, frames of one type (host order; 4 for LLC).
class Receiver final {
 public:
  Receiver(const std::string& interface, uint16_t type);
  /// The number of frames received since the last call, waiting up to a second for `expected`.
  size_t Count(size_t expected);
  [[nodiscard]] int fd() const noexcept { return socket_.get(); }

 private:
  common::UniqueFd socket_;
};

/// The bytes as they go over the wire, and the type under which the receiving kernel hands the frame on.
frames::Bytes OnTheWire(const frames::Frame& frame);
uint16_t ReceivedType(const frames::Frame& frame);

}  // namespace netns
