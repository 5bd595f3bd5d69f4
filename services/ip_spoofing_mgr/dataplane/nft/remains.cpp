#include <algorithm>
#include <cerrno>
#include <memory>

#include "dataplane/nft/layout.h"
#include "dataplane/nft/netlink.h"
#include "dataplane/nft/nft_dataplane.h"
#include "dataplane/nft/table.h"

namespace mgr {
namespace {

/// At how many interfaces the table filters; those whose chains cannot be read count as one.
size_t BoundChains(const nft::Table& table) {
  const auto chains = table.Chains();
  if (!chains) return 1;
  return static_cast<size_t>(std::count_if(chains.value().begin(), chains.value().end(),
                                           [](const auto& chain) { return !chain.second.empty(); }));
}

}  // namespace

std::optional<Remains> FindNft(const DataplaneOptions& options) {
  auto opened = nft::Socket::Open();
  if (!opened) return std::nullopt;
  const auto socket = std::make_shared<nft::Socket>(std::move(opened).value());
  const auto names = nft::Table::Names(*socket);
  if (!names) return std::nullopt;
  std::vector<std::string> ours;
  Remains remains{.ports = 0, .where = {}, .obstacle = {}, .end = {}};
  for (const std::string& name : names.value()) {
    if (!name.starts_with(nft::TablePrefix(options.run_dir))) continue;
    ours.push_back(name);
    remains.where += (remains.where.empty() ? "table netdev " : ", table netdev ") + name;
    *remains.ports += BoundChains(nft::Table{*socket, name});
  }
  if (ours.empty()) return std::nullopt;
  remains.end = [socket, ours]() -> common::Status {
    for (const std::string& name : ours) {
      if (common::Status gone = nft::Table{*socket, name}.DeleteNow(); !gone) return gone;
    }
    return common::Ok();
  };
  return remains;
}

}  // namespace mgr
