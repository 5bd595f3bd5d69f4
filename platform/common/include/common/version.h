#pragma once

namespace common {

/// The version of this element, "1.0.0", as all its programs say it.
const char* Version();

}  // namespace common
