#include "metrics/metrics_server.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "http/http_get.h"

namespace mgr::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

MetricsServer::Families OneGauge(double value) {
  prometheus::ClientMetric metric;
  metric.gauge.value = value;
  return {{.name = "measured", .help = "a value", .type = prometheus::MetricType::Gauge, .metric = {metric}}};
}

uint16_t PortOf(const std::string& endpoint) {
  return static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
}

class MetricsServerTest : public testing::Test {
 protected:
  void Open(const std::string& address = "127.0.0.1") {
    auto opened = MetricsServer::Open(*loop_, address, 0);
    ASSERT_TRUE(opened.ok()) << opened.error().Text();
    server_ = std::move(opened).value();
  }
  /// Asks from another thread; the loop runs meanwhile when `answers`.
  std::string Get(bool answers = true) {
    std::optional<http::Answer> answer;
    std::atomic<bool> done = false;
    std::thread client{[&] {
      answer = http::Get("127.0.0.1", PortOf(server_->Endpoint()), "/metrics");
      done = true;
    }};
    while (answers && !done) loop_->RunOnce(std::chrono::milliseconds{1});
    client.join();
    return answer ? answer->body : "no answer";
  }

  const std::unique_ptr<common::EventLoop> loop_ = common::EventLoop::Create(false);
  std::unique_ptr<MetricsServer> server_;
};

TEST_F(MetricsServerTest, AnswersWithWhatIsMeasuredOnTheLoopAtThatMoment) {
  Open();
  double value = 0;
  const auto loop_thread = std::this_thread::get_id();
  server_->Serve([&] {
    EXPECT_EQ(std::this_thread::get_id(), loop_thread);
    return OneGauge(++value);
  });
  EXPECT_THAT(Get(), AllOf(HasSubstr("\nip_spoofing_manager_responding 1\n"), HasSubstr("\nmeasured 1\n")));
  EXPECT_THAT(Get(), HasSubstr("\nmeasured 2\n"));
}

TEST_F(MetricsServerTest, SaysThatTheLoopIsBusyWhenItIsAndRecovers) {
  Open();
  server_->Serve([] { return OneGauge(1); });
  EXPECT_THAT(Get(false), AllOf(HasSubstr("\nip_spoofing_manager_responding 0\n"), Not(HasSubstr("measured"))));
  EXPECT_THAT(Get(), AllOf(HasSubstr("\nip_spoofing_manager_responding 1\n"), HasSubstr("\nmeasured 1\n")));
}

TEST_F(MetricsServerTest, AnswersManyThatAskAtTheSameTime) {
  Open();
  int measured = 0;
  server_->Serve([&] { return OneGauge(++measured); });
  constexpr int kClients = 4, kRequests = 25;
  std::atomic<int> left = kClients, wrong = 0;
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back([&] {
      double last = 0;
      for (int j = 0; j < kRequests; ++j) {
        const auto answer = http::Get("127.0.0.1", PortOf(server_->Endpoint()), "/metrics");
        const size_t at = answer ? answer->body.find("\nmeasured ") : std::string::npos;
        const double value = at == std::string::npos ? 0 : std::stod(answer->body.substr(at + 10));
        if (value <= last) ++wrong;  // every question is answered by what was measured after it
        last = value;
      }
      --left;
    });
  }
  while (left != 0) loop_->RunOnce(std::chrono::milliseconds{1});
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_LE(measured, kClients * kRequests);
}

TEST_F(MetricsServerTest, EndsWhileSomebodyWaitsForAnAnswer) {
  Open();
  server_->Serve([] { return OneGauge(1); });
  const uint16_t port = PortOf(server_->Endpoint());
  std::thread client{[port] { http::Get("127.0.0.1", port, "/metrics"); }};
  const auto begin = std::chrono::steady_clock::now();
  server_.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds{1});
  client.join();
  EXPECT_EQ(http::Get("127.0.0.1", port, "/metrics"), std::nullopt);
}

TEST_F(MetricsServerTest, ServesNothingElse) {
  Open();
  server_->Serve([] { return OneGauge(1); });
  for (const char* path : {"/", "/etc/passwd", "/../../etc/passwd"}) {
    const auto answer = http::Get("127.0.0.1", PortOf(server_->Endpoint()), path);
    ASSERT_TRUE(answer) << path;
    EXPECT_GE(answer->status, 400) << path;
  }
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
      {"localhost", 1, "metrics localhost: not a numeric IPv4 address"},
      {"::1", 1, "metrics ::1: not a numeric IPv4 address"},
  };
  for (const Case& wrong : cases) {
    const auto opened = MetricsServer::Open(*loop_, wrong.address, wrong.port);
    ASSERT_FALSE(opened.ok()) << wrong.text;
    EXPECT_EQ(opened.error().Text(), wrong.text);
  }
}

}  // namespace
}  // namespace mgr::test
