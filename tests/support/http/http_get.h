#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace http {

struct Answer {
  int status = 0;
  std::string body;
};

/// GET over the loopback interface. Nothing when nobody listens, or the answer is not whole after `limit`.
std::optional<Answer> Get(const std::string& address, uint16_t port, const std::string& path,
                          std::chrono::milliseconds limit = std::chrono::seconds{10});

}  // namespace http
