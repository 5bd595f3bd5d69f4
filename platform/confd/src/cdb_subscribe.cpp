// Subscriptions: points, messages and their acknowledgement, and the walk of what changed.
#include <algorithm>
#include <cstdarg>

#include "cdb_store/path.h"
#include "client.h"
#include "diff_walk.h"
#include "path_format.h"
#include "target.h"

using cdb_store::Schema;
using cdb_store::SubscriptionTarget;
using confd::CdbSocket;
using confd::Client;
using confd::Fail;
using confd::FailPath;

namespace {

std::string Name(int sock) { return "socket " + std::to_string(sock); }

/// The node and keys of a subscribed path. Keys may be left out from some list on; positions may change and are
/// refused.
int ResolveSubscription(const Schema& schema, int ns, std::string_view path, SubscriptionTarget& target) {
  if (path == "/") return CONFD_OK;
  const auto found = cdb_store::LocatePath(schema, path, ns);
  if (!found) return Fail(CONFD_ERR_BADPATH, found.error().Text());
  if (!found.value().node->config) {
    return FailPath(CONFD_ERR_BADPATH, path, "is operational data, which has no commits");
  }
  target.node = found.value().node->id;
  target.keys = found.value().keys;
  return CONFD_OK;
}

int NamespaceIndex(const Schema& schema, unsigned ns_hash, int& ns) {
  if (ns_hash == 0) return CONFD_OK;
  ns = schema.FindNamespace(ns_hash);
  if (ns < 0) return Fail(CONFD_ERR_NOEXISTS, "no module has the namespace hash " + std::to_string(ns_hash));
  return CONFD_OK;
}

}  // namespace

int cdb_subscribe_n(int nargs, int sock, int priority, unsigned int ns_hash, int* spoint, const char* fmt, ...) {
  CdbSocket* const socket = Client::Get().Find(sock, CDB_SUBSCRIPTION_SOCKET);
  if (socket == nullptr) return CONFD_ERR;
  if (socket->subscribed) {
    return Fail(CONFD_ERR_BADSTATE, Name(sock) + ": cdb_subscribe() comes before cdb_subscribe_done()");
  }
  if (spoint == nullptr) return Fail(CONFD_ERR_PROTOUSAGE, "the point's destination is a null pointer");
  std::string buffer;
  va_list args;
  va_start(args, fmt);
  const auto path = confd::FormatPath(buffer, nargs, fmt, args);
  va_end(args);
  if (!path) return CONFD_ERR;
  const Schema& schema = *Client::Get().schema();
  int ns = -1;
  if (const int result = NamespaceIndex(schema, ns_hash, ns); result != CONFD_OK) return result;
  confd::Point point;
  if (const int result = ResolveSubscription(schema, ns, *path, point.target); result != CONFD_OK) return result;

  confd_wire::Subscribe request;
  request.priority = priority;
  request.ns_hash = ns_hash;
  request.node = point.target.node;
  request.keys = point.target.keys;
  request.path = *path;
  request.schema = schema.Fingerprint();
  confd_wire::SubscribeReply reply;
  if (const int result = socket->connection->Call(request, reply); result != CONFD_OK) return result;
  if (!reply.error.empty()) return Fail(CONFD_ERR_EXTERNAL, reply.error);
  point.id = reply.point;
  socket->points.push_back(std::move(point));
  *spoint = reply.point;
  return CONFD_OK;
}

int cdb_subscribe_done(int sock) {
  CdbSocket* const socket = Client::Get().Find(sock, CDB_SUBSCRIPTION_SOCKET);
  if (socket == nullptr) return CONFD_ERR;
  if (socket->subscribed) return Fail(CONFD_ERR_BADSTATE, Name(sock) + ": cdb_subscribe_done() was called before");
  confd_wire::SubscribeDoneReply reply;
  if (const int result = socket->connection->Call(confd_wire::SubscribeDone{}, reply); result != CONFD_OK)
    return result;
  if (!reply.error.empty()) return Fail(CONFD_ERR_EXTERNAL, reply.error);
  socket->subscribed = true;
  return CONFD_OK;
}

int cdb_read_subscription_socket(int sock, int points[], int* count) {
  CdbSocket* const socket = Client::Get().Find(sock, CDB_SUBSCRIPTION_SOCKET);
  if (socket == nullptr) return CONFD_ERR;
  if (!socket->subscribed) return Fail(CONFD_ERR_BADSTATE, Name(sock) + ": cdb_subscribe_done() was not called");
  if (points == nullptr || count == nullptr) {
    return Fail(CONFD_ERR_PROTOUSAGE, "the points' destination is a null pointer");
  }
  socket->message.reset();
  std::string packet;
  if (const int result = socket->connection->Receive(packet); result != CONFD_OK) return result;
  const auto trigger = confd_wire::Decode<confd_wire::Trigger>(packet);
  if (!trigger || trigger->points.size() > socket->points.size()) return socket->connection->FailProtocol();
  confd::Message message;
  message.txid = trigger->txid;
  message.priority = trigger->priority;
  if (const int result = Client::Get().TakeSnapshotOf(trigger->txid, message.snapshot); result != CONFD_OK) {
    return result;
  }
  socket->message = std::move(message);
  socket->unfinished = trigger->more ? trigger->txid : 0;
  std::ranges::copy(trigger->points, points);
  *count = static_cast<int>(trigger->points.size());
  return CONFD_OK;
}

int cdb_sync_subscription_socket(int sock, cdb_subscription_sync_type type) {
  CdbSocket* const socket = Client::Get().Find(sock, CDB_SUBSCRIPTION_SOCKET);
  if (socket == nullptr) return CONFD_ERR;
  if (type != CDB_DONE_PRIORITY && type != CDB_DONE_SOCKET) {
    return Fail(CONFD_ERR_PROTOUSAGE, "unknown kind of acknowledgement: " + std::to_string(type));
  }
  if (!socket->message) return Fail(CONFD_ERR_BADSTATE, Name(sock) + " has no message to acknowledge");
  confd_wire::Sync sync;
  sync.txid = socket->message->txid;
  sync.priority = socket->message->priority;
  sync.kind = type == CDB_DONE_PRIORITY ? confd_wire::SyncKind::kDonePriority : confd_wire::SyncKind::kDoneSocket;
  socket->message.reset();  // before the server may go on
  return socket->connection->Send(confd_wire::Encode(sync));
}

int cdb_diff_iterate(int sock, int subid, cdb_iter_fn iter, int flags, void* state) {
  CdbSocket* const socket = Client::Get().Find(sock, CDB_SUBSCRIPTION_SOCKET);
  if (socket == nullptr) return CONFD_ERR;
  if (!socket->message) return Fail(CONFD_ERR_BADSTATE, Name(sock) + " has no message whose changes could be walked");
  if (iter == nullptr) return Fail(CONFD_ERR_PROTOUSAGE, "the iterator is a null pointer");
  const auto point = std::ranges::find(socket->points, subid, &confd::Point::id);
  if (point == socket->points.end()) {
    return Fail(CONFD_ERR_NOEXISTS, Name(sock) + " has no subscription point " + std::to_string(subid));
  }
  const confd::Message message = *socket->message;  // the iterator may end it
  if (message.snapshot->diff_of() != message.txid) {
    return Fail(CONFD_ERR_BADSTATE,
                "the changes of commit " + std::to_string(message.txid) + " are no longer kept: its delivery is over");
  }
  confd::DiffWalk walk(message.snapshot->Diff(), point->target, {iter, flags, state});
  return walk.Run();
}
