#include "app/database_server.h"

#include <spdlog/spdlog.h>

#include "common/paths.h"
#include "edit/stored_check.h"
#include "northbound/server.h"
#include "ops/operations.h"
#include "programs/program_server.h"
#include "state/database_state.h"
#include "state/own_state.h"
#include "state/state_reader.h"

namespace cdbd {
/// In the order of construction; requests that are under way go before the sessions they would answer.
struct DatabaseServer::Parts {
  Parts(common::EventLoop& loop, const ServerOptions& options, std::unique_ptr<Model> loaded,
        std::unique_ptr<cdb_store::StoreWriter> opened)
      : model{std::move(loaded)},
        store{std::move(opened)},
        state{*model},
        subscriptions{loop, *store, options.subscriber_limit},
        providers{loop, store->schema(), options.provider_limit} {
    core = std::make_unique<Core>(loop, *model, *store);
  }

  std::unique_ptr<Model> model;
  std::unique_ptr<cdb_store::StoreWriter> store;
  std::unique_ptr<NetconfServer> netconf;
  StateReader state;
  SubscriptionService subscriptions;
  ProviderService providers;
  std::unique_ptr<ProgramServer> programs;
  std::unique_ptr<Core> core;
};

DatabaseServer::DatabaseServer(std::unique_ptr<Parts> parts) : parts_{std::move(parts)} {}
DatabaseServer::~DatabaseServer() { parts_->netconf->DropSessions(); }

common::Result<std::unique_ptr<DatabaseServer>> DatabaseServer::Start(common::EventLoop& loop,
                                                                      const ServerOptions& options) {
  auto model = Model::Load(options.model);
  if (!model) return model.error();
  for (const std::string& dir : {options.run_dir, options.state_dir, options.state_dir + "/cdb"})
    if (const common::Status made = common::EnsureDir(dir); !made) return made.error();
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
  Core& core = *parts->core;
  core.delivery = &parts->subscriptions;
  core.providers = &parts->providers;
  core.state = &parts->state;
  AddOwnState(core, &parts->state);
  AddDatabaseState(core, parts->subscriptions, parts->providers, &parts->state);
  NetconfServer::Callbacks callbacks;
  callbacks.request = [&core](const RpcPtr& rpc) { Dispatch(core, rpc); };
  callbacks.session_ended = [&core](uint32_t session) { OnSessionEnded(core, session); };
  auto netconf = NetconfServer::Listen(loop, options.run_dir + "/netconf.sock", options.netconf,
                                       Capabilities(core.model), std::move(callbacks));
  if (!netconf) return netconf.error();
  parts->netconf = std::move(netconf).value();
  core.netconf = parts->netconf.get();
  auto programs =
      ProgramServer::Listen(loop, options.run_dir + "/cdb.sock", core.store, parts->subscriptions, parts->providers);
  if (!programs) return programs.error();
  parts->programs = std::move(programs).value();
  if (core.store.created()) spdlog::info("created {}, with an empty configuration", core.store.path());
  spdlog::info("serving {} at transaction {}", core.store.path(), core.store.txid().number);
  return std::unique_ptr<DatabaseServer>{new DatabaseServer{std::move(parts)}};
}

}  // namespace cdbd
