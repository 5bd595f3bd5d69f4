#include "config.h"
#include "require.h"

namespace {

using namespace zlog_impl;

constexpr std::string_view kMessage = "message";

void Use(const Pattern& pattern, const Config& config) {
  const Line line{
      .time = {}, .level = 40, .category = "c", .file = "f/f", .function = "u", .number = 1, .message = kMessage};
  std::string text;
  pattern.Append(line, config.levels, text);
  if (!pattern.IsConstant()) return;
  std::string other;
  pattern.Append({.time = std::chrono::system_clock::time_point{std::chrono::hours{100'000}},
                  .level = 100,
                  .category = "d",
                  .file = "g",
                  .function = "v",
                  .number = 2,
                  .message = "other"},
                 config.levels, other);
  fuzz::Require(text == other, "what is constant is the same for every line");
}

}  // namespace

/// A configuration file. What is refused says where; what is taken can be used.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  const auto config = ParseConfig({reinterpret_cast<const char*>(data), size}, "file");
  if (!config) {
    fuzz::Require(config.error().Text().find("file:") != std::string::npos, "an error says where");
    return 0;
  }
  for (const Rule& rule : config.value().rules) {
    Use(rule.format, config.value());
    if (rule.target == Target::kFile) Use(rule.path, config.value());
    (void)rule.Wants("c");
    (void)rule.Writes(40);
  }
  return 0;
}
