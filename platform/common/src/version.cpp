#include "common/version.h"

namespace common {

const char* Version() { return IP_SPOOFING_VERSION; }

}  // namespace common
