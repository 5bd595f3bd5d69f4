#pragma once

#include <spdlog/sinks/base_sink.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "common/log_limiter.h"

namespace service_main {

/// Hands lines on to another sink; of a warning or error that repeats to the letter only one in each period.
class LimitedSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit LimitedSink(spdlog::sink_ptr next, common::LogLimiter limiter = common::LogLimiter{})
      : next_{std::move(next)}, limiter_{std::move(limiter)} {}

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    if (message.level < spdlog::level::warn) return next_->log(message);
    const auto left_out = limiter_.Admit({message.payload.data(), message.payload.size()});
    if (!left_out) return;
    if (*left_out == 0) return next_->log(message);
    const std::string text =
        std::string{message.payload.data(), message.payload.size()} + common::LogLimiter::Suffix(*left_out);
    spdlog::details::log_msg counted{message};
    counted.payload = text;
    next_->log(counted);
  }
  void flush_() override { next_->flush(); }
  void set_pattern_(const std::string& pattern) override { next_->set_pattern(pattern); }
  void set_formatter_(std::unique_ptr<spdlog::formatter> formatter) override {
    next_->set_formatter(std::move(formatter));
  }

 private:
  const spdlog::sink_ptr next_;
  common::LogLimiter limiter_;
};

}  // namespace service_main
