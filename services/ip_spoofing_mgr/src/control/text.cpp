#include "control/text.h"

#include <arpa/inet.h>
#include <spdlog/fmt/chrono.h>
#include <spdlog/fmt/fmt.h>

namespace mgr {

std::string AddressText(uint32_t address_be) {
  std::array<char, INET_ADDRSTRLEN> text{};
  ::inet_ntop(AF_INET, &address_be, text.data(), text.size());
  return text.data();
}

std::string Ipv6Text(const std::array<uint8_t, 16>& address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  ::inet_ntop(AF_INET6, address.data(), text.data(), text.size());
  return text.data();
}

std::string MacText(const MacAddress& mac) {
  return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

std::string ModeText(AllowAll mode) {
  switch (mode) {
    case AllowAll::kNone:
      return "none";
    case AllowAll::kIpv4:
      return "ipv4-all";
    case AllowAll::kIpv6:
      return "ipv6-all";
    case AllowAll::kIpv4AndIpv6:
      return "ipv4-and-ipv6-all";
    case AllowAll::kAll:
      return "all";
  }
  return "?";
}

std::string TimeText(std::chrono::system_clock::time_point time) {
  const auto milliseconds = std::chrono::floor<std::chrono::milliseconds>(time);
  const auto seconds = std::chrono::floor<std::chrono::seconds>(milliseconds);
  return fmt::format("{:%FT%T}.{:03}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(seconds)),
                     (milliseconds - seconds).count());
}

}  // namespace mgr
