#include "ops/get_request.h"

#include <map>
#include <utility>

#include "read/data_writer.h"
#include "read/provided_row.h"
#include "read/read_plan.h"
#include "read/stored_data.h"

namespace cdbd {
namespace {

constexpr int kMaxPlans = 16;

/// The top of everything that can be read: the configuration, and the server's own state.
class WholeInstance final : public DataInstance {
 public:
  WholeInstance(const StoredInstance& stored, const StateReader& state) : stored_{stored}, state_{state} {}

  [[nodiscard]] std::optional<std::string_view> Leaf(const Node& leaf, std::string* buffer) const override {
    return stored_.Leaf(leaf, buffer);
  }
  void LeafList(const Node& list, VisitText visit) const override { stored_.LeafList(list, visit); }
  [[nodiscard]] bool HasEntry(const Node& list, std::string_view text) const override {
    return stored_.HasEntry(list, text);
  }
  void Instances(const Node& node, const std::vector<EntryKeys>* named, VisitInstance visit) const override {
    if (!state_.Visit(node, visit)) stored_.Instances(node, named, visit);
  }

 private:
  const StoredInstance& stored_;
  const StateReader& state_;
};

/// One <get> under way. Keeps itself alive through the fetch it waits for.
class GetRequest final : public WrittenLists, public std::enable_shared_from_this<GetRequest> {
 public:
  GetRequest(const ReadSources& sources, RpcPtr rpc, Selection selection)
      : sources_{sources}, rpc_{std::move(rpc)}, selection_{std::move(selection)}, writer_{sources_.model, this} {}

  /// Fetches what is missing, or writes the reply. A configuration that changed during a fetch may need other lists.
  void Run() {
    const auto snapshot = sources_.store.Take();
    if (!snapshot) return Fail(snapshot.error());
    const cdb_store::View running = snapshot.value()->Running();
    const common::Status planned = ReadStored(running, [this](const StoredInstance& root) {
      for (NeededList& needed : PlanRead(sources_.model.schema(), root, selection_))
        if (!entries_.contains({needed.list->id, needed.parent_keys})) missing_.push_back(std::move(needed));
    });
    if (!planned) return Fail(planned.error());
    if (missing_.empty()) return Write(running);
    if (plans_++ == kMaxPlans)
      return rpc_->Fail(RpcError{.message = "the configuration changes faster than it can be read"});
    FetchNext();
  }

  [[nodiscard]] const std::string* Entries(const cdb_store::Node& list, std::string_view parent_keys) const override {
    const auto found = entries_.find({list.id, std::string{parent_keys}});
    return found == entries_.end() ? nullptr : &found->second;
  }

 private:
  using Key = std::pair<cdb_store::NodeId, std::string>;

  void FetchNext() {
    const NeededList needed = std::move(missing_.back());
    missing_.pop_back();
    std::string& entries = entries_[{needed.list->id, needed.parent_keys}];  // stays where it is
    // A client that asks for everything gets what is served.
    if (selection_.all && !sources_.providers.Serves(needed.list->callpoint)) return OnEntries(common::Ok());
    const SessionInfo* session = sources_.netconf.Find(rpc_->session());
    if (session == nullptr) return;
    Providers::Request request;
    request.list = needed.list;
    request.parent_keys = needed.parent_keys;
    request.user = session->user;
    request.wanted = [&netconf = sources_.netconf, id = session->id] { return netconf.Find(id) != nullptr; };
    request.take = [self = shared_from_this(), needed, &entries](const ProvidedRow& row) {
      self->writer_.WriteEntry(*needed.list, ProvidedInstance{row}, needed.candidates, &entries);
    };
    sources_.providers.Fetch(std::move(request),
                             [self = shared_from_this()](const common::Status& status) { self->OnEntries(status); });
  }

  void OnEntries(const common::Status& status) {
    if (!status) return Fail(status.error());
    missing_.empty() ? Run() : FetchNext();
  }

  void Write(const cdb_store::View& running) {
    std::string data{"<data>"};
    const common::Status written = ReadStored(running, [&](const StoredInstance& root) {
      writer_.Write(WholeInstance{root, sources_.state}, selection_, &data);
    });
    if (!written) return Fail(written.error());
    data += "</data>";
    rpc_->Content(data);
  }

  void Fail(const common::Error& error) { rpc_->Fail(RpcError{.message = error.Text()}); }

  const ReadSources sources_;
  RpcPtr rpc_;
  const Selection selection_;
  const DataWriter writer_;
  std::map<Key, std::string> entries_;  ///< of lists that were fetched, as XML
  std::vector<NeededList> missing_;
  int plans_ = 0;
};

}  // namespace

void StartGet(const ReadSources& sources, const RpcPtr& rpc, Selection selection) {
  std::make_shared<GetRequest>(sources, rpc, std::move(selection))->Run();
}

}  // namespace cdbd
