#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cdb_store/value.h"

/// What the client library and the server say to each other: one packet of a unix(7) SOCK_SEQPACKET connection is one
/// message. Reads never travel; they go to the store. Each struct lists its fields once, for both directions
/// (common/codec.h).
namespace confd_wire {

inline constexpr uint32_t kProtocolVersion = 3;
/// Longest packet, bytes; well below the default send buffer, which bounds a packet.
inline constexpr size_t kMaxMessage = 128 * 1024;

enum class MessageType : uint16_t {
  kHello = 1,
  kHelloReply,
  kSubscribe,
  kSubscribeReply,
  kSubscribeDone,
  kSubscribeDoneReply,
  kTrigger,
  kSync,
  kRegister,
  kRegisterReply,
  kTransInit,
  kTransInitReply,
  kTransFinish,
  kReadRows,
  kRows,
  kReadFailed
};

enum class ClientKind : uint8_t { kRead = 1, kSubscription = 2, kControl = 3, kWorker = 4 };

/* ------------------------------------------------------------ connections -- */

/// Client: the first message of every connection.
struct Hello {
  static constexpr MessageType kType = MessageType::kHello;
  uint32_t version = kProtocolVersion;
  ClientKind kind = ClientKind::kRead;
  std::string name;        ///< of the client, or of the daemon context
  uint64_t daemon_id = 0;  ///< worker: what the control connection's hello got
  template <class A>
  void Fields(A& a) {
    a(version, kind, name, daemon_id);
  }
};

struct HelloReply {
  static constexpr MessageType kType = MessageType::kHelloReply;
  uint32_t version = kProtocolVersion;
  std::string error;  ///< not empty: refused, and the server closes the connection
  std::string store_path;
  uint64_t server_instance = 0;  ///< differs after a restart of the server
  uint64_t id = 0;               ///< control: the daemon's; worker: the worker's
  template <class A>
  void Fields(A& a) {
    a(version, error, store_path, server_instance, id);
  }
};

/* ---------------------------------------------------------- subscriptions -- */

/// Client, on a subscription connection: one point.
struct Subscribe {
  static constexpr MessageType kType = MessageType::kSubscribe;
  int32_t priority = 0;
  uint32_t ns_hash = 0;
  uint16_t node = 0;    ///< node id of the subscribed path
  std::string keys;     ///< encoded keys of its first lists (cdb_store::SubscriptionTarget)
  std::string path;     ///< as text, for people
  uint64_t schema = 0;  ///< fingerprint of the schema that `node` is an id of
  template <class A>
  void Fields(A& a) {
    a(priority, ns_hash, node, keys, path, schema);
  }
};

struct SubscribeReply {
  static constexpr MessageType kType = MessageType::kSubscribeReply;
  std::string error;
  int32_t point = 0;  ///< greater than 0, never used twice by one server instance
  template <class A>
  void Fields(A& a) {
    a(error, point);
  }
};

/// Client: no further points; triggers may come from now on.
struct SubscribeDone {
  static constexpr MessageType kType = MessageType::kSubscribeDone;
  template <class A>
  void Fields(A&) {}
};

struct SubscribeDoneReply {
  static constexpr MessageType kType = MessageType::kSubscribeDoneReply;
  std::string error;
  template <class A>
  void Fields(A& a) {
    a(error);
  }
};

/// Server: a commit changed something for these points of one priority. Answered by Sync.
struct Trigger {
  static constexpr MessageType kType = MessageType::kTrigger;
  uint64_t txid = 0;  ///< number of the commit (cdb_store::Txid::number)
  int32_t priority = 0;
  std::vector<int32_t> points;
  bool more = false;  ///< points of a later priority follow in a message of their own
  template <class A>
  void Fields(A& a) {
    a(txid, priority, points, more);
  }
};

enum class SyncKind : uint8_t { kDonePriority = 1, kDoneSocket = 2 };

/// Client: the message of that commit and priority is handled. Not answered.
struct Sync {
  static constexpr MessageType kType = MessageType::kSync;
  uint64_t txid = 0;
  int32_t priority = 0;
  SyncKind kind = SyncKind::kDonePriority;
  template <class A>
  void Fields(A& a) {
    a(txid, priority, kind);
  }
};

/* ---------------------------------------------------------- data provider -- */

struct CallpointRegistration {
  std::string name;
  bool get_next = false;
  bool get_object = false;
  template <class A>
  void Fields(A& a) {
    a(name, get_next, get_object);
  }
};

/// Client, on the control connection: everything it provides. A second one replaces the first.
struct Register {
  static constexpr MessageType kType = MessageType::kRegister;
  std::vector<CallpointRegistration> callpoints;
  template <class A>
  void Fields(A& a) {
    a(callpoints);
  }
};

struct RegisterReply {
  static constexpr MessageType kType = MessageType::kRegisterReply;
  std::string error;
  template <class A>
  void Fields(A& a) {
    a(error);
  }
};

/// Server, on the control connection: a transaction begins.
struct TransInit {
  static constexpr MessageType kType = MessageType::kTransInit;
  int32_t thandle = 0;
  std::string user;
  template <class A>
  void Fields(A& a) {
    a(thandle, user);
  }
};

/// Client, on the control connection. Requests of the transaction go to the worker named here.
struct TransInitReply {
  static constexpr MessageType kType = MessageType::kTransInitReply;
  int32_t thandle = 0;
  std::string error;
  uint64_t worker_id = 0;
  template <class A>
  void Fields(A& a) {
    a(thandle, error, worker_id);
  }
};

/// Server, on the transaction's worker connection, after its last request: the transaction is over. Not answered.
struct TransFinish {
  static constexpr MessageType kType = MessageType::kTransFinish;
  int32_t thandle = 0;
  template <class A>
  void Fields(A& a) {
    a(thandle);
  }
};

/* A list is read in pages, on the transaction's worker connection: ReadRows, answered by Rows or ReadFailed. At most
 * one page of a transaction is under way.
 *
 * The provider's callbacks run in the order of a server that asks for one thing at a time: the first key, that row's
 * object, the key after it, its object, and so on. A provider that keeps its place in the list, or gives up its list
 * with the key after the last row, therefore need not know about pages. */

/// Server: the rows from position `from` on.
struct ReadRows {
  static constexpr MessageType kType = MessageType::kReadRows;
  uint64_t request = 0;  ///< repeated in the answer
  int32_t thandle = 0;
  std::string callpoint;
  uint16_t node = 0;        ///< node id of the list
  std::string parent_keys;  ///< encoded keys of the lists above
  int64_t from = -1;        ///< -1: the first row; else Rows::next of the page before
  uint16_t limit = 0;       ///< most rows of the answer, at least 1
  template <class A>
  void Fields(A& a) {
    a(request, thandle, callpoint, node, parent_keys, from, limit);
  }
};

/// A value with a type of its own, which may differ from its leaf's (unions). `stored` as in cdb_store/value.h;
/// decimal64: the stored value, then one byte of fraction digits.
struct Value {
  cdb_store::ValueType type = cdb_store::ValueType::kNone;
  std::string stored;
  template <class A>
  void Fields(A& a) {
    a(type, stored);
  }
  friend bool operator==(const Value&, const Value&) = default;
};

struct TagValue {
  uint32_t tag = 0;
  uint32_t ns = 0;  ///< 0: the list's own
  Value value;
  template <class A>
  void Fields(A& a) {
    a(tag, ns, value);
  }
  friend bool operator==(const TagValue&, const TagValue&) = default;
};

struct Row {
  std::vector<Value> keys;
  std::vector<TagValue> values;
  template <class A>
  void Fields(A& a) {
    a(keys, values);
  }
  friend bool operator==(const Row&, const Row&) = default;
};

/// Client: answers ReadRows. It holds fewer rows than asked for, even none, where the list ends, where the packet is
/// full, where the provider takes long, and where the application delayed an answer: that answer ends the page.
struct Rows {
  static constexpr MessageType kType = MessageType::kRows;
  uint64_t request = 0;
  std::vector<Row> rows;
  bool end = false;   ///< the list has no further rows
  int64_t next = -1;  ///< for the following ReadRows; meaningless at the end
  template <class A>
  void Fields(A& a) {
    a(request, rows, end, next);
  }
};

/// Client: answers ReadRows. The reading has failed.
struct ReadFailed {
  static constexpr MessageType kType = MessageType::kReadFailed;
  uint64_t request = 0;
  std::string text;
  template <class A>
  void Fields(A& a) {
    a(request, text);
  }
};

}  // namespace confd_wire
