#pragma once

#include <string>

#include "cdb_store/schema.h"

namespace confd_testing {

/* Commands of the test, one packet each: 'P' path value, 'R' path, 'C' bulk (answered 'T' number points), 'E' text,
 * 'S' connection bytes, 'X' connection, 'B' (answered 'B'). To the test: 'M' connection bytes. */

/// The child's main. Ends when the test's end of `control` closes; never returns.
[[noreturn]] void RunServer(cdb_store::Schema schema, const std::string& dir, const std::string& socket_path,
                            int control);

}  // namespace confd_testing
