#include "sinks.h"

#include <spdlog/formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <syslog.h>

#include <mutex>
#include <utility>

#include "common/append_file.h"

namespace zlog_impl {
namespace {

Line ToLine(const spdlog::details::log_msg& message) {
  Line line;
  line.time = message.time;
  line.level = static_cast<int>(message.level);
  line.category = {message.logger_name.data(), message.logger_name.size()};
  line.file = message.source.filename;
  line.function = message.source.funcname;
  line.number = message.source.line;
  line.message = {message.payload.data(), message.payload.size()};
  return line;
}

class RuleFormatter final : public spdlog::formatter {
 public:
  RuleFormatter(Pattern pattern, Levels levels, size_t max_line)
      : pattern_{std::move(pattern)}, levels_{std::move(levels)}, max_line_{max_line} {}

  void format(const spdlog::details::log_msg& message, spdlog::memory_buf_t& out) override {
    std::string text;
    pattern_.Append(ToLine(message), levels_, text);
    if (text.size() > max_line_) {
      text.resize(max_line_ - 1);
      text += '\n';
    }
    out.append(text.data(), text.data() + text.size());
  }
  [[nodiscard]] std::unique_ptr<spdlog::formatter> clone() const override {
    return std::make_unique<RuleFormatter>(pattern_, levels_, max_line_);
  }

 private:
  Pattern pattern_;
  Levels levels_;
  size_t max_line_;
};

class SyslogSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  SyslogSink(int facility, Levels levels) : facility_{facility}, levels_{std::move(levels)} {}

 private:
  void sink_it_(const spdlog::details::log_msg& message) override {
    spdlog::memory_buf_t text;
    formatter_->format(message, text);
    const auto level = levels_.find(static_cast<int>(message.level));
    const int priority = level != levels_.end() ? level->second.syslog_priority : LOG_DEBUG;
    ::syslog(facility_ | priority, "%.*s", static_cast<int>(text.size()), text.data());
  }
  void flush_() override {}

  int facility_;
  Levels levels_;
};

class FileSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  FileSink(Pattern path, Levels levels, common::AppendFile file)
      : path_{std::move(path)}, levels_{std::move(levels)}, file_{std::move(file)} {}

  common::Status Open() {
    std::string path;
    path_.Append({}, levels_, path);
    return file_.Open(path);
  }

 private:
  void sink_it_(const spdlog::details::log_msg& message) override {
    std::string path;
    path_.Append(ToLine(message), levels_, path);
    spdlog::memory_buf_t text;
    formatter_->format(message, text);
    const auto written = file_.Write(path, {text.data(), text.size()});
    if (!written && !failing_) std::fprintf(stderr, "zlog: %s\n", written.error().Text().c_str());
    failing_ = !written;
  }
  void flush_() override {}

  Pattern path_;
  Levels levels_;
  common::AppendFile file_;
  bool failing_ = false;  ///< the failure is reported once, until a line is written again
};

common::Result<std::shared_ptr<spdlog::sinks::sink>> MakeFileSink(const Rule& rule, const Config& config) {
  common::AppendFile::Limits limits;
  limits.mode = config.file_mode;
  limits.sync = rule.sync;
  limits.fsync_period = config.fsync_period;
  limits.max_size = rule.max_size;
  limits.max_archives = rule.max_archives;
  limits.archive_name = rule.archive_name;
  auto sink = std::make_shared<FileSink>(rule.path, config.levels, common::AppendFile{limits});
  if (rule.path.IsConstant()) {
    if (const auto opened = sink->Open(); !opened) return opened.error();
  }
  return std::shared_ptr<spdlog::sinks::sink>{std::move(sink)};
}

}  // namespace

common::Result<std::shared_ptr<spdlog::sinks::sink>> MakeSink(const Rule& rule, const Config& config) {
  std::shared_ptr<spdlog::sinks::sink> sink;
  switch (rule.target) {
    case Target::kStandardOutput:
      sink = std::make_shared<spdlog::sinks::stdout_sink_mt>();
      break;
    case Target::kStandardError:
      sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
      break;
    case Target::kSyslog:
      sink = std::make_shared<SyslogSink>(rule.facility, config.levels);
      break;
    case Target::kFile: {
      auto file = MakeFileSink(rule, config);
      if (!file) return file.error();
      sink = std::move(file).value();
      break;
    }
  }
  sink->set_formatter(std::make_unique<RuleFormatter>(rule.format, config.levels, config.max_line));
  return sink;
}

}  // namespace zlog_impl
