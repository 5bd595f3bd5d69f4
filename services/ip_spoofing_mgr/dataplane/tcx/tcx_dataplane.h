#pragma once

#include <memory>

#include "dataplane/dataplane.h"

namespace mgr {

/// The plane of a program at the tcx ingress hook of every enabled port (Linux 6.6 or later; CAP_BPF, CAP_NET_ADMIN,
/// CAP_PERFMON, and CAP_SYS_ADMIN where `<run directory>/bpf` is not a mounted bpffs yet). Maps and attachments are
/// pinned there: enforcement goes on when the process ends, however it ends, and the next process takes over.
///
/// Writes to the entry map are single steps per entry; the filter of an interface is attached after its entries are in
/// place. Interface indexes from 65536 on are refused.
///
/// Opening loads the program, next to whatever an earlier process left running.
common::Result<std::unique_ptr<Dataplane>> OpenTcx(const DataplaneOptions& options);

/// What is pinned in the bpffs of the run directory. Also where its owner alone may look.
std::optional<Remains> FindTcx(const DataplaneOptions& options);

}  // namespace mgr
