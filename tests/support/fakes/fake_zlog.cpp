#include "fakes/fake_zlog.h"

#include <cstdarg>
#include <cstdio>

#include "fakes/trace.h"

struct zlog_category_s {
  int unused;
};

namespace fakes {
namespace {

constexpr int kDetailLevel = 10;
constexpr int kEnabled = -1;  // any number but 0 means so

}  // namespace

Zlog& TheZlog() {
  static Zlog* const zlog = new Zlog;
  return *zlog;
}

zlog_category_t* TheCategory() {
  static zlog_category_s category{};
  return &category;
}

}  // namespace fakes

int zlog_init(const char* /*config*/) { return 0; }
void zlog_fini() {}
zlog_category_t* zlog_get_category(const char* /*name*/) { return fakes::TheCategory(); }

void zlog(zlog_category_t* category, const char* file, size_t filelen, const char* func, size_t funclen, long line,
          int level, const char* format, ...) {
  char text[16384];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  fakes::Zlog& zlog = fakes::TheZlog();
  if (level == fakes::kDetailLevel && !zlog.detail_enabled) ++zlog.detail_lines_while_disabled;
  const std::string function(func, funclen);
  zlog.lines.push_back({category, std::string(file, filelen), function, line, level, text});
  const char* const foreign = category == fakes::TheCategory() ? "" : " on a foreign category";
  fakes::TheTrace().Add(fakes::Kind::kLog, fakes::Format("log %d %s: %s%s", level, function.c_str(), text, foreign));
}

int zlog_level_enabled(zlog_category_t* category, int level) {
  fakes::TheZlog().asked_levels.push_back(level);
  if (category != fakes::TheCategory()) return 0;
  return level != fakes::kDetailLevel || fakes::TheZlog().detail_enabled ? fakes::kEnabled : 0;
}
