#pragma once

#include <string>
#include <utility>
#include <vector>

namespace cdbd {

/// Names what an error is about, as "bad-element" with the element's name does.
struct ErrorDetail {
  std::string name;
  std::string text;
  std::string ns{};  ///< of `name`; empty: that of the protocol
};

/// What is wrong with data, in the terms that YANG has for it (RFC 7950, section 15). Whoever serves a protocol writes
/// it down in the protocol's form.
struct DataError {
  std::string tag = "operation-failed";
  std::string message{};
  std::string path{};  ///< XPath; every step has the module's prefix
  std::string app_tag{};
  std::vector<ErrorDetail> details{};
  bool warning = false;                                                ///< severity
  std::vector<std::pair<std::string, std::string>> path_namespaces{};  ///< prefix and namespace of the steps
};
using DataErrors = std::vector<DataError>;

}  // namespace cdbd
