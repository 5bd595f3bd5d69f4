// What a packet costs: by test runs of the kernel program, and as the rate of a real port.
#include <arpa/inet.h>
#include <bpf/bpf.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
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

/// Nanoseconds of one run of `program` on `frame`.
double NanosecondsOf(int program, const Frame& frame) {
  constexpr uint32_t kRepeat = 200'000;
  __sk_buff context{};
  context.ifindex = kLoopback;
  LIBBPF_OPTS(bpf_test_run_opts, options, .data_in = frame.bytes.data(),
              .data_size_in = static_cast<uint32_t>(frame.bytes.size()), .ctx_in = &context,
              .ctx_size_in = sizeof context, .repeat = kRepeat);
  return bpf_prog_test_run_opts(program, &options) == 0 ? options.duration : 0;
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

/// A wire, and a frame from every allowed source to send into it.
class LoadedWire final {
 public:
  explicit LoadedWire(const std::string& port) : wire_{port} {
    for (size_t i = 0; i < kEntries; ++i) frames_.push_back(FrameFrom(SourceOf(i)).bytes);
    for (frames::Bytes& frame : frames_) pieces_.push_back({frame.data(), frame.size()});
    messages_.resize(kEntries);
    for (size_t i = 0; i < kEntries; ++i) {
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

  /// Frames a second that arrive, over one frame of each source. Nothing when some do not.
  std::optional<double> Rate() {
    if (!usable_) return std::nullopt;
    const uint64_t lost_before = kernel_test::LostOnWire(wire_.station());
    const double time = TimeOf([this] {
      for (size_t sent = 0; sent < messages_.size();) {
        const int count = sendmmsg(socket_.get(), &messages_[sent],
                                   static_cast<unsigned>(std::min(kBurst, messages_.size() - sent)), 0);
        if (count < 0 && errno != ENOBUFS && errno != EAGAIN && errno != EINTR) return;
        if (count > 0) sent += static_cast<size_t>(count);
      }
    });
    if (kernel_test::LostOnWire(wire_.station()) != lost_before) return std::nullopt;
    return static_cast<double>(messages_.size()) / time * 1e6;
  }

  /// A filter in front of this wire's port that allows every source.
  [[nodiscard]] bool Protect(mgr::Dataplane& plane) const {
    mgr::Changes changes;
    changes.ports = {{kPort, wire_.port(), wire_.ifindex(), true}};
    for (size_t i = 0; i < kEntries; ++i) changes.puts.push_back({{kPort, 0, SourceOf(i)}, {}});
    return plane.TakeOver().ok() && plane.Apply(changes).empty();
  }

 private:
  netns::Wire wire_;
  std::vector<frames::Bytes> frames_;
  std::vector<iovec> pieces_;
  std::vector<mmsghdr> messages_;
  common::UniqueFd socket_;
  bool usable_ = false;
};

}  // namespace

bool PacketRate(Report& report) {
  constexpr int kRounds = 101;
  for (const mgr::DataplaneKind& kind : mgr::DataplaneKinds()) {
    if (kind.name == "memory") continue;
    const std::string name{kind.name};
    report.Heading("frames a second into a port, " + std::to_string(kEntries) + " sources, " + name);
    LoadedWire open{name + "-0"}, filtered{name + "-1"};
    const RunDir dir;
    auto plane = kind.open({.run_dir = dir.path()});
    if (!plane.ok() || !filtered.Protect(*plane.value())) return false;
    const Pinned pinned{kSender};
    std::vector<double> rates, open_rates;
    int lost = 0;
    for (int round = -5; round < kRounds; ++round) {
      // In turn the one and the other first.
      LoadedWire* first = round % 2 == 0 ? &open : &filtered;
      LoadedWire* second = first == &open ? &filtered : &open;
      std::optional<double> a = first->Rate(), b = second->Rate();
      if (!a || !b) {
        ++lost;
        continue;
      }
      if (round < 0) continue;
      open_rates.push_back(first == &open ? *a : *b);
      rates.push_back(first == &open ? *b : *a);
    }
    if (rates.size() < kRounds / 2) return false;
    if (lost > 0) report.Figure("rounds that do not count, for frames that did not arrive", lost, "");
    report.Figure("no filter", Median(open_rates) / 1000, "thousand/s");
    report.Figure(name, Median(rates) / 1000, "thousand/s");
    const double ratio = MedianRatio(rates, open_rates);
    if (name == "tcx") {
      report.AtLeast("tcx against no filter", ratio, 1, 0.88);
    } else {
      report.Figure(name + " against no filter", ratio, "times");
    }
    if (!plane.value()->RemoveEverything().ok()) return false;
  }
  return true;
}

}  // namespace bench
