#pragma once

#include <string>

#include "output.h"
#include "reply_reader.h"
#include "text_table.h"

namespace cli {

/// Shows the running configuration: a line for each allowed source, or the data itself.
ExitStatus ShowConfig(const Target& target, Format format);

/// Prints a configuration as a table while it arrives. A port that lets nothing pass has a line of its own.
class ConfigTable final : public DataReader {
 public:
  explicit ConfigTable(Write write) : table_{{"PORT", "ALLOWED SOURCE", "VLAN", "MAC"}, std::move(write)} {}
  void OnStart(size_t level, const netconf::XmlName& name) override;
  void OnEnd(size_t level, const netconf::XmlName& name, std::string_view text) override;
  void OnComplete() override { table_.End(); }

 private:
  void EndOfSource(const netconf::XmlName& name);

  TextTable table_;
  std::string port_;
  bool any_ = false;  ///< the port has a source
  std::string address_;
  std::string vlan_;
  std::string mac_;
};

}  // namespace cli
