/// @file fake_cdb.h
/// The scripted configuration database: a tree per datastore, sessions, subscriptions and difference walks.
///
/// Scripted answers (see script.h) stand before everything that the database would work out:
///   "cdb_exists PATH", "cdb_num_instances PATH", "cdb_get_str PATH", ... or with the datastore, "cdb_exists running
///   PATH": returned without touching the destination; "cdb_get_txid", "cdb_set_namespace";
///   "session running" or "session pre-commit": -1 makes the session's socket -1;
///   "Socket running" or "Socket pre-commit": what a session that started says its socket is;
///   "cdb_subscribe PATH", "cdb_subscribe_done", "cdb_read_subscription_socket", "cdb_sync_subscription_socket";
///   "cdb_diff_iterate POINT FLAGS" ("cdb_diff_iterate 1 18"): returned without a walk;
///   "subscription count": the number of points that a message says it has;
///   "ITER_STOP": what a walk returns that an iterator ended.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "confd_cdb.h"
#include "fakes/cdb_schema.h"

namespace fakes {

/// A container, list instance or leaf that exists.
struct CdbNode {
  const SchemaNode* schema = nullptr;
  std::vector<std::string> keys;  ///< of a list instance
  std::string value;              ///< of a leaf: text, or the bytes of a C_BINARY
  std::vector<CdbNode> children;  ///< list instances stand in the order of their keys

  std::vector<const CdbNode*> Instances(const SchemaNode* list) const;
  bool HasContent() const;
};

/// One change that a difference walk reports.
struct Change {
  confd_iter_op op;
  std::string path;
  bool ancestor = false;  ///< above the subscribed path: reported only with ITER_WANT_ANCESTOR_DELETE
};

struct Subscription {
  int sock;
  int priority;
  unsigned int ns_hash;
  std::string path;
  int point;
};

class Cdb {
 public:
  // -------------------------------------------------------------------------------------------------- contents
  /// Creates the node and everything above it; a list instance gets its key leaves. "/config/.../interface{eth3}".
  void Put(cdb_db_type db, const std::string& path);
  /// The same for a leaf with a value: text as an operator writes it; a C_BINARY as "02:00:00:00:00:01".
  void Put(cdb_db_type db, const std::string& path, const std::string& value);
  void Remove(cdb_db_type db, const std::string& path);
  /// Makes one datastore a copy of another: CopyTo(CDB_RUNNING, CDB_PRE_COMMIT_RUNNING) before a commit is made up.
  void Copy(cdb_db_type from, cdb_db_type to) { trees_[to] = trees_[from]; }
  /// The node; null when it does not exist or the path is not one.
  const CdbNode* Find(cdb_db_type db, const std::vector<PathStep>& steps) const;
  const CdbNode* Root(cdb_db_type db) const;

  // -------------------------------------------------------------------------------------------------- sessions
  struct Session {
    cdb_db_type db = CDB_RUNNING;
    bool started = false;
    std::optional<int> ns_hash;
    int timeout_secs = 0;
  };
  /// What the wrapper's session class does; the socket, or -1 when scripted to fail.
  int OpenSession(cdb_db_type db);
  void CloseSession(int sock);
  std::map<int, Session> sessions;  ///< by socket
  int next_socket = 101;            ///< of the next session

  cdb_txid txid = {1, 2, 3, "primary"};

  // --------------------------------------------------------------------------------------------- subscriptions
  std::vector<Subscription> subscriptions;     ///< in the order they were made
  int next_point = 1;                          ///< the point of the next subscription
  std::deque<std::vector<int>> messages;       ///< triggered points, one message each, read one after the other
  std::map<int, std::vector<Change>> changes;  ///< what a walk reports, by point

 private:
  CdbNode* Make(cdb_db_type db, const std::string& path);
  std::map<cdb_db_type, CdbNode> trees_;
};

Cdb& TheCdb();

/// "running", "pre-commit", ...
const char* DbName(cdb_db_type db);

}  // namespace fakes
