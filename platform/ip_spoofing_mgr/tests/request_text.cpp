#include "request_text.h"

#include <arpa/inet.h>

#include <array>

namespace ip_spoofing_mgr {
namespace {

wire::Request Of(uint16_t port, wire::RequestKind kind, uint8_t value) {
  wire::Request request{};
  request.limid = {{port, 0}};
  request.kind = kind;
  request.value = value;
  return request;
}

std::string RequestText(const wire::Request& request) {
  const std::string port = std::to_string(request.limid.word[0]);
  if (request.kind == wire::RequestKind::kPort) return (request.value != 0 ? "enable " : "disable ") + port;
  if (request.kind == wire::RequestKind::kMode) return "mode " + port + " " + std::to_string(request.value);
  std::array<char, INET6_ADDRSTRLEN> address{};
  ::inet_ntop(request.family == 0 ? AF_INET : AF_INET6, request.address, address.data(), address.size());
  std::string text = request.kind == wire::RequestKind::kPut ? "put " : "remove ";
  text += port + "/" + std::to_string(request.vlan) + "/" + address.data();
  for (const uint8_t byte : request.mac) {
    if (byte != 0) text += " mac " + std::to_string(byte);
  }
  return text;
}

}  // namespace

wire::Request Enable(uint16_t port) { return Of(port, wire::RequestKind::kPort, 1); }
wire::Request Disable(uint16_t port) { return Of(port, wire::RequestKind::kPort, 0); }
wire::Request Mode(uint16_t port, uint8_t mode) { return Of(port, wire::RequestKind::kMode, mode); }

wire::Request Put(uint16_t port, uint16_t vlan, const std::string& address, uint8_t mac) {
  wire::Request request = Of(port, wire::RequestKind::kPut, 0);
  request.vlan = vlan;
  request.family = address.find(':') == std::string::npos ? 0 : 1;
  ::inet_pton(request.family == 0 ? AF_INET : AF_INET6, address.c_str(), request.address);
  request.mac[5] = mac;
  return request;
}

wire::Request Remove(uint16_t port, uint16_t vlan, const std::string& address) {
  wire::Request request = Put(port, vlan, address);
  request.kind = wire::RequestKind::kRemove;
  return request;
}

std::string BatchText(const wire::BatchPart& part) {
  std::string text = std::to_string(part.sequence) + (part.full ? " full [" : " [");
  for (size_t i = 0; i < part.requests.size(); ++i) text += (i == 0 ? "" : ", ") + RequestText(part.requests[i]);
  return text + (part.last ? "]" : "]...");
}

AllowedIpEntry Entry(uint16_t port, uint16_t vlan, const std::string& address, uint8_t mac) {
  AllowedIpEntry entry{};
  entry.family = address.find(':') == std::string::npos ? 0 : 1;
  ::inet_pton(entry.family == 0 ? AF_INET : AF_INET6, address.c_str(), entry.address);
  entry.vlan = vlan;
  entry.mac[5] = mac;
  entry.limid = {{port, 0}};
  return entry;
}

}  // namespace ip_spoofing_mgr
