#include "common/error.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace common {

const char* ErrorCodeName(ErrorCode code) {
  switch (code) {
    case ErrorCode::kOther:
      return "other";
    case ErrorCode::kNotFound:
      return "not-found";
    case ErrorCode::kExists:
      return "exists";
    case ErrorCode::kInUse:
      return "in-use";
    case ErrorCode::kInvalid:
      return "invalid";
    case ErrorCode::kUnsupported:
      return "unsupported";
    case ErrorCode::kDamaged:
      return "damaged";
    case ErrorCode::kDenied:
      return "denied";
    case ErrorCode::kExhausted:
      return "exhausted";
    case ErrorCode::kTimedOut:
      return "timed-out";
    case ErrorCode::kClosed:
      return "closed";
  }
  return "unknown";
}

ErrorCode CodeOfErrno(int error_number) {
  switch (error_number) {
    case ENOENT:
    case ENODEV:
    case ENXIO:
    case ESRCH:
      return ErrorCode::kNotFound;
    case EEXIST:
      return ErrorCode::kExists;
    case EADDRINUSE:
    case EBUSY:
    case ETXTBSY:
      return ErrorCode::kInUse;
    case EINVAL:
    case ENAMETOOLONG:
    case EBADF:
      return ErrorCode::kInvalid;
    case ENOSYS:
    case EOPNOTSUPP:
    case EAFNOSUPPORT:
    case EPROTONOSUPPORT:
      return ErrorCode::kUnsupported;
    case EACCES:
    case EPERM:
    case EROFS:
      return ErrorCode::kDenied;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case ENOBUFS:
    case ENOSPC:
    case EDQUOT:
      return ErrorCode::kExhausted;
    case ETIMEDOUT:
      return ErrorCode::kTimedOut;
    case EPIPE:
    case ECONNRESET:
    case ECONNREFUSED:
    case ENOTCONN:
    case ESHUTDOWN:
      return ErrorCode::kClosed;
    default:
      return ErrorCode::kOther;
  }
}

std::string Error::Text() const {
  std::string text = operation;
  if (!object.empty()) text += (text.empty() ? "" : " ") + object;
  if (!reason.empty()) text += (text.empty() ? "" : ": ") + reason;
  return text;
}

Error SystemError(std::string operation, std::string object, int error_number) {
  return {std::move(operation),      std::move(object), std::strerror(error_number),
          CodeOfErrno(error_number), error_number,      0};
}

}  // namespace common
