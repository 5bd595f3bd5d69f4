#include "read/get_request.h"

#include <map>
#include <utility>

#include "netconf/server.h"
#include "read/data_writer.h"
#include "read/providers.h"
#include "state/state_reader.h"

namespace cdbd {
namespace {

constexpr int kMaxRounds = 16;  // of fetching what new configuration asks for

/// One <get> on its way. Keeps itself alive through the fetch it waits for.
class GetRequest final : public ProvidedLists, public std::enable_shared_from_this<GetRequest> {
 public:
  GetRequest(Core& core, RpcPtr rpc, Selection selection)
      : core_{core}, rpc_{std::move(rpc)}, selection_{std::move(selection)} {}

  void Run() {
    if (rounds_++ == kMaxRounds)
      return rpc_->Fail(RpcError{.message = "the configuration changes faster than it can be read"});
    std::string data{"<data>"};
    {
      const auto snapshot = core_.store.Take();
      if (!snapshot) return rpc_->Fail(RpcError{.message = snapshot.error().Text()});
      DataWriter{core_.model, snapshot.value()->Running(), this}.Write(selection_, &data);
    }
    if (!needed_.empty()) return FetchNext();
    core_.state->Write(selection_, &data);
    data += "</data>";
    rpc_->Content(data);
  }

  const std::vector<ProvidedRow>* Rows(const cdb_store::Node& list, std::string_view parent_keys) override {
    const auto found = rows_.find({list.id, std::string{parent_keys}});
    if (found != rows_.end()) return &found->second;
    needed_.emplace_back(list.id, parent_keys);
    return nullptr;
  }

 private:
  using Key = std::pair<cdb_store::NodeId, std::string>;
  using Answer = common::Result<std::vector<ProvidedRow>>;

  void FetchNext() {
    const Key key = needed_.back();
    needed_.pop_back();
    const cdb_store::Node& list = core_.model.schema().node(key.first);
    // Who asks for everything gets what there is.
    if (selection_.all && !core_.providers->Serves(list.callpoint)) return OnRows(key, std::vector<ProvidedRow>{});
    const SessionInfo* session = core_.netconf->Find(rpc_->session());
    if (session == nullptr) return;
    Providers::Request request;
    request.list = &list;
    request.parent_keys = key.second;
    request.user = session->user;
    request.wanted = [&netconf = *core_.netconf, id = session->id] { return netconf.Find(id) != nullptr; };
    core_.providers->Fetch(std::move(request),
                           [self = shared_from_this(), key](Answer rows) { self->OnRows(key, std::move(rows)); });
  }

  void OnRows(const Key& key, Answer rows) {
    if (!rows) return rpc_->Fail(RpcError{.message = rows.error().Text()});
    rows_[key] = std::move(rows).value();
    needed_.empty() ? Run() : FetchNext();
  }

  Core& core_;
  RpcPtr rpc_;
  const Selection selection_;
  std::map<Key, std::vector<ProvidedRow>> rows_;
  std::vector<Key> needed_;
  int rounds_ = 0;
};

}  // namespace

void StartGet(Core& core, const RpcPtr& rpc, Selection selection) {
  std::make_shared<GetRequest>(core, rpc, std::move(selection))->Run();
}

}  // namespace cdbd
