#include "metrics/metrics_server.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>

#include "common/socket_io.h"
#include "common/unique_fd.h"
#include "metrics/http_request.h"

namespace mgr::test {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::StartsWith;

MetricsServer::Families OneGauge(double value) {
  prometheus::ClientMetric metric;
  metric.gauge.value = value;
  return {{.name = "measured", .help = "a value", .type = prometheus::MetricType::Gauge, .metric = {metric}}};
}

uint16_t PortOf(const std::string& endpoint) {
  return static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
}

/// The server and its clients on one loop, turned by hand.
class MetricsServerTest : public testing::Test {
 protected:
  void Open(const std::string& address = "127.0.0.1") {
    auto opened = MetricsServer::Open(*loop_, address, 0);
    ASSERT_TRUE(opened.ok()) << opened.error().Text();
    server_ = std::move(opened).value();
  }
  [[nodiscard]] common::UniqueFd Connect() const {
    const uint16_t port = htons(PortOf(server_->Endpoint()));
    if (server_->Endpoint()[0] == '[') {
      const sockaddr_in6 address{.sin6_family = AF_INET6,
                                 .sin6_port = port,
                                 .sin6_flowinfo = 0,
                                 .sin6_addr = in6addr_loopback,
                                 .sin6_scope_id = 0};
      return ConnectTo(AF_INET6, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = port;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return ConnectTo(AF_INET, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
  static common::UniqueFd ConnectTo(int family, const sockaddr* address, socklen_t size) {
    common::UniqueFd fd{::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    EXPECT_EQ(::connect(fd.get(), address, size), 0) << std::strerror(errno);
    return fd;
  }
  static void Say(const common::UniqueFd& fd, const std::string& bytes) {
    EXPECT_EQ(common::SendNow(fd.get(), bytes).size, bytes.size());
  }
  /// Everything until the server closes the connection.
  std::string Answer(const common::UniqueFd& fd) {
    std::string all;
    std::string buffer(1 << 16, '\0');
    for (int i = 0; i < 10'000; ++i) {
      loop_->RunOnce(milliseconds{1});
      const common::IoOutcome outcome = common::ReceiveNow(fd.get(), buffer.data(), buffer.size());
      if (outcome.PeerIsGone()) return all;
      all.append(buffer, 0, outcome.size);
    }
    ADD_FAILURE() << "the connection is still open after: " << all;
    return all;
  }
  std::string Get() {
    const common::UniqueFd fd = Connect();
    Say(fd, "GET /metrics HTTP/1.1\r\nHost: manager\r\n\r\n");
    return Answer(fd);
  }

  const std::unique_ptr<common::EventLoop> loop_ = common::EventLoop::Create(false);
  std::unique_ptr<MetricsServer> server_;
};

std::string Page(int value) {
  return "# HELP ip_spoofing_manager_responding always 1: a manager that is too busy to answer serves nothing\n"
         "# TYPE ip_spoofing_manager_responding gauge\n"
         "ip_spoofing_manager_responding 1\n"
         "# HELP measured a value\n"
         "# TYPE measured gauge\n"
         "measured " +
         std::to_string(value) + "\n";
}

std::string Whole(const std::string& page) {
  return "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\nContent-Length: " +
         std::to_string(page.size()) + "\r\nConnection: close\r\n\r\n" + page;
}

TEST_F(MetricsServerTest, ServesWhatIsMeasuredAtThatMoment) {
  Open();
  int value = 0;
  server_->Serve([&] { return OneGauge(++value); });
  EXPECT_EQ(Get(), Whole(Page(1)));
  EXPECT_EQ(Get(), Whole(Page(2)));
}

TEST_F(MetricsServerTest, ServesOnIpv6) {
  Open("::1");
  EXPECT_THAT(server_->Endpoint(), StartsWith("[::1]:"));
  server_->Serve([] { return OneGauge(3); });
  EXPECT_EQ(Get(), Whole(Page(3)));
}

TEST_F(MetricsServerTest, AnswersArriveWholeHoweverLarge) {
  Open();
  server_->Serve([] {
    MetricsServer::Families families = OneGauge(1);
    families[0].help = std::string(8 << 20, 'h');
    return families;
  });
  EXPECT_GT(Get().size(), size_t{8} << 20);
}

TEST_F(MetricsServerTest, ARequestMayComeInPieces) {
  Open();
  server_->Serve([] { return OneGauge(1); });
  const common::UniqueFd fd = Connect();
  for (const char* piece : {"GET /met", "rics HTTP/1.1\r", "\nHost: manager\r\n", "\r\n"}) {
    Say(fd, piece);
    for (int i = 0; i < 5; ++i) loop_->RunOnce(milliseconds{1});
  }
  EXPECT_EQ(Answer(fd), Whole(Page(1)));
}

TEST_F(MetricsServerTest, ManyAskAtTheSameTime) {
  Open();
  int value = 0;
  server_->Serve([&] { return OneGauge(++value); });
  std::vector<common::UniqueFd> clients;
  for (int i = 0; i < 10; ++i) {
    clients.push_back(Connect());
    Say(clients.back(), "GET /metrics HTTP/1.1\r\n\r\n");
  }
  for (int i = 0; i < 10; ++i) EXPECT_EQ(Answer(clients[static_cast<size_t>(i)]), Whole(Page(i + 1)));
}

TEST_F(MetricsServerTest, SilentClientsTakeNoMoreThanTheirPlaces) {
  Open();
  server_->Serve([] { return OneGauge(1); });
  std::vector<common::UniqueFd> silent;
  for (int i = 0; i < 16; ++i) silent.push_back(Connect());
  const common::UniqueFd beyond = Connect();
  EXPECT_EQ(Answer(beyond), "");
  silent.clear();
  for (int i = 0; i < 20; ++i) loop_->RunOnce(milliseconds{1});
  EXPECT_EQ(Get(), Whole(Page(1)));
}

TEST_F(MetricsServerTest, EndsWithAClientConnected) {
  Open();
  server_->Serve([] { return OneGauge(1); });
  const common::UniqueFd fd = Connect();
  Say(fd, "GET /metrics");
  for (int i = 0; i < 5; ++i) loop_->RunOnce(milliseconds{1});
  server_.reset();
  EXPECT_EQ(Answer(fd), "");
}

TEST_F(MetricsServerTest, TellsWhyItCannotListen) {
  Open();
  const std::string taken = std::to_string(PortOf(server_->Endpoint()));
  struct Case {
    std::string address;
    uint16_t port;
    std::string text;
  };
  const std::vector<Case> cases{
      {"127.0.0.1", PortOf(server_->Endpoint()), "metrics 127.0.0.1:" + taken + ": Address already in use"},
      {"192.0.2.1", 0, "metrics 192.0.2.1:0: Cannot assign requested address"},
      {"2001:db8::1", 0, "metrics [2001:db8::1]:0: Cannot assign requested address"},
      {"localhost", 1, "metrics localhost: not a numeric IPv4 or IPv6 address"},
  };
  for (const Case& wrong : cases) {
    const auto opened = MetricsServer::Open(*loop_, wrong.address, wrong.port);
    ASSERT_FALSE(opened.ok()) << wrong.text;
    EXPECT_EQ(opened.error().Text(), wrong.text);
  }
}

struct Request {
  std::string name;
  std::string bytes;
  int status;  ///< 0: not complete
};
void PrintTo(const Request& row, std::ostream* out) { *out << row.name; }
class HttpRequest : public testing::TestWithParam<Request> {};

TEST_P(HttpRequest, IsJudged) {
  const auto status = JudgeHttpRequest(GetParam().bytes);
  EXPECT_EQ(status ? static_cast<int>(*status) : 0, GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(
    Metrics, HttpRequest,
    testing::Values(Request{"Empty", "", 0}, Request{"NoEnd", "GET /metrics HTTP/1.1\r\nHost: a\r\n", 0},
                    Request{"Whole", "GET /metrics HTTP/1.1\r\nHost: a\r\n\r\n", 200},
                    Request{"Http10", "GET /metrics HTTP/1.0\r\n\r\n", 200},
                    Request{"AQuery", "GET /metrics?name=a HTTP/1.1\r\n\r\n", 200},
                    Request{"AnotherPath", "GET / HTTP/1.1\r\n\r\n", 404},
                    Request{"AFile", "GET /etc/passwd HTTP/1.1\r\n\r\n", 404},
                    Request{"BelowIt", "GET /metrics/x HTTP/1.1\r\n\r\n", 404},
                    Request{"AnotherMethod", "POST /metrics HTTP/1.1\r\n\r\n", 405},
                    Request{"AnotherVersion", "GET /metrics HTTP/2\r\n\r\n", 400},
                    Request{"NoVersion", "GET /metrics\r\n\r\n", 400}, Request{"NoRequest", "\r\n\r\n", 400},
                    Request{"LongAndNoEnd", std::string(8193, 'x'), 431},
                    Request{"LongWithAnEnd", "GET /metrics HTTP/1.1\r\nA: " + std::string(8192, 'x') + "\r\n\r\n",
                            431}),
    [](const auto& row) { return row.param.name; });

TEST_F(MetricsServerTest, AWrongRequestIsAnsweredAndClosed) {
  Open();
  server_->Serve([] { return OneGauge(1); });
  const common::UniqueFd fd = Connect();
  Say(fd, "PUT /metrics HTTP/1.1\r\n\r\n");
  const std::string answer = Answer(fd);
  EXPECT_THAT(answer, StartsWith("HTTP/1.1 405 Method Not Allowed\r\n"));
  EXPECT_THAT(answer, HasSubstr("\r\nAllow: GET\r\n"));
}

}  // namespace
}  // namespace mgr::test
