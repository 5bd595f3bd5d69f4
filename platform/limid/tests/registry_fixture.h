#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "common/paths.h"
#include "forked/forked.h"
#include "limid.h"
#include "temp_dir/temp_dir.h"

using test::InChild;
using test::StartChild;
using test::WaitFor;

/// A process opens the registry once, so every body runs in a process of its own, on a state directory of the test's.
class RegistryTest : public testing::Test {
 protected:
  void SetUp() override { ::setenv(common::kStateDirVariable, (folder_ / "state").c_str(), 1); }
  void TearDown() override { ::unsetenv(common::kStateDirVariable); }

  const test::TempDir directory_;
  const std::filesystem::path folder_ = directory_.path();
};

/// The id as one number; 0 for the zero id.
inline uint32_t Number(limid_t limid) { return uint32_t{limid.word[0]} << 16 | limid.word[1]; }

/// 0 when the call failed.
inline uint32_t NumberOf(const std::string& name) {
  limid_t limid{};
  return limid_from_intfname(&limid, name.c_str()) == 0 ? Number(limid) : 0;
}

inline limid_t LimidOf(uint32_t number) {
  return {{static_cast<uint16_t>(number >> 16), static_cast<uint16_t>(number)}};
}
