#pragma once

#include <string>

namespace cdbd::test {

/// An <rpc-error> as the server writes it; what is empty is left out.
struct ErrorText {
  std::string type = "application";
  std::string tag = "operation-failed";
  std::string message{};
  std::string info{};
  std::string app_tag{};
  bool warning = false;

  [[nodiscard]] std::string Xml() const {
    const auto element = [](const std::string& name, const std::string& text, const std::string& attributes = "") {
      return text.empty() ? "" : "<" + name + attributes + ">" + text + "</" + name + ">";
    };
    return "<rpc-error>" + element("error-type", type) + element("error-tag", tag) +
           element("error-severity", warning ? "warning" : "error") + element("error-app-tag", app_tag) +
           element("error-message", message, " xml:lang=\"en\"") + element("error-info", info) + "</rpc-error>";
  }
};

/// What is inside the <rpc-reply>.
inline std::string Inside(const std::string& reply) {
  const size_t begin = reply.find('>') + 1;
  return reply.substr(begin, reply.rfind("</rpc-reply>") - begin);
}

}  // namespace cdbd::test
