/// @file diff_walk.h
/// What the iterators of both difference walks share.
#pragma once

#include "app/confd_mgr/confd_app_mgr.h"

namespace ip_spoofing_app {

/// The deletions of a commit are handled in a walk of their own, before everything else.
inline constexpr int kDeletePassFlags = ITER_WANT_ANCESTOR_DELETE | ITER_WANT_SCHEMA_ORDER;
inline constexpr int kCreatePassFlags = ITER_WANT_SCHEMA_ORDER;

/// Checks an iterator's pointers, each of which a fatal fault of `site` reports, and gives the interface's name.
std::string checked_interface_name(const CallSite& site, const confd_hkeypath_t* kp, const void* state);

/// Logs a change that is the other pass's business.
confd_iter_ret omit_change(const CallSite& site, zlog_category_t* category, const confd_hkeypath_t* kp,
                           confd_iter_op op, const std::string& name);

}  // namespace ip_spoofing_app
