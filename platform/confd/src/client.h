#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cdb_store/store_reader.h"
#include "confd_cdb.h"
#include "connection.h"
#include "path_memo.h"

/// The CDB side of the process: its sockets, and the store they read.
namespace confd {

/// The message of a subscription socket between reading and acknowledging it. All sessions that start meanwhile share
/// its snapshot, so that running, the state before the commit and the difference agree whatever the server does.
struct Message {
  uint64_t txid = 0;
  int priority = 0;
  std::shared_ptr<cdb_store::Snapshot> snapshot;
};

/// A read session.
struct Session {
  std::shared_ptr<cdb_store::Snapshot> snapshot;
  cdb_store::View view;
  int ns = -1;                                                 ///< index of the namespace of bare names, -1: none set
  std::vector<std::unique_ptr<cdb_store::RowCursor>> cursors;  ///< positions, one for each list that was walked
  PathMemo memo;
  std::optional<common::Error> store_failed;  ///< the first read that the store could not serve: all later ones fail
};

struct Point {
  int id = 0;
  cdb_store::SubscriptionTarget target;
};

struct CdbSocket {
  std::shared_ptr<Connection> connection;
  cdb_sock_type type = CDB_READ_SOCKET;
  int ns = -1;  ///< survives from session to session
  std::optional<Session> session;
  std::vector<Point> points;
  bool subscribed = false;  ///< cdb_subscribe_done() succeeded
  std::optional<Message> message;
  /// The commit that is not wholly handled here: a message of a later priority is still to come, or the server dropped
  /// this subscriber before it was done. 0: none.
  uint64_t unfinished = 0;
};

/// Never destroyed: fatal faults end the process from inside callbacks. A forked child gets a new, empty one: the
/// store's environment and the sockets are the parent's.
class Client final {
 public:
  static Client& Get();

  /// The socket's state. Null, with the last error set, when it is no CDB socket of this process or not of `type`.
  CdbSocket* Find(int sock);
  CdbSocket* Find(int sock, cdb_sock_type type);
  int Connect(int sock, cdb_sock_type type, const sockaddr* server, int server_size, std::string name);
  void Drop(int sock);

  /// The snapshot that a session starting now shows: the handled message's, else the state of this moment. It keeps the
  /// store open.
  int TakeSnapshot(std::shared_ptr<cdb_store::Snapshot>& snapshot);
  /// A snapshot at or after commit `txid`.
  int TakeSnapshotOf(uint64_t txid, std::shared_ptr<cdb_store::Snapshot>& snapshot);
  /// The last commit that this process has been told of to the end, for a program that looks at commit `txid`: the one
  /// before while a subscription socket is not done with it. A program that remembers it and loses its connection in
  /// the middle of a commit then sees that it has missed something.
  uint64_t WhollyDelivered(uint64_t txid);

  [[nodiscard]] const std::string& primary() const { return reader_->primary(); }
  /// The data model, for texts of keypaths. Null before the first connection.
  [[nodiscard]] const cdb_store::Schema* schema() const { return reader_ ? &reader_->schema() : nullptr; }
  /// Makes the store readable after a hello told where it is. Data-provider connections use it for the data model.
  int OpenStore(const confd_wire::HelloReply& hello);

 private:
  Client();
  /// Ends the message of a subscriber whom the server has dropped: it is nobody's any more.
  static void ForgetMessageIfDropped(CdbSocket& socket);
  int TakeFresh(std::shared_ptr<cdb_store::Snapshot>& snapshot);

  std::vector<std::unique_ptr<CdbSocket>> sockets_;  ///< by descriptor
  std::shared_ptr<cdb_store::StoreReader> reader_;
  uint64_t server_instance_ = 0;
};

}  // namespace confd
