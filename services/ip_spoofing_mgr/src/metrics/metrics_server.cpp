#include "metrics/metrics_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <prometheus/text_serializer.h>
#include <spdlog/spdlog.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

#include "common/unique_fd.h"
#include "metrics/http_request.h"

namespace mgr {
namespace {

constexpr size_t kMaxClients = 16;
constexpr std::chrono::seconds kTimeLimit{10};  // for a request and its answer
constexpr const char* kTextFormat = "text/plain; version=0.0.4; charset=utf-8";
constexpr const char* kPlainText = "text/plain; charset=utf-8";

/// An IPv4 or IPv6 socket address.
struct Address {
  sockaddr_storage storage{};
  socklen_t size = 0;

  [[nodiscard]] const sockaddr* generic() const { return reinterpret_cast<const sockaddr*>(&storage); }

  static common::Result<Address> Parse(const std::string& text, uint16_t port) {
    Address address;
    auto* v4 = reinterpret_cast<sockaddr_in*>(&address.storage);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&address.storage);
    if (::inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
      v4->sin_family = AF_INET;
      v4->sin_port = htons(port);
      address.size = sizeof *v4;
    } else if (::inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
      v6->sin6_family = AF_INET6;
      v6->sin6_port = htons(port);
      address.size = sizeof *v6;
    } else {
      return common::Error{"metrics", text, "not a numeric IPv4 or IPv6 address", common::ErrorCode::kInvalid};
    }
    return address;
  }

  [[nodiscard]] std::string Text() const {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (storage.ss_family == AF_INET6) {
      const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&storage);
      ::inet_ntop(AF_INET6, &v6->sin6_addr, text.data(), text.size());
      return "[" + std::string{text.data()} + "]:" + std::to_string(ntohs(v6->sin6_port));
    }
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(&storage);
    ::inet_ntop(AF_INET, &v4->sin_addr, text.data(), text.size());
    return std::string{text.data()} + ":" + std::to_string(ntohs(v4->sin_port));
  }
};

prometheus::MetricFamily Responding() {
  prometheus::ClientMetric metric;
  metric.gauge.value = 1;
  return {.name = "ip_spoofing_manager_responding",
          .help = "always 1: a manager that is too busy to answer serves nothing",
          .type = prometheus::MetricType::Gauge,
          .metric = {metric}};
}

}  // namespace

struct MetricsServer::Client {
  common::Listener::Slot slot{};
  std::string request{};
  bool gone = false;
  common::ScheduledTask timer{};
  std::unique_ptr<common::Stream> stream{};
};

common::Result<std::unique_ptr<MetricsServer>> MetricsServer::Open(common::EventLoop& loop, const std::string& address,
                                                                   uint16_t port) {
  auto wanted = Address::Parse(address, port);
  if (!wanted) return wanted.error();
  Address& endpoint = wanted.value();
  common::UniqueFd fd{::socket(endpoint.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  if (!fd) return common::SystemError("metrics", endpoint.Text(), errno);
  const int on = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);  // connections of an earlier run may linger
  if (::bind(fd.get(), endpoint.generic(), endpoint.size) != 0 || ::listen(fd.get(), SOMAXCONN) != 0 ||
      ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&endpoint.storage), &endpoint.size) != 0) {
    return common::SystemError("metrics", endpoint.Text(), errno);
  }
  return std::unique_ptr<MetricsServer>(new MetricsServer(loop, std::move(fd), endpoint.Text()));
}

MetricsServer::MetricsServer(common::EventLoop& loop, common::ListeningSocket socket, std::string endpoint)
    : loop_{loop}, socket_{std::move(socket)}, endpoint_{std::move(endpoint)} {}

MetricsServer::~MetricsServer() = default;

void MetricsServer::Serve(std::function<Families()> measure) {
  measure_ = std::move(measure);
  listener_ = std::make_unique<common::Listener>(
      loop_, std::move(socket_), common::Listener::Options{.max_connections = kMaxClients, .peer_credentials = false},
      common::Listener::Handlers{
          .on_connection = [this](common::Listener::Connection c) { OnConnection(std::move(c)); },
          .on_trouble = [](const std::string& text) { spdlog::warn("metrics: {}", text); }});
}

void MetricsServer::OnConnection(common::Listener::Connection accepted) {
  Client* client = &clients_.emplace_back();
  client->slot = std::move(accepted.slot);
  client->timer = loop_.After(kTimeLimit, [this, client] { Remove(client); });
  client->stream = std::make_unique<common::Stream>(
      loop_, std::move(accepted.socket), common::Stream::Options{},
      common::Stream::Handlers{.on_data = [this, client](std::string_view bytes) { OnData(client, bytes); },
                               .on_closed = [this, client](const common::CloseInfo&) { Remove(client); }});
}

void MetricsServer::OnData(Client* client, std::string_view bytes) {
  client->request.append(bytes);
  const auto status = JudgeHttpRequest(client->request);
  if (!status) return;
  if (*status == HttpStatus::kOk) {
    Families families{Responding()};
    for (prometheus::MetricFamily& family : measure_()) families.push_back(std::move(family));
    client->stream->Send(HttpResponse(*status, kTextFormat, prometheus::TextSerializer{}.Serialize(families)));
  } else {
    client->stream->Send(HttpResponse(*status, kPlainText, "Metrics are at /metrics.\n"));
  }
  client->stream->CloseWhenSent();
}

void MetricsServer::Remove(Client* client) {
  client->gone = true;
  client->stream->Close();
  forget_gone_ = loop_.Soon([this] { std::erase_if(clients_, [](const Client& c) { return c.gone; }); });
}

}  // namespace mgr
