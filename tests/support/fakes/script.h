/// @file script.h
/// Answers on demand: what a call of a fake returns instead of what it would work out.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace fakes {

struct Answer {
  int result = 0;
  std::string error;  ///< text for confd_lasterr(); empty: left as it is
};

/// A call is named by its function, alone ("cdb_subscribe_done") or followed by a blank and its object
/// ("cdb_exists /config/anti-ip-spoofing", "cdb_exists running /config/anti-ip-spoofing"). The rule made last wins.
class Script {
 public:
  /// Every such call from now on.
  void Return(std::string call, int result, std::string error = "");
  /// Only the n-th such call (from 1) after this rule was made.
  void ReturnNth(std::string call, int nth, int result, std::string error = "");

  /// The answer scripted for a call of `function` on any of the objects given, each a name for the same object.
  std::optional<Answer> Find(const std::string& function, const std::vector<std::string>& objects = {});

 private:
  struct Rule {
    std::string call;
    int nth;  // 0: every call
    int seen;
    Answer answer;
  };
  std::vector<Rule> rules_;
};

Script& TheScript();

/// The scripted result of a call that otherwise succeeds with 0; a scripted error text goes to confd_lasterr().
int ScriptedResult(const std::string& function, const std::vector<std::string>& objects = {});

/// Text that confd_lasterr() gives.
void SetLastError(int number, std::string text);

}  // namespace fakes
