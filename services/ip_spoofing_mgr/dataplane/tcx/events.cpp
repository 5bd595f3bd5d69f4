#include "dataplane/tcx/events.h"

#include <bpf/libbpf.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "dataplane/verdict_text.h"

namespace mgr::tcx {

WallClock::WallClock() {
  timespec monotonic{};
  clock_gettime(CLOCK_MONOTONIC, &monotonic);
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  offset_ = std::chrono::duration_cast<std::chrono::nanoseconds>(now) - std::chrono::seconds{monotonic.tv_sec} -
            std::chrono::nanoseconds{monotonic.tv_nsec};
}

std::chrono::system_clock::time_point WallClock::At(uint64_t monotonic_ns) const {
  return std::chrono::system_clock::time_point{std::chrono::duration_cast<std::chrono::system_clock::duration>(
      std::chrono::nanoseconds{monotonic_ns} + offset_)};
}

Drop ToDrop(const plane_violator_key& key, uint16_t ethertype, uint64_t frames,
            std::chrono::system_clock::time_point first, std::chrono::system_clock::time_point last) {
  Drop drop;
  drop.port = key.port_vlan >> 12;
  drop.vlan = static_cast<uint16_t>(key.port_vlan & 0xfff);
  drop.ethertype = ethertype;
  if (key.has_source != 0) drop.source_be = key.source_be;
  drop.mac = FromVerdictMac(key.mac);
  drop.reason = ReasonName(static_cast<verdict_reason>(key.reason));
  drop.count = frames;
  drop.first = first;
  drop.last = last;
  return drop;
}

void Events::Free::operator()(ring_buffer* ring) const noexcept { ring_buffer__free(ring); }

common::Status Events::Open(int map) {
  ring_.reset(ring_buffer__new(map, OnEvent, this, nullptr));
  if (ring_ == nullptr) return common::SystemError("open the ring of drop events", {}, errno);
  return common::Ok();
}

int Events::Fd() const { return ring_ == nullptr ? -1 : ring_buffer__epoll_fd(ring_.get()); }

std::vector<Drop> Events::Read() {
  if (ring_ == nullptr) return {};
  ring_buffer__consume(ring_.get());
  return std::exchange(drops_, {});
}

int Events::OnEvent(void* self, void* data, size_t size) {
  auto& drops = static_cast<Events*>(self)->drops_;
  plane_event event{};
  if (size < sizeof event) return 0;
  std::memcpy(&event, data, sizeof event);
  const auto time = WallClock{}.At(event.time_ns);
  drops.push_back(ToDrop(event.key, event.ethertype, event.frames, time, time));
  return drops.size() < kMaxRead ? 0 : -EAGAIN;  // the rest stays in the ring
}

}  // namespace mgr::tcx
