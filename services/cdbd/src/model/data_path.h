#pragma once

#include <string>
#include <string_view>

#include "model/data_error.h"
#include "model/model.h"

namespace cdbd {

/// Sets the error's path to the instance: "/ais:config/ais:anti-ip-spoofing/ais:interface[ais:interface-name='eth0']".
/// `keys` are its encoded keys; for a list without an instance of its own those of its parent.
void SetPath(const Model& model, const cdb_store::Node& node, std::string_view keys, DataError* error);

/// The same from a path as libyang writes it (module names where the module changes). An empty one sets nothing.
void SetLibyangPath(const Model& model, std::string_view path, DataError* error);

}  // namespace cdbd
