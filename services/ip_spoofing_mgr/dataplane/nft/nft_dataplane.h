#pragma once

#include <memory>

#include "dataplane/dataplane.h"

namespace mgr {

/// The plane of a netdev table of nf_tables, for systems without tcx and for processes without privilege in namespaces
/// of their own (needs CAP_NET_ADMIN over the network namespace alone). The table stays when the process ends, however
/// it ends, and the next process on the same run directory takes over.
///
/// A call is one transaction per step of Changes where the process may send it at once, else several, each of which
/// widens before anything narrows. It counts per port and reason; it has no table of violators and no drop events.
/// Which frames it judges unlike the verdict table: dataplane/nft/port_rules.h.
common::Result<std::unique_ptr<Dataplane>> OpenNft(const DataplaneOptions& options);

/// The tables of the run directory in this network namespace. None without CAP_NET_ADMIN, which it takes to see them.
std::optional<Remains> FindNft(const DataplaneOptions& options);

}  // namespace mgr
