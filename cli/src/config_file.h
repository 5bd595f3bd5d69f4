#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "common/result.h"
#include "models.h"
#include "netconf/xml.h"

namespace cli {

/// A configuration in a file: the data of one or more models as XML, alone or inside the <config>, <data> or
/// <rpc-reply> of a NETCONF message.
class ConfigFile final {
 public:
  /// Reads `path` and checks it against `models`: names, types, patterns, keys; what depends on other data is the
  /// server's to check. An error reads "FILE:LINE: /path/to/node: reason".
  static common::Result<ConfigFile> Read(const std::string& path, const ly_ctx& models);

  [[nodiscard]] const std::string& path() const noexcept { return path_; }
  /// The data, fit to stand inside an <edit-config>'s <config>.
  [[nodiscard]] std::string Content() const;
  [[nodiscard]] size_t list_entries() const noexcept { return list_entries_; }
  /// "FILE:LINE" for the data that `data_path` names, "FILE" when it is not in here.
  [[nodiscard]] std::string Place(std::string_view data_path) const;

 private:
  ConfigFile(std::string path, std::unique_ptr<netconf::XmlDocument> document);
  common::Status Check(const ly_ctx& models, const std::string& text);

  std::string path_;
  std::unique_ptr<netconf::XmlDocument> document_;
  const netconf::XmlElement* first_ = nullptr;  ///< of the data; null when there is none
  size_t list_entries_ = 0;
};

}  // namespace cli
