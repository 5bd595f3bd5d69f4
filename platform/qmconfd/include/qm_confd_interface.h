/// @file qm_confd_interface.h
/// ConfD wrapper: owns the daemon context and the control, worker and subscription sockets, and calls the application
/// when the connection is up or lost. Loop thread only.
#pragma once

#include <memory>
#include <string>

#include "confd_cdb.h"
#include "confd_dp.h"
#include "confd_lib.h"
#include "qmmw.h"

/// Phase of the element's start-up in which a program wants its connection.
enum ELEM_CONFD_PHASE_ET { ELEM_CONFD_PHASE_0 = 0, ELEM_CONFD_PHASE_1 = 1, ELEM_CONFD_PHASE_2 = 2 };

class QmConfdInterface {
 public:
  /// `name` is what the server shows. `phase` goes to AppConnectPhase(). `validation` and `flags` are not used on this
  /// platform.
  QmConfdInterface(bool validation, std::string name, qmmw_t* mw, ELEM_CONFD_PHASE_ET phase, int flags);
  QmConfdInterface(const QmConfdInterface&) = delete;
  QmConfdInterface& operator=(const QmConfdInterface&) = delete;

  /// The connection is up: control and worker are in the loop, the subscription socket is connected.
  virtual void AppConnect() = 0;
  /// The connection was lost; called once per loss, before the sockets are closed.
  virtual void AppDisconnect() = 0;
  virtual void AppConnectPhase(ELEM_CONFD_PHASE_ET phase);
  virtual ~QmConfdInterface();
  /// Drops the connection, as a loss would, and connects again.
  virtual void ResetConnection();

  /// Starts connecting from the loop, with retries that back off to a second. Always 0. `flags` is not used on this
  /// platform.
  int Init(int flags);

  confd_daemon_ctx* DaemonContext() const;
  int SubscrSocket() const;
  int WorkerSocket() const;
  qmmw_t* Middleware() const;
  const std::string& Name() const;
  /// Set just before AppConnect(), cleared just after AppDisconnect().
  bool IsInitialized() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};
