#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_fd.h"
#include "frames/frame_builder.h"

/// Full-rate traffic into a port, and an exact count of what comes out behind its filter.
namespace kernel_test {

/// Counts IPv4 frames that have passed the filter of an interface, by the source's first byte. The kernel counts, so
/// nothing is missed at any rate.
class PassedFrames final {
 public:
  PassedFrames(const std::string& interface, uint8_t first_byte);
  /// Since it was made.
  uint64_t Count();

 private:
  common::UniqueFd socket_;
  uint64_t total_ = 0;
};

/// Sends frames in turn from a thread of its own, as fast as it can, until it is destroyed or stopped.
class Traffic final {
 public:
  Traffic(const std::string& interface, const std::vector<frames::Frame>& frames);
  Traffic(const Traffic&) = delete;
  Traffic& operator=(const Traffic&) = delete;
  ~Traffic() { Stop(); }
  void Stop();
  /// Frames that have left, of each kind: whole rounds only.
  [[nodiscard]] uint64_t Rounds() const noexcept { return rounds_.load(); }

 private:
  void Run();
  common::UniqueFd socket_;
  std::vector<frames::Bytes> frames_;
  std::atomic<bool> stop_ = false;
  std::atomic<uint64_t> rounds_ = 0;
  std::thread thread_;
};

/// Frames that a wire lost on its way to the port, before any filter.
uint64_t LostOnWire(const std::string& station);

/// Processor time and memory are shared with others: waits until `rounds` more rounds have been sent.
void WaitForRounds(const Traffic& traffic, uint64_t rounds);

}  // namespace kernel_test
