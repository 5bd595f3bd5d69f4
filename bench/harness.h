#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <lmdb.h>

#include "support/element/configuration.h"
#include "support/element/element.h"

/// What the benchmarks share. Every figure is the median of several runs, and every judgement a ratio of two figures of
/// one run, so that it holds on a slow or busy machine too.
namespace bench {

using Clock = std::chrono::steady_clock;

/// Microseconds that `work` takes.
double TimeOf(const std::function<void()>& work);
double Median(std::vector<double> values);
/// Median of `runs` runs, after one that is not counted.
double MedianOf(int runs, const std::function<void()>& work);

/// Prints the figures, and remembers whether a ratio was above what is wanted.
class Report final {
 public:
  void Heading(const std::string& text);
  void Figure(const std::string& name, double value, const std::string& unit);
  /// `value` against `base`, wanted at most `limit`.
  void AtMost(const std::string& name, double value, double base, double limit);
  void AtLeast(const std::string& name, double value, double base, double limit);
  /// 0 when everything was as wanted, else 1.
  [[nodiscard]] int ExitStatus() const { return missed_ == 0 ? 0 : 1; }

 private:
  void Verdict(const std::string& name, double ratio, const char* relation, double limit, bool reached);
  int missed_ = 0;
};

/// A process that answers every packet with one of the same size, over a Unix socket.
class EchoPeer final {
 public:
  EchoPeer();
  EchoPeer(const EchoPeer&) = delete;
  EchoPeer& operator=(const EchoPeer&) = delete;
  ~EchoPeer();
  /// Median microseconds of one round trip of `size` bytes, in batches of 100.
  double RoundTrip(size_t size);

 private:
  pid_t pid_ = -1;
  int socket_ = -1;
};

/// An LMDB environment with `rows` rows, opened as the store opens its own, and transactions on it that write what a
/// commit of one entry writes: its row and its list's count in two tables, the difference, the transaction id, the log.
class BareStore final {
 public:
  BareStore(const std::string& directory, int rows);
  BareStore(const BareStore&) = delete;
  BareStore& operator=(const BareStore&) = delete;
  ~BareStore();
  /// One durable transaction.
  void Commit();

 private:
  MDB_env* env_ = nullptr;
  std::vector<MDB_dbi> tables_;
  uint32_t commits_ = 0;
};

/// `entries` sources spread over `interfaces` ports.
test::Configuration Sources(int entries, int interfaces);

/// Kilobytes of `pid` that are resident and its own (RssAnon of proc(5)): the shared pages of the database file are the
/// page cache's.
double ResidentKilobytes(pid_t pid);
/// Microseconds of processor time that `pid` has used.
double ProcessorTime(pid_t pid);

}  // namespace bench
