// Subscriptions and difference walks of the scripted database, as the client library's calls.
#include <cstdarg>
#include <cstdio>

#include "fakes/fake_cdb.h"
#include "fakes/keypath.h"
#include "fakes/script.h"
#include "fakes/trace.h"

namespace {

void Add(std::string line) { fakes::TheTrace().Add(fakes::Kind::kSubscription, std::move(line)); }

bool LiesBelow(const std::string& path, const std::string& top) { return path.starts_with(top + "/"); }

std::string ParentOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

}  // namespace

int cdb_subscribe_n(int /*nargs*/, int sock, int priority, unsigned int ns_hash, int* spoint, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char path[1024];
  std::vsnprintf(path, sizeof path, fmt, args);
  va_end(args);
  Add(fakes::Format("cdb_subscribe %d priority %d 0x%x %s", sock, priority, ns_hash, path));
  const int result = fakes::ScriptedResult("cdb_subscribe", {path});
  if (result != CONFD_OK) return result;
  fakes::Cdb& cdb = fakes::TheCdb();
  *spoint = cdb.next_point++;
  cdb.subscriptions.push_back({sock, priority, ns_hash, path, *spoint});
  return CONFD_OK;
}

int cdb_subscribe_done(int sock) {
  Add(fakes::Format("cdb_subscribe_done %d", sock));
  return fakes::ScriptedResult("cdb_subscribe_done");
}

int cdb_read_subscription_socket(int sock, int points[], int* count) {
  Add(fakes::Format("cdb_read_subscription_socket %d", sock));
  const int result = fakes::ScriptedResult("cdb_read_subscription_socket");
  if (result != CONFD_OK) return result;
  *count = fakes::ScriptedResult("subscription count");
  auto& messages = fakes::TheCdb().messages;
  if (messages.empty()) return CONFD_OK;
  for (const int point : messages.front()) points[(*count)++] = point;
  messages.pop_front();
  return CONFD_OK;
}

int cdb_sync_subscription_socket(int sock, cdb_subscription_sync_type type) {
  Add(fakes::Format("cdb_sync_subscription_socket %d %d", sock, type));
  return fakes::ScriptedResult("cdb_sync_subscription_socket");
}

int cdb_diff_iterate(int sock, int subid, cdb_iter_fn iter, int flags, void* state) {
  Add(fakes::Format("cdb_diff_iterate %d point %d flags %d", sock, subid, flags));
  const std::string call = fakes::Format("%d %d", subid, flags);
  if (const int result = fakes::ScriptedResult("cdb_diff_iterate", {call}); result != CONFD_OK) return result;
  std::string skipped;  // what lies below it is not visited
  for (const fakes::Change& change : fakes::TheCdb().changes[subid]) {
    if (change.ancestor && (flags & ITER_WANT_ANCESTOR_DELETE) == 0) continue;
    if (!skipped.empty() && LiesBelow(change.path, skipped)) continue;
    fakes::Keypath keypath(change.path);
    const confd_iter_ret answer = iter(keypath.Get(), change.op, nullptr, nullptr, state);
    fakes::TheTrace().Add(fakes::Kind::kRead,
                          fakes::Format("iter %s op %d = %d", change.path.c_str(), change.op, answer));
    if (answer == ITER_STOP) return fakes::ScriptedResult("ITER_STOP");
    if (answer == ITER_CONTINUE) skipped = change.path;
    if (answer == ITER_UP) skipped = ParentOf(change.path);
    if (answer == ITER_RECURSE) skipped.clear();
  }
  return CONFD_OK;
}
