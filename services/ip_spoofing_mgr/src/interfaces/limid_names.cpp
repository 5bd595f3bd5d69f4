#include "interfaces/limid_names.h"

#include <array>

namespace mgr {

std::optional<std::string> LimidNames::NameOf(limid_t limid) {
  std::array<char, 64> name{};
  if (limid_to_intfname(limid, name.data(), name.size()) != 0 || name[0] == '\0') return std::nullopt;
  return name.data();
}

std::optional<limid_t> LimidNames::IdOf(const std::string& name) {
  limid_t limid{};
  if (limid_from_intfname(&limid, name.c_str()) != 0) return std::nullopt;
  return limid;
}

}  // namespace mgr
