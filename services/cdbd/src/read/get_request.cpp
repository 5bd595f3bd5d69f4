#include "read/get_request.h"

#include <map>
#include <utility>

#include "northbound/server.h"
#include "read/data_writer.h"
#include "read/entry_writer.h"
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
      DataWriter writer{core_.model, snapshot.value()->Running(), this};
      if (const auto written = writer.Write(selection_, &data); !written)
        return rpc_->Fail(RpcError{.message = written.error().Text()});
    }
    if (!needed_.empty()) return FetchNext();
    core_.state->Write(selection_, &data);
    data += "</data>";
    rpc_->Content(data);
  }

  const std::string* Entries(const cdb_store::Node& list, std::string_view parent_keys,
                             const Selection& candidates) override {
    const auto found = entries_.find({list.id, std::string{parent_keys}});
    if (found != entries_.end()) return &found->second;
    needed_.push_back({{list.id, std::string{parent_keys}}, candidates});
    return nullptr;
  }

 private:
  using Key = std::pair<cdb_store::NodeId, std::string>;
  struct Need {
    Key key;
    Selection candidates;
  };

  void FetchNext() {
    const Need need = std::move(needed_.back());
    needed_.pop_back();
    const cdb_store::Node& list = core_.model.schema().node(need.key.first);
    std::string& entries = entries_[need.key];  // stays where it is
    // Who asks for everything gets what there is.
    if (selection_.all && !core_.providers->Serves(list.callpoint)) return OnEntries(common::Ok());
    const SessionInfo* session = core_.netconf->Find(rpc_->session());
    if (session == nullptr) return;
    Providers::Request request;
    request.list = &list;
    request.parent_keys = need.key.second;
    request.user = session->user;
    request.wanted = [&netconf = *core_.netconf, id = session->id] { return netconf.Find(id) != nullptr; };
    request.take = [writer = std::make_shared<EntryWriter>(core_.model, list, need.candidates),
                    &entries](const ProvidedRow& row) { writer->Write(row, &entries); };
    core_.providers->Fetch(std::move(request),
                           [self = shared_from_this()](const common::Status& status) { self->OnEntries(status); });
  }

  void OnEntries(const common::Status& status) {
    if (!status) return rpc_->Fail(RpcError{.message = status.error().Text()});
    needed_.empty() ? Run() : FetchNext();
  }

  Core& core_;
  RpcPtr rpc_;
  const Selection selection_;
  std::map<Key, std::string> entries_;  ///< of lists that were fetched, as XML
  std::vector<Need> needed_;
  int rounds_ = 0;
};

}  // namespace

void StartGet(Core& core, const RpcPtr& rpc, Selection selection) {
  std::make_shared<GetRequest>(core, rpc, std::move(selection))->Run();
}

}  // namespace cdbd
