#pragma once

#include <cstdio>
#include <cstdlib>

/// One call of libFuzzer, also called by the replay.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size);

namespace fuzz {

/// Ends the process, which makes the input a finding.
inline void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "not so: %s\n", what);
  std::abort();
}

}  // namespace fuzz
