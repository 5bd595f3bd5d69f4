#pragma once

#include <string>

#include "common/result.h"

/// Where an element keeps its files. Both directories default to the system's places as root and to the user's own
/// otherwise; the environment moves them, so that any number of elements run side by side.
namespace common {

inline constexpr const char* kRunDirVariable = "IP_SPOOFING_RUN_DIR";
inline constexpr const char* kStateDirVariable = "IP_SPOOFING_STATE_DIR";
inline constexpr const char* kModelsDirVariable = "IP_SPOOFING_MODELS_DIR";

/// Sockets and runtime state: the variable, else /run/ip-spoofing as root, else $XDG_RUNTIME_DIR/ip-spoofing, else
/// /tmp/ip-spoofing-<uid>. No trailing slash; may not exist yet.
std::string RunDir();
/// The database and other durable state: the variable, else /var/lib/ip-spoofing as root, else
/// $XDG_STATE_HOME/ip-spoofing, else $HOME/.local/state/ip-spoofing.
std::string StateDir();

std::string CdbSocketPath();         ///< cdbd's socket for ConfD clients
std::string NetconfSocketPath();     ///< cdbd's NETCONF socket
std::string MgrSocketPath();         ///< the manager's socket for its clients
std::string MgrControlSocketPath();  ///< the manager's control socket
std::string FaultFilePath();         ///< one JSON record per line, by every process; at 1 MiB it moves to ".0"
std::string CdbStorePath();          ///< directory of the LMDB environment

/// The YANG modules: the variable, else share/ip-spoofing/models in the nearest folder above this executable that has
/// it (an installation's prefix and a build tree alike). Empty when there is none.
std::string ModelsDir();

/// Creates the directory and its parents (mode 0755, the last one 0750) if it does not exist, and checks that this
/// process can write to it.
Status EnsureDir(const std::string& path);

/// EnsureDir() for a directory whose files this process relies on. Fails if it belongs to another user than root or
/// this process's own, or if everyone may write to it, sticky or not: others could then put their own sockets and files
/// under the names that are used here. Members of the group are trusted.
Status EnsurePrivateDir(const std::string& path);

}  // namespace common
