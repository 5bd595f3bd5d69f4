#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "dataplane/nft/ruleset.h"

namespace mgr::nft {

/// Compares the table in the kernel with what it should hold, a few milliseconds at a time. Everything is compared:
/// the table's state, each chain, each rule and each element.
class Comparison final {
 public:
  using Clock = std::chrono::steady_clock;

  /// `socket` is for this comparison alone; `expected` is borrowed.
  Comparison(Socket socket, const Ruleset& expected) : socket_{std::move(socket)}, expected_{expected} {}

  void Restart() { part_ = Part::kChains; }
  enum class Result : uint8_t { kUnfinished, kSame, kDifferent };
  struct Outcome {
    Result result = Result::kUnfinished;
    std::string difference = {};  ///< the first one: "chain port1: missing"
  };
  /// The next part, until it is complete or `limit` has passed. The table must not change between two calls.
  Outcome Next(Clock::time_point limit);

 private:
  enum class Part : uint8_t { kChains, kRules, kFirstSet };
  using Difference = std::optional<std::string>;
  [[nodiscard]] Difference CompareChains() const;
  [[nodiscard]] Difference CompareRules(const PortConfig& port) const;
  /// Compares the next elements of the set at `set_`; `*complete` when it was the last of them.
  Difference CompareElements(bool* complete);
  [[nodiscard]] bool IsExpected(const Element& element) const;
  [[nodiscard]] size_t ExpectedSize() const;

  Socket socket_;
  const Ruleset& expected_;
  Part part_ = Part::kChains;
  PortId next_port_ = 0;
  size_t set_ = 0;  ///< in the list of all sets
  bool dumping_ = false;
  size_t seen_ = 0;  ///< elements of the current set
};

}  // namespace mgr::nft
