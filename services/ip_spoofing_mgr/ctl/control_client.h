#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "common/result.h"

namespace mgr {

/// Asks the manager and hands each part of the answer to `on_part`, until the end. An error is the manager's, or says
/// that there is none. Blocks; SIGINT ends the process as usual.
common::Status AskManager(const std::string& command, const nlohmann::json& arguments,
                          const std::function<void(const nlohmann::json& part)>& on_part);

}  // namespace mgr
