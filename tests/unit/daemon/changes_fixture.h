/// @file changes_fixture.h
/// Fixture for tests of commits: the subscriptions are made, the interface point is 1 and the IPv4 point 2.
#pragma once

#include <functional>

#include "daemon_fixture.h"

namespace ip_spoofing_app {

inline constexpr int kIfacePoint = 1;
inline constexpr int kIpv4Point = 2;

inline Lines Join(std::initializer_list<Lines> parts) {
  Lines all;
  for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

/// What one point's handling leaves: the lines of the delete pass, then those of the create/edit pass.
inline Lines Passes(int point, const Lines& deletes, const Lines& creates) {
  const std::string walk = "cdb_diff_iterate 41 point " + std::to_string(point) + " flags ";
  return Join({{walk + "18"}, deletes, {walk + "16"}, creates});
}

/// A message that was read, handled within a session on the running datastore, and acknowledged.
inline Lines Handled(const Lines& body) {
  return Join({{"cdb_read_subscription_socket 41", "open running"},
               body,
               {"close running", "cdb_sync_subscription_socket 41 1"}});
}
/// A message whose handling failed: no acknowledgement.
inline Lines Failed(const Lines& body) {
  return Join({{"cdb_read_subscription_socket 41", "open running"}, body, {"close running"}});
}

class ChangesTest : public DaemonTest {
 protected:
  /// Records requests, log lines, faults, subscriptions and sessions.
  ConfDAppMgr& BuildSubscribed() {
    ConfDAppMgr& confd = Build({Kind::kRequest, Kind::kLog, Kind::kFault, Kind::kSubscription, Kind::kSession});
    confd.ConfDSubscribe();
    Taken();
    return confd;
  }

  /// Delivers one message with these points, as the loop would; the trace of its handling.
  Lines Deliver(const std::vector<int>& points) {
    fakes::TheCdb().messages.push_back(points);
    ConfDAppMgr::TreatSubscriptionMsg(fakes::TheHandle(), fakes::kSubscriptionSocket, confd_.get());
    return Taken();
  }

  static void Put(const std::string& path) { fakes::TheCdb().Put(CDB_RUNNING, path); }
  static void Put(const std::string& path, const std::string& value) { fakes::TheCdb().Put(CDB_RUNNING, path, value); }
  static void PutBefore(const std::string& path) { fakes::TheCdb().Put(CDB_PRE_COMMIT_RUNNING, path); }
  static void PutBefore(const std::string& path, const std::string& value) {
    fakes::TheCdb().Put(CDB_PRE_COMMIT_RUNNING, path, value);
  }
};

/// The changes of one commit at one point, and what the two passes leave of them.
struct ChangesCase {
  std::string name;
  std::vector<fakes::Change> changes;
  std::function<void()> prepare;
  Lines deletes;
  Lines creates;
};

class OnePointTest : public ChangesTest, public testing::WithParamInterface<ChangesCase> {
 public:
  using ChangesTest::Put;
  using ChangesTest::PutBefore;

 protected:
  void ExpectTrace(int point) {
    BuildSubscribed();
    fakes::TheCdb().changes[point] = GetParam().changes;
    GetParam().prepare();
    EXPECT_EQ(Deliver({point}), Handled(Passes(point, GetParam().deletes, GetParam().creates)));
    EXPECT_TRUE(fakes::TheCdb().sessions.empty());
  }
};

/// The line that the other pass leaves of a change.
inline std::string Omitted(const std::string& iterator, int kplen, int op, const std::string& name) {
  return "log 10 " + iterator + ": Omitting kplen[" + std::to_string(kplen) + "] op[" + std::to_string(op) +
         "] iface: " + name;
}

}  // namespace ip_spoofing_app
