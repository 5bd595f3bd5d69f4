// What a packet costs: by test runs of the kernel program, and as the rate of a real port.
#include <arpa/inet.h>
#include <bpf/bpf.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "common/unique_fd.h"
#include "dataplane/dataplanes.h"
#include "dataplane/tcx/bpf_fs.h"
#include "dataplane/tcx/tcx_object.h"
#include "dataplane_bench.h"
#include "netns/netns.h"
#include "traffic.h"

namespace bench {
namespace {

using frames::Frame;

constexpr uint32_t kLoopback = 1;

/// Nanoseconds of one run of `program` on `frame`: of many in one call, timed from here, because the kernel tells whole
/// nanoseconds only. 0 when it cannot be run.
double NanosecondsOf(int program, const Frame& frame) {
  constexpr uint32_t kRepeat = 200'000;
  __sk_buff context{};
  context.ifindex = kLoopback;
  LIBBPF_OPTS(bpf_test_run_opts, options, .data_in = frame.bytes.data(),
              .data_size_in = static_cast<uint32_t>(frame.bytes.size()), .ctx_in = &context,
              .ctx_size_in = sizeof context, .repeat = kRepeat);
  int error = 0;
  const double microseconds = TimeOf([&] { error = bpf_prog_test_run_opts(program, &options); });
  return error == 0 ? microseconds * 1000 / kRepeat : 0;
}

/// Median of what the elements of two series are to each other, pair by pair: a pair is measured at once, so that what
/// else runs on the machine hits both.
double MedianRatio(const std::vector<double>& values, const std::vector<double>& bases) {
  std::vector<double> ratios;
  for (size_t i = 0; i < values.size(); ++i) ratios.push_back(values[i] / bases[i]);
  return Median(ratios);
}

}  // namespace

bool PerPacket(Report& report) {
  constexpr int kRounds = 25;
  for (const size_t size : kSizes) {
    report.Heading("nanoseconds of a packet, " + std::to_string(size) + " entries");
    const RunDir dir;
    auto mount = mgr::tcx::MountBpfFs(dir.path());
    if (!mount.ok()) return false;
    auto object = mgr::tcx::Object::Load(mount.value(), static_cast<uint32_t>(2 * size));
    const BaselinePtr baseline = LoadBaseline(2 * size);
    if (!object.ok() || baseline == nullptr) return false;
    const std::vector<plane_entry_key> keys = KeysOf(size);
    if (!UpdateInOneBatch(bpf_map__fd(baseline->maps.bare), keys)) return false;
    if (!UpdateInOneBatch(object.value().entries(), keys)) return false;
    const plane_port port{kPort, {1, VERDICT_MODE_NONE, 0}, 0};
    bpf_map_update_elem(object.value().ports(), &kLoopback, &port, BPF_ANY);
    baseline->bss->wanted_port_vlan = kPort << 12;
    baseline->bss->wanted_source_be = SourceOf(size / 2);

    struct Series {
      const char* name;
      int program;
      Frame frame;
      std::vector<double> values;
    };
    const Frame allowed = FrameFrom(SourceOf(size / 2));
    const int filter = object.value().program();
    std::array<Series, 5> all = {{
        {"an empty program", bpf_program__fd(baseline->progs.empty), allowed, {}},
        {"an empty program and one look-up", bpf_program__fd(baseline->progs.look_up), allowed, {}},
        {"hit: a source with an entry", filter, allowed, {}},
        {"pass: a frame that is not IP", filter, frames::FrameBuilder{{2, 0, 0, 0, 0, 1}}.Type(0x88cc), {}},
        {"miss: a source without an entry, dropped and noted", filter, FrameFrom(htonl(0xC0000201)), {}},
    }};
    for (int round = -1; round < kRounds; ++round) {
      for (Series& series : all) {
        const double value = NanosecondsOf(series.program, series.frame);
        if (value == 0) return false;
        if (round >= 0) series.values.push_back(value);
      }
    }
    for (const Series& series : all) report.Figure(series.name, Median(series.values), "ns");
    report.AtMost("a hit against an empty program and one look-up", MedianRatio(all[2].values, all[1].values), 1, 1.3);
  }
  return true;
}

namespace {

constexpr size_t kEntries = 24'576;
constexpr size_t kBurst = 64;  ///< frames of one system call
constexpr int kSender = 1;     ///< processor

/// Sources that send in turn, spread over all entries: as many stations as send at a time behind one port; and every
/// entry once before any of them again, which no cache likes.
constexpr size_t kStations[] = {1024, kEntries};

/// This thread on one processor, where the receiving side of a veth runs too, as long as it lives.
class Pinned final {
 public:
  explicit Pinned(int cpu) {
    sched_getaffinity(0, sizeof before_, &before_);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    sched_setaffinity(0, sizeof one, &one);
  }
  Pinned(const Pinned&) = delete;
  Pinned& operator=(const Pinned&) = delete;
  ~Pinned() { sched_setaffinity(0, sizeof before_, &before_); }

 private:
  cpu_set_t before_{};
};

/// A wire, and a burst of frames to send into it.
class LoadedWire final {
 public:
  explicit LoadedWire(const std::string& port) : wire_{port}, frames_(kBurst, FrameFrom(0).bytes), messages_(kBurst) {
    for (frames::Bytes& frame : frames_) pieces_.push_back({frame.data(), frame.size()});
    for (size_t i = 0; i < kBurst; ++i) {
      messages_[i].msg_hdr.msg_iov = &pieces_[i];
      messages_[i].msg_hdr.msg_iovlen = 1;
    }
    socket_.reset(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(wire_.station().c_str()));
    const int on = 1;
    setsockopt(socket_.get(), SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on);
    usable_ = bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }

  /// Frames a second that arrive, of as many frames as there are entries. Nothing when some do not arrive.
  std::optional<double> Rate(size_t stations) {
    if (!usable_) return std::nullopt;
    const uint64_t lost_before = kernel_test::LostOnWire(wire_.station());
    const double time = TimeOf([&] {
      for (size_t sent = 0; sent < kEntries;) {
        for (size_t i = 0; i < kBurst; ++i) SetSource(i, SourceOf((sent + i) % stations * (kEntries / stations)));
        const int count = sendmmsg(socket_.get(), messages_.data(), kBurst, 0);
        if (count < 0 && errno != ENOBUFS && errno != EAGAIN && errno != EINTR) usable_ = false;
        if (!usable_) return;
        if (count > 0) sent += static_cast<size_t>(count);
      }
    });
    if (!usable_ || kernel_test::LostOnWire(wire_.station()) != lost_before) return std::nullopt;
    return kEntries / time * 1e6;
  }

  /// A filter in front of this wire's port that allows every source.
  [[nodiscard]] bool Protect(mgr::Dataplane& plane) const {
    mgr::Changes changes;
    changes.ports = {{kPort, wire_.port(), wire_.ifindex(), true}};
    for (size_t i = 0; i < kEntries; ++i) changes.puts.push_back({{kPort, 0, SourceOf(i)}, {}});
    return plane.TakeOver().ok() && plane.Apply(changes).empty();
  }

 private:
  void SetSource(size_t frame, uint32_t source_be) {
    constexpr size_t kSourceAt = 26;
    std::memcpy(frames_[frame].data() + kSourceAt, &source_be, sizeof source_be);
  }

  netns::Wire wire_;
  std::vector<frames::Bytes> frames_;
  std::vector<iovec> pieces_;
  std::vector<mmsghdr> messages_;
  common::UniqueFd socket_;
  bool usable_ = false;
};

struct Rates {
  std::vector<double> open, filtered;
};

/// Short rounds through the one wire and the other, in turn first. Nothing when most rounds lose frames.
std::optional<Rates> MeasureRates(LoadedWire& open, LoadedWire& filtered, size_t stations) {
  constexpr int kWarmUp = 5;
  constexpr int kRounds = 61;
  const Pinned pinned{kSender};
  Rates rates;
  for (int round = 0; round < kWarmUp + kRounds; ++round) {
    std::optional<double> open_rate, filtered_rate;
    if (round % 2 == 0) open_rate = open.Rate(stations);
    filtered_rate = filtered.Rate(stations);
    if (round % 2 != 0) open_rate = open.Rate(stations);
    if (round < kWarmUp || !open_rate || !filtered_rate) continue;
    rates.open.push_back(*open_rate);
    rates.filtered.push_back(*filtered_rate);
  }
  if (rates.open.size() < kRounds / 2) return std::nullopt;
  return rates;
}

}  // namespace

bool PacketRate(Report& report) {
  for (const mgr::DataplaneKind& kind : mgr::DataplaneKinds()) {
    if (kind.name == "memory") continue;
    const std::string name{kind.name};
    LoadedWire open{name + "-0"}, filtered{name + "-1"};
    const RunDir dir;
    auto plane = kind.open({.run_dir = dir.path()});
    if (!plane.ok() || !filtered.Protect(*plane.value())) return false;
    for (const size_t stations : kStations) {
      report.Heading("frames of 60 bytes a second into a port, " + std::to_string(kEntries) + " entries, " +
                     std::to_string(stations) + " stations");
      const auto rates = MeasureRates(open, filtered, stations);
      if (!rates) return false;
      report.Figure("no filter", Median(rates->open) / 1000, "thousand/s");
      report.Figure(name, Median(rates->filtered) / 1000, "thousand/s");
      const double ratio = MedianRatio(rates->filtered, rates->open);
      if (name == "tcx" && stations < kEntries) {
        report.AtLeast("tcx against no filter", ratio, 1, 0.88);
      } else {
        report.Figure(name + " against no filter", ratio, "times");
      }
    }
    if (!plane.value()->RemoveEverything().ok()) return false;
  }
  return true;
}

}  // namespace bench
