#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "common/result.h"
#include "models.h"

namespace cli {

/// A configuration in a file: the data of one or more models as XML, alone or inside the <config>, <data> or
/// <rpc-reply> of a NETCONF message.
class ConfigFile final {
 public:
  /// Reads `path` and checks that it is well-formed XML; whether the data fits the models is the server's to check, and
  /// Check()'s. An error reads "FILE:LINE: reason".
  static common::Result<ConfigFile> Read(const std::string& path, const ly_ctx& models);

  /// Checks the data against `models`: names, types, patterns, keys, but nothing that depends on other data. Several
  /// times slower than Read(). An error reads "FILE:LINE: /path/to/node: reason".
  [[nodiscard]] common::Status Check(const ly_ctx& models) const;

  [[nodiscard]] const std::string& path() const noexcept { return path_; }
  /// The <config> of an <edit-config> with the data in it, as it stands in the file.
  [[nodiscard]] std::string Config() const;
  [[nodiscard]] size_t list_entries() const noexcept { return list_entries_; }
  /// "FILE:LINE" for the data that `data_path` names, "FILE" if it is not in the file. Parses the file again.
  [[nodiscard]] std::string Place(std::string_view data_path) const;

 private:
  class Scanner;
  ConfigFile(std::string path, std::string text) : path_{std::move(path)}, text_{std::move(text)} {}

  std::string path_;
  std::string text_;
  size_t begin_ = 0;  ///< of the data in the text
  size_t end_ = 0;
  bool wrapped_ = false;                           ///< the data stands inside other elements
  std::map<std::string, std::string> namespaces_;  ///< by prefix, as declared around the data
  size_t list_entries_ = 0;
};

}  // namespace cli
