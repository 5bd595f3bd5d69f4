#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace common {

/// The kind of a failure, for code that decides. Texts are for people: no code branches on one.
enum class ErrorCode : uint8_t {
  kOther,
  kNotFound,
  kExists,
  kInUse,        ///< another process or object holds it
  kInvalid,      ///< an argument, a request or a document that breaks the rules
  kUnsupported,  ///< valid, but not implemented here
  kDamaged,      ///< stored or received data that its writer cannot have written
  kDenied,       ///< no permission
  kExhausted,    ///< descriptors, memory, space or a configured limit ran out
  kTimedOut,
  kClosed,  ///< the peer is gone
};

/// "not-found", "in-use", ...: for logs and tests.
[[nodiscard]] const char* ErrorCodeName(ErrorCode code);

/// What failed, on what, and why: "map_update src_v4 ge-1/2: No space left on device". The code says what kind it is.
struct Error {
  std::string operation;
  std::string object;
  std::string reason;
  ErrorCode code = ErrorCode::kOther;
  int system_error = 0;  ///< errno value; 0 if the failure did not come from the system
  size_t line = 0;       ///< line of the parsed input, from 1; 0 if the failure has no place in a text

  [[nodiscard]] std::string Text() const;

  [[nodiscard]] bool IsNotFound() const noexcept { return code == ErrorCode::kNotFound; }
  [[nodiscard]] bool IsExists() const noexcept { return code == ErrorCode::kExists; }
  [[nodiscard]] bool IsInUse() const noexcept { return code == ErrorCode::kInUse; }
  [[nodiscard]] bool IsInvalid() const noexcept { return code == ErrorCode::kInvalid; }
  [[nodiscard]] bool IsUnsupported() const noexcept { return code == ErrorCode::kUnsupported; }
  [[nodiscard]] bool IsDamaged() const noexcept { return code == ErrorCode::kDamaged; }
  [[nodiscard]] bool IsDenied() const noexcept { return code == ErrorCode::kDenied; }
  [[nodiscard]] bool IsExhausted() const noexcept { return code == ErrorCode::kExhausted; }
  [[nodiscard]] bool IsTimedOut() const noexcept { return code == ErrorCode::kTimedOut; }
  [[nodiscard]] bool IsClosed() const noexcept { return code == ErrorCode::kClosed; }
};

/// The code for an `errno` value; kOther for those without a code of their own.
[[nodiscard]] ErrorCode CodeOfErrno(int error_number);

/// An error from an `errno` value: its text is the reason, and its code comes from CodeOfErrno().
[[nodiscard]] Error SystemError(std::string operation, std::string object, int error_number);

}  // namespace common
