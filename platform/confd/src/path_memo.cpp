#include "path_memo.h"

namespace confd {

bool PathMemo::IsWholeStepOf(std::string_view path, const Step& step) const {
  if (path.size() < step.end || (path.size() > step.end && path[step.end] != '/')) return false;
  return path.substr(0, step.end) == std::string_view(text_).substr(0, step.end);
}

size_t PathMemo::TurnTo(std::string_view path, int ns) {
  if (ns != ns_) steps_.clear();
  ns_ = ns;
  while (!steps_.empty() && !IsWholeStepOf(path, steps_.back())) steps_.pop_back();
  const size_t kept = steps_.empty() ? 0 : steps_.back().end;
  if (kept < path.size()) text_.replace(kept, std::string::npos, path.substr(kept));
  keys_.Truncate(steps_.empty() ? 0 : steps_.back().place.keys_size);
  return kept;
}

void PathMemo::Add(size_t end, const Place& place) { steps_.push_back({end, place}); }

}  // namespace confd
