#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "netconf/client.h"

namespace test {

/// A NETCONF session of a test. A call that gets no answer within `kLimit` fails the running test and gives "".
class NetconfClient final {
 public:
  static constexpr std::chrono::milliseconds kLimit{60000};

  /// Connects, as soon as somebody listens at `socket_path` (at most kLimit), and exchanges hellos.
  explicit NetconfClient(const std::string& socket_path, bool base_1_1 = true);

  /// Sends `operation` (the XML inside <rpc>); the whole <rpc-reply>.
  std::string Rpc(std::string_view operation);
  /// <edit-config> on running; `options` are the elements between target and config.
  std::string EditConfig(std::string_view config, std::string_view options = "");
  /// The XML inside <data> of <get-config> on running; `filter` is the XML inside a subtree <filter>.
  std::string GetConfig();
  std::string GetConfig(std::string_view filter);
  /// The same of <get>.
  std::string Get();
  std::string Get(std::string_view filter);

  [[nodiscard]] bool Connected() const noexcept { return client_.ok(); }
  [[nodiscard]] netconf::Client& raw() { return client_.value(); }

 private:
  std::string Data(std::string_view operation);
  common::Result<netconf::Client> client_;
};

/// Whether the request was carried out: `reply` holds <ok/>, or only warnings.
bool IsOk(std::string_view reply);

}  // namespace test
