#include "service_main/service_main.h"

#include <gmock/gmock.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "common/socket_io.h"
#include "common/unique_fd.h"
#include "common/unix_socket.h"
#include "forked/forked.h"
#include "limited_sink.h"
#include "temp_dir/temp_dir.h"

namespace service_main {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

/// A supervisor's notification socket.
class Supervisor final {
 public:
  Supervisor() : fd_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)} {
    const auto address = common::UnixAddress(Path());
    EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address.value()), sizeof(sockaddr_un)), 0);
  }
  [[nodiscard]] std::string Path() const { return dir_.path() + "/notify"; }
  /// What has been told until now, in order.
  [[nodiscard]] std::vector<std::string> Told() const {
    std::vector<std::string> told;
    std::string buffer(256, '\0');
    while (true) {
      const auto outcome = common::ReceivePacketNow(fd_.get(), buffer.data(), buffer.size());
      if (outcome.kind != common::IoOutcome::Kind::kBytes) return told;
      told.push_back(buffer.substr(0, outcome.size));
    }
  }
  [[nodiscard]] const std::string& dir() const { return dir_.path(); }

 private:
  const ::test::TempDir dir_;
  const common::UniqueFd fd_;
};

class ServiceMain : public testing::Test {
 protected:
  /// Runs a service in a process of its own; its exit status.
  int Run(const Start& start, const char* watchdog_us = nullptr) const {
    return ::test::InChild([&] {
      ::setenv("NOTIFY_SOCKET", supervisor_.Path().c_str(), 1);
      if (watchdog_us != nullptr) ::setenv("WATCHDOG_USEC", watchdog_us, 1);
      if (std::freopen(LogPath().c_str(), "w", stderr) == nullptr) return 99;
      std::setvbuf(stderr, nullptr, _IONBF, 0);  // as it is without freopen(3)
      return service_main::Run("service", start);
    });
  }
  [[nodiscard]] std::string LogPath() const { return supervisor_.dir() + "/log"; }
  [[nodiscard]] std::string Log() const {
    std::ostringstream text;
    text << std::ifstream{LogPath()}.rdbuf();
    return text.str();
  }
  const Supervisor supervisor_;
};

/// A service that is over after `time`.
struct Ends {
  Ends(common::EventLoop& loop, milliseconds time) : task{loop.After(time, [] { ::raise(SIGTERM); })} {}
  common::ScheduledTask task;
};
Start EndsAfter(milliseconds time) {
  return [time](common::EventLoop& loop) -> common::Result<Service> {
    return Service{std::make_shared<Ends>(loop, time)};
  };
}

TEST_F(ServiceMain, TellsTheSupervisorAndEndsBySignal) {
  EXPECT_EQ(Run(EndsAfter(milliseconds{0})), 0);
  EXPECT_THAT(supervisor_.Told(), ElementsAre("READY=1", "STOPPING=1"));
  EXPECT_EQ(Log(), "");
}

TEST_F(ServiceMain, FeedsTheWatchdogFromTheLoop) {
  EXPECT_EQ(Run(EndsAfter(milliseconds{250}), "200000"), 0);
  const std::vector<std::string> told = supervisor_.Told();
  ASSERT_GE(told.size(), 4U);  // at once, after 100 ms, after 200 ms, unless the machine stands still
  EXPECT_EQ(told.front(), "READY=1");
  EXPECT_EQ(told.back(), "STOPPING=1");
  for (size_t i = 1; i + 1 < told.size(); ++i) EXPECT_EQ(told[i], "WATCHDOG=1");
}

TEST_F(ServiceMain, AServiceThatCannotStartSaysWhy) {
  EXPECT_EQ(Run([](common::EventLoop&) -> common::Result<Service> { return common::Error{"open", "/x", "no"}; }), 1);
  EXPECT_EQ(Log(), "service: open /x: no\n");
  EXPECT_THAT(supervisor_.Told(), ElementsAre());
}

TEST(LimitedSinkTest, WritesARepeatedWarningOnce) {
  std::ostringstream out;
  spdlog::logger logger{"service",
                        std::make_shared<LimitedSink>(std::make_shared<spdlog::sinks::ostream_sink_st>(out))};
  logger.set_pattern("%l: %v");
  for (int i = 0; i < 1000; ++i) logger.warn("accept failed");
  logger.warn("another text");
  for (int i = 0; i < 2; ++i) logger.info("session started");
  EXPECT_EQ(out.str(), "warning: accept failed\nwarning: another text\ninfo: session started\ninfo: session started\n");
}

TEST(LimitedSinkTest, SaysHowManyItLeftOut) {
  std::ostringstream out;
  spdlog::logger logger{"service", std::make_shared<LimitedSink>(std::make_shared<spdlog::sinks::ostream_sink_st>(out),
                                                                 common::LogLimiter{milliseconds{1}})};
  logger.set_pattern("%v");
  // Whatever the time between the lines: every one is written or counted.
  for (int i = 0; i < 1000; ++i) logger.error("again");
  const auto deadline = std::chrono::steady_clock::now() + milliseconds{2};
  while (std::chrono::steady_clock::now() < deadline) {
  }
  logger.error("again");
  size_t lines = 0;
  std::istringstream text{out.str()};
  for (std::string line; std::getline(text, line);) {
    ++lines;
    const size_t at = line.find('(');
    if (at != std::string::npos) lines += std::stoul(line.substr(at + 1));
  }
  EXPECT_EQ(lines, 1001U);
}

}  // namespace
}  // namespace service_main
