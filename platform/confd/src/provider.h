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

/// The data-provider side: daemons, transactions and the requests that wait for an answer.
///
/// An application may keep a confd_trans_ctx pointer as long as it likes. Its memory is kept while the transaction
/// runs, while a request on it that the application answered with CONFD_DELAYED_RESPONSE is still unanswered by the
/// application (even though transaction or connection have long gone), and for kQuarantine further transactions after
/// that. Memory is therefore bounded by the delayed requests that the application never answers, about 300 bytes each.
/// What belongs to a daemon context lives as long as the last of its transactions.
namespace confd {

struct Worker {
  std::shared_ptr<Connection> connection;
  uint64_t id = 0;
  /// While a packet of requests is handled: the answers so far, which go back together.
  std::optional<confd_wire::PacketOfSeveral> answers;

  /// Sends one message, or keeps it with the other answers.
  int Send(const std::string& message);
};

/// Keeps the answers of a worker for one packet as long as it lives; one within another changes nothing. What was not
/// sent is dropped: its callback did not come to its end.
class AnswersTogether final {
 public:
  explicit AnswersTogether(Worker& worker) : worker_{worker}, outermost_{!worker.answers} {
    if (outermost_) worker_.answers.emplace();
  }
  ~AnswersTogether() {
    if (outermost_) worker_.answers.reset();
  }
  AnswersTogether(const AnswersTogether&) = delete;
  AnswersTogether& operator=(const AnswersTogether&) = delete;
  [[nodiscard]] int Send() const;

 private:
  Worker& worker_;
  const bool outermost_;
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

/// A request of the server that the application has not answered.
struct OpenRequest {
  uint64_t id = 0;
  const cdb_store::Node* node = nullptr;
  bool delayed = false;  ///< the callback has returned CONFD_DELAYED_RESPONSE
  uint16_t ahead = 0;    ///< get_next: pairs that may follow without being asked for
};

/// The key of a row with which the library goes on by itself.
struct NextRow {
  std::vector<confd_wire::Value> keys;
  int64_t next = -1;
};

struct Transaction {
  enum class State : uint8_t { kRunning, kFinished, kConnectionGone, kDaemonReleased };

  confd_trans_ctx context{};
  std::shared_ptr<Daemon> daemon;
  std::shared_ptr<Worker> worker;
  State state = State::kRunning;
  std::optional<OpenRequest> next_key;            ///< a get_next
  std::optional<OpenRequest> object;              ///< a get_object
  std::optional<OpenRequest>* current = nullptr;  ///< the one whose callback runs
  std::optional<NextRow> next_row;                ///< promised to the server by the get_next whose callback runs
  bool is_owed = false;  ///< ended with a delayed request unanswered: the application may still come with it
};

/// All daemons and transactions of the process. Never destroyed.
class Provider final {
 public:
  static constexpr size_t kQuarantine = 1024;
  static Provider& Get();

  std::shared_ptr<Daemon> NewDaemon(const char* name);
  /// Null, with the last error set, when the pointer is no daemon context.
  std::shared_ptr<Daemon> Find(const confd_daemon_ctx* context);
  void Release(const std::shared_ptr<Daemon>& daemon);

  std::shared_ptr<Transaction> NewTransaction(const std::shared_ptr<Daemon>& daemon, int thandle);
  /// Null, with the last error set, when the pointer is no transaction context that the library still knows.
  std::shared_ptr<Transaction> Find(const confd_trans_ctx* context);
  std::shared_ptr<Transaction> FindRunning(const Daemon& daemon, int thandle);
  /// Ends a running transaction.
  void End(const std::shared_ptr<Transaction>& transaction, Transaction::State state);
  /// Ends the transactions of a daemon on `worker`, or all of them.
  void EndAll(const Daemon& daemon, const Worker* worker, Transaction::State state);
  /// The application came at last with the answer that an ended transaction owed.
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
