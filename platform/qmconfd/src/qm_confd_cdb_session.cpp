#include "qm_confd_cdb_session.h"

#include "session_cache.h"

QmConfdCdbSessionBase::QmConfdCdbSessionBase(QmConfdInterface* owner, cdb_db_type db, bool reuse)
    : socket_{owner != nullptr ? qmconfd::SessionCache::Instance().Start(owner->Name(), db, reuse) : -1} {}

int QmConfdCdbSessionBase::Socket() const { return socket_; }

QmConfdCdbSessionBase::~QmConfdCdbSessionBase() { qmconfd::SessionCache::Instance().Finish(socket_); }
