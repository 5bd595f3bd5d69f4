#include "zlog.h"

#include <spdlog/details/log_msg.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "config.h"
#include "sinks.h"

namespace {

constexpr int kLevels = 256;
constexpr size_t kShortMessage = 1024;

using SinkPtr = std::shared_ptr<spdlog::sinks::sink>;

}  // namespace

struct zlog_category_s {
  std::string name;
  std::vector<const zlog_impl::Rule*> rules;  ///< those that want this category, and `sinks` beside them
  std::vector<SinkPtr> sinks;
  std::bitset<kLevels> enabled;
};

namespace {

/// Categories outlive zlog_fini(): a handle kept by a caller then writes nothing, instead of being gone.
struct Registry {
  std::shared_mutex mutex;
  bool initialised = false;
  zlog_impl::Config config;
  std::vector<SinkPtr> sinks;  ///< one per rule
  std::map<std::string, std::unique_ptr<zlog_category_s>> categories;

  void Detach(zlog_category_s& category) const {
    category.rules.clear();
    category.sinks.clear();
    category.enabled.reset();
  }

  void Attach(zlog_category_s& category) const {
    Detach(category);
    AttachRules(category, [&](const zlog_impl::Rule& rule) { return rule.Wants(category.name); });
    if (category.rules.empty()) AttachRules(category, [](const zlog_impl::Rule& rule) { return rule.category == "!"; });
  }

 private:
  template <class Wanted>
  void AttachRules(zlog_category_s& category, Wanted wanted) const {
    for (size_t i = 0; i < config.rules.size(); ++i) {
      const zlog_impl::Rule& rule = config.rules[i];
      if (!wanted(rule)) continue;
      category.rules.push_back(&rule);
      category.sinks.push_back(sinks[i]);
      for (int level = 0; level < kLevels; ++level) {
        if (rule.Writes(level)) category.enabled.set(static_cast<size_t>(level));
      }
    }
  }
};

Registry& TheRegistry() {
  static auto* registry = new Registry;  // lines are still written by exit handlers
  return *registry;
}

common::Status Initialise(Registry& registry, const char* path) {
  if (registry.initialised) return common::Error{"", "", "initialised already"};
  if (path == nullptr) path = std::getenv("ZLOG_CONF_PATH");
  auto read = path != nullptr ? zlog_impl::ReadConfig(path) : zlog_impl::DefaultConfig();
  if (!read) return read.error();
  zlog_impl::Config config = std::move(read).value();
  std::vector<SinkPtr> sinks;
  for (const zlog_impl::Rule& rule : config.rules) {
    auto sink = zlog_impl::MakeSink(rule, config);
    if (!sink) return sink.error();
    sinks.push_back(std::move(sink).value());
  }
  registry.config = std::move(config);
  registry.sinks = std::move(sinks);
  registry.initialised = true;
  for (auto& [name, category] : registry.categories) registry.Attach(*category);
  return common::Ok();
}

bool Enabled(const zlog_category_s& category, int level) {
  return level >= 0 && level < kLevels && category.enabled.test(static_cast<size_t>(level));
}

std::string Formatted(const char* format, va_list args) {
  std::array<char, kShortMessage> buffer;
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(buffer.data(), buffer.size(), format, args);
  std::string text;
  if (length > 0 && static_cast<size_t>(length) < buffer.size()) {
    text.assign(buffer.data(), static_cast<size_t>(length));
  } else if (length > 0) {
    text.resize(static_cast<size_t>(length));
    std::vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  return text;
}

std::string Counted(const char* text, size_t length) { return text != nullptr ? std::string(text, length) : ""; }

}  // namespace

int zlog_init(const char* config) {
  Registry& registry = TheRegistry();
  const std::unique_lock lock{registry.mutex};
  const auto done = Initialise(registry, config);
  if (!done) std::fprintf(stderr, "zlog: %s\n", done.error().Text().c_str());
  return done ? 0 : -1;
}

void zlog_fini(void) {
  Registry& registry = TheRegistry();
  const std::unique_lock lock{registry.mutex};
  for (auto& [name, category] : registry.categories) registry.Detach(*category);
  registry.sinks.clear();
  registry.config = {};
  registry.initialised = false;
}

zlog_category_t* zlog_get_category(const char* name) {
  Registry& registry = TheRegistry();
  const std::unique_lock lock{registry.mutex};
  if (!registry.initialised || name == nullptr || *name == '\0') return nullptr;
  auto& category = registry.categories[name];
  if (!category) {
    category = std::make_unique<zlog_category_s>();
    category->name = name;
    registry.Attach(*category);
  }
  return category.get();
}

void zlog(zlog_category_t* category, const char* file, size_t filelen, const char* func, size_t funclen, long line,
          int level, const char* format, ...) {
  if (category == nullptr || format == nullptr) return;
  const std::shared_lock lock{TheRegistry().mutex};
  if (!Enabled(*category, level)) return;
  va_list args;
  va_start(args, format);
  const std::string text = Formatted(format, args);
  va_end(args);
  const std::string file_text = Counted(file, filelen);
  const std::string function = Counted(func, funclen);
  const spdlog::details::log_msg message{
      spdlog::source_loc{file_text.c_str(), static_cast<int>(line), function.c_str()}, category->name,
      static_cast<spdlog::level::level_enum>(level), text};
  for (size_t i = 0; i < category->rules.size(); ++i) {
    if (category->rules[i]->Writes(level)) category->sinks[i]->log(message);
  }
}

int zlog_level_enabled(zlog_category_t* category, int level) {
  if (category == nullptr) return 0;
  const std::shared_lock lock{TheRegistry().mutex};
  return Enabled(*category, level) ? 1 : 0;
}
