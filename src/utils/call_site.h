/// @file call_site.h
/// Where a log line or a fault comes from: source file, bare function name and line.
#pragma once

namespace ip_spoofing_app {

struct CallSite {
  const char* file;
  const char* function;  ///< bare name, as `__func__` gives it
  int line;
};

}  // namespace ip_spoofing_app

/// The place where it is written. Usable in every function but a lambda, whose bare name says nothing.
#define CALL_SITE (::ip_spoofing_app::CallSite{__FILE__, __func__, __LINE__})
