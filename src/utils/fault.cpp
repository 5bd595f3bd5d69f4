#include "utils/fault.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "qmmw.h"

namespace ip_spoofing_app {
namespace {

enum Severity : int { kNonFatal = 0, kFatal = 1 };

void generate(Severity severity, const CallSite& site, const char* format, va_list args) {
  char message[FAULT_MSG_SIZE] = {};
  std::vsnprintf(message, sizeof message, format, args);
  qmmw_gen_fault(severity, site.function, site.file, site.line, message);
}

}  // namespace

void raise_fatal_fault(const CallSite& site, const char* format, ...) {
  va_list args;
  va_start(args, format);
  generate(kFatal, site, format, args);
  va_end(args);
  std::exit(1);
}

void raise_fault(const CallSite& site, const char* format, ...) {
  va_list args;
  va_start(args, format);
  generate(kNonFatal, site, format, args);
  va_end(args);
}

}  // namespace ip_spoofing_app
