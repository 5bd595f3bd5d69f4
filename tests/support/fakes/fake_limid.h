/// @file fake_limid.h
/// Deterministic logical interface ids: numbered 1, 2, ... in the order in which names are first seen, or as a test
/// gives them. Every interface is a service port unless a test says otherwise.
///
/// A conversion that fails leaves its destination as it was: a library that zeroes it would hide an id that the daemon
/// carried over from another interface.
///
/// Scripted answers: "limid_from_intfname NAME" and "limid_to_type NAME", non-zero to fail as the library does;
/// "limid_is_from_type NAME" and "limid_compare", returned.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "limid.h"

namespace fakes {

class Limid {
 public:
  /// The id of that name, as limid_from_intfname() gives it. Ids are ordered by their number.
  limid_t Id(const std::string& name);
  /// The name of an id, "" for one that names none.
  std::string Name(limid_t id) const;
  /// Gives a name a number of the test's choice before it is first seen. 0 is the zero id.
  void SetNumber(const std::string& name, uint32_t number) { numbers_[name] = number; }
  void SetType(const std::string& name, limid_type_t type) { types_[name] = type; }
  limid_type_t Type(const std::string& name) const;
  /// The id of interface index 0; the zero id unless a test gives it a name.
  limid_t index_zero{};

 private:
  std::map<std::string, uint32_t> numbers_;
  std::map<std::string, limid_type_t> types_;
};

Limid& TheLimid();

}  // namespace fakes
