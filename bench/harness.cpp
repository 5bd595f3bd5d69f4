#include "harness.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace bench {
namespace {

/// A benchmark that cannot measure has no result: it says why and ends.
void Require(bool condition, const std::string& what) {
  if (condition) return;
  std::fprintf(stderr, "benchmark: %s\n", what.c_str());
  std::exit(2);
}

constexpr const char* kTables[] = {"running", "pre_commit", "diff", "meta", "log"};

MDB_val Val(const std::string& bytes) { return {bytes.size(), const_cast<char*>(bytes.data())}; }

std::string RowKey(uint32_t number) {
  std::string key(16, '\4');  // as long as that of a source
  for (int i = 0; i < 4; ++i) key.push_back(static_cast<char>(number >> (24 - 8 * i)));
  return key;
}

}  // namespace

double TimeOf(const std::function<void()>& work) {
  const Clock::time_point start = Clock::now();
  work();
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double Median(std::vector<double> values) {
  Require(!values.empty(), "no values");
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double MedianOf(int runs, const std::function<void()>& work) {
  work();
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) times.push_back(TimeOf(work));
  return Median(times);
}

void Report::Heading(const std::string& text) { std::printf("\n%s\n", text.c_str()); }

void Report::Figure(const std::string& name, double value, const std::string& unit) {
  std::printf("  %-64s %12.2f %s\n", name.c_str(), value, unit.c_str());
}

void Report::AtMost(const std::string& name, double value, double base, double limit) {
  Verdict(name, value / base, "at most", limit, value / base <= limit);
}

void Report::AtLeast(const std::string& name, double value, double base, double limit) {
  Verdict(name, value / base, "at least", limit, value / base >= limit);
}

void Report::Verdict(const std::string& name, double ratio, const char* relation, double limit, bool reached) {
  std::printf("  %-64s %12.2f times, wanted %s %g: %s\n", name.c_str(), ratio, relation, limit,
              reached ? "reached" : "MISSED");
  std::fflush(stdout);
  if (!reached) ++missed_;
}

EchoPeer::EchoPeer() {
  std::array<int, 2> ends{};
  Require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) == 0, "socketpair");
  pid_ = ::fork();
  if (pid_ == 0) {
    ::close(ends[0]);
    std::array<char, 65536> packet{};
    ssize_t size = 0;
    while ((size = ::recv(ends[1], packet.data(), packet.size(), 0)) > 0) {
      if (::send(ends[1], packet.data(), static_cast<size_t>(size), 0) != size) break;
    }
    ::_exit(0);
  }
  ::close(ends[1]);
  socket_ = ends[0];
}

EchoPeer::~EchoPeer() {
  ::close(socket_);
  ::waitpid(pid_, nullptr, 0);
}

double EchoPeer::RoundTrip(size_t size) {
  constexpr int kBatch = 100;
  std::vector<char> packet(size, 'x');
  return MedianOf(50,
                  [&] {
                    for (int i = 0; i < kBatch; ++i) {
                      Require(::send(socket_, packet.data(), size, 0) == static_cast<ssize_t>(size), "send");
                      Require(::recv(socket_, packet.data(), size, 0) == static_cast<ssize_t>(size), "recv");
                    }
                  }) /
         kBatch;
}

BareStore::BareStore(const std::string& directory, int rows) {
  std::filesystem::create_directories(directory);
  Require(mdb_env_create(&env_) == 0, "mdb_env_create");
  mdb_env_set_maxdbs(env_, std::size(kTables));
  mdb_env_set_mapsize(env_, size_t{1} << 30);
  Require(mdb_env_open(env_, directory.c_str(), 0, 0644) == 0, "mdb_env_open " + directory);
  MDB_txn* txn = nullptr;
  Require(mdb_txn_begin(env_, nullptr, 0, &txn) == 0, "mdb_txn_begin");
  for (const char* name : kTables) {
    MDB_dbi table = 0;
    Require(mdb_dbi_open(txn, name, MDB_CREATE, &table) == 0, "mdb_dbi_open");
    tables_.push_back(table);
  }
  const std::string row(12, 'v');
  for (int i = 0; i < rows; ++i) {
    const std::string bytes = RowKey(static_cast<uint32_t>(i) * 2);
    for (const MDB_dbi table : {tables_[0], tables_[1]}) {
      MDB_val key = Val(bytes);
      MDB_val value = Val(row);
      Require(mdb_put(txn, table, &key, &value, 0) == 0, "mdb_put");
    }
  }
  Require(mdb_txn_commit(txn) == 0, "mdb_txn_commit");
}

BareStore::~BareStore() { mdb_env_close(env_); }

void BareStore::Commit() {
  ++commits_;
  MDB_txn* txn = nullptr;
  Require(mdb_txn_begin(env_, nullptr, 0, &txn) == 0, "mdb_txn_begin");
  const auto put = [&](size_t table, const std::string& key_bytes, const std::string& value_bytes) {
    MDB_val key = Val(key_bytes);
    MDB_val value = Val(value_bytes);
    Require(mdb_put(txn, tables_[table], &key, &value, 0) == 0, "mdb_put");
  };
  const std::string row = RowKey((commits_ * 7919U) % 20000U * 2 + 1);
  const std::string count = "\xff\xff_count_of_sp00";
  for (const size_t table : {0, 1}) {
    put(table, row, std::string(12, 'n'));
    put(table, count, std::to_string(commits_));
  }
  mdb_drop(txn, tables_[2], 0);
  put(2, row, std::string(30, 'd'));
  put(2, count, std::string(12, 'd'));
  put(3, "txid", std::to_string(commits_));
  put(4, RowKey(commits_), std::string(120, 'l'));
  Require(mdb_txn_commit(txn) == 0, "mdb_txn_commit");
}

test::Configuration Sources(int entries, int interfaces) {
  test::Configuration configuration;
  for (int i = 0; i < entries; ++i) {
    test::Interface& port = configuration["sp" + std::to_string(i % interfaces)];
    const uint32_t address = 0x0a000000U + static_cast<uint32_t>(i);
    port.sources[{address, i % 3 == 0 ? 0 : 100 + i % 16}] = i % 2 == 0 ? "" : "02:00:00:00:00:01";
  }
  return configuration;
}

double ResidentKilobytes(pid_t pid) {
  std::ifstream status{"/proc/" + std::to_string(pid) + "/status"};
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("RssAnon:")) return std::atof(line.c_str() + std::strlen("RssAnon:"));
  }
  Require(false, "no RssAnon in /proc/PID/status");
  return 0;
}

double ProcessorTime(pid_t pid) {
  // Nanoseconds on a processor come first.
  std::ifstream schedule{"/proc/" + std::to_string(pid) + "/schedstat"};
  double nanoseconds = 0;
  Require(static_cast<bool>(schedule >> nanoseconds), "no /proc/PID/schedstat");
  return nanoseconds / 1000;
}

}  // namespace bench
