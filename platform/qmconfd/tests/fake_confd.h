#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "confd_cdb.h"
#include "confd_dp.h"

/// Stands in for the client library and for the server behind it: the calls are recorded, and really connect to a
/// listening socket of the test's, whose accepted ends the test closes to play a server that goes away.
class FakeConfd {
 public:
  FakeConfd();
  ~FakeConfd();
  FakeConfd(const FakeConfd&) = delete;
  FakeConfd& operator=(const FakeConfd&) = delete;

  /// Connections are refused until Start() and after Stop(), which closes the accepted ends.
  void Start();
  void Stop();
  /// Closes the server's end of that connection ("control", "worker", "subscription", "read").
  void Drop(const std::string& which) { peers.erase(which); }
  /// Sends one byte: a message.
  void Send(const std::string& which);

  std::vector<std::string> trace;                 ///< calls of the library, and what the test adds
  std::map<std::string, int> fail;                ///< how often the next calls of that name fail
  std::deque<std::function<int()>> on_ready;      ///< what the next calls of confd_fd_ready() do
  std::map<std::string, common::UniqueFd> peers;  ///< the server's ends, the newest of each kind

  [[nodiscard]] bool Fails(const std::string& call);
  int Accept(int sock, const sockaddr* address, int size, const std::string& which);

 private:
  common::UniqueFd listener_;
  std::vector<common::UniqueFd> older_;
};

/// The one of the running test.
FakeConfd& TheFake();
