#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "cdb_store/instance_key.h"
#include "cdb_store/schema.h"

namespace cdb_store {

/// One element of a path's text: "ais:interface{eth3}", "ipv4{10.0.0.1 100}", "ipv4[17]", "mac".
struct PathStep {
  enum class Selector : uint8_t { kNone, kKeys, kPosition };
  static constexpr size_t kMaxKeys = 8;

  std::string_view prefix;  ///< empty when there is none
  std::string_view name;
  Selector selector = Selector::kNone;
  std::array<std::string_view, kMaxKeys> keys;  ///< unquoted; valid until the next step is read
  size_t key_count = 0;
  uint32_t position = 0;
};

/// Reads a path's text step by step. Keys stand between braces, separated by blanks, plain or in double quotes with
/// \" \\ \n \r \t \0; a position, from 0, between brackets. Allocates only for keys with an escape in them.
class PathReader final {
 public:
  explicit PathReader(std::string_view path);
  /// Goes on behind the first `from` bytes, which are whole steps read before: the end() of one of them, in this or in
  /// another path that began with the same bytes. 0 is the beginning.
  PathReader(std::string_view path, size_t from);

  /// The next step. False at the end, and on a mistake, which problem() then tells.
  bool Next(PathStep& step);
  /// Where in the path the text of the step read last ends: there is a '/' or nothing.
  [[nodiscard]] size_t end() const noexcept { return end_; }
  /// What is wrong, null when nothing is. A fixed text.
  [[nodiscard]] const char* problem() const noexcept { return problem_; }

 private:
  bool Fail(const char* problem);
  bool SkipSlash();
  bool ReadName(PathStep& step);
  bool ReadKeys(PathStep& step);
  bool ReadQuotedKey(std::string_view& key);
  bool ReadPosition(PathStep& step);

  std::string_view rest_;
  size_t path_size_;
  size_t end_ = 0;
  const char* problem_ = nullptr;
  std::string unescaped_;  ///< the step's keys that had an escape, one after the other
};

/// Which child of `parent` a step means. A bare top name is looked up in `default_ns` (a namespace index); with -1 it
/// is taken when only one module has it. Null, with the reason in `problem`, when there is none.
const Node* ResolveStep(const Schema& schema, const Node& parent, const PathStep& step, int default_ns,
                        std::string& problem);

/// Appends the keys of a step to `key`. False, with the reason in `problem`, when their number or a value is wrong.
bool AppendStepKeys(const Schema& schema, const Node& node, const PathStep& step, InstanceKey& key,
                    std::string& problem);

/// A node and the keys of the instance that a path names.
struct Located {
  const Node* node = nullptr;
  std::string keys;
  bool all_keys = true;  ///< false: the path's last lists were named without keys
};

/// Resolves a path with keys (no positions) as text. Keys may be left out from some list on, down to the end.
common::Result<Located> LocatePath(const Schema& schema, std::string_view path, int default_ns = -1);

}  // namespace cdb_store
