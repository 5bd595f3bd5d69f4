/// @file daemon_fixture.h
/// Fixture for tests of the daemon's parts on the fakes.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "app/confd_mgr/confd_app_mgr.h"
#include "fakes/fake_cdb.h"
#include "fakes/fake_filter_manager.h"
#include "fakes/fake_limid.h"
#include "fakes/fake_manager.h"
#include "fakes/fake_middleware.h"
#include "fakes/fake_provider.h"
#include "fakes/fake_qmconfd.h"
#include "fakes/fake_zlog.h"
#include "fakes/keypath.h"
#include "fakes/reset.h"
#include "fakes/script.h"
#include "fakes/trace.h"

namespace ip_spoofing_app {

using fakes::Kind;
using Lines = std::vector<std::string>;

/// Path of an interface's entry, as keypaths print it.
inline std::string Iface(const std::string& name) { return "/config/anti-ip-spoofing/interface{" + name + "}"; }

/// Path of an IPv4 entry. `keys` is "10.0.0.1 100".
inline std::string Ipv4(const std::string& name, const std::string& keys) {
  return Iface(name) + "/allowed-ip/ipv4{" + keys + "}";
}

/// Every test starts with new fakes, the manager connected.
class DaemonTest : public testing::Test {
 protected:
  DaemonTest() {
    fakes::ResetAll();
    fakes::TheManager().status.connected = 1;
  }

  /// Builds the ConfD manager with a client, marked initialised, and forgets the trace of that. Records `kinds` from
  /// then on.
  ConfDAppMgr& Build(std::set<Kind> kinds) {
    client_ = std::make_unique<ip_spoofing_mgr::IpSpoofingPreventionMgrClient>(fakes::TheHandle(), nullptr);
    confd_ = std::make_unique<ConfDAppMgr>(fakes::TheHandle(), client_.get(), "ip-spoofing-app");
    fakes::TheWrapper().SetInitialized(confd_.get(), true);
    fakes::TheTrace().Record(std::move(kinds));
    fakes::TheTrace().Take();
    return *confd_;
  }

  /// The trace since the last call.
  static Lines Taken() { return fakes::TheTrace().Take(); }

  std::unique_ptr<ip_spoofing_mgr::IpSpoofingPreventionMgrClient> client_;
  std::unique_ptr<ConfDAppMgr> confd_;
};

/// Lines as one text.
inline std::string TextOf(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

/// Matches the standard error of a death test whose statement called DumpAtExit(): these lines, in this order, one
/// directly behind the other.
inline testing::Matcher<const std::string&> DiesWith(const Lines& lines) { return testing::HasSubstr(TextOf(lines)); }
/// The same, and nothing else.
inline testing::Matcher<const std::string&> DiesWithExactly(const Lines& lines) {
  return testing::StrEq(TextOf(lines));
}

}  // namespace ip_spoofing_app
