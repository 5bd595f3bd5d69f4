#include "app/database_server.h"

#include <spdlog/spdlog.h>

#include "common/paths.h"
#include "edit/stored_check.h"
#include "northbound/server.h"
#include "ops/edit_operations.h"
#include "ops/read_operations.h"
#include "ops/schema_operations.h"
#include "ops/session_operations.h"
#include "programs/program_server.h"
#include "state/database_state.h"
#include "state/own_state.h"
#include "state/state_reader.h"

namespace cdbd {
/// Destroyed from the last to the first: what is under way ends while the operations and sessions it answers are there.
struct DatabaseServer::Parts {
  /// The operations, which work on all the rest.
  struct Serving {
    explicit Serving(Parts& parts)
        : operations{*parts.model},
          read{{*parts.model, *parts.store, *parts.netconf, parts.providers, parts.state}},
          edit{{*parts.model, *parts.store, parts.lock, parts.line, parts.subscriptions, *parts.netconf}},
          session{*parts.netconf, parts.lock},
          schema{*parts.model} {
      read.AddTo(&operations);
      edit.AddTo(&operations);
      session.AddTo(&operations);
      schema.AddTo(&operations);
    }
    Operations operations;
    ReadOperations read;
    EditOperations edit;
    SessionOperations session;
    SchemaOperations schema;
  };

  Parts(common::EventLoop& loop, const ServerOptions& options, std::unique_ptr<Model> loaded,
        std::unique_ptr<cdb_store::StoreWriter> opened)
      : model{std::move(loaded)},
        store{std::move(opened)},
        state{*model},
        subscriptions{loop, *store, options.subscriber_limit},
        providers{loop, store->schema(), options.provider_limit} {}

  std::unique_ptr<Model> model;
  std::unique_ptr<cdb_store::StoreWriter> store;
  std::unique_ptr<NetconfServer> netconf;
  RunningLock lock;
  CommitLine line;
  std::optional<Serving> serving;
  StateReader state;
  SubscriptionService subscriptions;
  ProviderService providers;
  std::unique_ptr<ProgramServer> programs;
};

DatabaseServer::DatabaseServer(std::unique_ptr<Parts> parts) : parts_{std::move(parts)} {}
DatabaseServer::~DatabaseServer() { parts_->netconf->DropSessions(); }

common::Result<std::unique_ptr<DatabaseServer>> DatabaseServer::Start(common::EventLoop& loop,
                                                                      const ServerOptions& options) {
  auto model = Model::Load(options.model);
  if (!model) return model.error();
  for (const std::string& dir : {options.run_dir, options.state_dir, options.state_dir + "/cdb"})
    if (const common::Status made = common::EnsurePrivateDir(dir); !made) return made.error();
  cdb_store::StoreOptions store_options;
  store_options.path = options.state_dir + "/cdb";
  store_options.identity_file = options.state_dir + "/cdb.identity";
  store_options.new_database = options.new_database;
  store_options.map_size = options.map_size;
  store_options.durable = options.durable;
  const cdb_store::ModelCheck check{model.value()->version(), [&model](const cdb_store::View& running) {
                                      return CheckStored(*model.value(), running);
                                    }};
  auto store = cdb_store::StoreWriter::Open(store_options, model.value()->schema(), "cdbd", check);
  if (!store) return store.error();
  if (store.value()->migrated()) spdlog::info("carried {} over to this data model", store.value()->path());

  auto parts = std::make_unique<Parts>(loop, options, std::move(model).value(), std::move(store).value());
  NetconfServer::Callbacks callbacks;  // called from the loop: `serving` is there by then
  callbacks.request = [&serving = parts->serving](const RpcPtr& rpc) { serving->operations.Dispatch(rpc); };
  callbacks.session_ended = [&serving = parts->serving](uint32_t session) { serving->session.OnSessionEnded(session); };
  auto netconf = NetconfServer::Listen(loop, options.run_dir + "/netconf.sock", options.netconf,
                                       Capabilities(*parts->model), std::move(callbacks));
  if (!netconf) return netconf.error();
  parts->netconf = std::move(netconf).value();
  parts->serving.emplace(*parts);
  AddOwnState(*parts->model, *parts->netconf, parts->lock, &parts->state);
  AddDatabaseState({*parts->model, *parts->store, parts->line, parts->subscriptions, parts->providers}, &parts->state);
  auto programs =
      ProgramServer::Listen(loop, options.run_dir + "/cdb.sock", *parts->store, parts->subscriptions, parts->providers);
  if (!programs) return programs.error();
  parts->programs = std::move(programs).value();
  if (parts->store->created()) spdlog::info("created {}, with an empty configuration", parts->store->path());
  spdlog::info("serving {} at transaction {}", parts->store->path(), parts->store->txid().number);
  return std::unique_ptr<DatabaseServer>{new DatabaseServer{std::move(parts)}};
}

}  // namespace cdbd
