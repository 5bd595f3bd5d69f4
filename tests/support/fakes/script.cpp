#include "fakes/script.h"

#include <algorithm>
#include <utility>

#include "confd_lib.h"

int confd_errno = 0;

namespace fakes {
namespace {

std::string& LastError() {
  static std::string* const text = new std::string;
  return *text;
}

}  // namespace

void Script::Return(std::string call, int result, std::string error) {
  rules_.push_back({std::move(call), 0, 0, {result, std::move(error)}});
}

void Script::ReturnNth(std::string call, int nth, int result, std::string error) {
  rules_.push_back({std::move(call), nth, 0, {result, std::move(error)}});
}

std::optional<Answer> Script::Find(const std::string& function, const std::vector<std::string>& objects) {
  std::optional<Answer> found;
  for (Rule& rule : rules_) {
    const bool matches = rule.call == function || std::any_of(objects.begin(), objects.end(), [&](const auto& object) {
                           return rule.call == function + " " + object;
                         });
    if (!matches) continue;
    ++rule.seen;
    if (rule.nth == 0 || rule.nth == rule.seen) found = rule.answer;
  }
  return found;
}

Script& TheScript() {
  static Script* const script = new Script;
  return *script;
}

int ScriptedResult(const std::string& function, const std::vector<std::string>& objects) {
  const std::optional<Answer> answer = TheScript().Find(function, objects);
  if (!answer) return 0;
  if (!answer->error.empty()) SetLastError(CONFD_ERR_EXTERNAL, answer->error);
  return answer->result;
}

void SetLastError(int number, std::string text) {
  confd_errno = number;
  LastError() = std::move(text);
}

}  // namespace fakes

const char* confd_lasterr() { return fakes::LastError().c_str(); }
