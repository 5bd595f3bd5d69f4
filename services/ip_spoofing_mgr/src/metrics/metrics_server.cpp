#include "metrics/metrics_server.h"

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include "common/unique_fd.h"

namespace mgr {
namespace {

constexpr std::chrono::seconds kPatience{2};
constexpr std::chrono::milliseconds kBetweenKnocks{5};

/// An errno when `connect_or_bind` fails for a socket of its own, else 0.
int Try(int (*connect_or_bind)(int, const sockaddr*, socklen_t), const sockaddr_in& address) {
  const common::UniqueFd socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  return connect_or_bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

MetricsServer::Families Responding(bool responding) {
  prometheus::ClientMetric metric;
  metric.gauge.value = responding ? 1 : 0;
  return {{.name = "ip_spoofing_manager_responding",
           .help = "0 when the manager was too busy to be asked; there are no other metrics then",
           .type = prometheus::MetricType::Gauge,
           .metric = {metric}}};
}

}  // namespace

/// Between the threads that ask and the loop that answers.
class MetricsServer::Question final : public prometheus::Collectable {
 public:
  explicit Question(common::UniqueFd asked) : fd_{std::move(asked)} {}
  [[nodiscard]] int fd() const noexcept { return fd_.get(); }

  /// Any thread: an answer that was measured after the call, or that there is none.
  [[nodiscard]] Families Collect() const override {
    std::unique_lock lock{mutex_};
    const uint64_t mine = ++asked_;
    const uint64_t one = 1;
    if (::write(fd_.get(), &one, sizeof one) != sizeof one) return Responding(false);
    answered_now_.wait_for(lock, kPatience, [&] { return answered_ >= mine || closed_; });
    if (answered_ < mine) return Responding(false);
    return answer_;
  }

  /// Loop thread.
  void Answer(const std::function<Families()>& measure) {
    uint64_t count = 0;
    if (::read(fd_.get(), &count, sizeof count) != sizeof count) return;
    uint64_t upto = 0;
    {
      const std::lock_guard lock{mutex_};
      upto = asked_;
    }
    Families families = Responding(true);
    for (prometheus::MetricFamily& family : measure()) families.push_back(std::move(family));
    const std::lock_guard lock{mutex_};
    answer_ = std::move(families);
    answered_ = upto;
    answered_now_.notify_all();
  }

  void Close() {
    const std::lock_guard lock{mutex_};
    closed_ = true;
    answered_now_.notify_all();
  }

 private:
  const common::UniqueFd fd_;
  mutable std::mutex mutex_;
  mutable std::condition_variable answered_now_;
  mutable uint64_t asked_ = 0;
  uint64_t answered_ = 0;
  bool closed_ = false;
  Families answer_;
};

common::Result<std::unique_ptr<MetricsServer>> MetricsServer::Open(common::EventLoop& loop, const std::string& address,
                                                                   uint16_t port) {
  sockaddr_in endpoint{};
  endpoint.sin_family = AF_INET;
  endpoint.sin_port = htons(port);
  if (::inet_pton(AF_INET, address.c_str(), &endpoint.sin_addr) != 1) {
    return common::Error{"metrics", address, "not a numeric IPv4 address"};
  }
  const std::string wanted = address + ":" + std::to_string(port);
  common::UniqueFd asked{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  if (!asked) return common::SystemError("metrics", "eventfd", errno);
  auto question = std::make_shared<Question>(std::move(asked));
  try {
    auto exposer = std::make_unique<prometheus::Exposer>(
        std::vector<std::string>{"listening_ports", wanted, "num_threads", "2", "request_timeout_ms", "5000"});
    endpoint.sin_port = htons(static_cast<uint16_t>(exposer->GetListeningPorts().at(0)));
    return std::unique_ptr<MetricsServer>(new MetricsServer(loop, std::move(question), std::move(exposer), endpoint));
  } catch (const std::exception& failure) {
    const int error = Try(::bind, endpoint);  // the library does not say why
    return error != 0 ? common::SystemError("metrics", wanted, error)
                      : common::Error{"metrics", wanted, failure.what()};
  }
}

MetricsServer::MetricsServer(common::EventLoop& loop, std::shared_ptr<Question> question,
                             std::unique_ptr<prometheus::Exposer> exposer, const sockaddr_in& endpoint)
    : loop_{loop}, question_{std::move(question)}, exposer_{std::move(exposer)}, endpoint_{endpoint} {}

MetricsServer::~MetricsServer() {
  loop_.RemoveFd(question_->fd());
  question_->Close();
  // The library's accepting thread looks whether it shall end when somebody comes, else every two seconds.
  std::atomic<bool> ended = false;
  std::thread end{[&] {
    exposer_.reset();
    ended = true;
  }};
  while (!ended) {
    Try(::connect, endpoint_);
    std::this_thread::sleep_for(kBetweenKnocks);
  }
  end.join();
}

std::string MetricsServer::Endpoint() const {
  std::array<char, INET_ADDRSTRLEN> text{};
  ::inet_ntop(AF_INET, &endpoint_.sin_addr, text.data(), text.size());
  return std::string{text.data()} + ":" + std::to_string(ntohs(endpoint_.sin_port));
}

void MetricsServer::Serve(std::function<Families()> measure) {
  loop_.AddFd(question_->fd(), EPOLLIN,
              [question = question_.get(), measure = std::move(measure)](uint32_t) { question->Answer(measure); });
  exposer_->RegisterCollectable(question_);
}

}  // namespace mgr
