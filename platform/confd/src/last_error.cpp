#include "last_error.h"

#include <cstring>
#include <utility>

#include "common/config_reads.h"

int confd_errno = 0;

namespace confd {
namespace {

std::string& LastText() {
  static auto* const text = new std::string;  // outlives every caller at process exit
  return *text;
}

}  // namespace

int Fail(confd_errno_value code, std::string text) {
  confd_errno = code;
  if (code != CONFD_ERR_NOEXISTS) ++common::ProcessConfigReads().failures;
  LastText() = std::move(text);
  return CONFD_ERR;
}

int FailEof(std::string text) {
  Fail(CONFD_ERR_OS, std::move(text));
  return CONFD_EOF;
}

int FailOs(const std::string& operation, int error_number) {
  return Fail(CONFD_ERR_OS, operation + ": " + std::strerror(error_number));
}

}  // namespace confd

const char* confd_lasterr() { return confd::LastText().c_str(); }
