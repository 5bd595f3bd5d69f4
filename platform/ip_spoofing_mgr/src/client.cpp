#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <utility>

#include "common/config_reads.h"
#include "ip_spoofing_mgr_client.h"
#include "link.h"
#include "outbox.h"
#include "qmmw_internal.h"

namespace ip_spoofing_mgr {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kConnectTime{5000};
constexpr milliseconds kFirstReload{1000};
constexpr milliseconds kLastReload{30'000};

wire::Request EntryRequest(wire::RequestKind kind, const AllowedIpEntry& entry, const uint8_t* mac) {
  wire::Request request{.family = entry.family == 0 ? 0U : 1U, .limid = entry.limid, .vlan = entry.vlan, .kind = kind};
  std::memcpy(request.address, entry.address, entry.family == 0 ? 4 : sizeof entry.address);
  if (kind == wire::RequestKind::kPut) std::memcpy(request.mac, mac != nullptr ? mac : entry.mac, sizeof request.mac);
  return request;
}

}  // namespace

/// Tells a load from a change. A callback in which the application may have sent its whole configuration is a
/// candidate: OnMgrConnected(), and one that was told by GetConnectionStatus() that the manager is there. It was a load
/// when the configuration was read in it, whatever that gave, or when it made requests; a batch of a load is full, so
/// that what was removed from the configuration unseen is removed from the manager too. Only the first callback that
/// asks for the status counts as a load without either: there a new process says that it has no configuration.
class IpSpoofingPreventionMgrClient::Impl final {
 public:
  Impl(common::EventLoop& loop, CallbackItf* callback)
      : loop_{loop},
        callback_{callback},
        link_{loop,
              {.on_up = [this] { OnUp(); },
               .on_down = [this] { OnDown(); },
               .on_frame = [this](wire::FrameType type, std::string_view payload) { OnFrame(type, payload); },
               .on_drained = [this] { SendMore(); }}} {}
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  ~Impl() = default;

  int Request(const wire::Request& request) {
    if (request.limid.word[0] == 0 && request.limid.word[1] == 0) unnamed_ = true;
    outbox_.Add(request);
    FlushLater();
    return 0;
  }

  int RequestList() {
    lists_.push_back({.id = ++last_list_});
    FlushLater();
    return 0;
  }

  int32_t Connect() { return link_.ConnectAndWait(kConnectTime) || loop_.Stopped() ? 0 : -1; }
  void Disconnect() { link_.Disconnect(); }

  const ConnectionStatus* Status() {
    status_.pending_objects = static_cast<uint32_t>(outbox_.Objects());
    if (link_.Up() && !candidate_) {
      BeginCandidate(Candidate::Why::kStatusAsked);
      FlushLater();
    }
    return &status_;
  }

 private:
  struct Candidate {
    enum class Why : uint8_t { kMgrConnected, kStatusAsked };
    Why why;
    common::ConfigReads before;
  };
  struct List {
    uint32_t id = 0;
    bool sent = false;
    std::vector<AllowedIpStatusEntry> rows{};
  };

  void BeginCandidate(Candidate::Why why) { candidate_ = Candidate{why, common::ProcessConfigReads()}; }

  /// Right after the current callback: what was requested in one callback is sent as one batch.
  void FlushLater() {
    if (!flush_) flush_ = loop_.Soon([this] { Flush(); });
  }

  void Flush() {
    const bool unnamed = std::exchange(unnamed_, false);
    outbox_.Close(candidate_ && EndCandidate(*std::exchange(candidate_, std::nullopt), unnamed));
    SendMore();
  }

  /// Whether the callback was a load. When it was to be one and is not, sees to it that one follows.
  bool EndCandidate(const Candidate& candidate, bool unnamed) {
    const common::ConfigReads& now = common::ProcessConfigReads();
    const bool asked = candidate.why == Candidate::Why::kStatusAsked;
    const bool failed = now.failures != candidate.before.failures || unnamed;
    const bool ran = now.reads != candidate.before.reads || !outbox_.CollectedNothing() || (asked && !loaded_);
    if (ran && !failed) {
      loaded_ = true;
      load_owed_ = false;
      reload_delay_ = kFirstReload;
      return true;
    }
    // Part of the configuration could not be read or named: the rest is sent, nothing is replaced, and it is tried
    // again.
    if (failed) {
      ReloadIn(reload_delay_);
      reload_delay_ = std::min(2 * reload_delay_, kLastReload);
    } else if (asked && load_owed_) {
      // The application skipped the load because nothing has changed for it; the manager may be a new one.
      ReloadIn(milliseconds{0});
    }
    return false;
  }

  void ReloadIn(milliseconds delay) {
    reload_timer_ = loop_.After(delay, [this] { TellConnected(); });
  }

  void TellConnected() {
    if (!link_.Up()) return;
    BeginCandidate(Candidate::Why::kMgrConnected);
    FlushLater();
    callback_->OnMgrConnected();  // may destroy this object
  }

  void OnUp() {
    status_.connected = 1;
    ++status_.connections;
    load_owed_ = true;
    outbox_.Restart();  // what was kept goes first, the latest per object
    SendMore();
    tell_connected_ = loop_.Soon([this] { TellConnected(); });
  }

  void OnDown() {
    status_.connected = 0;
    candidate_.reset();
    outbox_.Restart();
    for (List& list : lists_) list = {.id = list.id};
    reload_timer_.Reset();
  }

  void SendMore() {
    if (!link_.Up()) return;
    while (!link_.Congested()) {
      const auto frame = outbox_.NextFrame();
      if (!frame) return AskLists();
      link_.Send(wire::FrameType::kBatch, *frame);
    }
  }

  void AskLists() {
    for (List& list : lists_) {
      if (!std::exchange(list.sent, true)) link_.Send(wire::FrameType::kListRequest, wire::EncodeId(list.id));
    }
  }

  void OnFrame(wire::FrameType type, std::string_view payload) {
    if (type == wire::FrameType::kAck) {
      if (const auto sequence = wire::ParseSequence(payload)) outbox_.Acknowledge(*sequence);
    } else if (type == wire::FrameType::kListRows) {
      uint32_t id = 0;
      std::vector<AllowedIpStatusEntry> rows{};
      if (!wire::ParseRows(payload, &id, &rows)) return;
      if (List* list = FindList(id)) list->rows.insert(list->rows.end(), rows.begin(), rows.end());
    } else if (type == wire::FrameType::kListEnd) {
      const auto end = wire::ParseListEnd(payload);
      List* list = end ? FindList(end->id) : nullptr;
      if (list == nullptr) return;
      received_.push_back(std::move(list->rows));
      std::erase_if(lists_, [&](const List& l) { return l.id == end->id; });
      if (!deliver_) deliver_ = loop_.Soon([this] { DeliverList(); });
    }
  }

  List* FindList(uint32_t id) {
    const auto it = std::find_if(lists_.begin(), lists_.end(), [&](const List& l) { return l.id == id && l.sent; });
    return it == lists_.end() ? nullptr : &*it;
  }

  void DeliverList() {
    const std::vector<AllowedIpStatusEntry> rows = std::move(received_.front());
    received_.pop_front();
    if (!received_.empty()) deliver_ = loop_.Soon([this] { DeliverList(); });
    const std::list<AllowedIpStatusEntry> list(rows.begin(), rows.end());
    callback_->OnAllowedIpList(list);  // may throw, may destroy this object
  }

  common::EventLoop& loop_;
  CallbackItf* const callback_;
  ConnectionStatus status_{};
  Outbox outbox_;
  std::deque<List> lists_;  ///< asked for and not answered
  uint32_t last_list_ = 0;
  std::deque<std::vector<AllowedIpStatusEntry>> received_;
  std::optional<Candidate> candidate_;
  bool unnamed_ = false;    ///< the callback made a request for the id that names no interface
  bool loaded_ = false;     ///< this process has sent a load
  bool load_owed_ = false;  ///< this connection has not carried one yet
  milliseconds reload_delay_ = kFirstReload;
  common::ScheduledTask flush_;
  common::ScheduledTask tell_connected_;
  common::ScheduledTask deliver_;
  common::ScheduledTask reload_timer_;
  Link link_;  ///< last: its handlers use the others
};

IpSpoofingPreventionMgrClient::IpSpoofingPreventionMgrClient(qmmw_t* mw, CallbackItf* cb)
    : impl_{std::make_unique<Impl>(qmmw_event_loop(mw), cb)} {}

IpSpoofingPreventionMgrClient::~IpSpoofingPreventionMgrClient() = default;

int IpSpoofingPreventionMgrClient::SendIpSpoofing(const limid_t* limid, bool enable) {
  if (limid == nullptr) return -1;
  return impl_->Request({.limid = *limid, .kind = wire::RequestKind::kPort, .value = enable ? uint8_t{1} : uint8_t{0}});
}

int IpSpoofingPreventionMgrClient::SendAllowedIpAll(const limid_t* limid, AllowedAllMode mode) {
  if (limid == nullptr || mode > kAllowedAllAll) return -1;
  return impl_->Request({.limid = *limid, .kind = wire::RequestKind::kMode, .value = static_cast<uint8_t>(mode)});
}

int IpSpoofingPreventionMgrClient::SendAddEntry(const AllowedIpEntry* entry, const uint8_t* mac) {
  return entry == nullptr ? -1 : impl_->Request(EntryRequest(wire::RequestKind::kPut, *entry, mac));
}

int IpSpoofingPreventionMgrClient::SendRemoveEntry(const AllowedIpEntry* entry, const uint8_t* mac) {
  return entry == nullptr ? -1 : impl_->Request(EntryRequest(wire::RequestKind::kRemove, *entry, mac));
}

int IpSpoofingPreventionMgrClient::SendUpdateEntry(const AllowedIpEntry* entry, const uint8_t* mac) {
  // Not through SendAddEntry(): an override of that one is not asked about updates.
  return entry == nullptr ? -1 : impl_->Request(EntryRequest(wire::RequestKind::kPut, *entry, mac));
}

int IpSpoofingPreventionMgrClient::RequestAllowedIpList() { return impl_->RequestList(); }

int32_t IpSpoofingPreventionMgrClient::Connect() { return impl_->Connect(); }

void IpSpoofingPreventionMgrClient::Disconnect() { impl_->Disconnect(); }

const ConnectionStatus* IpSpoofingPreventionMgrClient::GetConnectionStatus() { return impl_->Status(); }

}  // namespace ip_spoofing_mgr
