#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "cdb_store_testing/models.h"
#include "confd_dp.h"
#include "confd_testing/sockets.h"

/// The data-provider side against a server that the test plays by hand.
namespace confd_testing {

using cdb_store::StoreInt;
using cdb_store::ValueType;
using namespace confd_wire;
using ::testing::HasSubstr;

/// What the callbacks do next, and what they were called with.
struct Application {
  std::function<int(confd_trans_ctx*)> on_init = [](confd_trans_ctx*) { return CONFD_OK; };
  std::function<int(confd_trans_ctx*, confd_hkeypath_t*, long)> on_next;
  std::function<int(confd_trans_ctx*, confd_hkeypath_t*)> on_object;
  std::vector<std::string> trace;
};

inline std::string PathText(confd_hkeypath_t* kp) {
  char text[256];
  return confd_pp_kpath(text, sizeof text, kp) > 0 ? text : confd_lasterr();
}

inline Application& App(confd_trans_ctx* tctx) { return *static_cast<Application*>(tctx->dx->d_opaque); }

inline int OnInit(confd_trans_ctx* tctx) {
  App(tctx).trace.push_back("init " + std::to_string(tctx->thandle));
  return App(tctx).on_init(tctx);
}
inline int OnFinish(confd_trans_ctx* tctx) {
  App(tctx).trace.push_back("finish " + std::to_string(tctx->thandle));
  return CONFD_OK;
}
inline int OnNext(confd_trans_ctx* tctx, confd_hkeypath_t* kp, long next) {
  App(tctx).trace.push_back("next " + PathText(kp) + " " + std::to_string(next));
  return App(tctx).on_next(tctx, kp, next);
}
inline int OnObject(confd_trans_ctx* tctx, confd_hkeypath_t* kp) {
  App(tctx).trace.push_back("object " + PathText(kp));
  return App(tctx).on_object(tctx, kp);
}

inline int ReplyEnd(confd_trans_ctx* tctx) { return confd_data_reply_next_key(tctx, nullptr, -1, -1); }
inline int ReplyKey(confd_trans_ctx* tctx, int64_t key, long next) {
  confd_value_t value;
  CONFD_SET_INT64(&value, key);
  return confd_data_reply_next_key(tctx, &value, 1, next);
}

class ProviderTest : public ::testing::Test {
 protected:
  ProviderTest() { Connect(); }
  ~ProviderTest() override { Disconnect(); }

  void Connect() {
    daemon_ = confd_init_daemon("provider");
    daemon_->d_opaque = &app_;
    const sockaddr_un address = server_.address();
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    control_ = NewSocket();
    worker_ = NewSocket();
    EXPECT_EQ(confd_connect(daemon_, control_, CONTROL_SOCKET, generic, sizeof address), CONFD_OK) << confd_lasterr();
    const Hello control_hello = server_.Expect<Hello>(&control_id_);
    EXPECT_EQ(confd_connect(daemon_, worker_, WORKER_SOCKET, generic, sizeof address), CONFD_OK) << confd_lasterr();
    const Hello worker_hello = server_.Expect<Hello>(&worker_id_);
    EXPECT_EQ(control_hello.name, "provider");
    EXPECT_EQ(worker_hello.daemon_id, control_id_);
    const confd_trans_cbs trans_cbs{OnInit, OnFinish};
    confd_data_cbs data_cbs{};
    snprintf(data_cbs.callpoint, sizeof data_cbs.callpoint, "rows");
    data_cbs.get_next = OnNext;
    data_cbs.get_object = OnObject;
    EXPECT_EQ(confd_register_trans_cb(daemon_, &trans_cbs), CONFD_OK);
    EXPECT_EQ(confd_register_data_cb(daemon_, &data_cbs), CONFD_OK);
    EXPECT_EQ(confd_register_done(daemon_), CONFD_OK);
    const Register registered = server_.Expect<Register>();
    EXPECT_EQ(registered.callpoints.size(), 1U);
    EXPECT_EQ(registered.callpoints[0].name, "rows");
  }
  void Disconnect() {
    if (daemon_ != nullptr) confd_release_daemon(daemon_);
    daemon_ = nullptr;
    close(control_);
    close(worker_);
  }

  /// Waits for a message on the socket; one confd_fd_ready() handles it.
  int HandleOne(int sock) {
    pollfd poll_fd{sock, POLLIN, 0};
    EXPECT_EQ(poll(&poll_fd, 1, 20000), 1);
    return confd_fd_ready(daemon_, sock);
  }
  /// Sends a message, which is handled.
  template <class M>
  int Deliver(const M& message) {
    const bool is_control = M::kType == MessageType::kTransInit;
    server_.Send(is_control ? control_id_ : worker_id_, message);
    return HandleOne(is_control ? control_ : worker_);
  }
  void Begin(int thandle) {
    EXPECT_EQ(Deliver(TransInit{thandle, "admin"}), CONFD_OK);
    const TransInitReply reply = server_.Expect<TransInitReply>();
    EXPECT_EQ(reply.error, "");
    EXPECT_EQ(reply.worker_id, worker_id_);
  }
  ReadRows Read(uint64_t request, int thandle, int64_t from = -1, uint16_t limit = 8) {
    return {request, thandle, "rows", row_, "", from, limit};
  }
  /// Begins a transaction whose first get_next is delayed; its context.
  confd_trans_ctx* BeginDelayed(int thandle, uint64_t request) {
    confd_trans_ctx* kept = nullptr;
    app_.on_next = [&](confd_trans_ctx* tctx, confd_hkeypath_t*, long) {
      kept = tctx;
      return CONFD_DELAYED_RESPONSE;
    };
    Begin(thandle);
    EXPECT_EQ(Deliver(Read(request, thandle)), CONFD_OK);
    return kept;
  }
  void ExpectRefused(int result, const char* text) {
    EXPECT_EQ(result, CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADSTATE);
    EXPECT_THAT(confd_lasterr(), HasSubstr(text));
    EXPECT_TRUE(server_.IsQuiet()) << "nothing may be sent";
  }

  TestServer server_{cdb_store::testing::BoxSchema()};
  const uint16_t row_ = cdb_store::testing::BoxSchema().FindPath("/tb:box/state/row")->id;
  Application app_;
  confd_daemon_ctx* daemon_ = nullptr;
  int control_ = -1, worker_ = -1;
  uint64_t control_id_ = 0, worker_id_ = 0;
};

}  // namespace confd_testing
