#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "common/result.h"
#include "netconf/xml.h"

namespace cli {

/// One <rpc-error> (RFC 6241, 4.3).
struct RpcError {
  std::string tag;
  std::string path;
  std::string message;
  bool warning = false;

  /// "path: message", with the tag in place of what is missing.
  [[nodiscard]] std::string Text() const;
};

/// The errors and warnings of an <rpc-reply>, in its order. Empty for a reply that carries only <ok/> or <data>.
std::vector<RpcError> RpcErrors(const netconf::XmlElement& reply);

}  // namespace cli
