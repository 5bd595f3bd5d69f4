/// @file fake_qmconfd.h
/// The ConfD wrapper: connections come and go when a test says so.
#pragma once

#include <map>
#include <string>

#include "qm_confd_interface.h"

namespace fakes {

inline constexpr int kSubscriptionSocket = 41;
inline constexpr int kWorkerSocket = 42;

class Wrapper {
 public:
  /// What the wrapper does when its connection is up: marks the object initialised, then calls AppConnect().
  void Connect(QmConfdInterface* app);
  /// What it does when the connection is lost: calls AppDisconnect(), then takes the mark away.
  void Disconnect(QmConfdInterface* app);
  void SetInitialized(const QmConfdInterface* app, bool initialized) { initialized_[app] = initialized; }
  bool IsInitialized(const QmConfdInterface* app) const;

  QmConfdInterface* latest = nullptr;  ///< the object made last

 private:
  std::map<const QmConfdInterface*, bool> initialized_;
};

Wrapper& TheWrapper();

}  // namespace fakes
