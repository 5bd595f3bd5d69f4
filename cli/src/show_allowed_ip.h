#pragma once

#include <array>
#include <string>

#include "output.h"
#include "reply_reader.h"
#include "text_table.h"

namespace cli {

/// Shows the sources that the element knows and whether they are in force; `interface` "" stands for all interfaces.
ExitStatus ShowAllowedIp(const Target& target, const std::string& interface, Format format);

/// Prints the operational list as a table while it arrives.
class AllowedIpTable final : public DataReader {
 public:
  explicit AllowedIpTable(Write write);
  void OnStart(size_t level, const netconf::XmlName& name) override;
  void OnEnd(size_t level, const netconf::XmlName& name, std::string_view text) override;
  void OnComplete() override { table_.End(); }

 private:
  static constexpr std::array<std::string_view, 6> kLeaves{"interface", "address", "vlan", "mac", "state", "filtering"};

  TextTable table_;
  std::vector<std::string> row_;  ///< values of the leaves, as the element says them
};

}  // namespace cli
