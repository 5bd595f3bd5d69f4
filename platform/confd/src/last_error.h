#pragma once

#include <string>

#include "confd_lib.h"

/// confd_errno and confd_lasterr() of the process.
namespace confd {

/// Remembers the failure and returns CONFD_ERR, or CONFD_EOF from FailEof().
int Fail(confd_errno_value code, std::string text);
int FailEof(std::string text);
/// "operation: <text of errno value>".
int FailOs(const std::string& operation, int error_number);

}  // namespace confd
