#include "control/explain.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "control/text.h"
#include "dataplane/judge.h"
#include "dataplane/verdict_text.h"

namespace mgr {
namespace {

using nlohmann::json;

constexpr size_t kMaxFrame = 65'535;
constexpr MacAddress kSampleMac = {0x02, 0, 0, 0, 0, 0x01};

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const int lower = std::tolower(static_cast<unsigned char>(c));
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

const Port* FindPort(const Table& table, const std::string& name) {
  const auto& ports = table.ports();
  const auto it = std::find_if(ports.begin(), ports.end(), [&](const auto& port) { return port.second.name == name; });
  return it == ports.end() ? nullptr : &it->second;
}

std::string StringOf(const json& arguments, const char* member) {
  const auto it = arguments.find(member);
  return it != arguments.end() && it->is_string() ? it->get<std::string>() : "";
}

common::Error Wrong(std::string what, std::string reason) { return {"explain", std::move(what), std::move(reason)}; }

}  // namespace

common::Result<std::vector<uint8_t>> ParseHex(const std::string& text) {
  std::vector<uint8_t> bytes;
  int high = -1;
  for (const char c : text) {
    if (high < 0 && (std::isspace(static_cast<unsigned char>(c)) != 0 || c == ':')) continue;
    const int digit = HexDigit(c);
    if (digit < 0) return Wrong("frame", "not hexadecimal");
    if (high < 0) {
      high = digit;
      continue;
    }
    bytes.push_back(static_cast<uint8_t>(high << 4 | digit));
    high = -1;
  }
  if (high >= 0) return Wrong("frame", "half a byte at the end");
  if (bytes.empty() || bytes.size() > kMaxFrame) return Wrong("frame", "1 to 65535 bytes are expected");
  return bytes;
}

std::optional<MacAddress> ParseMac(const std::string& text) {
  std::array<unsigned, 6> part{};
  int used = 0;
  if (std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%n", &part[0], &part[1], &part[2], &part[3], &part[4], &part[5],
                  &used) != 6 ||
      static_cast<size_t>(used) != text.size())
    return std::nullopt;
  MacAddress mac{};
  std::copy(part.begin(), part.end(), mac.begin());
  return mac;
}

std::vector<uint8_t> SampleFrame(uint16_t vlan, uint32_t source_be, const MacAddress& mac) {
  std::vector<uint8_t> frame(6, 0xff);
  frame.insert(frame.end(), mac.begin(), mac.end());
  if (vlan != 0) {
    const std::array<uint8_t, 4> tag = {0x81, 0x00, static_cast<uint8_t>(vlan >> 8), static_cast<uint8_t>(vlan & 0xff)};
    frame.insert(frame.end(), tag.begin(), tag.end());
  }
  std::array<uint8_t, 30> packet = {0x08, 0x00, 0x45, 0, 0, 28, 0, 0, 0, 0, 64, 17};
  std::memcpy(&packet[14], &source_be, sizeof source_be);
  packet[18] = 192;  // to 192.0.2.1, port 9 to port 9
  packet[20] = 2;
  packet[21] = 1;
  packet[23] = packet[25] = 9;
  packet[27] = 8;
  frame.insert(frame.end(), packet.begin(), packet.end());
  return frame;
}

json Explain(const Table& table, const Dataplane& plane, const std::string& name, const std::vector<uint8_t>& frame) {
  const Port* port = FindPort(table, name);
  const PortConfig config = port != nullptr && port->installed ? *port->installed : PortConfig{};
  const FindEntry find = [&](uint16_t vlan, uint32_t source_be) -> std::optional<MacAddress> {
    const auto* node = table.entries().Find({config.id, vlan, source_be});
    if (node == nullptr || !node->second.installed) return std::nullopt;
    return node->second.installed_mac;
  };
  const Sight sight = plane.HidesTaggedLength() ? Sight::kNoTaggedLength : Sight::kWhole;
  const Judgement judgement = Judge(frame, std::nullopt, ToVerdictPort(config), find, sight);
  const auto& [result, keys, entry] = judgement;
  json entry_text = nullptr;
  if (entry) {
    entry_text = AddressText(keys.source_be) + " vlan " + std::to_string(keys.vlan) + " mac " +
                 (*entry == MacAddress{} ? "any" : MacText(*entry));
  }
  const bool has_source = verdict_has_source(&keys) != 0;
  return {{"port", name},
          {"dataplane", plane.Name()},
          {"verdict", result.drop == 0 ? "pass" : "drop"},
          {"reason", ReasonName(static_cast<verdict_reason>(result.reason))},
          {"row", RowText(static_cast<verdict_row>(result.row))},
          {"vlan", keys.vlan},
          {"ethertype", keys.ethertype},
          {"source", has_source ? json(AddressText(keys.source_be)) : json(nullptr)},
          {"mac", MacText(FromVerdictMac(keys.mac))},
          {"entry", entry_text},
          {"monitor", config.monitor}};
}

common::Result<json> ExplainCommand(const Table& table, const Dataplane& plane, const json& arguments) {
  const std::string port = StringOf(arguments, "port");
  if (port.empty()) return Wrong("", "which interface?");
  if (arguments.contains("frame")) {
    auto frame = ParseHex(StringOf(arguments, "frame"));
    if (!frame.ok()) return frame.error();
    return Explain(table, plane, port, frame.value());
  }
  uint32_t source_be = 0;
  const std::string source = StringOf(arguments, "source");
  if (inet_pton(AF_INET, source.c_str(), &source_be) != 1) return Wrong("source " + source, "not an IPv4 address");
  const auto vlan_argument = arguments.find("vlan");
  const bool has_vlan = vlan_argument != arguments.end() && vlan_argument->is_number_integer();
  const auto vlan = has_vlan ? vlan_argument->get<int64_t>() : 0;
  if (vlan < 0 || vlan > 4095) return Wrong("vlan", "0 to 4095 are expected");
  MacAddress mac = kSampleMac;
  if (const std::string text = StringOf(arguments, "mac"); !text.empty()) {
    const auto parsed = ParseMac(text);
    if (!parsed) return Wrong("mac " + text, "six bytes with colons are expected");
    mac = *parsed;
  }
  return Explain(table, plane, port, SampleFrame(static_cast<uint16_t>(vlan), source_be, mac));
}

}  // namespace mgr
