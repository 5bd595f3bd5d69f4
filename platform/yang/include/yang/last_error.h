#pragma once

#include <libyang/libyang.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// What differs between the major versions of libyang that the project builds with (2 and 3).
namespace yang {

/// One error as libyang reports it. What it does not say is empty.
struct LastError {
  std::string message;
  std::string data_path;
  std::string schema_path;       ///< of the node, choices and cases included
  std::string app_tag;           ///< the model's error-app-tag
  std::optional<uint64_t> line;  ///< of the document that was parsed, from 1
};

/// The last error that libyang stored for `context`, which logs with LY_LOSTORE. "unknown error" if there is none.
[[nodiscard]] LastError ReadLastError(const ly_ctx* context);

/// The first error that libyang stored for `context`: the cause where the later ones are its consequences.
[[nodiscard]] LastError ReadFirstError(const ly_ctx* context);

/// Splits the one text in which libyang 2 gives its paths and line: `Schema location "/m:a", data location
/// "/m:a[k='1']", line number 3.`, any of the three, or a bare data path.
[[nodiscard]] LastError SplitLocations(std::string_view text);

}  // namespace yang
