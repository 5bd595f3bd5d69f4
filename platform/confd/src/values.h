#pragma once

#include <string>
#include <string_view>

#include "cdb_store/schema.h"
#include "confd_lib.h"
#include "confd_wire/messages.h"

namespace confd {

/// A value that points at bytes of somebody else: `stored` must be followed by a NUL where it is a string.
confd_value_t BorrowValue(const cdb_store::Schema& schema, const cdb_store::Node& leaf, std::string_view stored);
/// A value of the application's own, to be released with confd_free_value().
confd_value_t CopyValue(const cdb_store::Schema& schema, const cdb_store::Node& leaf, std::string_view stored);

/// The value as it is stored or sent. False when its type cannot be.
bool ToWire(const confd_value_t& value, confd_wire::Value& wire);

/// The value as text, without knowing its leaf.
std::string ValueText(const confd_value_t& value);

}  // namespace confd
