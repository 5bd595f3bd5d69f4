#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "netconf/xml.h"
#include "northbound/rpc_error.h"

namespace cdbd {

class NetconfServer;

/// One request of a session. Whoever holds it answers it once, now or later; a request that is let go unanswered
/// answers operation-failed by itself. Answering when the session is gone does nothing. Loop thread only.
class Rpc final {
 public:
  Rpc(NetconfServer& server, uint32_t session, std::string reply_attributes)
      : server_{&server}, session_{session}, attributes_{std::move(reply_attributes)} {}
  ~Rpc();
  Rpc(const Rpc&) = delete;
  Rpc& operator=(const Rpc&) = delete;

  /// The element inside <rpc>. Valid until the request is answered.
  [[nodiscard]] const netconf::XmlElement& operation() const noexcept { return *operation_; }
  void Hold(std::unique_ptr<netconf::XmlDocument> document, const netconf::XmlElement& operation) {
    document_ = std::move(document);
    operation_ = &operation;
  }
  [[nodiscard]] uint32_t session() const noexcept { return session_; }

  /// <ok/>; with warnings, as RFC 6241 has it (section 4.4: <ok/> is for neither errors nor warnings), those instead.
  void Ok(const RpcErrors& warnings = {});
  void Fail(const RpcErrors& errors);
  void Fail(RpcError error) { Fail(RpcErrors{std::move(error)}); }
  /// A reply with `content` (whole elements) in it.
  void Content(std::string_view content);

 private:
  void Send(std::string_view content, bool has_errors);

  NetconfServer* server_;
  const uint32_t session_;
  const std::string attributes_;
  std::unique_ptr<netconf::XmlDocument> document_;
  const netconf::XmlElement* operation_ = nullptr;
  bool answered_ = false;
};
using RpcPtr = std::shared_ptr<Rpc>;

}  // namespace cdbd
