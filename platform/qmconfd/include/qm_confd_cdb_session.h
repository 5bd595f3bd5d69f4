/// @file qm_confd_cdb_session.h
/// One CDB read session, opened by the constructor and closed by the destructor.
#pragma once

#include "confd_cdb.h"
#include "qm_confd_interface.h"

class QmConfdCdbSessionBase {
 public:
  /// `owner` names the session and outlives it. `reuse` allows a cached connection of the process to be taken.
  QmConfdCdbSessionBase(QmConfdInterface* owner, cdb_db_type db, bool reuse);
  QmConfdCdbSessionBase(const QmConfdCdbSessionBase&) = delete;
  QmConfdCdbSessionBase& operator=(const QmConfdCdbSessionBase&) = delete;
  virtual ~QmConfdCdbSessionBase();

  /// The session's CDB socket; -1 when the session could not be started.
  int Socket() const;

 private:
  int socket_;
};

class QmConfdCdbSession : public QmConfdCdbSessionBase {
 public:
  using QmConfdCdbSessionBase::QmConfdCdbSessionBase;
  ~QmConfdCdbSession() override = default;
};
