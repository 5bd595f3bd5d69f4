#include "fakes/fake_qmconfd.h"

#include "fakes/fake_cdb.h"
#include "fakes/fake_middleware.h"
#include "fakes/fake_provider.h"
#include "fakes/script.h"
#include "fakes/trace.h"
#include "qm_confd_cdb_session.h"

namespace fakes {

void Wrapper::Connect(QmConfdInterface* app) {
  SetInitialized(app, true);
  app->AppConnect();
}

void Wrapper::Disconnect(QmConfdInterface* app) {
  app->AppDisconnect();
  SetInitialized(app, false);
}

bool Wrapper::IsInitialized(const QmConfdInterface* app) const {
  const auto found = initialized_.find(app);
  return found != initialized_.end() && found->second;
}

Wrapper& TheWrapper() {
  static Wrapper* const wrapper = new Wrapper;
  return *wrapper;
}

}  // namespace fakes

class QmConfdInterface::Impl {
 public:
  std::string name;
  qmmw_t* mw;
};

QmConfdInterface::QmConfdInterface(bool validation, std::string name, qmmw_t* mw, ELEM_CONFD_PHASE_ET phase, int flags)
    : impl_{std::make_unique<Impl>()} {
  fakes::TheTrace().Add(fakes::Kind::kConfd, fakes::Format("QmConfdInterface %s %s phase %d flags %d",
                                                           validation ? "true" : "false", name.c_str(), phase, flags));
  impl_->name = std::move(name);
  impl_->mw = mw;
  fakes::TheWrapper().latest = this;
}

QmConfdInterface::~QmConfdInterface() {
  fakes::TheTrace().Add(fakes::Kind::kConfd, "~QmConfdInterface");
  fakes::TheWrapper().SetInitialized(this, false);
  if (fakes::TheWrapper().latest == this) fakes::TheWrapper().latest = nullptr;
}

void QmConfdInterface::AppConnectPhase(ELEM_CONFD_PHASE_ET /*phase*/) {}
void QmConfdInterface::ResetConnection() { fakes::TheTrace().Add(fakes::Kind::kConfd, "ResetConnection"); }

int QmConfdInterface::Init(int flags) {
  fakes::TheTrace().Add(fakes::Kind::kConfd, fakes::Format("Init %d", flags));
  return 0;
}

confd_daemon_ctx* QmConfdInterface::DaemonContext() const { return &fakes::TheProvider().daemon; }
int QmConfdInterface::SubscrSocket() const { return fakes::kSubscriptionSocket; }
int QmConfdInterface::WorkerSocket() const { return fakes::kWorkerSocket; }
qmmw_t* QmConfdInterface::Middleware() const { return impl_->mw; }
const std::string& QmConfdInterface::Name() const { return impl_->name; }
bool QmConfdInterface::IsInitialized() const { return fakes::TheWrapper().IsInitialized(this); }

QmConfdCdbSessionBase::QmConfdCdbSessionBase(QmConfdInterface* owner, cdb_db_type db, bool reuse)
    : socket_{fakes::TheCdb().OpenSession(db)} {
  if (owner != fakes::TheWrapper().latest) fakes::TheTrace().Add(fakes::Kind::kSession, "open for a foreign owner");
  if (!reuse) fakes::TheTrace().Add(fakes::Kind::kSession, "open without reuse");
}

int QmConfdCdbSessionBase::Socket() const {
  const auto& sessions = fakes::TheCdb().sessions;
  const auto session = sessions.find(socket_);
  if (session == sessions.end()) return socket_;
  const auto answer = fakes::TheScript().Find("Socket", {fakes::DbName(session->second.db)});
  return answer ? answer->result : socket_;
}

QmConfdCdbSessionBase::~QmConfdCdbSessionBase() { fakes::TheCdb().CloseSession(socket_); }
