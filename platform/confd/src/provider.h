#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "cdb_store/schema.h"
#include "confd_dp.h"
#include "connection.h"

/// The data-provider side: daemons, transactions and the pages of rows that the server asks for.
///
/// An application may keep a confd_trans_ctx pointer as long as it likes. Its memory is kept while the transaction
/// runs, while a callback on it that returned CONFD_DELAYED_RESPONSE has not been answered by the application (even if
/// transaction and connection ended long ago), and for kQuarantine further transactions after that. Memory is therefore
/// bounded by the delayed callbacks that the application never answers, about 400 bytes each. What belongs to a daemon
/// context lives as long as the last of its transactions.
namespace confd {

struct Worker {
  std::shared_ptr<Connection> connection;
  uint64_t id = 0;
};

struct Daemon {
  confd_daemon_ctx context{};
  std::string name;
  std::shared_ptr<Connection> control;
  uint64_t id = 0;
  std::vector<std::shared_ptr<Worker>> workers;
  confd_trans_cbs trans_callbacks{};
  std::vector<confd_data_cbs> data_callbacks;
  bool released = false;

  [[nodiscard]] const confd_data_cbs* FindCallbacks(const std::string& callpoint) const;
  [[nodiscard]] std::shared_ptr<Worker> FindWorker(int fd) const;
};

/// A row whose key the application has given, and whose object it has not been asked for.
struct NextRow {
  std::vector<confd_wire::Value> keys;
  int64_t next = -1;  ///< for the get_next after it
};

/// A page of rows that the server has asked for and that has not been sent.
class Page final {
 public:
  const cdb_store::Node* list = nullptr;
  std::string parent_keys;
  uint16_t limit = 0;
  confd_wire::Rows reply;
  std::optional<std::string> error;  ///< the answer instead of the rows

  /// Most bytes that a row takes in a packet.
  static size_t SizeOf(const confd_wire::Row& row);
  /// A packet can hold a row of that size.
  static bool Fits(size_t row_size);
  /// Adds the row. False, with nothing done, when it does not fit into the packet beside the others.
  bool Add(confd_wire::Row& row);

 private:
  size_t size_ = 0;  ///< of the rows
};

struct Transaction {
  enum class State : uint8_t { kRunning, kFinished, kConnectionGone, kDaemonReleased };
  enum class Call : uint8_t { kNone, kGetNext, kGetObject };

  confd_trans_ctx context{};
  std::shared_ptr<Daemon> daemon;
  std::shared_ptr<Worker> worker;
  State state = State::kRunning;
  std::optional<Page> page;
  Call open = Call::kNone;          ///< the callback that was called for the page and has not been answered
  bool is_delayed = false;          ///< it has returned CONFD_DELAYED_RESPONSE
  std::optional<NextRow> next_row;  ///< the page starts, or continues, with its object
  /// A row that did not fit in the page before: the page starts with it.
  std::optional<confd_wire::Row> left_over;
  bool is_owed = false;  ///< ended with a delayed callback unanswered: the application may still come with the answer

  /// Sends the page, or its error.
  int SendPage();
};

/// All daemons and transactions of the process. Never destroyed.
class Provider final {
 public:
  static constexpr size_t kQuarantine = 1024;
  static Provider& Get();

  std::shared_ptr<Daemon> NewDaemon(const char* name);
  /// Null, with the last error set, when the pointer is not a daemon context.
  std::shared_ptr<Daemon> Find(const confd_daemon_ctx* context);
  void Release(const std::shared_ptr<Daemon>& daemon);

  std::shared_ptr<Transaction> NewTransaction(const std::shared_ptr<Daemon>& daemon, int thandle);
  /// Null, with the last error set, when the pointer is not a transaction context that the library still knows.
  std::shared_ptr<Transaction> Find(const confd_trans_ctx* context);
  std::shared_ptr<Transaction> FindRunning(const Daemon& daemon, int thandle);
  /// Ends a running transaction.
  void End(const std::shared_ptr<Transaction>& transaction, Transaction::State state);
  /// Ends the transactions of a daemon on `worker`, or all of them.
  void EndAll(const Daemon& daemon, const Worker* worker, Transaction::State state);
  /// The application has given the answer that an ended transaction owed.
  void Settle(const std::shared_ptr<Transaction>& transaction);

 private:
  void Quarantine(const std::shared_ptr<Transaction>& transaction);

  std::unordered_map<const confd_daemon_ctx*, std::shared_ptr<Daemon>> daemons_;
  std::unordered_map<const confd_trans_ctx*, std::shared_ptr<Transaction>>
      transactions_;  ///< running, owed, quarantined
  std::map<std::pair<const Daemon*, int>, std::shared_ptr<Transaction>> running_;
  std::deque<const confd_trans_ctx*> quarantine_;
};

}  // namespace confd
