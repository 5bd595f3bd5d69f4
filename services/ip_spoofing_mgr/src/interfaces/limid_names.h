#pragma once

#include "table/table.h"

namespace mgr {

/// The element's registry of logical interface ids.
class LimidNames final : public PortNames {
 public:
  std::optional<std::string> NameOf(limid_t limid) override;
  std::optional<limid_t> IdOf(const std::string& name) override;
};

}  // namespace mgr
