#include "fakes/fake_limid.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "fakes/script.h"
#include "fakes/trace.h"

namespace fakes {
namespace {

uint32_t NumberOf(limid_t id) { return static_cast<uint32_t>(id.word[0]) << 16 | id.word[1]; }

void Add(std::string line) { TheTrace().Add(Kind::kLimid, std::move(line)); }

limid_t IdOf(uint32_t number) {
  return {{static_cast<uint16_t>(number >> 16), static_cast<uint16_t>(number & 0xffff)}};
}

}  // namespace

limid_t Limid::Id(const std::string& name) {
  const auto [place, is_new] = numbers_.try_emplace(name, 0);
  if (is_new) {
    uint32_t highest = 0;
    for (const auto& [other, number] : numbers_) highest = std::max(highest, number);
    place->second = highest + 1;
  }
  return IdOf(place->second);
}

std::string Limid::Name(limid_t id) const {
  const uint32_t number = NumberOf(id);
  if (number == 0) return "";
  for (const auto& [name, other] : numbers_) {
    if (other == number) return name;
  }
  return "";
}

limid_type_t Limid::Type(const std::string& name) const {
  const auto found = types_.find(name);
  return found == types_.end() ? static_cast<limid_type_t>(limid_type_serviceport) : found->second;
}

Limid& TheLimid() {
  static Limid* const limid = new Limid;
  return *limid;
}

}  // namespace fakes

int limid_from_intfname(limid_t* limid, const char* name) {
  fakes::Add(std::string("limid_from_intfname ") + name);
  if (*name == '\0' || fakes::ScriptedResult("limid_from_intfname", {name}) != 0) return -1;
  *limid = fakes::TheLimid().Id(name);
  return 0;
}

int limid_from_ifindex(limid_t* limid, uint32_t ifindex) {
  fakes::Add("limid_from_ifindex " + std::to_string(ifindex));
  *limid = ifindex == 0 ? fakes::TheLimid().index_zero : limid_t{};
  return ifindex == 0 ? 0 : -1;
}

int limid_to_intfname(limid_t limid, char* name, size_t size) {
  const std::string text = fakes::TheLimid().Name(limid);
  std::snprintf(name, size, "%s", text.c_str());
  return text.empty() ? -1 : 0;
}

int limid_to_type(limid_t limid, limid_type_t* type) {
  const std::string name = fakes::TheLimid().Name(limid);
  fakes::Add("limid_to_type " + name);
  if (name.empty() || fakes::ScriptedResult("limid_to_type", {name}) != 0) return -1;
  *type = fakes::TheLimid().Type(name);
  return 0;
}

int limid_type_compare(limid_type_t a, limid_type_t b) {
  fakes::Add(fakes::Format("limid_type_compare %d %d", a, b));
  return static_cast<int>(a) - static_cast<int>(b);
}

int limid_is_from_type(limid_t limid, limid_type_t type) {
  const std::string name = fakes::TheLimid().Name(limid);
  if (const auto answer = fakes::TheScript().Find("limid_is_from_type", {name})) return answer->result;
  return !name.empty() && fakes::TheLimid().Type(name) == type ? 1 : 0;
}

int limid_compare(limid_t a, limid_t b) {
  if (const auto answer = fakes::TheScript().Find("limid_compare")) return answer->result;
  const uint32_t left = fakes::NumberOf(a);
  const uint32_t right = fakes::NumberOf(b);
  return left < right ? -1 : left > right ? 1 : 0;
}
