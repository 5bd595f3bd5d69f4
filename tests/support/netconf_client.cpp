#include "support/netconf_client.h"

#include <gtest/gtest.h>

#include <thread>

#include "netconf/xml.h"

namespace test {
namespace {

common::Result<netconf::Client> ConnectSoon(const std::string& path, bool base_1_1) {
  const auto deadline = std::chrono::steady_clock::now() + NetconfClient::kLimit;
  while (true) {
    auto client = netconf::Client::Connect(path, NetconfClient::kLimit, base_1_1);
    if (client.ok() || std::chrono::steady_clock::now() > deadline) return client;
    std::this_thread::sleep_for(std::chrono::milliseconds{2});
  }
}

std::string SubtreeFilter(std::string_view filter) {
  return "<filter type=\"subtree\">" + std::string{filter} + "</filter>";
}

}  // namespace

NetconfClient::NetconfClient(const std::string& socket_path, bool base_1_1)
    : client_{ConnectSoon(socket_path, base_1_1)} {
  if (!client_.ok()) ADD_FAILURE() << client_.error().Text();
}

std::string NetconfClient::Rpc(std::string_view operation) {
  if (!client_.ok()) return {};
  auto reply = client_.value().Rpc(operation, kLimit);
  if (!reply) {
    ADD_FAILURE() << reply.error().Text();
    return {};
  }
  return std::move(reply).value();
}

std::string NetconfClient::EditConfig(std::string_view config, std::string_view options) {
  std::string rpc = "<edit-config><target><running/></target>";
  rpc.append(options).append("<config>").append(config).append("</config></edit-config>");
  return Rpc(rpc);
}

std::string NetconfClient::GetConfig() { return Data("<get-config><source><running/></source></get-config>"); }
std::string NetconfClient::GetConfig(std::string_view filter) {
  return Data("<get-config><source><running/></source>" + SubtreeFilter(filter) + "</get-config>");
}
std::string NetconfClient::Get() { return Data("<get/>"); }
std::string NetconfClient::Get(std::string_view filter) { return Data("<get>" + SubtreeFilter(filter) + "</get>"); }

std::string NetconfClient::Data(std::string_view operation) {
  const std::string reply = Rpc(operation);
  const size_t start = reply.find("<data");
  const size_t open_end = reply.find('>', start);
  if (start == std::string::npos || open_end == std::string::npos) {
    ADD_FAILURE() << "no data in " << reply;
    return {};
  }
  if (reply[open_end - 1] == '/') return {};
  const size_t end = reply.rfind("</data>");
  return reply.substr(open_end + 1, end - open_end - 1);
}

bool IsOk(std::string_view reply) {
  const auto has = [reply](std::string_view text) { return reply.find(text) != std::string_view::npos; };
  return has("<ok/>") || (has("<error-severity>warning<") && !has("<error-severity>error<"));
}

}  // namespace test
