#include "fakes/fake_provider.h"

#include "fakes/script.h"
#include "fakes/trace.h"

namespace fakes {
namespace {

void Add(std::string line) { TheTrace().Add(Kind::kConfd, std::move(line)); }

/// What a line ends with when a call is given another context than the wrapper's.
const char* Foreign(const confd_daemon_ctx* dctx) {
  return dctx == &TheProvider().daemon ? "" : " of a foreign daemon";
}

void AddReply(const confd_trans_ctx* tctx, const std::string& rest) {
  TheTrace().Add(Kind::kReply, Format("reply %d ", tctx->thandle) + rest);
}

std::string Hex(const confd_buf_const_t& bytes) {
  std::string text;
  for (unsigned i = 0; i < bytes.size; ++i) text += Format("%s%02x", i == 0 ? "" : ":", bytes.ptr[i]);
  return text;
}

std::string TextOf(const confd_value_t& value) {
  char address[INET6_ADDRSTRLEN] = {};
  switch (value.type) {
    case C_INT64:
      return "int64:" + std::to_string(value.val.i64);
    case C_UINT32:
      return "uint32:" + std::to_string(value.val.u32);
    case C_ENUM_VALUE:
      return "enum:" + std::to_string(value.val.enumvalue);
    case C_BINARY:
      return "binary:" + Hex(value.val.c_buf);
    case C_IPV4:
      return std::string("ipv4:") + inet_ntop(AF_INET, &value.val.ip, address, sizeof address);
    case C_IPV6:
      return std::string("ipv6:") + inet_ntop(AF_INET6, &value.val.ip6, address, sizeof address);
    case C_STR:
      return std::string("str:") + value.val.s;
    default:
      return Format("type %d", value.type);
  }
}

}  // namespace

confd_trans_ctx* Provider::Transaction(int thandle) {
  std::unique_ptr<confd_trans_ctx>& context = transactions_[thandle];
  if (context == nullptr) context = std::make_unique<confd_trans_ctx>(confd_trans_ctx{&daemon, thandle, nullptr, {}});
  return context.get();
}

Provider& TheProvider() {
  static Provider* const provider = new Provider;
  return *provider;
}

}  // namespace fakes

confd_daemon_ctx* confd_init_daemon(const char* /*name*/) { return &fakes::TheProvider().daemon; }
void confd_release_daemon(confd_daemon_ctx* /*dctx*/) {}

int confd_connect(confd_daemon_ctx* /*dctx*/, int /*sock*/, confd_sock_type /*type*/, const sockaddr* /*srv*/,
                  int /*srv_size*/) {
  return fakes::ScriptedResult("confd_connect");
}

int confd_register_trans_cb(confd_daemon_ctx* dctx, const confd_trans_cbs* cbs) {
  fakes::Add(std::string("confd_register_trans_cb") + fakes::Foreign(dctx));
  fakes::TheProvider().trans_cbs = *cbs;
  return fakes::ScriptedResult("confd_register_trans_cb");
}

int confd_register_data_cb(confd_daemon_ctx* dctx, const confd_data_cbs* cbs) {
  fakes::Add(std::string("confd_register_data_cb ") + cbs->callpoint + fakes::Foreign(dctx));
  fakes::TheProvider().data_cbs = *cbs;
  return fakes::ScriptedResult("confd_register_data_cb");
}

int confd_register_done(confd_daemon_ctx* dctx) {
  fakes::Add(std::string("confd_register_done") + fakes::Foreign(dctx));
  return fakes::ScriptedResult("confd_register_done");
}

int confd_fd_ready(confd_daemon_ctx* /*dctx*/, int /*fd*/) { return fakes::ScriptedResult("confd_fd_ready"); }

int confd_trans_set_fd(confd_trans_ctx* tctx, int sock) {
  fakes::Add(fakes::Format("confd_trans_set_fd %d %d", tctx->thandle, sock));
  return fakes::ScriptedResult("confd_trans_set_fd");
}

int confd_data_reply_next_key(confd_trans_ctx* tctx, const confd_value_t* keys, int n, long next) {
  if (keys == nullptr && n == -1 && next == -1) {
    fakes::AddReply(tctx, "end");
    return fakes::ScriptedResult("confd_data_reply_next_key");
  }
  std::string text = keys == nullptr ? fakes::Format("no keys, n %d", n) : "key";
  for (int i = 0; keys != nullptr && i < n; ++i) text += " " + fakes::TextOf(keys[i]);
  fakes::AddReply(tctx, text + fakes::Format(" next %ld", next));
  return fakes::ScriptedResult("confd_data_reply_next_key");
}

int confd_data_reply_tag_value_array(confd_trans_ctx* tctx, const confd_tag_value_t* values, int n) {
  std::string text = "row";
  for (int i = 0; i < n; ++i) {
    text += fakes::Format(" %08x", values[i].tag.tag);
    if (values[i].tag.ns != 0) text += fakes::Format("@%x", values[i].tag.ns);
    text += "=" + fakes::TextOf(values[i].v);
  }
  fakes::AddReply(tctx, text);
  return fakes::ScriptedResult("confd_data_reply_tag_value_array");
}

int confd_data_reply_not_found(confd_trans_ctx* tctx) {
  fakes::AddReply(tctx, "not found");
  return CONFD_OK;
}

int confd_delayed_reply_error(confd_trans_ctx* tctx, const char* text) {
  fakes::AddReply(tctx, std::string("error ") + text);
  return CONFD_OK;
}
