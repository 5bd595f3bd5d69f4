#pragma once

#include <libnftnl/rule.h>

#include <string>

namespace mgr::nft {

/// What a rule does, written the same for a rule that was built here and for the one that the kernel gives back.
std::string TextOf(nftnl_rule* rule);

}  // namespace mgr::nft
