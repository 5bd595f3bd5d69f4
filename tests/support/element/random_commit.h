#pragma once

#include <string>

#include "configuration.h"

namespace test {

/// Makes up one edit of `configuration` that a server must accept, with operations at every level of the model, applies
/// it to `*configuration`, and returns what stands in the edit's <config>. It may change nothing.
std::string RandomCommit(Random& random, Configuration* configuration);

}  // namespace test
