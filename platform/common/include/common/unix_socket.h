#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <string>

#include "common/result.h"
#include "common/unique_fd.h"

namespace common {

/// A unix(7) address. Fails when the path does not fit (107 bytes).
Result<sockaddr_un> UnixAddress(const std::string& path);

/// A listening socket of `type` (SOCK_STREAM or SOCK_SEQPACKET), non-blocking, at `path` with access `mode`.
/// A path on which a process listens fails with EADDRINUSE; one left behind by a dead process is taken over.
Result<UniqueFd> ListenUnix(const std::string& path, int type, mode_t mode);

/// The next connection, non-blocking. An fd of -1 when none waits.
Result<UniqueFd> AcceptUnix(int listener);

/// A connected socket; `type` may carry SOCK_NONBLOCK, which takes effect after the connection is made.
Result<UniqueFd> ConnectUnix(const std::string& path, int type);

/// The peer's process and user as of its connect(2) (SO_PEERCRED).
Result<ucred> PeerCredentials(int fd);

}  // namespace common
