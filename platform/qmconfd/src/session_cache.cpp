#include "session_cache.h"

#include <poll.h>

#include <utility>

namespace qmconfd {
namespace {

constexpr size_t kMostIdle = 4;
constexpr int kTimeOfNewConnection = 20;  // seconds; see cdb_set_timeout()

/// An idle connection has nothing to say: whatever is there is its end.
bool IsUsable(int sock) {
  pollfd polled{sock, POLLIN | POLLRDHUP, 0};
  return ::poll(&polled, 1, 0) == 0;
}

}  // namespace

SessionCache& SessionCache::Instance() {
  static auto* cache = new SessionCache;  // sessions may end in exit handlers
  return *cache;
}

CdbSocket SessionCache::TakeIdle() {
  while (!idle_.empty()) {
    CdbSocket sock = std::move(idle_.back());
    idle_.pop_back();
    if (IsUsable(sock.get())) return sock;
  }
  return {};
}

int SessionCache::Start(const std::string& name, cdb_db_type db, bool reuse) {
  if (reuse) {
    CdbSocket sock = TakeIdle();
    // The time limit that an earlier session set on the connection must not last: this one starts with a new one's.
    if (sock.get() >= 0 && ::cdb_set_timeout(sock.get(), kTimeOfNewConnection) == CONFD_OK &&
        ::cdb_start_session(sock.get(), db) == CONFD_OK) {
      reusable_.insert(sock.get());
      return sock.release();
    }
  }
  auto connected = ConnectCdb(CDB_READ_SOCKET, name);
  if (!connected) return -1;
  CdbSocket sock = std::move(connected).value();
  if (::cdb_start_session(sock.get(), db) != CONFD_OK) return -1;
  if (reuse) reusable_.insert(sock.get());
  return sock.release();
}

void SessionCache::Finish(int sock) {
  if (sock < 0) return;
  CdbSocket owned{sock};
  const bool ended = ::cdb_end_session(sock) == CONFD_OK;
  if (reusable_.erase(sock) > 0 && ended && idle_.size() < kMostIdle) idle_.push_back(std::move(owned));
}

void SessionCache::Clear() { idle_.clear(); }

}  // namespace qmconfd
