#pragma once

#include <spdlog/sinks/sink.h>

#include <memory>

#include "common/result.h"
#include "config.h"

namespace zlog_impl {

/// Where one rule writes to. The logging library's message carries our level number as its level.
/// Fails when the rule's file has a fixed name and cannot be opened.
common::Result<std::shared_ptr<spdlog::sinks::sink>> MakeSink(const Rule& rule, const Config& config);

}  // namespace zlog_impl
