/// @file keypath.h
/// Keypaths built from text, as a difference walk or a data request hands them to the daemon.
#pragma once

#include <deque>
#include <string>

#include "confd_lib.h"

namespace fakes {

/// Owns the strings that its keys point at. Throws std::invalid_argument for a path that is not in the model.
class Keypath {
 public:
  /// "/config/anti-ip-spoofing/interface{eth3}/allowed-ip/ipv4{10.0.0.1 100}", by keys only.
  explicit Keypath(const std::string& path);
  /// The keypath of a status row: one element, its 64-bit key.
  static Keypath StatusRow(int64_t position);

  confd_hkeypath_t* Get() { return &path_; }

 private:
  Keypath() = default;
  confd_hkeypath_t path_{};
  std::deque<std::string> strings_;
};

}  // namespace fakes
